// Every name of the track protocol, shared by the client's proxy and the server's stub so that
// neither can drift. These strings are what existing peers send and bind: never change one.
//
// Requests go from the client's proxy to the server's track and always have a reply; events go
// from the server to the client and return once the client has handled them; the one callback,
// kGetBuffer, returns the client's audio as a buffer.
#pragma once

namespace orv::protocol {

constexpr const char kServiceName[] = "com.tarnek.zem.parlex";
constexpr const char kObjectType[] = "ZEMAudioTrack";

// Requests, in the order the server binds them.
constexpr const char kSetSource[] = "setSource";
constexpr const char kSetZEMAudioSource[] = "setZEMAudioSource";
constexpr const char kSetZEMAudioSourceMediaDescription[] = "setZEMAudioSourceMediaDescription";
constexpr const char kSetZEMAudioSourceV2MediaDescription[] = "setZEMAudioSourceV2MediaDescription";
constexpr const char kSetZEMAudioSourceV3MediaDescription[] = "setZEMAudioSourceV3MediaDescription";
constexpr const char kSetZEMAudioSourceV4MediaDescription[] = "setZEMAudioSourceV4MediaDescription";
constexpr const char kPlay[] = "play";
constexpr const char kStop[] = "stop";
constexpr const char kPause[] = "pause";
constexpr const char kResume[] = "resume";
constexpr const char kSeekTo[] = "seekTo";
constexpr const char kGetOffset[] = "getOffset";
constexpr const char kNewDecryptKey[] = "newDecryptKey";
constexpr const char kDestroy[] = "destroy";
constexpr const char kGetMediaPlayerState[] = "getMediaPlayerState";
constexpr const char kGetPlaybackAttributes[] = "getPlaybackAttributes";
constexpr const char kGetPlaybackReports[] = "getPlaybackReports";
constexpr const char kGetFingerprint[] = "getFingerprint";
constexpr const char kGetPlaybackReportArray[] = "getPlaybackReportArray";
constexpr const char kSetVolume[] = "setVolume";
constexpr const char kSetFocusSessionId[] = "setFocusSessionId";
constexpr const char kGetMediaPlayerStateV2[] = "getMediaPlayerStateV2";

// Server to client, in the order the client binds them. kDeath is delivered by the transport
// when the service dies; the server never sends it.
constexpr const char kDeath[] = "death";
constexpr const char kGetBuffer[] = "getBuffer";
constexpr const char kCloseAudioSource[] = "closeAudioSource";
constexpr const char kOnFirstByteRead[] = "onFirstByteRead";
constexpr const char kOnPlaybackStarted[] = "onPlaybackStarted";
constexpr const char kOnPlaybackFinished[] = "onPlaybackFinished";
constexpr const char kOnPlaybackError[] = "onPlaybackError";
constexpr const char kOnPlaybackPaused[] = "onPlaybackPaused";
constexpr const char kOnPlaybackResumed[] = "onPlaybackResumed";
constexpr const char kOnPlaybackStopped[] = "onPlaybackStopped";
constexpr const char kOnBufferUnderrun[] = "onBufferUnderrun";
constexpr const char kOnBufferRefilled[] = "onBufferRefilled";
constexpr const char kOnBufferingComplete[] = "onBufferingComplete";
constexpr const char kOnStreamMetadataExtracted[] = "onStreamMetadataExtracted";
constexpr const char kOnStopRequested[] = "onStopRequested";
constexpr const char kOnSeeked[] = "onSeeked";
constexpr const char kOnLicenseAvailable[] = "onLicenseAvailable";
constexpr const char kOnFirstDataSegmentAvailable[] = "onFirstDataSegmentAvailable";

// The metric event has two names on purpose: the server sends it as kOnReportMetric while the
// client binds kReportMetric, so a metric from this server reaches no client handler. Existing
// peers depend on both names as they stand; neither side may be changed to match the other.
constexpr const char kOnReportMetric[] = "onReportMetric";
constexpr const char kReportMetric[] = "reportMetric";

}  // namespace orv::protocol
