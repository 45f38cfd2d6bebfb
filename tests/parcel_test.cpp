// The host Parcel: its byte layout, reads of short or hostile data, blobs in place and in
// sealed shared memory, and the descriptors it owns.
#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/Process.h"

using android::Parcel;
using android::String8;
using parlex::test::openFds;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes contents(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

int blobMappingCount() {
    std::ifstream maps("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        if (line.find("memfd:parcel-blob") != std::string::npos) ++count;
    }
    return count;
}

}  // namespace

// Integers, floats and C strings are pinned by the records' hand-written images
// (records_test).
TEST(ParcelLayout, PaddingIsZeroAndString8KeepsItsZerosAndNullMarker) {
    struct Case {
        const char* name;
        std::function<void(Parcel&)> write;
        Bytes expected;
    };
    const Case cases[] = {
        {"5 bytes over old ones",  // the padding must not keep what was there
         [](Parcel& p) {
             p.writeInt64(-1);
             p.setDataPosition(0);
             p.write("abcde", 5);
         },
         {'a', 'b', 'c', 'd', 'e', 0, 0, 0}},
        {"String8 with zero",
         [](Parcel& p) { p.writeString8(String8("a\0b", 3)); },
         {3, 0, 0, 0, 'a', 0, 'b', 0}},
        {"null String8", [](Parcel& p) { p.writeString8(nullptr, 0); }, {0xFF, 0xFF, 0xFF, 0xFF}},
        {"empty String8", [](Parcel& p) { p.writeString8("", 0); }, {0, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel parcel;
        c.write(parcel);
        EXPECT_EQ(contents(parcel), c.expected);
    }
}

TEST(ParcelRead, HostileString8LengthPrefixesAreRejected) {
    const std::vector<std::pair<int32_t, Bytes>> cases = {
        {-1, {}},                                 // the null marker is not a string
        {-5, {}},                                 // negative but not the null marker
        {INT32_MAX, {'a', 0, 0, 0}},              // with its terminator, beyond INT32_MAX
        {100, {'a', 'b', 'c', 0}},                // longer than what follows
        {4, {'a', 'b', 'c', 'd', 'e', 0, 0, 0}},  // terminator missing at the stated end
    };
    for (const auto& [length, payload] : cases) {
        SCOPED_TRACE(length);
        Parcel parcel;
        parcel.writeInt32(length);
        parcel.write(payload.data(), payload.size());
        parcel.setDataPosition(0);
        String8 text("keep");
        EXPECT_NE(parcel.readString8(&text), android::OK);
        EXPECT_EQ(text, String8("keep"));
        size_t size = 99;
        EXPECT_EQ(parcel.readString8Inplace(&size), nullptr);
        EXPECT_EQ(size, 99u);
        EXPECT_EQ(parcel.dataPosition(), 0u);
    }
}

TEST(ParcelBlob, SharedMemoryAPeerCouldShrinkOrThatIsTooSmallIsRejected) {
    const auto memfd = [](unsigned int flags, off_t size, int seals) {
        int fd = ::memfd_create("test", flags);
        ::ftruncate(fd, size);
        if (seals != 0) ::fcntl(fd, F_ADD_SEALS, seals);
        return fd;
    };
    const struct {
        const char* name;
        int fd;
        int32_t index;
    } cases[] = {
        {"unsealed", memfd(MFD_ALLOW_SEALING, 20000, 0), 0},
        {"cannot be sealed", memfd(0, 20000, 0), 0},
        {"too small", memfd(MFD_ALLOW_SEALING, 100, F_SEAL_SHRINK | F_SEAL_GROW), 0},
        {"not a memfd", ::open("/dev/null", O_RDONLY | O_CLOEXEC), 0},
        {"index past the end", memfd(MFD_ALLOW_SEALING, 20000, F_SEAL_SHRINK), 1},
        {"negative index", memfd(MFD_ALLOW_SEALING, 20000, F_SEAL_SHRINK), -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Parcel parcel;
        parcel.writeInt32(Parcel::kBlobSharedMemory);
        parcel.writeInt32(c.index);
        parcel.setData(parcel.data(), parcel.dataSize(), {c.fd});
        Parcel::ReadableBlob blob;
        EXPECT_NE(parcel.readBlob(20000, &blob), android::OK);
        EXPECT_EQ(blob.data(), nullptr);
        EXPECT_FALSE(blob.isMapped());
        EXPECT_EQ(parcel.dataPosition(), 0u);
    }
}

// Round trips of blobs in place and in shared memory are in android_parcel_test.
TEST(ParcelBlob, MappingsAndDescriptorsAreReleasedSoTheyDoNotPileUp) {
    const size_t before = openFds().size();
    {
        Parcel parcel;
        Parcel::WritableBlob blob;
        for (int i = 0; i < 3; ++i) parcel.writeBlob(20000, false, &blob);
        EXPECT_EQ(blobMappingCount(), 1);  // each write released the blob's previous mapping
        blob.release();
        EXPECT_EQ(blobMappingCount(), 0);
        EXPECT_EQ(openFds().size(), before + 3);
        parcel.setData(nullptr, 0, {::open("/dev/null", O_RDONLY | O_CLOEXEC)});
        EXPECT_EQ(openFds().size(), before + 1);
        parcel.freeData();
        EXPECT_EQ(openFds().size(), before);
        parcel.writeBlob(20000, false, &blob);
    }
    EXPECT_EQ(openFds().size(), before);
    EXPECT_EQ(blobMappingCount(), 0);
}
