// A LoggingDelegate for tests: records every line it is given, from any thread, and answers
// questions about them. Lines written by transport threads arrive asynchronously: a test waits
// for one with waitUntil (support/Process.h).
#pragma once

#include <orv/Logging.h>

#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace orv::test {

struct LogEntry {
    LogLevel level;
    std::string tag;
    std::string message;

    bool operator==(const LogEntry& o) const {
        return std::tie(level, tag, message) == std::tie(o.level, o.tag, o.message);
    }
};

inline std::ostream& operator<<(std::ostream& out, const LogEntry& entry) {
    return out << "{" << static_cast<int>(entry.level) << ", \"" << entry.tag << "\", \""
               << entry.message << "\"}";
}

class RecordingLogSink : public LoggingDelegate {
public:
    void logMessage(LogLevel level, const char* tag, const char* message) override {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back({level, tag ? tag : "", message ? message : ""});
    }

    // A copy, so that the caller can inspect it while other threads go on logging.
    std::vector<LogEntry> entries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

    // Lines at `level` whose message contains `text` ("" matches every line at that level).
    size_t count(LogLevel level, const std::string& text = "") const {
        size_t n = 0;
        for (const LogEntry& entry : entries())
            n += entry.level == level && entry.message.find(text) != std::string::npos;
        return n;
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }

private:
    mutable std::mutex mutex_;  // guards: entries_
    std::vector<LogEntry> entries_;
};

}  // namespace orv::test
