// The audio service's player, as the server half calls it: the audio service implements this
// interface and hands it to ZEMAudioServer.
//
// The order of the virtual functions is the binary interface that existing players were
// compiled with: never reorder, insert or remove one. Note the argument order of setVolume and
// setFocusSessionId: the value first, the source id second; every other operation takes the
// source id first. Source ids are made only by setSource; 0 means "no source", and a track that
// has none forwards its calls with source id 0.
//
// Calls arrive on the transport's threads, one client's requests on several threads at once,
// and setSource/releaseSource may also run inside a track's teardown: the player must be
// thread-safe and must not call back into the delegate while it holds a lock that the
// delegate's caller needs.
#pragma once

#include <orv/Export.h>
#include <orv/MediaClientDelegate.h>
#include <orv/Records.h>
#include <orv/SourceConfig.h>

namespace orv {

class ORV_EXPORT OrvServerHandlerInterface {
public:
    virtual ~OrvServerHandlerInterface() = default;

    // Called once, before the service starts: the player may use `delegate` at once and until
    // the ZEMAudioServer is deleted.
    virtual void setMediaClientDelegate(MediaClientDelegate* delegate) = 0;
    // Opens a source and returns its new id.
    virtual long long setSource(const SourceConfig& config, const char* clusterId) = 0;
    virtual int play(long long sourceId) = 0;
    virtual int stop(long long sourceId) = 0;
    virtual int pause(long long sourceId) = 0;
    virtual int resume(long long sourceId) = 0;
    virtual int newDecryptKey(long long sourceId, const char* key) = 0;
    virtual int getOffset(long long sourceId) = 0;
    virtual MediaPlayerState getMediaPlayerState(long long sourceId) = 0;
    virtual PlaybackAttributes getPlaybackAttributes(long long sourceId) = 0;
    virtual PlaybackReports getPlaybackReports(long long sourceId) = 0;
    virtual Fingerprint getFingerprint(long long sourceId) = 0;
    virtual int seekTo(long long sourceId, int offsetInMs, bool fromStart) = 0;
    // The result is not looked at.
    virtual int releaseSource(long long sourceId) = 0;
    virtual PlaybackReportArray getPlaybackReportArray(long long sourceId) = 0;
    virtual int setVolume(float volume, long long sourceId) = 0;
    virtual int setFocusSessionId(unsigned int focusSessionId, long long sourceId) = 0;
    virtual MediaPlayerStateV2 getMediaPlayerStateV2(long long sourceId) = 0;
};

}  // namespace orv
