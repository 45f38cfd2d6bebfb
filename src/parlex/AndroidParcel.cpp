// The parcel wrapper, the shared audio buffer and the scalar codecs. The encodings are listed
// in AndroidParcel.h; each writer below sits next to its reader.
//
// Reads whose target is a plain value leave it untouched when the parcel runs short, so the
// caller's zero (as<T>() value-initialises) stands, and mark the parcel as overrun. Writes into the
// in-memory parcel can only fail for lengths beyond INT32_MAX, which no argument of the protocol
// comes near, so only the blob encoding, whose shared memory can really fail, reports a failure.
#include <parlex/AndroidParcel.h>

#include <cstring>
#include <utility>

namespace parlex {

static_assert(sizeof(int) == sizeof(int32_t), "int travels as int32");
static_assert(sizeof(unsigned int) == sizeof(uint32_t), "unsigned int travels as int32");
static_assert(sizeof(long long) == sizeof(int64_t), "long long travels as int64");
static_assert(sizeof(float) == 4, "float travels as 4 bytes");

AndroidBuffer::Impl::~Impl() {
    if (owned) delete[] static_cast<uint8_t*>(data);
}

AndroidBuffer::AndroidBuffer(unsigned int size, const void* data, bool copy) {
    if (!copy) {
        impl_ = std::make_shared<Impl>(size, const_cast<void*>(data), false);
        return;
    }
    std::unique_ptr<uint8_t[]> bytes;
    if (size > 0) {
        bytes.reset(new uint8_t[size]);
        std::memcpy(bytes.get(), data, size);
    }
    impl_ = std::make_shared<Impl>(size, bytes.get(), true);
    bytes.release();  // now owned by the Impl
}

AndroidParcel::AndroidParcel() : parcel_(&inline_) {}

AndroidParcel::AndroidParcel(android::Parcel* parcel, bool owned)
    : adopted_(owned ? parcel : nullptr), parcel_(parcel) {}

AndroidParcel::~AndroidParcel() = default;

AndroidParcel::AndroidParcel(AndroidParcel&& other) noexcept { *this = std::move(other); }

AndroidParcel& AndroidParcel::operator=(AndroidParcel&& other) noexcept {
    if (this != &other) {
        const bool wasInline = other.parcel_ == &other.inline_;
        inline_ = std::move(other.inline_);
        adopted_ = std::move(other.adopted_);
        parcel_ = wasInline ? &inline_ : other.parcel_;
        overrun_ = std::exchange(other.overrun_, false);
        other.parcel_ = nullptr;
    }
    return *this;
}

bool AndroidParcel::noteRead(android::status_t status) const {
    if (status != android::OK) overrun_ = true;
    return status == android::OK;
}

void AndroidParcel::write(const std::string& value) {
    parcel_->writeString8(value.data(), value.size());
}

void AndroidParcel::read(std::string& value) const {
    size_t length = 0;
    if (const char* text = parcel_->readString8Inplace(&length)) {
        value.assign(text, length);
        return;
    }
    // Failed, with the position back before the length: the parcel ran short when the length,
    // or the text and terminator it announces, is not all there. A negative length or a missing
    // terminator is a malformed text instead, which leaves the target as it was.
    const size_t avail = parcel_->dataAvail();
    int32_t size = -1;
    if (avail >= sizeof(size)) {
        std::memcpy(&size, parcel_->data() + parcel_->dataPosition(), sizeof(size));
    }
    if (avail < sizeof(size) ||
        (size >= 0 && ((static_cast<size_t>(size) + 4) & ~size_t{3}) > avail - sizeof(size))) {
        overrun_ = true;
    }
}

void AndroidParcel::write(const char* value) {
    if (value == nullptr) {
        parcel_->writeInt32(-1);
        return;
    }
    parcel_->writeInt32(static_cast<int32_t>(std::strlen(value)));
    parcel_->writeCString(value);
}

void AndroidParcel::read(const char*& value) const {
    // Unlike the numeric readers this one always sets its target: a half-read string is
    // reported as null rather than leaving a pointer the caller might not own.
    value = nullptr;
    int32_t length = -1;
    if (!noteRead(parcel_->readInt32(&length)) || length < 0) return;
    // No terminator before the end, or no room for the padding after it, means the text ran
    // past the end.
    const size_t avail = parcel_->dataAvail();
    const char* text = parcel_->readCString();
    if (text == nullptr) {
        overrun_ = true;
        return;
    }
    const size_t size = std::strlen(text);
    if (((size + 4) & ~size_t{3}) > avail) overrun_ = true;
    // Readers size their copies from the prefix; a prefix that disagrees with the bytes would
    // make them read past the string, so such a string is dropped.
    if (size == static_cast<size_t>(length)) value = text;
}

void AndroidParcel::write(const AndroidBuffer& value) {
    const unsigned int size = value.size();
    parcel_->writeInt32(static_cast<int32_t>(size));
    android::Parcel::WritableBlob blob;
    if (writeBlob(size, &blob) != android::OK) throw impl::runtime_error("writeBlob failed");
    if (size > 0) std::memcpy(blob.data(), value.data(), size);
    blob.release();
}

void AndroidParcel::read(AndroidBuffer& value) const {
    android::Parcel::ReadableBlob blob;
    readBufferInplace(&blob);
    // A private copy: the mapping goes with the blob and in-place bytes with the parcel.
    value = AndroidBuffer(static_cast<unsigned int>(blob.size()), blob.data(), true);
}

uint8_t* AndroidParcel::writeBufferInplace(unsigned int size) {
    if (size > android::Parcel::kBlobInplaceLimit) return nullptr;
    // The size, the blob's kind and the bytes, in one allocation at most.
    const size_t padded = (size_t{size} + 3) & ~size_t{3};
    parcel_->setDataCapacity(parcel_->dataPosition() + 2 * sizeof(int32_t) + padded);
    parcel_->writeInt32(static_cast<int32_t>(size));
    android::Parcel::WritableBlob blob;
    if (writeBlob(size, &blob) != android::OK) throw impl::runtime_error("writeBlob failed");
    return static_cast<uint8_t*>(blob.data());
}

void AndroidParcel::finishBufferInplace(unsigned int size, unsigned int used) {
    if (used >= size) return;
    // Written again over itself: the size in front becomes `used`, the bytes stay where the
    // caller put them, the padding after them is zeroed and the rest is dropped.
    const size_t padded = (size_t{size} + 3) & ~size_t{3};
    parcel_->setDataPosition(parcel_->dataPosition() - padded - 2 * sizeof(int32_t));
    parcel_->writeInt32(static_cast<int32_t>(used));
    parcel_->writeInt32(android::Parcel::kBlobInplace);
    parcel_->writeInplace(used);
    parcel_->setDataSize(parcel_->dataPosition());
}

void AndroidParcel::readBufferInplace(android::Parcel::ReadableBlob* blob) const {
    int32_t size = 0;
    if (!noteRead(parcel_->readInt32(&size)) || size < 0 ||
        parcel_->readBlob(static_cast<size_t>(size), blob) != android::OK) {
        throw impl::runtime_error("readBlob failed");
    }
}

AndroidParcel& operator<<(AndroidParcel& parcel, bool value) {
    parcel->writeInt32(value ? 1 : 0);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, bool& value) {
    int32_t raw = 0;
    if (parcel.noteRead(parcel->readInt32(&raw))) value = raw != 0;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, int value) {
    parcel->writeInt32(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, int& value) {
    int32_t raw = 0;
    if (parcel.noteRead(parcel->readInt32(&raw))) value = raw;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, unsigned int value) {
    parcel->writeUint32(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, unsigned int& value) {
    uint32_t raw = 0;
    if (parcel.noteRead(parcel->readUint32(&raw))) value = raw;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, long long value) {
    parcel->writeInt64(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, long long& value) {
    int64_t raw = 0;
    if (parcel.noteRead(parcel->readInt64(&raw))) value = raw;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, float value) {
    parcel->writeFloat(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, float& value) {
    float raw = 0;
    if (parcel.noteRead(parcel->readFloat(&raw))) value = raw;
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const std::string& value) {
    parcel.write(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, std::string& value) {
    parcel.read(value);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const char* value) {
    parcel.write(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, const char*& value) {
    parcel.read(value);
    return parcel;
}

AndroidParcel& operator<<(AndroidParcel& parcel, const AndroidBuffer& value) {
    parcel.write(value);
    return parcel;
}

const AndroidParcel& operator>>(const AndroidParcel& parcel, AndroidBuffer& value) {
    parcel.read(value);
    return parcel;
}

}  // namespace parlex
