// A URL source's audio: a local file decoded with libsndfile (WAV, FLAC, Ogg and whatever else
// the installed libsndfile reads), named by a "file://" URL or a plain path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "StreamFormat.h"

typedef struct sf_private_tag SNDFILE;

namespace zem {

// The local path a URL names: "file:///p", "file://localhost/p" (percent-escapes decoded) or a
// plain path. nullopt with `error` set for any other scheme or host, or a bad escape.
std::optional<std::string> pathFromUrl(const std::string& url, std::string& error);

class FileInput {
public:
    // Null with `error` set to the reason when the file is missing, unreadable or not audio. With
    // `integerSamples`, float sources come out as 32-bit integers too.
    static std::unique_ptr<FileInput> open(const std::string& path, std::string& error,
                                           bool integerSamples = false);
    // As open, from a descriptor that openReadableBy returned; takes it over, and closes it on
    // failure too.
    static std::unique_ptr<FileInput> fromDescriptor(int fd, std::string& error,
                                                     bool integerSamples = false);
    ~FileInput();
    FileInput(const FileInput&) = delete;
    FileInput& operator=(const FileInput&) = delete;

    // Samples come out as 16-bit for sources of up to 16 bits, 32-bit for 24- and 32-bit
    // integer sources and float for everything else, so that integer audio stays bit-exact.
    // Integer reads of a float source are scaled to the full integer range.
    const StreamFormat& format() const { return format_; }
    int64_t frames() const { return frames_; }
    const std::string& formatName() const { return formatName_; }
    // The tags the file carries: "title", "artist", "album".
    std::map<std::string, std::string> tags() const;

    // Reads up to `frames` frames; 0 at the end. -1 with `error` set on a decoding failure.
    long read(uint8_t* out, size_t frames, std::string& error);
    bool seek(int64_t frame);

private:
    FileInput(SNDFILE* file, const StreamFormat& format, int64_t frames, std::string formatName);

    SNDFILE* file_;
    StreamFormat format_;
    int64_t frames_;
    std::string formatName_;
};

}  // namespace zem
