#include "Log.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace zem {

void Log::operator()(orv::LogLevel level, const char* function, const char* format, ...) const {
    if (!sink_) return;
    char text[512];
    int length = std::snprintf(text, sizeof text, "%s:", function);
    if (length < 0 || static_cast<size_t>(length) >= sizeof text) length = 0;
    va_list args;
    va_start(args, format);
    std::vsnprintf(text + length, sizeof text - static_cast<size_t>(length), format, args);
    va_end(args);
    sink_->logMessage(level, tag_.c_str(), text);
}

void StderrLogSink::logMessage(orv::LogLevel level, const char* tag, const char* message) {
    if (level < minLevel_) return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::lock_guard<std::mutex> lock(mutex_);
    std::fprintf(stderr, "%02d:%02d:%02d.%03ld %s[%d] %s: %s\n", local.tm_hour, local.tm_min,
                 local.tm_sec, now.tv_nsec / 1'000'000, program_.c_str(), static_cast<int>(level),
                 tag ? tag : "-", message ? message : "");
}

}  // namespace zem
