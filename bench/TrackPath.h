// The whole track path for parlex_bench: the library's own client and server halves end to end,
// with a player and an application that answer at once, so that what is timed is the library
// and the transport. Each process runs one audio service (the service name is fixed, so each in
// a runtime directory of its own) and one application track playing through the other process's
// service:
//  - "track/play": this process's track calls play(); the other process's server hands it to its
//    player and the result comes back;
//  - "track/getData": this process's player pulls 12288 bytes through its server from the other
//    process's track, whose listener fills them, and they land in the player's buffer.
#pragma once

#include <orv/ZEMAudioServer.h>
#include <orv/ZEMAudioTrack.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace trackpath {

// The id every source gets from the player, so that each process knows the other's.
constexpr long long kSourceId = 4242;
// What the player asks for: the server cuts requests of 16 KiB or more to 12288 bytes.
constexpr unsigned int kPlayerRequestBytes = 16384;
constexpr int kPulledBytes = 12288;

// The PCM source every benchmark track plays: 16-bit stereo at 48000 Hz.
inline orv::ZEMAudioSource stereoPcm() {
    orv::ZEMAudioSource source;
    source.type = orv::kSourceTypePcm;
    source.format.sampleRate = 48000;
    source.format.sampleSizeInBits = 16;
    source.format.channelNum = 2;
    source.format.isSigned = true;
    source.format.layout = 1;
    return source;
}

// A player that answers every call at once and keeps the delegate for the getData case.
class InstantPlayer : public orv::OrvServerHandlerInterface {
public:
    void setMediaClientDelegate(orv::MediaClientDelegate* delegate) override {
        this->delegate = delegate;
    }
    long long setSource(const orv::SourceConfig&, const char*) override { return kSourceId; }
    int play(long long) override { return 0; }
    int stop(long long) override { return 0; }
    int pause(long long) override { return 0; }
    int resume(long long) override { return 0; }
    int newDecryptKey(long long, const char*) override { return 0; }
    int getOffset(long long) override { return 0; }
    orv::MediaPlayerState getMediaPlayerState(long long) override { return {}; }
    orv::PlaybackAttributes getPlaybackAttributes(long long) override { return {}; }
    orv::PlaybackReports getPlaybackReports(long long) override { return {}; }
    orv::Fingerprint getFingerprint(long long) override { return {}; }
    int seekTo(long long, int, bool) override { return 0; }
    int releaseSource(long long) override { return 0; }
    orv::PlaybackReportArray getPlaybackReportArray(long long) override { return {}; }
    int setVolume(float, long long) override { return 0; }
    int setFocusSessionId(unsigned int, long long) override { return 0; }
    orv::MediaPlayerStateV2 getMediaPlayerStateV2(long long) override { return {}; }

    std::atomic<orv::MediaClientDelegate*> delegate{nullptr};
};

// An application that has its audio ready: every request gets the same bytes.
class ReadyListener : public orv::EventListenerV3 {
public:
    int getBuffer(uint8_t* buffer, int size) override {
        const int n = std::min(size, static_cast<int>(audio_.size()));
        std::memcpy(buffer, audio_.data(), static_cast<size_t>(n));
        return n;
    }
    void closeAudioSource() override {}
    void onStopRequested(long long) override {}
    void onReportMetric(const char*, const char*) override {}
    void onServerDeath() override {}
    void onFirstByteRead(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackStarted(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackFinished(long long, const orv::MediaPlayerStateV2&) override {}
    void onPlaybackError(long long, orv::ErrorType, const char*,
                         const orv::MediaPlayerStateV2&) override {}
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
    std::vector<uint8_t> audio_ = std::vector<uint8_t>(kPulledBytes, 0x22);
};

class QuietLog : public orv::LoggingDelegate {
public:
    void logMessage(orv::LogLevel, const char*, const char*) override {}
};

// One process's part: its audio service and its application track. Services are found through
// PARLEX_RUNTIME_DIR as it is when they start or are connected to, so each step sets it for its
// own directory and puts the previous value back.
class TrackEnds {
public:
    ~TrackEnds() {
        // The track first: its connection ends before the service it may belong to.
        track_.reset();
        service_.reset();
    }

    // Starts this process's audio service in `dir`.
    void serve(const std::string& dir) {
        InDir in(dir);
        service_ = std::make_unique<orv::ZEMAudioServer>(player_, nullptr);
    }

    // Connects this process's track to the service in `dir` and gives it a PCM source.
    void connect(const std::string& dir) {
        InDir in(dir);
        track_.reset(createZEMAudioTrack());
        if (!track_->init(listener_, std::make_shared<QuietLog>())) {
            throw std::runtime_error("the other process's audio service is not running");
        }
        const orv::ZEMAudioSource source = stereoPcm();
        if (track_->setSource(source) != kSourceId) {
            throw std::runtime_error("the other process's service refused the source");
        }
    }

    // Ends the track's connection; the service stays.
    void disconnect() { track_.reset(); }

    orv::ZEMAudioTrack& track() { return *track_; }
    orv::MediaClientDelegate& delegate() { return *player_->delegate; }

private:
    class InDir {
    public:
        explicit InDir(const std::string& dir) {
            const char* previous = std::getenv("PARLEX_RUNTIME_DIR");
            previous_ = previous != nullptr ? previous : "";
            ::setenv("PARLEX_RUNTIME_DIR", dir.c_str(), 1);
        }
        ~InDir() { ::setenv("PARLEX_RUNTIME_DIR", previous_.c_str(), 1); }

    private:
        std::string previous_;
    };

    std::shared_ptr<InstantPlayer> player_ = std::make_shared<InstantPlayer>();
    std::unique_ptr<orv::ZEMAudioServer> service_;
    std::shared_ptr<ReadyListener> listener_ = std::make_shared<ReadyListener>();
    std::unique_ptr<orv::ZEMAudioTrack> track_;
};

}  // namespace trackpath
