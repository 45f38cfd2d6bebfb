#include "PcmFeed.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "Access.h"
#include "Arguments.h"

namespace zem {

namespace {

std::string lowerFirst(std::string text) {
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

const char kNotAudio[] =
    "not an audio file zem-play can read (WAV, FLAC, Ogg Vorbis, AIFF and the like), or damaged";

// What the service would refuse from a PCM client, refused here before anything is sent.
bool playable(const StreamFormat& format, std::string& error) {
    if (format.rate > play::kMaxRate) {
        error = "its sample rate, " + std::to_string(format.rate) +
                " Hz, is above the highest the service plays (" + std::to_string(play::kMaxRate) +
                " Hz)";
        return false;
    }
    return true;
}

}  // namespace

std::unique_ptr<FileInput> openAudioFile(const std::string& path, std::string& error,
                                         bool integerSamples) {
    const int fd = openReadableBy(path, std::nullopt, error);
    if (fd < 0) {
        error = "cannot open it: " + lowerFirst(error);
        return nullptr;
    }
    std::unique_ptr<FileInput> input = FileInput::fromDescriptor(fd, error, integerSamples);
    if (!input) error = kNotAudio;
    return input;
}

std::unique_ptr<PcmFeed> PcmFeed::open(const std::string& path, std::string& error) {
    std::unique_ptr<FileInput> input = openAudioFile(path, error, true);
    if (!input) return nullptr;
    if (!playable(input->format(), error)) return nullptr;
    if (input->format().channels > 2) {
        error = std::to_string(input->format().channels) +
                " channels; PCM sources are mono or stereo (try --url)";
        return nullptr;
    }
    if (input->frames() < 0) {
        error = "the file does not say how long it is; play it with --url";
        return nullptr;
    }
    const StreamFormat format = input->format();
    return std::unique_ptr<PcmFeed>(new PcmFeed(std::move(input), -1, format, true));
}

std::unique_ptr<PcmFeed> PcmFeed::openStdin(const std::optional<StreamFormat>& raw,
                                            std::string& error) {
    const int fd = ::dup(STDIN_FILENO);
    if (fd < 0) {
        error = "cannot read stdin: " + lowerFirst(std::strerror(errno));
        return nullptr;
    }
    if (raw) return std::unique_ptr<PcmFeed>(new PcmFeed(nullptr, fd, *raw, false));
    std::unique_ptr<FileInput> input = FileInput::fromDescriptor(fd, error, true);
    if (!input) {
        error =
            "stdin is not a WAV stream; for raw PCM give its layout with --format, "
            "e.g. --format s16le:48000:2";
        return nullptr;
    }
    if (!playable(input->format(), error)) return nullptr;
    if (input->format().channels > 2) {
        error =
            std::to_string(input->format().channels) + " channels; PCM sources are mono or stereo";
        return nullptr;
    }
    const StreamFormat format = input->format();
    return std::unique_ptr<PcmFeed>(new PcmFeed(std::move(input), -1, format, false));
}

PcmFeed::PcmFeed(std::unique_ptr<FileInput> input, int rawFd, const StreamFormat& format,
                 bool seekable)
    : input_(std::move(input)), rawFd_(rawFd), format_(format), seekable_(seekable) {}

PcmFeed::~PcmFeed() {
    if (rawFd_ >= 0) ::close(rawFd_);
}

bool PcmFeed::seek(int64_t frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!seekable_) return false;
    frame_.clear();
    totals_.atEnd = false;
    return input_->seek(frame);
}

// Whole frames from the file or stdin. Raw stdin is read until the frames are there or it ends;
// a partial frame at its end is dropped.
long PcmFeed::read(uint8_t* out, size_t frames, std::string& error) {
    if (rawFd_ < 0) {
        std::string detail;
        const long got = input_->read(out, frames, detail);
        if (got < 0) error = "the audio is damaged or cut short";
        return got;
    }
    const size_t frameBytes = format_.bytesPerFrame();
    const size_t wanted = frames * frameBytes;
    size_t done = 0;
    while (done < wanted) {
        const ssize_t got = ::read(rawFd_, out + done, wanted - done);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            error = "cannot read stdin: " + lowerFirst(std::strerror(errno));
            return -1;
        }
        if (got == 0) break;
        done += static_cast<size_t>(got);
    }
    return static_cast<long>(done / frameBytes);
}

int PcmFeed::fill(uint8_t* buffer, int size) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (size <= 0) return 0;
    if (!totals_.first) totals_.first = std::chrono::steady_clock::now();
    const size_t frameBytes = format_.bytesPerFrame();
    size_t done = std::min(frame_.size(), static_cast<size_t>(size));
    if (done > 0) {
        std::memcpy(buffer, frame_.data(), done);
        frame_.erase(frame_.begin(), frame_.begin() + static_cast<long>(done));
    }
    std::string error;
    const size_t whole = (static_cast<size_t>(size) - done) / frameBytes;
    const long got = whole == 0 ? 0 : read(buffer + done, whole, error);
    if (got > 0) done += static_cast<size_t>(got) * frameBytes;
    if (got < 0) totals_.error = error;
    if (got == 0 && whole > 0) totals_.atEnd = true;
    const size_t rest = static_cast<size_t>(size) - done;
    if (rest > 0 && rest < frameBytes && got >= 0 && static_cast<size_t>(got) == whole) {
        // A request that ends inside a frame: send its first part now, the rest next time.
        frame_.resize(frameBytes);
        if (read(frame_.data(), 1, error) == 1) {
            std::memcpy(buffer + done, frame_.data(), rest);
            frame_.erase(frame_.begin(), frame_.begin() + static_cast<long>(rest));
            done += rest;
        } else {
            frame_.clear();
        }
    }
    totals_.bytes += done;
    hash_.add(buffer, done);
    return static_cast<int>(done);
}

PcmFeed::Totals PcmFeed::totals() {
    std::lock_guard<std::mutex> lock(mutex_);
    Totals totals = totals_;
    totals.hash = hash_.hex();
    return totals;
}

}  // namespace zem
