// The parcel wrapper the RPC layer reads and writes, the shared audio buffer, and the codec of
// every scalar argument type.
//
// Encodings (the track protocol depends on them; they must never change):
//  - int, unsigned int: one int32; bool: an int32 of 0 or 1, read back as true when non-zero;
//  - long long: one int64; float: one float;
//  - std::string: a String8 of its bytes and length (zero bytes survive);
//  - char const*: an int32 length, -1 for null, then the bytes as a C string;
//  - AndroidBuffer: an int32 size, then a blob of that size.
// Strings read as char const* point into the data of the parcel they were read from: they stay
// valid until that parcel is written to or destroyed, and cost no copy. A std::string is copied
// once, from the parcel into the string.
//
// Reads never go past the end of the data. One that wanted more bytes than were left marks the
// parcel as overrun (overrun()), which stays set: a reader checks it once, after the last value,
// to tell a parcel that held every value from one that was cut short.
#pragma once

#include <binder/Parcel.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace parlex {

namespace impl {
// Thrown by the buffer encoding when a blob cannot be written or read.
class runtime_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};
}  // namespace impl

// A reference-counted block of bytes. Copies share the same block.
class AndroidBuffer {
public:
    struct Impl {
        Impl(uint32_t size, void* data, bool owned) : size(size), data(data), owned(owned) {}
        ~Impl();
        Impl(const Impl&) = delete;
        Impl& operator=(const Impl&) = delete;

        uint32_t size;
        void* data;
        bool owned;  // the bytes were copied in and are freed with the Impl
    };

    AndroidBuffer() = default;
    // With `copy` true the buffer keeps a private copy of `size` bytes; otherwise it only
    // points at the caller's memory, which must outlive every copy of the buffer.
    AndroidBuffer(unsigned int size, const void* data, bool copy);

    unsigned int size() const { return impl_ ? impl_->size : 0; }
    const void* data() const { return impl_ ? impl_->data : nullptr; }
    void* data() { return impl_ ? impl_->data : nullptr; }

private:
    std::shared_ptr<Impl> impl_;
};

class AndroidParcel {
public:
    // An empty parcel of its own, held inline: a message costs no allocation for it.
    AndroidParcel();
    // Wraps `parcel`; the wrapper deletes it only when `owned` is true.
    AndroidParcel(android::Parcel* parcel, bool owned);
    ~AndroidParcel();
    AndroidParcel(AndroidParcel&& other) noexcept;
    AndroidParcel& operator=(AndroidParcel&& other) noexcept;
    AndroidParcel(const AndroidParcel&) = delete;
    AndroidParcel& operator=(const AndroidParcel&) = delete;

    android::Parcel* parcel() const { return parcel_; }
    android::Parcel* operator->() const { return parcel_; }

    void write(const std::string& value);
    void write(const char* value);
    void write(const AndroidBuffer& value);
    void read(std::string& value) const;
    void read(const char*& value) const;
    void read(AndroidBuffer& value) const;

    // True once a read wanted more bytes than were left.
    bool overrun() const { return overrun_; }
    // Records the outcome of a read made on parcel() directly; true when it succeeded.
    bool noteRead(android::status_t status) const;

    // The buffer encoding without copies. writeBufferInplace writes a buffer of `size` bytes and
    // returns where its bytes go (valid until the next write), or null when `size` is above the
    // in-place blob limit; finishBufferInplace then makes that buffer its first `used` bytes, and
    // must follow before anything else is written. readBufferInplace reads a buffer into `blob`,
    // which points into the parcel (or maps its shared memory) for as long as the blob lives.
    // Both throw impl::runtime_error as the copying forms do.
    uint8_t* writeBufferInplace(unsigned int size);
    void finishBufferInplace(unsigned int size, unsigned int used);
    void readBufferInplace(android::Parcel::ReadableBlob* blob) const;

    // Provided by the platform transport: reserves a blob of `size` bytes, 0 on success.
    android::status_t writeBlob(unsigned int size, android::Parcel::WritableBlob* blob);

    template <typename T>
    T as() const {
        T value{};
        *this >> value;
        return value;
    }

private:
    android::Parcel inline_;                    // the parcel, unless one was handed in
    std::unique_ptr<android::Parcel> adopted_;  // a parcel handed in with `owned`
    // inline_, the adopted or the borrowed parcel; null once moved from.
    android::Parcel* parcel_ = nullptr;
    mutable bool overrun_ = false;
};

// Scalar codecs, one overload per argument type. Types without an overload (long, double,
// enums) do not compile as arguments, which catches a mismatch before it reaches the wire.
AndroidParcel& operator<<(AndroidParcel& parcel, bool value);
AndroidParcel& operator<<(AndroidParcel& parcel, int value);
AndroidParcel& operator<<(AndroidParcel& parcel, unsigned int value);
AndroidParcel& operator<<(AndroidParcel& parcel, long long value);
AndroidParcel& operator<<(AndroidParcel& parcel, float value);
AndroidParcel& operator<<(AndroidParcel& parcel, const std::string& value);
AndroidParcel& operator<<(AndroidParcel& parcel, const char* value);
AndroidParcel& operator<<(AndroidParcel& parcel, const AndroidBuffer& value);

const AndroidParcel& operator>>(const AndroidParcel& parcel, bool& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, int& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, unsigned int& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, long long& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, float& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, std::string& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, const char*& value);
const AndroidParcel& operator>>(const AndroidParcel& parcel, AndroidBuffer& value);

}  // namespace parlex
