// Where a source's audio goes once the player has it: nowhere, a WAV file per source, or an ALSA
// device (when the build found libasound). Each playing source opens its own sink.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "StreamFormat.h"

namespace zem {

class Sink {
public:
    virtual ~Sink() = default;
    // Writes `frames` whole frames of interleaved samples; false with `error` set on failure.
    virtual bool write(const uint8_t* data, size_t frames, std::string& error) = 0;
};

struct SinkSpec {
    enum class Kind { None, Wav, Alsa };
    Kind kind = Kind::None;
    std::string target;  // the WAV path or the ALSA device

    // "none", "wav:PATH" or "alsa:DEVICE"; nullopt with `error` set for anything else.
    static std::optional<SinkSpec> parse(const std::string& text, std::string& error);
    std::string describe() const;
};

bool alsaAvailable();

// Opens sinks for sources. A WAV path may hold "{id}", replaced by the source id; a source
// opened while another still writes the same path gets its id put before the extension instead,
// so that concurrent sources never write into one file.
class SinkFactory {
public:
    explicit SinkFactory(SinkSpec spec) : spec_(std::move(spec)) {}

    // Null with `error` set when the sink cannot be opened; `where` names what was opened.
    std::unique_ptr<Sink> open(long long sourceId, const StreamFormat& format, std::string& where,
                               std::string& error);
    const SinkSpec& spec() const { return spec_; }
    // Called by a WAV sink when it no longer writes `path`.
    void releaseWavPath(const std::string& path);

private:
    std::string claimWavPath(long long sourceId);

    SinkSpec spec_;
    std::mutex mutex_;  // guards: wavPathsInUse_
    std::set<std::string> wavPathsInUse_;
};

std::unique_ptr<Sink> openWavSink(SinkFactory& owner, const std::string& path,
                                  const StreamFormat& format, std::string& error);
std::unique_ptr<Sink> openAlsaSink(const std::string& device, const StreamFormat& format,
                                   std::string& error);

}  // namespace zem
