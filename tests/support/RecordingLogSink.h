// A LoggingDelegate for tests: records every line it is given, from any thread, and answers
// questions about them. Lines written by transport threads arrive asynchronously, so
// waitForMessage() lets a test block until an expected line shows up.
#pragma once

#include <orv/Logging.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace orv::test {

struct LogEntry {
    LogLevel level;
    std::string tag;
    std::string message;

    bool operator==(const LogEntry& other) const {
        return level == other.level && tag == other.tag && message == other.message;
    }
};

inline std::ostream& operator<<(std::ostream& out, const LogEntry& entry) {
    return out << "{" << static_cast<int>(entry.level) << ", \"" << entry.tag << "\", \""
               << entry.message << "\"}";
}

class RecordingLogSink : public LoggingDelegate {
public:
    void logMessage(LogLevel level, const char* tag, const char* message) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            entries_.push_back({level, tag ? tag : "", message ? message : ""});
        }
        added_.notify_all();
    }

    // A copy, so that the caller can inspect it while other threads go on logging.
    std::vector<LogEntry> entries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

    std::vector<std::string> messages() const {
        std::vector<std::string> result;
        for (const LogEntry& entry : entries()) result.push_back(entry.message);
        return result;
    }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_.size();
    }

    // Lines at `level` whose message contains `text` ("" matches every line at that level).
    size_t count(LogLevel level, const std::string& text = "") const {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t n = 0;
        for (const LogEntry& entry : entries_) {
            if (entry.level == level && entry.message.find(text) != std::string::npos) ++n;
        }
        return n;
    }

    // Whether any line's message contains `text`.
    bool contains(const std::string& text) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return findLocked(text);
    }

    // Waits until a line containing `text` has been recorded; false on time-out.
    bool waitForMessage(const std::string& text,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return added_.wait_for(lock, timeout, [&] { return findLocked(text); });
    }

    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.clear();
    }

private:
    bool findLocked(const std::string& text) const {
        for (const LogEntry& entry : entries_) {
            if (entry.message.find(text) != std::string::npos) return true;
        }
        return false;
    }

    mutable std::mutex mutex_;  // guards: entries_
    mutable std::condition_variable added_;
    std::vector<LogEntry> entries_;
};

}  // namespace orv::test
