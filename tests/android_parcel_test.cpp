// The parcel wrapper: argument codecs, strings the wrapper owns, and audio buffers that must
// outlive the parcel they came in.
#include <gtest/gtest.h>
#include <parlex/AndroidParcel.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using parlex::AndroidBuffer;
using parlex::AndroidParcel;

namespace {

// What the receiving process does: the bytes and duplicates of the descriptors.
AndroidParcel transfer(const AndroidParcel& from) {
    std::vector<int> fds;
    for (int fd : from->fileDescriptors()) fds.push_back(::dup(fd));
    AndroidParcel to;
    to->setData(from->data(), from->dataSize(), fds);
    return to;
}

}  // namespace

TEST(AndroidParcelCodec, EveryArgumentTypeComesBackAsWritten) {
    AndroidParcel out;
    out << true << -7 << 0xFFFFFFFFu << (1LL << 40) << 0.1f << std::string("a\0b", 3);
    out << std::string() << static_cast<const char*>(nullptr) << ""
        << "text";
    out->writeInt32(7);  // any non-zero int is true
    AndroidParcel in = transfer(out);
    EXPECT_TRUE(in.as<bool>());
    EXPECT_EQ(in.as<int>(), -7);
    EXPECT_EQ(in.as<unsigned int>(), 0xFFFFFFFFu);
    EXPECT_EQ(in.as<long long>(), 1LL << 40);
    EXPECT_EQ(in.as<float>(), 0.1f);
    EXPECT_EQ(in.as<std::string>(), std::string("a\0b", 3));
    EXPECT_EQ(in.as<std::string>(), "");
    EXPECT_EQ(in.as<const char*>(), nullptr);
    EXPECT_STREQ(in.as<const char*>(), "");
    EXPECT_STREQ(in.as<const char*>(), "text");
    EXPECT_TRUE(in.as<bool>());
    EXPECT_EQ(in->dataAvail(), 0u);
}

TEST(AndroidParcelCodec, ReadsPastTheEndKeepTheCallersValue) {
    AndroidParcel parcel;
    int number = 42;
    long long wide = 43;
    std::string text = "keep";
    parcel >> number >> wide >> text;
    EXPECT_EQ(number, 42);
    EXPECT_EQ(wide, 43);
    EXPECT_EQ(text, "keep");
    EXPECT_EQ(parcel.as<float>(), 0.0f);
}

TEST(AndroidParcelCString, PrefixThatDisagreesWithTheBytesYieldsNull) {
    const struct {
        int32_t length;
        const char* bytes;
    } cases[] = {{10, "abc"}, {1, "abc"}, {-5, nullptr}, {3, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        AndroidParcel parcel;
        parcel->writeInt32(c.length);
        if (c.bytes != nullptr) parcel->writeCString(c.bytes);
        parcel->setDataPosition(0);
        const char* value = "stale";
        parcel >> value;
        EXPECT_EQ(value, nullptr);
    }
}

TEST(AndroidParcelCString, StringsReadBelongToTheWrapperAndSurviveItsMove) {
    AndroidParcel out;
    out << "first"
        << "second";
    AndroidParcel assigned;
    const char* first = nullptr;
    const char* second = nullptr;
    {
        AndroidParcel in = transfer(out);
        first = in.as<const char*>();
        second = in.as<const char*>();
        AndroidParcel moved(std::move(in));
        assigned = std::move(moved);
        EXPECT_EQ(moved.parcel(), nullptr);
    }
    EXPECT_STREQ(first, "first");
    EXPECT_STREQ(second, "second");
}

TEST(AndroidParcelOwnership, BorrowedParcelIsNotDeleted) {
    android::Parcel parcel;
    { AndroidParcel wrapper(&parcel, false); }
    EXPECT_EQ(parcel.writeInt32(1), android::OK);
}

TEST(AndroidBufferCodec, BufferReadOutlivesItsParcelAndMapping) {
    for (unsigned int size : {0u, 100u, 16384u, 16385u, 1024u * 1024u - 1u}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> pattern(size);
        for (unsigned int i = 0; i < size; ++i) pattern[i] = static_cast<uint8_t>(i * 13 + 5);
        AndroidBuffer read;
        {
            AndroidParcel out;
            out << AndroidBuffer(size, pattern.data(), false);
            AndroidParcel in = transfer(out);
            in >> read;
        }
        ASSERT_EQ(read.size(), size);
        const auto* bytes = static_cast<const uint8_t*>(read.data());
        EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + size), pattern);
    }
}

TEST(AndroidBufferCodec, BufferWithoutImplIsWrittenAsAnEmptyBlob) {
    AndroidParcel parcel;
    parcel << AndroidBuffer();
    parcel->setDataPosition(0);
    EXPECT_EQ(parcel->readInt32(), 0);
    EXPECT_EQ(parcel->readInt32(), android::Parcel::kBlobInplace);
    EXPECT_EQ(parcel->dataAvail(), 0u);
}

TEST(AndroidBufferCodec, BadSizesThrowAndLeaveTheTargetAlone) {
    const uint8_t old = 9;
    for (int32_t size : {-1, 8, INT32_MIN}) {
        SCOPED_TRACE(size);
        AndroidParcel parcel;
        parcel->writeInt32(size);
        parcel->writeInt32(android::Parcel::kBlobInplace);
        parcel->writeInt32(0);
        parcel->setDataPosition(0);
        AndroidBuffer target(1, &old, true);
        EXPECT_THROW(parcel >> target, parlex::impl::runtime_error);
        ASSERT_EQ(target.size(), 1u);
        EXPECT_EQ(*static_cast<const uint8_t*>(target.data()), old);
    }
    // Never dereferenced: the size is refused before any byte is copied.
    AndroidParcel parcel;
    EXPECT_THROW(parcel << AndroidBuffer(0x80000000u, &old, false), parlex::impl::runtime_error);
}

TEST(AndroidBufferCopy, CopiedBufferIsPrivateAndBorrowedOneIsShared) {
    uint8_t source[4] = {1, 2, 3, 4};
    AndroidBuffer copied(4, source, true);
    AndroidBuffer borrowed(4, source, false);
    AndroidBuffer sharing = copied;
    source[0] = 99;
    EXPECT_EQ(static_cast<const uint8_t*>(copied.data())[0], 1);
    EXPECT_EQ(static_cast<const uint8_t*>(borrowed.data())[0], 99);
    EXPECT_EQ(sharing.data(), copied.data());
}
