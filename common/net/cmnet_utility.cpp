// Hosts and sockets: datagrams to a host or to all of the link, ping, addresses, options.
#include "net/cmnet_utility.h"

#include <string.h>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "net/address.h"
#include "net/cmnet_datagram.h"

namespace cm::net {
namespace {

using platform::os;
using platform::SocketKind;
using platform::SocketOption;

constexpr uint32_t kEverybody = 0xFFFFFFFFu;
constexpr char kEverybodyText[] = "255.255.255.255";

// The own resolver, once the network that it needs is there, where a server is configured.
bool find_host(cm_net_state *state, const char *host, uint32_t *out_address) {
    if (host == nullptr || stopping(state)) return false;
    if (parse_dotted(host, out_address)) return true;
    cm_context *ctx = state->ctx;
    const bool own = ctx != nullptr && ctx->dns != nullptr && ctx->dns->primary != 0 && ctx->net_table == state;
    if (cm_dns_gethostaddr(ctx, host, 0, own ? 1 : 0, out_address, nullptr, nullptr, nullptr) != 0) return true;
    report(ctx, CM_WARN, "cm_dns_gethostaddr() failed for '%s'", host);
    return false;
}

// ---- broadcast ------------------------------------------------------------------------------------------------------

bool prepare_broadcast(cm_net_state *state, const Call &call, int32_t local_port) {
    const cm_socket socket = call.socket();
    cm_context *ctx = state->ctx;
    if (os.socket_option(socket, SocketOption::kReuseAddress, 1) != 0)
        report(ctx, CM_WARN, "setsockopt(REUSEADDR) failed on port %d.", local_port);
    if (!is_port(local_port) || os.socket_bind(socket, 0, local_port) != 0) {
        report(ctx, CM_ERROR, "Unable to bind to port %d; the port is in use by another server.", local_port);
        alert(ctx, kConnectAlert, "Unable to bind to port %d; the port is in use by another server.", local_port);
        return false;
    }
    if (os.socket_option(socket, SocketOption::kBroadcast, 1) == 0) return true;
    report(ctx, CM_WARN, "setsockopt(BROADCAST) failed on port %d.", local_port);
    return false;
}

bool broadcast(cm_net_state *state, cm_conn *conn, int32_t local_port, int32_t remote_port, const Slice &data) {
    const Call call(state, conn);
    if (!prepare_broadcast(state, call, local_port)) return false;
    if (remote_port < 1 || !is_port(remote_port) ||
        os.socket_send_to(call.socket(), kEverybody, remote_port, data.data, data.length) != 0) {
        report(state->ctx, CM_WARN, "UDP sendto %s:%ld failed", kEverybodyText, static_cast<long>(remote_port));
        return false;
    }
    count(state, 2, static_cast<int64_t>(data.length));
    if (packets_traced(state))
        trace_packet(state->ctx, &data, 1, "DHCP BROADCAST [%ld bytes]\n", static_cast<long>(data.length));
    return true;
}

// ---- ping -----------------------------------------------------------------------------------------------------------

constexpr uint8_t kEchoRequestType = 8, kEchoReplyType = 0, kIcmpProtocol = 1;
constexpr size_t kLargestReply = 2048;

cm_conn *open_echo(cm_net_state *state) {
    PendingHandle handle(state, take_handle(state, state->read_timeout, false, kConnectAlert));
    if (!handle) return nullptr;
    cm_socket socket = kNoSocket;
    if (os.socket_open(SocketKind::kEcho, &socket) != 0) {
        handle.close();
        alert(state->ctx, kConnectAlert, "Failure creating socket.");
        return nullptr;
    }
    return give_socket(handle.get(), socket) ? handle.release() : nullptr;
}

// Waits for the answer of that address, passing over everything else that comes.
bool await_reply(cm_net_state *state, const Call &call, uint32_t address, const Echo &request, int64_t deadline_ms) {
    uint8_t data[kLargestReply];
    for (;;) {
        const int64_t left = deadline_ms - os.monotonic_ms();
        if (wait_for(state, call, false, left > 0 ? static_cast<int32_t>(left) : 0) != Wait::kReady) return false;
        size_t length = 0;
        uint32_t from = 0;
        int32_t port = 0;
        const Error error = os.socket_receive_from(call.socket(), data, sizeof data, true, &length, &from, &port);
        if (error == 0 && from == address && is_echo_reply(data, length, request)) return true;
        if (error != 0 && error != CM_EWOULDBLOCK && error != CM_EMSGSIZE) return false;
        if (left <= 0) return false;
    }
}

bool ping(cm_net_state *state, cm_conn *conn, uint32_t address, int32_t timeout_ms, int32_t *out_milliseconds) {
    const Call call(state, conn);
    uint8_t token[kEchoToken];
    Echo request;
    if (!os.random_bytes(token, sizeof token)) return false;
    make_echo(token, request);
    const int64_t start = os.monotonic_ms();
    if (os.socket_send_to(call.socket(), address, 0, request, sizeof request) != 0) return false;
    count(state, 2, sizeof request);
    if (!await_reply(state, call, address, request, start + timeout_ms)) return false;
    *out_milliseconds = static_cast<int32_t>(os.monotonic_ms() - start);
    return true;
}

// RFC 1071.
uint16_t checksum(const uint8_t *data, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i < length; i++) sum += i % 2 == 0 ? uint32_t{data[i]} << 8 : data[i];
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

}  // namespace

// Type, code, checksum, identifier and sequence number, then the token; zeros to the end.
void make_echo(const uint8_t (&token)[kEchoToken], Echo &out) {
    memset(out, 0, sizeof out);
    out[0] = kEchoRequestType;
    memcpy(out + 4, token, 2);
    out[7] = 1;
    memcpy(out + kEchoHead, token, sizeof token);
    const uint16_t sum = checksum(out, sizeof out);
    out[2] = static_cast<uint8_t>(sum >> 8);
    out[3] = static_cast<uint8_t>(sum);
}

// The identifier is not compared: the system may have put its own there.
bool is_echo_reply(const uint8_t *data, size_t length, const Echo &request) {
    if (length > 0 && data[0] >> 4 == 4) {  // an IP head; no ICMP answer begins so
        const size_t head = size_t{data[0] & 15u} * 4;
        if (head < 20 || length < head || data[9] != kIcmpProtocol) return false;
        data += head;
        length -= head;
    }
    return length == kEchoSize && data[0] == kEchoReplyType && data[1] == 0 &&
           memcmp(data + 6, request + 6, kEchoSize - 6) == 0;
}

}  // namespace cm::net

