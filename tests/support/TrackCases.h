// What the client tests compare against: a listener of all three versions (a test registers it
// under one) that records each call as a line "name args" and supplies an endless byte pattern;
// one text form for every record; and every request and player event of a track with what the
// client must log and what must come out at the other end. The player_service peer's mock player
// answers with the "answered" values and fires the events with the arguments here.
#pragma once

#include <orv/EventListener.h>
#include <orv/Records.h>
#include <orv/ZEMAudioTrack.h>

#include <functional>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Process.h"

namespace orv::test {

inline uint8_t patternByte(uint64_t i) { return static_cast<uint8_t>(i * 7 + (i >> 11)); }

inline std::string text(long long value) { return std::to_string(value); }
inline std::string text(int value) { return std::to_string(value); }
inline std::string text(unsigned int value) { return std::to_string(value); }
inline std::string text(bool value) { return value ? "1" : "0"; }
inline std::string text(ErrorType value) { return text(static_cast<int>(value)); }
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
inline std::string text(const MetadataKeyValuePairs& m) {
    std::string line = "{";
    for (uint32_t i = 0; i < m.count; ++i) line += join(m.pairs[i].key, m.pairs[i].value);
    return line + "}";
}

class RecordingListener : public EventListener, public EventListenerV2, public EventListenerV3 {
public:
    using S = const MediaPlayerStateV2&;
    // The calls recorded since the last look.
    std::vector<std::string> takeCalls() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(calls_, {});
    }
    bool waitForCall() {
        return parlex::test::waitUntil([&] {
            std::lock_guard<std::mutex> lock(mutex_);
            return !calls_.empty();
        });
    }
    // getBuffer's count for `size` bytes asked; the pattern advances by the bytes that fit.
    std::function<int(int size)> count = [](int size) { return size; };
    // Runs after each call is recorded, on the thread that delivered it.
    std::function<void()> then = [] {};

