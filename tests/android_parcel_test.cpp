// The parcel wrapper: argument codecs, strings read in place, and audio buffers that must
// outlive the parcel they came in or are filled where they lie.
#include <gtest/gtest.h>
#include <parlex/AndroidParcel.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
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

std::vector<uint8_t> image(const AndroidParcel& parcel) {
    return std::vector<uint8_t>(parcel->data(), parcel->data() + parcel->dataSize());
}

}  // namespace

// Round trips of every argument type are the records' (records_test), which pin their
// encodings byte for byte.
TEST(AndroidParcelCodec, AnyNonZeroIntReadsAsTrueAndReadsPastTheEndKeepTargetAndPosition) {
    AndroidParcel parcel;
    parcel->writeInt32(7);
    parcel->setDataPosition(0);
    bool flag = false;
    int number = 42;
    long long wide = 43;
    std::string text = "keep";
    EXPECT_FALSE(parcel.overrun());
    parcel >> flag >> number >> wide >> text;
    EXPECT_EQ(std::make_tuple(flag, number, wide, text, parcel->dataPosition(), parcel.overrun()),
              std::make_tuple(true, 42, 43LL, std::string("keep"), size_t{4}, true));
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

// Up to 16 KiB the bytes travel in the parcel, beyond that in shared memory passed as a
// descriptor; either way what follows must line up and the buffer must own its bytes.
TEST(AndroidBufferCodec, BufferReadOutlivesItsParcelAndMapping) {
    for (unsigned int size : {0u, 100u, 16384u, 16385u, 1024u * 1024u - 1u}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> pattern(size);
        for (unsigned int i = 0; i < size; ++i) pattern[i] = static_cast<uint8_t>(i * 13 + 5);
        AndroidBuffer read;
        {
            AndroidParcel out;
            out << AndroidBuffer(size, pattern.data(), false) << 42;
            EXPECT_EQ(out->fileDescriptors().size(), size > 16384 ? 1u : 0u);
            AndroidParcel in = transfer(out);
            in >> read;
            EXPECT_EQ(in.as<int>(), 42);
        }
        ASSERT_EQ(read.size(), size);
        const auto* bytes = static_cast<const uint8_t*>(read.data());
        EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + size), pattern);
    }
}

// Filled where it lies and cut to what was used, a buffer must be byte for byte what the copying
// writer makes (an empty one: size 0, then the in-place marker 0), so that what follows lines up.
TEST(AndroidBufferCodec, BufferFilledInPlaceAndCutIsTheCopyingWritersImage) {
    const uint8_t bytes[6] = {1, 2, 3, 4, 5, 6};
    for (unsigned int used : {0u, 3u, 5u, 6u}) {
        SCOPED_TRACE(used);
        AndroidParcel inplace;
        inplace << 7;
        std::memcpy(inplace.writeBufferInplace(6), bytes, 6);
        inplace.finishBufferInplace(6, used);
        AndroidParcel copied;
        copied << 7 << AndroidBuffer(used, bytes, false);
        inplace << 42;
        copied << 42;
        EXPECT_EQ(image(inplace), image(copied));
    }
    AndroidParcel parcel;
    EXPECT_EQ(image(parcel << AndroidBuffer()), std::vector<uint8_t>(8, 0));
    EXPECT_EQ(parcel.writeBufferInplace(android::Parcel::kBlobInplaceLimit + 1), nullptr);
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
