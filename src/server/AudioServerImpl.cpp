// The server: the track registry, the player's data path and the relay of the player's reports
// to the track that owns the source.
//
// Lock order: tracksMutex is the innermost lock. A track holds its source lock when it reports a
// new source id, and nothing is called with tracksMutex held: no track, client, player or log
// sink. A track's last reference must not go while tracksMutex is held: its destructor removes
// the track from the registry, which takes the lock again. So every strong reference taken under
// the lock is kept until the lock is released.
#include <orv/AudioServerImpl.h>

#include <cstdarg>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/LogFormat.h"
#include "parlex/TrackProtocol.h"
#include "server/ZEMServerTrack.h"

namespace orv {

namespace {

constexpr const char kTag[] = "AudioServerImpl";

// Marks a metadata update that the server broadcast, as opposed to metadata the player found in
// a stream.
constexpr const char kMetadataUpdateKey[] = "com.tarnek.kolvo.metadata.update";
constexpr const char kMetadataUpdateValue[] = "true";

// Passes a player's report on to the track that owns `sourceId` by calling `event` on it.
template <typename Event, typename... Args>
void relay(AudioServerImpl& server, const char* report, long long sourceId, Event event,
           const Args&... args) {
    if (const std::shared_ptr<ZEMServerTrack> track = server.getTrack(sourceId)) {
        std::invoke(event, *track, sourceId, args...);
        return;
    }
    // Only the low 32 bits of the id are printed, as existing log readers expect.
    server.log(LOG_ERROR, report, "no track found, sourceId=%d", static_cast<int>(sourceId));
}

// Takes `trackId` out of the holders of `sourceId`; a source id that nobody holds goes.
template <typename Owners>
void disown(Owners& owners, long long sourceId, unsigned int trackId) {
    const auto holders = owners.find(sourceId);
    if (holders == owners.end()) return;
    holders->second.erase(trackId);
    if (holders->second.empty()) owners.erase(holders);
}

}  // namespace

AudioServerImpl::AudioServerImpl(std::shared_ptr<OrvServerHandlerInterface> handler,
                                 std::shared_ptr<LoggingDelegate> logger, std::string serviceName,
                                 const parlex::ServerLimits& limits)
    : handler(std::move(handler)), logger(std::move(logger)) {
    if (!this->handler) throw std::invalid_argument("AudioServerImpl: no player");
    // Before the service starts: the player may call the delegate from now on.
    this->handler->setMediaClientDelegate(this);
    registerFactory(protocol::kObjectType,
                    [this]() -> std::shared_ptr<parlex::AndroidImpl> { return createNewTrack(); });
    start(serviceName, limits);
}

AudioServerImpl::~AudioServerImpl() {
    log(LOG_LIFECYCLE, "~AudioServerImpl", " ");
    {
        std::lock_guard<std::mutex> lock(tracksMutex);
        tracks.clear();
        owners.clear();
    }
    // The transport's connections end here and release their tracks, whose destructors call
    // removeTrack: that must happen while the registry still exists.
    stop();
}

void AudioServerImpl::log(LogLevel level, const char* function, const char* format, ...) {
    if (!logger) return;
    va_list args;
    va_start(args, format);
    const LogLine line = formatLogLine(level, function, format, args, NullLogNames::kRequired);
    va_end(args);
    logger->logMessage(line.level, kTag, line.message.c_str());
}

std::shared_ptr<ZEMServerTrack> AudioServerImpl::createNewTrack() {
    log(LOG_LIFECYCLE, "createNewTrack", "started");
    unsigned int trackId = 0;
    {
        std::lock_guard<std::mutex> lock(tracksMutex);
        trackId = nextTrackId++;
    }
    // Built outside the lock, as its constructor logs; it is not reachable before it is entered.
    auto track = std::make_shared<ZEMServerTrack>(handler, logger, this, trackId);
    {
        std::lock_guard<std::mutex> lock(tracksMutex);
        tracks[trackId] = Registered{track, 0};
        owners[0].insert(trackId);
    }
    log(LOG_LIFECYCLE, "createNewTrack", "created, trackId=%d", trackId);
    return track;
}

std::shared_ptr<ZEMServerTrack> AudioServerImpl::getTrack(long long sourceId) {
    std::shared_ptr<ZEMServerTrack> found;  // outlives the lock
    {
        std::lock_guard<std::mutex> lock(tracksMutex);
        // In ascending track id: of two tracks given the same source id, the older one wins. A
        // track that went but has not left yet is skipped.
        if (const auto holders = owners.find(sourceId); holders != owners.end()) {
            for (auto id = holders->second.begin(); !found && id != holders->second.end(); ++id) {
                found = tracks.at(*id).track.lock();
            }
        }
    }
    if (!found) {
        log(LOG_ERROR, "getTrack", "cannot find track, sourceId=%d", static_cast<int>(sourceId));
    }
    return found;
}

void AudioServerImpl::removeTrack(unsigned int trackId) {
    log(LOG_LIFECYCLE, "removeTrack", "trackId=%d", trackId);
    std::lock_guard<std::mutex> lock(tracksMutex);
    const auto entry = tracks.find(trackId);
    if (entry == tracks.end()) return;
    disown(owners, entry->second.sourceId, trackId);
    tracks.erase(entry);
}

void AudioServerImpl::sourceChanged(unsigned int trackId, long long sourceId) {
    std::lock_guard<std::mutex> lock(tracksMutex);
    const auto entry = tracks.find(trackId);
    if (entry == tracks.end() || entry->second.sourceId == sourceId) return;  // gone, or the same
    disown(owners, entry->second.sourceId, trackId);
    owners[sourceId].insert(trackId);
    entry->second.sourceId = sourceId;
}

std::vector<std::shared_ptr<ZEMServerTrack>> AudioServerImpl::liveTracks() {
    std::vector<std::shared_ptr<ZEMServerTrack>> live;
    std::lock_guard<std::mutex> lock(tracksMutex);
    live.reserve(tracks.size());
    for (const auto& entry : tracks) {
        if (auto track = entry.second.track.lock()) live.push_back(std::move(track));
    }
    return live;
}

int AudioServerImpl::getData(uint8_t* buffer, unsigned int size, long long sourceId) {
    if (const std::shared_ptr<ZEMServerTrack> track = getTrack(sourceId)) {
        return track->getData(buffer, size);
    }
    log(LOG_ERROR, "getData", "no track found, sourceId=%d", static_cast<int>(sourceId));
    return -1;
}

void AudioServerImpl::closeDataSource(long long sourceId) {
    relay(*this, "closeDataSource", sourceId,
          [](ZEMServerTrack& track, long long) { track.closeDataSource(); });
}

void AudioServerImpl::onStopRequested(long long sourceId) {
    relay(*this, "onStopRequested", sourceId, &ZEMServerTrack::onStopRequested);
}

void AudioServerImpl::onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onFirstByteRead", sourceId, &ZEMServerTrack::onFirstByteRead, state);
}

