// Bytes and letters, the same in every locale.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string_view>

#include "tilvarcm.h"

namespace cm {

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }
constexpr bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool is_lower(char c) { return c >= 'a' && c <= 'z'; }
constexpr bool is_letter(char c) { return is_upper(c) || is_lower(c); }
constexpr bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
constexpr bool is_separator(char c) { return c == '/' || c == '\\'; }
constexpr char fold(char c) { return is_upper(c) ? static_cast<char>(c + ('a' - 'A')) : c; }

constexpr bool equal_folded(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); i++)
        if (fold(a[i]) != fold(b[i])) return false;
    return true;
}

constexpr bool ends_folded(std::string_view text, std::string_view end) {
    if (text.size() < end.size()) return false;
    text.remove_prefix(text.size() - end.size());
    return equal_folded(text, end);
}

// The library's rule for a text and its length argument: -3 measures, any other negative length is nothing, and so is a
// null text.
inline std::string_view view(const char *text, int32_t length) {
    if (text == nullptr) return {};
    if (length == CM_LEN_TEXT) return {text, strlen(text)};
    return {text, length < 0 ? 0 : static_cast<size_t>(length)};
}

}  // namespace cm
