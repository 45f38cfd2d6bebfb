// The line format shared by both loggers, and the sink handling of IAudioTrackRPC::log.

#include <gtest/gtest.h>

#include <atomic>
#include <cwchar>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/IAudioTrackRPC.h"
#include "common/LogFormat.h"
#include "support/RecordingLogSink.h"

namespace orv {
namespace {

using test::LogEntry;
using test::RecordingLogSink;

constexpr const char* kTag = "ZEMServerTrack";

// IAudioTrackRPC with nothing but its logger.
class LoggingRpc : public IAudioTrackRPC {
public:
    using IAudioTrackRPC::IAudioTrackRPC;
};

LogLine formatWith(NullLogNames nulls, LogLevel level, const char* function, const char* format,
                   ...) {
    va_list args;
    va_start(args, format);
    LogLine line = formatLogLine(level, function, format, args, nulls);
    va_end(args);
    return line;
}

TEST(LoggingTest, LineIsFunctionColonTextWithNullsSubstituted) {
    struct Case {
        const char* name;
        LogLevel level;
        const char* function;
        const char* format;  // expanded with the arguments 7, 0
        const char* expected;
    };
    const Case cases[] = {
        {"arguments expanded", LOG_LIFECYCLE, "onSeeked", "sourceId=%d, ms=%d",
         "onSeeked:sourceId=7, ms=0"},
        {"blank format keeps its blank", LOG_TRACE, "ZEMServerTrack", " ", "ZEMServerTrack: "},
        {"empty format", LOG_DATA, "getBuffer", "", "getBuffer:"},
        {"text is not formatted twice", LOG_TRACE, "setVolume", "100%% of %d",
         "setVolume:100% of 7"},
        {"null format", LOG_ERROR, "play", nullptr, "play:Message Missing"},
        {"null function", LOG_DEPRECATED, nullptr, "state=%d", "Method Missing:state=7"},
        {"both null", LOG_TRACE, nullptr, nullptr, "Method Missing:Message Missing"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto sink = std::make_shared<RecordingLogSink>();
        LoggingRpc rpc(sink, kTag);
        rpc.log(c.level, c.function, c.format, 7, 0);
        EXPECT_EQ(sink->entries(), (std::vector<LogEntry>{{c.level, kTag, c.expected}}));
    }
}

TEST(LoggingTest, TextIsCutAt2047CharactersButFunctionNameNever) {
    struct Case {
        size_t functionLength;
        size_t textLength;
    };
    const Case cases[] = {{4, 2046}, {4, 2047}, {4, 2048}, {4, 3000}, {3000, 10}, {3000, 3000}};
    for (NullLogNames nulls : {NullLogNames::kSubstitute, NullLogNames::kRequired}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::Message()
                         << "function " << c.functionLength << ", text " << c.textLength);
            const std::string function(c.functionLength, 'f');
            const std::string text(c.textLength, 'x');
            const LogLine line = formatWith(nulls, LOG_DATA, function.c_str(), "%s", text.c_str());
            EXPECT_EQ(line.level, LOG_DATA);
            EXPECT_EQ(line.message, function + ":" + text.substr(0, kMaxLogTextLength));
        }
    }
}

TEST(LoggingTest, ThreeThousandCharacterLineReachesSinkCutTo2047) {
    auto sink = std::make_shared<RecordingLogSink>();
    LoggingRpc rpc(sink, kTag);
    rpc.log(LOG_DATA, "getBuffer", "%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(sink->messages(), std::vector<std::string>{"getBuffer:" + std::string(2047, 'x')});
}

TEST(LoggingTest, FormatErrorIsReportedAtErrorLevelWhateverLevelWasAsked) {
    // A lone surrogate cannot be converted to a multibyte string, so %ls fails.
    const wchar_t invalid[] = {static_cast<wchar_t>(0xD800), 0};

    auto sink = std::make_shared<RecordingLogSink>();
    LoggingRpc rpc(sink, kTag);
    rpc.log(LOG_DATA, "getBuffer", "%ls", invalid);
    EXPECT_EQ(sink->entries(),
              (std::vector<LogEntry>{{LOG_ERROR, kTag, "log: Message conversion failed"}}));

    const LogLine line = formatWith(NullLogNames::kRequired, LOG_DATA, "getData", "%ls", invalid);
    EXPECT_EQ(line.level, LOG_ERROR);
    EXPECT_EQ(line.message, "log: Message conversion failed");
}

// Counts its calls into a counter that outlives it.
class CountingSink : public LoggingDelegate {
public:
    explicit CountingSink(std::atomic<int>& calls) : calls_(calls) {}
    void logMessage(LogLevel, const char*, const char*) override { ++calls_; }

private:
    std::atomic<int>& calls_;
};

TEST(LoggingTest, RpcNeitherKeepsSinkAliveNorFailsAfterItIsReleased) {
    std::atomic<int> calls{0};
    auto sink = std::make_shared<CountingSink>(calls);
    std::weak_ptr<LoggingDelegate> observer = sink;
    LoggingRpc rpc(sink, kTag);
    rpc.log(LOG_TRACE, "play", " ");
    EXPECT_EQ(calls, 1);

    sink.reset();
    EXPECT_TRUE(observer.expired());
    rpc.log(LOG_ERROR, "play", "after release");
    EXPECT_EQ(calls, 1);

    LoggingRpc withoutSink(nullptr, kTag);
    withoutSink.log(LOG_ERROR, "play", "no sink");
}

TEST(LoggingTest, SinkReleasedOnAnotherThreadIsNeverUsedAfterItsDestruction) {
    auto sink = std::make_shared<RecordingLogSink>();
    LoggingRpc rpc(sink, kTag);
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
}

TEST(LoggingTest, ExceptionFromSinkReachesCaller) {
    class ThrowingSink : public LoggingDelegate {
        void logMessage(LogLevel, const char*, const char*) override {
            throw std::runtime_error("sink failed");
        }
    };
    auto sink = std::make_shared<ThrowingSink>();
    LoggingRpc rpc(sink, kTag);
    EXPECT_THROW(rpc.log(LOG_TRACE, "play", " "), std::runtime_error);
}

}  // namespace
}  // namespace orv
