// The ALSA sink, compiled in only when the build found libasound. The device's own buffer is
// sized above the mixer's lead, so that the mixer's clock, not a blocking write, paces playback;
// "null" accepts everything and needs no sound hardware. ALSA prints its own diagnostics to
// stderr unless told otherwise: they go to the service's log instead, prefixed "alsa:".
#include <alsa/asoundlib.h>

#include <atomic>
#include <cstdarg>

#include "Sink.h"

namespace zem {

namespace {

std::atomic<const Log*> alsaLog{nullptr};

void logAlsaMessage(const char* file, int line, const char* function, int err, const char* format,
                    ...) {
    const Log* log = alsaLog.load();
    if (log == nullptr) return;
    char text[400];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    (*log)(orv::LOG_ERROR, "alsa", "%s%s%s (%s:%d %s)", text, err ? ": " : "",
           err ? snd_strerror(err) : "", file ? file : "?", line, function ? function : "?");
}

class AlsaSink : public Sink {
public:
    AlsaSink(snd_pcm_t* pcm, std::string device) : pcm_(pcm), device_(std::move(device)) {}
    ~AlsaSink() override {
        snd_pcm_drain(pcm_);
        snd_pcm_close(pcm_);
    }

    bool write(const uint8_t* data, size_t frames, std::string& error) override {
        const size_t frameBytes = static_cast<size_t>(snd_pcm_frames_to_bytes(pcm_, 1));
        while (frames > 0) {
            snd_pcm_sframes_t done = snd_pcm_writei(pcm_, data, frames);
            // An idle mixer lets the device run dry: that is not a failure.
            if (done < 0) done = snd_pcm_recover(pcm_, static_cast<int>(done), 1);
            if (done < 0) {
                error = "cannot write to ALSA device " + device_ + ": " +
                        snd_strerror(static_cast<int>(done));
                return false;
            }
            data += static_cast<size_t>(done) * frameBytes;
            frames -= static_cast<size_t>(done);
        }
        return true;
    }

private:
    snd_pcm_t* pcm_;
    std::string device_;
};

}  // namespace

bool alsaAvailable() { return true; }

std::unique_ptr<Sink> openAlsaSink(const std::string& device, const StreamFormat& format,
                                   const Log* log, std::string& error) {
    if (log) alsaLog = log;
    snd_lib_error_set_handler(logAlsaMessage);
    snd_pcm_format_t sampleFormat = SND_PCM_FORMAT_S16_LE;
    if (format.type == SampleType::S32) sampleFormat = SND_PCM_FORMAT_S32_LE;
    if (format.type == SampleType::F32) sampleFormat = SND_PCM_FORMAT_FLOAT_LE;
    snd_pcm_t* pcm = nullptr;
    // Non-blocking open, so that a busy device is an error now rather than a wait forever.
    int result = snd_pcm_open(&pcm, device.c_str(), SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK);
    if (result == 0) result = snd_pcm_nonblock(pcm, 0);
    if (result == 0) {
        result = snd_pcm_set_params(pcm, sampleFormat, SND_PCM_ACCESS_RW_INTERLEAVED,
                                    format.channels, format.rate, 1, kAlsaBufferMs * 1000);
    }
    if (result < 0) {
        if (pcm) snd_pcm_close(pcm);
        error = "cannot open ALSA device " + device + " for " + format.describe() + ": " +
                snd_strerror(result);
        return nullptr;
    }
    return std::make_unique<AlsaSink>(pcm, device);
}

}  // namespace zem
