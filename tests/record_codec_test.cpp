// Parcel encoding of the records: exact byte layouts written out by hand, round trips of every
// record, and readers facing hostile counts and truncated parcels.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "common/RecordCodec.h"

namespace orv {
namespace {

using Bytes = std::vector<uint8_t>;

// The expected wire image, built word by word independently of the code under test.
class Wire {
public:
    Wire& i32(int32_t value) { return raw(&value, 4); }
    Wire& i64(int64_t value) { return raw(&value, 8); }
    Wire& f32(uint32_t bits) { return raw(&bits, 4); }
    Wire& str(const char* text) {
        if (text == nullptr) return i32(-1);
        i32(static_cast<int32_t>(std::strlen(text)));
        raw(text, std::strlen(text) + 1);
        while (bytes.size() % 4 != 0) bytes.push_back(0);
        return *this;
    }
    Wire& add(const Wire& other) {
        bytes.insert(bytes.end(), other.bytes.begin(), other.bytes.end());
        return *this;
    }
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

template <typename T>
void readFrom(const Bytes& bytes, T& target) {
    parlex::AndroidParcel parcel;
    parcel->setData(bytes.data(), bytes.size());
    parcel >> target;
}

// A hand-written wire image of each record, every field distinct and non-zero where it can be
// and flags 0 or 1, so that reading it and writing the result back must reproduce it exactly.
const Wire kFormat = Wire().i32(7).i32(44100).i32(16).i32(2).i32(1).i32(-1).i32(3);
const Wire kSourceStart = Wire().i32(kSourceTypeUrl).add(kFormat).str("url");
const Wire kV2 =
    Wire(kSourceStart).i32(3).str("c").i64(int64_t{1} << 40).i64(-7).i32(4).i32(5).str("{}");
const Wire kV3 = Wire(kV2).i32(1).i32(0).i32(-2).i32(300).i64(int64_t{9} << 40).i32(1).i32(-13);
const Wire kAttributes = Wire().str("x").str("").i32(-1).i32(1 << 20);

// `count` pairs of distinct texts, some empty or null, after their count.
Wire pairsWire(int count) {
    Wire wire;
    wire.i32(count);
    for (int i = 0; i < count; ++i) {
        wire.str(("key" + std::to_string(i)).c_str()).str(i == 1 ? "" : i == 2 ? nullptr : "v");
    }
    return wire;
}
Wire reportsWire(int count) {
    Wire wire;
    wire.i32(count);
    for (int i = 0; i < count; ++i) wire.i32(i + 1).i32(-i).add(kAttributes);
    return wire;
}

template <typename T>
Wire wireFor();
// clang-format off
template <> Wire wireFor<ZEMAudioFormat>() { return kFormat; }
template <> Wire wireFor<ZEMAudioSource>() {
    return Wire(kSourceStart).i32(3).str("").i64(-(int64_t{5} << 40)).i32(4).i32(5).str(nullptr);
}
template <> Wire wireFor<ZEMAudioSourceV2>() { return kV2; }
template <> Wire wireFor<ZEMAudioSourceV3>() { return kV3; }
template <> Wire wireFor<ZEMAudioSourceV4>() { return Wire(kV3).f32(0x3e800000); }
template <> Wire wireFor<MediaDescription>() {
    return Wire().str("a").i32(0x7fff1234).str(nullptr).str("").str("cap").str(nullptr)
        .add(pairsWire(DescriptionMap::kCapacity)).add(pairsWire(2)).i32(1);
}
template <> Wire wireFor<MediaPlayerState>() { return Wire().i32(5).i32(-6).str("p").i32(1); }
template <> Wire wireFor<MediaPlayerStateV2>() {
    return Wire().i32(5).i32(-6).str(nullptr).i32(1).str("hls");
}
template <> Wire wireFor<MetadataKeyValuePairs>() {
    return pairsWire(MetadataKeyValuePairs::kCapacity);
}
template <> Wire wireFor<PlaybackAttributes>() { return kAttributes; }
template <> Wire wireFor<PlaybackReports>() { return reportsWire(3); }
template <> Wire wireFor<PlaybackReportArray>() {
    return reportsWire(PlaybackReportArray::kCapacity);
}
template <> Wire wireFor<Fingerprint>() { return Wire().str("a").str(nullptr).str(""); }
// clang-format on

template <typename T>
T sampled() {
    T value;
    readFrom(wireFor<T>().bytes, value);
    return value;
}

template <typename T>
class RecordRoundTrip : public testing::Test {};
using WireRecords =
    testing::Types<ZEMAudioFormat, ZEMAudioSource, ZEMAudioSourceV2, ZEMAudioSourceV3,
                   ZEMAudioSourceV4, MediaDescription, MediaPlayerState, MediaPlayerStateV2,
                   MetadataKeyValuePairs, PlaybackAttributes, PlaybackReports, PlaybackReportArray,
                   Fingerprint>;
TYPED_TEST_SUITE(RecordRoundTrip, WireRecords);

// Read into a target that already holds other values and outlives the parcel (a record that
// kept the parcel's strings fails here), then written back: a dropped or misplaced field, or a
// null text turned empty, changes the bytes.
TYPED_TEST(RecordRoundTrip, ReaderConsumesExactlyTheFieldsTheWriterProduces) {
    for (const Bytes& sent : {wireFor<TypeParam>().bytes, bytesOf(TypeParam())}) {
        TypeParam received = sampled<TypeParam>();
        {
            parlex::AndroidParcel parcel;
            parcel->setData(sent.data(), sent.size());
            parcel >> received;
            EXPECT_EQ(parcel->dataAvail(), 0u);
        }
        EXPECT_EQ(bytesOf(received), sent);
    }
}

TEST(RecordLayout, FieldsGoOnTheWireInTheProtocolOrderAndWidths) {
    ZEMAudioSourceV4 v4;
    v4.type = kSourceTypeUrl;
    v4.format = {7, 44100, 16, 2, true, 1, -3};
    v4.setUrl("http://a");
    v4.param1 = 11;
    v4.setClusterId(nullptr);
    v4.param2 = -(int64_t{1} << 40);
    v4.param3 = int64_t{5} << 33;
    v4.param4 = 44;
    v4.param5 = 55;
    v4.setPlaybackContextHeadersJSON("{}");
    v4.param7 = true;
    v4.param9 = -2;
    v4.param10 = 0x7fff;
    v4.param11 = -(int64_t{3} << 36);
    v4.param12 = true;
    v4.param13 = 1313;
    v4.volumeGain = -0.0f;

    DescriptionMap first, second;
    first.count = 2;
    first.pairs[0] = DescriptionPair("a", "b");
    first.pairs[1] = DescriptionPair("c", nullptr);
    first.pairs[2] = DescriptionPair("unused", "unused");  // beyond the count: not sent
    second.count = 1;
    second.pairs[0] = DescriptionPair("key", "value");
    const MediaDescription description("first", static_cast<InterruptedBehavior>(2), nullptr, "",
                                       CaptionData("cap", nullptr), first, second, true);

    struct Case {
        const char* name;
        Bytes written;
        Wire expected;
    };
    // clang-format off
    const Case cases[] = {
        {"ZEMAudioSourceV4", bytesOf(v4),
         Wire()
             .i32(1)
             .i32(7).i32(44100).i32(16).i32(2).i32(1).i32(1).i32(-3)
             .str("http://a").i32(11).str(nullptr).i64(-(int64_t{1} << 40)).i64(int64_t{5} << 33)
             .i32(44).i32(55).str("{}")
             .i32(1).i32(0).i32(-2).i32(0x7fff).i64(-(int64_t{3} << 36)).i32(1).i32(1313)
             .f32(0x80000000u)},
        {"MediaDescription", bytesOf(description),
         Wire().str("first").i32(2).str(nullptr).str("").str("cap").str(nullptr)
             .i32(2).str("a").str("b").str("c").str(nullptr)
             .i32(1).str("key").str("value")
             .i32(1)},
        {"MediaPlayerStateV2",
         bytesOf(MediaPlayerStateV2(1234, -3, MediaPlayerProtection("drm", true), "live")),
         Wire().i32(1234).i32(-3).str("drm").i32(1).str("live")},
        {"PlaybackAttributes", bytesOf(PlaybackAttributes("x", nullptr, -5, 70000)),
         Wire().str("x").str(nullptr).i32(-5).i32(70000)},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.written, c.expected.bytes);
    }
}

TEST(RecordCodec, EmptyMapsAndReportsReadBackAsNullsOverAFullTarget) {
    MediaDescription description = sampled<MediaDescription>();
    readFrom(bytesOf(MediaDescription()), description);
    for (const DescriptionMap* map : {&description.firstMap, &description.secondMap}) {
        EXPECT_EQ(map->count, 0u);
        for (const DescriptionPair& pair : map->pairs) {
            EXPECT_EQ(pair.first, nullptr);
            EXPECT_EQ(pair.second, nullptr);
        }
    }
    DescriptionMap map = sampled<MediaDescription>().firstMap;
    readFrom(Wire().i32(0).bytes, map);
    EXPECT_EQ(map.pairs[0].first, nullptr);

    MetadataKeyValuePairs metadata = sampled<MetadataKeyValuePairs>();
    readFrom(Wire().i32(1).str("k").str("v").bytes, metadata);
    EXPECT_STREQ(metadata.pairs[0].key, "k");
    EXPECT_EQ(metadata.pairs[1].key, nullptr);

    PlaybackReports reports = sampled<PlaybackReports>();
    readFrom(Wire().i32(0).bytes, reports);
    EXPECT_EQ(reports.count, 0u);
    EXPECT_EQ(reports.reports, nullptr);
}

TEST(RecordCodec, VolumeGainKeepsItsExactBits) {
    for (uint32_t bits : {0x7fc12345u, 0x80000000u, 0x3f800000u}) {
        ZEMAudioSourceV4 source;
        std::memcpy(&source.volumeGain, &bits, 4);
        ZEMAudioSourceV4 read;
        readFrom(bytesOf(source), read);
        uint32_t readBits = 0;
        std::memcpy(&readBits, &read.volumeGain, 4);
        EXPECT_EQ(readBits, bits);
    }
}

// Returns the reader's error message; the target must be exactly as it was before.
template <typename T>
std::string rejection(const Bytes& bytes) {
    T target = sampled<T>();
    const Bytes before = bytesOf(target);
    std::string message = "<accepted>";
    try {
        readFrom(bytes, target);
    } catch (const parlex::impl::runtime_error& error) {
        message = error.what();
    }
    EXPECT_EQ(bytesOf(target), before);
    return message;
}

TEST(RecordCodec, CountsBeyondCapacityOrDataAreRejectedBeforeTheTargetChanges) {
    const Wire noTexts =
        Wire().str(nullptr).i32(0).str(nullptr).str(nullptr).str(nullptr).str(nullptr);
    Bytes twoMinimalReports = Wire().i32(2).bytes;
    for (int i = 0; i < 2; ++i) {
        const Bytes report = Wire().i32(0).i32(0).str(nullptr).str(nullptr).i32(0).i32(0).bytes;
        twoMinimalReports.insert(twoMinimalReports.end(), report.begin(), report.end());
    }
    Bytes threeReportsInTwoReportsSpace = twoMinimalReports;
    threeReportsInTwoReportsSpace[0] = 3;

    struct Case {
        const char* name;
        std::function<std::string(const Bytes&)> read;
        Bytes bytes;
        std::string message;
    };
    const Case cases[] = {
        {"first map", rejection<MediaDescription>, Wire(noTexts).i32(21).bytes,
         "DescriptionMap count 21 exceeds 20"},
        {"second map", rejection<MediaDescription>, Wire(noTexts).i32(0).i32(-1).bytes,
         "DescriptionMap count 4294967295 exceeds 20"},
        {"metadata", rejection<MetadataKeyValuePairs>, Wire().i32(21).bytes,
         "MetadataKeyValuePairs count 21 exceeds 20"},
        {"report array", rejection<PlaybackReportArray>, Wire().i32(51).bytes,
         "PlaybackReportArray count 51 exceeds 50"},
        {"reports, negative", rejection<PlaybackReports>, Wire().i32(-1).bytes,
         "PlaybackReports count 4294967295 exceeds what 0 bytes can hold"},
        {"reports, one too many", rejection<PlaybackReports>, threeReportsInTwoReportsSpace,
         "PlaybackReports count 3 exceeds what 48 bytes can hold"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.read(c.bytes), c.message);
    }
    PlaybackReports reports;  // the bound is exact: reports of the minimal size all fit
    readFrom(twoMinimalReports, reports);
    EXPECT_EQ(reports.count, 2u);
}

TEST(RecordCodec, TruncatedParcelReadsAsZerosAndNullsNeverStaleValues) {
    const Bytes full = bytesOf(sampled<ZEMAudioSourceV4>());
    for (size_t cut = 0; cut < full.size(); ++cut) {  // no cut may read past the data
        ZEMAudioSourceV4 source = sampled<ZEMAudioSourceV4>();
        readFrom(Bytes(full.begin(), full.begin() + cut), source);
    }
    ZEMAudioSourceV4 source = sampled<ZEMAudioSourceV4>();
    readFrom(Bytes(full.begin(), full.begin() + 32), source);  // type and format only
    EXPECT_EQ(source.format.sampleRate, 44100u);
    EXPECT_EQ(source.url, nullptr);
    EXPECT_EQ(source.playbackContextHeadersJSON, nullptr);
    EXPECT_EQ(source.param2, 0);
    EXPECT_EQ(source.param9, 0);
    EXPECT_EQ(source.param13, 0);
    EXPECT_FALSE(source.param7);
    EXPECT_EQ(source.volumeGain, 0.0f);

    MetadataKeyValuePairs metadata;
    readFrom(Wire().i32(2).str("k").str("v").i32(5).bytes, metadata);  // second key cut short
    EXPECT_EQ(metadata.count, 2u);
    EXPECT_STREQ(metadata.pairs[0].value, "v");
    EXPECT_EQ(metadata.pairs[1].key, nullptr);
}

}  // namespace
}  // namespace orv
