// What the client tests compare against: a listener that journals its calls, the text form of
// every record, and every request and player event with what must come out at each end.
#pragma once

#include <orv/EventListener.h>
#include <orv/MediaClientDelegate.h>
#include <orv/Records.h>
#include <orv/ZEMAudioTrack.h>

#include <atomic>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/RecordingLogSink.h"

namespace orv::test {

inline uint8_t patternByte(uint64_t i) { return static_cast<uint8_t>(i * 7 + (i >> 11)); }

// A number as std::to_string writes it (a flag as 1 or 0), an enumeration as its number.
template <typename N, typename = std::enable_if_t<std::is_arithmetic_v<N> || std::is_enum_v<N>>>
std::string text(N value) {
    return std::to_string(static_cast<std::conditional_t<std::is_enum_v<N>, int, N>>(value));
}
inline std::string text(const char* value) { return value != nullptr ? value : "(null)"; }
inline std::string text(const PlaybackAttributes& a);
template <typename... T>
std::string join(const T&... values) {
    return ((text(values) + "/") + ...);
}
inline std::string text(const MediaPlayerState& s) {
    return join(s.offsetMs, s.stateCode, s.protection.protection, s.protection.isProtected);
}
inline std::string text(const MediaPlayerStateV2& s) {
    return join(s.offsetMs, s.stateCode, s.protection.protection, s.protection.isProtected,
                s.playlistType);
}
inline std::string text(const PlaybackAttributes& a) {
    return join(a.firstText, a.secondText, a.firstValue, a.secondValue);
}
inline std::string text(const Fingerprint& f) { return join(f.first, f.second, f.third); }
// PlaybackReports and PlaybackReportArray: the count and the reports in use.
template <typename R, typename = decltype(R::reports)>
std::string text(const R& r) {
    std::string line = text(r.count) + ":";
    for (uint32_t i = 0; i < r.count; ++i)
        line += join(r.reports[i].firstValue, r.reports[i].attributes);
    return line;
}
// The count and the first pair, the one the tests send.
inline std::string text(const MetadataKeyValuePairs& m) {
    return text(m.count) + ":" + join(m.pairs[0].key, m.pairs[0].value);
}

constexpr LogLevel kCall = LogLevel(0);  // the level at which listeners journal their calls

// Journals each call as a line "name args" at kCall, tagged `tag`, into the client's log sink,
// so that tests see the calls in order among the client's lines. Registered under one version.
class RecordingListener : public EventListener, public EventListenerV2, public EventListenerV3 {
public:
    using L = long long;
    using S = const MediaPlayerStateV2&;
    using M = const MetadataKeyValuePairs&;
    using C = const char*;
    RecordingListener(std::shared_ptr<RecordingLogSink> journal, std::string tag)
        : journal_(std::move(journal)), tag_(std::move(tag)) {}
    // getBuffer's count for the size asked (the pattern advances by the bytes that fit) and what
    // runs after each call is journaled. Set before the listener is registered: the calls come
    // on transport threads.
    std::function<int(int size)> count = [](int size) { return size; };
    std::function<void()> then = [] {};

    int getBuffer(uint8_t* buffer, int size) override {
        const int n = count(size);
        for (int i = 0; i < n && i < size; ++i) buffer[i] = patternByte(supplied_++);
        return n;
    }
// Versions 3 and 2 get the state, version 1 only its offset.
#define ORV_TEST_STATE_EVENT(name)                           \
    void name(L i, S s) override { record(__func__, i, s); } \
    void name(L i, int s) override { record(__func__, i, s); }
    ORV_TEST_STATE_EVENT(onFirstByteRead)
    ORV_TEST_STATE_EVENT(onPlaybackStarted)
    ORV_TEST_STATE_EVENT(onPlaybackFinished)
    ORV_TEST_STATE_EVENT(onPlaybackPaused)
    ORV_TEST_STATE_EVENT(onPlaybackResumed)
    ORV_TEST_STATE_EVENT(onPlaybackStopped)
    ORV_TEST_STATE_EVENT(onBufferUnderrun)
    ORV_TEST_STATE_EVENT(onBufferRefilled)
    ORV_TEST_STATE_EVENT(onBufferingComplete)
#undef ORV_TEST_STATE_EVENT
    void onPlaybackError(L i, ErrorType t, C e, S s) override { record(__func__, i, t, e, s); }
    void onPlaybackError(L i, ErrorType t, C e, int s) override { record(__func__, i, t, e, s); }
    void onStreamMetadataExtracted(L i, S s, M m) override { record(__func__, i, s, m); }
    void onStreamMetadataExtracted(L i, int s, M m) override { record(__func__, i, s, m); }
    void onSeeked(L i, S a, S b) override { record(__func__, i, a, b); }
    void onSeeked(L i, int a, int b) override { record(__func__, i, a, b); }
    void closeAudioSource() override { record(__func__); }
    void onStopRequested(L i) override { record(__func__, i); }
    void onReportMetric(C a, C b) override { record(__func__, a, b); }
    void onServerDeath() override { record(__func__); }
    void onLicenseAvailable(L i) override { record(__func__, i); }
    void onFirstDataSegmentAvailable(L i) override { record(__func__, i); }

private:
    template <typename... Args>
    void record(const char* name, const Args&... args) {
        std::string line = name;
        ((line += " " + text(args)), ...);
        journal_->logMessage(kCall, tag_.c_str(), line.c_str());
        then();
    }

