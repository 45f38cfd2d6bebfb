// The player's state as the host reports it (position, state code, content protection), in two
// versions, and the kind of a playback error. Texts are owned copies; null stays null.
#pragma once

#include <orv/Export.h>

#include <cstdint>

namespace orv {

// The kind of a playback error. The values are the host player's own and pass through
// unchanged, so the library names none of them: the fixed 32-bit type holds any value the
// player sends.
enum ErrorType : int32_t {};

class ORV_EXPORT MediaPlayerProtection {
public:
    MediaPlayerProtection();
    MediaPlayerProtection(const char* protection, bool isProtected);
    MediaPlayerProtection(const MediaPlayerProtection& other);
    MediaPlayerProtection& operator=(const MediaPlayerProtection& other);
    // Moving hands the texts over; the source is left with null texts.
    MediaPlayerProtection(MediaPlayerProtection&& other) noexcept;
    MediaPlayerProtection& operator=(MediaPlayerProtection&& other) noexcept;
    ~MediaPlayerProtection();

    char* protection = nullptr;
    bool isProtected = false;
};

class ORV_EXPORT MediaPlayerState {
public:
    int32_t offsetMs = 0;   // playback position in milliseconds
    int32_t stateCode = 0;  // the host player's own code, passed through
    MediaPlayerProtection protection;
};

class ORV_EXPORT MediaPlayerStateV2 {
public:
    MediaPlayerStateV2();
    MediaPlayerStateV2(int offsetMs, int stateCode, MediaPlayerProtection protection,
                       const char* playlistType);
    MediaPlayerStateV2(const MediaPlayerStateV2& other);
    MediaPlayerStateV2& operator=(const MediaPlayerStateV2& other);
    // Moving hands the texts over; the source is left with null texts.
    MediaPlayerStateV2(MediaPlayerStateV2&& other) noexcept;
    MediaPlayerStateV2& operator=(MediaPlayerStateV2&& other) noexcept;
    ~MediaPlayerStateV2();

    int32_t offsetMs = 0;
    int32_t stateCode = 0;
    MediaPlayerProtection protection;
    char* playlistType = nullptr;
};

}  // namespace orv
