// Parcel encoding of the records: exact byte layouts written out by hand, round trips of every
// record, and readers facing hostile counts and truncated parcels.
#include <gtest/gtest.h>

#include <string>

#include "support/RecordSamples.h"
#include "support/TrackCases.h"

namespace orv::test {
namespace {

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
// checks); and what the parcel cannot supply reads as zero or null, not as the old value.
TYPED_TEST(RecordRoundTrip, ShortParcelReadsNothingPastItsEndAndLeavesNoStaleValues) {
    const Bytes full = wireFor<TypeParam>().bytes;
    for (size_t cut = 0; cut < full.size(); ++cut) {
        TypeParam target = sampled<TypeParam>();
        try {
            readFrom(Bytes(full.begin(), full.begin() + cut), target);
        } catch (const parlex::impl::runtime_error&) {
            // a count that the remaining bytes cannot hold is refused
        }
    }
    TypeParam target = sampled<TypeParam>();
    readFrom(Bytes(), target);
    EXPECT_EQ(bytesOf(target), bytesOf(TypeParam()));
}

// The reader takes a source's fields in the protocol's order and widths, and with the round trips
// above that pins the writer too; the other records are built and written. A writer with two
// fields swapped, and a reader swapped alike, round trip but fail here.
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
        {"MediaDescription", bytesOf(description),
         Wire().str("first").i32(2).str(nullptr).str("").str("cap").str(nullptr)
             .i32(2).str("a").str("b").str("c").str(nullptr)
             .i32(1).str("key").str("value")
             .i32(1)},
        {"MediaPlayerStateV2",
         bytesOf(MediaPlayerStateV2(5, -6, MediaPlayerProtection("drm", true), "hls")),
         wireFor<MediaPlayerStateV2>()},
        {"PlaybackAttributes", bytesOf(PlaybackAttributes("x", "", -1, 1 << 20)), kAttributes},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.written, c.expected.bytes);
    }
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

}  // namespace
}  // namespace orv::test
