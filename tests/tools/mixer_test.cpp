// The mixer against known signals: tones summed exactly, clipping without wrap-around, channel
// maps, a 44.1 kHz source in a 48 kHz output by its frequency and level. A source whose client
// falls behind while another plays on is in the service's tests.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "Convert.h"

namespace zem {
namespace {

std::vector<int16_t> tone(double hz, uint32_t rate, size_t frames, uint32_t channels,
                          double level) {
    std::vector<int16_t> samples(frames * channels);
    for (size_t i = 0; i < samples.size(); ++i) {
        const double t = static_cast<double>(i / channels) / rate;
        samples[i] = static_cast<int16_t>(std::lround(level * 32767 * std::sin(2 * M_PI * hz * t)));
    }
    return samples;
}

const uint8_t* bytes(const std::vector<int16_t>& samples) {
    return reinterpret_cast<const uint8_t*>(samples.data());
}

// Mixes `inputs` (all 16-bit in `in`) through converters into `out`; `frames` output frames.
std::vector<int16_t> mixAll(const std::vector<std::vector<int16_t>>& inputs, StreamFormat in,
                            StreamFormat out, size_t frames) {
    std::vector<double> mix(frames * out.channels);
    for (const auto& input : inputs) {
        Converter converter(in, out);
        converter.push(bytes(input), input.size() / in.channels);
        converter.finish();
        converter.takeInto(mix.data(), frames);
    }
    std::vector<int16_t> result(mix.size());
    writeSamples(mix.data(), mix.size(), SampleType::S16,
                 reinterpret_cast<uint8_t*>(result.data()));
    return result;
}

TEST(MixerTest, TonesSumExactlyLoudOnesClipAndChannelsAreMapped) {
    const StreamFormat stereo{SampleType::S16, 16, 48000, 2};
    const auto low = tone(440, 48000, 4800, 2, 0.4);
    const auto high = tone(660, 48000, 4800, 2, 0.4);
    // Two loud tones in phase: beyond full scale, held at its edge instead of wrapping round.
    const auto loud = tone(440, 48000, 4800, 2, 0.9);
    const auto sum = mixAll({low, high}, stereo, stereo, 4800);
    const auto clipped = mixAll({loud, loud}, stereo, stereo, 4800);
    for (size_t i = 0; i < sum.size(); ++i) {
        ASSERT_EQ(sum[i], low[i] + high[i]) << i;
        ASSERT_EQ(clipped[i], std::clamp(2 * loud[i], -32768, 32767)) << i;
    }

    const std::vector<int16_t> pair = {1000, 3000, -300, 100};
    const StreamFormat mono{SampleType::S16, 16, 48000, 1};
    EXPECT_EQ(mixAll({pair}, stereo, mono, 2), (std::vector<int16_t>{2000, -100}));
    EXPECT_EQ(mixAll({{7, -7}}, mono, stereo, 2), (std::vector<int16_t>{7, 7, -7, -7}));

    // 32-bit and float outputs: a 16-bit sample widens exactly, float clips at full scale.
    std::vector<double> mix = {0.5, -1.5, 1.5};
    std::vector<int32_t> wide(3);
    std::vector<float> floats(3);
    writeSamples(mix.data(), 3, SampleType::S32, reinterpret_cast<uint8_t*>(wide.data()));
    writeSamples(mix.data(), 3, SampleType::F32, reinterpret_cast<uint8_t*>(floats.data()));
    EXPECT_EQ(wide, (std::vector<int32_t>{1 << 30, INT32_MIN, INT32_MAX}));
    EXPECT_EQ(floats, (std::vector<float>{0.5f, -1.0f, 1.0f}));
}

TEST(MixerTest, A44kSourceInA48kOutputKeepsItsFrequencyAndLevel) {
    const StreamFormat in{SampleType::S16, 16, 44100, 1};
    const StreamFormat out{SampleType::S16, 16, 48000, 2};
    const auto input = tone(1000, 44100, 44100, 1, 0.5);
    Converter converter(in, out);
    for (size_t at = 0; at < input.size(); at += 1000) {  // in pieces, as the ring hands it over
        const size_t frames = std::min<size_t>(1000, input.size() - at);
        converter.push(bytes(input) + at * 2, frames);
    }
    converter.finish();
    EXPECT_NEAR(static_cast<double>(converter.available()), 48000, 48);
    std::vector<double> mix(48000 * 2);
    converter.takeInto(mix.data(), 48000);
    // Away from the edges: rising zero crossings per second, and the RMS level.
    int crossings = 0;
    double power = 0;
    for (size_t i = 4800; i < 43200; ++i) {
        ASSERT_EQ(mix[i * 2], mix[i * 2 + 1]);  // mono spread to both sides
        crossings += mix[(i - 1) * 2] < 0 && mix[i * 2] >= 0;
        power += mix[i * 2] * mix[i * 2];
    }
    EXPECT_NEAR(crossings / 0.8, 1000, 5);
    EXPECT_NEAR(std::sqrt(power / 38400), 0.5 / std::sqrt(2.0), 0.005);
}

}  // namespace
}  // namespace zem
