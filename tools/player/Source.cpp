#include "Source.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace zem {

using Clock = std::chrono::steady_clock;

namespace {

constexpr uint32_t kMaxRate = 768'000;

// A PCM client's declared length, from its media description; -1 when it declared none.
int64_t declaredFrames(const orv::MediaDescription& description) {
    const orv::DescriptionMap& map = description.firstMap;
    for (uint32_t i = 0; i < std::min(map.count, orv::DescriptionMap::kCapacity); ++i) {
        const orv::DescriptionPair& pair = map.pairs[i];
        if (pair.first == nullptr || pair.second == nullptr) continue;
        if (std::strcmp(pair.first, kTotalFramesKey) != 0) continue;
        char* end = nullptr;
        errno = 0;
        const long long frames = std::strtoll(pair.second, &end, 10);
        if (errno == 0 && *end == '\0' && end != pair.second && frames >= 0) return frames;
    }
    return -1;
}

int32_t toMs(int64_t frame, uint32_t rate) {
    const int64_t ms = rate == 0 ? 0 : frame * 1000 / rate;
    return static_cast<int32_t>(std::min<int64_t>(ms, std::numeric_limits<int32_t>::max()));
}

int32_t saturate(uint64_t value) {
    return static_cast<int32_t>(std::min<uint64_t>(value, std::numeric_limits<int32_t>::max()));
}

}  // namespace

struct Source::Event {
    enum Kind {
        StopRequested,
        FirstByteRead,
        Started,
        Paused,
        Resumed,
        Stopped,
        Finished,
        Error,
        UnderrunStarted,
        UnderrunEnded,
        BufferingComplete,
        Metadata,
        Seeked,
        CloseDataSource,
    };
    Event(Kind kind, int32_t offsetMs = 0, int32_t stateCode = 0)
        : kind(kind), offsetMs(offsetMs), stateCode(stateCode) {}

    Kind kind;
    int32_t offsetMs = 0;
    int32_t stateCode = 0;
    int32_t afterOffsetMs = 0;  // Seeked: the position after the seek
    int32_t afterStateCode = 0;
    PlayerError error = kErrorOpen;
    std::string text;  // Error: the message
};

Source::Source(long long id, const orv::SourceConfig& config, const SourceSettings& settings,
               OpenedFile file)
    : id_(id), pcm_(config.type == orv::kSourceTypePcm), settings_(settings), clock_(1, 0, true) {
    if (pcm_) {
        format_.type = config.sampleFormat == 2 ? SampleType::S32 : SampleType::S16;
        format_.bits = config.sampleFormat == 2 ? 32 : 16;
        format_.channels = config.channelLayout == 3 ? 2 : config.channelLayout == 4 ? 1 : 0;
        format_.rate = config.sampleRate;
        if (config.sampleFormat != 0 && config.sampleFormat != 2) {
            openErrorType_ = kErrorFormat;
            openError_ = "unsupported sample format (signed 16- or 32-bit samples only)";
        } else if (format_.channels == 0) {
            openErrorType_ = kErrorFormat;
            openError_ = "unsupported channel layout (mono and stereo only)";
        } else if (format_.rate == 0 || format_.rate > kMaxRate) {
            openErrorType_ = kErrorFormat;
            openError_ = "unsupported sample rate " + std::to_string(format_.rate);
        }
        endFrame_ = declaredFrames(config.mediaDescription);
        formatName_ = "pcm";
        description_ = "pcm " + format_.describe();
    } else {
        input_ = std::move(file.input);
        const std::string& error = file.error;
        if (input_) {
            format_ = input_->format();
            endFrame_ = input_->frames();
            tags_ = input_->tags();
            formatName_ = input_->formatName();
            if (endFrame_ >= 0)
                tags_["duration-ms"] = std::to_string(toMs(endFrame_, format_.rate));
        } else {
            // The client hears the URL back; the service's log never shows it.
            openError_ =
                "cannot play " + std::string(config.url ? config.url : "(no URL)") + ": " + error;
            openErrorLog_ = "cannot play the URL: " + error;
        }
        description_ = "file " + formatName_ + " " + format_.describe();
    }
    if (config.volumeGain > 0.0f && config.volumeGain <= 1.0f) volume_ = config.volumeGain;
    const bool realTime = !(pcm_ && settings_.fast);
    clock_ = PlayoutClock(format_.rate, settings_.periodFrames * settings_.leadPeriods, realTime);
    if (config.startOffset > 0 && format_.rate > 0) {
        int64_t startFrame = int64_t{config.startOffset} * format_.rate / 1000;
        if (endFrame_ >= 0) startFrame = std::min(startFrame, endFrame_);
        clock_.seek(startFrame, Clock::now());
        seekFrame_ = startFrame;
    }
    pullBuffer_.resize(static_cast<size_t>(settings_.periodFrames) * format_.bytesPerFrame());
}

