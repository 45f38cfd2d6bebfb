// Where the mix goes: nowhere, a WAV file, or an ALSA device (when the build found libasound).
// The service opens its one output when it starts; a WAV output may also keep one file per
// track beside the mix, for checks that compare a source bit for bit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Log.h"
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

// Opens the service's output in the device's format; null with `error` set when it cannot be
// opened (a device missing or busy, a path that cannot be written). ALSA's own messages go to
// `log`, which must outlive every ALSA sink.
std::unique_ptr<Sink> openOutput(const SinkSpec& spec, const StreamFormat& format, const Log* log,
                                 std::string& error);

// The file of the `track`th track beside a mix written to `mixPath`: "out.wav" gives
// "out.track1.wav", "out.track2.wav", ...
std::string trackFilePath(const std::string& mixPath, long long track);

std::unique_ptr<Sink> openWavSink(const std::string& path, const StreamFormat& format,
                                  std::string& error);
// How long the ALSA device's own buffer is: above the mixer's lead, so that the mixer's clock,
// not a blocking write, paces the output.
inline constexpr unsigned int kAlsaBufferMs = 80;
std::unique_ptr<Sink> openAlsaSink(const std::string& device, const StreamFormat& format,
                                   const Log* log, std::string& error);

}  // namespace zem
