// The line formatting shared by the library's two loggers (TrackLogger on both halves
// and the audio server's own logger), so that every line has the same shape: the function
// name, a colon, then the printf-formatted text, with no blank in between.
#pragma once

#include <orv/Logging.h>

#include <cstdarg>
#include <string>

namespace orv {

// Longest formatted text a line carries; longer text is cut there without any mark. The
// function name in front of it is never cut.
constexpr size_t kMaxLogTextLength = 2047;

// Written instead of a line whose text could not be formatted.
constexpr const char* kLogConversionFailed = "log: Message conversion failed";

// How a logger treats a null function name or format.
enum class NullLogNames {
    // Written as "Method Missing" and "Message Missing" (loggers whose callers may pass null).
    kSubstitute,
    // Both must be non-null (loggers whose callers always pass string literals).
    kRequired,
};

// A finished line ready for the sink. The level differs from the one asked for when the
// formatting failed: that is reported as an error.
struct LogLine {
    LogLevel level;
    std::string message;
};

// What a %s of a null text prints, without handing vsnprintf the null.
inline const char* logText(const char* text) { return text != nullptr ? text : "(null)"; }

// Formats one line. Kept apart from the sink call so that the caller can end its va_list
// before handing the line to the embedder's code, which may throw.
LogLine formatLogLine(LogLevel level, const char* function, const char* format, va_list args,
                      NullLogNames nulls);

}  // namespace orv
