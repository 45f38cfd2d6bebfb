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

// `functions`, in the order given, hold the slots from `first` on. Their signatures are pinned
// by the test doubles that override them (support/TrackCases.h, support/MockPlayer.h).
template <typename... Functions>
void expectSlots(const char* names, long first, Functions... functions) {
    long slot = first;
    const auto expect = [&](long found) {
        EXPECT_EQ(found, slot) << "slot " << slot << " of " << names;
        ++slot;
    };
    (expect(slotOf(functions)), ...);
}
#define SLOTS(first, ...) expectSlots(#__VA_ARGS__, first, __VA_ARGS__)

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

TEST(AbiSlots, Listeners) {
    using L = EventListener;
    SLOTS(2, &L::getBuffer, &L::closeAudioSource, &L::onFirstByteRead, &L::onPlaybackStarted,
          &L::onPlaybackFinished, &L::onPlaybackError, &L::onPlaybackPaused, &L::onPlaybackResumed,
          &L::onPlaybackStopped, &L::onBufferUnderrun, &L::onBufferRefilled,
          &L::onBufferingComplete, &L::onStopRequested, &L::onReportMetric, &L::onServerDeath,
          &L::onStreamMetadataExtracted, &L::onSeeked);
    using L2 = EventListenerV2;
    using L3 = EventListenerV3;
    // Versions 2 and 3 share slots 2 to 18; version 3 adds two.
#define VERSION_TWO_SLOTS(L)                                                                       \
    SLOTS(2, &L::getBuffer, &L::closeAudioSource, &L::onStopRequested, &L::onReportMetric,         \
          &L::onServerDeath, &L::onFirstByteRead, &L::onPlaybackStarted, &L::onPlaybackFinished,   \
          &L::onPlaybackError, &L::onPlaybackPaused, &L::onPlaybackResumed, &L::onPlaybackStopped, \
          &L::onBufferUnderrun, &L::onBufferRefilled, &L::onBufferingComplete,                     \
          &L::onStreamMetadataExtracted, &L::onSeeked)
    VERSION_TWO_SLOTS(L2);
    VERSION_TWO_SLOTS(L3);
#undef VERSION_TWO_SLOTS
    SLOTS(19, &L3::onLicenseAvailable, &L3::onFirstDataSegmentAvailable);
}

TEST(AbiSlots, PlayerHandler) {
    using H = OrvServerHandlerInterface;
    SLOTS(2, &H::setMediaClientDelegate, &H::setSource, &H::play, &H::stop, &H::pause, &H::resume,
          &H::newDecryptKey, &H::getOffset, &H::getMediaPlayerState, &H::getPlaybackAttributes,
          &H::getPlaybackReports, &H::getFingerprint, &H::seekTo, &H::releaseSource,
          &H::getPlaybackReportArray, &H::setVolume, &H::setFocusSessionId,
          &H::getMediaPlayerStateV2);
}

// The delegate's slots, read through the interface and through the server that implements it.
template <typename D>
void expectDelegateSlots() {
    SLOTS(2, &D::getData, &D::closeDataSource, &D::onStopRequested, &D::onFirstByteRead,
          &D::onPlaybackStarted, &D::onPlaybackFinished, &D::onPlaybackError, &D::onPlaybackPaused,
          &D::onPlaybackResumed, &D::onPlaybackStopped, &D::onBufferUnderrunStarted,
          &D::onBufferUnderrunEnded, &D::onBufferingComplete, &D::onStreamMetadataExtracted,
          &D::onSeeked, &D::onLicenseAvailable, &D::onFirstDataSegmentAvailable);
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
