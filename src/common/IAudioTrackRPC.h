// The common base of the client's track proxy and the server's track stub: the logger both
// share. The log sink is held weakly so that a proxy or stub never keeps the embedder's sink
// alive; once the embedder drops it, logging stops silently.
#pragma once

#include <orv/Logging.h>

#include <memory>
#include <string>

namespace orv {

class IAudioTrackRPC {
public:
    // `tag` names this side in every line: "ZEMAudioTrackClient" or "ZEMServerTrack".
    IAudioTrackRPC(std::shared_ptr<LoggingDelegate> logger, std::string tag);
    virtual ~IAudioTrackRPC();

    IAudioTrackRPC(const IAudioTrackRPC&) = delete;
    IAudioTrackRPC& operator=(const IAudioTrackRPC&) = delete;

    // Writes "function:text" at `level`, `text` being `format` expanded printf-style and cut at
    // 2047 characters. A null function or format is written as "Method Missing" or "Message
    // Missing"; a text that cannot be formatted is replaced by an error line at LOG_ERROR.
    // Writes nothing when the sink is gone. Exceptions thrown by the sink propagate.
    void log(LogLevel level, const char* function, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

private:
    const std::weak_ptr<LoggingDelegate> logger_;
    const std::string tag_;
};

}  // namespace orv
