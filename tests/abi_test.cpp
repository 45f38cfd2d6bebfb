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
#define OVERLOAD(Result, name, Params) static_cast<Result(T::*) Params>(&T::name)
#define SET_SOURCE(...) OVERLOAD(long long, setSource, (__VA_ARGS__))
#define INIT(Listener) OVERLOAD(bool, init, (std::shared_ptr<Listener>, Sink))
    SLOTS(2, INIT(EventListener), SET_SOURCE(const ZEMAudioFormat&, const char*), &T::play,
          &T::stop, &T::pause, &T::resume, &T::getOffset, &T::destroy, &T::getMediaPlayerState,
          &T::getPlaybackAttributes, &T::getPlaybackReports, &T::getFingerprint,
          SET_SOURCE(const ZEMAudioSource&), &T::seekTo,
          SET_SOURCE(const ZEMAudioSource&, const MediaDescription&),
          SET_SOURCE(const ZEMAudioSourceV2&, const MediaDescription&), &T::getPlaybackReportArray,
          &T::setVolume, SET_SOURCE(const ZEMAudioSourceV3&, const MediaDescription&),
          INIT(EventListenerV2), &T::getMediaPlayerStateV2, INIT(EventListenerV3),
          SET_SOURCE(const ZEMAudioSourceV4&, const MediaDescription&), &T::setFocusSessionId);
#undef OVERLOAD
#undef SET_SOURCE
#undef INIT
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
