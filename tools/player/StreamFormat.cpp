#include "StreamFormat.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

namespace zem {

std::string StreamFormat::describe() const {
    char text[64];
    std::snprintf(text, sizeof text, "%s %u Hz %u ch", sampleTypeName(type), rate, channels);
    return text;
}

const char* sampleTypeName(SampleType type) {
    switch (type) {
        case SampleType::S16:
            return "s16";
        case SampleType::S32:
            return "s32";
        case SampleType::F32:
            return "f32";
    }
    return "?";
}

namespace {

template <typename T>
void scaleIntegers(uint8_t* bytes, size_t count, double gain) {
    constexpr double kLow = std::numeric_limits<T>::min();
    constexpr double kHigh = std::numeric_limits<T>::max();
    for (size_t i = 0; i < count; ++i) {
        T sample;
        std::memcpy(&sample, bytes + i * sizeof(T), sizeof(T));
        sample = static_cast<T>(std::clamp(std::round(sample * gain), kLow, kHigh));
        std::memcpy(bytes + i * sizeof(T), &sample, sizeof(T));
    }
}

}  // namespace

void applyGain(uint8_t* samples, size_t count, SampleType type, float gain) {
    if (gain == 1.0f) return;
    switch (type) {
        case SampleType::S16:
            scaleIntegers<int16_t>(samples, count, gain);
            break;
        case SampleType::S32:
            scaleIntegers<int32_t>(samples, count, gain);
            break;
        case SampleType::F32:
            for (size_t i = 0; i < count; ++i) {
                float sample;
                std::memcpy(&sample, samples + i * 4, 4);
                sample *= gain;
                std::memcpy(samples + i * 4, &sample, 4);
            }
            break;
    }
}

void ContentHash::add(const uint8_t* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        hash_ = (hash_ ^ bytes[i]) * 0x100000001b3ull;
    }
}

std::string ContentHash::hex() const {
    char text[17];
    std::snprintf(text, sizeof text, "%016" PRIx64, hash_);
    return text;
}

}  // namespace zem