Source::~Source() {
    release();
    if (thread_.joinable()) thread_.join();
}

void Source::startThread() {
    thread_ = std::thread([this] { run(); });
}

// --- control calls, on the transport's threads ---

int Source::play() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == kStatePaused) {
        resumeLocked();
        return 0;
    }
    if (state_ != kStateIdle) return state_ == kStatePlaying ? 0 : -1;
    if (!openError_.empty()) {
        fail(openErrorType_, openError_, openErrorLog_);
        return -1;
    }
    state_ = kStatePlaying;
    clock_.start(Clock::now());
    if (!tags_.empty()) outbox_.push_back({Event::Metadata, positionMs(Clock::now()), state_});
    wake_.notify_all();
    return 0;
}

int Source::pause() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != kStatePlaying) return -1;
    const auto now = Clock::now();
    clock_.pause(now);
    state_ = kStatePaused;
    outbox_.push_back({Event::Paused, positionMs(now), state_});
    wake_.notify_all();
    return 0;
}

int Source::resume() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != kStatePaused) return -1;
    resumeLocked();
    return 0;
}

void Source::resumeLocked() {
    const auto now = Clock::now();
    clock_.start(now);
    state_ = kStatePlaying;
    outbox_.push_back({Event::Resumed, positionMs(now), state_});
    wake_.notify_all();
}

int Source::stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (ended()) return 0;
    end(kStateStopped);
    return 0;
}

int Source::seekTo(int offsetMs, bool fromStart) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (ended() || format_.rate == 0) return -1;
    const auto now = Clock::now();
    const int32_t before = positionMs(now);
    const int64_t current = clock_.played(now);
    int64_t target = int64_t{offsetMs} * format_.rate / 1000 + (fromStart ? 0 : current);
    target = std::max<int64_t>(target, 0);
    if (endFrame_ >= 0) target = std::min(target, endFrame_);
    clock_.seek(target, now);
    seekFrame_ = target;
    ++generation_;
    bufferingComplete_ = false;
    Event event{Event::Seeked, before, stateCode()};
    event.afterOffsetMs = positionMs(now);
    event.afterStateCode = stateCode();
    outbox_.push_back(event);
    wake_.notify_all();
    return 0;
}

int Source::setVolume(float volume) {
    if (!(volume >= 0.0f && volume <= 1.0f)) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    volume_ = volume;
    return 0;
}

void Source::setFocusSessionId(unsigned int id) {
    std::lock_guard<std::mutex> lock(mutex_);
    focusSessionId_ = id;
}

int Source::offsetMs() {
    std::lock_guard<std::mutex> lock(mutex_);
    return positionMs(Clock::now());
}

orv::MediaPlayerStateV2 Source::state() {
    std::lock_guard<std::mutex> lock(mutex_);
    return orv::MediaPlayerStateV2(positionMs(Clock::now()), stateCode(),
                                   orv::MediaPlayerProtection("none", false),
                                   pcm_ ? "pcm" : "file");
}

