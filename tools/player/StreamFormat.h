// The shape of the audio that flows from a source to a sink, and the two things the player does
// to samples on the way: scale them by the volume and fold them into the fingerprint.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zem {

enum class SampleType { S16, S32, F32 };  // interleaved, native (little-endian) byte order

struct StreamFormat {
    SampleType type = SampleType::S16;
    uint32_t bits = 16;  // significant bits: 24 for 24-bit audio carried in 32-bit samples
    uint32_t rate = 0;
    uint32_t channels = 0;

    size_t bytesPerSample() const { return type == SampleType::S16 ? 2 : 4; }
    size_t bytesPerFrame() const { return bytesPerSample() * channels; }
    // "s16 48000 Hz 2 ch", for log lines and attributes.
    std::string describe() const;
};

const char* sampleTypeName(SampleType type);

// Multiplies `count` samples in place by `gain` (0 to 1), rounding and saturating integers.
// A gain of exactly 1 leaves the bytes untouched, which keeps full-volume playback bit-exact.
void applyGain(uint8_t* samples, size_t count, SampleType type, float gain);

// 64-bit FNV-1a over every byte a source delivered: cheap enough for the audio path and
// reproducible by a client that hashes the bytes it supplied.
class ContentHash {
public:
    void add(const uint8_t* bytes, size_t size);
    uint64_t value() const { return hash_; }
    std::string hex() const;

private:
    uint64_t hash_ = 0xcbf29ce484222325ull;
};

}  // namespace zem
