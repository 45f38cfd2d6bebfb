#include "common/IAudioTrackRPC.h"

#include <cstdarg>
#include <utility>

#include "common/LogFormat.h"

namespace orv {

IAudioTrackRPC::IAudioTrackRPC(std::shared_ptr<LoggingDelegate> logger, std::string tag)
    : logger_(std::move(logger)), tag_(std::move(tag)) {}

IAudioTrackRPC::~IAudioTrackRPC() = default;

void IAudioTrackRPC::log(LogLevel level, const char* function, const char* format, ...) {
    // Promoted once per call: a sink that the embedder destroys on another thread is either
    // used whole or not at all.
    const std::shared_ptr<LoggingDelegate> sink = logger_.lock();
    if (!sink) return;

    va_list args;
    va_start(args, format);
    const LogLine line = formatLogLine(level, function, format, args, NullLogNames::kSubstitute);
    va_end(args);
    sink->logMessage(line.level, tag_.c_str(), line.message.c_str());
}

}  // namespace orv
