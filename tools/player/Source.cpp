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
    : id_(id), pcm_(config.type == orv::kSourceTypePcm), settings_(settings) {
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
    if (config.startOffset > 0 && format_.rate > 0) {
        int64_t startFrame = int64_t{config.startOffset} * format_.rate / 1000;
        if (endFrame_ >= 0) startFrame = std::min(startFrame, endFrame_);
        readFrame_ = baseFrame_ = startFrame;
        seekFrame_ = startFrame;
    }
    const size_t ringFrames = std::max<size_t>(
        static_cast<size_t>(int64_t{format_.rate} * settings_.ring.count() / 1000), 64);
    ring_ = ByteRing(ringFrames * format_.bytesPerFrame());
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
    if (!tags_.empty()) outbox_.push_back({Event::Metadata, positionMs(), state_});
    wake_.notify_all();
    if (settings_.wakeMixer) settings_.wakeMixer();
    return 0;
}

int Source::pause() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ != kStatePlaying) return -1;
    state_ = kStatePaused;
    outbox_.push_back({Event::Paused, positionMs(), state_});
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
    state_ = kStatePlaying;
    outbox_.push_back({Event::Resumed, positionMs(), state_});
    wake_.notify_all();
    if (settings_.wakeMixer) settings_.wakeMixer();
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
    const int32_t before = positionMs();
    const int64_t current = heardFrame();
    int64_t target = int64_t{offsetMs} * format_.rate / 1000 + (fromStart ? 0 : current);
    target = std::max<int64_t>(target, 0);
    if (endFrame_ >= 0) target = std::min(target, endFrame_);
    readFrame_ = baseFrame_ = seekFrame_ = target;
    mixedFrames_ = 0;
    ring_.clear();
    pending_.clear();
    ++generation_;
    bufferingComplete_ = false;
    lastPullEmpty_ = false;
    Event event{Event::Seeked, before, stateCode()};
    event.afterOffsetMs = positionMs();
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
    return positionMs();
}

orv::MediaPlayerStateV2 Source::state() {
    std::lock_guard<std::mutex> lock(mutex_);
    return orv::MediaPlayerStateV2(positionMs(), stateCode(),
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
        {"frames-written", static_cast<uint64_t>(std::max<int64_t>(heardFrame(), 0))},
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
    outbox_.push_back({Event::StopRequested, positionMs(), stateCode()});
    if (!ended()) end(kStateStopped);
    wake_.notify_all();
}

bool Source::waitEnded(Clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!wake_.wait_until(lock, deadline, [this] { return threadEnded_; })) return false;
    lock.unlock();
    std::lock_guard<std::mutex> join(joinMutex_);
    if (thread_.joinable()) thread_.join();
    return true;
}

// --- helpers, called with mutex_ held ---

// The stream frame heard so far: where mixing started plus what was mixed since, at the
// source's own rate.
int64_t Source::heardFrame() const {
    if (state_ == kStateFinished && endFrame_ >= 0) return endFrame_;
    const uint32_t deviceRate = settings_.device.rate == 0 ? 1 : settings_.device.rate;
    const int64_t frame = baseFrame_ + mixedFrames_ * format_.rate / deviceRate;
    return endFrame_ >= 0 ? std::min(frame, endFrame_) : frame;
}

int32_t Source::positionMs() const { return toMs(heardFrame(), format_.rate); }

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
    outbox_.push_back({kind, positionMs(), state_});
    if (pcm_) outbox_.push_back({Event::CloseDataSource});
    wake_.notify_all();
    if (settings_.wakeMixer) settings_.wakeMixer();
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
    Event event{Event::Error, positionMs(), state_};
    event.error = type;
    event.text = text;
    outbox_.push_back(event);
    if (pcm_) outbox_.push_back({Event::CloseDataSource});
    wake_.notify_all();
    if (settings_.wakeMixer) settings_.wakeMixer();
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
    std::lock_guard<std::mutex> lock(mutex_);
    threadEnded_ = true;
    wake_.notify_all();
}

