// The audio zem-play supplies as a PCM source: the file decoded locally to 16- or 32-bit
// integer samples and handed out in whatever byte counts the service asks for.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "FileInput.h"
#include "StreamFormat.h"

namespace zem {

class PcmFeed {
public:
    // Null with `error` set when the file cannot be played as PCM.
    static std::unique_ptr<PcmFeed> open(const std::string& path, std::string& error);

    const StreamFormat& format() const { return input_->format(); }
    int64_t frames() const { return input_->frames(); }
    bool seek(int64_t frame);

    // Fills up to `size` bytes with the next audio; 0 at the end. Called on transport threads.
    int fill(uint8_t* buffer, int size);

    struct Totals {
        uint64_t bytes = 0;
        std::optional<std::chrono::steady_clock::time_point> first;  // the first request
        std::string hash;                                            // of every byte supplied
        std::string error;  // why decoding failed, when it did
    };
    Totals totals();

private:
    explicit PcmFeed(std::unique_ptr<FileInput> input) : input_(std::move(input)) {}

    std::mutex mutex_;  // guards: every field
    std::unique_ptr<FileInput> input_;
    std::vector<uint8_t> frame_;  // a frame split by the last request: the part not yet sent
    Totals totals_;
    ContentHash hash_;
};

}  // namespace zem
