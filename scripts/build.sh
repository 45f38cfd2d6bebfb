#!/usr/bin/env bash
# Builds the library in Release and installs it (library, headers, CMake package and
# pkg-config file) into a prefix.
#
#   scripts/build.sh              # installs into ./out
#   scripts/build.sh /opt/zem     # installs into /opt/zem
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
