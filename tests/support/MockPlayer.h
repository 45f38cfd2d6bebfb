// A GoogleMock host player: every call the server half makes on the audio service's player,
// with its arguments, for tests to set expectations on, in order where order matters. It keeps
// the delegate it is given, so that a test can play the player's part towards the server.
#pragma once

#include <gmock/gmock.h>
#include <orv/OrvServerHandlerInterface.h>

#include <atomic>

namespace orv::test {

class MockPlayer : public OrvServerHandlerInterface {
public:
    void setMediaClientDelegate(MediaClientDelegate* delegate) override {
        this->delegate = delegate;
    }

    MOCK_METHOD(long long, setSource, (const SourceConfig& config, const char* clusterId),
                (override));
    MOCK_METHOD(int, play, (long long sourceId), (override));
    MOCK_METHOD(int, stop, (long long sourceId), (override));
    MOCK_METHOD(int, pause, (long long sourceId), (override));
    MOCK_METHOD(int, resume, (long long sourceId), (override));
    MOCK_METHOD(int, newDecryptKey, (long long sourceId, const char* key), (override));
    MOCK_METHOD(int, getOffset, (long long sourceId), (override));
    MOCK_METHOD(MediaPlayerState, getMediaPlayerState, (long long sourceId), (override));
    MOCK_METHOD(PlaybackAttributes, getPlaybackAttributes, (long long sourceId), (override));
    MOCK_METHOD(PlaybackReports, getPlaybackReports, (long long sourceId), (override));
    MOCK_METHOD(Fingerprint, getFingerprint, (long long sourceId), (override));
    MOCK_METHOD(int, seekTo, (long long sourceId, int offsetInMs, bool fromStart), (override));
    MOCK_METHOD(int, releaseSource, (long long sourceId), (override));
    MOCK_METHOD(PlaybackReportArray, getPlaybackReportArray, (long long sourceId), (override));
    MOCK_METHOD(int, setVolume, (float volume, long long sourceId), (override));
    MOCK_METHOD(int, setFocusSessionId, (unsigned int focusSessionId, long long sourceId),
                (override));
    MOCK_METHOD(MediaPlayerStateV2, getMediaPlayerStateV2, (long long sourceId), (override));

    std::atomic<MediaClientDelegate*> delegate{nullptr};
};

}  // namespace orv::test
