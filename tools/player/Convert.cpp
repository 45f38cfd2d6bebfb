#include "Convert.h"

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

namespace zem {

namespace {

constexpr double kScale16 = 32768.0;
constexpr double kScale32 = 2147483648.0;
constexpr size_t kResamplerChunk = 1024;  // output frames per libsamplerate call

// Maps one frame of `inChannels` onto `outChannels` (1 or 2): mono is spread to both sides, a
// mono output takes the mean of every input channel, and a stereo output takes the first two.
template <typename T>
void mapChannels(const T* in, uint32_t inChannels, uint32_t outChannels, double* out) {
    if (outChannels == 1) {
        double sum = 0;
        for (uint32_t c = 0; c < inChannels; ++c) sum += in[c];
        out[0] = inChannels == 1 ? static_cast<double>(in[0]) : sum / inChannels;
        return;
    }
    out[0] = in[0];
    out[1] = inChannels == 1 ? in[0] : in[1];
}

}  // namespace

double sampleValue(const uint8_t* sample, SampleType type) {
    switch (type) {
        case SampleType::S16: {
            int16_t value;
            std::memcpy(&value, sample, 2);
            return value / kScale16;
        }
        case SampleType::S32: {
            int32_t value;
            std::memcpy(&value, sample, 4);
            return value / kScale32;
        }
        case SampleType::F32: {
            float value;
            std::memcpy(&value, sample, 4);
            return value;
        }
    }
    return 0;
}

void writeSamples(const double* mix, size_t count, SampleType type, uint8_t* out) {
    for (size_t i = 0; i < count; ++i) {
        switch (type) {
            case SampleType::S16: {
                const auto value = static_cast<int16_t>(
                    std::clamp(std::round(mix[i] * kScale16), -kScale16, kScale16 - 1));
                std::memcpy(out + i * 2, &value, 2);
                break;
            }
            case SampleType::S32: {
                const auto value = static_cast<int32_t>(
                    std::clamp(std::round(mix[i] * kScale32), -kScale32, kScale32 - 1));
                std::memcpy(out + i * 4, &value, 4);
                break;
            }
            case SampleType::F32: {
                const auto value = static_cast<float>(std::clamp(mix[i], -1.0, 1.0));
                std::memcpy(out + i * 4, &value, 4);
                break;
            }
        }
    }
}

Converter::Converter(const StreamFormat& in, const StreamFormat& out) : in_(in), out_(out) {
    if (in_.rate == out_.rate) return;
    int error = 0;
    resampler_ = src_new(SRC_SINC_MEDIUM_QUALITY, static_cast<int>(in_.channels), &error);
    if (resampler_ == nullptr) {
        throw std::runtime_error(std::string("no rate converter: ") + src_strerror(error));
    }
    ratio_ = static_cast<double>(out_.rate) / in_.rate;
    output_.resize(kResamplerChunk * in_.channels);
}

Converter::~Converter() {
    if (resampler_) src_delete(resampler_);
}

void Converter::push(const uint8_t* bytes, size_t frames) {
    const size_t sampleBytes = in_.bytesPerSample();
    const size_t samples = frames * in_.channels;
    if (readyStart_ > 0 && readyStart_ == ready_.size()) {
        ready_.clear();
        readyStart_ = 0;
    }
    if (!resampler_) {
        std::vector<double> frame(in_.channels);
        for (size_t f = 0; f < frames; ++f) {
            for (uint32_t c = 0; c < in_.channels; ++c) {
                frame[c] = sampleValue(bytes + (f * in_.channels + c) * sampleBytes, in_.type);
            }
            double mapped[2];
            mapChannels(frame.data(), in_.channels, out_.channels, mapped);
            ready_.insert(ready_.end(), mapped, mapped + out_.channels);
        }
        return;
    }
    for (size_t i = 0; i < samples; ++i) {
        input_.push_back(static_cast<float>(sampleValue(bytes + i * sampleBytes, in_.type)));
    }
    resample(false);
}

void Converter::finish() {
    if (!resampler_) return;
    resample(true);
}

// Runs the resampler over the pending input; at the end of the input it drains its tail too.
void Converter::resample(bool endOfInput) {
    for (;;) {
        SRC_DATA data{};
        data.data_in = input_.data();
        data.input_frames = static_cast<long>(input_.size() / in_.channels);
        data.data_out = output_.data();
        data.output_frames = static_cast<long>(kResamplerChunk);
        data.src_ratio = ratio_;
        data.end_of_input = endOfInput ? 1 : 0;
        const int error = src_process(resampler_, &data);
        if (error != 0)
            throw std::runtime_error(std::string("rate conversion: ") + src_strerror(error));
        input_.erase(input_.begin(),
                     input_.begin() + static_cast<long>(data.input_frames_used * in_.channels));
        for (long f = 0; f < data.output_frames_gen; ++f) {
            double mapped[2];
            mapChannels(output_.data() + f * in_.channels, in_.channels, out_.channels, mapped);
            ready_.insert(ready_.end(), mapped, mapped + out_.channels);
        }
        if (data.output_frames_gen == 0 && (data.input_frames_used == 0 || input_.empty())) {
            return;
        }
    }
}

void Converter::takeInto(double* mix, size_t frames) {
    const size_t samples = std::min(frames, available()) * out_.channels;
    for (size_t i = 0; i < samples; ++i) mix[i] += ready_[readyStart_ + i];
    readyStart_ += samples;
    if (readyStart_ == ready_.size()) {
        ready_.clear();
        readyStart_ = 0;
    }
}

void Converter::reset() {
    ready_.clear();
    readyStart_ = 0;
    input_.clear();
    if (resampler_) src_reset(resampler_);
}

}  // namespace zem
