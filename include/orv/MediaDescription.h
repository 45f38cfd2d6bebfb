// The media description that accompanies a URL source: three texts, a caption and two maps of
// up to 20 text pairs. Every text is an owned copy; null stays null.
#pragma once

#include <orv/Export.h>

#include <cstdint>

namespace orv {

// How the player behaves when its playback is interrupted. The values are the host player's
// own and pass through unchanged, so the library names none of them: the fixed 32-bit type
// holds whatever value the player and the application agree on.
enum InterruptedBehavior : int32_t {};

class ORV_EXPORT CaptionData {
public:
    CaptionData();
    CaptionData(const char* first, const char* second);
    CaptionData(const CaptionData& other);
    CaptionData& operator=(const CaptionData& other);
    // Moving hands the texts over; the source is left with null texts.
    CaptionData(CaptionData&& other) noexcept;
    CaptionData& operator=(CaptionData&& other) noexcept;
    ~CaptionData();

    char* first = nullptr;
    char* second = nullptr;
};

class ORV_EXPORT DescriptionPair {
public:
    DescriptionPair();
    DescriptionPair(const char* first, const char* second);
    DescriptionPair(const DescriptionPair& other);
    DescriptionPair& operator=(const DescriptionPair& other);
    // Moving hands the texts over; the source is left with null texts.
    DescriptionPair(DescriptionPair&& other) noexcept;
    DescriptionPair& operator=(DescriptionPair&& other) noexcept;
    ~DescriptionPair();

    char* first = nullptr;
    char* second = nullptr;
};

// The pairs beyond `count` are unused and hold null strings. Copies copy all 20 pairs.
class ORV_EXPORT DescriptionMap {
public:
    static constexpr uint32_t kCapacity = 20;

    uint32_t count = 0;
    DescriptionPair pairs[kCapacity];
};

class ORV_EXPORT MediaDescription {
public:
    MediaDescription();
    MediaDescription(const char* firstText, InterruptedBehavior interruptedBehavior,
                     const char* secondText, const char* thirdText, CaptionData caption,
                     DescriptionMap firstMap, DescriptionMap secondMap, bool flag);
    MediaDescription(const MediaDescription& other);
    MediaDescription& operator=(const MediaDescription& other);
    // Moving hands the texts over; the source is left with null texts.
    MediaDescription(MediaDescription&& other) noexcept;
    MediaDescription& operator=(MediaDescription&& other) noexcept;
    ~MediaDescription();

    char* firstText = nullptr;
    InterruptedBehavior interruptedBehavior = InterruptedBehavior(0);
    char* secondText = nullptr;
    char* thirdText = nullptr;
    CaptionData caption;
    DescriptionMap firstMap;
    DescriptionMap secondMap;
    bool flag = false;
};

}  // namespace orv
