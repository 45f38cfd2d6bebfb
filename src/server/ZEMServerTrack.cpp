// The server track (ZEMServerTrack), its remote object (ZEMAudioTrackServer) and the source
// description the player receives (SourceConfig).
#include "server/ZEMServerTrack.h"

#include <orv/AudioServerImpl.h>

#include <cstring>
#include <exception>
#include <stdexcept>
#include <tuple>

#include "common/LogFormat.h"
#include "common/OwnedText.h"
#include "common/RecordCodec.h"
#include "parlex/TrackProtocol.h"

namespace orv {

// ---- SourceConfig

SourceConfig::SourceConfig() = default;

SourceConfig::SourceConfig(const SourceConfig& other)
    : type(other.type),
      sampleFormat(other.sampleFormat),
      channelLayout(other.channelLayout),
      sampleRate(other.sampleRate),
      param4(other.param4),
      startOffset(other.startOffset),
      param3(other.param3),
      url(copyString(other.url)),
      playbackContextHeadersJSON(copyString(other.playbackContextHeadersJSON)),
      mediaDescription(other.mediaDescription),
      param7(other.param7),
      volumeGain(other.volumeGain) {}

SourceConfig& SourceConfig::operator=(const SourceConfig& other) {
    assignString(url, other.url);
    assignString(playbackContextHeadersJSON, other.playbackContextHeadersJSON);
    type = other.type;
    sampleFormat = other.sampleFormat;
    channelLayout = other.channelLayout;
    sampleRate = other.sampleRate;
    param4 = other.param4;
    startOffset = other.startOffset;
    param3 = other.param3;
    mediaDescription = other.mediaDescription;
    param7 = other.param7;
    volumeGain = other.volumeGain;
    return *this;
}

SourceConfig::~SourceConfig() {
    delete[] url;
    delete[] playbackContextHeadersJSON;
}

void SourceConfig::setUrl(const char* text) { assignString(url, text); }

void SourceConfig::setPlaybackContextHeadersJSON(const char* text) {
    assignString(playbackContextHeadersJSON, text);
}

// ---- Reading a request

namespace {

using parlex::AndroidParcel;

// A request's arguments, read as one value so that the whole request can be checked. The
// codecs read a short parcel as zeros and nulls and ignore bytes left over, which would let a
// truncated request reach a track as a different one; a request whose arguments do not fill it
// exactly is refused instead, before any operation runs, and the client gets an error reply.
template <typename Values>
struct WholeArguments {
    Values values;
};

template <typename Values>
const AndroidParcel& operator>>(const AndroidParcel& request, WholeArguments<Values>& arguments) {
    parlex::unpack_exactly(request, arguments.values, "track request");
    return request;
}

// Logs why a send to the client failed. Called only from inside a catch block.
void logSendFailure(IAudioTrackRPC& track, const char* function) {
    try {
        throw;
    } catch (const parlex::dead_object&) {
        track.log(LOG_ERROR, function, "client is dead");
    } catch (const std::exception& error) {
        track.log(LOG_ERROR, function, "RPC failed exception: %s", error.what());
    } catch (...) {
        track.log(LOG_ERROR, function, "Unknown exception");
    }
}

}  // namespace

// ---- ZEMAudioTrackServer

ZEMAudioTrackServer::ZEMAudioTrackServer(std::shared_ptr<LoggingDelegate> logger, std::string tag)
    : IAudioTrackRPC(std::move(logger), std::move(tag)) {
    bindRequests();
}

ZEMAudioTrackServer::~ZEMAudioTrackServer() = default;

// Binds `operation` under `name`; its parameters say which arguments the request carries. An
// operation without result gets an empty reply.
template <typename F>
void ZEMAudioTrackServer::bindRequest(const char* name, F operation) {
    using Values = typename parlex::func_traits<F>::args;
    bind(name, [operation](WholeArguments<Values> request) {
        return std::apply(operation, std::move(request.values));
    });
}

// The order is the one existing servers bind in.
void ZEMAudioTrackServer::bindRequests() {
    using namespace protocol;
    bindRequest(kSetSource, [this](ZEMAudioFormat format, const char* clusterId) {
        return setSource(format, clusterId);
    });
    bindRequest(kSetZEMAudioSource, [this](ZEMAudioSource source) { return setSource(source); });
    bindRequest(kSetZEMAudioSourceMediaDescription,
                [this](ZEMAudioSource source, MediaDescription description) {
                    return setSource(source, description);
                });
    bindRequest(kSetZEMAudioSourceV2MediaDescription,
                [this](ZEMAudioSourceV2 source, MediaDescription description) {
                    return setSource(source, description);
                });
    bindRequest(kSetZEMAudioSourceV3MediaDescription,
                [this](ZEMAudioSourceV3 source, MediaDescription description) {
                    return setSource(source, description);
                });
    bindRequest(kSetZEMAudioSourceV4MediaDescription,
                [this](ZEMAudioSourceV4 source, MediaDescription description) {
                    return setSource(source, description);
                });
    bindRequest(kPlay, [this] { return play(); });
    bindRequest(kStop, [this] { return stop(); });
    bindRequest(kPause, [this] { return pause(); });
    bindRequest(kResume, [this] { return resume(); });
    bindRequest(kSeekTo,
                [this](int offsetInMs, bool fromStart) { return seekTo(offsetInMs, fromStart); });
    bindRequest(kGetOffset, [this] { return getOffset(); });
    bindRequest(kNewDecryptKey, [this](std::string key) { return newDecryptKey(key); });
    bindRequest(kDestroy, [this] { destroy(); });
    bindRequest(kGetMediaPlayerState, [this] { return getMediaPlayerState(); });
    bindRequest(kGetPlaybackAttributes, [this] { return getPlaybackAttributes(); });
    bindRequest(kGetPlaybackReports, [this] { return getPlaybackReports(); });
    bindRequest(kGetFingerprint, [this] { return getFingerprint(); });
    bindRequest(kGetPlaybackReportArray, [this] { return getPlaybackReportArray(); });
    bindRequest(kSetVolume, [this](float volume) { return setVolume(volume); });
    bindRequest(kSetFocusSessionId, [this](unsigned int id) { return setFocusSessionId(id); });
    bindRequest(kGetMediaPlayerStateV2, [this] { return getMediaPlayerStateV2(); });
}

template <typename... Args>
bool ZEMAudioTrackServer::remoteEvent(const std::string& name, const Args&... args) {
    std::lock_guard<std::mutex> lock(eventMutex);
    try {
        event(name, args...);
        return true;
    } catch (...) {
        logSendFailure(*this, "remoteEvent");
        return false;
    }
}

std::pair<bool, parlex::AndroidParcel> ZEMAudioTrackServer::remoteCallback(const std::string& name,
                                                                           int arg) {
    try {
        return {true, callback(name, arg)};
    } catch (...) {
        logSendFailure(*this, "remoteCallback");
        return {false, parlex::AndroidParcel()};
    }
}

std::pair<bool, parlex::AndroidParcel> ZEMAudioTrackServer::requestBuffer(int size) {
    log(LOG_DATA, "getBuffer", "size:%d", size);
    return remoteCallback(protocol::kGetBuffer, size);
}

parlex::AndroidBuffer ZEMAudioTrackServer::getBuffer(int size) {
    std::pair<bool, parlex::AndroidParcel> reply = requestBuffer(size);
    if (!reply.first) return parlex::AndroidBuffer();
    return reply.second.as<parlex::AndroidBuffer>();
}

void ZEMAudioTrackServer::closeAudioSource() {
    log(LOG_TRACE, "closeAudioSource", " ");
    remoteEvent(protocol::kCloseAudioSource);
}

void ZEMAudioTrackServer::onReportMetric(const std::string& first, const std::string& second) {
    log(LOG_TRACE, "onReportMetric", "metric=%s", first.c_str());
    remoteEvent(protocol::kOnReportMetric, first, second);
}

void ZEMAudioTrackServer::sendStateEvent(const char* name, long long sourceId,
                                         const MediaPlayerStateV2& state) {
    log(LOG_TRACE, name, "sourceId=%lld, offsetMs=%d", sourceId, state.offsetMs);
    remoteEvent(name, sourceId, state);
}

void ZEMAudioTrackServer::onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) {
    log(LOG_TRACE, protocol::kOnFirstByteRead, "sourceId=%lld, offsetMs=%d, playlistType=%s",
        sourceId, state.offsetMs, logText(state.playlistType));
    remoteEvent(protocol::kOnFirstByteRead, sourceId, state);
}

