// Listeners, and taking their connections and datagrams.
#include <string.h>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "net/address.h"
#include "net/cmnet_accept.h"
#include "net/transport.h"

namespace cm::net {
namespace {

using platform::os;
using platform::SocketKind;
using platform::SocketOption;

constexpr int32_t kAcceptLingerS = 5;
constexpr uint32_t kAnyAddress = 0;

// ---- listeners ------------------------------------------------------------------------------------------------------

// The alert of a listener that could not be made, raised when its handle is closed.
class Failure {
public:
    bool says(const char *format, ...) CM_PRINTF(2, 3);  // gives false, as all
    bool says_and_logs(cm_context *ctx, int32_t level, const char *format, ...)
        CM_PRINTF(4, 5);  // the failing steps do

    int16_t raise(cm_net_state *state, PendingHandle &handle) const {
        handle.close();
        if (text_[0] != '\0') alert(state->ctx, kListenerAlert, "%s", text_);
        return 0;
    }

private:
    char text_[kMessageSize] = "";
};

bool Failure::says(const char *format, ...) {
    va_list args;
    va_start(args, format);
    cm_vsnprintf(text_, sizeof text_, format, args);
    va_end(args);
    return false;
}

bool Failure::says_and_logs(cm_context *ctx, int32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    cm_vsnprintf(text_, sizeof text_, format, args);
    va_end(args);
    report(ctx, level, "%s", text_);
    return false;
}

uint32_t seconds_of(int32_t read_timeout) {
    return read_timeout > 0 ? static_cast<uint32_t>(read_timeout) : 0;
}

uint32_t bind_address_of(cm_net_state *state, const char *text) {
    uint32_t address = kAnyAddress;
    if (text != nullptr && !parse_dotted(text, &address))
        report(state->ctx, CM_ERROR, "Unable to bind to address '%s', using INADDR_ANY.", text);
    return address;
}

bool bind_to(cm_net_state *state, const Call &call, uint32_t address, int32_t bind_port, int32_t port,
             Failure &failure) {
    if (is_port(bind_port) && os.socket_bind(call.socket(), address, bind_port) == 0) return true;
    return failure.says_and_logs(state->ctx, CM_ERROR,
                                 "Unable to bind to port %d; the port is in use by another server.", port);
}

// A listener's peer fields hold its own side.
void store_bound_address(cm_net_state *state, cm_conn *conn, uint32_t address, int32_t port) {
    const MutexGuard lock(state->table_mutex);  // cm_net_initip may be changing the local address
    store_relaxed(conn->peer_addr, address == kAnyAddress ? load_relaxed(state->local_addr) : address);
    conn->peer_port = static_cast<uint32_t>(port);
    format_dotted(conn->peer_addr, conn->peer_text);
    conn->marks |= kListener;
}

// Unsent replies of the connections to come are given up after their read time-out; accepted sockets take that, like
// the other options, from the listener.
void limit_unsent(const Call &call, const cm_conn *conn) {
    os.socket_option(call.socket(), SocketOption::kUnackedTimeout, milliseconds(conn->read_timeout));
}

bool make_listener(cm_net_state *state, cm_conn *conn, const char *bind_address, int32_t port, int32_t backlog,
                   Failure &failure) {
    const Call call(state, conn);
    cm_context *ctx = state->ctx;
    cm_socket socket = kNoSocket;
    if (os.socket_open(SocketKind::kStream, &socket) != 0) {
        report(ctx, CM_FATAL, "Can't start listener on port %d. Is TCP connectivity installed?", port);
        return failure.says("Failure creating socket for listener on port %d", port);
    }
    if (!give_socket(conn, socket)) return false;
    const uint32_t address = bind_address_of(state, bind_address);
    if (os.socket_option(socket, SocketOption::kKeepAlive, 1) != 0)
        report(ctx, CM_WARN, "setsockopt(KEEPALIVE) failed on port %d.", port);
    if (port != 0) {
        if (os.socket_option(socket, SocketOption::kListenerReuse, 1) != 0)
            report(ctx, CM_WARN, "setsockopt(REUSEADDR) failed on port %d.", port);
        if (os.socket_option(socket, SocketOption::kLinger, -1) != 0)
            report(ctx, CM_WARN, "setsockopt(LINGER) failed on port %d.", port);
    }
    limit_unsent(call, conn);
    if (!bind_to(state, call, address, port, port, failure)) return false;
    if (os.socket_listen(socket, backlog) != 0)
        return failure.says_and_logs(ctx, CM_ERROR, "Can't create listener on port %d. In use by another server?",
                                     port);
    uint32_t bound = 0;
    int32_t bound_port = 0;
    if (os.socket_local(socket, &bound, &bound_port) != 0)
        return failure.says_and_logs(ctx, CM_ERROR, "getsockname() failed on port %d, terminating listener.", port);
    store_bound_address(state, conn, bound, bound_port);
    return true;
}

// On the local address of an existing connection, at any free port: its own port is taken as long as it lives.
bool make_listener_beside(cm_net_state *state, cm_conn *conn, cm_conn *existing, int32_t backlog, Failure &failure) {
    const Call call(state, conn);
    const Call other(state, existing);
    cm_context *ctx = state->ctx;
    uint32_t address = 0;
    auto port = static_cast<int32_t>(existing->local_port);
    if (os.socket_local(other.socket(), &address, &port) != 0) {
        report(ctx, CM_ERROR, "getsockname() failed on socket. Can't create listener.");
        return failure.says("getsockname() failed for listener on port %d.", port);
    }
    cm_socket socket = kNoSocket;
    if (os.socket_open(SocketKind::kStream, &socket) != 0) {
        report(ctx, CM_ERROR, "socket() failed on port %d. Can't create listener.", port);
        return failure.says("socket() failed for listener on port %d.", port);
    }
    if (!give_socket(conn, socket)) return false;
    if (os.socket_option(socket, SocketOption::kListenerReuse, 1) != 0)
        report(ctx, CM_WARN, "setsockopt(REUSEADDR) failed on port %d.", port);
    limit_unsent(call, conn);
    if (!bind_to(state, call, address, 0, port, failure)) return false;
    if (os.socket_listen(socket, backlog) != 0)
        return failure.says_and_logs(ctx, CM_ERROR, "Can't start listener on port %d; port in use by another server?",
                                     port);
    if (os.socket_local(socket, &address, &port) != 0)
        return failure.says_and_logs(ctx, CM_ERROR, "getsockname() failed for listener on port %d.", port);
    store_bound_address(state, conn, address, port);
    return true;
}

bool make_udp_listener(cm_net_state *state, cm_conn *conn, const char *bind_address, int32_t port, Failure &failure) {
    const Call call(state, conn);
    cm_context *ctx = state->ctx;
    cm_socket socket = kNoSocket;
    if (os.socket_open(SocketKind::kDatagram, &socket) != 0) {
        report(ctx, CM_ERROR, "Unable to create socket for UDP listener.");
        return failure.says("Unable to create socket.");
    }
    set_bits_relaxed(conn->flags, uint32_t{CM_CONN_DATAGRAM});
    if (!give_socket(conn, socket)) return false;
    const uint32_t address = bind_address_of(state, bind_address);
    if (os.socket_option(socket, SocketOption::kReuseAddress, 1) != 0)
        report(ctx, CM_WARN, "setsockopt(REUSEADDR) failed on port %d.", port);
    os.socket_option(socket, SocketOption::kIgnorePortUnreachable, 1);
    if (!bind_to(state, call, address, port, port, failure)) return false;
    uint32_t bound = 0;
    int32_t bound_port = 0;
    if (os.socket_local(socket, &bound, &bound_port) != 0)
        return failure.says_and_logs(ctx, CM_ERROR, "getsockname() failed on port %d, terminating listener.", port);
    store_bound_address(state, conn, bound, bound_port);
    return true;
}

int16_t hand_out(PendingHandle &handle, cm_conn **out_conn) {
    if (out_conn == nullptr) return 0;
    *out_conn = handle.release();
    return 1;
}

void want_tls(cm_net_state *state, cm_conn *conn, int16_t tls_wanted) {
    if (tls_wanted != 0 && tls_available(state)) set_bits_relaxed(conn->flags, uint32_t{CM_CONN_TLS});
}

// ---- accept ---------------------------------------------------------------------------------------------------------

struct Peer {
    uint32_t address = 0;
    int32_t port = 0;
};

// A datagram's handle has no socket: it would be the listener's, and closing the one would close the other.
Error take_datagram(const Call &listening, cm_conn *conn, Peer *peer) {
    size_t got = 0;
    const Error error = os.socket_receive_from(listening.socket(), conn->in_buf, CM_NET_IN_SIZE, false, &got,
                                               &peer->address, &peer->port);
    if (error != 0) return error;
    conn->in_count = static_cast<int32_t>(got);
    set_bits_relaxed(conn->flags, uint32_t{CM_CONN_DATAGRAM});
    return 0;
}

Error take_connection(const Call &listening, cm_conn *conn, Peer *peer) {
    cm_socket socket = kNoSocket;
    const Error error = os.socket_accept(listening.socket(), &socket, &peer->address, &peer->port);
    if (error != 0) return error;
    return give_socket(conn, socket) ? 0 : CM_ENOTSOCK;
}

void store_peer(cm_net_state *state, cm_conn *conn, const cm_conn *listener, const Peer &peer) {
    store_relaxed(conn->peer_addr, peer.address);
    store_relaxed(conn->local_port, listener->peer_port);
    conn->peer_port = static_cast<uint32_t>(peer.port);
    if (peer.address == state->loopback) set_bits_relaxed(conn->flags, uint32_t{CM_CONN_LOOPBACK});
    const int32_t length = format_dotted(peer.address, conn->peer_text);
    memcpy(conn->peer_host, conn->peer_text, static_cast<size_t>(length) + 1);
    conn->peer_host_len = length;
}

// Whether the peer has more handles on this listener's port than it may, the new one among them.
bool throttled(cm_net_state *state, const cm_conn *conn) {
    const int32_t limit = state->ctx != nullptr ? state->ctx->throttle_ips : 0;
    if (limit < 1 || has_flag(conn, CM_CONN_LOOPBACK)) return false;
    int32_t found = 0;
    const MutexGuard lock(state->table_mutex);
    for (const cm_conn *other = state->in_use; other != nullptr; other = other->next)
        found +=
            load_relaxed(other->peer_addr) == conn->peer_addr && load_relaxed(other->local_port) == conn->local_port;
    return found > limit;
}

void set_options(cm_net_state *state, const Call &call) {
    if (context_flag(state->ctx, CTX_LINGER_CLOSE))
        os.socket_option(call.socket(), SocketOption::kLinger, kAcceptLingerS);
    os.socket_option(call.socket(), SocketOption::kKeepAlive, 1);
    os.socket_option(call.socket(), SocketOption::kNoDelay, 1);
}

void look_up_name(cm_net_state *state, cm_conn *conn, const Call &call) {
    uint32_t address = 0;
    int32_t port = 0;
    char name[CM_DNS_NAME];
    if (os.socket_peer(call.socket(), &address, &port) != 0) return;
    if (cm_dns_gethostname(state->ctx, address, 0, 0, name) == 0) return;
    conn->peer_host_len = cm_strncpy(conn->peer_host, name, sizeof conn->peer_host);
}

bool shake_hands(cm_net_state *state, cm_conn *conn, const Call &call) {
    const int32_t limit_ms = milliseconds(conn->read_timeout);
    if (os.socket_option(call.socket(), SocketOption::kSendTimeout, limit_ms) == 0 &&
        os.socket_option(call.socket(), SocketOption::kReceiveTimeout, limit_ms) == 0)
        set_bits_relaxed(conn->flags, uint32_t{CM_CONN_KTIMEOUT});
    return transport != nullptr && transport->accept(state, conn);
}

// Fills the handle; false closes it.
bool accept_into(cm_net_state *state, cm_conn *conn, cm_conn *listener, uint32_t flags, Error *out_error) {
    const Call call(state, conn);
    const Call listening(state, listener);
    const bool datagram = has_flag(listener, CM_CONN_DATAGRAM);
    Peer peer;
    if (listening.socket() == kNoSocket)
        *out_error = CM_ENOTSOCK;
    else
        *out_error = datagram ? take_datagram(listening, conn, &peer) : take_connection(listening, conn, &peer);
    if (*out_error != 0) return false;
    set_bits_relaxed(conn->flags, flags);
    store_peer(state, conn, listener, peer);
    if (opens_traced(state))
        trace(state->ctx, "%s ACCEPT [%ld] -> %s:%ld\n", datagram ? "UDP" : "TCP", static_cast<long>(conn->local_port),
              conn->peer_text, static_cast<long>(conn->peer_port));
    if (throttled(state, conn)) return false;
    if (datagram) {
        count(state, 1, conn->in_count);
        return true;
    }
    set_options(state, call);
    if (context_flag(state->ctx, CTX_RESOLVE_NAMES)) conn->marks |= kNameWanted;
    if (has_flag(listener, CM_CONN_TLS)) conn->marks |= kHandshakeWanted;
    return true;
}

}  // namespace

bool finish_accept(cm_net_state *state, cm_conn *conn) {
    const Call call(state, conn);
    const int32_t wanted = conn->marks;
    conn->marks = 0;
    if ((wanted & kNameWanted) != 0) look_up_name(state, conn, call);
    return (wanted & kHandshakeWanted) == 0 || shake_hands(state, conn, call);
}

cm_conn *accept_one(cm_net_state *state, cm_conn *listener, uint32_t flags, bool later, Error *out_error) {
    *out_error = 0;
    PendingHandle handle(state, take_handle(state, listener->read_timeout, true, kListenerAlert));
    if (!handle || !accept_into(state, handle.get(), listener, flags, out_error)) return nullptr;
    if (!later && handle->marks != 0 && !finish_accept(state, handle.get())) return nullptr;
    return handle.release();
}

}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_listen(cm_net_state *state, const char *bind_address, int32_t port, int32_t backlog,
                                     int32_t read_timeout, int16_t tls_wanted, cm_conn **out_listener) {
    using namespace cm::net;
    if (out_listener != nullptr) *out_listener = nullptr;
    if (state == nullptr) return 0;
    Failure failure;
    PendingHandle handle(state, take_handle(state, seconds_of(read_timeout), false, kListenerAlert));
    if (!handle) return 0;
    if (!make_listener(state, handle.get(), bind_address, port, backlog, failure)) return failure.raise(state, handle);
    want_tls(state, handle.get(), tls_wanted);
    return hand_out(handle, out_listener);
}