using namespace cm::net;

CM_API int16_t CM_CALL cm_net_hostaddr(cm_net_state *state, const char *host, uint32_t *out_address) {
    uint32_t address = CM_INADDR_NONE;
    const bool found = state != nullptr && find_host(state, host, &address);
    if (out_address != nullptr) *out_address = found ? address : CM_INADDR_NONE;
    return found ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_hostsendto(cm_net_state *state, const char *host, int32_t port, const void *data,
                                         int32_t length, cm_conn **io_conn) {
    uint32_t address = 0;
    if (state == nullptr || io_conn == nullptr || !find_host(state, host, &address)) return 0;
    return cm_net_dnssendto(state, address, port, data, length, io_conn);
}

CM_API int16_t CM_CALL cm_net_broadcast(cm_net_state *state, int32_t local_port, int32_t remote_port, const void *data,
                                        int32_t length) {
    if (state == nullptr || (data == nullptr && (length > 0 || length == CM_LEN_TEXT))) return 0;
    const std::string_view bytes = cm::view(static_cast<const char *>(data), length);
    const PendingHandle handle(state, open_datagram(state));
    return handle && broadcast(state, handle.get(), local_port, remote_port, {bytes.data(), bytes.size()}) ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_ping(cm_net_state *state, const char *host, int32_t timeout, int32_t *out_milliseconds) {
    int32_t elapsed = 0;
    uint32_t address = 0;
    if (out_milliseconds != nullptr) *out_milliseconds = 0;
    if (state == nullptr || !find_host(state, host, &address)) return 0;
    const PendingHandle handle(state, open_echo(state));
    if (!handle || !ping(state, handle.get(), address, milliseconds(timeout), &elapsed)) return 0;
    if (out_milliseconds != nullptr) *out_milliseconds = elapsed;
    return 1;
}

CM_API int16_t CM_CALL cm_net_macaddr(cm_net_state *state, uint32_t address, unsigned char out_mac[6]) {
    if (out_mac == nullptr) return 0;
    memset(out_mac, 0, 6);
    if (state == nullptr || stopping(state)) return 0;
    return os.hardware_address(address, out_mac) == 0 ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_setsockopt(cm_net_state *state, cm_conn *conn, int32_t level, int32_t option,
                                         const void *value, int32_t length) {
    if (state == nullptr || conn == nullptr || value == nullptr || stopping(state)) return 0;
    const Call call(state, conn);
    if (call.socket() == kNoSocket) return 0;
    return os.socket_raw_option(call.socket(), level, option, value, length) == 0 ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_sockname(cm_net_state *state, cm_conn *conn, uint32_t *out_address, int32_t *out_port) {
    uint32_t address = 0;
    int32_t port = 0;
    if (out_address != nullptr) *out_address = 0;
    if (out_port != nullptr) *out_port = 0;
    if (state == nullptr || conn == nullptr || stopping(state)) return 0;
    const Call call(state, conn);
    if (call.socket() == kNoSocket || os.socket_local(call.socket(), &address, &port) != 0) return 0;
    if (out_address != nullptr) *out_address = address;
    if (out_port != nullptr) *out_port = port;
    return 1;
}
