// One source of the host player, with the thread that reads it ahead.
//
// Control calls (play, pause, seek, ...) arrive on the transport's threads. They change the
// source's state at once, under its lock, so that their results and every query are exact, and
// queue the event they cause. The source's own thread pulls PCM from the client through the
// delegate or decodes the file into a ring of read-ahead, and is the only thread that calls the
// delegate, so that a client sees its events in the order they happened and the delegate is
// never called under a lock. The mixer's thread takes the audio from the ring: it never waits
// for a client or a file, and a ring that runs dry is that source's underrun alone.
#pragma once

#include <orv/AudioSource.h>
#include <orv/MediaClientDelegate.h>
#include <orv/Playback.h>
#include <orv/SourceConfig.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Convert.h"
#include "FileInput.h"
#include "Log.h"
#include "Ring.h"
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
    Log* log = nullptr;
    StreamFormat device;                         // the output's format, which the mixer converts to
    int64_t periodFrames = 1024;                 // the most one pull asks for
    std::chrono::milliseconds ring{100};         // how much is read ahead of the mixer
    std::function<void()> wakeMixer;             // called when audio arrives or the state changes
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

    // --- for the mixer's thread only ---

    // What the source can give the mixer now, after moving read-ahead into its converter.
    struct Supply {
        bool playing = false;  // playing, and started or able to start
        size_t frames = 0;     // output frames ready
        bool drained = false;  // its end has been read: `frames` are the last
        bool waiting = false;  // short of a period, but more is on its way
        bool file = false;     // a file, which plays in real time
    };
    // `frames` is what the mixer wants; `trackFile`, when set, names the file of a track that
    // first hands over audio now; `outputFrame` is where the period being mixed begins.
    Supply prepare(size_t frames, const std::function<std::string(long long)>& trackFile,
                   int64_t outputFrame);
    // Adds `frames` output frames of this source to `mix`; what it lacks is silence, and an
    // underrun when it had started and has not reached its end. May end the source.
    void mixInto(double* mix, size_t frames);
    // A source that stays short in a fast mix: an underrun without a period written.
    void markDry();
    // The output could not be written: the source fails with `error`.
    void outputFailed(const std::string& error);
    // Whether the mixer may forget the source: it no longer plays and never will again.
    bool finishedWithMixer();

private:
    struct Event;

    void run();
    void loop();
    void step(std::unique_lock<std::mutex>& lock);
    void fillRing();
    void pull(std::unique_lock<std::mutex>& lock);
    void writeTrack(const std::vector<uint8_t>& bytes);
    void underrunLocked(std::chrono::steady_clock::time_point now);
    int64_t heardFrame() const;
    size_t pullFrames() const;
    void received(const uint8_t* data, size_t size);
    void resumeLocked();
    void logError(const char* function, const char* text);
    void fail(PlayerError type, const std::string& text, const std::string& logText = "");
    void end(PlayerState state);
    void emit(const Event& event);
    int32_t positionMs() const;
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
    std::vector<uint8_t> pullBuffer_;

    // Used by the mixer's thread only.
    std::unique_ptr<Sink> track_;  // the track's own file, when the output keeps one
    std::string trackPath_;
    bool trackFailed_ = false;
    bool joined_ = false;  // announced as joining the mix

    std::mutex mutex_;  // guards: every field below up to joinMutex_
    std::condition_variable wake_;
    PlayerState state_ = kStateIdle;
    ByteRing ring_;
    std::vector<uint8_t> pending_;  // received bytes short of a whole frame
    std::unique_ptr<Converter> converter_;
    int64_t readFrame_ = 0;    // the stream frame at the end of what was read
    int64_t baseFrame_ = 0;    // the stream frame where mixing (re)started
    int64_t mixedFrames_ = 0;  // output frames mixed since baseFrame_
    uint64_t mixGeneration_ = 0;
    bool flushed_ = false;        // the converter has its last input
    bool refilling_ = false;      // after a seek: out of the mix until its read-ahead is back
    bool lastPullEmpty_ = false;  // the client's last answer held no audio
    int64_t endFrame_ = -1;       // the stream's last frame, when known
    int64_t seekFrame_ = -1;      // a seek the file input still has to make
    uint64_t generation_ = 0;     // changes on seek and stop: audio pulled before is dropped
    float volume_ = 1.0f;
    unsigned int focusSessionId_ = 0;
    bool firstByte_ = false;
    bool started_ = false;
    bool underrun_ = false;
    std::chrono::steady_clock::time_point drySince_{};  // when the underrun began
    bool bufferingComplete_ = false;
    std::chrono::steady_clock::time_point retryAt_{};
    std::deque<Event> outbox_;
    bool released_ = false;
    bool closing_ = false;  // after shutdown(): end once the outbox is empty
    bool threadEnded_ = false;
    uint64_t bytesReceived_ = 0;
    uint64_t pulls_ = 0;
    uint64_t underruns_ = 0;
    ContentHash hash_;

    // The service's shutdown and a release on a transport thread may both wait for one source;
    // joining a thread twice at once never returns.
    std::mutex joinMutex_;  // guards: thread_ once it runs
    std::thread thread_;
};

}  // namespace zem
