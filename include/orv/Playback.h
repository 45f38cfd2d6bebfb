// What the player reports about a playback: its attributes, the reports (in the older
// variable-length record and the fixed array that replaces it) and the content fingerprint.
// Texts are owned copies; null stays null.
#pragma once

#include <orv/Export.h>

#include <cstdint>

namespace orv {

class ORV_EXPORT PlaybackAttributes {
public:
    PlaybackAttributes();
    // The values are declared long for the applications that call this; they are stored, and
    // sent, as 32 bits.
    PlaybackAttributes(const char* firstText, const char* secondText, long firstValue,
                       long secondValue);
    PlaybackAttributes(const PlaybackAttributes& other);
    PlaybackAttributes& operator=(const PlaybackAttributes& other);
    PlaybackAttributes(PlaybackAttributes&& other) noexcept;
    PlaybackAttributes& operator=(PlaybackAttributes&& other) noexcept;
    ~PlaybackAttributes();

    char* firstText = nullptr;
    char* secondText = nullptr;
    int32_t firstValue = 0;
    int32_t secondValue = 0;
};

class ORV_EXPORT PlaybackReport {
public:
    int32_t firstValue = 0;
    int32_t secondValue = 0;
    PlaybackAttributes attributes;
};

// Superseded by PlaybackReportArray, but still answered for older clients.
class ORV_EXPORT PlaybackReports {
public:
    PlaybackReports();
    // Holds `count` default reports.
    explicit PlaybackReports(uint32_t count);
    PlaybackReports(const PlaybackReports& other);
    PlaybackReports& operator=(const PlaybackReports& other);
    PlaybackReports(PlaybackReports&& other) noexcept;
    PlaybackReports& operator=(PlaybackReports&& other) noexcept;
    ~PlaybackReports();

    // Frees the current reports and holds `newCount` default ones instead.
    void reset(uint32_t newCount);

    uint32_t count = 0;
    PlaybackReport* reports = nullptr;  // owned, array of `count`; null when count is 0
};

// The reports beyond `count` are unused and default.
class ORV_EXPORT PlaybackReportArray {
public:
    static constexpr uint32_t kCapacity = 50;

    uint32_t count = 0;
    PlaybackReport reports[kCapacity];
};

class ORV_EXPORT Fingerprint {
public:
    Fingerprint();
    Fingerprint(const char* first, const char* second, const char* third);
    Fingerprint(const Fingerprint& other);
    Fingerprint& operator=(const Fingerprint& other);
    Fingerprint(Fingerprint&& other) noexcept;
    Fingerprint& operator=(Fingerprint&& other) noexcept;
    ~Fingerprint();

    char* first = nullptr;
    char* second = nullptr;
    char* third = nullptr;
};

}  // namespace orv
