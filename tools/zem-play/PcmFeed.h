// The audio zem-play supplies as a PCM source: a file decoded locally to 16- or 32-bit integer
// samples, or stdin (a WAV stream, or raw PCM of a given layout), handed out in whatever byte
// counts the service asks for.
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

// Opens `path` as audio. Null with `error` set to a plain reason ("no such file or directory",
// "not an audio file zem-play can read") when it cannot be: never the decoder's own wording.
std::unique_ptr<FileInput> openAudioFile(const std::string& path, std::string& error,
                                         bool integerSamples = false);

class PcmFeed {
public:
    // Null with `error` set when the file cannot be played as PCM.
    static std::unique_ptr<PcmFeed> open(const std::string& path, std::string& error);
    // Stdin: raw PCM in `raw`'s layout, or a WAV stream when `raw` is empty.
    static std::unique_ptr<PcmFeed> openStdin(const std::optional<StreamFormat>& raw,
                                              std::string& error);
    ~PcmFeed();
    PcmFeed(const PcmFeed&) = delete;
    PcmFeed& operator=(const PcmFeed&) = delete;

    const StreamFormat& format() const { return format_; }
    // -1 for stdin, whose length nobody knows in advance.
    int64_t frames() const { return seekable_ ? input_->frames() : -1; }
    bool seekable() const { return seekable_; }
    bool seek(int64_t frame);

    // Fills up to `size` bytes with the next audio; 0 at the end. Called on transport threads.
    int fill(uint8_t* buffer, int size);

    struct Totals {
        uint64_t bytes = 0;
        std::optional<std::chrono::steady_clock::time_point> first;  // the first request
        std::string hash;                                            // of every byte supplied
        std::string error;  // why decoding failed, when it did
        // The input has no more audio. Since the service stops asking at the declared length,
        // a request past it means the file ends early (a cut-off download, say).
        bool atEnd = false;
    };
    Totals totals();

private:
    PcmFeed(std::unique_ptr<FileInput> input, int rawFd, const StreamFormat& format, bool seekable);
    long read(uint8_t* out, size_t frames, std::string& error);

    std::mutex mutex_;                  // guards: every field below
    std::unique_ptr<FileInput> input_;  // null for raw stdin
    int rawFd_;                         // raw stdin, else -1
    StreamFormat format_;
    bool seekable_;
    std::vector<uint8_t> frame_;  // a frame split by the last request: the part not yet sent
    Totals totals_;
    ContentHash hash_;
};

}  // namespace zem
