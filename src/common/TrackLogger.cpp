#include "common/TrackLogger.h"

#include <utility>

#include "common/LogFormat.h"

namespace orv {

TrackLogger::TrackLogger(std::shared_ptr<LoggingDelegate> sink, std::string tag)
    : sink_(std::move(sink)), tag_(std::move(tag)) {}

void TrackLogger::log(LogLevel level, const char* function, const char* format, ...) const {
    va_list args;
    va_start(args, format);
    logv(level, function, format, args);
    va_end(args);
}

void TrackLogger::logv(LogLevel level, const char* function, const char* format,
                       va_list args) const {
    // Promoted once per call: a sink that the embedder destroys on another thread is either
    // used whole or not at all.
    const std::shared_ptr<LoggingDelegate> sink = sink_.lock();
    if (!sink) return;
    const LogLine line = formatLogLine(level, function, format, args, NullLogNames::kSubstitute);
    sink->logMessage(line.level, tag_.c_str(), line.message.c_str());
}

}  // namespace orv
