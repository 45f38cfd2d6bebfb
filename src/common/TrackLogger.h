// The logger of both halves' track objects (the client's proxy and the server's stub): a tag and
// a weakly held sink. Holding the sink weakly means that a proxy or stub never keeps the
// embedder's sink alive; once the embedder drops it, logging stops silently.
#pragma once

#include <orv/Logging.h>

#include <cstdarg>
#include <memory>
#include <string>

namespace orv {

class TrackLogger {
public:
    // `tag` names this side in every line: "ZEMAudioTrackClient" or "ZEMServerTrack".
    TrackLogger(std::shared_ptr<LoggingDelegate> sink, std::string tag);

    // Writes "function:text" at `level`, `text` being `format` expanded printf-style and cut at
    // 2047 characters. A null function or format is written as "Method Missing" or "Message
    // Missing"; a text that cannot be formatted is replaced by an error line at LOG_ERROR.
    // Writes nothing when the sink is gone. Exceptions thrown by the sink propagate.
    void log(LogLevel level, const char* function, const char* format, ...) const
        __attribute__((format(printf, 4, 5)));
    void logv(LogLevel level, const char* function, const char* format, va_list args) const;

private:
    const std::weak_ptr<LoggingDelegate> sink_;
    const std::string tag_;
};

}  // namespace orv
