// A length-counted byte string, the text type the Parcel reads and writes. Unlike a C string it
// may hold zero bytes; the stored bytes are always followed by one terminating zero.
#pragma once

#include <cstddef>
#include <string>

namespace android {

class String8 {
public:
    String8() = default;
    explicit String8(const char* text);
    String8(const char* bytes, size_t length);

    const char* c_str() const { return bytes_.c_str(); }
    const char* string() const { return bytes_.c_str(); }
    size_t size() const { return bytes_.size(); }
    size_t length() const { return bytes_.size(); }
    bool empty() const { return bytes_.empty(); }

    bool operator==(const String8& other) const { return bytes_ == other.bytes_; }
    bool operator!=(const String8& other) const { return bytes_ != other.bytes_; }

private:
    std::string bytes_;
};

}  // namespace android
