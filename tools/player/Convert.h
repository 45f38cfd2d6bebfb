// The mixer's arithmetic: a source's samples brought to the output's rate and channel count,
// summed, and written back in the output's sample type.
//
// The mix is held in doubles at full scale 1.0: a 16-bit sample x is x / 32768 and a 32-bit one
// x / 2^31, both exact, so that a source already in the output's format and at unity volume
// comes out bit-exact, and two 16-bit sources sum exactly. Rate conversion uses libsamplerate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "StreamFormat.h"

typedef struct SRC_STATE_tag SRC_STATE;

namespace zem {

class Converter {
public:
    // Throws std::runtime_error when the rate converter cannot be made for this pair.
    Converter(const StreamFormat& in, const StreamFormat& out);
    ~Converter();
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // `frames` whole frames in the input format, converted onto the end of what is available.
    void push(const uint8_t* bytes, size_t frames);
    // The input has ended: what the rate converter still holds becomes available.
    void finish();
    // Output frames ready to be taken.
    size_t available() const { return (ready_.size() - readyStart_) / out_.channels; }
    // Adds the first `frames` available frames into `mix` (output channels interleaved) and
    // drops them; frames beyond what is available add nothing.
    void takeInto(double* mix, size_t frames);
    // Forgets everything pushed: after a seek the converter starts afresh.
    void reset();

private:
    void resample(bool endOfInput);

    StreamFormat in_;
    StreamFormat out_;
    SRC_STATE* resampler_ = nullptr;  // null when the rates are equal
    double ratio_ = 1.0;
    std::vector<float> input_;   // resampler: input frames not consumed yet
    std::vector<float> output_;  // resampler: scratch for one call's output
    std::vector<double> ready_;  // output channels, interleaved; a deque's cost is not needed
    size_t readyStart_ = 0;      // samples of ready_ already taken
};

// One sample of the input format at full scale 1.0.
double sampleValue(const uint8_t* sample, SampleType type);

// Writes `count` mixed samples in `type`, rounding integers to the nearest value and clipping
// whatever lies beyond full scale instead of letting it wrap around.
void writeSamples(const double* mix, size_t count, SampleType type, uint8_t* out);

}  // namespace zem