void Source::loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!released_) {
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

// One move of the read-ahead: report the end, fill the ring, pull, or wait for room or time.
void Source::step(std::unique_lock<std::mutex>& lock) {
    if (seekFrame_ >= 0) {
        if (input_) input_->seek(seekFrame_);
        seekFrame_ = -1;
    }
    const auto now = Clock::now();
    if (endFrame_ >= 0 && readFrame_ >= endFrame_) {
        // Reported once the mixer has started the source, so that "started" comes first;
        // a source with nothing to play from where it stands never starts.
        if (!bufferingComplete_ && (started_ || readFrame_ <= baseFrame_)) {
            bufferingComplete_ = true;
            outbox_.push_back({Event::BufferingComplete, positionMs(), stateCode()});
            if (settings_.wakeMixer) settings_.wakeMixer();
        } else {
            wake_.wait(lock);
        }
        return;
    }
    if (ring_.space() / format_.bytesPerFrame() < pullFrames()) {
        // The mixer wakes the source when it takes audio; the timeout is only a safety net.
        wake_.wait_for(lock, settings_.ring / 4);
        return;
    }
    if (retryAt_ > now) {
        wake_.wait_until(lock, retryAt_);
        return;
    }
    pull(lock);
}

void Source::pull(std::unique_lock<std::mutex>& lock) {
    const size_t frameBytes = format_.bytesPerFrame();
    int64_t frames = std::min<int64_t>(
        {settings_.periodFrames, static_cast<int64_t>(ring_.space() / frameBytes)});
    if (endFrame_ >= 0) frames = std::min(frames, endFrame_ - readFrame_);
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
        endFrame_ = readFrame_;
    } else if (got <= 0) {
        retryAt_ = now + settings_.retryInterval;
        lastPullEmpty_ = true;
        if (settings_.wakeMixer) settings_.wakeMixer();
        // A stream of no declared length that stays dry has ended.
        if (underrun_ && endFrame_ < 0 && now - drySince_ >= settings_.endAfterDry) {
            endFrame_ = readFrame_;
        }
    } else {
        received(pullBuffer_.data(), std::min(static_cast<size_t>(got), wanted));
    }
}

void Source::received(const uint8_t* data, size_t size) {
    bytesReceived_ += size;
    hash_.add(data, size);
    lastPullEmpty_ = false;
    pending_.insert(pending_.end(), data, data + size);
    fillRing();
    if (!firstByte_) {
        firstByte_ = true;
        outbox_.push_back({Event::FirstByteRead, positionMs(), stateCode()});
    }
    if (underrun_) {
        underrun_ = false;
        outbox_.push_back({Event::UnderrunEnded, positionMs(), stateCode()});
    }
    if (settings_.wakeMixer) settings_.wakeMixer();
}

// Moves the whole frames received into the ring; a pull never asks for more than it has room
// for, so nothing is left but a partial frame.
void Source::fillRing() {
    const size_t frameBytes = format_.bytesPerFrame();
    const size_t whole = std::min(pending_.size(), ring_.space()) / frameBytes * frameBytes;
    ring_.put(pending_.data(), whole);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<long>(whole));
    readFrame_ += static_cast<int64_t>(whole / frameBytes);
}

// The frames one pull asks for: a period, or half the read-ahead when that is shorter.
size_t Source::pullFrames() const {
    return std::min<size_t>(static_cast<size_t>(settings_.periodFrames),
                            ring_.capacity() / format_.bytesPerFrame() / 2);
}

// --- the mixer's side ---

