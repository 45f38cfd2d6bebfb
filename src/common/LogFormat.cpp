#include "common/LogFormat.h"

#include <cassert>
#include <cstdio>
#include <cstring>

namespace orv {

namespace {
constexpr size_t kFormatBufferSize = kMaxLogTextLength + 1;
constexpr const char* kMissingFunction = "Method Missing";
constexpr const char* kMissingFormat = "Message Missing";
}  // namespace

LogLine formatLogLine(LogLevel level, const char* function, const char* format, va_list args,
                      NullLogNames nulls) {
    if (nulls == NullLogNames::kSubstitute) {
        if (function == nullptr) function = kMissingFunction;
        if (format == nullptr) format = kMissingFormat;
    }
    assert(function != nullptr && format != nullptr);

    // On the stack: the data path logs once per buffer and must not allocate more than the line.
    char text[kFormatBufferSize];
    std::memset(text, 0, sizeof(text));
    // A result of kFormatBufferSize or more only means the text was cut, which is not an error.
    if (std::vsnprintf(text, sizeof(text), format, args) < 0) {
        return {LOG_ERROR, kLogConversionFailed};
    }

    const size_t functionLength = std::strlen(function);
    const size_t textLength = std::strlen(text);
    LogLine line{level, {}};
    line.message.reserve(functionLength + 1 + textLength);
    line.message.append(function, functionLength).append(1, ':').append(text, textLength);
    return line;
}

}  // namespace orv
