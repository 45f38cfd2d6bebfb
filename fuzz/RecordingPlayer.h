// A host player for the fuzz targets that records every call the server half makes and hands
// out increasing source ids, and a log sink that formats nothing and keeps nothing. The player
// also keeps the ids it handed out and not yet released, so that a target can check that each
// source is released exactly once.
#pragma once

#include <orv/Logging.h>
#include <orv/OrvServerHandlerInterface.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>

namespace orv::fuzz {

class RecordingPlayer : public OrvServerHandlerInterface {
public:
    void setMediaClientDelegate(MediaClientDelegate* d) override { delegate = d; }
    long long setSource(const SourceConfig&, const char*) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++calls;
        open.insert(nextId);
        return nextId++;
    }
    int releaseSource(long long sourceId) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++calls;
        // Id 0 is what a track without a source releases; any other id must be open.
        if (sourceId != 0 && open.erase(sourceId) != 1) std::abort();
        return 0;
    }
    int play(long long) override { return count(); }
    int stop(long long) override { return count(); }
    int pause(long long) override { return count(); }
    int resume(long long) override { return count(); }
    int newDecryptKey(long long, const char*) override { return count(); }
    int getOffset(long long) override { return count(); }
    MediaPlayerState getMediaPlayerState(long long) override { return count(), MediaPlayerState(); }
    PlaybackAttributes getPlaybackAttributes(long long) override {
        return count(), PlaybackAttributes();
    }
    PlaybackReports getPlaybackReports(long long) override { return count(), PlaybackReports(); }
    Fingerprint getFingerprint(long long) override { return count(), Fingerprint(); }
    int seekTo(long long, int, bool) override { return count(); }
    PlaybackReportArray getPlaybackReportArray(long long) override {
        return count(), PlaybackReportArray();
    }
    int setVolume(float, long long) override { return count(); }
    int setFocusSessionId(unsigned int, long long) override { return count(); }
    MediaPlayerStateV2 getMediaPlayerStateV2(long long) override {
        return count(), MediaPlayerStateV2();
    }

    long long callCount() {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    size_t openSources() {
        std::lock_guard<std::mutex> lock(mutex);
        return open.size();
    }

    std::atomic<MediaClientDelegate*> delegate{nullptr};

private:
    int count() {
        std::lock_guard<std::mutex> lock(mutex);
        ++calls;
        return 0;
    }

    std::mutex mutex;  // guards: calls, open, nextId
    long long calls = 0;
    std::set<long long> open;
    long long nextId = 1;
};

class NullSink : public LoggingDelegate {
public:
    void logMessage(LogLevel, const char*, const char*) override {}
};

}  // namespace orv::fuzz
