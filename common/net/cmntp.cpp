// Clock synchronisation over SNTP (RFC 1305 packets, version 1, client mode), once per call.
//
// Stamps are seconds since 1900 and a fraction, 32 bits each; the seconds begin again at 0 on 2036-02-07.  So only
// differences of stamps are computed, modulo 2^32, and then turned into real numbers, which is exact for clocks that
// are less than 68 years apart.
#include "net/cmntp.h"

#include <string.h>

#include "core/cmerror.h"
#include "core/cmstamp.h"
#include "net/cmnet.h"
#include "net/cmnet_datagram.h"

namespace cm::ntp {
namespace {

using platform::os;
using platform::WallTime;

constexpr int32_t kMessageRoom = 1024;
constexpr int32_t kPort = 123;
constexpr int64_t kPatienceMs = 10000;
constexpr size_t kLargestAnswer = 1024;
constexpr double kFurthest = 345600;  // seconds

constexpr uint32_t k1970 = 2208988800u;  // in seconds since 1900
// The fraction of a true stamp would be a million times that.  Kept: it is what the servers echo, and with it a clock
// is set to the second.
constexpr double kFractionOfMillisecond = 4.294967;
constexpr double kFractionsPerSecond = 4294967296.0;

constexpr size_t kOriginateAt = 24, kReceiveAt = 32, kTransmitAt = 40, kStampSize = 8;

struct Stamp {
    uint32_t seconds, fraction;
};

Stamp stamp_of(uint32_t seconds, uint32_t milliseconds) {
    return {seconds + k1970, static_cast<uint32_t>(milliseconds * kFractionOfMillisecond)};
}

uint32_t read_word(const uint8_t *at) {
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

void write_word(uint8_t *at, uint32_t word) {
    for (int shift = 24; shift >= 0; shift -= 8) *at++ = static_cast<uint8_t>(word >> shift);
}

Stamp read_stamp(const uint8_t *at) {
    return {read_word(at), read_word(at + 4)};
}

double difference(const Stamp &a, const Stamp &b) {
    const auto seconds = static_cast<int32_t>(a.seconds - b.seconds);
    return seconds + (static_cast<double>(a.fraction) - b.fraction) / kFractionsPerSecond;
}

// How far the server's clock is ahead of ours.
double offset_of(const uint8_t *answer, const Stamp &arrival) {
    const Stamp originate = read_stamp(answer + kOriginateAt), receive = read_stamp(answer + kReceiveAt),
                transmit = read_stamp(answer + kTransmitAt);
    return (difference(receive, originate) + difference(transmit, arrival)) / 2;
}

int16_t fail(char *message, const char *format, ...) CM_PRINTF(2, 3);

int16_t fail(char *message, const char *format, ...) {
    va_list args;
    va_start(args, format);
    cm_vsnprintf(message, kMessageRoom, format, args);
    va_end(args);
    return 0;
}

// A handle that the caller of a send closes, whether the send worked or not.
class Exchange {
public:
    explicit Exchange(cm_net_state *state) : state_(state) {}
    ~Exchange() {
        if (conn_ != nullptr) cm_net_close(state_, conn_, 0);
    }
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    bool send(const char *server, const Packet &request) {
        return cm_net_hostsendto(state_, server, kPort, request, static_cast<int32_t>(sizeof request), &conn_) != 0;
    }

    // Until ten seconds are over; what is not an answer gains its sender nothing.
    bool receive(const Packet &request, Packet &out) {
        uint8_t data[kLargestAnswer];
        size_t length = 0;
        const int64_t deadline = os.monotonic_ms() + kPatienceMs;
        do {
            if (!net::receive_datagram(state_, conn_, data, sizeof data, deadline, &length)) return false;
        } while (!is_answer(data, length, request));
        memcpy(out, data, sizeof out);
        return true;
    }

private:
    cm_net_state *const state_;
    cm_conn *conn_ = nullptr;
};

bool send(Exchange &exchange, const char *server, Packet &out_request) {
    WallTime now;
    if (!os.wall_clock(&now)) return false;
    make_request(now, out_request);
    return exchange.send(server, out_request);
}

// What is to be told of a failure; null after success.
const char *ask(cm_net_state *net, const char *server, Packet &out_answer) {
    Packet request;
    Exchange exchange(net);
    if (net == nullptr || !send(exchange, server, request))
        return "Failure sending request to NTP server to synchronize time.";
    if (!exchange.receive(request, out_answer))
        return "Failure receiving response from NTP server to synchronize time.";
    return nullptr;
}

}  // namespace

void make_request(const WallTime &now, Packet &out) {
    memset(out, 0, sizeof out);
    out[0] = 0x0B;
    const Stamp stamp = stamp_of(static_cast<uint32_t>(now.seconds), static_cast<uint32_t>(now.milliseconds));
    write_word(out + kTransmitAt, stamp.seconds);
    write_word(out + kTransmitAt + 4, stamp.fraction);
}

bool is_answer(const uint8_t *data, size_t length, const Packet &request) {
    return length >= kPacketSize && memcmp(data + kOriginateAt, request + kTransmitAt, kStampSize) == 0;
}

}  // namespace cm::ntp

using namespace cm::ntp;

int16_t cm__ntp_apply(const uint8_t answer[kPacketSize], uint32_t t4_seconds, uint32_t t4_ms, char *message) {
    const double offset = offset_of(answer, stamp_of(t4_seconds, t4_ms));
    if (offset > kFurthest || offset < -kFurthest)
        return fail(message, "Time offset exceeds 4 days, NTP synchronization stopped.");
    // Kept: the bit belongs to the mode and stops answers of broadcasting and symmetric servers; one that is not
    // synchronised sets other bits and is believed.
    if ((answer[0] & 1) != 0) return fail(message, "Can't synchronize time from NTP server, unsynchronized.");
    const int64_t seconds = int64_t{t4_seconds} + static_cast<int64_t>(offset);
    cm_tm utc;
    if (seconds < 0 || seconds >= UINT32_MAX || !cm::time::gmt_calendar(seconds, &utc))
        return fail(message, "Failure deriving gmtime from offset (%f)", offset);
    if (os.set_wall_clock(&utc, static_cast<int32_t>(t4_ms)) != 0)
        return fail(message, "Failure synchronizing time from server (SetSystemTime() failed).");
    return 1;
}

CM_API int16_t CM_CALL cm_ntp_sync(cm_context *, cm_net_state *net, const char *server, char *message) {
    if (message == nullptr) return 0;
    message[0] = '\0';
    if (server == nullptr || server[0] == '\0')
        return fail(message, "Invalid server specified as NTP server for time synchronization.");
    Packet answer;
    if (const char *failure = ask(net, server, answer)) return fail(message, "%s", failure);
    WallTime arrival;
    if (!os.wall_clock(&arrival))
        return fail(message, "Failure receiving response from NTP server to synchronize time.");
    return cm__ntp_apply(answer, static_cast<uint32_t>(arrival.seconds), static_cast<uint32_t>(arrival.milliseconds),
                         message);
}

CM_API int16_t CM_CALL cm_ntp_cron(cm_context *ctx, const char *, cm_value net) {
    char message[kMessageRoom];
    const char *server = ctx != nullptr ? ctx->ntp_server : nullptr;
    if (cm_ntp_sync(ctx, reinterpret_cast<cm_net_state *>(net), server, message) == 0)
        cm::report(ctx, CM_ERROR, "%s", message);
    return 1;
}
