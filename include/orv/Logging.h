// The log sink that the embedding process hands to the library, and the severity scale of the
// lines the library writes to it. The library keeps no log of its own: every line it produces
// ends up in a LoggingDelegate.
#pragma once

#include <orv/Export.h>

#include <cstdint>

namespace orv {

// Severity of a log line, passed to the sink unchanged. The values are fixed.
enum LogLevel : int32_t {
    LOG_DATA = 1,        // per-buffer traffic of the audio data path
    LOG_TRACE = 2,       // every relayed call and event, with its arguments
    LOG_LIFECYCLE = 3,   // servers, tracks and sources created, removed or destroyed
    LOG_DEPRECATED = 4,  // a deprecated operation used by an outdated peer
    LOG_ERROR = 5,       // failed lookups and remote calls, a dead peer, a formatting failure
};

// Implemented by the embedder. The library may call logMessage from any of its threads at the
// same time, so an implementation must be thread-safe. `tag` names the emitting component and
// `message` is the finished line ("function:text"); both are valid only during the call.
class ORV_EXPORT LoggingDelegate {
public:
    virtual ~LoggingDelegate() = default;
    virtual void logMessage(LogLevel level, const char* tag, const char* message) = 0;
};

}  // namespace orv
