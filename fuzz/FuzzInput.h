// Takes a fuzzer's input apart: choices and sizes from its front, the rest as the bytes under
// test. Every read is bounded by what is left, so a short input only means zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orv::fuzz {

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint8_t byte() { return used_ < size_ ? data_[used_++] : 0; }
    // A number in [0, count), count > 0.
    size_t pick(size_t count) { return byte() % count; }
    uint32_t u32() {
        uint32_t value = 0;
        for (int k = 0; k < 4; ++k) value = value << 8 | byte();
        return value;
    }
    // The next `count` bytes at most.
    std::vector<uint8_t> take(size_t count) {
        const size_t n = count < size_ - used_ ? count : size_ - used_;
        std::vector<uint8_t> bytes(data_ + used_, data_ + used_ + n);
        used_ += n;
        return bytes;
    }
    std::vector<uint8_t> rest() { return take(size_ - used_); }

private:
    const uint8_t* data_;
    size_t size_;
    size_t used_ = 0;
};

}  // namespace orv::fuzz
