#!/usr/bin/env bash
# Builds the library in Release and installs it (library, headers, CMake package and
# pkg-config file) into a prefix.
#
#   scripts/build.sh              # installs into ./out
#   scripts/build.sh /opt/zem     # installs into /opt/zem
set -euo pipefail

source "$(dirname "$0")/deps.sh"

# Made absolute before leaving the caller's directory: the prefix is also written into the
# installed pkg-config file.
prefix=$(realpath -m "${1:-$(dirname "$0")/../out}")
cd "$(dirname "$0")/.."

install_missing_packages
cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$prefix" -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCHMARKS=OFF
cmake --build build-release
cmake --install build-release
echo "Installed into $prefix"
