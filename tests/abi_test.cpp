// The virtual-function order of every exported interface, checked against the slots that
// applications and players already built rely on. A reordered or inserted declaration compiles
// cleanly and silently calls the wrong function in every existing binary; only this catches it.
//
// A pointer to a virtual member function holds 1 + the function's byte offset in the vtable
// (the C++ ABI of every platform the library is built for), so each overload's slot is read off
// its pointer. Slots 0 and 1 are the destructor; a moved destructor shifts every slot here.

#include <gtest/gtest.h>
#include <orv/orv.h>

#include <cstdint>
#include <cstring>

namespace orv {
namespace {

template <typename MemberFunction>
long slotOf(MemberFunction function) {
    static_assert(sizeof(function) == 2 * sizeof(uintptr_t), "not an Itanium member pointer");
    uintptr_t words[2];
    std::memcpy(words, &function, sizeof(words));
    if (words[0] % sizeof(void*) != 1) return -1;  // not virtual
    return static_cast<long>((words[0] - 1) / sizeof(void*));
}

#define SLOT(Class, Result, name, Params, expected)                                 \
    EXPECT_EQ(slotOf(static_cast<Result(Class::*) Params>(&Class::name)), expected) \
        << #Class << "::" #name #Params

using Sink = std::shared_ptr<LoggingDelegate>;
using State = const MediaPlayerStateV2&;

TEST(AbiSlots, ClientTrack) {
    using T = ZEMAudioTrack;
    SLOT(T, bool, init, (std::shared_ptr<EventListener>, Sink), 2);
    SLOT(T, long long, setSource, (const ZEMAudioFormat&, const char*), 3);
    SLOT(T, bool, play, (), 4);
    SLOT(T, bool, stop, (), 5);
    SLOT(T, bool, pause, (), 6);
    SLOT(T, bool, resume, (), 7);
    SLOT(T, int, getOffset, (), 8);
    SLOT(T, void, destroy, (), 9);
    SLOT(T, MediaPlayerState, getMediaPlayerState, (), 10);
    SLOT(T, PlaybackAttributes, getPlaybackAttributes, (), 11);
    SLOT(T, PlaybackReports, getPlaybackReports, (), 12);
    SLOT(T, Fingerprint, getFingerprint, (), 13);
    SLOT(T, long long, setSource, (const ZEMAudioSource&), 14);
    SLOT(T, bool, seekTo, (int, bool), 15);
    SLOT(T, long long, setSource, (const ZEMAudioSource&, const MediaDescription&), 16);
    SLOT(T, long long, setSource, (const ZEMAudioSourceV2&, const MediaDescription&), 17);
    SLOT(T, PlaybackReportArray, getPlaybackReportArray, (), 18);
    SLOT(T, bool, setVolume, (float), 19);
    SLOT(T, long long, setSource, (const ZEMAudioSourceV3&, const MediaDescription&), 20);
    SLOT(T, bool, init, (std::shared_ptr<EventListenerV2>, Sink), 21);
    SLOT(T, MediaPlayerStateV2, getMediaPlayerStateV2, (), 22);
    SLOT(T, bool, init, (std::shared_ptr<EventListenerV3>, Sink), 23);
    SLOT(T, long long, setSource, (const ZEMAudioSourceV4&, const MediaDescription&), 24);
    SLOT(T, bool, setFocusSessionId, (unsigned int), 25);
}

TEST(AbiSlots, ListenerVersion1) {
    using L = EventListener;
    SLOT(L, int, getBuffer, (uint8_t*, int), 2);
    SLOT(L, void, closeAudioSource, (), 3);
    SLOT(L, void, onFirstByteRead, (long long, int), 4);
    SLOT(L, void, onPlaybackStarted, (long long, int), 5);
    SLOT(L, void, onPlaybackFinished, (long long, int), 6);
    SLOT(L, void, onPlaybackError, (long long, ErrorType, const char*, int), 7);
    SLOT(L, void, onPlaybackPaused, (long long, int), 8);
    SLOT(L, void, onPlaybackResumed, (long long, int), 9);
    SLOT(L, void, onPlaybackStopped, (long long, int), 10);
    SLOT(L, void, onBufferUnderrun, (long long, int), 11);
    SLOT(L, void, onBufferRefilled, (long long, int), 12);
    SLOT(L, void, onBufferingComplete, (long long, int), 13);
    SLOT(L, void, onStopRequested, (long long), 14);
    SLOT(L, void, onReportMetric, (const char*, const char*), 15);
    SLOT(L, void, onServerDeath, (), 16);
    SLOT(L, void, onStreamMetadataExtracted, (long long, int, const MetadataKeyValuePairs&), 17);
    SLOT(L, void, onSeeked, (long long, int, int), 18);
}

// Versions 2 and 3 share slots 2 to 18; version 3 adds two.
template <typename L>
void expectVersionTwoSlots() {
    SLOT(L, int, getBuffer, (uint8_t*, int), 2);
    SLOT(L, void, closeAudioSource, (), 3);
    SLOT(L, void, onStopRequested, (long long), 4);
    SLOT(L, void, onReportMetric, (const char*, const char*), 5);
    SLOT(L, void, onServerDeath, (), 6);
    SLOT(L, void, onFirstByteRead, (long long, State), 7);
    SLOT(L, void, onPlaybackStarted, (long long, State), 8);
    SLOT(L, void, onPlaybackFinished, (long long, State), 9);
    SLOT(L, void, onPlaybackError, (long long, ErrorType, const char*, State), 10);
    SLOT(L, void, onPlaybackPaused, (long long, State), 11);
    SLOT(L, void, onPlaybackResumed, (long long, State), 12);
    SLOT(L, void, onPlaybackStopped, (long long, State), 13);
    SLOT(L, void, onBufferUnderrun, (long long, State), 14);
    SLOT(L, void, onBufferRefilled, (long long, State), 15);
    SLOT(L, void, onBufferingComplete, (long long, State), 16);
    SLOT(L, void, onStreamMetadataExtracted, (long long, State, const MetadataKeyValuePairs&), 17);
    SLOT(L, void, onSeeked, (long long, State, State), 18);
}

TEST(AbiSlots, ListenerVersions2And3) {
    expectVersionTwoSlots<EventListenerV2>();
    expectVersionTwoSlots<EventListenerV3>();
    using L = EventListenerV3;
    SLOT(L, void, onLicenseAvailable, (long long), 19);
    SLOT(L, void, onFirstDataSegmentAvailable, (long long), 20);
}

TEST(AbiSlots, PlayerHandler) {
    using H = OrvServerHandlerInterface;
    SLOT(H, void, setMediaClientDelegate, (MediaClientDelegate*), 2);
    SLOT(H, long long, setSource, (const SourceConfig&, const char*), 3);
    SLOT(H, int, play, (long long), 4);
    SLOT(H, int, stop, (long long), 5);
    SLOT(H, int, pause, (long long), 6);
    SLOT(H, int, resume, (long long), 7);
    SLOT(H, int, newDecryptKey, (long long, const char*), 8);
    SLOT(H, int, getOffset, (long long), 9);
    SLOT(H, MediaPlayerState, getMediaPlayerState, (long long), 10);
    SLOT(H, PlaybackAttributes, getPlaybackAttributes, (long long), 11);
    SLOT(H, PlaybackReports, getPlaybackReports, (long long), 12);
    SLOT(H, Fingerprint, getFingerprint, (long long), 13);
    SLOT(H, int, seekTo, (long long, int, bool), 14);
    SLOT(H, int, releaseSource, (long long), 15);
    SLOT(H, PlaybackReportArray, getPlaybackReportArray, (long long), 16);
    SLOT(H, int, setVolume, (float, long long), 17);
    SLOT(H, int, setFocusSessionId, (unsigned int, long long), 18);
    SLOT(H, MediaPlayerStateV2, getMediaPlayerStateV2, (long long), 19);
}

// The delegate's slots, read through the interface and through the server that implements it.
template <typename D>
void expectDelegateSlots() {
    SLOT(D, int, getData, (uint8_t*, unsigned int, long long), 2);
    SLOT(D, void, closeDataSource, (long long), 3);
    SLOT(D, void, onStopRequested, (long long), 4);
    SLOT(D, void, onFirstByteRead, (long long, State), 5);
    SLOT(D, void, onPlaybackStarted, (long long, State), 6);
    SLOT(D, void, onPlaybackFinished, (long long, State), 7);
    SLOT(D, void, onPlaybackError, (long long, const ErrorType&, const char*, State), 8);
    SLOT(D, void, onPlaybackPaused, (long long, State), 9);
    SLOT(D, void, onPlaybackResumed, (long long, State), 10);
    SLOT(D, void, onPlaybackStopped, (long long, State), 11);
    SLOT(D, void, onBufferUnderrunStarted, (long long, State), 12);
    SLOT(D, void, onBufferUnderrunEnded, (long long, State), 13);
    SLOT(D, void, onBufferingComplete, (long long, State), 14);
    SLOT(D, void, onStreamMetadataExtracted, (long long, State, const MetadataKeyValuePairs&), 15);
    SLOT(D, void, onSeeked, (long long, State, State), 16);
    SLOT(D, void, onLicenseAvailable, (long long), 17);
    SLOT(D, void, onFirstDataSegmentAvailable, (long long), 18);
}

TEST(AbiSlots, DelegateIsTheServersPrimaryBaseWithItsSlots) {
    expectDelegateSlots<MediaClientDelegate>();
    expectDelegateSlots<AudioServerImpl>();
    // The player gets the server's address as its delegate: the two must be one pointer.
    alignas(AudioServerImpl) static char storage[sizeof(AudioServerImpl)];
    auto* server = reinterpret_cast<AudioServerImpl*>(storage);
    EXPECT_EQ(static_cast<void*>(static_cast<MediaClientDelegate*>(server)),
              static_cast<void*>(server));
    EXPECT_EQ(slotOf(&LoggingDelegate::logMessage), 2);
}

}  // namespace
}  // namespace orv
