# Sourced by the build, test and benchmark scripts: installs the Debian packages the project
# and its tools build with when they are missing (as root; otherwise prints the command and stops).

PACKAGES=(cmake ninja-build g++ pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          libsndfile1-dev libsamplerate0-dev libcli11-dev libasound2-dev)
# What scripts/fuzz.sh adds: clang and its libFuzzer and sanitizer runtimes.
FUZZ_PACKAGES=(clang libclang-rt-14-dev)
# What scripts/bench.sh adds as root: gRPC and protobuf with their compilers, for the gRPC peer.
BENCH_PACKAGES=(libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc)

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
