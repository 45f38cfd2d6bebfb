// The application's track: created unconnected by createZEMAudioTrack(), connected to the audio
// service by init() with an event listener and a log sink, then given a source and controlled.
//
// No operation throws and none reports an error code: a request that fails (the service is not
// running, died, or the transport failed) returns a fixed default (-1 for a source id or an
// offset, false for a flag, a zeroed record) and writes one line to the log sink. After the
// service dies, the listener's onServerDeath() runs once and every later request fails at once.
//
// The order of the virtual functions is the binary interface that existing applications were
// compiled with, later additions included (they sit at the end, not next to their relatives):
// never reorder, insert or remove one.
//
// Calling any operation other than init() on a track whose init() has not succeeded is a
// programming error. init(), destroy() and deletion must not overlap other calls on the same
// track; requests may come from several threads at once and are sent one at a time.
#pragma once

#include <orv/EventListener.h>
#include <orv/Export.h>
#include <orv/Logging.h>
#include <orv/Records.h>

#include <memory>

namespace orv {

class ClientTrackImpl;

class ORV_EXPORT ZEMAudioTrack {
public:
    ZEMAudioTrack();
    virtual ~ZEMAudioTrack();
    ZEMAudioTrack(const ZEMAudioTrack&) = delete;
    ZEMAudioTrack& operator=(const ZEMAudioTrack&) = delete;

    // Connects to the audio service and registers `listener`; false (with one line to `logger`,
    // which must not be null) when the service cannot be reached. A later init() replaces the
    // connection and the listener.
    virtual bool init(std::shared_ptr<EventListener> listener,
                      std::shared_ptr<LoggingDelegate> logger);
    // Deprecated: a PCM source that must be 2 channels of signed 16-bit samples, layout 1.
    virtual long long setSource(const ZEMAudioFormat& format, const char* clusterId);
    virtual bool play();
    virtual bool stop();
    virtual bool pause();
    virtual bool resume();
    virtual int getOffset();
    // Releases the source at the service and closes the connection.
    virtual void destroy();
    virtual MediaPlayerState getMediaPlayerState();
    virtual PlaybackAttributes getPlaybackAttributes();
    // Deprecated: use getPlaybackReportArray().
    virtual PlaybackReports getPlaybackReports();
    virtual Fingerprint getFingerprint();
    virtual long long setSource(const ZEMAudioSource& source);
    virtual bool seekTo(int millis, bool fromStart);
    virtual long long setSource(const ZEMAudioSource& source, const MediaDescription& description);
    virtual long long setSource(const ZEMAudioSourceV2& source,
                                const MediaDescription& description);
    virtual PlaybackReportArray getPlaybackReportArray();
    virtual bool setVolume(float volumeGain);
    virtual long long setSource(const ZEMAudioSourceV3& source,
                                const MediaDescription& description);
    virtual bool init(std::shared_ptr<EventListenerV2> listener,
                      std::shared_ptr<LoggingDelegate> logger);
    virtual MediaPlayerStateV2 getMediaPlayerStateV2();
    virtual bool init(std::shared_ptr<EventListenerV3> listener,
                      std::shared_ptr<LoggingDelegate> logger);
    virtual long long setSource(const ZEMAudioSourceV4& source,
                                const MediaDescription& description);
    virtual bool setFocusSessionId(unsigned int focusSessionId);

private:
    std::unique_ptr<ClientTrackImpl> impl_;
};

}  // namespace orv

// A new, unconnected track, owned by the caller, who deletes it.
extern "C" ORV_EXPORT orv::ZEMAudioTrack* createZEMAudioTrack();
