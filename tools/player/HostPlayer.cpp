#include "HostPlayer.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>

namespace zem {

using Clock = std::chrono::steady_clock;

namespace {

// The output's period and how much of it is kept queued ahead of its clock.
constexpr int64_t kPeriodMs = 10;
constexpr int64_t kLeadPeriods = 4;

}  // namespace

HostPlayer::HostPlayer(Options options)
    : options_(std::move(options)), log_(options_.log, "HostPlayer") {
    std::string error;
    std::unique_ptr<Sink> output = openOutput(options_.sink, options_.device, &log_, error);
    if (!output) throw std::runtime_error(error);
    Mixer::Options mixing;
    mixing.device = options_.device;
    mixing.fast = options_.fast;
    mixing.periodFrames = std::max<int64_t>(options_.device.rate * kPeriodMs / 1000, 1);
    mixing.leadFrames = mixing.periodFrames * kLeadPeriods;
    if (options_.trackFiles && options_.sink.kind == SinkSpec::Kind::Wav) {
        mixing.trackFiles = options_.sink.target;
    }
    mixing.log = &log_;
    mixer_ = std::make_unique<Mixer>(std::move(output), mixing);
}

HostPlayer::~HostPlayer() {
    shutdown(Clock::time_point::max());
    mixer_->stop();
}

std::chrono::milliseconds HostPlayer::latency() const {
    return std::chrono::milliseconds(kPeriodMs * kLeadPeriods) + SourceSettings().ring;
}

bool HostPlayer::shutdown(Clock::time_point deadline) {
    std::vector<std::shared_ptr<Source>> sources;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
        for (auto& [id, source] : sources_) sources.push_back(source);
        sources.insert(sources.end(), retired_.begin(), retired_.end());
    }
    for (const auto& source : sources) source->shutdown();
    bool ended = true;
    for (const auto& source : sources) {
        if (!source->waitEnded(deadline)) {
            log_(orv::LOG_ERROR, "shutdown", "source %lld: its client does not answer",
                 source->id());
            ended = false;
        }
    }
    // A thread still busy may yet wake the mixer: it then stays, idle, until the player goes.
    if (ended) mixer_->stop();
    return ended;
}

void HostPlayer::setMediaClientDelegate(orv::MediaClientDelegate* delegate) {
    delegate_ = delegate;
}

long long HostPlayer::setSource(const orv::SourceConfig& config, const char* /*clusterId*/) {
    reapEnded();
    if (config.type != orv::kSourceTypePcm && config.type != orv::kSourceTypeUrl) {
        log_(orv::LOG_ERROR, "setSource", "unknown source type %d", config.type);
        return 0;
    }
    SourceSettings settings;
    settings.delegate = delegate_;
    settings.log = &log_;
    settings.device = options_.device;
    Mixer* mixer = mixer_.get();
    settings.wakeMixer = [mixer] { mixer->wake(); };
    // Taken on the thread that runs the client's request; none means the service itself.
    const std::optional<parlex::PeerCredentials> client = options_.callingPeer();
    long long id = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closing_ || sources_.size() + opening_ >= options_.maxSources) {
            log_(orv::LOG_ERROR, "setSource", "%s",
                 closing_ ? "shutting down" : "too many sources");
            return 0;
        }
        if (client && perProcess_[client->pid] >= options_.maxSourcesPerProcess) {
            log_(orv::LOG_ERROR, "setSource", "too many sources for client process %d",
                 static_cast<int>(client->pid));
            return 0;
        }
        id = nextId_++;
        ++opening_;  // holds the source's place while its file opens without the lock
        if (client) {
            owners_[id] = client->pid;
            ++perProcess_[client->pid];
        }
    }
    std::shared_ptr<Source> source;
    try {
        source = std::make_shared<Source>(id, config, settings, openFile(id, config, client));
        source->startThread();
    } catch (const std::exception& error) {
        log_(orv::LOG_ERROR, "setSource", "no thread for a new source: %s", error.what());
        source.reset();
    }
    std::lock_guard<std::mutex> lock(mutex_);
    --opening_;
    if (!source || closing_) {
        forgetOwner(id);
        if (!source) return 0;
        // Shutdown began while the file opened: the source never plays.
        source->release();
        retired_.push_back(std::move(source));
        return 0;
    }
    log_(orv::LOG_LIFECYCLE, "setSource", "source %lld: %s", id, source->describe().c_str());
    mixer_->add(source);
    sources_[id] = std::move(source);
    return id;
}

