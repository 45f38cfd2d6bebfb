#include "Arguments.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace zem::play {

namespace {

// An unsigned decimal with an optional fraction ("12", "0.25"). Only these characters, so that
// strtod's hexadecimal, exponent, "inf" and "nan" forms never slip through.
std::optional<double> decimal(const std::string& text) {
    size_t digits = 0;
    size_t dots = 0;
    for (const char c : text) {
        if (c == '.') {
            ++dots;
        } else if (std::isdigit(static_cast<unsigned char>(c))) {
            ++digits;
        } else {
            return std::nullopt;
        }
    }
    // Twelve digits are far beyond any position or volume, and keep the value exact.
    if (digits == 0 || digits > 12 || dots > 1 || text.front() == '.' || text.back() == '.') {
        return std::nullopt;
    }
    return std::strtod(text.c_str(), nullptr);
}

std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts(1);
    for (const char c : text) {
        if (c == separator) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

}  // namespace

bool hasScheme(const std::string& argument) {
    const size_t colon = argument.find(':');
    // One letter before the colon is left to paths, the way drive letters are.
    if (colon == std::string::npos || colon < 2) return false;
    if (!std::isalpha(static_cast<unsigned char>(argument[0]))) return false;
    for (size_t i = 1; i < colon; ++i) {
        const unsigned char c = static_cast<unsigned char>(argument[i]);
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return false;
    }
    return true;
}

std::string absolutePath(const std::string& path, const std::string& cwd) {
    const std::string full = !path.empty() && path[0] == '/' ? path : cwd + "/" + path;
    std::string result;
    for (const std::string& segment : split(full, '/')) {
        if (segment.empty() || segment == ".") continue;
        result += "/" + segment;
    }
    if (result.empty()) return "/";
    if (endsWith(path, "/")) result += "/";
    return result;
}

std::string fileUrl(const std::string& absolute) {
    std::string url = "file://";
    for (const unsigned char c : absolute) {
        if (std::isalnum(c) || std::strchr("/-._~", c)) {
            url += static_cast<char>(c);
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", c);
            url += escape;
        }
    }
    return url;
}

std::optional<int64_t> parsePosition(const std::string& given, int64_t bareUnitMs,
                                     std::string& error) {
    const std::string text = lower(trimmed(given));
    const std::string expected =
        "expected seconds (90, 2.5), m:ss (1:30), h:mm:ss or a number with s or ms";
    double ms = 0;
    if (text.find(':') != std::string::npos) {
        const std::vector<std::string> parts = split(text, ':');
        if (parts.size() > 3) {
            error = "'" + given + "' is not a position: " + expected;
            return std::nullopt;
        }
        for (size_t i = 0; i < parts.size(); ++i) {
            const bool last = i + 1 == parts.size();
            const std::optional<double> value = decimal(parts[i]);
            const bool whole = parts[i].find('.') == std::string::npos;
            // Every field after the first counts up to 59 and is written with two digits.
            if (!value || (!last && !whole) ||
                (i > 0 && (*value >= 60 || parts[i].size() < 2 || parts[i].find('.') == 1))) {
                error = "'" + given + "' is not a position: " + expected;
                return std::nullopt;
            }
            ms = ms * 60 + *value * 1000;
        }
    } else {
        std::string number = text;
        int64_t unit = bareUnitMs;
        if (endsWith(number, "ms")) {
            number.resize(number.size() - 2);
            unit = 1;
        } else if (endsWith(number, "s")) {
            number.resize(number.size() - 1);
            unit = 1000;
        }
        const std::optional<double> value = decimal(trimmed(number));
        if (!value) {
            error = "'" + given + "' is not a position: " + expected;
            return std::nullopt;
        }
        ms = *value * static_cast<double>(unit);
    }
    if (ms > static_cast<double>(kMaxMs)) {
        error = "'" + given + "' is too far: positions go up to " + formatPosition(kMaxMs);
        return std::nullopt;
    }
    return static_cast<int64_t>(std::llround(ms));
}

std::optional<float> parseVolume(const std::string& given, std::string& error) {
    const std::string text = lower(trimmed(given));
    const std::string expected = "expected a factor (0.5), a percentage (50%) or decibels (-6dB)";
    double factor = 0;
    if (endsWith(text, "db")) {
        std::string number = trimmed(text.substr(0, text.size() - 2));
        const bool negative = !number.empty() && number[0] == '-';
        if (!number.empty() && (number[0] == '-' || number[0] == '+')) number.erase(0, 1);
        const std::optional<double> db = decimal(number);
        if (!db) {
            error = "'" + given + "' is not a volume: " + expected;
            return std::nullopt;
        }
        factor = std::pow(10.0, (negative ? -*db : *db) / 20);
    } else if (endsWith(text, "%")) {
        const std::optional<double> percent = decimal(trimmed(text.substr(0, text.size() - 1)));
        if (!percent) {
            error = "'" + given + "' is not a volume: " + expected;
            return std::nullopt;
        }
        factor = *percent / 100;
    } else {
        const std::optional<double> value = decimal(text);
        if (!value) {
            error = "'" + given + "' is not a volume: " + expected;
            return std::nullopt;
        }
        factor = *value;
    }
    if (factor > 1.0) {
        error = "'" + given + "' is above full volume: the service attenuates but does not " +
                "amplify (at most 1, 100% or 0dB)";
        return std::nullopt;
    }
    return static_cast<float>(factor);
}

std::optional<StreamFormat> parseRawFormat(const std::string& given, std::string& error) {
    const std::string expected = "expected TYPE:RATE:CHANNELS such as s16le:48000:2, with TYPE " +
                                 std::string("s16le or s32le and 1 or 2 channels");
    const std::vector<std::string> parts = split(lower(trimmed(given)), ':');
    if (parts.size() != 3) {
        error = "'" + given + "' is not a raw format: " + expected;
        return std::nullopt;
    }
    StreamFormat format;
    if (parts[0] == "s16le") {
        format.type = SampleType::S16;
        format.bits = 16;
    } else if (parts[0] == "s32le") {
        format.type = SampleType::S32;
        format.bits = 32;
    } else {
        error = "'" + parts[0] + "' is not a sample type zem-play can send: " + expected;
        return std::nullopt;
    }
    const std::optional<double> rate =
        parts[1].find('.') == std::string::npos ? decimal(parts[1]) : std::nullopt;
    if (!rate || *rate < 1 || *rate > kMaxRate) {
        error = "'" + parts[1] + "' is not a sample rate the service plays (1 to " +
                std::to_string(kMaxRate) + " Hz)";
        return std::nullopt;
    }
    if (parts[2] != "1" && parts[2] != "2") {
        error = "'" + parts[2] + "' channels: the service plays mono (1) or stereo (2)";
        return std::nullopt;
    }
    format.rate = static_cast<uint32_t>(*rate);
    format.channels = static_cast<uint32_t>(parts[2][0] - '0');
    return format;
}

std::string formatPosition(int64_t ms) {
    ms = std::max<int64_t>(ms, 0);
    char text[40];
    std::snprintf(text, sizeof text, "%lld:%02lld.%lld", static_cast<long long>(ms / 60000),
                  static_cast<long long>(ms / 1000 % 60), static_cast<long long>(ms / 100 % 10));
    return text;
}

}  // namespace zem::play
