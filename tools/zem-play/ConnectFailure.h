// Why zem-play could not reach the audio service. The library hands the transport's reason to
// the log sink when a track's init fails; zem-play keeps that line and tells the user what it
// means and where the service's socket is.
#pragma once

#include <orv/Logging.h>

#include <memory>
#include <mutex>
#include <string>

namespace zem {

struct ConnectFailure {
    enum Kind { Unknown, PermissionDenied, NotRunning, Refused, NoAnswer };
    Kind kind = Unknown;
    std::string path;    // the service's socket, when the reason names it
    std::string detail;  // Refused: the service's reason; NoAnswer: the milliseconds waited
    std::string text;    // the reason as it came

    static ConnectFailure parse(const std::string& text);
    // What zem-play prints, without its own name.
    std::string explain() const;

private:
    std::string at() const { return path.empty() ? "" : " at " + path; }
};

// Passes every line on to `next` and keeps the last error that the track's init logged.
class ConnectFailureRecorder : public orv::LoggingDelegate {
public:
    explicit ConnectFailureRecorder(std::shared_ptr<orv::LoggingDelegate> next)
        : next_(std::move(next)) {}
    void logMessage(orv::LogLevel level, const char* tag, const char* message) override;
    std::string last();

private:
    std::shared_ptr<orv::LoggingDelegate> next_;
    std::mutex mutex_;  // guards: last_
    std::string last_;
};

}  // namespace zem
