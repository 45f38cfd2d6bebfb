#!/usr/bin/env bash
# The whole system in one command. Builds the library and its tools, starts the reference audio
# service (zem-audiod) in a private runtime directory, and plays generated stereo audio through
# it twice: as PCM that the client (zem-play) decodes and supplies, then as a FLAC file that the
# service opens itself from its URL. The events are shown as they arrive; after each playback the
# service's WAV output is checked against the input sample for sample. Exits non-zero on any
# failure or mismatch and leaves no process behind. On a fresh Debian machine, run as root, it
# first installs the packages that are missing.
#
#   scripts/demo.sh      # builds in ./build, like scripts/test.sh (or in $BUILD_DIR)
set -euo pipefail

source "$(dirname "$0")/deps.sh"

cd "$(dirname "$0")/.."
build_dir=${BUILD_DIR:-build}

install_missing_packages
echo "== Building the library and the tools in $build_dir"
cmake -S . -B "$build_dir" -G Ninja >/dev/null
cmake --build "$build_dir" --target zem-audiod zem-play zem-wavtool
tools=$build_dir/tools

work=$(mktemp -d "${TMPDIR:-/tmp}/zem-demo.XXXXXX")
service=
cleanup() {
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

"$tools/zem-wavtool" generate "$work/input.wav" 5
"$tools/zem-wavtool" generate "$work/input.flac" 2 --title "Demo tone" --artist "zem-wavtool"

echo "== Starting zem-audiod: PCM as fast as the client supplies it, each source into a WAV file"
"$tools/zem-audiod" --fast --sink "wav:$work/output.wav" >"$work/service.log" 2>&1 &
service=$!
for _ in $(seq 100); do
    grep -q "ready" "$work/service.log" && break
    kill -0 "$service" 2>/dev/null || fail "zem-audiod did not start: $(cat "$work/service.log")"
    sleep 0.1
done
grep -q "ready" "$work/service.log" || fail "zem-audiod was not ready after 10 s"
indent <"$work/service.log"

echo "== 1. 5 s of generated stereo audio, decoded by zem-play and supplied as PCM"
"$tools/zem-play" "$work/input.wav" | indent || fail "zem-play exited with ${PIPESTATUS[0]}"
"$tools/zem-wavtool" compare "$work/input.wav" "$work/output.wav" | indent ||
    fail "the service's output differs from what zem-play supplied"

echo "== 2. 2 s of FLAC with tags, opened by the service from its file:// URL, in real time"
"$tools/zem-play" --url "$work/input.flac" | indent || fail "zem-play exited with ${PIPESTATUS[0]}"
"$tools/zem-wavtool" compare "$work/input.flac" "$work/output.wav" | indent ||
    fail "the service's output differs from the file it played"

echo "== Stopping zem-audiod"
kill -TERM "$service"
status=0
wait "$service" || status=$?
service=
tail -n +2 "$work/service.log" | indent
[[ $status -eq 0 ]] || fail "zem-audiod exited with $status"
echo "demo: PASSED: both playbacks crossed the process boundary and arrived bit-exact"