    int getBuffer(uint8_t* buffer, int size) override {
        const int n = count(size);
        for (int i = 0; i < n && i < size; ++i) buffer[i] = patternByte(supplied_++);
        return n;
    }
// Versions 3 and 2 get the state, version 1 only its offset.
#define ORV_TEST_STATE_EVENT(name)                                  \
    void name(long long id, S s) override { record(#name, id, s); } \
    void name(long long id, int ms) override { record(#name, id, ms); }
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
    void onPlaybackError(long long id, ErrorType t, const char* e, S s) override {
        record("onPlaybackError", id, t, e, s);
    }
    void onPlaybackError(long long id, ErrorType t, const char* e, int ms) override {
        record("onPlaybackError", id, t, e, ms);
    }
    void onStreamMetadataExtracted(long long id, S s, const MetadataKeyValuePairs& m) override {
        record("onStreamMetadataExtracted", id, s, m);
    }
    void onStreamMetadataExtracted(long long id, int ms, const MetadataKeyValuePairs& m) override {
        record("onStreamMetadataExtracted", id, ms, m);
    }
    void onSeeked(long long id, S a, S b) override { record("onSeeked", id, a, b); }
    void onSeeked(long long id, int a, int b) override { record("onSeeked", id, a, b); }
    void closeAudioSource() override { record("closeAudioSource"); }
    void onStopRequested(long long id) override { record("onStopRequested", id); }
    void onReportMetric(const char* a, const char* b) override { record("onReportMetric", a, b); }
    void onServerDeath() override { record("onServerDeath"); }
    void onLicenseAvailable(long long id) override { record("onLicenseAvailable", id); }
    void onFirstDataSegmentAvailable(long long id) override {
        record("onFirstDataSegmentAvailable", id);
    }

private:
    template <typename... Args>
    void record(const char* name, const Args&... args) {
        std::string line = name;
        ((line += " " + text(args)), ...);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(line);
        }
        then();
    }

    std::mutex mutex_;  // guards: calls_
    std::vector<std::string> calls_;
    uint64_t supplied_ = 0;  // getBuffer runs one call at a time per track
};

constexpr long long kSourceId = 7;
inline MediaPlayerStateV2 eventState() {
    return MediaPlayerStateV2(1000, 3, MediaPlayerProtection("drm", true), "live");
}
inline MediaPlayerStateV2 seekedState() { return MediaPlayerStateV2(5000, 4, {}, nullptr); }

// Each player event as the client binds it, with what a version 3 or 2 listener and a version 1
// listener record (nothing: version 3 only) and the client's level-2 line.
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
            state("onPlaybackStarted"), state("onPlaybackFinished"),
            {"onPlaybackError", "onPlaybackError 7 12 boom" + s.substr(2),
             "onPlaybackError 7 12 boom 1000",
             "onPlaybackError:sourceId=7, type=12, error=boom, offsetMs=1000"},
            state("onPlaybackPaused"), state("onPlaybackResumed"), state("onPlaybackStopped"),
            state("onBufferUnderrun"), state("onBufferRefilled"), state("onBufferingComplete"),
            {"onStreamMetadataExtracted", "onStreamMetadataExtracted" + s + " {title/Song/}",
             "onStreamMetadataExtracted 7 1000 {title/Song/}",
             "onStreamMetadataExtracted:sourceId=7, offsetMs=1000"},
            id("onStopRequested", true),
            {"onSeeked", "onSeeked" + s + " 5000/4/(null)/0/(null)/", "onSeeked 7 1000 5000",
             "onSeeked:sourceId=7, beforeSeekOffsetMs=1000, afterSeekOffsetMs=5000"},
            id("onLicenseAvailable", false), id("onFirstDataSegmentAvailable", false)};
    // clang-format on
}

inline ZEMAudioFormat pcmFormat() {
    ZEMAudioFormat format{0, 44100, 16, 2, true, 1, 0};
    return format;
}
// A URL source; with `pcm` a PCM source instead.
template <typename Source>
Source source(bool pcm = false) {
    Source source;
    source.type = pcm ? kSourceTypePcm : kSourceTypeUrl;
    source.format = pcmFormat();
    source.setUrl(pcm ? nullptr : "http://u");
    source.setClusterId("c1");
    return source;
}

// A request with the client's line before it is sent (none without `log`), the method name
// sent, the player call it leads to, and its result when it fails and when the player answers.
template <typename Track>
struct RequestRow {
    const char* method;
    LogLevel level;
    const char* log;
    std::function<std::string(Track&)> call;
    const char* failed;
    const char* player;
    const char* answered;
};

// Rows for the exported track, or for the proxy, which alone has newDecryptKey.
template <typename Track>
std::vector<RequestRow<Track>> requestRows() {
    static const MediaDescription d;
    const char* const pcm = "setSource 0/44100/(null)/ c1";
    const char* const url = "setSource 1/0/http://u/ c1";
    const char* const set = "setSource: ";
#define ROW(method, level, log, call, failed, player, answered) \
    {method, LogLevel(level), log, [](Track& t) { return text(t.call); }, failed, player, answered}
    // clang-format off
    std::vector<RequestRow<Track>> rows = {
        ROW("setSource", 2, set, setSource(pcmFormat(), "c1"), "-1", pcm, "7"),
        ROW("setZEMAudioSource", 2, set, setSource(source<ZEMAudioSource>(true)), "-1", pcm, "7"),
        ROW("setZEMAudioSourceMediaDescription", 2, set, setSource(source<ZEMAudioSource>(), d),
            "-1", url, "7"),
        ROW("setZEMAudioSourceV2MediaDescription", 2, set,
            setSource(source<ZEMAudioSourceV2>(), d), "-1", url, "7"),
        ROW("setZEMAudioSourceV3MediaDescription", 2, set,
            setSource(source<ZEMAudioSourceV3>(), d), "-1", url, "7"),
        ROW("setZEMAudioSourceV4MediaDescription", 2, set,
            setSource(source<ZEMAudioSourceV4>(), d), "-1", url, "7"),
        ROW("play", 2, "play: ", play(), "0", "play 7", "1"),
        ROW("stop", 2, "stop: ", stop(), "0", "stop 7", "1"),
        ROW("pause", 2, "pause: ", pause(), "0", "pause 7", "1"),
        ROW("resume", 2, "resume: ", resume(), "0", "resume 7", "1"),
        ROW("seekTo", 2, "seekTo:millis=1500, fromStart=1", seekTo(1500, true), "0",
            "seekTo 7 1500 1", "1"),
        ROW("getOffset", 1, "getOffset: ", getOffset(), "-1", "getOffset 7", "1234"),
        ROW("getMediaPlayerState", 2, "getMediaPlayerState: ", getMediaPlayerState(), "0/0//0/",
            "getMediaPlayerState 7", "5/6/prot/1/"),
        ROW("getMediaPlayerStateV2", 2, "getMediaPlayerStateV2: ", getMediaPlayerStateV2(),
            "0/0//0//", "getMediaPlayerStateV2 7", "1000/3/drm/1/live/"),
        ROW("getPlaybackAttributes", 2, nullptr, getPlaybackAttributes(), "//0/0/",
            "getPlaybackAttributes 7", "a/b/1/2/"),
        ROW("getPlaybackReports", 4, "getPlaybackReports:Deprecated getPlaybackReports function, "
            "this device is using an outdated client.", getPlaybackReports(), "0:",
            "getPlaybackReports 7", "1:3/a/b/1/2//"),
        ROW("getPlaybackReportArray", 2, "getPlaybackReportArray:", getPlaybackReportArray(),
            "0:", "getPlaybackReportArray 7", "1:3/a/b/1/2//"),
        ROW("getFingerprint", 2, "getFingerprint: ", getFingerprint(), "///", "getFingerprint 7",
            "f1/f2/f3/"),
        ROW("setVolume", 2, "setVolume:volumeGain=0.500000", setVolume(0.5f), "0",
            "setVolume 0.500000 7", "1"),
        ROW("setFocusSessionId", 2, "setFocusSessionId:focusSessionId=9", setFocusSessionId(9),
            "0", "setFocusSessionId 9 7", "1"),
    };
    if constexpr (!std::is_same_v<Track, ZEMAudioTrack>) {
        rows.push_back(ROW("newDecryptKey", 2, "newDecryptKey:", newDecryptKey("k3y"), "0",
                           "newDecryptKey 7 k3y", "1"));
    }
    // clang-format on
#undef ROW
    return rows;
}

}  // namespace orv::test
