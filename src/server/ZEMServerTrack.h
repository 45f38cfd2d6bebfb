// The server's half of one client's track. It checks the source the client sets, converts it
// into a SourceConfig, has the player open it and keeps the source id the player hands back;
// every later control call and query goes to the player with that id. The registry finds the
// track by that id when the player pulls audio (getData) or reports an event.
#pragma once

#include <orv/OrvServerHandlerInterface.h>
#include <orv/Records.h>
#include <orv/SourceConfig.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/ZEMAudioTrackServer.h"

namespace orv {

class AudioServerImpl;

class ZEMServerTrack : public ZEMAudioTrackServer {
public:
    // `server` (not owned, may be null) is told when the client destroys the track.
    ZEMServerTrack(std::shared_ptr<OrvServerHandlerInterface> handler,
                   std::shared_ptr<LoggingDelegate> logger, AudioServerImpl* server,
                   unsigned int trackId);
    ~ZEMServerTrack() override;

    // The player's id of the current source; 0 until a source was opened.
    long long sourceId() const { return currentSourceId; }

    // Fills `buffer` with the client's next audio and returns the byte count, never more than
    // `size`; -1 when the client supplied nothing.
    int getData(uint8_t* buffer, unsigned int size);
    void closeDataSource();

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
    // Releases the source and leaves the registry, once; later requests are still forwarded,
    // and a source set after it is released when the track goes.
    void destroy() override;
    MediaPlayerState getMediaPlayerState() override;
    MediaPlayerStateV2 getMediaPlayerStateV2() override;
    PlaybackAttributes getPlaybackAttributes() override;
    PlaybackReports getPlaybackReports() override;
    PlaybackReportArray getPlaybackReportArray() override;
    Fingerprint getFingerprint() override;
    // The volume and the focus session id are also applied to every source opened later.
    int setVolume(float volume) override;
    int setFocusSessionId(unsigned int focusSessionId) override;
    int newDecryptKey(const std::string& key) override;

private:
    template <typename Source>
    long long setSourceCommon(const std::string& method, const Source& source,
                              const MediaDescription& description, int param3, bool param7,
                              float volumeGain);
    void releaseAndSetSource(const SourceConfig& config, const char* clusterId);
    // Logs `function` with the current source id, then calls `operation` with that id.
    template <typename Result>
    Result forward(LogLevel level, const char* function,
                   Result (OrvServerHandlerInterface::*operation)(long long));
    bool releaseSourceId(const SourceConfig& config);
    void releaseHeldSources();

    static bool isSampleSizeSupported(unsigned int bits);
    static bool isNumChannelsSupported(unsigned int channels);
    int toORVFormat(unsigned int bits);
    uint64_t toORVChannelLayout(unsigned int channels);

    const std::shared_ptr<OrvServerHandlerInterface> handler;
    AudioServerImpl* const server;
    const unsigned int trackId;
    // Read by the registry and the forwarders on any thread, hence atomic.
    std::atomic<long long> currentSourceId{0};
    std::atomic<float> volume{-1.0f};  // negative: never set
    std::atomic<unsigned int> focusSessionId{0};
    // guards: sources. Held for a whole source change, so that two requests racing to set a
    // source, or to set one and destroy, cannot interleave their calls to the player or their
    // changes to the map. Taken before the registry's lock.
    std::mutex sourcesMutex;
    // What the player was given for each id it still holds for this track: each is released
    // exactly once, by a source change, by "destroy" or when the track goes.
    std::map<long long, SourceConfig> sources;
    std::atomic<bool> destroyed{false};
};

}  // namespace orv
