#include "common/IAudioTrackRPC.h"

#include <cstdarg>
#include <utility>

namespace orv {

IAudioTrackRPC::IAudioTrackRPC(std::shared_ptr<LoggingDelegate> logger, std::string tag)
    : logger_(std::move(logger), std::move(tag)) {}

IAudioTrackRPC::~IAudioTrackRPC() = default;

void IAudioTrackRPC::log(LogLevel level, const char* function, const char* format, ...) {
    va_list args;
    va_start(args, format);
    logger_.logv(level, function, format, args);
    va_end(args);
}

}  // namespace orv
