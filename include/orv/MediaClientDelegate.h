// What the audio service's player calls on the server: pulling a PCM source's audio from its
// client and reporting the progress of every source, each named by the source id the player
// gave it. The server hands itself to the player through
// OrvServerHandlerInterface::setMediaClientDelegate before the service starts.
//
// The order of the virtual functions is the binary interface that existing players were
// compiled with: never reorder, insert or remove one. Every operation may be called from any of
// the player's threads, concurrently; arguments are only borrowed for the call.
#pragma once

#include <orv/Export.h>
#include <orv/MediaPlayerState.h>
#include <orv/Metadata.h>

#include <cstdint>

namespace orv {

class ORV_EXPORT MediaClientDelegate {
public:
    virtual ~MediaClientDelegate() = default;

    // Fills `buffer` with the next audio of PCM source `sourceId`, pulled from its client, and
    // returns the number of bytes written (never more than `size`), or -1 when the source has
    // no track or its client supplied nothing.
    virtual int getData(uint8_t* buffer, unsigned int size, long long sourceId) = 0;
    // Tells the client of `sourceId` that the player is done with its PCM source.
    virtual void closeDataSource(long long sourceId) = 0;
    virtual void onStopRequested(long long sourceId) = 0;
    virtual void onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackError(long long sourceId, const ErrorType& type, const char* error,
                                 const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferUnderrunStarted(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferUnderrunEnded(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                           const MetadataKeyValuePairs& metadata) = 0;
    virtual void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                          const MediaPlayerStateV2& after) = 0;
    virtual void onLicenseAvailable(long long sourceId) = 0;
    virtual void onFirstDataSegmentAvailable(long long sourceId) = 0;
};

}  // namespace orv
