// Answers of time servers and of pinged hosts, as hostile as they come.  The first 8 bytes are the arrival time, the
// rest is the datagram.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "net/cmnet_utility.h"
#include "net/cmntp.h"

namespace {

using cm::platform::os;

int64_t set_to = 0;
int calls = 0;

void check(bool holds) {
    if (!holds) abort();
}

cm::platform::Error take(const cm_tm *utc, int32_t milliseconds) {
    check(utc->mon >= 0 && utc->mon < 12 && utc->mday >= 1 && utc->mday <= 31 && utc->hour >= 0 && utc->hour < 24);
    check(utc->wday >= 0 && utc->wday < 7 && milliseconds >= 0 && milliseconds < 1000);
    set_to = utc->year;
    calls++;
    return 0;
}

void apply(const uint8_t *answer, uint32_t seconds, uint32_t milliseconds) {
    char message[1024] = "";
    calls = 0;
    const int16_t result = cm__ntp_apply(answer, seconds, milliseconds, message);
    check(calls == (result == 1 ? 1 : 0));
    check((result == 1) == (message[0] == '\0'));
    if (result == 1) check(set_to >= 69 && set_to <= 206);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    os.set_wall_clock = take;
    if (size < 8) return 0;
    uint32_t seconds = 0, milliseconds = 0;
    memcpy(&seconds, data, 4);
    memcpy(&milliseconds, data + 4, 4);
    data += 8;
    size -= 8;
    cm::ntp::Packet request;
    cm::ntp::make_request({seconds, static_cast<int32_t>(milliseconds % 1000)}, request);
    cm::ntp::is_answer(data, size, request);
    if (size >= cm::ntp::kPacketSize) apply(data, seconds, milliseconds % 1000);
    uint8_t token[cm::net::kEchoToken] = {};
    cm::net::Echo echo;
    cm::net::make_echo(token, echo);
    cm::net::is_echo_reply(data, size, echo);
    return 0;
}