CM_API int16_t CM_CALL cm_net_listenc(cm_net_state *state, cm_conn *existing, int32_t backlog, int16_t tls_wanted,
                                      cm_conn **out_listener) {
    using namespace cm::net;
    if (out_listener != nullptr) *out_listener = nullptr;
    if (state == nullptr || existing == nullptr) return 0;
    Failure failure;
    PendingHandle handle(state, take_handle(state, state->read_timeout, false, kListenerAlert));
    if (!handle) return 0;
    if (!make_listener_beside(state, handle.get(), existing, backlog, failure)) return failure.raise(state, handle);
    want_tls(state, handle.get(), tls_wanted);
    return hand_out(handle, out_listener);
}

CM_API int16_t CM_CALL cm_net_listenu(cm_net_state *state, const char *bind_address, int32_t port,
                                      cm_conn **out_listener) {
    using namespace cm::net;
    if (out_listener != nullptr) *out_listener = nullptr;
    if (state == nullptr) return 0;
    Failure failure;
    PendingHandle handle(state, take_handle(state, state->read_timeout, false, kListenerAlert));
    if (!handle) return 0;
    if (!make_udp_listener(state, handle.get(), bind_address, port, failure)) return failure.raise(state, handle);
    return hand_out(handle, out_listener);
}

CM_API int16_t CM_CALL cm_net_accept(cm_net_state *state, cm_conn *listener, uint32_t flags, cm_conn **out_conn) {
    using namespace cm::net;
    if (out_conn != nullptr) *out_conn = nullptr;
    if (state == nullptr || listener == nullptr || out_conn == nullptr) return 0;
    Error error = 0;
    *out_conn = accept_one(state, listener, flags, false, &error);
    return *out_conn != nullptr ? 1 : 0;
}