void ZEMAudioTrackServer::onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnPlaybackStarted, sourceId, state);
}

void ZEMAudioTrackServer::onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnPlaybackFinished, sourceId, state);
}

void ZEMAudioTrackServer::onPlaybackError(long long sourceId, ErrorType type,
                                          const std::string& error,
                                          const MediaPlayerStateV2& state) {
    log(LOG_TRACE, protocol::kOnPlaybackError, "sourceId=%lld, type=%d, error=%s, offsetMs=%d",
        sourceId, static_cast<int>(type), error.c_str(), state.offsetMs);
    remoteEvent(protocol::kOnPlaybackError, sourceId, static_cast<int>(type), error, state);
}

void ZEMAudioTrackServer::onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnPlaybackPaused, sourceId, state);
}

void ZEMAudioTrackServer::onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnPlaybackResumed, sourceId, state);
}

void ZEMAudioTrackServer::onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnPlaybackStopped, sourceId, state);
}

void ZEMAudioTrackServer::onBufferUnderrun(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnBufferUnderrun, sourceId, state);
}

void ZEMAudioTrackServer::onBufferRefilled(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnBufferRefilled, sourceId, state);
}

void ZEMAudioTrackServer::onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) {
    sendStateEvent(protocol::kOnBufferingComplete, sourceId, state);
}

