// One source of the host player, with the thread that plays it.
//
// Control calls (play, pause, seek, ...) arrive on the transport's threads. They change the
// source's state at once, under its lock, so that their results and every query are exact, and
// queue the event they cause. The source's own thread does everything else: it pulls PCM from
// the client through the delegate or decodes the file, paces itself on the playout clock, writes
// to the sink, notices underruns and the end, and is the only thread that calls the delegate, so
// that a client sees its events in the order they happened and the delegate is never called
// under a lock.
#pragma once

#include <orv/AudioSource.h>
#include <orv/MediaClientDelegate.h>
#include <orv/Playback.h>
#include <orv/SourceConfig.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FileInput.h"
#include "Log.h"
#include "PlayoutClock.h"
#include "Sink.h"
#include "StreamFormat.h"

namespace zem {

// The player's state codes, as getMediaPlayerState and every event report them.
enum PlayerState : int32_t {
    kStateIdle = 0,  // opened, never played
    kStatePlaying = 1,
    kStatePaused = 2,
    kStateStopped = 3,
    kStateFinished = 4,
    kStateFailed = 5,
    kStateBuffering = 6,  // playing, but the client supplies nothing: a buffer underrun
};

// The player's error types, as onPlaybackError reports them.
enum PlayerError : int32_t {
    kErrorOpen = 1,    // the URL names no readable file, or not an audio file
    kErrorFormat = 2,  // a PCM format the player cannot play
    kErrorDecode = 3,  // the file failed while it was being decoded
    kErrorOutput = 4,  // the sink could not be opened or written
};

// The media description key by which a PCM client declares its stream's length in frames. A
// stream without it ends when its client has supplied nothing for `endAfterDry` after all its
// audio was heard (until then that is an underrun), or when it is stopped.
inline constexpr char kTotalFramesKey[] = "total-frames";

struct SourceSettings {
    orv::MediaClientDelegate* delegate = nullptr;
    SinkFactory* sinks = nullptr;
    Log* log = nullptr;
    bool fast = false;  // PCM: pull as fast as the client supplies instead of in real time
    int64_t periodFrames = 1024;
    int64_t leadPeriods = 4;
    std::chrono::milliseconds retryInterval{5};  // between pulls while the client has nothing
    // How long a PCM stream of no declared length may stay dry before it counts as ended.
    std::chrono::milliseconds endAfterDry{1000};
};

// A URL source's file, opened before its source is made: the input, or why there is none.
struct OpenedFile {
    std::unique_ptr<FileInput> input;
    std::string error;
};

class Source {
public:
    Source(long long id, const orv::SourceConfig& config, const SourceSettings& settings,
           OpenedFile file = {});
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    void startThread();

    int play();
    int pause();
    int resume();
    int stop();
    int seekTo(int offsetMs, bool fromStart);
    int setVolume(float volume);
    void setFocusSessionId(unsigned int id);

    int offsetMs();
    orv::MediaPlayerStateV2 state();
    orv::PlaybackAttributes attributes();
    orv::PlaybackReportArray reports();
    orv::Fingerprint fingerprint();

    // The client is gone or done with the source: the thread ends without another event.
    void release();
    // The service shuts down: the client is told that the service wants it to stop, then the
    // source stops; the thread ends after those events.
    void shutdown();
    // Whether the thread has ended, waiting for it until `deadline`; joins it when it has.
    bool waitEnded(std::chrono::steady_clock::time_point deadline);

    long long id() const { return id_; }
    const std::string& describe() const { return description_; }

private:
    struct Event;

    void run();
    void loop();
    void step(std::unique_lock<std::mutex>& lock);
    void writePending(std::unique_lock<std::mutex>& lock);
    void pull(std::unique_lock<std::mutex>& lock);
    void received(const uint8_t* data, size_t size);
    void resumeLocked();
    void logError(const char* function, const char* text);
    void fail(PlayerError type, const std::string& text, const std::string& logText = "");
    void end(PlayerState state);
    void emit(const Event& event);
    int32_t positionMs(PlayoutClock::Time now) const;
    int32_t stateCode() const;
    bool ended() const;

    const long long id_;
    const bool pcm_;
    const SourceSettings settings_;
    StreamFormat format_;
    std::string description_;
    std::string openError_;     // why the source cannot play; reported when it is played
    std::string openErrorLog_;  // the same for the log, without the URL
    PlayerError openErrorType_ = kErrorOpen;
    std::map<std::string, std::string> tags_;
    std::string formatName_;

    // Used by the source's thread only, once it runs.
    std::unique_ptr<FileInput> input_;
    std::unique_ptr<Sink> sink_;
    std::vector<uint8_t> pending_;  // received bytes not yet written: at most a partial frame
    std::vector<uint8_t> pullBuffer_;
    uint64_t seenGeneration_ = 0;

    std::mutex mutex_;  // guards: every field below
    std::condition_variable wake_;
    PlayerState state_ = kStateIdle;
    PlayoutClock clock_;
    int64_t endFrame_ = -1;    // the stream's last frame, when known
    int64_t seekFrame_ = -1;   // a seek the file input still has to make
    uint64_t generation_ = 0;  // changes on seek and stop: audio pulled before is dropped
    float volume_ = 1.0f;
    unsigned int focusSessionId_ = 0;
    bool firstByte_ = false;
    bool started_ = false;
    bool underrun_ = false;
    PlayoutClock::Time drySince_{};  // when the underrun began
    bool bufferingComplete_ = false;
    PlayoutClock::Time retryAt_{};
    std::deque<Event> outbox_;
    bool released_ = false;
    bool closing_ = false;  // after shutdown(): end once the outbox is empty
    bool threadEnded_ = false;
    uint64_t bytesReceived_ = 0;
    uint64_t pulls_ = 0;
    uint64_t underruns_ = 0;
    ContentHash hash_;
    std::thread thread_;
};

}  // namespace zem
