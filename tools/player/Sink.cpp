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

std::unique_ptr<Sink> SinkFactory::open(long long sourceId, const StreamFormat& format,
                                        std::string& where, std::string& error) {
    switch (spec_.kind) {
        case SinkSpec::Kind::None:
            where = "none";
            return std::make_unique<NullSink>();
        case SinkSpec::Kind::Wav:
            where = claimWavPath(sourceId);
            return openWavSink(*this, where, format, error);
        case SinkSpec::Kind::Alsa:
            where = "alsa:" + spec_.target;
            return openAlsaSink(spec_.target, format, error);
    }
    return nullptr;
}

std::string SinkFactory::claimWavPath(long long sourceId) {
    const std::string id = std::to_string(sourceId);
    std::string path = spec_.target;
    const size_t marker = path.find("{id}");
    std::lock_guard<std::mutex> lock(mutex_);
    if (marker != std::string::npos) {
        path.replace(marker, 4, id);
    } else if (wavPathsInUse_.count(path) != 0) {
        const size_t slash = path.rfind('/');
        size_t dot = path.rfind('.');
        if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
            dot = path.size();
        }
        path.insert(dot, "." + id);
    }
    wavPathsInUse_.insert(path);
    return path;
}

void SinkFactory::releaseWavPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    wavPathsInUse_.erase(path);
}

#ifndef ZEM_HAVE_ALSA
bool alsaAvailable() { return false; }

std::unique_ptr<Sink> openAlsaSink(const std::string&, const StreamFormat&, std::string& error) {
    error = "this build has no ALSA support";
    return nullptr;
}
#endif

}  // namespace zem
