#!/usr/bin/env bash
# The soak: client processes SIGKILLed at random points against one zem-audiod, then the
# service must be back where it started. After a warm-up (one playback and a few kills of every
# kind), the service's descriptors (/proc/<pid>/fd), threads (/proc/<pid>/task) and resident
# memory (VmRSS) are the baseline; then CLIENTS kill_client processes, a few at a time, each die
# by SIGKILL during init, setSource, getBuffer or an event (picked at random, as is the point
# within it). Afterwards the descriptors and threads must come back to the baseline exactly,
# resident memory within RSS_TOLERANCE_KB, the service must still run and a new client must play
# a file to its end. Prints the figures; exits non-zero when anything does not come back.
#
#   scripts/soak.sh [BUILD_DIR] [CLIENTS]   default: build, 1000
# Environment: SOAK_PARALLEL (clients at once, default 4), RSS_TOLERANCE_KB (default 4096).
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${1:-build}
clients=${2:-1000}
parallel=${SOAK_PARALLEL:-4}
rss_tolerance_kb=${RSS_TOLERANCE_KB:-4096}
stages=(init setSource getBuffer event)

cmake --build "$build_dir" --target zem-audiod zem-play zem-wavtool kill_client >/dev/null
tools=$build_dir/tools
kill_client=$build_dir/tests/kill_client

work=$(mktemp -d "${TMPDIR:-/tmp}/zem-soak.XXXXXX")
service=
cleanup() {
    if [[ -n $service ]]; then
        kill -TERM "$service" 2>/dev/null || true
        wait "$service" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap "exit 1" INT TERM  # so that a stopped soak still runs cleanup
export PARLEX_RUNTIME_DIR=$work/runtime

fail() {
    echo "soak: FAILED: $*" >&2
    [[ -f $work/service.log ]] && tail -n 20 "$work/service.log" >&2
    exit 1
}

fds() { find "/proc/$service/fd" -mindepth 1 -maxdepth 1 | wc -l; }
threads() { find "/proc/$service/task" -mindepth 1 -maxdepth 1 | wc -l; }
rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$service/status"; }
alive() { kill -0 "$service" 2>/dev/null || fail "zem-audiod died: $(tail -n 5 "$work/service.log")"; }

# Waits (at most 30 s) until no connection is left over from the clients: descriptors and
# threads stop changing and, when given, reach the expected counts.
settle() {
    local want_fds=${1:-} want_threads=${2:-} last="" now
    for _ in $(seq 300); do
        alive
        now="$(fds) $(threads)"
        if [[ -n $want_fds ]]; then
            [[ $now == "$want_fds $want_threads" ]] && return 0
        elif [[ $now == "$last" ]]; then
            return 0
        fi
        last=$now
        sleep 0.1
    done
    return 1
}

# One client that kills itself at a random point of a random stage; its status must say so.
kill_one() {
    local stage=${1:-${stages[RANDOM % ${#stages[@]}]}} status=0
    "$kill_client" die "$stage" "$RANDOM$RANDOM" 2>>"$work/clients.log" || status=$?
    echo "$stage $status" >>"$work/outcomes"
}

"$tools/zem-wavtool" generate "$work/tone.wav" 1 >/dev/null
"$tools/zem-audiod" --fast >"$work/service.log" 2>&1 &
service=$!
for _ in $(seq 100); do
    grep -q "ready" "$work/service.log" && break
    alive
    sleep 0.1
done
grep -q "ready" "$work/service.log" || fail "zem-audiod was not ready after 10 s"

# Warm-up: the first playback and the first kills allocate what the service keeps for good
# (thread stacks, allocator arenas); the baseline is taken after them.
"$tools/zem-play" "$work/tone.wav" >/dev/null || fail "the warm-up playback failed"
for stage in "${stages[@]}" "${stages[@]}"; do
    kill_one "$stage" 2>/dev/null
done
settle || fail "the service did not settle after the warm-up"
base_fds=$(fds) base_threads=$(threads) base_rss=$(rss_kb)
echo "soak: baseline: $base_fds descriptors, $base_threads threads, $base_rss kB resident"

started=$SECONDS
: >"$work/outcomes"  # the warm-up's do not count
# The service is one of this shell's jobs too: it counts as one more running job.
for ((i = 0; i < clients; ++i)); do
    while (($(jobs -rp | wc -l) > parallel)); do wait -n || true; done
    kill_one 2>/dev/null &
done
while (($(jobs -rp | wc -l) > 1)); do wait -n || true; done
elapsed=$((SECONDS - started))
alive

killed=$(awk '$2 == 137' "$work/outcomes" | wc -l)
for stage in "${stages[@]}"; do
    printf 'soak: %-9s %4d killed\n' "$stage" "$(awk -v s="$stage" '$1 == s && $2 == 137' "$work/outcomes" | wc -l)"
done
echo "soak: $killed of $clients clients killed in ${elapsed} s"
if ((killed != clients)); then
    awk '$2 != 137' "$work/outcomes" | sort | uniq -c >&2
    tail -n 5 "$work/clients.log" >&2
    fail "$((clients - killed)) clients did not die where they were meant to"
fi

settle "$base_fds" "$base_threads" || true
end_fds=$(fds) end_threads=$(threads) end_rss=$(rss_kb)
echo "soak: after:    $end_fds descriptors, $end_threads threads, $end_rss kB resident" \
    "($((end_rss - base_rss)) kB from the baseline, tolerance $rss_tolerance_kb kB)"
((end_fds == base_fds)) || fail "descriptors: $end_fds, baseline $base_fds"
((end_threads == base_threads)) || fail "threads: $end_threads, baseline $base_threads"
((end_rss - base_rss <= rss_tolerance_kb)) || fail "resident memory grew by $((end_rss - base_rss)) kB"

"$tools/zem-play" "$work/tone.wav" >"$work/play.log" 2>&1 || fail "a new client could not play: $(cat "$work/play.log")"
grep -q "finished" "$work/play.log" || fail "a new client's playback did not finish"
echo "soak: a new client played to the end"
kill -TERM "$service"
status=0
wait "$service" || status=$?
service=
((status == 0)) || fail "zem-audiod exited with $status"
echo "soak: PASSED"
