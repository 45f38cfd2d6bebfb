// The mixer against known signals: tones summed exactly, clipping without wrap-around, channel
// maps, a 44.1 kHz source in a 48 kHz output by its frequency and level; and in the player, a
// source whose client falls behind is its own underrun while another source plays on unbroken.
#include <gtest/gtest.h>
#include <sndfile.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>

#include "Convert.h"
#include "HostPlayer.h"
#include "support/Process.h"

namespace zem {
namespace {

using namespace std::chrono_literals;

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
    const auto sum = mixAll({low, high}, stereo, stereo, 4800);
    for (size_t i = 0; i < sum.size(); ++i) ASSERT_EQ(sum[i], low[i] + high[i]) << i;

    // Two loud tones in phase: beyond full scale, held at its edge instead of wrapping round.
    const auto loud = tone(440, 48000, 4800, 2, 0.9);
    const auto clipped = mixAll({loud, loud}, stereo, stereo, 4800);
    for (size_t i = 0; i < clipped.size(); ++i) {
        ASSERT_EQ(clipped[i], std::clamp(2 * loud[i], -32768, 32767)) << i;
    }

    const std::vector<int16_t> pair = {1000, 3000, -300, 100};
    const StreamFormat mono{SampleType::S16, 16, 48000, 1};
    EXPECT_EQ(mixAll({pair}, stereo, mono, 2), (std::vector<int16_t>{2000, -100}));
    EXPECT_EQ(mixAll({{7, -7}}, mono, stereo, 2), (std::vector<int16_t>{7, 7, -7, -7}));

