// A source's read-ahead: a fixed-capacity ring of bytes between the thread that pulls the audio
// and the mixer that takes it. Not thread-safe: its source guards it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zem {

class ByteRing {
public:
    explicit ByteRing(size_t capacity = 0) : bytes_(capacity) {}

    size_t size() const { return size_; }
    size_t capacity() const { return bytes_.size(); }
    size_t space() const { return bytes_.size() - size_; }

    // Appends as much of `data` as fits; returns how much that was.
    size_t put(const uint8_t* data, size_t count) {
        count = std::min(count, space());
        if (count == 0) return 0;
        const size_t tail = (head_ + size_) % bytes_.size();
        const size_t first = std::min(count, bytes_.size() - tail);
        std::memcpy(bytes_.data() + tail, data, first);
        std::memcpy(bytes_.data(), data + first, count - first);
        size_ += count;
        return count;
    }

    // Moves up to `count` bytes from the front into `out`; returns how many.
    size_t take(uint8_t* out, size_t count) {
        count = std::min(count, size_);
        if (count == 0) return 0;
        const size_t first = std::min(count, bytes_.size() - head_);
        std::memcpy(out, bytes_.data() + head_, first);
        std::memcpy(out + first, bytes_.data(), count - first);
        head_ = (head_ + count) % bytes_.size();
        size_ -= count;
        return count;
    }

    void clear() { head_ = size_ = 0; }

private:
    std::vector<uint8_t> bytes_;
    size_t head_ = 0;
    size_t size_ = 0;
};

}  // namespace zem
