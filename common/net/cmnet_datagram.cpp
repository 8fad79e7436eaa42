// Datagrams: sending, from a listener or from a handle of their own, and receiving with an explicit time-out.
#include "net/cmnet_datagram.h"

#include <string.h>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "net/address.h"

namespace cm::net {
namespace {

using platform::os;
using platform::SocketKind;
using platform::SocketOption;

bool is_listener(const cm_conn *conn) {
    return (conn->marks & kListener) != 0;
}

void trace_sent(cm_net_state *state, const cm_conn *conn, const char *to, int32_t port, std::string_view data) {
    const Slice slice = {data.data(), data.size()};
    const uint32_t local = is_listener(conn) ? conn->peer_port : conn->local_port;
    trace_packet(state->ctx, &slice, 1, "UDP WRITE [%ld] -> %s:%ld [%ld bytes]\n", static_cast<long>(local), to,
                 static_cast<long>(port), static_cast<long>(data.size()));
}

void trace_received(cm_net_state *state, const cm_conn *conn, uint32_t address, const void *data, size_t length) {
    char from[kDottedSize];
    format_dotted(address, from);
    const Slice slice = {data, length};
    const uint32_t local = is_listener(conn) ? conn->peer_port : conn->local_port;
    trace_packet(state->ctx, &slice, 1, "UDP READ [%ld] -> %s [%ld bytes]\n", static_cast<long>(local), from,
                 static_cast<long>(length));
}

// A listener stays open whatever happens: one peer that cannot be reached is no reason to stop serving the others.
bool send_datagram(cm_net_state *state, cm_conn *conn, uint32_t address, int32_t port, std::string_view data) {
    const Call call(state, conn);
    if (stopping(state) || has_flag(conn, CM_CONN_CLOSED) || !has_flag(conn, CM_CONN_DATAGRAM)) return false;
    if (data.empty()) return true;
    char to[kDottedSize];
    format_dotted(address, to);
    const cm_socket socket = call.socket();
    const bool sent = socket != kNoSocket && port > 0 && is_port(port) &&
                      os.socket_send_to(socket, address, port, data.data(), data.size()) == 0;
    if (!sent) {
        if (!is_listener(conn)) mark_closed(conn);
        report(state->ctx, CM_WARN, "UDP sendto %s:%ld failed", to, static_cast<long>(port));
        return false;
    }
    count(state, 2, static_cast<int64_t>(data.size()));
    add_relaxed(conn->bytes_sent, static_cast<uint32_t>(data.size()));
    if (packets_traced(state)) trace_sent(state, conn, to, port, data);
    return true;
}

void set_peer(cm_conn *conn, uint32_t address, int32_t port) {
    store_relaxed(conn->peer_addr, address);
    conn->peer_port = static_cast<uint32_t>(port);
    conn->peer_host_len = format_dotted(address, conn->peer_text);
    memcpy(conn->peer_host, conn->peer_text, sizeof conn->peer_text);
}

enum class Read { kData, kDropped, kFailed };

// Waits first: who asks for a datagram has just sent one, and its answer is not there yet.
Read read_one(cm_net_state *state, const Call &call, cm_conn *conn, void *buffer, size_t size, int32_t timeout_ms,
              size_t *out_count, uint32_t *out_address, int32_t *out_port) {
    if (wait_for(state, call, false, timeout_ms) != Wait::kReady) return Read::kFailed;
    uint32_t address = 0;
    int32_t port = 0;
    const bool from_anyone = out_address != nullptr;
    const Error error = os.socket_receive_from(call.socket(), buffer, size, true, out_count, &address, &port);
    if (error == CM_EWOULDBLOCK || (error == CM_EMSGSIZE && !from_anyone)) return Read::kDropped;
    if (error != 0) return Read::kFailed;
    if (from_anyone) {
        *out_address = address;
        *out_port = port;
    } else if (address != conn->peer_addr || port != static_cast<int32_t>(conn->peer_port)) {
        return Read::kDropped;
    }
    count(state, 1, static_cast<int64_t>(*out_count));
    if (packets_traced(state)) trace_received(state, conn, address, buffer, *out_count);
    return Read::kData;
}

// cm_net_recv and cm_net_recvfrom.
int16_t receive_within(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t timeout_s,
                       int32_t *out_count, uint32_t *out_address, int32_t *out_port) {
    if (out_count != nullptr) *out_count = 0;
    if (state == nullptr || conn == nullptr || buffer == nullptr || size < 1) return 0;
    size_t got = 0;
    const int64_t deadline = os.monotonic_ms() + milliseconds(timeout_s);
    if (!receive_datagram(state, conn, buffer, static_cast<size_t>(size), deadline, &got, out_address, out_port))
        return 0;
    if (out_count != nullptr) *out_count = static_cast<int32_t>(got);
    return 1;
}

}  // namespace

bool receive_datagram(cm_net_state *state, cm_conn *conn, void *buffer, size_t size, int64_t deadline_ms,
                      size_t *out_count, uint32_t *out_address, int32_t *out_port) {
    const Call call(state, conn);
    if (stopping(state) || has_flag(conn, CM_CONN_CLOSED) || !has_flag(conn, CM_CONN_DATAGRAM)) return false;
    Read read = Read::kDropped;
    int64_t left = deadline_ms - os.monotonic_ms();
    do {
        const auto timeout_ms = static_cast<int32_t>(left < INT32_MAX ? left : INT32_MAX);
        read = read_one(state, call, conn, buffer, size, timeout_ms > 0 ? timeout_ms : 0, out_count, out_address,
                        out_port);
    } while (read == Read::kDropped && (left = deadline_ms - os.monotonic_ms()) > 0);
    if (read != Read::kData && !is_listener(conn)) mark_closed(conn);
    return read == Read::kData;
}

cm_conn *open_datagram(cm_net_state *state) {
    PendingHandle handle(state, take_handle(state, state->read_timeout, false, kConnectAlert));
    if (!handle) return nullptr;
    cm_socket socket = kNoSocket;
    if (os.socket_open(SocketKind::kDatagram, &socket) != 0) {
        handle.close();
        alert(state->ctx, kConnectAlert, "Failure creating socket.");
        return nullptr;
    }
    set_bits_relaxed(handle->flags, uint32_t{CM_CONN_DATAGRAM});
    if (!give_socket(handle.get(), socket)) return nullptr;
    os.socket_option(socket, SocketOption::kIgnorePortUnreachable, 1);
    return handle.release();
}

}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_sendto(cm_net_state *state, cm_conn *conn, uint32_t address, int32_t port,
                                     const void *data, int32_t length) {
    if (state == nullptr || conn == nullptr || (data == nullptr && (length > 0 || length == CM_LEN_TEXT))) return 0;
    return cm::net::send_datagram(state, conn, address, port, cm::view(static_cast<const char *>(data), length)) ? 1
                                                                                                                 : 0;
}

