// Copying the records: every copy, assignment and self-assignment must keep every field and
// leave each record with its own strings, and a null text must stay null. A copy that shares a
// text with its source reads freed memory once the source is gone, or frees it twice; the
// sanitizer build reports both, and leaks. The wire image compares every field and tells a null
// text from an empty one.
#include <gtest/gtest.h>
#include <orv/Records.h>

#include <memory>
#include <type_traits>

#include "support/RecordSamples.h"

namespace orv::test {
namespace {

template <typename T>
class RecordCopy : public testing::Test {};
TYPED_TEST_SUITE(RecordCopy, WireRecords);

TYPED_TEST(RecordCopy, CopiesOwnTheirTextsKeepEveryFieldAndKeepNullsNull) {
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

    const TypeParam empty;  // every text null, which must not turn into ""
    assigned = empty;
    EXPECT_EQ(bytesOf(assigned), bytesOf(empty));
    EXPECT_EQ(bytesOf(TypeParam(empty)), bytesOf(empty));
}

// Moving hands texts over instead of copying them: the target must end up with every field and
// the source with null texts, or the two would free the same text (the sanitizer build reports
// that).
template <typename T>
class RecordMove : public testing::Test {};
using MovableRecords = testing::Types<MediaDescription, MediaPlayerStateV2>;
TYPED_TEST_SUITE(RecordMove, MovableRecords);

TYPED_TEST(RecordMove, MovesHandEveryTextOverAndLeaveTheSourceWithNone) {
    TypeParam source = sampled<TypeParam>();
    const Bytes expected = bytesOf(source);
    TypeParam moved(std::move(source));
    TypeParam assigned = sampled<TypeParam>();  // leaks its old texts unless assignment frees them
    assigned = std::move(moved);
    EXPECT_EQ(bytesOf(assigned), expected);
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
    PlaybackReports target = sampled<PlaybackReports>();
    target = PlaybackReports();
    EXPECT_EQ(target.reports, nullptr);
    EXPECT_EQ(PlaybackReports(target).reports, nullptr);
}

}  // namespace
}  // namespace orv::test
