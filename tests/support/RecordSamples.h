// A hand-written wire image of each record, built word by word independently of the code under
// test, and the record read from it: every field distinct and non-zero where it can be, every
// text non-null (some empty), so that a dropped, misplaced or shared field shows in the bytes.
// A default record, all texts null, is the other sample.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/RecordCodec.h"

namespace orv::test {

using Bytes = std::vector<uint8_t>;

class Wire {
public:
    Wire& i32(int32_t value) { return raw(&value, 4); }
    Wire& i64(int64_t value) { return raw(&value, 8); }
    Wire& str(const char* text) {
        if (text == nullptr) return i32(-1);
        i32(static_cast<int32_t>(std::strlen(text)));
        raw(text, std::strlen(text) + 1);
        while (bytes.size() % 4 != 0) bytes.push_back(0);
        return *this;
    }
    Wire& add(const Wire& other) { return raw(other.bytes.data(), other.bytes.size()); }
    Bytes bytes;

private:
    Wire& raw(const void* data, size_t size) {
        const auto* begin = static_cast<const uint8_t*>(data);
        bytes.insert(bytes.end(), begin, begin + size);
        return *this;
    }
};

template <typename T>
Bytes bytesOf(const T& value) {
    parlex::AndroidParcel parcel;
    parcel << value;
    return Bytes(parcel->data(), parcel->data() + parcel->dataSize());
}

// Returns how many bytes the reader left unread.
template <typename T>
size_t readFrom(const Bytes& bytes, T& target) {
    parlex::AndroidParcel parcel;
    parcel->setData(bytes.data(), bytes.size());
    parcel >> target;
    return parcel->dataAvail();
}

inline const Wire kFormat = Wire().i32(7).i32(44100).i32(16).i32(2).i32(1).i32(-1).i32(3);
inline const Wire kSourceStart = Wire().i32(kSourceTypeUrl).add(kFormat).str("url");
inline const Wire kV2 =
    Wire(kSourceStart).i32(3).str("c").i64(int64_t{1} << 40).i64(-7).i32(4).i32(5).str("{}");
inline const Wire kV3 =
    Wire(kV2).i32(1).i32(1).i32(-2).i32(300).i64(int64_t{9} << 40).i32(1).i32(-13);
inline const Wire kAttributes = Wire().str("x").str("").i32(-1).i32(1 << 20);

// `count` pairs of distinct texts after their count; the third value is null, the only null
// text of the samples, as a null inside an array is not in any default record.
inline Wire pairsWire(int count) {
    Wire wire;
    wire.i32(count);
    for (int i = 0; i < count; ++i) {
        wire.str(("key" + std::to_string(i)).c_str()).str(i == 1 ? "" : i == 2 ? nullptr : "v");
    }
    return wire;
}
inline Wire reportsWire(int count) {
    Wire wire;
    wire.i32(count);
    for (int i = 0; i < count; ++i) wire.i32(i + 1).i32(-1 - i).add(kAttributes);
    return wire;
}

template <typename T>
Wire wireFor();
// clang-format off
template <> inline Wire wireFor<ZEMAudioFormat>() { return kFormat; }
template <> inline Wire wireFor<ZEMAudioSource>() {
    return Wire(kSourceStart).i32(3).str("").i64(-(int64_t{5} << 40)).i32(4).i32(5).str("h");
}
template <> inline Wire wireFor<ZEMAudioSourceV2>() { return kV2; }
template <> inline Wire wireFor<ZEMAudioSourceV3>() { return kV3; }
// A NaN with a payload: the gain travels as its exact bits.
template <> inline Wire wireFor<ZEMAudioSourceV4>() { return Wire(kV3).i32(0x7fc12345); }
template <> inline Wire wireFor<MediaDescription>() {
    return Wire().str("a").i32(0x7fff1234).str("b").str("").str("cap").str("d")
        .add(pairsWire(DescriptionMap::kCapacity)).add(pairsWire(2)).i32(1);
}
template <> inline Wire wireFor<MediaPlayerState>() {
    return Wire().i32(5).i32(-6).str("p").i32(1);
}
template <> inline Wire wireFor<MediaPlayerStateV2>() {
    return Wire().i32(5).i32(-6).str("drm").i32(1).str("hls");
}
template <> inline Wire wireFor<MetadataKeyValuePairs>() {
    return pairsWire(MetadataKeyValuePairs::kCapacity);
}
template <> inline Wire wireFor<PlaybackAttributes>() { return kAttributes; }
template <> inline Wire wireFor<PlaybackReports>() { return reportsWire(3); }
template <> inline Wire wireFor<PlaybackReportArray>() {
    return reportsWire(PlaybackReportArray::kCapacity);
}
template <> inline Wire wireFor<Fingerprint>() { return Wire().str("a").str("b").str(""); }
// clang-format on

template <typename T>
T sampled() {
    T value;
    readFrom(wireFor<T>().bytes, value);
    return value;
}

using WireRecords =
    testing::Types<ZEMAudioFormat, ZEMAudioSource, ZEMAudioSourceV2, ZEMAudioSourceV3,
                   ZEMAudioSourceV4, MediaDescription, MediaPlayerState, MediaPlayerStateV2,
                   MetadataKeyValuePairs, PlaybackAttributes, PlaybackReports, PlaybackReportArray,
                   Fingerprint>;

}  // namespace orv::test