orv::PlaybackAttributes Source::attributes() {
    std::lock_guard<std::mutex> lock(mutex_);
    return orv::PlaybackAttributes(formatName_.c_str(), sampleTypeName(format_.type),
                                   static_cast<long>(format_.rate),
                                   static_cast<long>(format_.channels));
}

orv::PlaybackReportArray Source::reports() {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::pair<const char*, uint64_t> counters[] = {
        {"frames-written", static_cast<uint64_t>(std::max<int64_t>(clock_.written(), 0))},
        {"bytes-received", bytesReceived_},
        {"pulls", pulls_},
        {"underruns", underruns_},
        {"focus-session-id", focusSessionId_},
    };
    orv::PlaybackReportArray array;
    for (const auto& [name, value] : counters) {
        orv::PlaybackReport& report = array.reports[array.count++];
        report.firstValue = saturate(value);
        report.attributes = orv::PlaybackAttributes(name, nullptr, 0, 0);
    }
    return array;
}

orv::Fingerprint Source::fingerprint() {
    std::lock_guard<std::mutex> lock(mutex_);
    return orv::Fingerprint("fnv1a64", hash_.hex().c_str(), std::to_string(bytesReceived_).c_str());
}

void Source::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
    outbox_.clear();
    wake_.notify_all();
}

void Source::shutdown() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (released_ || closing_) return;
    closing_ = true;
    outbox_.push_back({Event::StopRequested, positionMs(Clock::now()), stateCode()});
    if (!ended()) end(kStateStopped);
    wake_.notify_all();
}

bool Source::waitEnded(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!wake_.wait_until(lock, deadline, [this] { return threadEnded_; })) return false;
    lock.unlock();
    if (thread_.joinable()) thread_.join();
    return true;
}

// --- helpers, called with mutex_ held ---

int32_t Source::positionMs(PlayoutClock::Time now) const {
    return toMs(clock_.played(now), format_.rate);
}

int32_t Source::stateCode() const {
    return state_ == kStatePlaying && underrun_ ? kStateBuffering : state_;
}

bool Source::ended() const {
    return state_ == kStateStopped || state_ == kStateFinished || state_ == kStateFailed;
}

void Source::end(PlayerState state) {
    state_ = state;
    ++generation_;
    underrun_ = false;
    const Event::Kind kind = state == kStateFinished ? Event::Finished : Event::Stopped;
    outbox_.push_back({kind, positionMs(Clock::now()), state_});
    if (pcm_) outbox_.push_back({Event::CloseDataSource});
    wake_.notify_all();
}

void Source::logError(const char* function, const char* text) {
    if (settings_.log) (*settings_.log)(orv::LOG_ERROR, function, "source %lld: %s", id_, text);
}

void Source::fail(PlayerError type, const std::string& text, const std::string& logText) {
    if (settings_.log) {
        (*settings_.log)(orv::LOG_ERROR, "play", "source %lld: %s", id_,
                         (logText.empty() ? text : logText).c_str());
    }
    state_ = kStateFailed;
    ++generation_;
    Event event{Event::Error, positionMs(Clock::now()), state_};
    event.error = type;
    event.text = text;
    outbox_.push_back(event);
    if (pcm_) outbox_.push_back({Event::CloseDataSource});
    wake_.notify_all();
}

// --- the source's thread ---

// The last line of defence: whatever escapes the loop ends this source, never the service.
void Source::run() {
    try {
        loop();
    } catch (const std::exception& error) {
        logError("run", error.what());
    } catch (...) {
        logError("run", "unknown exception");
    }
    std::unique_ptr<Sink> sink;
    std::lock_guard<std::mutex> lock(mutex_);
    sink = std::move(sink_);  // closed after the lock is released
    threadEnded_ = true;
    wake_.notify_all();
}

