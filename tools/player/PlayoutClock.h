// The output device's clock as the mixer models it: how much of the audio handed to the sink
// has been heard by now. It decides when the mixer writes its next period (real-time pacing).
//
// In real time the device plays `rate` frames a second and the mixer keeps `lead` frames queued
// ahead of it. In fast mode the device is infinitely fast: everything written counts as played
// at once. A device left dry (nothing was playing) restarts from the end of what it played.
//
// Positions are absolute frames. Not thread-safe: the mixer's thread alone uses it.
#pragma once

#include <chrono>
#include <cstdint>

namespace zem {

class PlayoutClock {
public:
    using Time = std::chrono::steady_clock::time_point;

    PlayoutClock(uint32_t rate, int64_t leadFrames, bool realTime);

    // Starts, or resumes after pause(), from the position heard so far.
    void start(Time now);
    // Freezes the position heard so far; what was queued stays queued.
    void pause(Time now);
    // Jumps to `frame`, dropping whatever was queued.
    void seek(int64_t frame, Time now);
    // `frames` more were handed to the sink. If the device had run dry it restarts now, from the
    // end of what it played, instead of pretending to have played through the gap.
    void wrote(int64_t frames, Time now);

    int64_t written() const { return written_; }
    int64_t played(Time now) const;
    // Whether the queue is below the lead, so that the source should pull now.
    bool wantsData(Time now) const { return written_ - played(now) < lead_; }
    // When the queue next drops below the lead.
    Time nextPullAt(Time now) const;
    // When everything written so far will have been heard.
    Time playedOutAt(Time now) const;
    bool dry(Time now) const { return played(now) >= written_; }

private:
    Time timeOf(int64_t frame) const;

    uint32_t rate_;
    int64_t lead_;
    bool realTime_;
    bool running_ = false;
    Time anchorTime_{};
    int64_t anchorFrame_ = 0;  // heard at anchorTime_
    int64_t written_ = 0;
};

}  // namespace zem
