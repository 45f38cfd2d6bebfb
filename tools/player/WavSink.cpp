// The WAV file sink. The header is rewritten after every write, so that the file is a complete,
// readable WAV at any moment: a client can compare it while the service keeps running, and a
// killed service leaves a valid file behind.
#include <sndfile.h>

#include <cerrno>
#include <cstring>

#include "Sink.h"

namespace zem {

class WavSink : public Sink {
public:
    WavSink(std::string path, SNDFILE* file, SampleType type)
        : path_(std::move(path)), file_(file), type_(type) {}
    ~WavSink() override { sf_close(file_); }

    bool write(const uint8_t* data, size_t frames, std::string& error) override {
        sf_count_t done = 0;
        const auto count = static_cast<sf_count_t>(frames);
        switch (type_) {
            case SampleType::S16:
                done = sf_writef_short(file_, reinterpret_cast<const short*>(data), count);
                break;
            case SampleType::S32:
                done = sf_writef_int(file_, reinterpret_cast<const int*>(data), count);
                break;
            case SampleType::F32:
                done = sf_writef_float(file_, reinterpret_cast<const float*>(data), count);
                break;
        }
        if (done == count) return true;
        error = "cannot write " + path_ + ": " + sf_strerror(file_);
        return false;
    }

private:
    std::string path_;
    SNDFILE* file_;
    SampleType type_;
};

std::unique_ptr<Sink> openWavSink(const std::string& path, const StreamFormat& format,
                                  std::string& error) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(format.rate);
    info.channels = static_cast<int>(format.channels);
    info.format = SF_FORMAT_WAV;
    switch (format.type) {
        case SampleType::S16:
            info.format |= SF_FORMAT_PCM_16;
            break;
        case SampleType::S32:
            info.format |= format.bits == 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_PCM_32;
            break;
        case SampleType::F32:
            info.format |= SF_FORMAT_FLOAT;
            break;
    }
    errno = 0;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr) {
        // The system's reason reads plainer than the library's own wording of it.
        error =
            "cannot create " + path + ": " + (errno ? std::strerror(errno) : sf_strerror(nullptr));
        return nullptr;
    }
    sf_command(file, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    return std::make_unique<WavSink>(path, file, format.type);
}

}  // namespace zem
