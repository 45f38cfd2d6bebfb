// One source as the audio service's player receives it: what the server made of the source a
// client set, after checking and converting it.
#pragma once

#include <orv/Export.h>
#include <orv/MediaDescription.h>

#include <cstdint>

namespace orv {

class ORV_EXPORT SourceConfig {
public:
    SourceConfig();
    SourceConfig(const SourceConfig& other);
    SourceConfig& operator=(const SourceConfig& other);
    ~SourceConfig();

    // Each replaces one owned string with a private copy of `text` (null clears it).
    void setUrl(const char* text);
    void setPlaybackContextHeadersJSON(const char* text);

    int32_t type = 0;            // 0: PCM pulled from the client through getData; 1: URL
    int32_t sampleFormat = 0;    // 0: signed 16-bit, 2: signed 32-bit, -1: unknown; 0 for a URL
    uint64_t channelLayout = 0;  // channel mask: 4 front centre, 3 front left and right
    uint32_t sampleRate = 0;     // 0 for a URL
    int32_t param4 = 0;
    int32_t startOffset = 0;  // PCM: the format's start offset; URL: low 32 bits of param2
    int32_t param3 = 0;
    char* url = nullptr;                         // owned copy or null
    char* playbackContextHeadersJSON = nullptr;  // owned copy or null
    MediaDescription mediaDescription;
    bool param7 = false;
    float volumeGain = 0.0f;
};

}  // namespace orv
