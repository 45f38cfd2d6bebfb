#!/usr/bin/env bash
# Builds the benchmarks in Release and runs them with the options behind BENCHMARKS.md:
#  1. parlex_bench: each case in 20 repetitions of 5000 calls, shuffled among the other cases,
#     so that a burst of load on the machine spreads over all of them instead of landing on one;
#  2. scale_bench: 1, 8, 64 and 512 tracks from 4 application processes in real time, then a
#     burst;
#  3. grpc_bench: the same messages as unary gRPC calls, when the gRPC packages are present.
#
#   scripts/bench.sh                     # build in ./build-bench and run all three
#   scripts/bench.sh --pin=same          # place parlex_bench's and grpc_bench's two processes
#   scripts/bench.sh --only=scale        # only some parts: parlex, scale, grpc (comma-separated)
#   scripts/bench.sh --scale-seconds=10  # real-time seconds per track count (default 5)
#   scripts/bench.sh --scale-tracks=64   # track counts (default 1,8,64,512)
#
# Any other argument goes to parlex_bench. The build dir can also come from $BUILD_DIR. Missing
# build packages are installed as by scripts/test.sh; as root the gRPC packages too, otherwise
# the gRPC comparison is skipped when they are missing.
set -euo pipefail

source "$(dirname "$0")/deps.sh"

cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build-bench}

only=parlex,scale,grpc
pin=()
scale_args=()
parlex_args=()
for arg in "$@"; do
    case $arg in
    --only=*) only=${arg#--only=} ;;
    --pin=*) pin=("$arg") ;;
    --scale-seconds=*) scale_args+=("--seconds=${arg#--scale-seconds=}") ;;
    --scale-tracks=*) scale_args+=("--tracks=${arg#--scale-tracks=}") ;;
    *) parlex_args+=("$arg") ;;
    esac
done
wants() { [[ ",$only," == *",$1,"* ]]; }
for part in ${only//,/ }; do
    case $part in
    parlex | scale | grpc) ;;
    *) echo "--only: unknown part '$part' (expected parlex, scale, grpc)" >&2 && exit 2 ;;
    esac
done

[[ $(id -u) -eq 0 ]] && wants grpc && PACKAGES+=("${BENCH_PACKAGES[@]}")
install_missing_packages
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DORV_WERROR=ON \
    -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCHMARKS=ON
targets=()
wants parlex && targets+=(parlex_bench)
wants scale && targets+=(scale_bench)
if wants grpc; then
    if grep -q 'grpc_bench' <(ninja -C "$build_dir" -t targets all 2>/dev/null); then
        targets+=(grpc_bench)
    else
        echo "grpc_bench is not configured (gRPC packages missing): no gRPC comparison" >&2
    fi
fi
[[ ${#targets[@]} -gt 0 ]] || exit 0
cmake --build "$build_dir" --target "${targets[@]}"

# parlex_bench's output, from which the gRPC table takes the library's pooled medians.
parlex_out=$(mktemp)
medians=$(mktemp)
trap 'rm -f "$parlex_out" "$medians"' EXIT
if wants parlex; then
    echo "load average before the run: $(cut -d' ' -f1-3 /proc/loadavg)"
    "$build_dir/bench/parlex_bench" \
        --benchmark_repetitions=20 \
        --benchmark_enable_random_interleaving=true \
        --benchmark_display_aggregates_only=true \
        "${pin[@]}" "${parlex_args[@]}" | tee "$parlex_out"
    awk '/^All repetitions pooled/ { table = 1; next }
         table && /^case / { next }
         table && NF == 0 { table = 0 }
         table { print $1, $3 }' "$parlex_out" >"$medians"
fi
if wants scale; then
    echo "load average before the scale run: $(cut -d' ' -f1-3 /proc/loadavg)"
    "$build_dir/bench/scale_bench" "${scale_args[@]}"
fi
if [[ " ${targets[*]} " == *" grpc_bench "* ]]; then
    echo "load average before the gRPC run: $(cut -d' ' -f1-3 /proc/loadavg)"
    "$build_dir/bench/grpc/grpc_bench" "${pin[@]}" --parlex-medians="$medians"
fi
