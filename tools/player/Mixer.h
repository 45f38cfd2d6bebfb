// The service's one output and the thread that feeds it: every playing source is mixed into it
// at the output's rate and channel count, a period at a time.
//
// In real time the mixer keeps a lead of audio queued ahead of the output's clock and takes
// from each source's read-ahead whatever it has: a source that runs dry is silent for the gap
// (its underrun) and nobody else's audio waits for it. In fast mode the output has no clock:
// each period is written as soon as every playing source has its share or has run dry, so that
// the output runs as fast as its PCM sources supply; while a file plays, it runs in real time.
// With nothing playing the output idles, and nothing is written.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Log.h"
#include "Sink.h"
#include "Source.h"
#include "StreamFormat.h"

namespace zem {

class Mixer {
public:
    struct Options {
        StreamFormat device;
        bool fast = false;
        int64_t periodFrames = 480;  // output frames per period
        int64_t leadFrames = 1920;   // queued ahead of the output's clock, in real time
        std::string trackFiles;      // the mix's path, when each track also gets a file
        const Log* log = nullptr;
    };

    Mixer(std::unique_ptr<Sink> output, Options options);
    ~Mixer();
    Mixer(const Mixer&) = delete;
    Mixer& operator=(const Mixer&) = delete;

    void add(std::shared_ptr<Source> source);
    // Audio arrived or a source's state changed: the mixer looks again at once.
    void wake();
    // Ends the thread and closes the output.
    void stop();

private:
    void run();
    bool mixOnce(int64_t& written);
    void waitFor(std::chrono::milliseconds timeout);

    const Options options_;
    std::unique_ptr<Sink> output_;  // the mixer thread's alone once it runs
    long long nextTrack_ = 1;       // the mixer thread's alone
    bool paced_ = true;             // the mixer thread's alone: in real time
    std::mutex mutex_;              // guards: sources_, stopping_, wakeups_
    std::condition_variable changed_;
    std::vector<std::shared_ptr<Source>> sources_;
    bool stopping_ = false;
    uint64_t wakeups_ = 0;
    uint64_t seenWakeups_ = 0;  // the mixer thread's alone
    std::thread thread_;
};

}  // namespace zem
