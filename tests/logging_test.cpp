// The line format shared by both loggers, and the sink handling of the track objects' logger.

#include <gtest/gtest.h>

#include <atomic>
#include <cwchar>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/TrackLogger.h"
#include "support/RecordingLogSink.h"

namespace orv {
namespace {

using test::LogEntry;
using test::RecordingLogSink;

constexpr const char* kTag = "ZEMServerTrack";

// What one call of log() hands to the sink.
template <typename... Args>
std::vector<LogEntry> logged(LogLevel level, const char* function, const char* format,
                             Args... args) {
    auto sink = std::make_shared<RecordingLogSink>();
    TrackLogger(sink, kTag).log(level, function, format, args...);
    return sink->entries();
}

TEST(LoggingTest, LineIsFunctionColonTextCutAt2047WithNullsSubstituted) {
    const std::string f(3000, 'f');
    const std::string x(3000, 'x');
    auto xs = [&](size_t n) { return x.c_str() + x.size() - n; };  // a text of n characters
    struct Case {
        LogLevel level;
        const char* function;
        const char* format;  // expanded with the arguments 7, 0
        std::string expected;
    };
    const Case cases[] = {
        {LOG_LIFECYCLE, "onSeeked", "sourceId=%d, ms=%d", "onSeeked:sourceId=7, ms=0"},
        {LOG_TRACE, "ZEMServerTrack", " ", "ZEMServerTrack: "},  // the blank stays
        {LOG_DATA, "getBuffer", "", "getBuffer:"},
        {LOG_TRACE, "setVolume", "100%% of %d", "setVolume:100% of 7"},  // not formatted twice
        {LOG_ERROR, "play", nullptr, "play:Message Missing"},
        {LOG_DEPRECATED, nullptr, "state=%d", "Method Missing:state=7"},
        {LOG_TRACE, nullptr, nullptr, "Method Missing:Message Missing"},
        {LOG_DATA, "g", xs(2046), "g:" + x.substr(0, 2046)},
        {LOG_DATA, "g", xs(2047), "g:" + x.substr(0, 2047)},
        {LOG_DATA, "g", xs(2048), "g:" + x.substr(0, 2047)},  // the text is cut
        {LOG_DATA, "g", x.c_str(), "g:" + x.substr(0, 2047)},
        {LOG_DATA, f.c_str(), "%d", f + ":7"},  // the function name never
        {LOG_DATA, f.c_str(), x.c_str(), f + ":" + x.substr(0, 2047)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected.substr(0, 40));
        EXPECT_EQ(logged(c.level, c.function, c.format, 7, 0),
                  (std::vector<LogEntry>{{c.level, kTag, c.expected}}));
    }
}

TEST(LoggingTest, FormatErrorIsLoggedAtErrorLevelAndTheSinksExceptionReachesTheCaller) {
    // A lone surrogate cannot be converted to a multibyte string, so %ls fails.
    const wchar_t invalid[] = {static_cast<wchar_t>(0xD800), 0};
    EXPECT_EQ(logged(LOG_DATA, "getBuffer", "%ls", invalid),
              (std::vector<LogEntry>{{LOG_ERROR, kTag, "log: Message conversion failed"}}));
    struct ThrowingSink : LoggingDelegate {
        void logMessage(LogLevel, const char*, const char*) override { throw std::exception(); }
    };
    auto sink = std::make_shared<ThrowingSink>();  // held: the logger holds it weakly
    EXPECT_THROW(TrackLogger(sink, kTag).log(LOG_TRACE, "play", " "), std::exception);
}

// The sink is released while another thread logs: a logger that kept it alive fails the
// check, one that used it after its destruction fails in the sanitizer build.
TEST(LoggingTest, ReleasedSinkIsNeitherKeptAliveNorUsedAfterwards) {
    auto sink = std::make_shared<RecordingLogSink>();
    const std::weak_ptr<LoggingDelegate> observer = sink;
    TrackLogger rpc(sink, kTag);
    std::atomic<bool> started{false};
    std::thread logger([&] {
        for (int i = 0; i < 20000; ++i) {
            rpc.log(LOG_DATA, "getBuffer", "size=%d", i);
            started = true;
        }
    });
    while (!started) std::this_thread::yield();
    sink.reset();
    logger.join();
    EXPECT_TRUE(observer.expired());
    rpc.log(LOG_ERROR, "play", "after release");
    TrackLogger(nullptr, kTag).log(LOG_ERROR, "play", "no sink");
}

}  // namespace
}  // namespace orv
