#!/usr/bin/env bash
# Builds the library with its tests and runs them all. On a fresh Debian machine it first
# installs the build packages that are missing (as root; otherwise it prints the command).
#
#   scripts/test.sh                                  # build in ./build
#   scripts/test.sh build-asan -DORV_SANITIZE=ON     # another build dir, extra CMake arguments
#
# The build dir can also come from $BUILD_DIR; every argument starting with '-' goes to CMake.
set -euo pipefail

source "$(dirname "$0")/deps.sh"

cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}
if [[ $# -gt 0 && $1 != -* ]]; then
    build_dir=$1
    shift
fi

install_missing_packages
cmake -S . -B "$build_dir" -G Ninja -DORV_WERROR=ON "$@"
cmake --build "$build_dir"
ctest --test-dir "$build_dir" --output-on-failure --no-tests=error -j2
