// The value records: their parcel encoding and their copies. Each record has a hand-written wire
// image, built word by word independently of the code under test, whose fields are distinct and
// non-zero where they can be, every text non-null (some empty); a default record, all texts null,
// is the other sample. Comparing images compares every field and tells a null text from "".
#include <gtest/gtest.h>
#include <orv/Records.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/RecordCodec.h"
#include "support/TrackCases.h"

namespace orv::test {
namespace {

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

const Wire kFormat = Wire().i32(7).i32(44100).i32(16).i32(2).i32(1).i32(-1).i32(3);
const Wire kSourceStart = Wire().i32(kSourceTypeUrl).add(kFormat).str("url");
const Wire kV2 =
    Wire(kSourceStart).i32(3).str("c").i64(int64_t{1} << 40).i64(-7).i32(4).i32(5).str("{}");
const Wire kV3 = Wire(kV2).i32(1).i32(1).i32(-2).i32(300).i64(int64_t{9} << 40).i32(1).i32(-13);
const Wire kAttributes = Wire().str("x").str("").i32(-1).i32(1 << 20);

// `count` pairs of distinct texts after their count; the third value is null, the only null
// text of the samples, as a null inside an array is not in any default record.
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
    for (int i = 0; i < count; ++i) wire.i32(i + 1).i32(-1 - i).add(kAttributes);
    return wire;
}

template <typename T>
Wire wireFor();
// clang-format off
template <> Wire wireFor<ZEMAudioFormat>() { return kFormat; }
template <> Wire wireFor<ZEMAudioSource>() {
    return Wire(kSourceStart).i32(3).str("").i64(-(int64_t{5} << 40)).i32(4).i32(5).str("h");
}
template <> Wire wireFor<ZEMAudioSourceV2>() { return kV2; }
template <> Wire wireFor<ZEMAudioSourceV3>() { return kV3; }
// A NaN with a payload: the gain travels as its exact bits.
template <> Wire wireFor<ZEMAudioSourceV4>() { return Wire(kV3).i32(0x7fc12345); }
template <> Wire wireFor<MediaDescription>() {
    return Wire().str("a").i32(0x7fff1234).str("b").str("").str("cap").str("d")
        .add(pairsWire(DescriptionMap::kCapacity)).add(pairsWire(2)).i32(1);
}
template <> Wire wireFor<MediaPlayerState>() {
    return Wire().i32(5).i32(-6).str("p").i32(1);
}
template <> Wire wireFor<MediaPlayerStateV2>() {
    return Wire().i32(5).i32(-6).str("drm").i32(1).str("hls");
}
template <> Wire wireFor<MetadataKeyValuePairs>() {
    return pairsWire(MetadataKeyValuePairs::kCapacity);
}
template <> Wire wireFor<PlaybackAttributes>() { return kAttributes; }
template <> Wire wireFor<PlaybackReports>() { return reportsWire(3); }
template <> Wire wireFor<PlaybackReportArray>() {
    return reportsWire(PlaybackReportArray::kCapacity);
}
template <> Wire wireFor<Fingerprint>() { return Wire().str("a").str("b").str(""); }
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

template <typename T>
class RecordRoundTrip : public testing::Test {};
TYPED_TEST_SUITE(RecordRoundTrip, WireRecords);

// Read into a target that already holds other values and outlives the parcel (a record that
// kept the parcel's strings fails here), then written back: a dropped or misplaced field, or a
// null text turned empty, changes the bytes.
TYPED_TEST(RecordRoundTrip, ReaderConsumesExactlyTheFieldsTheWriterProduces) {
    for (const Bytes& sent : {wireFor<TypeParam>().bytes, bytesOf(TypeParam())}) {
        TypeParam received = sampled<TypeParam>();
        EXPECT_EQ(readFrom(sent, received), 0u);
        EXPECT_EQ(bytesOf(received), sent);
    }
}

// No prefix of the image may make the reader touch memory past the data (the sanitizer build
// checks) or pass for a whole record; and what the parcel cannot supply reads as zero or null,
// not as the old value.
TYPED_TEST(RecordRoundTrip, ShortParcelReadsNothingPastItsEndIsOverrunAndLeavesNoStaleValues) {
    const Bytes full = wireFor<TypeParam>().bytes;
    for (size_t cut = 0; cut < full.size(); ++cut) {
        TypeParam target = sampled<TypeParam>();
        parlex::AndroidParcel parcel;
        parcel->setData(full.data(), cut);
        try {
            parcel >> target;
            EXPECT_TRUE(parcel.overrun()) << "cut at " << cut;
        } catch (const parlex::impl::runtime_error&) {
            // a count that the remaining bytes cannot hold is refused
        }
    }
    TypeParam target = sampled<TypeParam>();
    readFrom(Bytes(), target);
    EXPECT_EQ(bytesOf(target), bytesOf(TypeParam()));
}

// The readers take the fields in the protocol's order and widths, and with the round trips above
// that pins the writers too: a writer with two fields swapped, and a reader swapped alike, round
// trip but fail here.
TEST(RecordLayout, FieldsGoOnTheWireInTheProtocolOrderAndWidths) {
    const Bytes negativeZeroGain = Wire(kV3).i32(INT32_MIN).bytes;
    ZEMAudioSourceV4 v4;
    readFrom(negativeZeroGain, v4);
    const ZEMAudioFormat& f = v4.format;
    EXPECT_EQ(
        join(v4.type, f.formatCode, f.sampleRate, f.sampleSizeInBits, f.channelNum, f.isSigned,
             f.layout, f.startOffset, v4.url, v4.param1, v4.clusterId, v4.param2, v4.param3,
             v4.param4, v4.param5, v4.playbackContextHeadersJSON, v4.param7, v4.param8, v4.param9,
             v4.param10, v4.param11, v4.param12, v4.param13, v4.volumeGain),
        "1/7/44100/16/2/1/-1/3/url/3/c/1099511627776/-7/4/5/{}/1/1/-2/300/9895604649984/1/"
        "-13/-0.000000/");
    EXPECT_EQ(bytesOf(v4), negativeZeroGain);  // the gain keeps the sign of a zero

    const auto d = sampled<MediaDescription>();
    EXPECT_EQ(join(d.firstText, d.interruptedBehavior, d.secondText, d.thirdText, d.caption.first,
                   d.caption.second, d.firstMap.count, d.firstMap.pairs[0].first,
                   d.firstMap.pairs[0].second, d.secondMap.count, d.flag),
              "a/2147422772/b//cap/d/20/key0/v/2/1/");
    const auto r = sampled<PlaybackReports>();
    EXPECT_EQ(join(r.count, r.reports[0].firstValue, r.reports[0].secondValue), "3/1/-1/");
    EXPECT_EQ(text(r.reports[0].attributes), "x//-1/1048576/");
    EXPECT_EQ(text(sampled<MetadataKeyValuePairs>()), "20:key0/v/");
    EXPECT_EQ(text(sampled<MediaPlayerState>()), "5/-6/p/1/");
    EXPECT_EQ(text(sampled<MediaPlayerStateV2>()), "5/-6/drm/1/hls/");
    EXPECT_EQ(text(sampled<Fingerprint>()), "a/b//");
}

// A reader that kept the target's old pairs beyond the new count would hand stale texts to a
// caller walking the whole array.
TEST(RecordCodec, PairsBeyondTheCountReadAsNullOverAFullTarget) {
    DescriptionMap map = sampled<MediaDescription>().firstMap;
    readFrom(Wire().i32(1).str("k").str("v").bytes, map);
    EXPECT_EQ(map.pairs[1].first, nullptr);
    MetadataKeyValuePairs metadata = sampled<MetadataKeyValuePairs>();
    readFrom(Wire().i32(2).str("k").str("v").i32(5).bytes, metadata);  // second key cut short
    EXPECT_EQ(metadata.pairs[1].key, nullptr);
    EXPECT_EQ(metadata.pairs[2].key, nullptr);

    PlaybackReports reports = sampled<PlaybackReports>();
    readFrom(Bytes(), reports);
    EXPECT_EQ(reports.reports, nullptr);
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
    const Wire minimalReport = Wire().i32(0).i32(0).str(nullptr).str(nullptr).i32(0).i32(0);
    const Wire twoMinimalReports = Wire().add(minimalReport).add(minimalReport);

    EXPECT_EQ(rejection<MediaDescription>(Wire(noTexts).i32(21).bytes),
              "DescriptionMap count 21 exceeds 20");
    EXPECT_EQ(rejection<MediaDescription>(Wire(noTexts).i32(0).i32(-1).bytes),  // second map
              "DescriptionMap count 4294967295 exceeds 20");
    EXPECT_EQ(rejection<MetadataKeyValuePairs>(Wire().i32(21).bytes),
              "MetadataKeyValuePairs count 21 exceeds 20");
    EXPECT_EQ(rejection<PlaybackReportArray>(Wire().i32(51).bytes),
              "PlaybackReportArray count 51 exceeds 50");
    EXPECT_EQ(rejection<PlaybackReports>(Wire().i32(-1).bytes),
              "PlaybackReports count 4294967295 exceeds what 0 bytes can hold");
    EXPECT_EQ(rejection<PlaybackReports>(Wire().i32(3).add(twoMinimalReports).bytes),
              "PlaybackReports count 3 exceeds what 48 bytes can hold");
    PlaybackReports reports;  // the bound is exact: reports of the minimal size all fit
    readFrom(Wire().i32(2).add(twoMinimalReports).bytes, reports);
    EXPECT_EQ(reports.count, 2u);
}

// Every copy, move, assignment and self-assignment must keep every field and leave each record
// with its own strings, and a null text must stay null. A copy or move that shares a text with
// its source reads freed memory once the source is gone, or frees it twice; the sanitizer build
// reports both, and leaks.
template <typename T>
class RecordCopy : public testing::Test {};
TYPED_TEST_SUITE(RecordCopy, WireRecords);

TYPED_TEST(RecordCopy, CopiesAndMovesOwnTheirTextsKeepEveryFieldAndKeepNullsNull) {
    // Read in place: the sample must not pass through the copying under test.
    auto original = std::make_unique<TypeParam>();
    readFrom(wireFor<TypeParam>().bytes, *original);
    const Bytes expected = bytesOf(*original);
    TypeParam copy(*original);
    TypeParam assigned = sampled<TypeParam>();  // leaks its old texts unless assignment frees them
    assigned = *original;
    const TypeParam& alias = assigned;
    assigned = alias;  // self-assignment
    original.reset();
    EXPECT_EQ(bytesOf(copy), expected);
    EXPECT_EQ(bytesOf(assigned), expected);
    TypeParam moved(std::move(copy));
    assigned = sampled<TypeParam>();  // leaks its old texts unless moving frees them
    assigned = std::move(moved);
    EXPECT_EQ(bytesOf(assigned), expected);

    const TypeParam empty;  // every text null, which must not turn into ""
    assigned = empty;
    EXPECT_EQ(bytesOf(assigned), bytesOf(empty));
    EXPECT_EQ(bytesOf(TypeParam(empty)), bytesOf(empty));
}

// The copy of the new text must be made before the old one is freed.
TEST(RecordCopy, ATextSetFromItsOwnValueSurvives) {
    ZEMAudioSourceV4 source;
    source.setUrl("http://host/a");
    source.setUrl(source.url);
    EXPECT_STREQ(source.url, "http://host/a");
}

}  // namespace
}  // namespace orv::test
