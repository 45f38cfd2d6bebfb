#!/usr/bin/env bash
# The whole system in one command. Builds the library and its tools, starts the reference audio
# service (zem-audiod) in a private runtime directory, and plays generated stereo audio through
# it: as PCM that the client (zem-play) decodes and supplies, then as a FLAC file that the
# service opens itself from its URL, then two files at once from two zem-play processes. The
# events are shown as they arrive; after each of the first two playbacks the track's own WAV file
# is checked against the input sample for sample, and after the third the service's mix against
# the sum of both inputs. Exits non-zero on any failure or mismatch and leaves no process behind. On a fresh Debian machine, run as root, it
# first installs the packages that are missing.
#
#   scripts/demo.sh      # builds in ./build, like scripts/test.sh (or in $BUILD_DIR)
set -euo pipefail

source "$(dirname "$0")/deps.sh"

cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}

install_missing_packages
echo "== Building the library and the tools in $build_dir"
cmake -S . -B "$build_dir" -G Ninja -DORV_WERROR=ON >/dev/null
cmake --build "$build_dir" --target zem-audiod zem-play zem-wavtool
tools=$build_dir/tools

work=$(mktemp -d "${TMPDIR:-/tmp}/zem-demo.XXXXXX")
service=
first=
cleanup() {
    if [[ -n $first ]]; then
        kill -TERM "$first" 2>/dev/null || true
        wait "$first" 2>/dev/null || true
    fi
    if [[ -n $service ]]; then
        kill -TERM "$service" 2>/dev/null || true
        wait "$service" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
export PARLEX_RUNTIME_DIR=$work/runtime

fail() {
    echo "demo: FAILED: $*" >&2
    exit 1
}
indent() { sed -u 's/^/    /'; }

# Starts zem-audiod with the given options, its output in $work/$1.log, and waits until it is
# ready.
start_service() {
    local log=$work/$1.log
    shift
    "$tools/zem-audiod" "$@" >"$log" 2>&1 &
    service=$!
    for _ in $(seq 100); do
        grep -q "ready" "$log" && break
        kill -0 "$service" 2>/dev/null || fail "zem-audiod did not start: $(cat "$log")"
        sleep 0.1
    done
    grep -q "ready" "$log" || fail "zem-audiod was not ready after 10 s"
    grep "ready" "$log" | indent
}

stop_service() {
    local log=$work/$1.log status=0
    kill -TERM "$service"
    wait "$service" || status=$?
    service=
    grep -v "ready\|zem-audiod\[[0-9]\]" "$log" | indent
    [[ $status -eq 0 ]] || fail "zem-audiod exited with $status"
}

# The output frame at which the service's log says that the track written to FILE started.
first_frame() {
    sed -n "s/.*first audio at output frame \([0-9]*\), also in ${1//\//\\/}\$/\1/p" \
        "$work/mixing.log"
}

"$tools/zem-wavtool" generate "$work/input.wav" 5
"$tools/zem-wavtool" generate "$work/input.flac" 2 --title "Demo tone" --artist "zem-wavtool"

echo "== Starting zem-audiod: PCM as fast as the client supplies it, the mix and each track into WAV files"
start_service fast --fast --sink "wav:$work/output.wav" --track-files

echo "== 1. 5 s of generated stereo audio, decoded by zem-play and supplied as PCM"
"$tools/zem-play" "$work/input.wav" | indent || fail "zem-play exited with ${PIPESTATUS[0]}"
"$tools/zem-wavtool" compare "$work/input.wav" "$work/output.track1.wav" | indent ||
    fail "the service's output differs from what zem-play supplied"

echo "== 2. 2 s of FLAC with tags, opened by the service from its file:// URL, in real time"
"$tools/zem-play" --url "$work/input.flac" | indent || fail "zem-play exited with ${PIPESTATUS[0]}"
"$tools/zem-wavtool" compare "$work/input.flac" "$work/output.track2.wav" | indent ||
    fail "the service's output differs from the file it played"

echo "== Stopping zem-audiod"
stop_service fast

echo "== 3. Two files at once from two zem-play processes, mixed in real time (the second at half volume)"
"$tools/zem-wavtool" generate "$work/second.wav" 1
start_service mixing -v --sink "wav:$work/mix.wav" --track-files
"$tools/zem-play" --url "$work/input.flac" >"$work/first.out" 2>&1 &
first=$!
for _ in $(seq 100); do
    grep -q "playback started" "$work/first.out" && break
    sleep 0.05
done
"$tools/zem-play" --url --volume 0.5 "$work/second.wav" | sed 's/^/[second] /' | indent ||
    fail "the second zem-play exited with ${PIPESTATUS[0]}"
status=0
wait "$first" || status=$?
first=
sed 's/^/[first] /' "$work/first.out" | indent
[[ $status -eq 0 ]] || fail "the first zem-play exited with $status"
stop_service mixing
grep "first audio" "$work/mixing.log" | sed 's/^.*mix:/mix: /' | indent
at_first=$(first_frame "$work/mix.track1.wav")
at_second=$(first_frame "$work/mix.track2.wav")
[[ -n $at_first && -n $at_second ]] || fail "the service did not log where each track started"
# Both inputs are in the output's format: the mix is exact where every gain is 1, and within
# one step of the exact sum where the second is at half volume.
"$tools/zem-wavtool" mix "$work/mix.wav" "$work/input.flac@$at_first" \
    "$work/second.wav@$at_second*0.5" | indent || fail "the mix differs from the sum of its inputs"
echo "demo: PASSED: both playbacks arrived bit-exact, and two at once were heard mixed"
