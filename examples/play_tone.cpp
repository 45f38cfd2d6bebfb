// play_tone: a complete small application. It plays a generated 440 Hz tone through the audio
// service for a few seconds:
//
//   create a track, init it with a version 3 listener and a log sink, give it a PCM source,
//   play, supply the audio whenever the service asks for it, stop and destroy.
//
//   play_tone [SECONDS]       (default 2)
//
// Exit status: 0 when the service took the whole tone, 1 when it could not be reached, refused
// the source, died or stopped asking for audio.
#include <orv/ZEMAudioTrack.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

namespace {

constexpr unsigned int kSampleRate = 44100;
constexpr unsigned int kChannels = 2;
constexpr int kBytesPerFrame = kChannels * sizeof(int16_t);
constexpr double kPi = 3.14159265358979323846;

// The library writes no log of its own; it hands every line to this sink, from several threads.
class StderrLog : public orv::LoggingDelegate {
public:
    void logMessage(orv::LogLevel level, const char* tag, const char* message) override {
        // Levels 1 and 2 trace every buffer and call: keep lifecycle lines and worse.
        if (level >= orv::LOG_LIFECYCLE) std::fprintf(stderr, "[%d %s] %s\n", level, tag, message);
    }
};

// Receives the player's events and supplies the audio. Every operation runs on one of the
// library's threads, never on main's, so what main waits for is guarded.
class ToneListener : public orv::EventListenerV3 {
public:
    explicit ToneListener(uint64_t frames) : framesWanted_(frames) {}

    // Waits until the tone was played to its end or the service went away; true for the end.
    bool waitForEnd(std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, timeout, [this] { return finished_ || failed_; });
        return finished_ && !failed_;
    }

    // Called with the room the service has for the next audio; returns the bytes written. After
    // the last frame it returns 0, which tells the service that the source has run dry.
    int getBuffer(uint8_t* buffer, int size) override {
        const int frames = size / kBytesPerFrame;
        int written = 0;
        for (; written < frames && framesSupplied_ < framesWanted_; ++written, ++framesSupplied_) {
            const double t = static_cast<double>(framesSupplied_) / kSampleRate;
            const auto sample = static_cast<int16_t>(8000 * std::sin(2 * kPi * 440 * t));
            for (unsigned int channel = 0; channel < kChannels; ++channel) {
                std::memcpy(buffer + (written * kChannels + channel) * sizeof sample, &sample,
                            sizeof sample);
            }
        }
        return written * kBytesPerFrame;
    }

    void onPlaybackStarted(long long sourceId, const orv::MediaPlayerStateV2&) override {
        std::printf("source %lld started\n", sourceId);
    }
    void onPlaybackFinished(long long sourceId, const orv::MediaPlayerStateV2& state) override {
        std::printf("source %lld finished at %d ms\n", sourceId, state.offsetMs);
        end(false);
    }
    void onPlaybackError(long long sourceId, orv::ErrorType type, const char* error,
                         const orv::MediaPlayerStateV2&) override {
        std::fprintf(stderr, "source %lld failed: %d %s\n", sourceId, static_cast<int>(type),
                     error);
        end(true);
    }
    void onServerDeath() override {
        std::fprintf(stderr, "the audio service died\n");
        end(true);
    }

    // The rest of the events are of no interest to this application.
    void closeAudioSource() override {}
    void onStopRequested(long long) override {}
    void onReportMetric(const char*, const char*) override {}
    void onFirstByteRead(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackPaused(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackResumed(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackStopped(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferUnderrun(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferRefilled(long long, const orv::MediaPlayerStateV2&) override {}
    void onBufferingComplete(long long, const orv::MediaPlayerStateV2&) override {}
    void onStreamMetadataExtracted(long long, const orv::MediaPlayerStateV2&,
                                   const orv::MetadataKeyValuePairs&) override {}
    void onSeeked(long long, const orv::MediaPlayerStateV2&,
                  const orv::MediaPlayerStateV2&) override {}
    void onLicenseAvailable(long long) override {}
    void onFirstDataSegmentAvailable(long long) override {}

private:
    void end(bool failed) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            finished_ = true;
            failed_ = failed_ || failed;
        }
        changed_.notify_all();
    }

    const uint64_t framesWanted_;
    uint64_t framesSupplied_ = 0;  // getBuffer is called for one buffer at a time
    std::mutex mutex_;             // guards: finished_, failed_
    std::condition_variable changed_;
    bool finished_ = false;
    bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 2;
    if (seconds <= 0) {
        std::fprintf(stderr, "usage: play_tone [SECONDS]\n");
        return 2;
    }

    // The track is created unconnected; init connects it to the audio service.
    std::unique_ptr<orv::ZEMAudioTrack> track(createZEMAudioTrack());
    auto listener = std::make_shared<ToneListener>(uint64_t{kSampleRate} * seconds);
    auto log = std::make_shared<StderrLog>();
    if (!track->init(std::shared_ptr<orv::EventListenerV3>(listener), log)) {
        std::fprintf(stderr, "could not connect to the audio service\n");
        return 1;
    }

    // Raw PCM: interleaved stereo, signed 16-bit samples, pulled from the listener.
    orv::ZEMAudioSource source;
    source.type = orv::kSourceTypePcm;
    source.format.sampleRate = kSampleRate;
    source.format.sampleSizeInBits = 16;
    source.format.channelNum = kChannels;
    source.format.isSigned = true;
    source.format.layout = 1;
    source.setClusterId("play_tone");
    const long long sourceId = track->setSource(source);

    bool played = false;
    if (sourceId <= 0) {
        std::fprintf(stderr, "the audio service refused the source\n");
    } else if (!track->play()) {
        std::fprintf(stderr, "play failed\n");
    } else {
        played = listener->waitForEnd(std::chrono::seconds(seconds + 10));
        track->stop();
    }
    // Releases the source at the service and closes the connection; deleting the track then
    // frees it.
    track->destroy();
    track.reset();
    std::printf("%s\n", played ? "played the whole tone" : "the tone did not play to its end");
    return played ? 0 : 1;
}
