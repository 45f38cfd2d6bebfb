// Parcel writers and readers of the value records; the contract is in RecordCodec.h. Each
// record's writer and reader sit together and handle the fields in the same order.
#include "common/RecordCodec.h"

#include <cstddef>
#include <string>
#include <utility>

namespace orv {

using parlex::AndroidParcel;

namespace {

// The smallest a PlaybackReports entry can be on the wire: two int32, two null texts (an int32
// of -1 each) and two raw 32-bit values.
constexpr size_t kMinReportBytes = 24;

// Each reader starts from zero (or null), so whatever a truncated parcel cannot supply reads as
// zero; the parcel remembers that it ran short (AndroidParcel::overrun).
int32_t readInt32(const AndroidParcel& parcel) {
    int value = 0;
    parcel >> value;
    return value;
}

uint32_t readUint32(const AndroidParcel& parcel) {
    unsigned int value = 0;
    parcel >> value;
    return value;
}

int64_t readInt64(const AndroidParcel& parcel) {
    long long value = 0;
    parcel >> value;
    return value;
}

bool readBool(const AndroidParcel& parcel) {
    bool value = false;
    parcel >> value;
    return value;
}

float readFloat(const AndroidParcel& parcel) {
    float value = 0.0f;
    parcel >> value;
    return value;
}

// The text points into the parcel; the record that keeps it makes the one copy.
const char* readText(const AndroidParcel& parcel) {
    const char* text = nullptr;
    parcel.read(text);
    return text;
}

void writeInt64(AndroidParcel& parcel, int64_t value) { parcel << static_cast<long long>(value); }

void writeInt16(AndroidParcel& parcel, int16_t value) { parcel << static_cast<int>(value); }
int16_t readInt16(const AndroidParcel& parcel) { return static_cast<int16_t>(readInt32(parcel)); }

void writeRaw32(AndroidParcel& parcel, int32_t value) { parcel->write(&value, sizeof(value)); }
int32_t readRaw32(const AndroidParcel& parcel) {
    int32_t value = 0;
    parcel.noteRead(parcel->read(&value, sizeof(value)));
    return value;
}

void checkCount(const char* record, uint32_t count, uint32_t capacity) {
    if (count > capacity) {
        throw parlex::impl::runtime_error(std::string(record) + " count " + std::to_string(count) +
                                          " exceeds " + std::to_string(capacity));
    }
}

// ---- the parts the four source versions share

// type, format, url, param1, clusterId, param2: the start of every version.
template <typename Source>
void writeSourceHead(AndroidParcel& parcel, const Source& source) {
    parcel << source.type << source.format;
    parcel.write(source.url);
    parcel << source.param1;
    parcel.write(source.clusterId);
    writeInt64(parcel, source.param2);
}
template <typename Source>
void readSourceHead(const AndroidParcel& parcel, Source& source) {
    source.type = readInt32(parcel);
    parcel >> source.format;
    source.setUrl(readText(parcel));
    source.param1 = readInt32(parcel);
    source.setClusterId(readText(parcel));
    source.param2 = readInt64(parcel);
}

// param4, param5, playbackContextHeadersJSON: what follows param2 (version 1) or param3.
template <typename Source>
void writeSourceTail(AndroidParcel& parcel, const Source& source) {
    parcel << source.param4 << source.param5;
    parcel.write(source.playbackContextHeadersJSON);
}
template <typename Source>
void readSourceTail(const AndroidParcel& parcel, Source& source) {
    source.param4 = readInt32(parcel);
    source.param5 = readInt32(parcel);
    source.setPlaybackContextHeadersJSON(readText(parcel));
}

// Everything of version 2, which versions 3 and 4 begin with.
template <typename Source>
void writeSourceV2Fields(AndroidParcel& parcel, const Source& source) {
    writeSourceHead(parcel, source);
    writeInt64(parcel, source.param3);
    writeSourceTail(parcel, source);
}
template <typename Source>
void readSourceV2Fields(const AndroidParcel& parcel, Source& source) {
    readSourceHead(parcel, source);
    source.param3 = readInt64(parcel);
    readSourceTail(parcel, source);
}

// Everything of version 3, which version 4 begins with.
template <typename Source>
void writeSourceV3Fields(AndroidParcel& parcel, const Source& source) {
    writeSourceV2Fields(parcel, source);
    parcel << source.param7 << source.param8;
    writeInt16(parcel, source.param9);
    writeInt16(parcel, source.param10);
    writeInt64(parcel, source.param11);
    parcel << source.param12 << source.param13;
}
template <typename Source>
void readSourceV3Fields(const AndroidParcel& parcel, Source& source) {
    readSourceV2Fields(parcel, source);
    source.param7 = readBool(parcel);
    source.param8 = readBool(parcel);
    source.param9 = readInt16(parcel);
    source.param10 = readInt16(parcel);
    source.param11 = readInt64(parcel);
    source.param12 = readBool(parcel);
    source.param13 = readInt32(parcel);
}

}  // namespace

// ---- format and sources

AndroidParcel& operator<<(AndroidParcel& parcel, const ZEMAudioFormat& format) {
    parcel << format.formatCode << format.sampleRate << format.sampleSizeInBits << format.channelNum
           << format.isSigned << format.layout << format.startOffset;
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, ZEMAudioFormat& format) {
    format.formatCode = readUint32(parcel);
    format.sampleRate = readUint32(parcel);
    format.sampleSizeInBits = readUint32(parcel);
    format.channelNum = readUint32(parcel);
    format.isSigned = readBool(parcel);
    format.layout = readInt32(parcel);
    format.startOffset = readInt32(parcel);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const ZEMAudioSource& source) {
    writeSourceHead(parcel, source);
    writeSourceTail(parcel, source);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, ZEMAudioSource& source) {
    readSourceHead(parcel, source);
    readSourceTail(parcel, source);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const ZEMAudioSourceV2& source) {
    writeSourceV2Fields(parcel, source);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, ZEMAudioSourceV2& source) {
    readSourceV2Fields(parcel, source);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const ZEMAudioSourceV3& source) {
    writeSourceV3Fields(parcel, source);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, ZEMAudioSourceV3& source) {
    readSourceV3Fields(parcel, source);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const ZEMAudioSourceV4& source) {
    writeSourceV3Fields(parcel, source);
    parcel << source.volumeGain;
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, ZEMAudioSourceV4& source) {
    readSourceV3Fields(parcel, source);
    source.volumeGain = readFloat(parcel);
    return parcel;
}

// ---- media description

// The texts are read into locals first: as constructor arguments they could be evaluated, and
// so read from the parcel, in any order.
AndroidParcel& operator<<(AndroidParcel& parcel, const CaptionData& caption) {
    parcel.write(caption.first);
    parcel.write(caption.second);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, CaptionData& caption) {
    const char* first = readText(parcel);
    const char* second = readText(parcel);
    caption = CaptionData(first, second);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const DescriptionPair& pair) {
    parcel.write(pair.first);
    parcel.write(pair.second);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, DescriptionPair& pair) {
    const char* first = readText(parcel);
    const char* second = readText(parcel);
    pair = DescriptionPair(first, second);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const DescriptionMap& map) {
    checkCount("DescriptionMap", map.count, DescriptionMap::kCapacity);
    parcel << map.count;
    for (uint32_t i = 0; i < map.count; ++i) {
        parcel << map.pairs[i];
    }
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, DescriptionMap& map) {
    const uint32_t count = readUint32(parcel);
    checkCount("DescriptionMap", count, DescriptionMap::kCapacity);
    map = DescriptionMap();  // the pairs beyond the count are null, whatever the target held
    map.count = count;
    for (uint32_t i = 0; i < count; ++i) {
        parcel >> map.pairs[i];
    }
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const MediaDescription& description) {
    parcel.write(description.firstText);
    parcel << static_cast<int>(description.interruptedBehavior);
    parcel.write(description.secondText);
    parcel.write(description.thirdText);
    parcel << description.caption << description.firstMap << description.secondMap
           << description.flag;
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, MediaDescription& description) {
    const char* firstText = readText(parcel);
    const auto interruptedBehavior = static_cast<InterruptedBehavior>(readInt32(parcel));
    const char* secondText = readText(parcel);
    const char* thirdText = readText(parcel);
    CaptionData caption;
    parcel >> caption;
    DescriptionMap firstMap;
    parcel >> firstMap;
    DescriptionMap secondMap;
    parcel >> secondMap;
    const bool flag = readBool(parcel);
    description =
        MediaDescription(firstText, interruptedBehavior, secondText, thirdText, std::move(caption),
                         std::move(firstMap), std::move(secondMap), flag);
    return parcel;
}

// ---- player state

AndroidParcel& operator<<(AndroidParcel& parcel, const MediaPlayerProtection& protection) {
    parcel.write(protection.protection);
    parcel << protection.isProtected;
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, MediaPlayerProtection& protection) {
    const char* text = readText(parcel);
    const bool isProtected = readBool(parcel);
    protection = MediaPlayerProtection(text, isProtected);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const MediaPlayerState& state) {
    parcel << state.offsetMs << state.stateCode << state.protection;
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, MediaPlayerState& state) {
    state.offsetMs = readInt32(parcel);
    state.stateCode = readInt32(parcel);
    parcel >> state.protection;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const MediaPlayerStateV2& state) {
    parcel << state.offsetMs << state.stateCode << state.protection;
    parcel.write(state.playlistType);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, MediaPlayerStateV2& state) {
    const int32_t offsetMs = readInt32(parcel);
    const int32_t stateCode = readInt32(parcel);
    MediaPlayerProtection protection;
    parcel >> protection;
    const char* playlistType = readText(parcel);
    state = MediaPlayerStateV2(offsetMs, stateCode, std::move(protection), playlistType);
    return parcel;
}

// ---- metadata

AndroidParcel& operator<<(AndroidParcel& parcel, const MetadataKeyValuePair& pair) {
    parcel.write(pair.key);
    parcel.write(pair.value);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, MetadataKeyValuePair& pair) {
    const char* key = readText(parcel);
    const char* value = readText(parcel);
    pair = MetadataKeyValuePair(key, value);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const MetadataKeyValuePairs& pairs) {
    checkCount("MetadataKeyValuePairs", pairs.count, MetadataKeyValuePairs::kCapacity);
    parcel << pairs.count;
    for (uint32_t i = 0; i < pairs.count; ++i) {
        parcel << pairs.pairs[i];
    }
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, MetadataKeyValuePairs& pairs) {
    const uint32_t count = readUint32(parcel);
    checkCount("MetadataKeyValuePairs", count, MetadataKeyValuePairs::kCapacity);
    pairs = MetadataKeyValuePairs();  // the pairs beyond the count are null
    pairs.count = count;
    for (uint32_t i = 0; i < count; ++i) {
        parcel >> pairs.pairs[i];
    }
    return parcel;
}

// ---- playback

AndroidParcel& operator<<(AndroidParcel& parcel, const PlaybackAttributes& attributes) {
    parcel.write(attributes.firstText);
    parcel.write(attributes.secondText);
    writeRaw32(parcel, attributes.firstValue);
    writeRaw32(parcel, attributes.secondValue);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, PlaybackAttributes& attributes) {
    const char* firstText = readText(parcel);
    const char* secondText = readText(parcel);
    const int32_t firstValue = readRaw32(parcel);
    const int32_t secondValue = readRaw32(parcel);
    attributes = PlaybackAttributes(firstText, secondText, firstValue, secondValue);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const PlaybackReport& report) {
    parcel << report.firstValue << report.secondValue << report.attributes;
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, PlaybackReport& report) {
    report.firstValue = readInt32(parcel);
    report.secondValue = readInt32(parcel);
    parcel >> report.attributes;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const PlaybackReports& reports) {
    if (reports.count != 0 && reports.reports == nullptr) {
        throw parlex::impl::runtime_error("PlaybackReports count " + std::to_string(reports.count) +
                                          " without reports");
    }
    parcel << reports.count;
    for (uint32_t i = 0; i < reports.count; ++i) {
        parcel << reports.reports[i];
    }
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, PlaybackReports& reports) {
    const uint32_t count = readUint32(parcel);
    // The array is allocated from the peer's count, so a count that the remaining bytes cannot
    // possibly hold is refused before it can make us allocate gigabytes.
    const size_t available = parcel->dataAvail();
    if (count > available / kMinReportBytes) {
        throw parlex::impl::runtime_error("PlaybackReports count " + std::to_string(count) +
                                          " exceeds what " + std::to_string(available) +
                                          " bytes can hold");
    }
    reports.reset(count);
    for (uint32_t i = 0; i < count; ++i) {
        parcel >> reports.reports[i];
    }
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const PlaybackReportArray& reports) {
    checkCount("PlaybackReportArray", reports.count, PlaybackReportArray::kCapacity);
    parcel << reports.count;
    for (uint32_t i = 0; i < reports.count; ++i) {
        parcel << reports.reports[i];
    }
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, PlaybackReportArray& reports) {
    const uint32_t count = readUint32(parcel);
    checkCount("PlaybackReportArray", count, PlaybackReportArray::kCapacity);
    reports = PlaybackReportArray();  // the reports beyond the count are default
    reports.count = count;
    for (uint32_t i = 0; i < count; ++i) {
        parcel >> reports.reports[i];
    }
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const Fingerprint& fingerprint) {
    parcel.write(fingerprint.first);
    parcel.write(fingerprint.second);
    parcel.write(fingerprint.third);
    return parcel;
}
const AndroidParcel& operator>>(const AndroidParcel& parcel, Fingerprint& fingerprint) {
    const char* first = readText(parcel);
    const char* second = readText(parcel);
    const char* third = readText(parcel);
    fingerprint = Fingerprint(first, second, third);
    return parcel;
}

}  // namespace orv
