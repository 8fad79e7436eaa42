// TLS under a connection, as the network layer sees it: one table of hooks, filled by the TLS binding.  Without the
// binding (`transport` null) TLS is not available: listeners are plain, connects and a start that want it fail.
#pragma once

#include "net/cmnet.h"

namespace cm::net {

enum class TlsRead {
    kData,    // *out_count bytes
    kClosed,  // the peer has closed
    kWait,    // nothing yet, though the socket was ready: wait again with the time that is left
    kFailed
};

struct Transport {
    // Start: load the library, make its locks and the server context, set `tls_ctx`.  Leaves nothing behind on failure.
    bool (*start)(cm_context *ctx, cm_net_state *state);
    // Stop: frees the context and the locks; `unload` closes the modules too.  Harmless without a start.
    void (*stop)(cm_net_state *state, bool unload);

    // The handshakes, with their messages and alerts; never close the handle.  The server's runs on the worker's
    // thread.
    bool (*accept)(cm_net_state *state, cm_conn *conn);
    bool (*connect)(cm_net_state *state, const char *host, int32_t port, cm_conn *conn, int32_t *out_error);

    // Transfer on a handle with CM_CONN_TLS.  A relay makes its socket non-blocking: a read that would block is kWait,
    // a write waits for room itself.
    bool (*pending)(cm_net_state *state, cm_conn *conn);  // bytes are decrypted and waiting
    TlsRead (*read)(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count);
    bool (*write)(cm_net_state *state, cm_conn *conn, const void *data, int32_t length);  // all of it

    // Close: ends and frees `conn->ssl`.  No call is inside the session.
    void (*close)(cm_net_state *state, cm_conn *conn);
};

extern const Transport *transport;

inline bool tls_available(const cm_net_state *state) {
    return transport != nullptr && load_relaxed(state->tls) != 0 && state->tls_ctx != nullptr;
}

}  // namespace cm::net