    const std::shared_ptr<RecordingLogSink> journal_;
    const std::string tag_;
    std::atomic<uint64_t> supplied_{0};
};

constexpr long long kSourceId = 7;
inline MediaPlayerStateV2 eventState() {
    return MediaPlayerStateV2(1000, 3, MediaPlayerProtection("drm", true), "live");
}
inline MediaPlayerStateV2 seekedState() { return MediaPlayerStateV2(5000, 4, {}, nullptr); }

// Each player event in the order the peer fires them: the name the client binds, the call a
// version 3 or 2 and a version 1 listener gets (none: version 3 only), the client's line.
struct EventRow {
    std::string name, newer, v1, log;
};
inline std::vector<EventRow> eventRows() {
    const std::string s = " 7 1000/3/drm/1/live/";
    auto state = [&](std::string n) {
        return EventRow{n, n + s, n + " 7 1000", n + ":sourceId=7, offsetMs=1000"};
    };
    auto id = [](std::string n, bool v1) {
        return EventRow{n, n + " 7", v1 ? n + " 7" : "", n + ":sourceId=7"};
    };
    // clang-format off
    return {{"closeAudioSource", "closeAudioSource", "closeAudioSource", "closeAudioSource: "},
            {"onFirstByteRead", "onFirstByteRead" + s, "onFirstByteRead 7 1000",
             "onFirstByteRead:sourceId=7, offsetMs=1000, playlistType=live"},
            state("onPlaybackStarted"), state("onPlaybackFinished"), state("onPlaybackPaused"),
            state("onPlaybackResumed"), state("onPlaybackStopped"), state("onBufferUnderrun"),
            state("onBufferRefilled"), state("onBufferingComplete"),
            {"onPlaybackError", "onPlaybackError 7 12 boom" + s.substr(2),
             "onPlaybackError 7 12 boom 1000",
             "onPlaybackError:sourceId=7, type=12, error=boom, offsetMs=1000"},
            {"onStreamMetadataExtracted", "onStreamMetadataExtracted" + s + " 1:title/Song/",
             "onStreamMetadataExtracted 7 1000 1:title/Song/",
             "onStreamMetadataExtracted:sourceId=7, offsetMs=1000"},
            {"onSeeked", "onSeeked" + s + " 5000/4/(null)/0/(null)/", "onSeeked 7 1000 5000",
             "onSeeked:sourceId=7, beforeSeekOffsetMs=1000, afterSeekOffsetMs=5000"},
            id("onStopRequested", true), id("onLicenseAvailable", false),
            id("onFirstDataSegmentAvailable", false)};
    // clang-format on
}

// What the player reports, in the order of eventRows().
inline void fireEvents(MediaClientDelegate& to) {
    using D = MediaClientDelegate;
    const long long id = kSourceId;
    const MediaPlayerStateV2 s = eventState();
    MetadataKeyValuePairs metadata;
    metadata.pairs[metadata.count++] = MetadataKeyValuePair("title", "Song");
    to.closeDataSource(id);
    for (auto event :
         {&D::onFirstByteRead, &D::onPlaybackStarted, &D::onPlaybackFinished, &D::onPlaybackPaused,
          &D::onPlaybackResumed, &D::onPlaybackStopped, &D::onBufferUnderrunStarted,
          &D::onBufferUnderrunEnded, &D::onBufferingComplete}) {
        (to.*event)(id, s);
    }
    to.onPlaybackError(id, ErrorType(12), "boom", s);
    to.onStreamMetadataExtracted(id, s, metadata);
    to.onSeeked(id, s, seekedState());
    to.onStopRequested(id);
    to.onLicenseAvailable(id);
    to.onFirstDataSegmentAvailable(id);
}

inline ZEMAudioFormat pcmFormat() { return ZEMAudioFormat{0, 44100, 16, 2, true, 1, 0}; }
template <typename Source = ZEMAudioSource>
Source source(int32_t type, uint32_t channels = 2, uint32_t bits = 16, bool isSigned = true,
              int32_t layout = 1) {
    Source made;
    made.type = type;
    made.format = {0, 48000, bits, channels, isSigned, layout, 9};
    made.setClusterId("c");
    made.setUrl("https://a");  // looked at only in a URL source
    return made;
}

// A request: the client's line (none if null), the call, its result on failure, the call the
// player_service peer's player gets and the result of its answer.
template <typename Track>
struct RequestRow {
    LogLevel level;
    const char* log;
    std::function<std::string(Track&)> call;
    const char *failed, *player, *answered;
};

// The name of the player's call a request makes.
template <typename Track>
std::string callOf(const RequestRow<Track>& row) {
    return std::string(row.player).substr(0, std::string(row.player).find(' '));
}

// Rows for the exported track, or for the proxy, which alone has newDecryptKey.
template <typename Track>
std::vector<RequestRow<Track>> requestRows() {
    static const MediaDescription d;
    static const auto url = [](auto version) { return source<decltype(version)>(kSourceTypeUrl); };
    // clang-format off
#define ROW(level, log, call, failed, player, answered) \
    {LogLevel(level), log, [](Track& t) { return text(t.call); }, failed, player, answered}
// Logged at level 2 and passed to the player under its own name.
#define PLAIN(name, failed, answered) ROW(2, #name ": ", name(), failed, #name " 7", answered)
#define SOURCE(...) \
    ROW(2, "setSource: ", setSource(__VA_ARGS__), "-1", "setSource 1/0/https://a/ c", "7")
    std::vector<RequestRow<Track>> rows = {
        ROW(2, "setSource: ", setSource(pcmFormat(), "c1"), "-1", "setSource 0/44100/(null)/ c1",
            "7"),
        SOURCE(url(ZEMAudioSource())), SOURCE(url(ZEMAudioSource()), d),
        SOURCE(url(ZEMAudioSourceV2()), d), SOURCE(url(ZEMAudioSourceV3()), d),
        SOURCE(url(ZEMAudioSourceV4()), d), PLAIN(play, "0", "1"),
        PLAIN(stop, "0", "1"), PLAIN(pause, "0", "1"), PLAIN(resume, "0", "1"),
        ROW(2, "seekTo:millis=1500, fromStart=1", seekTo(1500, true), "0", "seekTo 7 1500 1", "1"),
        ROW(1, "getOffset: ", getOffset(), "-1", "getOffset 7", "1234"),
        PLAIN(getMediaPlayerState, "0/0//0/", "5/6/prot/1/"),
        PLAIN(getMediaPlayerStateV2, "0/0//0//", "1000/3/drm/1/live/"),
        PLAIN(getFingerprint, "///", "f1/f2/f3/"),
        ROW(2, nullptr, getPlaybackAttributes(), "//0/0/", "getPlaybackAttributes 7", "a/b/1/2/"),
        ROW(4, "getPlaybackReports:Deprecated getPlaybackReports function, this device is using an "
            "outdated client.", getPlaybackReports(), "0:", "getPlaybackReports 7",
            "1:0/(null)/(null)/0/0//"),
        ROW(2, "getPlaybackReportArray:", getPlaybackReportArray(), "0:",
            "getPlaybackReportArray 7", "2:0/(null)/(null)/0/0//0/(null)/(null)/0/0//"),
        ROW(2, "setVolume:volumeGain=0.500000", setVolume(0.5f), "0", "setVolume 0.500000 7", "1"),
        ROW(2, "setFocusSessionId:focusSessionId=9", setFocusSessionId(9), "0",
            "setFocusSessionId 9 7", "1"),
    };
    if constexpr (!std::is_same_v<Track, ZEMAudioTrack>) {
        rows.push_back(
            ROW(2, "newDecryptKey:", newDecryptKey("k3y"), "0", "newDecryptKey 7 k3y", "1"));
    }
#undef ROW
#undef PLAIN
#undef SOURCE
    // clang-format on
    return rows;
}

}  // namespace orv::test
