// A short text being put together in place.  What does not fit is left out, and `overflowed` tells.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace webhost {

template <size_t kSize>
class Text {
public:
    Text &add(std::string_view part) {
        if (part.size() > kSize - length_) {
            overflowed_ = true;
            return *this;
        }
        memcpy(text_ + length_, part.data(), part.size());
        length_ += part.size();
        return *this;
    }
    Text &add(char c) { return add(std::string_view(&c, 1)); }
    Text &number(uint64_t value, int base = 10) {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, value, base);
        return add(std::string_view(digits, static_cast<size_t>(result.ptr - digits)));
    }

    const char *c_str() {
        text_[length_] = '\0';
        return text_;
    }
    std::string_view view() const { return {text_, length_}; }
    int32_t length() const { return static_cast<int32_t>(length_); }
    bool overflowed() const { return overflowed_; }

private:
    char text_[kSize + 1];
    size_t length_ = 0;
    bool overflowed_ = false;
};

}  // namespace webhost