void Source::loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!released_) {
        if (sink_ && (ended() || closing_)) {
            // Closed before the final event goes out, so that a client that hears "finished"
            // finds the output complete.
            lock.unlock();
            sink_.reset();
            lock.lock();
            continue;
        }
        if (!outbox_.empty()) {
            const Event event = outbox_.front();
            outbox_.pop_front();
            lock.unlock();
            try {
                emit(event);
            } catch (const std::exception& error) {
                // The client misses this event; the source goes on.
                logError("emit", error.what());
            }
            lock.lock();
            continue;
        }
        if (closing_) break;
        if (state_ != kStatePlaying) {
            wake_.wait(lock);
            continue;
        }
        step(lock);
    }
}

// One move of a playing source: open the sink, finish, write, pull, or wait for the time to.
void Source::step(std::unique_lock<std::mutex>& lock) {
    if (seenGeneration_ != generation_) {
        seenGeneration_ = generation_;
        pending_.clear();
    }
    if (seekFrame_ >= 0) {
        if (input_) input_->seek(seekFrame_);
        seekFrame_ = -1;
    }
    if (!sink_) {
        std::string where;
        std::string error;
        lock.unlock();
        std::unique_ptr<Sink> sink;
        try {
            sink = settings_.sinks->open(id_, format_, where, error);
        } catch (const std::exception& failure) {
            error = failure.what();
        }
        lock.lock();
        if (!sink) return fail(kErrorOutput, error);
        sink_ = std::move(sink);
        if (settings_.log) {
            (*settings_.log)(orv::LOG_LIFECYCLE, "play", "source %lld: %s to %s", id_,
                             description_.c_str(), where.c_str());
        }
        return;
    }
    const auto now = Clock::now();
    if (endFrame_ >= 0 && clock_.written() >= endFrame_) {
        if (!bufferingComplete_) {
            bufferingComplete_ = true;
            outbox_.push_back({Event::BufferingComplete, positionMs(now), stateCode()});
        } else if (clock_.dry(now)) {
            end(kStateFinished);
        } else {
            wake_.wait_until(lock, clock_.playedOutAt(now));
        }
        return;
    }
    if (pending_.size() >= format_.bytesPerFrame()) return writePending(lock);
    const PlayoutClock::Time pullAt = std::max(retryAt_, clock_.nextPullAt(now));
    if (pullAt > now) {
        wake_.wait_until(lock, pullAt);
        return;
    }
    pull(lock);
}

void Source::pull(std::unique_lock<std::mutex>& lock) {
    const size_t frameBytes = format_.bytesPerFrame();
    int64_t frames = settings_.periodFrames;
    if (endFrame_ >= 0) frames = std::min(frames, endFrame_ - clock_.written());
    const uint64_t generation = generation_;
    const size_t wanted = static_cast<size_t>(frames) * frameBytes - pending_.size();
    long got = 0;
    std::string error;
    bool threw = false;
    lock.unlock();
    try {
        if (input_) {
            got = input_->read(pullBuffer_.data(), static_cast<size_t>(frames), error);
            if (got > 0) got *= static_cast<long>(frameBytes);
        } else if (settings_.delegate) {
            got =
                settings_.delegate->getData(pullBuffer_.data(), static_cast<unsigned>(wanted), id_);
        }
    } catch (const std::exception& failure) {
        threw = true;
        error = failure.what();
    }
    lock.lock();
    ++pulls_;
    if (threw && !ended()) {
        return fail(kErrorDecode, input_ ? "decoding failed: " + error
                                         : "the client's audio could not be read: " + error);
    }
    if (generation != generation_) return;
    const auto now = Clock::now();
    if (got < 0 && input_) {
        fail(kErrorDecode, "decoding failed: " + error);
    } else if (got == 0 && input_) {
        endFrame_ = clock_.written();
    } else if (got <= 0) {
        retryAt_ = now + settings_.retryInterval;
        // Before the first audio there is nothing to run dry: that is still the start.
        if (started_ && clock_.dry(now) && !underrun_) {
            underrun_ = true;
            drySince_ = now;
            ++underruns_;
            outbox_.push_back({Event::UnderrunStarted, positionMs(now), kStateBuffering});
        } else if (underrun_ && endFrame_ < 0 && now - drySince_ >= settings_.endAfterDry) {
            // A stream of no declared length that stays dry has ended.
            endFrame_ = clock_.written();
        }
    } else {
        received(pullBuffer_.data(), std::min(static_cast<size_t>(got), wanted));
    }
}

