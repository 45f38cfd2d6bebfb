#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (address and undefined-behaviour sanitizers) and runs
# each for a bounded time over its checked-in seed corpus, then prints each target's executions,
# coverage and time. Exits non-zero on the first finding; the crashing input is kept in the work
# directory it names.
#
#   scripts/fuzz.sh [SECONDS] [BUILD_DIR]   each target for SECONDS (default 60) in BUILD_DIR
#                                           (default build-fuzz)
#   scripts/fuzz.sh --seeds [BUILD_DIR]     rewrites fuzz/corpus from the library's own writers
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
PACKAGES+=("${FUZZ_PACKAGES[@]}")
install_missing_packages

seeds=false
if [[ ${1:-} == --seeds ]]; then
    seeds=true
    shift
fi
seconds=${1:-60}
build_dir=${2:-build-fuzz}
[[ $seeds == true ]] && build_dir=${1:-build-fuzz}

if [[ ! -f "$build_dir/CMakeCache.txt" ]]; then
    CC=clang CXX=clang++ cmake -S . -B "$build_dir" -G Ninja -DORV_WERROR=ON -DORV_FUZZ=ON \
        -DORV_BUILD_TESTS=OFF -DORV_BUILD_BENCHMARKS=OFF -DORV_BUILD_TOOLS=OFF
fi
targets=()
for source in fuzz/fuzz_*.cpp; do
    name=$(basename "$source" .cpp)
    targets+=("$name")
done
cmake --build "$build_dir" --target "${targets[@]}" make_seeds

if [[ $seeds == true ]]; then
    rm -rf fuzz/corpus
    "$build_dir/fuzz/make_seeds" fuzz/corpus
    echo "fuzz: seeds written to fuzz/corpus"
    exit 0
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/zem-fuzz.XXXXXX")
export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
summary=()
for name in "${targets[@]}"; do
    mkdir -p "$work/$name"
    echo "== fuzz: $name for ${seconds} s"
    started=$SECONDS
    # New inputs go to the work corpus; the checked-in seeds are only read.
    if ! "$build_dir/fuzz/$name" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix="$work/$name-" -rss_limit_mb=2048 "$work/$name" "fuzz/corpus/$name" \
        >"$work/$name.log" 2>&1; then
        tail -n 60 "$work/$name.log"
        echo "fuzz: $name found a fault; its input and log are in $work" >&2
        exit 1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$name.log")
    done_line=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$work/$name.log" | tail -n 1)
    cov=$(sed -E -n 's/.* cov: ([0-9]+).*/\1/p' <<<"$done_line")
    ft=$(sed -E -n 's/.* ft: ([0-9]+).*/\1/p' <<<"$done_line")
    corpus=$(sed -E -n 's/.* corp: ([0-9]+).*/\1/p' <<<"$done_line")
    summary+=("$(printf '%-22s %10s runs  %5s edges  %6s features  %5s inputs  %4s s' \
        "$name" "$runs" "$cov" "$ft" "$corpus" $((SECONDS - started)))")
done
rm -rf "$work"
echo "== fuzz: no finding"
printf '%s\n' "${summary[@]}"