// Opens and parses a URL source's file, as its client may read it. Runs without the table's
// lock: opening a file may take long (a slow or hung file system), and other clients' calls
// must not wait for it.
OpenedFile HostPlayer::openFile(long long id, const orv::SourceConfig& config,
                                const std::optional<parlex::PeerCredentials>& client) {
    OpenedFile file;
    if (config.type != orv::kSourceTypeUrl) return file;
    std::optional<PeerIdentity> peer;
    if (client) peer = peerIdentity(client->pid, client->uid, client->gid);
    const std::optional<std::string> path = pathFromUrl(config.url ? config.url : "", file.error);
    if (!path) return file;
    bool denied = false;
    const int fd = options_.openFile(*path, peer, file.error, &denied);
    if (denied) {
        log_(orv::LOG_ERROR, "setSource",
             "source %lld: refused the URL: its client (pid %d, uid %u) may not read the file", id,
             static_cast<int>(client->pid), static_cast<unsigned>(client->uid));
    }
    if (fd >= 0) file.input = FileInput::fromDescriptor(fd, file.error);
    return file;
}

// `call` on the source with this id, without holding the table's lock; `fallback` for an id
// that names no open source.
template <typename Result, typename Call>
Result HostPlayer::withSource(long long sourceId, Result fallback, Call call) {
    std::shared_ptr<Source> source;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = sources_.find(sourceId);
        if (it == sources_.end()) return fallback;
        source = it->second;
    }
    return call(*source);
}

// Called with mutex_ held.
void HostPlayer::forgetOwner(long long sourceId) {
    const auto owner = owners_.find(sourceId);
    if (owner == owners_.end()) return;
    if (--perProcess_[owner->second] == 0) perProcess_.erase(owner->second);
    owners_.erase(owner);
}

// Joins the released sources whose threads have ended, without waiting for the others.
void HostPlayer::reapEnded() {
    std::vector<std::shared_ptr<Source>> ended;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = retired_.begin(); it != retired_.end();) {
            if ((*it)->waitEnded(Clock::now())) {
                ended.push_back(std::move(*it));
                it = retired_.erase(it);
            } else {
                ++it;
            }
        }
    }
}

int HostPlayer::play(long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) { return source.play(); });
}

int HostPlayer::stop(long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) { return source.stop(); });
}

int HostPlayer::pause(long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) { return source.pause(); });
}

int HostPlayer::resume(long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) { return source.resume(); });
}

// No source of this player is encrypted.
int HostPlayer::newDecryptKey(long long, const char*) { return -1; }

int HostPlayer::getOffset(long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) { return source.offsetMs(); });
}

orv::MediaPlayerState HostPlayer::getMediaPlayerState(long long sourceId) {
    const orv::MediaPlayerStateV2 state = getMediaPlayerStateV2(sourceId);
    orv::MediaPlayerState result;
    result.offsetMs = state.offsetMs;
    result.stateCode = state.stateCode;
    result.protection = state.protection;
    return result;
}

orv::MediaPlayerStateV2 HostPlayer::getMediaPlayerStateV2(long long sourceId) {
    return withSource(sourceId, orv::MediaPlayerStateV2(),
                      [&](Source& source) { return source.state(); });
}

orv::PlaybackAttributes HostPlayer::getPlaybackAttributes(long long sourceId) {
    return withSource(sourceId, orv::PlaybackAttributes(),
                      [&](Source& source) { return source.attributes(); });
}

orv::PlaybackReports HostPlayer::getPlaybackReports(long long sourceId) {
    const orv::PlaybackReportArray array = getPlaybackReportArray(sourceId);
    orv::PlaybackReports reports(array.count);
    for (uint32_t i = 0; i < array.count; ++i) reports.reports[i] = array.reports[i];
    return reports;
}

orv::PlaybackReportArray HostPlayer::getPlaybackReportArray(long long sourceId) {
    return withSource(sourceId, orv::PlaybackReportArray(),
                      [&](Source& source) { return source.reports(); });
}

orv::Fingerprint HostPlayer::getFingerprint(long long sourceId) {
    return withSource(sourceId, orv::Fingerprint(),
                      [&](Source& source) { return source.fingerprint(); });
}

int HostPlayer::seekTo(long long sourceId, int offsetInMs, bool fromStart) {
    return withSource(sourceId, -1,
                      [&](Source& source) { return source.seekTo(offsetInMs, fromStart); });
}

int HostPlayer::releaseSource(long long sourceId) {
    std::shared_ptr<Source> source;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = sources_.find(sourceId);
        if (it == sources_.end()) return -1;
        source = std::move(it->second);
        sources_.erase(it);
        forgetOwner(sourceId);
        source->release();
        retired_.push_back(source);
    }
    log_(orv::LOG_LIFECYCLE, "releaseSource", "source %lld released", sourceId);
    reapEnded();
    return 0;
}

int HostPlayer::setVolume(float volume, long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) { return source.setVolume(volume); });
}

int HostPlayer::setFocusSessionId(unsigned int focusSessionId, long long sourceId) {
    return withSource(sourceId, -1, [&](Source& source) {
        source.setFocusSessionId(focusSessionId);
        return 0;
    });
}

}  // namespace zem
