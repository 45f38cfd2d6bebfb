// Host stand-in for the platform's Parcel. The wire contract is in Parcel.h; this file keeps
// it and, because every byte and descriptor it reads may come from another process, checks
// each length and index before using it.
//
// Writes go at the current position (overwriting what is there and extending the data when
// needed), exactly as reads come from it, so a caller can rewind and patch a value. Every
// failed read leaves the position where it was.
#include <binder/Parcel.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

namespace android {

namespace {

constexpr size_t kAlignment = 4;

// The room a parcel takes on its first write: a message's header and a few small arguments fit
// in it, so that an ordinary message grows its buffer once rather than at every value.
constexpr size_t kInitialCapacity = 128;

// Lengths travel as int32 and positions are added to them, so anything above INT32_MAX is
// either a hostile length prefix or a bug; refusing it here also keeps the padding below from
// wrapping around.
bool paddedLength(size_t length, size_t* padded) {
    if (length > INT32_MAX) return false;
    *padded = (length + kAlignment - 1) & ~(kAlignment - 1);
    return true;
}

status_t errnoStatus() { return errno != 0 ? -errno : UNKNOWN_ERROR; }

}  // namespace

Parcel::Parcel() = default;

Parcel::~Parcel() { closeFileDescriptors(); }

Parcel::Parcel(Parcel&& other) noexcept
    : data_(std::move(other.data_)),
      pos_(std::exchange(other.pos_, 0)),
      fds_(std::move(other.fds_)) {
    other.data_.clear();
    other.fds_.clear();
}

Parcel& Parcel::operator=(Parcel&& other) noexcept {
    if (this != &other) {
        closeFileDescriptors();
        data_ = std::move(other.data_);
        pos_ = std::exchange(other.pos_, 0);
        fds_ = std::move(other.fds_);
        other.data_.clear();
        other.fds_.clear();
    }
    return *this;
}

void Parcel::setDataPosition(size_t pos) const { pos_ = std::min(pos, data_.size()); }

status_t Parcel::setDataSize(size_t size) {
    if (size > INT32_MAX) return BAD_VALUE;
    data_.resize(size);
    pos_ = std::min(pos_, size);
    return OK;
}

status_t Parcel::setDataCapacity(size_t size) {
    if (size > INT32_MAX) return BAD_VALUE;
    data_.reserve(size);
    return OK;
}

status_t Parcel::setData(const uint8_t* bytes, size_t length, std::vector<int> fds) {
    const bool badFd = std::any_of(fds.begin(), fds.end(), [](int fd) { return fd < 0; });
    if ((bytes == nullptr && length > 0) || length > INT32_MAX || badFd) {
        // The descriptors were handed over either way; keeping them would leak them.
        for (int fd : fds) {
            if (fd >= 0) ::close(fd);
        }
        return BAD_VALUE;
    }
    // Copied before the old contents go: `bytes` may point into them.
    std::vector<uint8_t>(bytes, bytes + length).swap(data_);
    closeFileDescriptors();
    fds_ = std::move(fds);
    pos_ = 0;
    return OK;
}

status_t Parcel::adoptData(std::vector<uint8_t>&& bytes, std::vector<int> fds) {
    status_t status = setData(nullptr, 0, std::move(fds));
    if (status != OK) return status;
    if (bytes.size() > INT32_MAX) {
        freeData();
        return BAD_VALUE;
    }
    data_ = std::move(bytes);
    return OK;
}

void Parcel::freeData() {
    std::vector<uint8_t>().swap(data_);
    closeFileDescriptors();
    pos_ = 0;
}

void Parcel::closeFileDescriptors() {
    for (int fd : fds_) ::close(fd);
    fds_.clear();
}

uint8_t* Parcel::grow(size_t paddedLength) {
    if (paddedLength > INT32_MAX - pos_) return nullptr;
    const size_t end = pos_ + paddedLength;
    if (end > data_.capacity())
        data_.reserve(std::max(end, std::max(kInitialCapacity, 2 * data_.capacity())));
    if (end > data_.size()) data_.resize(end);
    uint8_t* out = data_.data() + pos_;
    pos_ += paddedLength;
    return out;
}

void* Parcel::writeInplace(size_t length) {
    size_t padded = 0;
    if (!paddedLength(length, &padded)) return nullptr;
    uint8_t* out = grow(padded);
    if (out == nullptr) return nullptr;
    // Padding may land on bytes written before a rewind; the contract says it is zero.
    std::memset(out + length, 0, padded - length);
    return out;
}

status_t Parcel::write(const void* bytes, size_t length) {
    if (bytes == nullptr && length > 0) return BAD_VALUE;
    void* out = writeInplace(length);
    if (out == nullptr) return BAD_VALUE;
    if (length > 0) std::memcpy(out, bytes, length);
    return OK;
}

status_t Parcel::writeInt32(int32_t value) { return write(&value, sizeof(value)); }

status_t Parcel::writeUint32(uint32_t value) { return write(&value, sizeof(value)); }

status_t Parcel::writeInt64(int64_t value) { return write(&value, sizeof(value)); }

status_t Parcel::writeFloat(float value) { return write(&value, sizeof(value)); }

status_t Parcel::writeCString(const char* text) {
    if (text == nullptr) return BAD_VALUE;
    return write(text, std::strlen(text) + 1);
}

status_t Parcel::writeString8(const String8& text) {
    return writeString8(text.c_str(), text.size());
}

status_t Parcel::writeString8(const char* bytes, size_t length) {
    if (bytes == nullptr) return writeInt32(-1);
    // The terminator makes the payload one byte longer than the length prefix says.
    if (length >= INT32_MAX) return BAD_VALUE;
    status_t status = writeInt32(static_cast<int32_t>(length));
    if (status != OK) return status;
    auto* out = static_cast<char*>(writeInplace(length + 1));
    if (out == nullptr) return NO_MEMORY;
    if (length > 0) std::memcpy(out, bytes, length);
    out[length] = '\0';
    return OK;
}

const void* Parcel::readInplace(size_t length) const {
    size_t padded = 0;
    if (!paddedLength(length, &padded) || padded > dataAvail()) return nullptr;
    const uint8_t* in = data_.data() + pos_;
    pos_ += padded;
    return in;
}

status_t Parcel::read(void* out, size_t length) const {
    size_t padded = 0;
    if (!paddedLength(length, &padded)) return BAD_VALUE;
    if (padded > dataAvail()) return NOT_ENOUGH_DATA;
    if (length > 0) std::memcpy(out, data_.data() + pos_, length);
    pos_ += padded;
    return OK;
}

status_t Parcel::readInt32(int32_t* out) const { return read(out, sizeof(*out)); }

int32_t Parcel::readInt32() const {
    int32_t value = 0;
    readInt32(&value);
    return value;
}

status_t Parcel::readUint32(uint32_t* out) const { return read(out, sizeof(*out)); }

status_t Parcel::readInt64(int64_t* out) const { return read(out, sizeof(*out)); }

int64_t Parcel::readInt64() const {
    int64_t value = 0;
    readInt64(&value);
    return value;
}

status_t Parcel::readFloat(float* out) const { return read(out, sizeof(*out)); }

float Parcel::readFloat() const {
    float value = 0;
    readFloat(&value);
    return value;
}

const char* Parcel::readCString() const {
    const size_t avail = dataAvail();
    if (avail == 0) return nullptr;
    const auto* text = reinterpret_cast<const char*>(data_.data() + pos_);
    const auto* end = static_cast<const char*>(std::memchr(text, 0, avail));
    if (end == nullptr) return nullptr;
    size_t padded = 0;
    paddedLength(static_cast<size_t>(end - text) + 1, &padded);
    // Data set by a peer need not end on a boundary; the position never passes the end.
    pos_ = std::min(pos_ + padded, data_.size());
    return text;
}

const char* Parcel::readString8Inplace(size_t* length) const {
    const size_t start = pos_;
    int32_t size = 0;
    if (readInt32(&size) != OK || size < 0) {
        pos_ = start;
        return nullptr;
    }
    const auto* text = static_cast<const char*>(readInplace(static_cast<size_t>(size) + 1));
    if (text == nullptr || text[size] != '\0') {
        pos_ = start;
        return nullptr;
    }
    *length = static_cast<size_t>(size);
    return text;
}

status_t Parcel::readString8(String8* out) const {
    size_t length = 0;
    const char* text = readString8Inplace(&length);
    if (text == nullptr) return BAD_VALUE;
    *out = String8(text, length);
    return OK;
}

String8 Parcel::readString8() const {
    String8 text;
    readString8(&text);
    return text;
}

Parcel::Blob::~Blob() { release(); }

void Parcel::Blob::init(int fd, void* data, size_t size, bool mapped) {
    release();
    fd_ = fd;
    data_ = data;
    size_ = size;
    mapped_ = mapped;
}

void Parcel::Blob::release() {
    if (mapped_) ::munmap(data_, size_);
    fd_ = -1;
    data_ = nullptr;
    size_ = 0;
    mapped_ = false;
}

status_t Parcel::writeBlob(size_t length, bool /*mutableCopy*/, WritableBlob* out) {
    out->release();
    if (length > INT32_MAX) return BAD_VALUE;
    if (length <= kBlobInplaceLimit) {
        status_t status = writeInt32(kBlobInplace);
        if (status != OK) return status;
        void* bytes = writeInplace(length);
        if (bytes == nullptr) return NO_MEMORY;
        out->init(-1, bytes, length, false);
        return OK;
    }

    // The memory and its seals are set up before anything is written, so a failure leaves
    // the parcel as it was.
    const int fd = ::memfd_create("parcel-blob", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return errnoStatus();
    void* bytes = MAP_FAILED;
    if (::ftruncate(fd, static_cast<off_t>(length)) != 0 ||
        ::fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0 ||
        (bytes = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)) ==
            MAP_FAILED) {
        const status_t status = errnoStatus();
        ::close(fd);
        return status;
    }
    const size_t start = pos_;
    const size_t oldSize = data_.size();
    if (writeInt32(kBlobSharedMemory) != OK ||
        writeInt32(static_cast<int32_t>(fds_.size())) != OK) {
        pos_ = start;
        data_.resize(oldSize);
        ::munmap(bytes, length);
        ::close(fd);
        return NO_MEMORY;
    }
    fds_.push_back(fd);
    out->init(fd, bytes, length, true);
    return OK;
}

status_t Parcel::readBlob(size_t length, ReadableBlob* out) const {
    out->release();
    if (length > INT32_MAX) return BAD_VALUE;
    const size_t start = pos_;
    int32_t kind = 0;
    status_t status = readInt32(&kind);
    if (status != OK) return status;

    if (kind == kBlobInplace) {
        const void* bytes = readInplace(length);
        if (bytes == nullptr) {
            pos_ = start;
            return NOT_ENOUGH_DATA;
        }
        out->init(-1, const_cast<void*>(bytes), length, false);
        return OK;
    }

    int32_t index = -1;
    if (kind != kBlobSharedMemory || (status = readInt32(&index)) != OK || index < 0 ||
        static_cast<size_t>(index) >= fds_.size()) {
        pos_ = start;
        return status != OK ? status : BAD_VALUE;
    }
    const int fd = fds_[static_cast<size_t>(index)];
    // Without the shrink seal the sender could truncate the file under our mapping, and the
    // next access would kill this process with SIGBUS. Descriptors that cannot carry seals
    // at all (anything but a memfd) fail F_GET_SEALS.
    const int seals = ::fcntl(fd, F_GET_SEALS);
    struct stat info {};
    if (seals < 0 || (seals & F_SEAL_SHRINK) == 0 || ::fstat(fd, &info) != 0 || info.st_size < 0 ||
        static_cast<uint64_t>(info.st_size) < length) {
        pos_ = start;
        return BAD_VALUE;
    }
    void* bytes = ::mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, 0);
    if (bytes == MAP_FAILED) {
        pos_ = start;
        return errnoStatus();
    }
    out->init(fd, bytes, length, true);
    return OK;
}

}  // namespace android