CM_API int16_t CM_CALL cm_net_dnssendto(cm_net_state *state, uint32_t address, int32_t port, const void *data,
                                        int32_t length, cm_conn **io_conn) {
    using namespace cm::net;
    if (state == nullptr || io_conn == nullptr || (data == nullptr && (length > 0 || length == CM_LEN_TEXT))) return 0;
    if (*io_conn != nullptr && has_flag(*io_conn, CM_CONN_CLOSED)) {
        cm_net_close(state, *io_conn, 0);
        *io_conn = nullptr;
    }
    if (*io_conn == nullptr) *io_conn = open_datagram(state);
    if (*io_conn == nullptr) return 0;
    set_peer(*io_conn, address, port);
    return send_datagram(state, *io_conn, address, port, cm::view(static_cast<const char *>(data), length)) ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_recv(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t timeout,
                                   int32_t *out_count) {
    return cm::net::receive_within(state, conn, buffer, size, timeout, out_count, nullptr, nullptr);
}

CM_API int16_t CM_CALL cm_net_recvfrom(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t timeout,
                                       int32_t *out_count, uint32_t *out_address, int32_t *out_port) {
    uint32_t address = 0;
    int32_t port = 0;
    if (out_address == nullptr) out_address = &address;
    if (out_port == nullptr) out_port = &port;
    *out_address = 0;
    *out_port = 0;
    return cm::net::receive_within(state, conn, buffer, size, timeout, out_count, out_address, out_port);
}
