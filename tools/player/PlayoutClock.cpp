#include "PlayoutClock.h"

#include <algorithm>

namespace zem {

using std::chrono::nanoseconds;
constexpr int64_t kNanos = 1'000'000'000;

PlayoutClock::PlayoutClock(uint32_t rate, int64_t leadFrames, bool realTime)
    : rate_(rate == 0 ? 1 : rate), lead_(leadFrames), realTime_(realTime) {}

void PlayoutClock::start(Time now) {
    anchorFrame_ = played(now);
    anchorTime_ = now;
    running_ = true;
}

void PlayoutClock::pause(Time now) {
    anchorFrame_ = played(now);
    anchorTime_ = now;
    running_ = false;
}

void PlayoutClock::seek(int64_t frame, Time now) {
    anchorFrame_ = written_ = frame;
    anchorTime_ = now;
}

void PlayoutClock::wrote(int64_t frames, Time now) {
    if (dry(now)) {
        anchorFrame_ = written_;
        anchorTime_ = now;
    }
    written_ += frames;
}

int64_t PlayoutClock::played(Time now) const {
    if (!realTime_) return written_;
    if (!running_ || now <= anchorTime_) return std::min(anchorFrame_, written_);
    // Whole seconds and the rest apart, so that hours of playback cannot overflow.
    const int64_t elapsed = (now - anchorTime_) / nanoseconds(1);
    const int64_t frames = elapsed / kNanos * rate_ + elapsed % kNanos * rate_ / kNanos;
    return std::min(written_, anchorFrame_ + frames);
}

PlayoutClock::Time PlayoutClock::timeOf(int64_t frame) const {
    if (!running_) return Time::max();
    return anchorTime_ + nanoseconds((frame - anchorFrame_) * kNanos / rate_);
}

PlayoutClock::Time PlayoutClock::nextPullAt(Time now) const {
    if (!realTime_ || wantsData(now)) return now;
    return std::max(now, timeOf(written_ - lead_ + 1));
}

PlayoutClock::Time PlayoutClock::playedOutAt(Time now) const {
    if (!realTime_ || dry(now)) return now;
    return std::max(now, timeOf(written_));
}

}  // namespace zem