void ZEMAudioTrackServer::onStreamMetadataExtracted(long long sourceId,
                                                    const MediaPlayerStateV2& state,
                                                    const MetadataKeyValuePairs& metadata) {
    log(LOG_TRACE, protocol::kOnStreamMetadataExtracted, "sourceId=%lld, offsetMs=%d", sourceId,
        state.offsetMs);
    remoteEvent(protocol::kOnStreamMetadataExtracted, sourceId, state, metadata);
}

std::optional<ZEMAudioTrackServer::PendingEvent> ZEMAudioTrackServer::tryStreamMetadata(
    long long sourceId, const MediaPlayerStateV2& state, const MetadataKeyValuePairs& metadata) {
    std::unique_lock<std::mutex> lock(eventMutex, std::try_to_lock);
    if (!lock.owns_lock()) return std::nullopt;
    log(LOG_TRACE, protocol::kOnStreamMetadataExtracted, "sourceId=%lld, offsetMs=%d", sourceId,
        state.offsetMs);
    PendingEvent pending{std::move(lock), {}};
    try {
        pending.answer = post(protocol::kOnStreamMetadataExtracted, sourceId, state, metadata);
    } catch (...) {
        logSendFailure(*this, "remoteEvent");
    }
    return pending;
}

void ZEMAudioTrackServer::finishEvent(PendingEvent& pending) {
    try {
        if (pending.answer.valid()) pending.answer.get();
    } catch (...) {
        logSendFailure(*this, "remoteEvent");
    }
    pending.lock.unlock();
}

void ZEMAudioTrackServer::onStopRequested(long long sourceId) {
    log(LOG_TRACE, protocol::kOnStopRequested, "sourceId=%lld", sourceId);
    remoteEvent(protocol::kOnStopRequested, sourceId);
}

void ZEMAudioTrackServer::onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                                   const MediaPlayerStateV2& after) {
    log(LOG_TRACE, protocol::kOnSeeked,
        "sourceId=%lld, beforeSeekOffsetMs=%d, afterSeekOffsetMs=%d", sourceId, before.offsetMs,
        after.offsetMs);
    remoteEvent(protocol::kOnSeeked, sourceId, before, after);
}

void ZEMAudioTrackServer::onLicenseAvailable(long long sourceId) {
    log(LOG_TRACE, protocol::kOnLicenseAvailable, "sourceId=%lld", sourceId);
    remoteEvent(protocol::kOnLicenseAvailable, sourceId);
}

void ZEMAudioTrackServer::onFirstDataSegmentAvailable(long long sourceId) {
    log(LOG_TRACE, protocol::kOnFirstDataSegmentAvailable, "sourceId=%lld", sourceId);
    remoteEvent(protocol::kOnFirstDataSegmentAvailable, sourceId);
}

// ---- ZEMServerTrack

namespace {

// Data requests of this size or more are cut to kDataRequestCut bytes: what existing clients
// were built to supply in one buffer.
constexpr unsigned int kDataRequestLimit = 16384;
constexpr int kDataRequestCut = 12288;

constexpr int kPcmLayoutInterleaved = 1;
constexpr uint64_t kFrontCentre = 4;
constexpr uint64_t kFrontLeftRight = 3;

// Two optional texts differ only when both are present and unequal.
bool differ(const char* a, const char* b) {
    return a != nullptr && b != nullptr && std::strcmp(a, b) != 0;
}

}  // namespace

