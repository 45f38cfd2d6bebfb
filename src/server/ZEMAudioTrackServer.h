// The server's remote object for one client's track. Each request of the track protocol that
// the client's proxy sends becomes a call of one of the track operations, whose result goes
// back in the reply; the operations themselves are the server track's (ZEMServerTrack). In the
// other direction this class sends the client the audio data callback ("getBuffer") and the
// events, and it is where a failed send is caught and logged.
//
// Events of one track are sent one at a time, each waiting until the client has handled it; the
// data callback is sent without waiting for them, so that audio keeps flowing while a slow
// listener handles an event.
#pragma once

#include <orv/Logging.h>
#include <orv/Records.h>
#include <parlex/binder.h>

#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "common/IAudioTrackRPC.h"

namespace orv {

class ZEMAudioTrackServer : public IAudioTrackRPC, public parlex::AndroidImpl {
public:
    // Binds every request of the track protocol; `tag` names this object's log lines.
    ZEMAudioTrackServer(std::shared_ptr<LoggingDelegate> logger, std::string tag);
    ~ZEMAudioTrackServer() override;

    // The client's next audio, at most `size` bytes; an empty buffer when the client could not
    // be asked. Throws when the client's reply holds no readable buffer (getData catches it).
    parlex::AndroidBuffer getBuffer(int size) override;
    void closeAudioSource() override;

    // The player's reports, each sent to the client as the event of the same name.
    void onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackError(long long sourceId, ErrorType type, const std::string& error,
                         const MediaPlayerStateV2& state) override;
    void onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) override;
    void onBufferUnderrun(long long sourceId, const MediaPlayerStateV2& state) override;
    void onBufferRefilled(long long sourceId, const MediaPlayerStateV2& state) override;
    void onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) override;
    void onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                   const MetadataKeyValuePairs& metadata) override;
    void onStopRequested(long long sourceId) override;
    // Sent as "onReportMetric", a name the client does not bind: existing clients expect it so.
    void onReportMetric(const std::string& first, const std::string& second) override;
    void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                  const MediaPlayerStateV2& after) override;
    void onLicenseAvailable(long long sourceId) override;
    void onFirstDataSegmentAvailable(long long sourceId) override;

    // An event sent and not answered yet. It holds the track's event lock, so that no other
    // event of the track overlaps it, until finishEvent has the client's answer.
    struct PendingEvent {
        std::unique_lock<std::mutex> lock;
        std::future<parlex::AndroidParcel> answer;  // not valid when the send failed
    };
    // The stream metadata event, sent without waiting for the answer: a broadcast sends to every
    // track before it waits for any. Empty, with nothing sent or logged, while another event of
    // this track is in flight.
    std::optional<PendingEvent> tryStreamMetadata(long long sourceId,
                                                  const MediaPlayerStateV2& state,
                                                  const MetadataKeyValuePairs& metadata);
    // Waits for the answer, logs a failure as remoteEvent does and releases the event lock.
    void finishEvent(PendingEvent& pending);

protected:
    // Asks the client for `size` bytes of audio as getBuffer does and returns its reply, the
    // buffer still in it to be read in place; false when the client could not be asked.
    std::pair<bool, parlex::AndroidParcel> requestBuffer(int size);

private:
    void bindRequests();
    template <typename F>
    void bindRequest(const char* name, F operation);

    // Each sends one message and reports whether it reached the client; a failure is logged.
    template <typename... Args>
    bool remoteEvent(const std::string& name, const Args&... args);
    std::pair<bool, parlex::AndroidParcel> remoteCallback(const std::string& name, int arg);

    // The events that carry only the source id and the player's state.
    void sendStateEvent(const char* name, long long sourceId, const MediaPlayerStateV2& state);

    std::mutex eventMutex;  // held for each whole event send: one event at a time per track
};

}  // namespace orv