    // 32-bit and float outputs: a 16-bit sample widens exactly, float clips at full scale.
    std::vector<double> mix = {0.5, -1.5, 1.5};
    int32_t wide[3];
    writeSamples(mix.data(), 3, SampleType::S32, reinterpret_cast<uint8_t*>(wide));
    EXPECT_EQ(wide[0], 1 << 30);
    EXPECT_EQ(wide[1], INT32_MIN);
    EXPECT_EQ(wide[2], INT32_MAX);
    float floats[3];
    writeSamples(mix.data(), 3, SampleType::F32, reinterpret_cast<uint8_t*>(floats));
    EXPECT_EQ(floats[1], -1.0f);
    EXPECT_EQ(floats[2], 1.0f);
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

// Serves what it is asked for at once; after `stallAfter` bytes it answers nothing
// for `stall`. Records the events.
class Client : public orv::MediaClientDelegate {
public:
    struct Stream {
        std::vector<uint8_t> audio;
        size_t served = 0;
        size_t stallAfter = SIZE_MAX;
        std::chrono::steady_clock::time_point stallUntil{};
        std::string events;
    };
    int getData(uint8_t* buffer, unsigned size, long long id) override {
        if (slowOnce.exchange(false)) std::this_thread::sleep_for(100ms);
        std::lock_guard<std::mutex> lock(mutex_);
        Stream& s = streams[id];
        const auto now = std::chrono::steady_clock::now();
        if (s.served >= s.stallAfter) {
            if (s.stallUntil == std::chrono::steady_clock::time_point{}) s.stallUntil = now + 300ms;
            if (now < s.stallUntil) return -1;
        }
        size_t n = std::min<size_t>(size, s.audio.size() - s.served);
        if (s.served < s.stallAfter) n = std::min(n, s.stallAfter - s.served);
        std::memcpy(buffer, s.audio.data() + s.served, n);
        s.served += n;
        return n == 0 ? -1 : static_cast<int>(n);
    }
    void record(long long id, const char* event) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string& events = streams[id].events;
        events += (events.empty() ? "" : " ") + std::string(event);
    }
    std::string events(long long id) {
        std::lock_guard<std::mutex> lock(mutex_);
        return streams[id].events;
    }
    void closeDataSource(long long id) override { record(id, "close"); }
    void onStopRequested(long long) override {}
    void onPlaybackError(long long id, const orv::ErrorType&, const char*,
                         const orv::MediaPlayerStateV2&) override {
        record(id, "error");
    }
    void onStreamMetadataExtracted(long long, const orv::MediaPlayerStateV2&,
                                   const orv::MetadataKeyValuePairs&) override {}
    void onFirstByteRead(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackStarted(long long id, const orv::MediaPlayerStateV2&) override {
        record(id, "started");
    }
    void onPlaybackFinished(long long id, const orv::MediaPlayerStateV2&) override {
        record(id, "finished");
    }
    void onPlaybackPaused(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackResumed(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackStopped(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferUnderrunStarted(long long id, const orv::MediaPlayerStateV2&) override {
        record(id, "underrun");
    }
    void onBufferUnderrunEnded(long long id, const orv::MediaPlayerStateV2&) override {
        record(id, "refilled");
    }
    void onBufferingComplete(long long, const orv::MediaPlayerStateV2&) override {}
    void onSeeked(long long, const orv::MediaPlayerStateV2&,
                  const orv::MediaPlayerStateV2&) override {}
    void onLicenseAvailable(long long) override {}
    void onFirstDataSegmentAvailable(long long) override {}

    std::atomic<bool> slowOnce{false};  // the next answer takes 100 ms
    std::mutex mutex_;                  // guards: streams
    std::map<long long, Stream> streams;
};

TEST(MixerTest, LateClientIsItsOwnUnderrunWhileAnotherSourcePlaysOnUnbroken) {
    parlex::test::PrivateRuntimeDir dir;
    std::string error;
    HostPlayer::Options options;
    options.sink = *SinkSpec::parse("wav:" + dir.path() + "/mix.wav", error);
    HostPlayer player(options);  // in real time
    Client client;
    player.setMediaClientDelegate(&client);
    orv::SourceConfig config;
    config.channelLayout = 3;
    config.sampleRate = 48000;
    config.mediaDescription.firstMap.count = 1;
    config.mediaDescription.firstMap.pairs[0] = orv::DescriptionPair(kTotalFramesKey, "48000");
    const auto steady = tone(440, 48000, 48000, 2, 0.5);
    const long long first = player.setSource(config, "");
    config.mediaDescription.firstMap.pairs[0] = orv::DescriptionPair(kTotalFramesKey, "24000");
    const long long late = player.setSource(config, "");
    {
        std::lock_guard<std::mutex> lock(client.mutex_);
        client.streams[first].audio.assign(bytes(steady), bytes(steady) + steady.size() * 2);
        client.streams[late].audio.assign(24000 * 4, 0);  // silence: the mix is the steady tone
        client.streams[late].stallAfter = 8000 * 4;
    }
    ASSERT_EQ(player.play(first), 0);
    ASSERT_TRUE(parlex::test::waitUntil([&] { return client.events(first) == "started"; }));
    ASSERT_EQ(player.play(late), 0);
    ASSERT_TRUE(parlex::test::waitUntil([&] {
        return client.events(first).find("close") != std::string::npos &&
               client.events(late).find("close") != std::string::npos;
    }));
    EXPECT_EQ(client.events(late), "started underrun refilled finished close");
    EXPECT_EQ(client.events(first), "started finished close");
    ASSERT_TRUE(player.shutdown(std::chrono::steady_clock::now() + 10s));
    SF_INFO info{};
    SNDFILE* file = sf_open((dir.path() + "/mix.wav").c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr);
    std::vector<int16_t> mix(steady.size());
    EXPECT_EQ(sf_readf_short(file, mix.data(), 48000), 48000);
    sf_close(file);
    for (size_t i = 0; i < mix.size(); ++i) ASSERT_EQ(mix[i], steady[i]) << "frame " << i / 2;
}

TEST(MixerTest, SeekWaitsForTheReadAheadInsteadOfReportingAnUnderrun) {
    parlex::test::PrivateRuntimeDir dir;
    std::string error;
    HostPlayer::Options options;
    options.sink = *SinkSpec::parse("none", error);
    Client client;  // outlives the player, which calls it until it goes
    HostPlayer player(options);
    player.setMediaClientDelegate(&client);
    orv::SourceConfig config;
    config.channelLayout = 3;
    config.sampleRate = 48000;
    config.mediaDescription.firstMap.count = 1;
    config.mediaDescription.firstMap.pairs[0] = orv::DescriptionPair(kTotalFramesKey, "24000");
    const long long id = player.setSource(config, "");
    {
        std::lock_guard<std::mutex> lock(client.mutex_);
        client.streams[id].audio.assign(48000 * 4, 1);  // enough for what the seek repeats
    }
    ASSERT_EQ(player.play(id), 0);
    ASSERT_TRUE(parlex::test::waitUntil([&] { return client.events(id) == "started"; }));
    client.slowOnce = true;  // the audio after the seek comes late
    ASSERT_EQ(player.seekTo(id, 100, true), 0);
    EXPECT_EQ(player.getOffset(id), 100);
    ASSERT_TRUE(parlex::test::waitUntil(
        [&] { return client.events(id).find("close") != std::string::npos; }));
    EXPECT_EQ(client.events(id), "started finished close");
}

}  // namespace
}  // namespace zem
