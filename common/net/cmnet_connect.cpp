// Outgoing TCP connections.
#include <string.h>

#include "core/cmerror.h"
#include "net/address.h"
#include "net/cmnet.h"
#include "net/dialup_hook.h"
#include "net/transport.h"

namespace cm::net {
namespace {

using platform::os;
using platform::SocketKind;
using platform::SocketOption;

constexpr int32_t kLingerS = 5;
constexpr int32_t kNoPort = INT32_MIN;  // cm_net_connect, which does not bind

struct Target {
    const char *host;
    int32_t port;
    int32_t local_port;
    bool tls;
    bool allow_in_progress;
};

// Raised once the handle is closed; empty when there is nothing to say.
struct Failure {
    char alert[kMessageSize] = "";
    bool check_line = false;  // the connect failed, perhaps since the dialled line is down
};

bool says(Failure &failure, const char *format, ...) CM_PRINTF(2, 3);

bool says(Failure &failure, const char *format, ...) {
    va_list args;
    va_start(args, format);
    cm_vsnprintf(failure.alert, sizeof failure.alert, format, args);
    va_end(args);
    return false;
}

bool dial(cm_net_state *state, cm_conn *conn, const char *host) {
    if (dialup == nullptr || !context_flag(state->ctx, CTX_DIAL_ON_DEMAND) || strcmp(host, "127.0.0.1") == 0)
        return true;
    if (dialup->dial(state->ctx) == 0) return false;
    set_bits_relaxed(conn->flags, uint32_t{CM_CONN_DIALED});
    return true;
}

bool resolve(cm_net_state *state, const char *host, uint32_t *out_address) {
    if (parse_dotted(host, out_address)) return true;
    cm_context *ctx = state->ctx;
    const bool own = ctx != nullptr && ctx->dns != nullptr && ctx->dns->primary != 0 && ctx->net_table == state;
    return cm_dns_gethostaddr(ctx, host, 0, own ? 1 : 0, out_address, nullptr, nullptr, nullptr) != 0;
}

bool bind_local(cm_net_state *state, const Call &call, int32_t port, Failure &failure) {
    if (port == 0) return true;
    os.socket_option(call.socket(), SocketOption::kListenerReuse,
                     1);  // or a second run has to wait for the first's end
    if (is_port(port) && os.socket_bind(call.socket(), 0, port) == 0) return true;
    report(state->ctx, CM_ERROR, "Unable to bind to port %d; the port is in use by another server.", port);
    return says(failure, "Unable to bind to port %d; the port is in use by another server.", port);
}

// The connect itself, at most for the handle's read time-out.
Error connect_within(cm_net_state *state, const Call &call, uint32_t address, const Target &target,
                     uint32_t timeout_s) {
    if (!is_port(target.port)) return CM_EADDRNOTAVAIL;
    const Error error = os.socket_connect(call.socket(), address, target.port);
    const bool under_way = error == CM_EWOULDBLOCK || (error == CM_EINPROGRESS && target.allow_in_progress);
    if (!under_way) return error;
    switch (wait_for(state, call, true, milliseconds(timeout_s))) {
        case Wait::kReady:
            return os.socket_connect_result(call.socket());
        case Wait::kTimeUp:
            return CM_ETIMEDOUT;
        case Wait::kStopped:
            return CM_EINTR;
        default:
            return CM_ENOTSOCK;
    }
}

void set_options(cm_net_state *state, const Call &call, const cm_conn *conn) {
    os.socket_option(call.socket(), SocketOption::kKeepAlive, 1);
    if (context_flag(state->ctx, CTX_LINGER_CLOSE)) os.socket_option(call.socket(), SocketOption::kLinger, kLingerS);
    os.socket_option(call.socket(), SocketOption::kUnackedTimeout, milliseconds(conn->read_timeout));
}

void store_peer(cm_conn *conn, uint32_t address, int32_t port) {
    store_relaxed(conn->peer_addr, address);
    conn->peer_port = static_cast<uint32_t>(port);
    conn->peer_host_len = format_dotted(address, conn->peer_text);
    memcpy(conn->peer_host, conn->peer_text, sizeof conn->peer_text);
}

bool open_to(cm_net_state *state, cm_conn *conn, const Call &call, const Target &target, Failure &failure,
             int32_t *out_error) {
    uint32_t address = 0;
    if (!resolve(state, target.host, &address)) return says(failure, "Failure lookup up host '%s'", target.host);
    cm_socket socket = kNoSocket;
    *out_error = os.socket_open(SocketKind::kStream, &socket);
    if (*out_error != 0)
        return says(failure, target.local_port == kNoPort ? "Failure creating socket." : "Unable to create socket.");
    if (!give_socket(conn, socket)) return false;
    if (target.local_port != kNoPort && !bind_local(state, call, target.local_port, failure)) return false;
    set_options(state, call, conn);
    *out_error = os.socket_set_blocking(socket, false);
    if (*out_error == 0) *out_error = connect_within(state, call, address, target, conn->read_timeout);
    if (*out_error != 0) {
        failure.check_line = true;
        if (target.local_port != kNoPort)
            report(state->ctx, CM_ERROR, "connect(%d) failed [%s:%d]", *out_error, target.host, target.port);
        return says(failure, "Failure connecting to host '%s'", target.host);
    }
    if (opens_traced(state)) trace(state->ctx, "TCP CONNECT -> %s:%ld\n", target.host, static_cast<long>(target.port));
    store_peer(conn, address, target.port);
    *out_error = os.socket_set_blocking(socket, true);
    return *out_error == 0 || says(failure, "Failure connecting to host '%s'", target.host);
}

bool connect_handle(cm_net_state *state, cm_conn *conn, const Target &target, Failure &failure, int32_t *out_error) {
    const Call call(state, conn);
    if (!dial(state, conn, target.host)) return false;
    if (!open_to(state, conn, call, target, failure, out_error)) return false;
    return !target.tls || transport->connect(state, target.host, target.port, conn, out_error);
}

int16_t connect_to(cm_net_state *state, const Target &target, int32_t read_timeout, cm_conn **out_conn,
                   int32_t *out_error) {
    int32_t unwanted = 0;
    if (out_error == nullptr) out_error = &unwanted;
    *out_error = 0;
    if (out_conn == nullptr) return 0;
    *out_conn = nullptr;
    if (state == nullptr || target.host == nullptr || (target.tls && !tls_available(state))) return 0;
    const uint32_t timeout_s = read_timeout > 0 ? static_cast<uint32_t>(read_timeout) : 0;
    PendingHandle handle(state, take_handle(state, timeout_s, true, kConnectAlert));
    if (!handle) return 0;
    Failure failure;
    if (connect_handle(state, handle.get(), target, failure, out_error)) {
        *out_conn = handle.release();
        return 1;
    }
    const bool dialled = has_flag(handle.get(), CM_CONN_DIALED);
    handle.close();
    if (failure.check_line && dialled && dialup != nullptr) dialup->check_status(state->ctx);
    if (failure.alert[0] != '\0') alert(state->ctx, kConnectAlert, "%s", failure.alert);
    return 0;
}

}  // namespace
}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_connect(cm_net_state *state, const char *host, int32_t port, int32_t read_timeout,
                                      int16_t tls_wanted, int16_t allow_in_progress, cm_conn **out_conn,
                                      int32_t *out_error) {
    using namespace cm::net;
    return connect_to(state, {host, port, kNoPort, tls_wanted != 0, allow_in_progress != 0}, read_timeout, out_conn,
                      out_error);
}

CM_API int16_t CM_CALL cm_net_connecta(cm_net_state *state, const char *host, int32_t port, int32_t read_timeout,
                                       int16_t tls_wanted, int16_t allow_in_progress, cm_conn **out_conn,
                                       int32_t *out_error, int32_t local_port) {
    using namespace cm::net;
    return connect_to(state, {host, port, local_port, tls_wanted != 0, allow_in_progress != 0}, read_timeout, out_conn,
                      out_error);
}
