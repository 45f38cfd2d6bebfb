// The listener interfaces an application implements to receive a track's player events and to
// supply PCM audio on demand, in the three versions that applications were built against.
//
// The order of the virtual functions is the binary interface that existing applications were
// compiled with: never reorder, insert or remove one; a new operation goes into a new version.
// Every operation is called on a transport thread of the application's process, never on one of
// the application's own threads, and several may run at once: implementations must be
// thread-safe. Strings and records passed in are valid only during the call.
#pragma once

#include <orv/Export.h>
#include <orv/MediaPlayerState.h>
#include <orv/Metadata.h>

#include <cstdint>

namespace orv {

// Version 1: player events carry only the playback position in milliseconds.
class ORV_EXPORT EventListener {
public:
    virtual ~EventListener() = default;

    // Fills `buffer` with up to `size` bytes of the PCM source's next audio and returns how many
    // it wrote: between 0 and `size`.
    virtual int getBuffer(uint8_t* buffer, int size) = 0;
    virtual void closeAudioSource() = 0;
    virtual void onFirstByteRead(long long sourceId, int offsetMs) = 0;
    virtual void onPlaybackStarted(long long sourceId, int offsetMs) = 0;
    virtual void onPlaybackFinished(long long sourceId, int offsetMs) = 0;
    virtual void onPlaybackError(long long sourceId, ErrorType type, const char* error,
                                 int offsetMs) = 0;
    virtual void onPlaybackPaused(long long sourceId, int offsetMs) = 0;
    virtual void onPlaybackResumed(long long sourceId, int offsetMs) = 0;
    virtual void onPlaybackStopped(long long sourceId, int offsetMs) = 0;
    virtual void onBufferUnderrun(long long sourceId, int offsetMs) = 0;
    virtual void onBufferRefilled(long long sourceId, int offsetMs) = 0;
    virtual void onBufferingComplete(long long sourceId, int offsetMs) = 0;
    virtual void onStopRequested(long long sourceId) = 0;
    virtual void onReportMetric(const char* first, const char* second) = 0;
    // The audio service died: every later request on the track fails at once.
    virtual void onServerDeath() = 0;
    virtual void onStreamMetadataExtracted(long long sourceId, int offsetMs,
                                           const MetadataKeyValuePairs& metadata) = 0;
    virtual void onSeeked(long long sourceId, int beforeSeekOffsetMs, int afterSeekOffsetMs) = 0;
};

// Version 2: player events carry the whole player state; stop requests, metrics and the
// service's death come first.
class ORV_EXPORT EventListenerV2 {
public:
    virtual ~EventListenerV2() = default;

    virtual int getBuffer(uint8_t* buffer, int size) = 0;
    virtual void closeAudioSource() = 0;
    virtual void onStopRequested(long long sourceId) = 0;
    virtual void onReportMetric(const char* first, const char* second) = 0;
    virtual void onServerDeath() = 0;
    virtual void onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackError(long long sourceId, ErrorType type, const char* error,
                                 const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferUnderrun(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferRefilled(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                           const MetadataKeyValuePairs& metadata) = 0;
    virtual void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                          const MediaPlayerStateV2& after) = 0;
};

// Version 3: version 2 plus two events that only this version receives. It does not derive from
// version 2, so that each version's table stays exactly as applications were built against it.
class ORV_EXPORT EventListenerV3 {
public:
    virtual ~EventListenerV3() = default;

    virtual int getBuffer(uint8_t* buffer, int size) = 0;
    virtual void closeAudioSource() = 0;
    virtual void onStopRequested(long long sourceId) = 0;
    virtual void onReportMetric(const char* first, const char* second) = 0;
    virtual void onServerDeath() = 0;
    virtual void onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackError(long long sourceId, ErrorType type, const char* error,
                                 const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferUnderrun(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferRefilled(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                           const MetadataKeyValuePairs& metadata) = 0;
    virtual void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                          const MediaPlayerStateV2& after) = 0;
    virtual void onLicenseAvailable(long long sourceId) = 0;
    virtual void onFirstDataSegmentAvailable(long long sourceId) = 0;
};

}  // namespace orv
