#include "Sink.h"

namespace zem {

namespace {

class NullSink : public Sink {
public:
    bool write(const uint8_t*, size_t, std::string&) override { return true; }
};

}  // namespace

std::optional<SinkSpec> SinkSpec::parse(const std::string& text, std::string& error) {
    SinkSpec spec;
    const size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    spec.target = colon == std::string::npos ? "" : text.substr(colon + 1);
    if (kind == "none" && colon == std::string::npos) return spec;
    if (kind == "wav" || kind == "alsa") {
        spec.kind = kind == "wav" ? Kind::Wav : Kind::Alsa;
        if (spec.target.empty()) {
            error = "'" + kind + ":' needs a " + (kind == "wav" ? "file path" : "device name");
            return std::nullopt;
        }
        if (spec.kind == Kind::Wav && spec.target.find("{id}") != std::string::npos) {
            error =
                "the WAV sink writes one file, the mix: drop '{id}' and add --track-files "
                "for one file per track";
            return std::nullopt;
        }
        if (spec.kind == Kind::Alsa && !alsaAvailable()) {
            error = "this build has no ALSA support (libasound was not found at build time)";
            return std::nullopt;
        }
        return spec;
    }
    error = "unknown sink '" + text + "': use none, wav:PATH or alsa:DEVICE";
    return std::nullopt;
}

std::string SinkSpec::describe() const {
    switch (kind) {
        case Kind::None:
            return "none";
        case Kind::Wav:
            return "wav:" + target;
        case Kind::Alsa:
            return "alsa:" + target;
    }
    return "?";
}

std::unique_ptr<Sink> openOutput(const SinkSpec& spec, const StreamFormat& format, const Log* log,
                                 std::string& error) {
    switch (spec.kind) {
        case SinkSpec::Kind::None:
            return std::make_unique<NullSink>();
        case SinkSpec::Kind::Wav:
            return openWavSink(spec.target, format, error);
        case SinkSpec::Kind::Alsa:
            return openAlsaSink(spec.target, format, log, error);
    }
    return nullptr;
}

std::string trackFilePath(const std::string& mixPath, long long track) {
    std::string path = mixPath;
    const size_t slash = path.rfind('/');
    size_t dot = path.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) dot = path.size();
    path.insert(dot, ".track" + std::to_string(track));
    return path;
}

#ifndef ZEM_HAVE_ALSA
bool alsaAvailable() { return false; }

std::unique_ptr<Sink> openAlsaSink(const std::string&, const StreamFormat&, const Log*,
                                   std::string& error) {
    error = "this build has no ALSA support";
    return nullptr;
}
#endif

}  // namespace zem