Source::Supply Source::prepare(size_t frames,
                               const std::function<std::string(long long)>& trackFile,
                               int64_t outputFrame) {
    std::vector<uint8_t> taken;
    Supply supply;
    bool joins = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != kStatePlaying || released_ || closing_) return supply;
        try {
            if (mixGeneration_ != generation_ && converter_) converter_->reset();
            if (mixGeneration_ != generation_) {
                // After a seek the source waits for its read-ahead again, as at its start, and
                // the wait is no underrun.
                flushed_ = false;
                refilling_ = started_;
            }
            mixGeneration_ = generation_;
            if (!converter_) converter_ = std::make_unique<Converter>(format_, settings_.device);
            const size_t frameBytes = format_.bytesPerFrame();
            std::vector<uint8_t> chunk;
            while (converter_->available() < frames && ring_.size() > 0) {
                chunk.resize(std::min<size_t>(ring_.size(), 1024 * frameBytes));
                ring_.take(chunk.data(), chunk.size());
                applyGain(chunk.data(), chunk.size() / format_.bytesPerSample(), format_.type,
                          volume_);
                converter_->push(chunk.data(), chunk.size() / frameBytes);
                taken.insert(taken.end(), chunk.begin(), chunk.end());
            }
            if (!flushed_ && bufferingComplete_ && ring_.size() == 0) {
                converter_->finish();
                flushed_ = true;
            }
        } catch (const std::exception& error) {
            fail(kErrorFormat, std::string("cannot convert the audio: ") + error.what());
            return supply;
        }
        if (!taken.empty()) wake_.notify_all();  // room in the ring
        supply.frames = converter_->available();
        supply.file = !pcm_;
        supply.drained = flushed_;
        // A source joins the mix once its read-ahead is full (or all of it is read, or its
        // client has no more for now), so that its audio starts unbroken even when the output
        // takes its whole lead at once.
        const size_t frameBytes = format_.bytesPerFrame();
        const bool allRead = endFrame_ >= 0 && readFrame_ >= endFrame_;
        const bool readAheadFull = ring_.space() / frameBytes < pullFrames() || allRead;
        supply.playing = (started_ && !refilling_) || flushed_ ||
                         ((supply.frames >= frames || (allRead && ring_.size() == 0)) &&
                          (readAheadFull || lastPullEmpty_));
        supply.waiting =
            supply.playing && !flushed_ && supply.frames < frames && !lastPullEmpty_ && !underrun_;
        if (supply.playing) refilling_ = false;
        joins = supply.playing && !started_ && !joined_;
        joined_ = joined_ || joins;
        // Numbered by the order in which tracks first hand the mixer audio.
        if (trackFile && trackPath_.empty() && !taken.empty()) trackPath_ = trackFile(id_);
    }
    if (!trackPath_.empty() && !track_ && !trackFailed_) {
        std::string error;
        track_ = openWavSink(trackPath_, format_, error);
        trackFailed_ = !track_;
        if (!track_) logError("mix", error.c_str());
    }
    if (joins && settings_.log) {
        (*settings_.log)(orv::LOG_LIFECYCLE, "mix",
                         "source %lld: %s, first audio at output frame %lld%s%s", id_,
                         description_.c_str(), static_cast<long long>(outputFrame),
                         track_ ? ", also in " : "", track_ ? trackPath_.c_str() : "");
    }
    writeTrack(taken);
    return supply;
}

// The track's own file gets the audio as the mixer took it, in the source's format and at its
// volume; a file that cannot be written is given up, and the mix goes on.
void Source::writeTrack(const std::vector<uint8_t>& bytes) {
    if (!track_ || bytes.empty()) return;
    std::string error;
    if (!track_->write(bytes.data(), bytes.size() / format_.bytesPerFrame(), error)) {
        logError("mix", error.c_str());
        track_.reset();
        trackFailed_ = true;
    }
}

void Source::underrunLocked(Clock::time_point now) {
    if (underrun_ || !started_ || flushed_) return;
    underrun_ = true;
    drySince_ = now;
    ++underruns_;
    outbox_.push_back({Event::UnderrunStarted, positionMs(), kStateBuffering});
    wake_.notify_all();
}

void Source::mixInto(double* mix, size_t frames) {
    bool finished = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ != kStatePlaying || mixGeneration_ != generation_ || !converter_) return;
        const size_t have = std::min(frames, converter_->available());
        converter_->takeInto(mix, frames);
        if (have > 0 && !started_) {
            started_ = true;
            outbox_.push_back({Event::Started, positionMs(), stateCode()});
            wake_.notify_all();
        }
        mixedFrames_ += static_cast<int64_t>(have);
        if (have < frames) underrunLocked(Clock::now());
        finished = flushed_ && converter_->available() == 0;
    }
    if (!finished) return;
    // Closed before the final event goes out, so that a client that hears "finished" finds
    // its track's file complete.
    track_.reset();
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == kStatePlaying && mixGeneration_ == generation_) end(kStateFinished);
}

void Source::markDry() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == kStatePlaying) underrunLocked(Clock::now());
}

void Source::outputFailed(const std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!ended()) fail(kErrorOutput, error);
}

bool Source::finishedWithMixer() {
    bool done = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        done = released_ || closing_ || ended();
    }
    if (done) track_.reset();
    return done;
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
