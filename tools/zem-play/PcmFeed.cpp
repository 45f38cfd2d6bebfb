#include "PcmFeed.h"

#include <algorithm>
#include <cstring>

namespace zem {

std::unique_ptr<PcmFeed> PcmFeed::open(const std::string& path, std::string& error) {
    std::unique_ptr<FileInput> input = FileInput::open(path, error, true);
    if (!input) {
        error = path + ": " + error;
        return nullptr;
    }
    if (input->format().channels > 2) {
        error = path + ": " + std::to_string(input->format().channels) +
                " channels; PCM sources are mono or stereo (try --url)";
        return nullptr;
    }
    if (input->frames() < 0) {
        error = path + ": the file does not say how long it is; play it with --url";
        return nullptr;
    }
    return std::unique_ptr<PcmFeed>(new PcmFeed(std::move(input)));
}

bool PcmFeed::seek(int64_t frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    frame_.clear();
    return input_->seek(frame);
}

int PcmFeed::fill(uint8_t* buffer, int size) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (size <= 0) return 0;
    if (!totals_.first) totals_.first = std::chrono::steady_clock::now();
    const size_t frameBytes = input_->format().bytesPerFrame();
    size_t done = std::min(frame_.size(), static_cast<size_t>(size));
    if (done > 0) {
        std::memcpy(buffer, frame_.data(), done);
        frame_.erase(frame_.begin(), frame_.begin() + static_cast<long>(done));
    }
    std::string error;
    const size_t whole = (static_cast<size_t>(size) - done) / frameBytes;
    const long got = whole == 0 ? 0 : input_->read(buffer + done, whole, error);
    if (got > 0) done += static_cast<size_t>(got) * frameBytes;
    if (got < 0) totals_.error = error;
    const size_t rest = static_cast<size_t>(size) - done;
    if (rest > 0 && rest < frameBytes && got >= 0 && static_cast<size_t>(got) == whole) {
        // A request that ends inside a frame: send its first part now, the rest next time.
        frame_.resize(frameBytes);
        if (input_->read(frame_.data(), 1, error) == 1) {
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
