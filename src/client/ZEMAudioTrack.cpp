// The client half: the exported track and its factory, the implementation that owns the
// connection, and the track proxy with its requests, its event dispatch and its audio supply.
//
// Requests run on the application's threads, one at a time per track (the call lock). Events,
// "getBuffer" and "death" run on the transport's threads and never take the call lock, so a
// listener may issue requests from inside an event.
#include <orv/ZEMAudioTrack.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "client/ClientTrackImpl.h"
#include "client/ZEMAudioTrackClient.h"
#include "common/LogFormat.h"
#include "common/RecordCodec.h"
#include "parlex/TrackProtocol.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_LEAK_CHECKER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ORV_LEAK_CHECKER 1
#endif
#if defined(ORV_LEAK_CHECKER)
#include <sanitizer/lsan_interface.h>
#endif

namespace orv {

namespace {

constexpr const char* kClientTag = "ZEMAudioTrackClient";
constexpr const char* kImplTag = "ClientTrackImpl";
constexpr const char* kNoListener = "No listener found";

// A connection from an earlier init is let go, never stopped or freed: it stays connected for
// the rest of the process. Applications were built against that behaviour, so it is kept; the
// leak checker is told that this one is intended.
void keepForRestOfProcess(std::unique_ptr<parlex::AndroidClient> client) {
    parlex::AndroidClient* kept = client.release();
#if defined(ORV_LEAK_CHECKER)
    if (kept != nullptr) __lsan_ignore_object(kept);
#endif
    static_cast<void>(kept);
}

// The failure defaults of the record requests, built fresh for every failed call.
MediaPlayerProtection noProtection() { return MediaPlayerProtection("", false); }

MediaPlayerState noMediaPlayerState() {
    MediaPlayerState state;
    state.protection = noProtection();
    return state;
}

MediaPlayerStateV2 noMediaPlayerStateV2() { return MediaPlayerStateV2(0, 0, noProtection(), ""); }

}  // namespace

// ---- TrackListeners ----

void TrackListeners::setListener(std::weak_ptr<EventListener> listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    v1_ = std::move(listener);
}

void TrackListeners::setListener(std::weak_ptr<EventListenerV2> listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    v2_ = std::move(listener);
}

void TrackListeners::setListener(std::weak_ptr<EventListenerV3> listener) {
    std::lock_guard<std::mutex> lock(mutex_);
    v3_ = std::move(listener);
}

TrackListeners::Newest TrackListeners::newest() const {
    std::lock_guard<std::mutex> lock(mutex_);
    Newest found;
    if ((found.v3 = v3_.lock())) return found;
    if ((found.v2 = v2_.lock())) return found;
    found.v1 = v1_.lock();
    return found;
}

// ---- ZEMAudioTrackClient: construction and the call path ----

ZEMAudioTrackClient::ZEMAudioTrackClient(std::shared_ptr<LoggingDelegate> logger,
                                         parlex::AndroidClient* client, std::string type)
    : IAudioTrackRPC(std::move(logger), kClientTag), AndroidProxy(client, type) {
    bindIncoming();
}

ZEMAudioTrackClient::~ZEMAudioTrackClient() = default;

// The handlers call their targets by qualified name, so that a delivery still running while
// the track is deleted never reads the object's virtual table.
void ZEMAudioTrackClient::bindIncoming() {
    using Self = ZEMAudioTrackClient;
    using State = MediaPlayerStateV2;
    namespace p = protocol;
    bind(p::kDeath, [this] { Self::onServerDeath(); });
    // The listener fills the reply where it lies, so the audio is not copied on this side.
    bindParcels(p::kGetBuffer,
                [this](const parlex::AndroidParcel& request, parlex::AndroidParcel* reply) {
                    const int size = request.as<int>();
                    if (reply != nullptr) {
                        Self::writeBuffer(size, *reply);
                    } else {
                        Self::getBuffer(size);  // the listener is still asked, as for any handler
                    }
                });
    bind(p::kCloseAudioSource, [this] { Self::closeAudioSource(); });
    bind(p::kOnFirstByteRead, [this](long long id, State s) { Self::onFirstByteRead(id, s); });
    bind(p::kOnPlaybackStarted, [this](long long id, State s) { Self::onPlaybackStarted(id, s); });
    bind(p::kOnPlaybackFinished,
         [this](long long id, State s) { Self::onPlaybackFinished(id, s); });
    bind(p::kOnPlaybackError, [this](long long id, int type, std::string error, State s) {
        Self::onPlaybackError(id, static_cast<ErrorType>(type), error, s);
    });
    bind(p::kOnPlaybackPaused, [this](long long id, State s) { Self::onPlaybackPaused(id, s); });
    bind(p::kOnPlaybackResumed, [this](long long id, State s) { Self::onPlaybackResumed(id, s); });
    // Bound twice, as every client so far has done; the second binding replaces the first and
    // leads to the same handler.
    bind(p::kOnPlaybackStopped, [this](long long id, State s) { Self::onPlaybackStopped(id, s); });
    bind(p::kOnPlaybackStopped, [this](long long id, State s) { Self::onPlaybackStopped(id, s); });
    bind(p::kOnBufferUnderrun, [this](long long id, State s) { Self::onBufferUnderrun(id, s); });
    bind(p::kOnBufferRefilled, [this](long long id, State s) { Self::onBufferRefilled(id, s); });
    bind(p::kOnBufferingComplete,
         [this](long long id, State s) { Self::onBufferingComplete(id, s); });
    bind(p::kOnStreamMetadataExtracted, [this](long long id, State s, MetadataKeyValuePairs m) {
        Self::onStreamMetadataExtracted(id, s, m);
    });
    bind(p::kOnStopRequested, [this](long long id) { Self::onStopRequested(id); });
    // The client's name for the metric event, which differs from the one the server sends.
    bind(p::kReportMetric,
         [this](std::string first, std::string second) { Self::onReportMetric(first, second); });
    bind(p::kOnSeeked,
         [this](long long id, State before, State after) { Self::onSeeked(id, before, after); });
    bind(p::kOnLicenseAvailable, [this](long long id) { Self::onLicenseAvailable(id); });
    bind(p::kOnFirstDataSegmentAvailable,
         [this](long long id) { Self::onFirstDataSegmentAvailable(id); });
}

template <typename Read, typename... Args>
bool ZEMAudioTrackClient::remoteCall(Read&& read, const std::string& method, const Args&... args) {
    std::lock_guard<std::mutex> lock(callMutex_);
    if (serverDead_) {
        log(LOG_ERROR, "remoteCall", "server not running");
        return false;
    }
    try {
        // A reply that cannot be read, a count beyond its record's capacity for one, fails here
        // like any other failure of the call, so that nothing thrown reaches the application.
        read(call(method, args...));
        return true;
    } catch (const parlex::dead_object&) {
        // Not marked dead here: only the death notification does that, and until it arrives
        // the next request tries the server again.
        log(LOG_ERROR, "remoteCall", "server is dead");
    } catch (const std::exception& error) {
        log(LOG_ERROR, "remoteCall", "RPC failed exception: %s", error.what());
    } catch (...) {
        log(LOG_ERROR, "remoteCall", "Unknown exception");
    }
    return false;
}

template <typename... Args>
int ZEMAudioTrackClient::flagRequest(const char* method, const Args&... args) {
    return remoteCall([](const parlex::AndroidParcel&) {}, method, args...) ? 1 : 0;
}

// A reply without a number leaves 0.
template <typename... Args>
long long ZEMAudioTrackClient::sourceIdRequest(const char* method, const Args&... args) {
    int64_t sourceId = 0;
    auto read = [&](const parlex::AndroidParcel& reply) { reply->readInt64(&sourceId); };
    return remoteCall(read, method, args...) ? sourceId : -1;
}

template <typename Record, typename Fallback>
Record ZEMAudioTrackClient::recordRequest(const char* method, Fallback fallback) {
    Record record;
    auto read = [&](const parlex::AndroidParcel& reply) { reply >> record; };
    if (remoteCall(read, method)) return record;
    return fallback();
}

template <typename Source>
long long ZEMAudioTrackClient::setSourceCommon(const char* logName, const char* method,
                                               const Source& source,
                                               const MediaDescription& description) {
    log(LOG_TRACE, logName, " ");
    return sourceIdRequest(method, source, description);
}

// ---- Requests ----

long long ZEMAudioTrackClient::setSource(const ZEMAudioFormat& format, const char* clusterId) {
    log(LOG_TRACE, "setSource", " ");
    return sourceIdRequest(protocol::kSetSource, format, clusterId);
}

long long ZEMAudioTrackClient::setSource(const ZEMAudioSource& source) {
    log(LOG_TRACE, "setSource", " ");
    return sourceIdRequest(protocol::kSetZEMAudioSource, source);
}

long long ZEMAudioTrackClient::setSource(const ZEMAudioSource& source,
                                         const MediaDescription& description) {
    return setSourceCommon("setSource", protocol::kSetZEMAudioSourceMediaDescription, source,
                           description);
}

long long ZEMAudioTrackClient::setSource(const ZEMAudioSourceV2& source,
                                         const MediaDescription& description) {
    return setSourceCommon("setSource", protocol::kSetZEMAudioSourceV2MediaDescription, source,
                           description);
}

long long ZEMAudioTrackClient::setSource(const ZEMAudioSourceV3& source,
                                         const MediaDescription& description) {
    return setSourceCommon("setSource", protocol::kSetZEMAudioSourceV3MediaDescription, source,
                           description);
}

long long ZEMAudioTrackClient::setSource(const ZEMAudioSourceV4& source,
                                         const MediaDescription& description) {
    return setSourceCommon("setSource", protocol::kSetZEMAudioSourceV4MediaDescription, source,
                           description);
}

int ZEMAudioTrackClient::play() {
    log(LOG_TRACE, "play", " ");
    return flagRequest(protocol::kPlay);
}

int ZEMAudioTrackClient::stop() {
    log(LOG_TRACE, "stop", " ");
    return flagRequest(protocol::kStop);
}

int ZEMAudioTrackClient::pause() {
    log(LOG_TRACE, "pause", " ");
    return flagRequest(protocol::kPause);
}

int ZEMAudioTrackClient::resume() {
    log(LOG_TRACE, "resume", " ");
    return flagRequest(protocol::kResume);
}

int ZEMAudioTrackClient::seekTo(int offsetInMs, bool fromStart) {
    log(LOG_TRACE, "seekTo", "millis=%d, fromStart=%d", offsetInMs, fromStart ? 1 : 0);
    return flagRequest(protocol::kSeekTo, offsetInMs, fromStart);
}

int ZEMAudioTrackClient::getOffset() {
    log(LOG_DATA, "getOffset", " ");
    int32_t offset = 0;  // a reply without a number leaves 0
    auto read = [&](const parlex::AndroidParcel& reply) { reply->readInt32(&offset); };
    return remoteCall(read, protocol::kGetOffset) ? offset : -1;
}

void ZEMAudioTrackClient::destroy() {
    log(LOG_TRACE, "destroy", " ");
    flagRequest(protocol::kDestroy);
}

MediaPlayerState ZEMAudioTrackClient::getMediaPlayerState() {
    log(LOG_TRACE, "getMediaPlayerState", " ");
    return recordRequest<MediaPlayerState>(protocol::kGetMediaPlayerState, noMediaPlayerState);
}

MediaPlayerStateV2 ZEMAudioTrackClient::getMediaPlayerStateV2() {
    log(LOG_TRACE, "getMediaPlayerStateV2", " ");
    return recordRequest<MediaPlayerStateV2>(protocol::kGetMediaPlayerStateV2,
                                             noMediaPlayerStateV2);
}

// Deliberately silent, whatever the outcome.
PlaybackAttributes ZEMAudioTrackClient::getPlaybackAttributes() {
    return recordRequest<PlaybackAttributes>(protocol::kGetPlaybackAttributes,
                                             [] { return PlaybackAttributes("", "", 0, 0); });
}

PlaybackReports ZEMAudioTrackClient::getPlaybackReports() {
    log(LOG_DEPRECATED, "getPlaybackReports",
        "Deprecated getPlaybackReports function, this device is using an outdated client.");
    return recordRequest<PlaybackReports>(protocol::kGetPlaybackReports,
                                          [] { return PlaybackReports(); });
}

PlaybackReportArray ZEMAudioTrackClient::getPlaybackReportArray() {
    log(LOG_TRACE, "getPlaybackReportArray", "%s", "");
    return recordRequest<PlaybackReportArray>(protocol::kGetPlaybackReportArray,
                                              [] { return PlaybackReportArray(); });
}

Fingerprint ZEMAudioTrackClient::getFingerprint() {
    log(LOG_TRACE, "getFingerprint", " ");
    return recordRequest<Fingerprint>(protocol::kGetFingerprint,
                                      [] { return Fingerprint("", "", ""); });
}

int ZEMAudioTrackClient::setVolume(float volumeGain) {
    log(LOG_TRACE, "setVolume", "volumeGain=%f", static_cast<double>(volumeGain));
    return flagRequest(protocol::kSetVolume, volumeGain);
}

int ZEMAudioTrackClient::setFocusSessionId(unsigned int focusSessionId) {
    log(LOG_TRACE, "setFocusSessionId", "focusSessionId=%u", focusSessionId);
    return flagRequest(protocol::kSetFocusSessionId, focusSessionId);
}

// The key never reaches the log.
int ZEMAudioTrackClient::newDecryptKey(const std::string& key) {
    log(LOG_TRACE, "newDecryptKey", "%s", "");
    return flagRequest(protocol::kNewDecryptKey, key);
}

// ---- Delivery to the listener ----

template <typename ToV3orV2, typename ToV1>
void ZEMAudioTrackClient::deliver(const char* function, ToV3orV2&& toV3orV2, ToV1&& toV1) {
    const Newest listener = newest();
    if (listener.v3) {
        toV3orV2(*listener.v3);
    } else if (listener.v2) {
        toV3orV2(*listener.v2);
    } else if (listener.v1) {
        toV1(*listener.v1);
    } else {
        log(LOG_ERROR, function, kNoListener);
    }
}

template <typename ToV3>
void ZEMAudioTrackClient::deliverToV3(const char* function, ToV3&& toV3) {
    const Newest listener = newest();
    if (listener.v3) {
        toV3(*listener.v3);
    } else {
        log(LOG_ERROR, function, kNoListener);
    }
}

template <typename ToV3orV2, typename ToV1>
void ZEMAudioTrackClient::stateEvent(const char* function, long long sourceId,
                                     const MediaPlayerStateV2& state, ToV3orV2&& toV3orV2,
                                     ToV1&& toV1) {
    log(LOG_TRACE, function, "sourceId=%lld, offsetMs=%d", sourceId, state.offsetMs);
    deliver(function, toV3orV2, toV1);
}

// ---- Audio supply ----

// A reply larger than a message could never be sent, so a size beyond it is refused before
// anything is allocated: a service asking for 2 GiB costs this process nothing.
void ZEMAudioTrackClient::checkBufferSize(int size) {
    log(LOG_DATA, "getBuffer", "size=%d", size);
    if (size < 0 || static_cast<size_t>(size) > parlex::kMaxMessageSize) {
        log(LOG_ERROR, "getBuffer", "refused a request for %d bytes", size);
        throw std::invalid_argument(size < 0 ? "getBuffer: negative size " + std::to_string(size)
                                             : "getBuffer: size " + std::to_string(size) +
                                                   " above the message limit");
    }
}

// The listener writes into `bytes`, and only what it reports as written is sent. A count
// outside [0, size] would read past the buffer or fail the copy on this transport thread; it is
// brought into range instead.
int ZEMAudioTrackClient::fillBuffer(uint8_t* bytes, int size) {
    int count = 0;
    auto fill = [&](auto& listener) { count = listener.getBuffer(bytes, size); };
    deliver("getBuffer", fill, fill);
    if (count < 0 || count > size) {
        const int used = count < 0 ? 0 : size;
        log(LOG_ERROR, "getBuffer", "listener wrote %d bytes into a buffer of %d; using %d", count,
            size, used);
        count = used;
    }
    return count;
}

parlex::AndroidBuffer ZEMAudioTrackClient::getBuffer(int size) {
    checkBufferSize(size);
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[static_cast<size_t>(size)]);
    const int count = fillBuffer(bytes.get(), size);
    return parlex::AndroidBuffer(static_cast<unsigned int>(count), bytes.get(), true);
}

