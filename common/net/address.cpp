#include "net/address.h"

#include <string.h>

#include "core/cmstring.h"

namespace cm::net {

bool parse_dotted(std::string_view text, uint32_t *out_address) {
    uint8_t bytes[4];
    for (int part = 0; part < 4; part++) {
        if (part > 0) {
            if (text.empty() || text.front() != '.') return false;
            text.remove_prefix(1);
        }
        unsigned value = 0;
        size_t digits = 0;
        while (digits < text.size() && digits < 4 && is_digit(text[digits])) {
            value = value * 10 + static_cast<unsigned>(text[digits] - '0');
            digits++;
        }
        if (digits == 0 || digits > 3 || value > 255 || (digits > 1 && text.front() == '0')) return false;
        bytes[part] = static_cast<uint8_t>(value);
        text.remove_prefix(digits);
    }
    if (!text.empty()) return false;
    memcpy(out_address, bytes, sizeof bytes);
    return true;
}

int32_t format_dotted(uint32_t address, char (&out)[kDottedSize]) {
    uint8_t bytes[4];
    memcpy(bytes, &address, sizeof bytes);
    char *at = out;
    for (int part = 0; part < 4; part++) {
        if (part > 0) *at++ = '.';
        const unsigned value = bytes[part];
        if (value >= 100) *at++ = static_cast<char>('0' + value / 100);
        if (value >= 10) *at++ = static_cast<char>('0' + value / 10 % 10);
        *at++ = static_cast<char>('0' + value % 10);
    }
    *at = 0;
    return static_cast<int32_t>(at - out);
}

}  // namespace cm::net
