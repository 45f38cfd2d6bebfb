// Copying the records: every copy, assignment and self-assignment must keep every field and
// leave each record with its own strings (the sanitizer build catches double frees and leaks),
// and a null text must stay null.
#include <gtest/gtest.h>
#include <orv/Records.h>

#include <vector>

#include "common/RecordCodec.h"

namespace orv {
namespace {

// For each record: set every field, nested ones included, to a non-default value; and list all
// of its texts.
template <typename Source>
void fillSource(Source& s) {
    s.type = kSourceTypeUrl;
    s.format = {1, 2, 3, 4, true, 5, 6};
    s.setUrl("text");
    s.param1 = 7;
    s.setClusterId("text");
    s.param2 = int64_t{8} << 40;
    s.param4 = 9;
    s.param5 = 10;
    s.setPlaybackContextHeadersJSON("text");
}
template <typename Source>
void fillSourceV3(Source& s) {
    fillSource(s);
    s.param3 = int64_t{11} << 40;
    s.param7 = s.param8 = s.param12 = true;
    s.param9 = -12;
    s.param10 = 13;
    s.param11 = int64_t{14} << 40;
    s.param13 = 15;
}
void fill(ZEMAudioSource& s) { fillSource(s); }
void fill(ZEMAudioSourceV2& s) {
    fillSource(s);
    s.param3 = 16;
}
void fill(ZEMAudioSourceV3& s) { fillSourceV3(s); }
void fill(ZEMAudioSourceV4& s) {
    fillSourceV3(s);
    s.volumeGain = 0.5f;
}
template <typename Source>
std::vector<char*> texts(Source& s) {
    return {s.url, s.clusterId, s.playbackContextHeadersJSON};
}

void fill(DescriptionMap& m) {
    m.count = DescriptionMap::kCapacity;
    for (auto& pair : m.pairs) pair = DescriptionPair("text", "text");
}
void fill(MediaDescription& d) {
    DescriptionMap first, second;
    fill(first);
    fill(second);
    d = MediaDescription("text", kInterruptedStop, "text", "text", CaptionData("text", "text"),
                         first, second, true);
}
std::vector<char*> texts(MediaDescription& d) {
    std::vector<char*> all = {d.firstText, d.secondText, d.thirdText, d.caption.first,
                              d.caption.second};
    for (DescriptionMap* map : {&d.firstMap, &d.secondMap}) {
        for (auto& pair : map->pairs) all.insert(all.end(), {pair.first, pair.second});
    }
    return all;
}

void fill(MediaPlayerStateV2& s) {
    s = MediaPlayerStateV2(1, 2, MediaPlayerProtection("text", true), "text");
}
std::vector<char*> texts(MediaPlayerStateV2& s) {
    return {s.protection.protection, s.playlistType};
}

void fill(PlaybackReports& r) {
    r.reset(3);
    for (uint32_t i = 0; i < r.count; ++i) {
        r.reports[i].firstValue = r.reports[i].secondValue = static_cast<int32_t>(i) + 1;
        r.reports[i].attributes = PlaybackAttributes("text", "text", -1, 1L << 20);
    }
}
std::vector<char*> texts(PlaybackReports& r) {
    std::vector<char*> all;
    for (uint32_t i = 0; i < r.count; ++i) {
        const PlaybackAttributes& attributes = r.reports[i].attributes;
        all.insert(all.end(), {attributes.firstText, attributes.secondText});
    }
    return all;
}

void fill(Fingerprint& f) { f = Fingerprint("text", "text", "text"); }
std::vector<char*> texts(Fingerprint& f) { return {f.first, f.second, f.third}; }

template <typename T>
T filled() {
    T value;
    fill(value);
    return value;
}

// The wire image serves as a comparison of every field.
template <typename T>
std::vector<uint8_t> image(const T& value) {
    parlex::AndroidParcel parcel;
    parcel << value;
    return std::vector<uint8_t>(parcel->data(), parcel->data() + parcel->dataSize());
}

// `copy` equals `original` field for field, and each of its texts lives in its own buffer:
// writing into the copy's buffer leaves the original alone.
template <typename T>
void expectIndependentEqual(T& original, T& copy) {
    EXPECT_EQ(image(copy), image(original));
    const std::vector<char*> mine = texts(original);
    const std::vector<char*> theirs = texts(copy);
    ASSERT_EQ(mine.size(), theirs.size());
    for (size_t i = 0; i < mine.size(); ++i) {
        SCOPED_TRACE(i);
        ASSERT_NE(mine[i], nullptr);
        ASSERT_NE(theirs[i], mine[i]);
        const char kept = mine[i][0];
        theirs[i][0] = '#';
        EXPECT_EQ(mine[i][0], kept);
    }
}

template <typename T>
class RecordCopy : public testing::Test {};
using OwningRecords =
    testing::Types<ZEMAudioSource, ZEMAudioSourceV2, ZEMAudioSourceV3, ZEMAudioSourceV4,
                   MediaDescription, MediaPlayerStateV2, PlaybackReports, Fingerprint>;
TYPED_TEST_SUITE(RecordCopy, OwningRecords);

TYPED_TEST(RecordCopy, CopyConstructorKeepsEveryFieldInOwnBuffers) {
    TypeParam original = filled<TypeParam>();
    TypeParam copy(original);
    expectIndependentEqual(original, copy);
}

TYPED_TEST(RecordCopy, AssignmentFreesOldTextsAndKeepsEveryFieldInOwnBuffers) {
    TypeParam original = filled<TypeParam>();
    TypeParam target = filled<TypeParam>();  // a leak of its texts shows in the sanitizer build
    target = original;
    expectIndependentEqual(original, target);
}

TYPED_TEST(RecordCopy, SelfAssignmentKeepsEveryField) {
    TypeParam value = filled<TypeParam>();
    const auto before = image(value);
    const TypeParam& alias = value;
    value = alias;
    EXPECT_EQ(image(value), before);
}

TYPED_TEST(RecordCopy, NullTextsStayNullThroughCopyAndAssignment) {
    const TypeParam empty;
    TypeParam copy(empty);
    TypeParam assigned = filled<TypeParam>();
    assigned = empty;
    for (TypeParam* value : {&copy, &assigned}) {
        for (char* text : texts(*value)) EXPECT_EQ(text, nullptr);
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
    const PlaybackReports none;
    target = none;
    EXPECT_EQ(target.count, 0u);
    EXPECT_EQ(target.reports, nullptr);
    EXPECT_EQ(PlaybackReports(none).reports, nullptr);
}

}  // namespace
}  // namespace orv