void ZEMAudioTrackClient::writeBuffer(int size, parlex::AndroidParcel& reply) {
    checkBufferSize(size);
    const auto length = static_cast<unsigned int>(size);
    if (uint8_t* bytes = reply.writeBufferInplace(length)) {
        reply.finishBufferInplace(length, static_cast<unsigned int>(fillBuffer(bytes, size)));
        return;
    }
    // Too large to travel in place: filled aside, then copied into the reply's shared memory.
    std::unique_ptr<uint8_t[]> bytes(new uint8_t[length]);
    const int count = fillBuffer(bytes.get(), size);
    reply << parlex::AndroidBuffer(static_cast<unsigned int>(count), bytes.get(), false);
}

// ---- Events ----

void ZEMAudioTrackClient::closeAudioSource() {
    log(LOG_TRACE, "closeAudioSource", " ");
    auto close = [](auto& listener) { listener.closeAudioSource(); };
    deliver("closeAudioSource", close, close);
}

void ZEMAudioTrackClient::onFirstByteRead(long long sourceId, const MediaPlayerStateV2& state) {
    log(LOG_TRACE, "onFirstByteRead", "sourceId=%lld, offsetMs=%d, playlistType=%s", sourceId,
        state.offsetMs, logText(state.playlistType));
    deliver(
        "onFirstByteRead", [&](auto& listener) { listener.onFirstByteRead(sourceId, state); },
        [&](EventListener& listener) { listener.onFirstByteRead(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onPlaybackStarted(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onPlaybackStarted", sourceId, state,
        [&](auto& listener) { listener.onPlaybackStarted(sourceId, state); },
        [&](EventListener& listener) { listener.onPlaybackStarted(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onPlaybackFinished(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onPlaybackFinished", sourceId, state,
        [&](auto& listener) { listener.onPlaybackFinished(sourceId, state); },
        [&](EventListener& listener) { listener.onPlaybackFinished(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onPlaybackError(long long sourceId, ErrorType type,
                                          const std::string& error,
                                          const MediaPlayerStateV2& state) {
    log(LOG_TRACE, "onPlaybackError", "sourceId=%lld, type=%d, error=%s, offsetMs=%d", sourceId,
        static_cast<int>(type), error.c_str(), state.offsetMs);
    deliver(
        "onPlaybackError",
        [&](auto& listener) { listener.onPlaybackError(sourceId, type, error.c_str(), state); },
        [&](EventListener& listener) {
            listener.onPlaybackError(sourceId, type, error.c_str(), state.offsetMs);
        });
}

void ZEMAudioTrackClient::onPlaybackPaused(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onPlaybackPaused", sourceId, state,
        [&](auto& listener) { listener.onPlaybackPaused(sourceId, state); },
        [&](EventListener& listener) { listener.onPlaybackPaused(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onPlaybackResumed(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onPlaybackResumed", sourceId, state,
        [&](auto& listener) { listener.onPlaybackResumed(sourceId, state); },
        [&](EventListener& listener) { listener.onPlaybackResumed(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onPlaybackStopped(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onPlaybackStopped", sourceId, state,
        [&](auto& listener) { listener.onPlaybackStopped(sourceId, state); },
        [&](EventListener& listener) { listener.onPlaybackStopped(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onBufferUnderrun(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onBufferUnderrun", sourceId, state,
        [&](auto& listener) { listener.onBufferUnderrun(sourceId, state); },
        [&](EventListener& listener) { listener.onBufferUnderrun(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onBufferRefilled(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onBufferRefilled", sourceId, state,
        [&](auto& listener) { listener.onBufferRefilled(sourceId, state); },
        [&](EventListener& listener) { listener.onBufferRefilled(sourceId, state.offsetMs); });
}

void ZEMAudioTrackClient::onBufferingComplete(long long sourceId, const MediaPlayerStateV2& state) {
    stateEvent(
        "onBufferingComplete", sourceId, state,
        [&](auto& listener) { listener.onBufferingComplete(sourceId, state); },
        [&](EventListener& listener) { listener.onBufferingComplete(sourceId, state.offsetMs); });
}

// The metadata itself is not logged.
void ZEMAudioTrackClient::onStreamMetadataExtracted(long long sourceId,
                                                    const MediaPlayerStateV2& state,
                                                    const MetadataKeyValuePairs& metadata) {
    stateEvent(
        "onStreamMetadataExtracted", sourceId, state,
        [&](auto& listener) { listener.onStreamMetadataExtracted(sourceId, state, metadata); },
        [&](EventListener& listener) {
            listener.onStreamMetadataExtracted(sourceId, state.offsetMs, metadata);
        });
}

void ZEMAudioTrackClient::onStopRequested(long long sourceId) {
    log(LOG_TRACE, "onStopRequested", "sourceId=%lld", sourceId);
    auto toAny = [&](auto& listener) { listener.onStopRequested(sourceId); };
    deliver("onStopRequested", toAny, toAny);
}

// Only the first text is logged.
void ZEMAudioTrackClient::onReportMetric(const std::string& first, const std::string& second) {
    log(LOG_TRACE, "onReportMetric", "metric=%s", first.c_str());
    auto toAny = [&](auto& listener) { listener.onReportMetric(first.c_str(), second.c_str()); };
    deliver("onReportMetric", toAny, toAny);
}

void ZEMAudioTrackClient::onSeeked(long long sourceId, const MediaPlayerStateV2& before,
                                   const MediaPlayerStateV2& after) {
    log(LOG_TRACE, "onSeeked", "sourceId=%lld, beforeSeekOffsetMs=%d, afterSeekOffsetMs=%d",
        sourceId, before.offsetMs, after.offsetMs);
    deliver(
        "onSeeked", [&](auto& listener) { listener.onSeeked(sourceId, before, after); },
        [&](EventListener& listener) {
            listener.onSeeked(sourceId, before.offsetMs, after.offsetMs);
        });
}

void ZEMAudioTrackClient::onLicenseAvailable(long long sourceId) {
    log(LOG_TRACE, "onLicenseAvailable", "sourceId=%lld", sourceId);
    deliverToV3("onLicenseAvailable",
                [&](EventListenerV3& listener) { listener.onLicenseAvailable(sourceId); });
}

void ZEMAudioTrackClient::onFirstDataSegmentAvailable(long long sourceId) {
    log(LOG_TRACE, "onFirstDataSegmentAvailable", "sourceId=%lld", sourceId);
    deliverToV3("onFirstDataSegmentAvailable",
                [&](EventListenerV3& listener) { listener.onFirstDataSegmentAvailable(sourceId); });
}

// The handler of "death": "operator()" names it in the log, as it always has.
void ZEMAudioTrackClient::onServerDeath() {
    serverDead_ = true;
    auto tell = [](auto& listener) { listener.onServerDeath(); };
    deliver("operator()", tell, tell);
    log(LOG_LIFECYCLE, "operator()", "received server death notification");
}

// ---- ClientTrackImpl ----

ClientTrackImpl::~ClientTrackImpl() {
    proxy_.reset();
    client_.reset();
}

template <typename Listener>
bool ClientTrackImpl::connectWith(std::shared_ptr<Listener> listener,
                                  std::shared_ptr<LoggingDelegate> logger,
                                  const std::string& serviceName) {
    if (!createZEMAudioTrackClient(logger, serviceName)) return false;
    proxy_->setListener(std::weak_ptr<Listener>(listener));
    return true;
}

bool ClientTrackImpl::init(std::shared_ptr<EventListener> listener,
                           std::shared_ptr<LoggingDelegate> logger,
                           const std::string& serviceName) {
    return connectWith(std::move(listener), std::move(logger), serviceName);
}

bool ClientTrackImpl::init(std::shared_ptr<EventListenerV2> listener,
                           std::shared_ptr<LoggingDelegate> logger,
                           const std::string& serviceName) {
    return connectWith(std::move(listener), std::move(logger), serviceName);
}

bool ClientTrackImpl::init(std::shared_ptr<EventListenerV3> listener,
                           std::shared_ptr<LoggingDelegate> logger,
                           const std::string& serviceName) {
    return connectWith(std::move(listener), std::move(logger), serviceName);
}

bool ClientTrackImpl::createZEMAudioTrackClient(const std::shared_ptr<LoggingDelegate>& logger,
                                                const std::string& serviceName) {
    try {
        auto client = std::make_unique<parlex::AndroidClient>(serviceName);
        keepForRestOfProcess(std::move(client_));
        client_ = std::move(client);
        // When this throws, the new connection stays in place beside the earlier proxy.
        proxy_ =
            std::make_unique<ZEMAudioTrackClient>(logger, client_.get(), protocol::kObjectType);
        return true;
    } catch (const std::runtime_error& error) {
        logger->logMessage(LOG_ERROR, kImplTag, error.what());
        return false;
    }
}

void ClientTrackImpl::destroy() {
    proxy_->destroy();
    if (client_) client_->stop();
}

// ---- The exported track ----

ZEMAudioTrack::ZEMAudioTrack() : impl_(std::make_unique<ClientTrackImpl>()) {}

ZEMAudioTrack::~ZEMAudioTrack() = default;

bool ZEMAudioTrack::init(std::shared_ptr<EventListener> listener,
                         std::shared_ptr<LoggingDelegate> logger) {
    return impl_->init(std::move(listener), std::move(logger), protocol::kServiceName);
}

bool ZEMAudioTrack::init(std::shared_ptr<EventListenerV2> listener,
                         std::shared_ptr<LoggingDelegate> logger) {
    return impl_->init(std::move(listener), std::move(logger), protocol::kServiceName);
}

bool ZEMAudioTrack::init(std::shared_ptr<EventListenerV3> listener,
                         std::shared_ptr<LoggingDelegate> logger) {
    return impl_->init(std::move(listener), std::move(logger), protocol::kServiceName);
}

long long ZEMAudioTrack::setSource(const ZEMAudioFormat& format, const char* clusterId) {
    return impl_->proxy()->setSource(format, clusterId);
}

long long ZEMAudioTrack::setSource(const ZEMAudioSource& source) {
    return impl_->proxy()->setSource(source);
}

long long ZEMAudioTrack::setSource(const ZEMAudioSource& source,
                                   const MediaDescription& description) {
    return impl_->proxy()->setSource(source, description);
}

long long ZEMAudioTrack::setSource(const ZEMAudioSourceV2& source,
                                   const MediaDescription& description) {
    return impl_->proxy()->setSource(source, description);
}

long long ZEMAudioTrack::setSource(const ZEMAudioSourceV3& source,
                                   const MediaDescription& description) {
    return impl_->proxy()->setSource(source, description);
}

long long ZEMAudioTrack::setSource(const ZEMAudioSourceV4& source,
                                   const MediaDescription& description) {
    return impl_->proxy()->setSource(source, description);
}

bool ZEMAudioTrack::play() { return impl_->proxy()->play() != 0; }
bool ZEMAudioTrack::stop() { return impl_->proxy()->stop() != 0; }
bool ZEMAudioTrack::pause() { return impl_->proxy()->pause() != 0; }
bool ZEMAudioTrack::resume() { return impl_->proxy()->resume() != 0; }

bool ZEMAudioTrack::seekTo(int millis, bool fromStart) {
    return impl_->proxy()->seekTo(millis, fromStart) != 0;
}

int ZEMAudioTrack::getOffset() { return impl_->proxy()->getOffset(); }

void ZEMAudioTrack::destroy() { impl_->destroy(); }

MediaPlayerState ZEMAudioTrack::getMediaPlayerState() {
    return impl_->proxy()->getMediaPlayerState();
}

MediaPlayerStateV2 ZEMAudioTrack::getMediaPlayerStateV2() {
    return impl_->proxy()->getMediaPlayerStateV2();
}

PlaybackAttributes ZEMAudioTrack::getPlaybackAttributes() {
    return impl_->proxy()->getPlaybackAttributes();
}

PlaybackReports ZEMAudioTrack::getPlaybackReports() { return impl_->proxy()->getPlaybackReports(); }

PlaybackReportArray ZEMAudioTrack::getPlaybackReportArray() {
    return impl_->proxy()->getPlaybackReportArray();
}

Fingerprint ZEMAudioTrack::getFingerprint() { return impl_->proxy()->getFingerprint(); }

bool ZEMAudioTrack::setVolume(float volumeGain) {
    return impl_->proxy()->setVolume(volumeGain) != 0;
}

bool ZEMAudioTrack::setFocusSessionId(unsigned int focusSessionId) {
    return impl_->proxy()->setFocusSessionId(focusSessionId) != 0;
}

}  // namespace orv

orv::ZEMAudioTrack* createZEMAudioTrack() { return new orv::ZEMAudioTrack(); }
