// The SNTP client inside the library: its parts that need no network.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::ntp {

constexpr size_t kPacketSize = 48;
using Packet = uint8_t[kPacketSize];

void make_request(const platform::WallTime &now, Packet &out);

// Whether a datagram is an answer to that request.  Bytes beyond the packet are extensions.
bool is_answer(const uint8_t *data, size_t length, const Packet &request);

}  // namespace cm::ntp

// Sets the clock by an answer that arrived at `t4_seconds` (since 1970) and `t4_ms`.  0: with a text in `message`, and
// the clock is as it was.
int16_t cm__ntp_apply(const uint8_t answer[cm::ntp::kPacketSize], uint32_t t4_seconds, uint32_t t4_ms, char *message);
