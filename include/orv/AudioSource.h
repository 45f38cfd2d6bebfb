// The PCM format and the four versions of a source that an application hands to a track.
//
// Each version keeps every field of the one before it, but version 2 inserts param3 in the
// middle, so the versions are separate records rather than a class hierarchy; older versions stay
// because older applications still send them. Text fields are owned copies: null stays null, and
// copying a source copies every string.
#pragma once

#include <orv/Export.h>

#include <cstdint>

namespace orv {

// Values of ZEMAudioSource*::type. The server ignores a source of any other type.
inline constexpr int32_t kSourceTypePcm = 0;  // uses format and clusterId
inline constexpr int32_t kSourceTypeUrl = 1;  // uses url and the parameters

// A raw PCM stream. It holds no strings, so the compiler's copies are the right ones.
class ORV_EXPORT ZEMAudioFormat {
public:
    uint32_t formatCode = 0;  // carried along; the server does not interpret it
    uint32_t sampleRate = 0;  // samples per second
    uint32_t sampleSizeInBits = 0;
    uint32_t channelNum = 0;
    bool isSigned = false;
    int32_t layout = 0;  // channel layout code
    int32_t startOffset = 0;
};

class ORV_EXPORT ZEMAudioSource {
public:
    ZEMAudioSource();
    ZEMAudioSource(const ZEMAudioSource& other);
    ZEMAudioSource& operator=(const ZEMAudioSource& other);
    ZEMAudioSource(ZEMAudioSource&& other) noexcept;
    ZEMAudioSource& operator=(ZEMAudioSource&& other) noexcept;
    ~ZEMAudioSource();

    // Each replaces one owned string with a private copy of `text` (null clears it).
    void setUrl(const char* text);
    void setClusterId(const char* text);
    void setPlaybackContextHeadersJSON(const char* text);

    int32_t type = 0;
    ZEMAudioFormat format;
    char* url = nullptr;
    int32_t param1 = 0;
    char* clusterId = nullptr;
    int64_t param2 = 0;
    int32_t param4 = 0;
    int32_t param5 = 0;
    char* playbackContextHeadersJSON = nullptr;  // the URL source's headers as JSON text
};

class ORV_EXPORT ZEMAudioSourceV2 {
public:
    ZEMAudioSourceV2();
    ZEMAudioSourceV2(const ZEMAudioSourceV2& other);
    ZEMAudioSourceV2& operator=(const ZEMAudioSourceV2& other);
    ZEMAudioSourceV2(ZEMAudioSourceV2&& other) noexcept;
    ZEMAudioSourceV2& operator=(ZEMAudioSourceV2&& other) noexcept;
    ~ZEMAudioSourceV2();

    void setUrl(const char* text);
    void setClusterId(const char* text);
    void setPlaybackContextHeadersJSON(const char* text);

    int32_t type = 0;
    ZEMAudioFormat format;
    char* url = nullptr;
    int32_t param1 = 0;
    char* clusterId = nullptr;
    int64_t param2 = 0;
    int64_t param3 = 0;
    int32_t param4 = 0;
    int32_t param5 = 0;
    char* playbackContextHeadersJSON = nullptr;
};

class ORV_EXPORT ZEMAudioSourceV3 {
public:
    ZEMAudioSourceV3();
    ZEMAudioSourceV3(const ZEMAudioSourceV3& other);
    ZEMAudioSourceV3& operator=(const ZEMAudioSourceV3& other);
    ZEMAudioSourceV3(ZEMAudioSourceV3&& other) noexcept;
    ZEMAudioSourceV3& operator=(ZEMAudioSourceV3&& other) noexcept;
    ~ZEMAudioSourceV3();

    void setUrl(const char* text);
    void setClusterId(const char* text);
    void setPlaybackContextHeadersJSON(const char* text);

    int32_t type = 0;
    ZEMAudioFormat format;
    char* url = nullptr;
    int32_t param1 = 0;
    char* clusterId = nullptr;
    int64_t param2 = 0;
    int64_t param3 = 0;
    int32_t param4 = 0;
    int32_t param5 = 0;
    char* playbackContextHeadersJSON = nullptr;
    bool param7 = false;
    bool param8 = false;
    int16_t param9 = 0;
    int16_t param10 = 0;
    int64_t param11 = 0;
    bool param12 = false;
    int32_t param13 = 0;
};

class ORV_EXPORT ZEMAudioSourceV4 {
public:
    ZEMAudioSourceV4();
    ZEMAudioSourceV4(const ZEMAudioSourceV4& other);
    ZEMAudioSourceV4& operator=(const ZEMAudioSourceV4& other);
    ZEMAudioSourceV4(ZEMAudioSourceV4&& other) noexcept;
    ZEMAudioSourceV4& operator=(ZEMAudioSourceV4&& other) noexcept;
    ~ZEMAudioSourceV4();

    void setUrl(const char* text);
    void setClusterId(const char* text);
    void setPlaybackContextHeadersJSON(const char* text);

    int32_t type = 0;
    ZEMAudioFormat format;
    char* url = nullptr;
    int32_t param1 = 0;
    char* clusterId = nullptr;
    int64_t param2 = 0;
    int64_t param3 = 0;
    int32_t param4 = 0;
    int32_t param5 = 0;
    char* playbackContextHeadersJSON = nullptr;
    bool param7 = false;
    bool param8 = false;
    int16_t param9 = 0;
    int16_t param10 = 0;
    int64_t param11 = 0;
    bool param12 = false;
    int32_t param13 = 0;
    float volumeGain = 0.0f;
};

}  // namespace orv
