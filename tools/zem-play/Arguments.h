// How zem-play reads its command line: what an argument names (a URL, a path, stdin), positions,
// volumes and the layout of raw PCM. Every function here is pure, so that each rule is tested on
// its own; errors come back as plain sentences without the program's name.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "StreamFormat.h"

namespace zem::play {

// The highest sample rate the service takes from a PCM client; zem-play holds files it sends as
// URLs to the same limit, so that a file plays the same way or fails the same way either way.
inline constexpr uint32_t kMaxRate = 768'000;
// Positions and durations travel as signed 32-bit milliseconds.
inline constexpr int64_t kMaxMs = INT32_MAX;

// Whether `argument` starts with a URL scheme ("http:", "file:", "x-y+z.1:"); such an argument
// is sent to the service unchanged. A file whose name looks like one is played as "./name".
bool hasScheme(const std::string& argument);

// `path` made absolute against `cwd` without touching the file system: empty and "." segments
// and repeated slashes go, ".." stays (only the kernel knows where it leads through a symlink).
std::string absolutePath(const std::string& path, const std::string& cwd);

// "file://" and `absolute`, every byte outside the unreserved set and "/" percent-encoded.
std::string fileUrl(const std::string& absolute);

// A position or duration: seconds ("90", "2.5"), "m:ss" or "h:mm:ss" (with decimals after the
// seconds), or a number with the unit "s" or "ms". A bare number is taken in `bareUnitMs`
// milliseconds (1000 for seconds). In milliseconds; nullopt with `error` set when it cannot be
// read.
std::optional<int64_t> parsePosition(const std::string& text, int64_t bareUnitMs,
                                     std::string& error);

// A volume: a factor ("0.5"), a percentage ("50%") or decibels ("-6dB", "-6 dB"); from 0 to 1,
// since the service attenuates but never amplifies.
std::optional<float> parseVolume(const std::string& text, std::string& error);

// The layout of raw PCM: "s16le:48000:2" or "s32le:44100:1" (type, rate, channels), in the
// forms a PCM source can carry.
std::optional<StreamFormat> parseRawFormat(const std::string& text, std::string& error);

// "m:ss.d", as the progress line and the messages show a position.
std::string formatPosition(int64_t ms);

}  // namespace zem::play