void AudioServerImpl::onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onPlaybackStarted", sourceId, &ZEMServerTrack::onPlaybackStarted, state);
}

void AudioServerImpl::onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onPlaybackFinished", sourceId, &ZEMServerTrack::onPlaybackFinished, state);
}

void AudioServerImpl::onPlaybackError(long long sourceId, const ErrorType& type, const char* error,
                                      const MediaPlayerStateV2& state) {
    relay(*this, "onPlaybackError", sourceId, &ZEMServerTrack::onPlaybackError, type,
          std::string(error != nullptr ? error : ""), state);
}

void AudioServerImpl::onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onPlaybackPaused", sourceId, &ZEMServerTrack::onPlaybackPaused, state);
}

void AudioServerImpl::onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onPlaybackResumed", sourceId, &ZEMServerTrack::onPlaybackResumed, state);
}

void AudioServerImpl::onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onPlaybackStopped", sourceId, &ZEMServerTrack::onPlaybackStopped, state);
}

// The underrun pair travels under the protocol's own names: "onBufferUnderrun" and
// "onBufferRefilled".
void AudioServerImpl::onBufferUnderrunStarted(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onBufferUnderrunStarted", sourceId, &ZEMServerTrack::onBufferUnderrun, state);
}

void AudioServerImpl::onBufferUnderrunEnded(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onBufferUnderrunEnded", sourceId, &ZEMServerTrack::onBufferRefilled, state);
}

void AudioServerImpl::onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) {
    relay(*this, "onBufferingComplete", sourceId, &ZEMServerTrack::onBufferingComplete, state);
}

void AudioServerImpl::onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                                const MetadataKeyValuePairs& metadata) {
    relay(*this, "onStreamMetadataExtracted", sourceId, &ZEMServerTrack::onStreamMetadataExtracted,
          state, metadata);
}

void AudioServerImpl::onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                               const MediaPlayerStateV2& after) {
    relay(*this, "onSeeked", sourceId, &ZEMServerTrack::onSeeked, before, after);
}

void AudioServerImpl::onLicenseAvailable(long long sourceId) {
    relay(*this, "onLicenseAvailable", sourceId, &ZEMServerTrack::onLicenseAvailable);
}

void AudioServerImpl::onFirstDataSegmentAvailable(long long sourceId) {
    relay(*this, "onFirstDataSegmentAvailable", sourceId,
          &ZEMServerTrack::onFirstDataSegmentAvailable);
}

MetadataKeyValuePairs AudioServerImpl::toMetadataKeyValuePairs(
    const std::map<std::string, std::string>& metadata) {
    MetadataKeyValuePairs pairs;
    pairs.pairs[0] = MetadataKeyValuePair(kMetadataUpdateKey, kMetadataUpdateValue);
    pairs.count = 1;
    // Entries beyond the capacity are dropped: the first ones in key order are kept.
    for (const auto& entry : metadata) {
        if (pairs.count >= MetadataKeyValuePairs::kCapacity) break;
        pairs.pairs[pairs.count++] =
            MetadataKeyValuePair(entry.first.c_str(), entry.second.c_str());
    }
    return pairs;
}

// The broadcast works on a snapshot of the registry and holds no lock of it, so that a client
// slow to answer, or one that destroys its track from inside the event, holds up no other client's
// audio, events or new tracks. Every track with no event in flight gets the update before the
// broadcast waits for any answer; a track busy with another event gets it once that is answered,
// after the others.
void AudioServerImpl::updateMetadata(const std::map<std::string, std::string>& metadata) {
    const MetadataKeyValuePairs pairs = toMetadataKeyValuePairs(metadata);
    const MediaPlayerStateV2 noState;
    const std::vector<std::shared_ptr<ZEMServerTrack>> live = liveTracks();
    std::vector<std::pair<ZEMServerTrack*, ZEMAudioTrackServer::PendingEvent>> sent;
    std::vector<ZEMServerTrack*> busy;
    sent.reserve(live.size());
    for (const std::shared_ptr<ZEMServerTrack>& track : live) {
        auto pending = track->tryStreamMetadata(track->sourceId(), noState, pairs);
        if (pending) {
            sent.emplace_back(track.get(), std::move(*pending));
        } else {
            busy.push_back(track.get());
        }
    }
    for (auto& [track, pending] : sent) track->finishEvent(pending);
    for (ZEMServerTrack* track : busy) {
        track->onStreamMetadataExtracted(track->sourceId(), noState, pairs);
    }
}

}  // namespace orv
