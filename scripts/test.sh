#!/usr/bin/env bash
# Builds the library with its tests and runs them all. On a fresh Debian machine it first
# installs the build packages that are missing (as root; otherwise it prints the command).
#
#   scripts/test.sh                                  # build in ./build
#   scripts/test.sh build-asan -DORV_SANITIZE=ON     # another build dir, extra CMake arguments
#
# The build dir can also come from $BUILD_DIR; every argument starting with '-' goes to CMake.
set -euo pipefail

PACKAGES=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev)

install_missing_packages() {
    local missing=() package
    for package in "${PACKAGES[@]}"; do
        dpkg -s "$package" 2>/dev/null | grep -q '^Status: install ok installed' ||
            missing+=("$package")
    done
    [[ ${#missing[@]} -eq 0 ]] && return 0
    if [[ $(id -u) -ne 0 ]]; then
        echo "Missing packages. Install them as root with:" >&2
        echo "  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}" >&2
        exit 1
    fi
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}

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
