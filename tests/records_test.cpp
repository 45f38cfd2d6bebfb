// Copying the records: every copy, assignment and self-assignment must keep every field and
// leave each record with its own strings, and a null text must stay null. A copy that shares a
// text with its source reads freed memory once the source is gone, or frees it twice; the
// sanitizer build reports both, and leaks.
#include <gtest/gtest.h>
#include <orv/Records.h>

#include <memory>
#include <type_traits>
#include <vector>

#include "common/RecordCodec.h"

namespace orv {
namespace {

// Every field, nested ones included, set to a non-default value and every text non-null;
// built without the record's own assignment, whose faults would otherwise hide here.
template <typename Source>
Source filled() {
    Source s;
    s.type = kSourceTypeUrl;
    s.format = {1, 2, 3, 4, true, 5, 6};
    s.setUrl("text");
    s.param1 = 7;
    s.setClusterId("text");
    s.param2 = int64_t{8} << 40;
    s.param4 = 9;
    s.param5 = 10;
    s.setPlaybackContextHeadersJSON("text");
    if constexpr (!std::is_same_v<Source, ZEMAudioSource>) s.param3 = int64_t{11} << 40;
    if constexpr (std::is_same_v<Source, ZEMAudioSourceV3> ||
                  std::is_same_v<Source, ZEMAudioSourceV4>) {
        s.param7 = s.param8 = s.param12 = true;
        s.param9 = -12;
        s.param10 = 13;
        s.param11 = int64_t{14} << 40;
        s.param13 = 15;
    }
    if constexpr (std::is_same_v<Source, ZEMAudioSourceV4>) s.volumeGain = 0.5f;
    return s;
}
template <>
MediaDescription filled<MediaDescription>() {
    DescriptionMap map;
    map.count = DescriptionMap::kCapacity;
    for (auto& pair : map.pairs) pair = DescriptionPair("text", "text");
    return MediaDescription("text", InterruptedBehavior(1), "text", "text", CaptionData("text", "text"),
                            map, map, true);
}
template <>
MediaPlayerStateV2 filled<MediaPlayerStateV2>() {
    return MediaPlayerStateV2(1, 2, MediaPlayerProtection("text", true), "text");
}
template <>
PlaybackReports filled<PlaybackReports>() {
    PlaybackReports r(3);
    for (uint32_t i = 0; i < r.count; ++i) {
        r.reports[i].firstValue = r.reports[i].secondValue = static_cast<int32_t>(i) + 1;
        r.reports[i].attributes = PlaybackAttributes("text", "text", -1, 1L << 20);
    }
    return r;
}
template <>
Fingerprint filled<Fingerprint>() {
    return Fingerprint("text", "text", "text");
}

// The wire image serves as a comparison of every field, and tells a null text from an empty one.
template <typename T>
std::vector<uint8_t> image(const T& value) {
    parlex::AndroidParcel parcel;
    parcel << value;
    return std::vector<uint8_t>(parcel->data(), parcel->data() + parcel->dataSize());
}

template <typename T>
class RecordCopy : public testing::Test {};
using OwningRecords =
    testing::Types<ZEMAudioSource, ZEMAudioSourceV2, ZEMAudioSourceV3, ZEMAudioSourceV4,
                   MediaDescription, MediaPlayerStateV2, PlaybackReports, Fingerprint>;
TYPED_TEST_SUITE(RecordCopy, OwningRecords);

TYPED_TEST(RecordCopy, CopiesOwnTheirTextsKeepEveryFieldAndKeepNullsNull) {
    // Built in place: make_unique would copy it, and copying is what is under test.
    std::unique_ptr<TypeParam> original(new TypeParam(filled<TypeParam>()));
    const std::vector<uint8_t> expected = image(*original);
    TypeParam copy(*original);
    TypeParam assigned = filled<TypeParam>();  // leaks its old texts unless assignment frees them
    assigned = *original;
    const TypeParam& alias = assigned;
    assigned = alias;  // self-assignment
    original.reset();
    EXPECT_EQ(image(copy), expected);
    EXPECT_EQ(image(assigned), expected);

    const TypeParam empty;  // every text null, which must not turn into ""
    assigned = empty;
    EXPECT_EQ(image(assigned), image(empty));
    EXPECT_EQ(image(TypeParam(empty)), image(empty));
}

// Moving hands texts over instead of copying them: the target must end up with every field and
// the source with null texts, or the two would free the same text (the sanitizer build reports
// that).
template <typename T>
class RecordMove : public testing::Test {};
using MovableRecords = testing::Types<MediaDescription, MediaPlayerStateV2>;
TYPED_TEST_SUITE(RecordMove, MovableRecords);

TYPED_TEST(RecordMove, MovesHandEveryTextOverAndLeaveTheSourceWithNone) {
    TypeParam source = filled<TypeParam>();
    const std::vector<uint8_t> expected = image(source);
    TypeParam moved(std::move(source));
    TypeParam assigned = filled<TypeParam>();  // leaks its old texts unless assignment frees them
    assigned = std::move(moved);
    EXPECT_EQ(image(assigned), expected);
    for (const TypeParam* from : {&source, &moved}) {
        if constexpr (std::is_same_v<TypeParam, MediaDescription>) {
            EXPECT_EQ(from->firstText, nullptr);
            EXPECT_EQ(from->caption.first, nullptr);
            EXPECT_EQ(from->firstMap.pairs[0].second, nullptr);
        } else {
            EXPECT_EQ(from->protection.protection, nullptr);
            EXPECT_EQ(from->playlistType, nullptr);
        }
    }
}

TEST(RecordCopy, SettingATextFromItsOwnValueKeepsIt) {
    ZEMAudioSourceV4 source;
    source.setUrl("http://host/a");
    source.setUrl(source.url);
    EXPECT_STREQ(source.url, "http://host/a");
}

TEST(RecordCopy, ReportsWithoutEntriesCopyAsNullArray) {
    PlaybackReports target = filled<PlaybackReports>();
    target = PlaybackReports();
    EXPECT_EQ(target.reports, nullptr);
    EXPECT_EQ(PlaybackReports(target).reports, nullptr);
}

}  // namespace
}  // namespace orv
