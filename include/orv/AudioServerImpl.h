// The server half's implementation: publishes the track service, creates one server track per
// track a client creates and keeps a registry of them by track id, and is the player's
// MediaClientDelegate, routing each data request and event by source id to the track that owns
// the source.
//
// The player receives this object as its MediaClientDelegate*; the delegate is the primary base,
// so static_cast<AudioServerImpl*>(delegate) reaches updateMetadata().
#pragma once

#include <orv/Export.h>
#include <orv/Logging.h>
#include <orv/MediaClientDelegate.h>
#include <orv/OrvServerHandlerInterface.h>
#include <parlex/binder.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace orv {

class ZEMServerTrack;

class ORV_EXPORT AudioServerImpl : public parlex::AndroidServer, public MediaClientDelegate {
public:
    AudioServerImpl(std::shared_ptr<OrvServerHandlerInterface> handler,
                    std::shared_ptr<LoggingDelegate> logger, std::string serviceName,
                    const parlex::ServerLimits& limits = parlex::ServerLimits());
    ~AudioServerImpl() override;

    int getData(uint8_t* buffer, unsigned int size, long long sourceId) override;
    void closeDataSource(long long sourceId) override;
    void onStopRequested(long long sourceId) override;
    void onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackError(long long sourceId, const ErrorType& type, const char* error,
                         const MediaPlayerStateV2& state) override;
    void onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) override;
    void onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) override;
    void onBufferUnderrunStarted(long long sourceId, const MediaPlayerStateV2& state) override;
    void onBufferUnderrunEnded(long long sourceId, const MediaPlayerStateV2& state) override;
    void onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) override;
    void onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                   const MetadataKeyValuePairs& metadata) override;
    void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                  const MediaPlayerStateV2& after) override;
    void onLicenseAvailable(long long sourceId) override;
    void onFirstDataSegmentAvailable(long long sourceId) override;

    // Sends `metadata` to every live track as stream metadata: first the pair
    // ("com.tarnek.kolvo.metadata.update", "true"), then at most 19 entries in key order. Returns
    // once every client has answered; the registry is not held meanwhile, and each client gets
    // the update without waiting for another client's answer.
    void updateMetadata(const std::map<std::string, std::string>& metadata);
    MetadataKeyValuePairs toMetadataKeyValuePairs(
        const std::map<std::string, std::string>& metadata);

    // The registry. createNewTrack is the object factory's; removeTrack is called by a track
    // that leaves (its client destroyed it, or it goes); sourceChanged by a track that the player
    // gave a new source id. getTrack costs the same however many tracks are registered.
    std::shared_ptr<ZEMServerTrack> createNewTrack();
    std::shared_ptr<ZEMServerTrack> getTrack(long long sourceId);
    void removeTrack(unsigned int trackId);
    void sourceChanged(unsigned int trackId, long long sourceId);

    void log(LogLevel level, const char* function, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    std::shared_ptr<OrvServerHandlerInterface> handler;
    std::shared_ptr<LoggingDelegate> logger;
    struct Registered {
        std::weak_ptr<ZEMServerTrack> track;
        long long sourceId = 0;  // the track's, as it last reported it
    };
    // The live tracks, strong references taken under the registry lock.
    std::vector<std::shared_ptr<ZEMServerTrack>> liveTracks();

    std::mutex tracksMutex;  // guards: nextTrackId, tracks, owners
    unsigned int nextTrackId = 0;
    std::map<unsigned int, Registered> tracks;
    // Source id to the ids of the registered tracks that hold it. Of several, the lowest track id
    // is the owner the player's calls reach.
    std::unordered_map<long long, std::set<unsigned int>> owners;
};

}  // namespace orv
