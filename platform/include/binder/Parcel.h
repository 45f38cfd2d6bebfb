// Host stand-in for the platform's Parcel: a flat buffer of 4-byte aligned values.
//
// Wire contract (shared by every process that exchanges parcels, so it must never change):
//  - every value starts on a 4-byte boundary; a value whose size is not a multiple of 4 is
//    followed by zero padding up to the next boundary;
//  - int32 and float take 4 bytes, int64 8 bytes, all little-endian as the host stores them;
//  - a String8 is an int32 length (-1 for none) and that many bytes plus a terminating zero;
//  - a C string is its bytes and a terminating zero, with no length in front;
//  - a blob is an int32 kind: 0 (in place) is followed by the bytes themselves, 1 (shared
//    memory) by the int32 index of a file descriptor that the parcel carries. Blobs of up to
//    16 KiB are always written in place.
//
// Reads never go past the end of the data: a read that cannot be satisfied returns an error
// status (or 0 / null from the value-returning forms) and leaves its target untouched.
//
// The parcel owns the file descriptors it carries and closes them when it is destroyed. The
// transport moves a parcel between processes as its bytes plus its descriptors (see data(),
// fileDescriptors() and setData()).
#pragma once

#include <utils/Errors.h>
#include <utils/String8.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace android {

class Parcel {
public:
    static constexpr size_t kBlobInplaceLimit = 16 * 1024;
    static constexpr int32_t kBlobInplace = 0;
    static constexpr int32_t kBlobSharedMemory = 1;

    Parcel();
    ~Parcel();
    Parcel(const Parcel&) = delete;
    Parcel& operator=(const Parcel&) = delete;
    // The data and descriptors go over whole; pointers into the data stay valid. The source is
    // left empty.
    Parcel(Parcel&& other) noexcept;
    Parcel& operator=(Parcel&& other) noexcept;

    const uint8_t* data() const { return data_.data(); }
    size_t dataSize() const { return data_.size(); }
    size_t dataAvail() const { return data_.size() - pos_; }
    size_t dataPosition() const { return pos_; }
    void setDataPosition(size_t pos) const;
    // Makes the data `size` bytes long: cut, or extended with zero bytes. The position stays
    // within the data.
    status_t setDataSize(size_t size);
    // Reserves room for `size` bytes, so that writes up to that size allocate nothing more.
    status_t setDataCapacity(size_t size);

    // Replaces the contents with a copy of `bytes` and the descriptors in `fds` (which the
    // parcel takes over and will close); the read position goes back to 0.
    status_t setData(const uint8_t* bytes, size_t length, std::vector<int> fds = {});
    // As setData, taking over `bytes` instead of copying them.
    status_t adoptData(std::vector<uint8_t>&& bytes, std::vector<int> fds = {});
    // The descriptors the parcel carries, in the order their indices refer to. Still owned by
    // the parcel.
    const std::vector<int>& fileDescriptors() const { return fds_; }
    void freeData();

    status_t write(const void* bytes, size_t length);
    void* writeInplace(size_t length);
    status_t writeInt32(int32_t value);
    status_t writeUint32(uint32_t value);
    status_t writeInt64(int64_t value);
    status_t writeFloat(float value);
    status_t writeCString(const char* text);
    status_t writeString8(const String8& text);
    status_t writeString8(const char* bytes, size_t length);

    status_t read(void* out, size_t length) const;
    const void* readInplace(size_t length) const;
    status_t readInt32(int32_t* out) const;
    int32_t readInt32() const;
    status_t readUint32(uint32_t* out) const;
    status_t readInt64(int64_t* out) const;
    int64_t readInt64() const;
    status_t readFloat(float* out) const;
    float readFloat() const;
    // Null when no terminating zero lies within the remaining data.
    const char* readCString() const;
    String8 readString8() const;
    status_t readString8(String8* out) const;
    // Points into the parcel; `length` receives the byte count. Null on failure.
    const char* readString8Inplace(size_t* length) const;

    class Blob {
    public:
        Blob() = default;
        ~Blob();
        Blob(const Blob&) = delete;
        Blob& operator=(const Blob&) = delete;

        // Unmaps shared memory, if any; the blob no longer refers to anything.
        void release();
        size_t size() const { return size_; }
        int fd() const { return fd_; }
        bool isMapped() const { return mapped_; }

    protected:
        void init(int fd, void* data, size_t size, bool mapped);
        void* data_ = nullptr;

    private:
        friend class Parcel;
        int fd_ = -1;  // not owned: the parcel owns its descriptors
        size_t size_ = 0;
        bool mapped_ = false;
    };

    class WritableBlob : public Blob {
    public:
        void* data() { return data_; }
    };

    class ReadableBlob : public Blob {
    public:
        const void* data() const { return data_; }
    };

    // Reserves `length` bytes for the caller to fill through `out`: in place up to
    // kBlobInplaceLimit (the pointer is valid until the next write), in sealed shared memory
    // above it. `mutableCopy` is accepted for compatibility; the region is always immutable
    // for the reader.
    status_t writeBlob(size_t length, bool mutableCopy, WritableBlob* out);
    status_t readBlob(size_t length, ReadableBlob* out) const;

private:
    uint8_t* grow(size_t paddedLength);
    void closeFileDescriptors();

    std::vector<uint8_t> data_;
    mutable size_t pos_ = 0;
    std::vector<int> fds_;
};

}  // namespace android
