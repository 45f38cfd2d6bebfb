// Writes the seed corpora of the fuzz targets into <dir>/<target>/: well-formed inputs made with
// the library's own writers, laid out as each target takes its input apart, so that the fuzzers
// start from messages that get past the first checks. Run by scripts/fuzz.sh --seeds; the output
// is committed under fuzz/corpus.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "common/RecordCodec.h"
#include "parlex/Frame.h"

namespace {

using Bytes = std::vector<uint8_t>;
using parlex::AndroidParcel;

template <typename... T>
Bytes encode(const T&... values) {
    AndroidParcel parcel;
    ((parcel << values), ...);
    return {parcel->data(), parcel->data() + parcel->dataSize()};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

void write(const std::filesystem::path& dir, const std::string& name, const Bytes& bytes) {
    std::filesystem::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// Selector and descriptor bytes of fuzz_records, then the record.
void records(const std::filesystem::path& dir) {
    orv::ZEMAudioSource source;
    source.format = {0, 48000, 16, 2, true, 1, 0};
    source.setUrl("file:///a.wav");
    source.setClusterId("c");
    orv::MediaDescription description;
    description.firstMap.pairs[description.firstMap.count++] = orv::DescriptionPair("k", "v");
    orv::MetadataKeyValuePairs metadata;
    metadata.pairs[metadata.count++] = orv::MetadataKeyValuePair("title", "Song");
    metadata.pairs[metadata.count++] = orv::MetadataKeyValuePair("artist", nullptr);
    orv::PlaybackReports reports(1);
    write(dir, "audio-format", Bytes{0, 0} + encode(source.format));
    write(dir, "audio-source", Bytes{1, 0} + encode(source));
    write(dir, "media-description", Bytes{8, 0} + encode(description));
    write(dir, "state-v2",
          Bytes{11, 0} + encode(orv::MediaPlayerStateV2(
                             1000, 3, orv::MediaPlayerProtection("drm", true), "live")));
    write(dir, "metadata", Bytes{13, 0} + encode(metadata));
    write(dir, "reports", Bytes{16, 0} + encode(reports));
    write(dir, "buffer-inplace", Bytes{26, 0} + encode(parlex::AndroidBuffer(5, "abcd", true)));
    // A shared-memory blob of 20 KiB in a sealed memfd of 20 KiB: kind 1, descriptor index 0.
    write(dir, "buffer-shared", Bytes{26, 1, 20} + encode(20 * 1024, 1, 0));
    write(dir, "header", Bytes{27, 0} + encode(std::string("1"), std::string("play")));
}

// Sequences of (method index, argument length, arguments) for fuzz_server_dispatch.
Bytes request(uint8_t method, const Bytes& args) {
    return Bytes{method, uint8_t(args.size())} + args;
}

void serverDispatch(const std::filesystem::path& dir) {
    orv::ZEMAudioSource pcm;
    pcm.format = {0, 48000, 16, 2, true, 1, 0};
    pcm.setClusterId("c");
    orv::ZEMAudioSourceV2 url;
    url.type = orv::kSourceTypeUrl;
    url.setUrl("https://a");
    write(dir, "pcm-play-destroy",
          request(1, encode(pcm)) + request(6, {}) + request(13, {}) + request(1, encode(pcm)));
    write(dir, "url-then-volume",
          request(3, encode(url, orv::MediaDescription())) + request(19, encode(0.5f)) +
              request(10, encode(5, true)));
    write(dir, "format-and-key",
          request(0, encode(pcm.format, "c")) + request(12, encode(std::string("key"))) +
              request(22, {}));
}

// (incoming index, listener count, arguments) for fuzz_client_dispatch.
void clientDispatch(const std::filesystem::path& dir) {
    const orv::MediaPlayerStateV2 state(5, 2, orv::MediaPlayerProtection("p", false), "x");
    orv::MetadataKeyValuePairs metadata;
    metadata.pairs[metadata.count++] = orv::MetadataKeyValuePair("title", "Song");
    write(dir, "get-buffer", Bytes{0, 0, 0, 0, 16} + encode(16));
    write(dir, "get-buffer-overfilled", Bytes{0, 0, 0, 1, 0} + encode(64));
    write(dir, "started", Bytes{3, 0, 0, 0, 0} + encode(7LL, state));
    write(dir, "error", Bytes{5, 0, 0, 0, 0} + encode(7LL, 2, std::string("bad"), state));
    write(dir, "metadata", Bytes{12, 0, 0, 0, 0} + encode(7LL, state, metadata));
    write(dir, "seeked", Bytes{14, 0, 0, 0, 0} + encode(7LL, state, state));
}

// (mode, descriptors, record) for fuzz_frame: a Call inline, and one whose payload is out of
// line in a sealed memfd.
void frame(const std::filesystem::path& dir) {
    using namespace parlex::transport;
    const Bytes call = encode(std::string("1"), std::string("play"));
    FrameHeader header{kFrameMagic, uint16_t(FrameKind::Call), 0, 1, uint32_t(call.size()), 0, 0};
    Bytes inlineFrame(sizeof header);
    std::memcpy(inlineFrame.data(), &header, sizeof header);
    write(dir, "call", Bytes{1, 0} + inlineFrame + call);
    write(dir, "call-hung-up", Bytes{5, 0} + inlineFrame + call);
    header.flags = kOutOfLine;
    header.fdCount = 1;
    std::memcpy(inlineFrame.data(), &header, sizeof header);
    write(dir, "call-out-of-line",
          Bytes{0, 1, 0, uint8_t((call.size() + 3) / 4)} + call + Bytes(4 - call.size() % 4, 0) +
              inlineFrame);
    write(dir, "hang-up", Bytes{2});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    records(dir / "fuzz_records");
    serverDispatch(dir / "fuzz_server_dispatch");
    clientDispatch(dir / "fuzz_client_dispatch");
    frame(dir / "fuzz_frame");
    return 0;
}
