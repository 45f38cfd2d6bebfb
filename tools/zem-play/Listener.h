// zem-play's listener: answers the service's audio requests from the PCM feed and turns every
// event into a PlayEvent that the main thread takes from a queue, so that printing and every
// request on the track happen on the main thread, never on a transport thread.
#pragma once

#include <orv/EventListener.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "PcmFeed.h"

namespace zem {

struct PlayEvent {
    enum Kind {
        Note,  // worth a line, changes nothing
        Started,
        Paused,
        Resumed,
        Underrun,
        Refilled,
        Finished,
        Stopped,
        Error,
        StopRequested,
        Death,
        Interrupted,  // SIGINT or SIGTERM reached zem-play
        Metadata,
    };
    Kind kind = Note;
    int offsetMs = 0;
    std::string text;        // the line to print
    std::string durationMs;  // Metadata: the duration the service reported, if any
};

class Listener : public orv::EventListenerV3 {
public:
    explicit Listener(PcmFeed* feed) : feed_(feed) {}

    void push(PlayEvent event);
    // The next event, waiting for it until `deadline`.
    std::optional<PlayEvent> next(std::chrono::steady_clock::time_point deadline);

    int getBuffer(uint8_t* buffer, int size) override;
    void closeAudioSource() override;
    void onStopRequested(long long sourceId) override;
    void onReportMetric(const char* first, const char* second) override;
    void onServerDeath() override;
    void onFirstByteRead(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onPlaybackStarted(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onPlaybackFinished(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onPlaybackError(long long sourceId, orv::ErrorType type, const char* error,
                         const orv::MediaPlayerStateV2& state) override;
    void onPlaybackPaused(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onPlaybackResumed(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onPlaybackStopped(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onBufferUnderrun(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onBufferRefilled(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onBufferingComplete(long long sourceId, const orv::MediaPlayerStateV2& state) override;
    void onStreamMetadataExtracted(long long sourceId, const orv::MediaPlayerStateV2& state,
                                   const orv::MetadataKeyValuePairs& metadata) override;
    void onSeeked(long long sourceId, const orv::MediaPlayerStateV2& before,
                  const orv::MediaPlayerStateV2& after) override;
    void onLicenseAvailable(long long sourceId) override;
    void onFirstDataSegmentAvailable(long long sourceId) override;

private:
    template <typename Body>
    void guard(const char* callback, Body body) noexcept;
    static void report(const char* callback, const char* what) noexcept;
    void pushMetadata(const orv::MetadataKeyValuePairs& metadata);
    void at(PlayEvent::Kind kind, const char* what, const orv::MediaPlayerStateV2& state);

    PcmFeed* feed_;     // null for a URL source
    std::mutex mutex_;  // guards: events_
    std::condition_variable added_;
    std::deque<PlayEvent> events_;
};

}  // namespace zem
