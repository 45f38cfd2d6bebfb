// pcm_sink_service: the smallest audio service that play_tone can play through. It publishes
// the track service with a host player that accepts PCM sources and, once one is played, pulls
// its audio through the server as fast as the application supplies it, counting the bytes; when
// the application has no more, it reports the playback finished.
//
//   pcm_sink_service          runs until SIGINT or SIGTERM
//
// A real audio service hands the audio to its output at the sample rate; this one only counts.
#include <orv/ZEMAudioServer.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// The player the server calls. One thread per playing source pulls its audio.
class CountingPlayer : public orv::OrvServerHandlerInterface {
public:
    ~CountingPlayer() override { stopAll(); }

    // Stops every pull before the server goes: the server must not be called after that.
    void stopAll() {
        std::map<long long, std::unique_ptr<Pull>> pulls;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pulls.swap(pulls_);
        }
        for (auto& entry : pulls) entry.second->stop();
    }

    void setMediaClientDelegate(orv::MediaClientDelegate* delegate) override {
        delegate_ = delegate;
    }
    long long setSource(const orv::SourceConfig& config, const char* clusterId) override {
        if (config.type != 0) return 0;  // only PCM pulled from the application
        const long long sourceId = nextSourceId_++;
        std::printf("source %lld: PCM at %u Hz from %s\n", sourceId, config.sampleRate,
                    clusterId ? clusterId : "(no cluster)");
        std::fflush(stdout);
        return sourceId;
    }
    int play(long long sourceId) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& pull = pulls_[sourceId];
        if (!pull) pull = std::make_unique<Pull>(delegate_, sourceId);
        return 0;
    }
    int stop(long long sourceId) override { return release(sourceId); }
    int releaseSource(long long sourceId) override { return release(sourceId); }

    int pause(long long) override { return 0; }
    int resume(long long) override { return 0; }
    int newDecryptKey(long long, const char*) override { return 0; }
    int getOffset(long long) override { return 0; }
    orv::MediaPlayerState getMediaPlayerState(long long) override { return {}; }
    orv::PlaybackAttributes getPlaybackAttributes(long long) override { return {}; }
    orv::PlaybackReports getPlaybackReports(long long) override { return {}; }
    orv::Fingerprint getFingerprint(long long) override { return {}; }
    int seekTo(long long, int, bool) override { return 0; }
    orv::PlaybackReportArray getPlaybackReportArray(long long) override { return {}; }
    int setVolume(float, long long) override { return 0; }
    int setFocusSessionId(unsigned int, long long) override { return 0; }
    orv::MediaPlayerStateV2 getMediaPlayerStateV2(long long) override { return {}; }

private:
    // Pulls one source's audio until it runs dry or is stopped.
    class Pull {
    public:
        Pull(orv::MediaClientDelegate* delegate, long long sourceId)
            : delegate_(delegate), sourceId_(sourceId), thread_([this] { run(); }) {}
        ~Pull() { stop(); }

        void stop() {
            stopping_ = true;
            if (thread_.joinable()) thread_.join();
        }

    private:
        void run() {
            std::vector<uint8_t> buffer(16384);
            unsigned long long bytes = 0;
            orv::MediaPlayerStateV2 state;
            delegate_->onPlaybackStarted(sourceId_, state);
            while (!stopping_) {
                const int got = delegate_->getData(buffer.data(),
                                                   static_cast<unsigned>(buffer.size()), sourceId_);
                if (got <= 0) break;  // the application has no more
                bytes += static_cast<unsigned long long>(got);
            }
            std::printf("source %lld: received %llu bytes\n", sourceId_, bytes);
            std::fflush(stdout);
            if (!stopping_) delegate_->onPlaybackFinished(sourceId_, state);
        }

        orv::MediaClientDelegate* const delegate_;
        const long long sourceId_;
        std::atomic<bool> stopping_{false};
        std::thread thread_;
    };

    int release(long long sourceId) {
        std::unique_ptr<Pull> pull;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = pulls_.find(sourceId);
            if (it == pulls_.end()) return 0;
            pull = std::move(it->second);
            pulls_.erase(it);
        }
        pull->stop();  // outside the lock: the pull may be calling the server right now
        return 0;
    }

    orv::MediaClientDelegate* delegate_ = nullptr;  // set before the service starts
    std::atomic<long long> nextSourceId_{1};
    std::mutex mutex_;  // guards: pulls_
    std::map<long long, std::unique_ptr<Pull>> pulls_;
};

class StderrLog : public orv::LoggingDelegate {
public:
    void logMessage(orv::LogLevel level, const char* tag, const char* message) override {
        if (level >= orv::LOG_LIFECYCLE) std::fprintf(stderr, "[%d %s] %s\n", level, tag, message);
    }
};

}  // namespace

int main() {
    // Blocked before any thread starts, so that only sigwait below receives them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    auto player = std::make_shared<CountingPlayer>();
    try {
        orv::ZEMAudioServer server(player, std::make_shared<StderrLog>());
        std::printf("ready\n");
        std::fflush(stdout);
        int signal = 0;
        sigwait(&signals, &signal);
        player->stopAll();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pcm_sink_service: %s\n", error.what());
        return 1;
    }
    return 0;
}
