// ICMP echo messages, as cm_net_ping makes and reads them.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace cm::net {

constexpr size_t kEchoSize = 45;  // on the wire below IP, and what the counter of sent bytes is told
constexpr size_t kEchoHead = 8, kEchoToken = 16;
using Echo = uint8_t[kEchoSize];

// `token` tells the answer to this request from those to others.
void make_echo(const uint8_t (&token)[kEchoToken], Echo &out);

// Whether a message, with or without its IP head, is the answer to that request.
bool is_echo_reply(const uint8_t *data, size_t length, const Echo &request);

}  // namespace cm::net
