// The reference audio service's player: the OrvServerHandlerInterface that zem-audiod hands to
// ZEMAudioServer. It opens the one output when it is made, and every source it opens gets its
// own Source, with its own thread reading ahead, that the mixer mixes into that output; the
// player only keeps the table of sources and answers for unknown ids.
//
// Released sources are not joined on the caller's thread: release may run inside a track's
// teardown on a transport thread while the source's thread waits for that very client in
// getData. They are kept aside and joined once their threads have ended.
#pragma once

#include <orv/OrvServerHandlerInterface.h>
#include <parlex/binder.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Access.h"
#include "Log.h"
#include "Mixer.h"
#include "Sink.h"
#include "Source.h"

namespace zem {

// How long a shutdown waits for the player threads when every call to a client may take up to
// `callDeadline`: a source's thread may be in a call when the shutdown starts and then makes
// three more (stop requested, stopped, the source closed), each of which a client that stalls
// may answer just before the deadline. A client that misses one is disconnected, and its later
// calls fail at once.
constexpr std::chrono::milliseconds shutdownGrace(std::chrono::milliseconds callDeadline) {
    return 4 * callDeadline + std::chrono::seconds(1);
}

class HostPlayer : public orv::OrvServerHandlerInterface {
public:
    struct Options {
        SinkSpec sink;
        // The output's format: every source is converted to it.
        StreamFormat device{SampleType::S16, 16, 48000, 2};
        bool trackFiles = false;  // a WAV output also keeps one file per track
        bool fast = false;
        std::shared_ptr<orv::LoggingDelegate> log;
        size_t maxSources = 64;  // open at once, so that one client cannot exhaust the threads
        // Open at once for one client process, so that one cannot take every source there is.
        size_t maxSourcesPerProcess = 16;
        // The client a request comes from; the transport's unless a test replaces it.
        std::function<std::optional<parlex::PeerCredentials>()> callingPeer = parlex::callingPeer;
        // Opens a URL source's file for its client; openReadableBy unless a test replaces it.
        std::function<int(const std::string& path, const std::optional<PeerIdentity>& peer,
                          std::string& error, bool* denied)>
            openFile = openReadableBy;
    };

    // Opens the output; throws std::runtime_error, saying why, when it cannot.
    explicit HostPlayer(Options options);
    ~HostPlayer() override;

    // Tells every client with a source that the service wants it to stop, stops every source
    // and waits for their threads until `deadline`. False when a thread is still busy then (a
    // client that does not answer a data request); the delegate must not go away in that case.
    bool shutdown(std::chrono::steady_clock::time_point deadline);
    // From a source's audio arriving to its being heard, at most: its read-ahead and the
    // output's lead.
    std::chrono::milliseconds latency() const;

    void setMediaClientDelegate(orv::MediaClientDelegate* delegate) override;
    long long setSource(const orv::SourceConfig& config, const char* clusterId) override;
    int play(long long sourceId) override;
    int stop(long long sourceId) override;
    int pause(long long sourceId) override;
    int resume(long long sourceId) override;
    int newDecryptKey(long long sourceId, const char* key) override;
    int getOffset(long long sourceId) override;
    orv::MediaPlayerState getMediaPlayerState(long long sourceId) override;
    orv::PlaybackAttributes getPlaybackAttributes(long long sourceId) override;
    orv::PlaybackReports getPlaybackReports(long long sourceId) override;
    orv::Fingerprint getFingerprint(long long sourceId) override;
    int seekTo(long long sourceId, int offsetInMs, bool fromStart) override;
    int releaseSource(long long sourceId) override;
    orv::PlaybackReportArray getPlaybackReportArray(long long sourceId) override;
    int setVolume(float volume, long long sourceId) override;
    int setFocusSessionId(unsigned int focusSessionId, long long sourceId) override;
    orv::MediaPlayerStateV2 getMediaPlayerStateV2(long long sourceId) override;

private:
    template <typename Result, typename Call>
    Result withSource(long long sourceId, Result fallback, Call call);
    void reapEnded();
    void forgetOwner(long long sourceId);
    OpenedFile openFile(long long id, const orv::SourceConfig& config,
                        const std::optional<parlex::PeerCredentials>& client);

    Options options_;
    Log log_;
    std::unique_ptr<Mixer> mixer_;
    std::atomic<orv::MediaClientDelegate*> delegate_{nullptr};
    std::mutex mutex_;  // guards: sources_, opening_, owners_, perProcess_, retired_, nextId_,
                        // closing_
    std::map<long long, std::shared_ptr<Source>> sources_;
    size_t opening_ = 0;                  // sources given an id whose file is still being opened
    std::map<long long, pid_t> owners_;   // the client process of each source that has one
    std::map<pid_t, size_t> perProcess_;  // sources open or opening, by client process
    std::vector<std::shared_ptr<Source>> retired_;
    long long nextId_ = 1;
    bool closing_ = false;
};

}  // namespace zem
