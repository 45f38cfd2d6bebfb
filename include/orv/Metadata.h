// Stream metadata as key/value text pairs, at most 20 at a time. Texts are owned copies; null
// stays null.
#pragma once

#include <orv/Export.h>

#include <cstdint>

namespace orv {

class ORV_EXPORT MetadataKeyValuePair {
public:
    MetadataKeyValuePair();
    MetadataKeyValuePair(const char* key, const char* value);
    MetadataKeyValuePair(const MetadataKeyValuePair& other);
    MetadataKeyValuePair& operator=(const MetadataKeyValuePair& other);
    // Moving hands the texts over; the source is left with null texts.
    MetadataKeyValuePair(MetadataKeyValuePair&& other) noexcept;
    MetadataKeyValuePair& operator=(MetadataKeyValuePair&& other) noexcept;
    ~MetadataKeyValuePair();

    char* key = nullptr;
    char* value = nullptr;
};

// Unlike DescriptionMap, the count follows the pairs here; the pairs beyond it hold null strings.
class ORV_EXPORT MetadataKeyValuePairs {
public:
    static constexpr uint32_t kCapacity = 20;

    MetadataKeyValuePair pairs[kCapacity];
    uint32_t count = 0;
};

}  // namespace orv