ZEMServerTrack::ZEMServerTrack(std::shared_ptr<OrvServerHandlerInterface> handler,
                               std::shared_ptr<LoggingDelegate> logger, AudioServerImpl* server,
                               unsigned int trackId)
    : ZEMAudioTrackServer(std::move(logger), "ZEMServerTrack"),
      handler(std::move(handler)),
      server(server),
      trackId(trackId) {
    log(LOG_TRACE, "ZEMServerTrack", " ");
}

ZEMServerTrack::~ZEMServerTrack() {
    log(LOG_TRACE, "~ZEMServerTrack", "sourceId=%lld", sourceId());
    destroy();
    releaseHeldSources();
}

bool ZEMServerTrack::isSampleSizeSupported(unsigned int bits) {
    return bits == 8 || bits == 16 || bits == 32;
}

bool ZEMServerTrack::isNumChannelsSupported(unsigned int channels) {
    return channels == 1 || channels == 2;
}

// 8-bit samples pass isSampleSizeSupported but have no player format: such a source is opened
// with format -1, which existing players expect.
int ZEMServerTrack::toORVFormat(unsigned int bits) {
    if (bits == 16) return 0;
    if (bits == 32) return 2;
    log(LOG_ERROR, "toORVFormat", "Unsupported sample size=%u", bits);
    return -1;
}

uint64_t ZEMServerTrack::toORVChannelLayout(unsigned int channels) {
    if (channels == 1) return kFrontCentre;
    if (channels == 2) return kFrontLeftRight;
    log(LOG_ERROR, "toORVChannelLayout", "Unsupported channel layout=%u", channels);
    return 0;
}

long long ZEMServerTrack::setSource(const ZEMAudioFormat& format, const char* clusterId) {
    log(LOG_DEPRECATED, "setSource", "Calling deprecated setSource on ZEMServerTrack");
    if (format.channelNum != 2 || format.sampleSizeInBits != 16 || !format.isSigned ||
        format.layout != kPcmLayoutInterleaved) {
        log(LOG_LIFECYCLE, "setSource", "unsupported format");
        return sourceId();
    }
    SourceConfig config;
    config.type = kSourceTypePcm;
    config.sampleFormat = toORVFormat(16);
    config.channelLayout = kFrontLeftRight;
    config.sampleRate = format.sampleRate;
    config.startOffset = format.startOffset;
    releaseAndSetSource(config, clusterId);
    return sourceId();
}

long long ZEMServerTrack::setSource(const ZEMAudioSource& source) {
    return setSourceCommon("setSource", source, MediaDescription(), 0, false, 1.0f);
}

long long ZEMServerTrack::setSource(const ZEMAudioSource& source,
                                    const MediaDescription& description) {
    return setSourceCommon("setSource", source, description, 0, false, 1.0f);
}

long long ZEMServerTrack::setSource(const ZEMAudioSourceV2& source,
                                    const MediaDescription& description) {
    return setSourceCommon("setSource", source, description, static_cast<int>(source.param3), false,
                           1.0f);
}

long long ZEMServerTrack::setSource(const ZEMAudioSourceV3& source,
                                    const MediaDescription& description) {
    return setSourceCommon("setSource", source, description, static_cast<int>(source.param3),
                           source.param7, 1.0f);
}

long long ZEMServerTrack::setSource(const ZEMAudioSourceV4& source,
                                    const MediaDescription& description) {
    return setSourceCommon("setSource", source, description, static_cast<int>(source.param3),
                           source.param7, source.volumeGain);
}

