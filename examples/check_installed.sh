#!/usr/bin/env bash
# Installs the library from a build dir into a temporary prefix, builds both examples against
# that installed copy twice, once through CMake's find_package and once through pkg-config (with
# the run-time path taken from the package), and plays the tone through the example service
# with each pair. Leaves no file and no process behind; exits non-zero on any failure.
#
#   examples/check_installed.sh [BUILD_DIR]     # default: build
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
seconds=2
expected_bytes=$((seconds * 44100 * 4))

work=$(mktemp -d)
service_pid=
cleanup() {
    if [[ -n $service_pid ]]; then
        kill "$service_pid" 2>/dev/null || true
        wait "$service_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
echo "installed into $prefix"

cmake -S examples -B "$work/with-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build "$work/with-cmake" >/dev/null

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name zemaudiotrack.pc)")
export PKG_CONFIG_PATH
libdir=$(pkg-config --variable=libdir zemaudiotrack)
mkdir "$work/with-pkg-config"
for program in play_tone pcm_sink_service; do
    # shellcheck disable=SC2046  # the flags are meant to split
    c++ -std=c++17 -Wall -Wextra -Werror -pthread "examples/$program.cpp" \
        -o "$work/with-pkg-config/$program" $(pkg-config --cflags --libs zemaudiotrack) \
        -Wl,-rpath,"$libdir"
done

# Runs the service from $1 in a runtime directory of its own, plays the tone with the
# application from $1 and checks that every byte of it reached the service.
play() {
    local dir=$1 out=$work/service-$(basename "$1").out
    export PARLEX_RUNTIME_DIR=$work/run-$(basename "$1")
    "$dir/pcm_sink_service" >"$out" &
    service_pid=$!
    for _ in $(seq 100); do
        grep -q '^ready$' "$out" && break
        sleep 0.1
    done
    "$dir/play_tone" "$seconds"
    kill "$service_pid"
    wait "$service_pid"
    service_pid=
    grep -q "received $expected_bytes bytes" "$out" || {
        echo "the service did not receive $expected_bytes bytes:" >&2
        cat "$out" >&2
        return 1
    }
    echo "$(basename "$dir"): the service received all $expected_bytes bytes"
}

play "$work/with-cmake"
play "$work/with-pkg-config"
