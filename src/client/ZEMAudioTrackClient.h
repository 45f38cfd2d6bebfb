// The client's proxy for one track object in the audio service. Each request of the application
// becomes one named remote call, sent one at a time under the call lock; every failure becomes a
// fixed default with one log line, so nothing thrown by the transport reaches the application.
// The same object receives the service's events, its "getBuffer" audio requests and the
// transport's "death", and hands each to the newest listener version the application gave.
#pragma once

#include <orv/EventListener.h>
#include <orv/Logging.h>
#include <parlex/binder.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "common/IAudioTrackRPC.h"

namespace orv {

// What the transport's threads touch while they deliver an incoming message. It is a base built
// before, and destroyed after, the AndroidProxy base, whose destructor waits for the deliveries
// in flight: a track deleted while an event arrives never has this state taken from under it.
class TrackListeners {
public:
    // The newest listener present, promoted for one delivery: at most one pointer is set.
    struct Newest {
        std::shared_ptr<EventListenerV3> v3;
        std::shared_ptr<EventListenerV2> v2;
        std::shared_ptr<EventListener> v1;
    };

    void setListener(std::weak_ptr<EventListener> listener);
    void setListener(std::weak_ptr<EventListenerV2> listener);
    void setListener(std::weak_ptr<EventListenerV3> listener);

protected:
    Newest newest() const;

    // Set once by the death notification, never cleared; read under the call lock.
    std::atomic<bool> serverDead_{false};

private:
    mutable std::mutex mutex_;  // guards: v1_, v2_, v3_
    std::weak_ptr<EventListener> v1_;
    std::weak_ptr<EventListenerV2> v2_;
    std::weak_ptr<EventListenerV3> v3_;
};

class ZEMAudioTrackClient : public IAudioTrackRPC,
                            public TrackListeners,
                            public parlex::AndroidProxy {
public:
    // Creates the remote object of `type` in the service that `client` is connected to and binds
    // the incoming names. Throws what the transport throws when the object cannot be created.
    // `client` must outlive the proxy.
    ZEMAudioTrackClient(std::shared_ptr<LoggingDelegate> logger, parlex::AndroidClient* client,
                        std::string type);
    ~ZEMAudioTrackClient() override;

    long long setSource(const ZEMAudioFormat& format, const char* clusterId) override;
    long long setSource(const ZEMAudioSource& source) override;
    long long setSource(const ZEMAudioSource& source, const MediaDescription& description) override;
    long long setSource(const ZEMAudioSourceV2& source,
                        const MediaDescription& description) override;
    long long setSource(const ZEMAudioSourceV3& source,
                        const MediaDescription& description) override;
    long long setSource(const ZEMAudioSourceV4& source,
                        const MediaDescription& description) override;
    int play() override;
    int stop() override;
    int pause() override;
    int resume() override;
    int seekTo(int offsetInMs, bool fromStart) override;
    int getOffset() override;
    void destroy() override;
    MediaPlayerState getMediaPlayerState() override;
    MediaPlayerStateV2 getMediaPlayerStateV2() override;
    PlaybackAttributes getPlaybackAttributes() override;
    PlaybackReports getPlaybackReports() override;
    PlaybackReportArray getPlaybackReportArray() override;
    Fingerprint getFingerprint() override;
    int setVolume(float volumeGain) override;
    int setFocusSessionId(unsigned int focusSessionId) override;
    int newDecryptKey(const std::string& key) override;

    parlex::AndroidBuffer getBuffer(int size) override;
    void closeAudioSource() override;
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
    void onReportMetric(const std::string& first, const std::string& second) override;
    void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                  const MediaPlayerStateV2& after) override;
    void onLicenseAvailable(long long sourceId) override;
    void onFirstDataSegmentAvailable(long long sourceId) override;

    // Sends `method` with `args` under the call lock, waits for the reply and hands it to `read`.
    // Reading the reply is part of the call: false when the server is known dead, the call failed
    // or `read` threw on a malformed reply; the failure has then been logged.
    template <typename Read, typename... Args>
    bool remoteCall(Read&& read, const std::string& method, const Args&... args);

private:
    void bindIncoming();
    // The audio supply: checkBufferSize refuses (throws) a size no reply could carry;
    // fillBuffer has the listener fill `bytes` and returns the count it wrote, in range;
    // writeBuffer writes the listener's audio into `reply` as a buffer.
    void checkBufferSize(int size);
    int fillBuffer(uint8_t* bytes, int size);
    void writeBuffer(int size, parlex::AndroidParcel& reply);
    void onServerDeath();

    template <typename Source>
    long long setSourceCommon(const char* logName, const char* method, const Source& source,
                              const MediaDescription& description);
    // A request whose client result only says whether the reply arrived.
    template <typename... Args>
    int flagRequest(const char* method, const Args&... args);
    // A request answered with a source id; -1 when it failed.
    template <typename... Args>
    long long sourceIdRequest(const char* method, const Args&... args);
    // A request answered with a record; the one `fallback` makes when it failed.
    template <typename Record, typename Fallback>
    Record recordRequest(const char* method, Fallback fallback);

    // Hands an event to the newest listener: `toV3orV2` is called with an EventListenerV3& or
    // an EventListenerV2&, `toV1` with an EventListener&. Logs "No listener found" under
    // `function` when there is none.
    template <typename ToV3orV2, typename ToV1>
    void deliver(const char* function, ToV3orV2&& toV3orV2, ToV1&& toV1);
    template <typename ToV3>
    void deliverToV3(const char* function, ToV3&& toV3);
    // The events that carry one player state: their log line and their delivery.
    template <typename ToV3orV2, typename ToV1>
    void stateEvent(const char* function, long long sourceId, const MediaPlayerStateV2& state,
                    ToV3orV2&& toV3orV2, ToV1&& toV1);

    std::mutex callMutex_;  // guards: the transport client's call path, one request at a time
};

}  // namespace orv
