#include "Mixer.h"

#include <algorithm>

#include "PlayoutClock.h"

namespace zem {

using namespace std::chrono_literals;

Mixer::Mixer(std::unique_ptr<Sink> output, Options options)
    : options_(std::move(options)), output_(std::move(output)) {
    thread_ = std::thread([this] { run(); });
}

Mixer::~Mixer() { stop(); }

void Mixer::add(std::shared_ptr<Source> source) {
    std::lock_guard<std::mutex> lock(mutex_);
    sources_.push_back(std::move(source));
    ++wakeups_;
    changed_.notify_one();
}

void Mixer::wake() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++wakeups_;
    changed_.notify_one();
}

void Mixer::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        changed_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
    output_.reset();
}

// Waits until a source wakes the mixer, it stops, or `timeout` passes.
void Mixer::waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [this] { return stopping_ || wakeups_ != seenWakeups_; });
    seenWakeups_ = wakeups_;
}

void Mixer::run() {
    PlayoutClock clock(options_.device.rate, options_.leadFrames, true);
    clock.start(std::chrono::steady_clock::now());
    int64_t written = 0;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
        }
        const auto now = std::chrono::steady_clock::now();
        if (paced_ && !clock.wantsData(now)) {
            std::this_thread::sleep_until(clock.nextPullAt(now));
            continue;
        }
        const bool wasPaced = paced_;
        const int64_t before = written;
        if (!mixOnce(written)) continue;
        if (paced_ && !wasPaced) {
            // The clock restarts from here: what was written unpaced was heard at once.
            clock = PlayoutClock(options_.device.rate, options_.leadFrames, true);
            clock.start(std::chrono::steady_clock::now());
        }
        clock.wrote(written - before, std::chrono::steady_clock::now());
    }
}

// Mixes and writes one period; false when there was nothing to write (after waiting a little).
bool Mixer::mixOnce(int64_t& written) {
    std::vector<std::shared_ptr<Source>> sources;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sources = sources_;
    }
    std::vector<std::shared_ptr<Source>> gone;
    std::vector<std::pair<std::shared_ptr<Source>, Source::Supply>> playing;
    const auto period = static_cast<size_t>(options_.periodFrames);
    const std::function<std::string(long long)> trackFile =
        options_.trackFiles.empty() ? std::function<std::string(long long)>() : [this](long long) {
            return trackFilePath(options_.trackFiles, nextTrack_++);
        };
    bool waiting = false;
    bool file = false;
    for (const auto& source : sources) {
        if (source->finishedWithMixer()) {
            gone.push_back(source);
            continue;
        }
        const Source::Supply supply = source->prepare(period, trackFile, written);
        if (!supply.playing) continue;
        waiting = waiting || supply.waiting;
        file = file || supply.file;
        playing.emplace_back(source, supply);
    }
    if (!gone.empty()) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& source : gone) {
            sources_.erase(std::remove(sources_.begin(), sources_.end(), source), sources_.end());
        }
    }
    // Files play in real time even in fast mode.
    paced_ = !options_.fast || file;
    size_t frames = period;
    if (!paced_) {
        if (waiting) {
            waitFor(2ms);
            return false;
        }
        size_t most = 0;
        for (const auto& [source, supply] : playing) most = std::max(most, supply.frames);
        frames = std::min(period, most);
        if (frames == 0) {
            // Everything playing has run dry or ended: the dry ones are in an underrun, the
            // ended ones finish, and there is no time to fill with silence.
            for (const auto& [source, supply] : playing) {
                if (supply.drained) {
                    source->mixInto(nullptr, 0);
                } else {
                    source->markDry();
                }
            }
        }
    }
    if (playing.empty() || frames == 0) {
        waitFor(paced_ ? 10ms : 2ms);
        return false;
    }
    const StreamFormat& device = options_.device;
    std::vector<double> mix(frames * device.channels);
    for (const auto& [source, supply] : playing) source->mixInto(mix.data(), frames);
    std::vector<uint8_t> out(frames * device.bytesPerFrame());
    writeSamples(mix.data(), mix.size(), device.type, out.data());
    std::string error;
    bool ok = false;
    try {
        ok = output_->write(out.data(), frames, error);
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    if (!ok) {
        if (options_.log) (*options_.log)(orv::LOG_ERROR, "mix", "%s", error.c_str());
        for (const auto& [source, supply] : playing) source->outputFailed(error);
    }
    written += static_cast<int64_t>(frames);
    return true;
}

}  // namespace zem