void Source::received(const uint8_t* data, size_t size) {
    const auto now = Clock::now();
    bytesReceived_ += size;
    hash_.add(data, size);
    pending_.insert(pending_.end(), data, data + size);
    if (!firstByte_) {
        firstByte_ = true;
        outbox_.push_back({Event::FirstByteRead, positionMs(now), stateCode()});
    }
    if (underrun_) {
        underrun_ = false;
        outbox_.push_back({Event::UnderrunEnded, positionMs(now), stateCode()});
    }
}

void Source::writePending(std::unique_lock<std::mutex>& lock) {
    const size_t frameBytes = format_.bytesPerFrame();
    const size_t frames = pending_.size() / frameBytes;
    const size_t bytes = frames * frameBytes;
    applyGain(pending_.data(), bytes / format_.bytesPerSample(), format_.type, volume_);
    const uint64_t generation = generation_;
    std::string error;
    lock.unlock();
    bool written = false;
    try {
        written = sink_->write(pending_.data(), frames, error);
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    lock.lock();
    if (generation != generation_) return;
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(bytes));
    if (!written) return fail(kErrorOutput, error);
    const auto now = Clock::now();
    if (!started_) {
        started_ = true;
        outbox_.push_back({Event::Started, positionMs(now), stateCode()});
    }
    clock_.wrote(static_cast<int64_t>(frames), now);
}

void Source::emit(const Event& event) {
    orv::MediaClientDelegate* delegate = settings_.delegate;
    if (delegate == nullptr) return;
    const char* kind = pcm_ ? "pcm" : "file";
    const orv::MediaPlayerStateV2 state(event.offsetMs, event.stateCode,
                                        orv::MediaPlayerProtection("none", false), kind);
    switch (event.kind) {
        case Event::StopRequested:
            return delegate->onStopRequested(id_);
        case Event::FirstByteRead:
            return delegate->onFirstByteRead(id_, state);
        case Event::Started:
            return delegate->onPlaybackStarted(id_, state);
        case Event::Paused:
            return delegate->onPlaybackPaused(id_, state);
        case Event::Resumed:
            return delegate->onPlaybackResumed(id_, state);
        case Event::Stopped:
            return delegate->onPlaybackStopped(id_, state);
        case Event::Finished:
            return delegate->onPlaybackFinished(id_, state);
        case Event::Error: {
            const orv::ErrorType type = static_cast<orv::ErrorType>(event.error);
            return delegate->onPlaybackError(id_, type, event.text.c_str(), state);
        }
        case Event::UnderrunStarted:
            return delegate->onBufferUnderrunStarted(id_, state);
        case Event::UnderrunEnded:
            return delegate->onBufferUnderrunEnded(id_, state);
        case Event::BufferingComplete:
            return delegate->onBufferingComplete(id_, state);
        case Event::Metadata: {
            orv::MetadataKeyValuePairs pairs;
            for (const auto& [key, value] : tags_) {
                if (pairs.count == orv::MetadataKeyValuePairs::kCapacity) break;
                pairs.pairs[pairs.count++] = orv::MetadataKeyValuePair(key.c_str(), value.c_str());
            }
            return delegate->onStreamMetadataExtracted(id_, state, pairs);
        }
        case Event::Seeked: {
            const orv::MediaPlayerStateV2 after(event.afterOffsetMs, event.afterStateCode,
                                                orv::MediaPlayerProtection("none", false), kind);
            return delegate->onSeeked(id_, state, after);
        }
        case Event::CloseDataSource:
            return delegate->closeDataSource(id_);
    }
}

}  // namespace zem
