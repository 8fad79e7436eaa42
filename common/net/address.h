// Dotted IPv4 text, the only address form of the library.
#pragma once

#include <stdint.h>

#include <string_view>

namespace cm::net {

constexpr int32_t kDottedSize = 16;  // "255.255.255.255" and its terminator

// Strict: exactly four decimal numbers of 0 to 255, without leading zeros (which some readers take for octal) and
// without anything around them.  The address is in network order; `out` is untouched on failure.
bool parse_dotted(std::string_view text, uint32_t *out_address);

// Gives the length of the text, which is always terminated.
int32_t format_dotted(uint32_t address, char (&out)[kDottedSize]);

}  // namespace cm::net
