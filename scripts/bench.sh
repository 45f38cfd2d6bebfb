#!/usr/bin/env bash
# Builds the RPC benchmark in Release and runs it with the options behind BENCHMARKS.md. Each
# case runs in 20 repetitions of 5000 calls, shuffled among the other cases, so that a burst of
# load on the machine spreads over all of them instead of landing on one.
#
#   scripts/bench.sh                  # build in ./build-bench and run
#   scripts/bench.sh --pin=same       # extra arguments go to the benchmark binary
#
# The build dir can also come from $BUILD_DIR. Missing build packages are installed as by
# scripts/test.sh.
set -euo pipefail

source "$(dirname "$0")/deps.sh"

cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build-bench}

install_missing_packages
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DORV_WERROR=ON \
    -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCHMARKS=ON
cmake --build "$build_dir" --target parlex_bench

echo "load average before the run: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build_dir/bench/parlex_bench" \
    --benchmark_repetitions=20 \
    --benchmark_enable_random_interleaving=true \
    --benchmark_display_aggregates_only=true \
    "$@"
