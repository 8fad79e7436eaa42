// What fuzz targets read their operations from: the bytes of one input, as numbers and texts.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <string>

namespace cm::fuzz {

inline void check(bool holds) {
    if (!holds) abort();
}

// Beyond the end everything is 0.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return size_ == 0; }
    uint32_t byte() {
        if (size_ == 0) return 0;
        size_--;
        return *data_++;
    }
    uint32_t number(uint32_t below) {
        const uint32_t low = byte();
        return (low | byte() << 8) % below;
    }
    std::string text(size_t length) {
        if (length > size_) length = size_;
        const std::string made(reinterpret_cast<const char *>(data_), length);
        data_ += length;
        size_ -= length;
        return made;
    }
    std::string rest() { return text(size_); }

private:
    const uint8_t *data_;
    size_t size_;
};

}  // namespace cm::fuzz
