#include "FileInput.h"

#include <sndfile.h>

#include "Access.h"

namespace zem {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

StreamFormat decodedFormat(const SF_INFO& info) {
    StreamFormat format;
    format.rate = static_cast<uint32_t>(info.samplerate);
    format.channels = static_cast<uint32_t>(info.channels);
    switch (info.format & SF_FORMAT_SUBMASK) {
        case SF_FORMAT_PCM_S8:
        case SF_FORMAT_PCM_U8:
        case SF_FORMAT_PCM_16:
        case SF_FORMAT_ULAW:
        case SF_FORMAT_ALAW:
            format.type = SampleType::S16;
            format.bits = 16;
            break;
        case SF_FORMAT_PCM_24:
            format.type = SampleType::S32;
            format.bits = 24;
            break;
        case SF_FORMAT_PCM_32:
            format.type = SampleType::S32;
            format.bits = 32;
            break;
        default:
            format.type = SampleType::F32;
            format.bits = 32;
            break;
    }
    return format;
}

}  // namespace

std::optional<std::string> pathFromUrl(const std::string& url, std::string& error) {
    const std::string scheme = "file://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        if (url.find("://") != std::string::npos) {
            error = "unsupported URL scheme (only file:// URLs and paths are played)";
            return std::nullopt;
        }
        return url;
    }
    std::string rest = url.substr(scheme.size());
    if (rest.compare(0, 9, "localhost") == 0) rest.erase(0, 9);
    if (rest.empty() || rest[0] != '/') {
        error = "a file:// URL must name a local absolute path";
        return std::nullopt;
    }
    std::string path;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] != '%') {
            path += rest[i];
            continue;
        }
        const int high = i + 2 < rest.size() ? hexDigit(rest[i + 1]) : -1;
        const int low = high < 0 ? -1 : hexDigit(rest[i + 2]);
        if (low < 0 || (high == 0 && low == 0)) {
            error = "bad percent-escape in URL";
            return std::nullopt;
        }
        path += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return path;
}

FileInput::FileInput(SNDFILE* file, const StreamFormat& format, int64_t frames,
                     std::string formatName)
    : file_(file), format_(format), frames_(frames), formatName_(std::move(formatName)) {}

FileInput::~FileInput() { sf_close(file_); }

std::unique_ptr<FileInput> FileInput::open(const std::string& path, std::string& error,
                                           bool integerSamples) {
    const int fd = openReadableBy(path, std::nullopt, error);
    return fd < 0 ? nullptr : fromDescriptor(fd, error, integerSamples);
}

std::unique_ptr<FileInput> FileInput::fromDescriptor(int fd, std::string& error,
                                                     bool integerSamples) {
    SF_INFO info{};
    SNDFILE* file = sf_open_fd(fd, SFM_READ, &info, SF_TRUE);
    if (file == nullptr) {  // the descriptor is closed already, as sf_close would
        error = sf_strerror(nullptr);
        return nullptr;
    }
    if (info.channels <= 0 || info.samplerate <= 0) {
        sf_close(file);
        error = "no audio channels";
        return nullptr;
    }
    sf_command(file, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
    SF_FORMAT_INFO major{};
    major.format = info.format & SF_FORMAT_TYPEMASK;
    sf_command(nullptr, SFC_GET_FORMAT_INFO, &major, sizeof major);
    const int64_t frames = info.frames == SF_COUNT_MAX ? -1 : info.frames;
    StreamFormat format = decodedFormat(info);
    if (integerSamples && format.type == SampleType::F32) format.type = SampleType::S32;
    return std::unique_ptr<FileInput>(
        new FileInput(file, format, frames, major.extension ? major.extension : "audio"));
}

std::map<std::string, std::string> FileInput::tags() const {
    std::map<std::string, std::string> tags;
    const std::pair<int, const char*> kinds[] = {
        {SF_STR_TITLE, "title"}, {SF_STR_ARTIST, "artist"}, {SF_STR_ALBUM, "album"}};
    for (const auto& [kind, name] : kinds) {
        if (const char* text = sf_get_string(file_, kind)) tags[name] = text;
    }
    return tags;
}

long FileInput::read(uint8_t* out, size_t frames, std::string& error) {
    const auto count = static_cast<sf_count_t>(frames);
    sf_count_t done = 0;
    switch (format_.type) {
        case SampleType::S16:
            done = sf_readf_short(file_, reinterpret_cast<short*>(out), count);
            break;
        case SampleType::S32:
            done = sf_readf_int(file_, reinterpret_cast<int*>(out), count);
            break;
        case SampleType::F32:
            done = sf_readf_float(file_, reinterpret_cast<float*>(out), count);
            break;
    }
    if (done < count && sf_error(file_) != SF_ERR_NO_ERROR) {
        error = sf_strerror(file_);
        return -1;
    }
    return static_cast<long>(done);
}

bool FileInput::seek(int64_t frame) { return sf_seek(file_, frame, SEEK_SET) >= 0; }

}  // namespace zem
