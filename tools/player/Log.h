// Logging for the tools: a printf-style writer in front of the library's LoggingDelegate, and
// the delegate that both programs use, which writes to stderr from any thread and drops lines
// below a level.
#pragma once

#include <orv/Logging.h>

#include <memory>
#include <mutex>
#include <string>

namespace zem {

class Log {
public:
    Log(std::shared_ptr<orv::LoggingDelegate> sink, std::string tag)
        : sink_(std::move(sink)), tag_(std::move(tag)) {}

    void operator()(orv::LogLevel level, const char* function, const char* format, ...) const
        __attribute__((format(printf, 4, 5)));

private:
    std::shared_ptr<orv::LoggingDelegate> sink_;
    std::string tag_;
};

class StderrLogSink : public orv::LoggingDelegate {
public:
    // Lines below `minLevel` are dropped; above 5 drops everything.
    StderrLogSink(std::string program, int minLevel)
        : program_(std::move(program)), minLevel_(minLevel) {}
    void logMessage(orv::LogLevel level, const char* tag, const char* message) override;

private:
    std::string program_;
    int minLevel_;
    std::mutex mutex_;  // guards: stderr, so that lines from several threads never interleave
};

}  // namespace zem
