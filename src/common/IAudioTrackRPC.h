// The common base of the client's track proxy and the server's track stub: the logger both
// share and the 40 track operations, requests first, then what the server sends to the client.
//
// The order of the operations is fixed: both halves were built against it, the client's proxy
// implements every one of them, and the server's stub and track together do the same.
#pragma once

#include <orv/Logging.h>
#include <orv/Records.h>
#include <parlex/AndroidParcel.h>

#include <memory>
#include <string>

#include "common/TrackLogger.h"

namespace orv {

class IAudioTrackRPC {
public:
    // `tag` names this side in every line: "ZEMAudioTrackClient" or "ZEMServerTrack".
    IAudioTrackRPC(std::shared_ptr<LoggingDelegate> logger, std::string tag);
    virtual ~IAudioTrackRPC();

    IAudioTrackRPC(const IAudioTrackRPC&) = delete;
    IAudioTrackRPC& operator=(const IAudioTrackRPC&) = delete;

    // Requests, client to server.
    virtual long long setSource(const ZEMAudioFormat& format, const char* clusterId) = 0;
    virtual long long setSource(const ZEMAudioSource& source) = 0;
    virtual long long setSource(const ZEMAudioSource& source,
                                const MediaDescription& description) = 0;
    virtual long long setSource(const ZEMAudioSourceV2& source,
                                const MediaDescription& description) = 0;
    virtual long long setSource(const ZEMAudioSourceV3& source,
                                const MediaDescription& description) = 0;
    virtual long long setSource(const ZEMAudioSourceV4& source,
                                const MediaDescription& description) = 0;
    virtual int play() = 0;
    virtual int stop() = 0;
    virtual int pause() = 0;
    virtual int resume() = 0;
    virtual int seekTo(int offsetInMs, bool fromStart) = 0;
    virtual int getOffset() = 0;
    virtual void destroy() = 0;
    virtual MediaPlayerState getMediaPlayerState() = 0;
    virtual MediaPlayerStateV2 getMediaPlayerStateV2() = 0;
    virtual PlaybackAttributes getPlaybackAttributes() = 0;
    virtual PlaybackReports getPlaybackReports() = 0;
    virtual PlaybackReportArray getPlaybackReportArray() = 0;
    virtual Fingerprint getFingerprint() = 0;
    virtual int setVolume(float volumeGain) = 0;
    virtual int setFocusSessionId(unsigned int focusSessionId) = 0;
    virtual int newDecryptKey(const std::string& key) = 0;

    // Server to client: the audio data callback, then the events.
    virtual parlex::AndroidBuffer getBuffer(int size) = 0;
    virtual void closeAudioSource() = 0;
    virtual void onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackError(long long sourceId, ErrorType type, const std::string& error,
                                 const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferUnderrun(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferRefilled(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) = 0;
    virtual void onStreamMetadataExtracted(long long sourceId, const MediaPlayerStateV2& state,
                                           const MetadataKeyValuePairs& metadata) = 0;
    virtual void onStopRequested(long long sourceId) = 0;
    virtual void onReportMetric(const std::string& first, const std::string& second) = 0;
    virtual void onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                          const MediaPlayerStateV2& after) = 0;
    virtual void onLicenseAvailable(long long sourceId) = 0;
    virtual void onFirstDataSegmentAvailable(long long sourceId) = 0;

    // See TrackLogger::log.
    void log(LogLevel level, const char* function, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    const TrackLogger logger_;
};

}  // namespace orv