template <typename Source>
long long ZEMServerTrack::setSourceCommon(const std::string& method, const Source& source,
                                          const MediaDescription& description, int param3,
                                          bool param7, float volumeGain) {
    const char* function = method.c_str();
    SourceConfig config;
    config.type = source.type;
    config.param4 = source.param4;
    config.param3 = param3;
    config.mediaDescription = description;
    config.param7 = param7;
    config.volumeGain = volumeGain;
    if (source.type == kSourceTypePcm) {
        const ZEMAudioFormat& format = source.format;
        log(LOG_LIFECYCLE, function,
            "clusterId=%s,sampleRate=%u,sampleSizeInBits=%u,channelNum=%u,signed=%d,layout=%d,"
            "startOffset=%d",
            logText(source.clusterId), format.sampleRate, format.sampleSizeInBits,
            format.channelNum, format.isSigned ? 1 : 0, format.layout, format.startOffset);
        if (!isNumChannelsSupported(format.channelNum) || format.layout != kPcmLayoutInterleaved ||
            !isSampleSizeSupported(format.sampleSizeInBits) || !format.isSigned) {
            log(LOG_LIFECYCLE, function, "unsupported format");
            return sourceId();
        }
        config.sampleFormat = toORVFormat(format.sampleSizeInBits);
        config.channelLayout = toORVChannelLayout(format.channelNum);
        config.sampleRate = format.sampleRate;
        config.startOffset = format.startOffset;
        releaseAndSetSource(config, source.clusterId);
    } else if (source.type == kSourceTypeUrl) {
        // The URL may carry credentials: it never reaches the log.
        log(LOG_LIFECYCLE, function, "clusterId=%s,url=%s,", logText(source.clusterId),
            source.url != nullptr ? "[redacted]" : "[null]");
        config.setUrl(source.url);
        config.startOffset = static_cast<int32_t>(source.param2);
        config.setPlaybackContextHeadersJSON(source.playbackContextHeadersJSON);
        releaseAndSetSource(config, source.clusterId);
    }
    return sourceId();
}

// Whether the current source must go before `config` is opened: it stays while the new source
// counts as the same one (same type, URL and third text), so that the player is never without
// it. Called with sourcesMutex held.
bool ZEMServerTrack::releaseSourceId(const SourceConfig& config) {
    const long long current = currentSourceId;
    const auto entry = sources.find(current);
    if (current == 0 || entry == sources.end()) return false;
    const SourceConfig& old = entry->second;
    if (old.type == config.type &&
        !differ(old.mediaDescription.thirdText, config.mediaDescription.thirdText) &&
        !differ(old.url, config.url)) {
        return false;
    }
    log(LOG_TRACE, "releaseSourceId", "sourceId=%lld", current);
    handler->releaseSource(current);
    sources.erase(entry);
    return true;
}

// The only place where the source id changes. The player makes the id and it is stored as
// given; the volume and focus session id set so far are applied to the new source before a
// source that counts as the same is released.
void ZEMServerTrack::releaseAndSetSource(const SourceConfig& config, const char* clusterId) {
    std::lock_guard<std::mutex> lock(sourcesMutex);
    const bool released = releaseSourceId(config);
    const long long old = currentSourceId;
    const long long id = handler->setSource(config, clusterId);
    currentSourceId = id;
    if (server != nullptr) server->sourceChanged(trackId, id);
    sources[id] = config;
    const float currentVolume = volume;
    if (currentVolume >= 0.0f) handler->setVolume(currentVolume, id);
    handler->setFocusSessionId(focusSessionId, id);
    // A source that "destroy" released is no longer held, and is not released again.
    if (old != 0 && !released && sources.erase(old) != 0) handler->releaseSource(old);
}

// The log line and the player's operation share the operation's name.
template <typename Result>
Result ZEMServerTrack::forward(LogLevel level, const char* function,
                               Result (OrvServerHandlerInterface::*operation)(long long)) {
    const long long id = sourceId();
    log(level, function, "sourceId=%lld", id);
    return (*handler.*operation)(id);
}

int ZEMServerTrack::play() { return forward(LOG_TRACE, "play", &OrvServerHandlerInterface::play); }

int ZEMServerTrack::stop() { return forward(LOG_TRACE, "stop", &OrvServerHandlerInterface::stop); }

int ZEMServerTrack::pause() {
    return forward(LOG_TRACE, "pause", &OrvServerHandlerInterface::pause);
}

int ZEMServerTrack::resume() {
    return forward(LOG_TRACE, "resume", &OrvServerHandlerInterface::resume);
}

int ZEMServerTrack::seekTo(int offsetInMs, bool fromStart) {
    const long long id = sourceId();
    log(LOG_LIFECYCLE, "seekTo", "sourceId=%lld, offsetInMs=%d, fromStart=%d", id, offsetInMs,
        fromStart ? 1 : 0);
    return handler->seekTo(id, offsetInMs, fromStart);
}

int ZEMServerTrack::getOffset() {
    return forward(LOG_DATA, "getOffset", &OrvServerHandlerInterface::getOffset);
}

MediaPlayerState ZEMServerTrack::getMediaPlayerState() {
    return forward(LOG_TRACE, "getMediaPlayerState",
                   &OrvServerHandlerInterface::getMediaPlayerState);
}

