// The host Parcel: its byte layout, reads of short or hostile data, blobs in place and in
// sealed shared memory, and the descriptors it owns.
#include <binder/Parcel.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <functional>
#include <memory>
#include <vector>

using android::Parcel;
using android::String8;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes contents(const Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

// What the receiving process does: the bytes and duplicates of the descriptors.
std::unique_ptr<Parcel> transfer(const Parcel& from) {
    std::vector<int> fds;
    for (int fd : from.fileDescriptors()) fds.push_back(::dup(fd));
    auto to = std::make_unique<Parcel>();
    EXPECT_EQ(to->setData(from.data(), from.dataSize(), fds), android::OK);
    return to;
}

int openFdCount() {
    int count = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    while (::readdir(dir) != nullptr) ++count;
    ::closedir(dir);
    return count;
}

}  // namespace

TEST(ParcelLayout, PrimitivesKeepTheirAlignmentPaddingAndNullMarkers) {
    struct Case {
        const char* name;
        std::function<void(Parcel&)> write;
        Bytes expected;
    };
    const Case cases[] = {
        {"int32", [](Parcel& p) { p.writeInt32(-2); }, {0xFE, 0xFF, 0xFF, 0xFF}},
        {"int64", [](Parcel& p) { p.writeInt64(0x0102030405060708); }, {8, 7, 6, 5, 4, 3, 2, 1}},
        {"float", [](Parcel& p) { p.writeFloat(1.0f); }, {0, 0, 0x80, 0x3F}},
        {"5 bytes", [](Parcel& p) { p.write("abcde", 5); }, {'a', 'b', 'c', 'd', 'e', 0, 0, 0}},
        {"C string", [](Parcel& p) { p.writeCString("abcd"); }, {'a', 'b', 'c', 'd', 0, 0, 0, 0}},
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

TEST(ParcelLayout, PaddingIsZeroedWhenARewoundWriteLandsOnOldBytes) {
    Parcel parcel;
    parcel.writeInt64(-1);
    parcel.setDataPosition(0);
    parcel.write("abcde", 5);
    EXPECT_EQ(contents(parcel), (Bytes{'a', 'b', 'c', 'd', 'e', 0, 0, 0}));
}

TEST(ParcelRead, ShortReadsLeaveTargetAndPositionAlone) {
    Parcel parcel;
    parcel.setData(reinterpret_cast<const uint8_t*>("\1\2\3\4\5\6"), 6);
    parcel.readInt32();
    int64_t wide = 7;
    EXPECT_EQ(parcel.readInt64(&wide), android::NOT_ENOUGH_DATA);
    int32_t narrow = 7;  // two bytes remain: not enough for an int32 either
    EXPECT_EQ(parcel.readInt32(&narrow), android::NOT_ENOUGH_DATA);
    char raw[3] = {7, 7, 7};
    EXPECT_NE(parcel.read(raw, 3), android::OK);  // 3 bytes need 4 with their padding
    EXPECT_EQ(wide, 7);
    EXPECT_EQ(narrow, 7);
    EXPECT_EQ(raw[0], 7);
    EXPECT_EQ(parcel.readFloat(), 0.0f);
    EXPECT_EQ(parcel.dataPosition(), 4u);
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

TEST(ParcelRead, CStringWithoutTerminatorIsNullAndDoesNotMove) {
    Parcel parcel;
    parcel.writeCString("ab");
    parcel.write("cdef", 4);
    parcel.setDataPosition(0);
    const char* first = parcel.readCString();
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(first, "ab");
    EXPECT_EQ(first, reinterpret_cast<const char*>(parcel.data()));
    EXPECT_EQ(parcel.readCString(), nullptr);
    EXPECT_EQ(parcel.dataPosition(), 4u);
}

TEST(ParcelBlob, RoundTripsInPlaceAndSharedAcrossAProcessHandOff) {
    const struct {
        size_t size;
        size_t fds;
    } cases[] = {{0, 0}, {16384, 0}, {16385, 1}, {1024 * 1024 - 1, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        Bytes pattern(c.size);
        for (size_t i = 0; i < c.size; ++i) pattern[i] = static_cast<uint8_t>(i * 7 + 1);
        auto sender = std::make_unique<Parcel>();
        Parcel::WritableBlob out;
        ASSERT_EQ(sender->writeBlob(c.size, false, &out), android::OK);
        if (c.size > 0) std::memcpy(out.data(), pattern.data(), c.size);
        EXPECT_EQ(out.isMapped(), c.fds == 1);
        out.release();
        sender->writeInt32(42);  // what follows the blob must still line up
        ASSERT_EQ(sender->fileDescriptors().size(), c.fds);

        auto receiver = transfer(*sender);
        sender.reset();
        Parcel::ReadableBlob in;
        ASSERT_EQ(receiver->readBlob(c.size, &in), android::OK);
        ASSERT_EQ(in.size(), c.size);
        const auto* bytes = static_cast<const uint8_t*>(in.data());
        EXPECT_EQ(Bytes(bytes, bytes + c.size), pattern);
        EXPECT_EQ(receiver->readInt32(), 42);
    }
}

TEST(ParcelBlob, SharedMemoryAPeerCouldShrinkOrThatIsTooSmallIsRejected) {
    const auto memfd = [](unsigned int flags, off_t size, int seals) {
        int fd = ::memfd_create("test", flags);
        ::ftruncate(fd, size);
        if (seals != 0) ::fcntl(fd, F_ADD_SEALS, seals);
        return fd;
    };
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    ::close(pipeFds[1]);
    const struct {
        const char* name;
        int fd;
        int32_t index;
    } cases[] = {
        {"unsealed", memfd(MFD_ALLOW_SEALING, 20000, 0), 0},
        {"cannot be sealed", memfd(0, 20000, 0), 0},
        {"too small", memfd(MFD_ALLOW_SEALING, 100, F_SEAL_SHRINK | F_SEAL_GROW), 0},
        {"not a memfd", pipeFds[0], 0},
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

TEST(ParcelBlob, ReleaseUnmapsSoBuffersDoNotPileUp) {
    Parcel parcel;
    Parcel::WritableBlob blob;
    ASSERT_EQ(parcel.writeBlob(1 << 20, false, &blob), android::OK);
    const auto mappedBlobs = [] {
        std::ifstream maps("/proc/self/maps");
        int count = 0;
        for (std::string line; std::getline(maps, line);) {
            if (line.find("memfd:parcel-blob") != std::string::npos) ++count;
        }
        return count;
    };
    EXPECT_EQ(mappedBlobs(), 1);
    blob.release();
    EXPECT_EQ(mappedBlobs(), 0);
}

TEST(ParcelFds, DescriptorsAreClosedByDestroySetDataAndFreeData) {
    const int before = openFdCount();
    {
        Parcel parcel;
        Parcel::WritableBlob blob;
        for (int i = 0; i < 3; ++i) parcel.writeBlob(20000, false, &blob);
        EXPECT_EQ(openFdCount(), before + 3);
        parcel.setData(nullptr, 0, {::open("/dev/null", O_RDONLY | O_CLOEXEC)});
        EXPECT_EQ(openFdCount(), before + 1);
        parcel.freeData();
        EXPECT_EQ(openFdCount(), before);
        parcel.writeBlob(20000, false, &blob);
    }
    EXPECT_EQ(openFdCount(), before);
}