MediaPlayerStateV2 ZEMServerTrack::getMediaPlayerStateV2() {
    return forward(LOG_TRACE, "getMediaPlayerStateV2",
                   &OrvServerHandlerInterface::getMediaPlayerStateV2);
}

PlaybackAttributes ZEMServerTrack::getPlaybackAttributes() {
    return forward(LOG_TRACE, "getPlaybackAttributes",
                   &OrvServerHandlerInterface::getPlaybackAttributes);
}

PlaybackReports ZEMServerTrack::getPlaybackReports() {
    return forward(LOG_TRACE, "getPlaybackReports", &OrvServerHandlerInterface::getPlaybackReports);
}

PlaybackReportArray ZEMServerTrack::getPlaybackReportArray() {
    return forward(LOG_TRACE, "getPlaybackReportArray",
                   &OrvServerHandlerInterface::getPlaybackReportArray);
}

Fingerprint ZEMServerTrack::getFingerprint() {
    return forward(LOG_TRACE, "getFingerprint", &OrvServerHandlerInterface::getFingerprint);
}

int ZEMServerTrack::setVolume(float newVolume) {
    const long long id = sourceId();
    log(LOG_TRACE, "setVolume", "sourceId=%lld,volume=%f", id, static_cast<double>(newVolume));
    volume = newVolume;
    return handler->setVolume(newVolume, id);
}

int ZEMServerTrack::setFocusSessionId(unsigned int newFocusSessionId) {
    const long long id = sourceId();
    log(LOG_TRACE, "setFocusSessionId", "sourceId=%lld,focusSessionId=%u", id, newFocusSessionId);
    focusSessionId = newFocusSessionId;
    return handler->setFocusSessionId(newFocusSessionId, id);
}

int ZEMServerTrack::newDecryptKey(const std::string& key) {
    const long long id = sourceId();
    log(LOG_DEPRECATED, "newDecryptKey", "sourceId=%lld", id);
    return handler->newDecryptKey(id, key.c_str());
}

// A track without a source releases source id 0, as players have always been told.
void ZEMServerTrack::destroy() {
    if (destroyed.exchange(true)) return;
    {
        std::lock_guard<std::mutex> lock(sourcesMutex);
        const long long id = sourceId();
        log(LOG_TRACE, "destroy", "sourceId=%lld", id);
        if (sources.erase(id) != 0 || id == 0) handler->releaseSource(id);
    }
    if (server != nullptr) server->removeTrack(trackId);
}

// The sources still held when the track goes: those a client set after its "destroy".
void ZEMServerTrack::releaseHeldSources() {
    std::map<long long, SourceConfig> held;
    {
        std::lock_guard<std::mutex> lock(sourcesMutex);
        held.swap(sources);
    }
    for (const auto& entry : held) {
        log(LOG_LIFECYCLE, "~ZEMServerTrack", "released sourceId=%lld, set after destroy",
            entry.first);
        handler->releaseSource(entry.first);
    }
}

// The audio is copied once, from the client's reply (or the shared memory it carries) into the
// player's buffer.
int ZEMServerTrack::getData(uint8_t* buffer, unsigned int size) {
    log(LOG_DATA, "getData", "sourceId=%lld", sourceId());
    const int asked = size < kDataRequestLimit ? static_cast<int>(size) : kDataRequestCut;
    std::pair<bool, parlex::AndroidParcel> reply = requestBuffer(asked);
    if (!reply.first) return -1;
    android::Parcel::ReadableBlob data;
    try {
        reply.second.readBufferInplace(&data);
    } catch (const std::exception& error) {
        // A client's malformed answer must not reach the player's thread.
        log(LOG_ERROR, "getData", "malformed reply: %s", error.what());
        return -1;
    }
    if (data.data() == nullptr || data.size() == 0) return -1;
    size_t length = data.size();
    // The player's buffer holds `size` bytes: a client that sends more than it was asked for
    // must not write past it.
    if (length > static_cast<size_t>(asked)) {
        log(LOG_ERROR, "getData", "reply of %zu bytes cut to the %d asked for", length, asked);
        length = static_cast<size_t>(asked);
    }
    std::memcpy(buffer, data.data(), length);
    return static_cast<int>(length);
}

void ZEMServerTrack::closeDataSource() {
    log(LOG_TRACE, "closeDataSource", "sourceId=%lld", sourceId());
    closeAudioSource();
}

}  // namespace orv
