// The network layer inside the library: what its own rooms share, and what buffered I/O, TLS and the datagram
// operations build on.
//
//   cmnet.cpp           start, stop
//   cmnet_table.cpp     handles: hand out, close, forced close
//   cmnet_listen.cpp    listeners and accept
//   cmnet_poll.cpp      the accept loop and its workers
//   cmnet_connect.cpp   outgoing connections
//   cmnet_transfer.cpp  waiting, receive, send
//   cmnet_trace.cpp     the network log
//
// Above them: cmnetrpc.cpp reads, cmnetbody.cpp and cmnetfile.cpp write bodies, cmnettag.cpp has tagged messages,
// cmnetcircuit.cpp relays.
//
// Who may touch what.  The table mutex guards the two lists, the open count and the loop's entries.  A handle belongs
// to the thread that took it; its flags, its socket cell, the trace level and the shutting-down flag are read and
// written by others as well, always with relaxed or stronger atomics.
//
// A close may come from another thread while the owner is inside a call.  Each call counts itself in `in_call` before
// it reads the socket cell; each close empties the cell before it reads `in_call` (both sequentially consistent, so
// that one of the two always sees the other).  The close shuts the socket down, which brings the caller's wait back,
// and gives the descriptor and the TLS session up only when no call is left; if that takes longer than a second, the
// last call to leave does it.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/relaxed.h"
#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::net {

using platform::Error;
using platform::kNoSocket;
using platform::Slice;

constexpr char kListenerAlert[] = "listener";
constexpr char kConnectAlert[] = "connect";
constexpr char kAcceptAlert[] = "accept";
constexpr char kPoolAlert[] = "thread-pool";

// The started network, null without one.
cm_net_state *started();

inline bool stopping(const cm_net_state *state) {
    return load_relaxed(state->shutting_down) != 0;
}
inline bool has_flag(const cm_conn *conn, uint32_t flag) {
    return (load_relaxed(conn->flags) & flag) != 0;
}
inline void mark_closed(cm_conn *conn) {
    set_bits_relaxed(conn->flags, uint32_t{CM_CONN_CLOSED});
}
inline bool context_flag(const cm_context *ctx, uint32_t flag) {
    return ctx != nullptr && (load_relaxed(ctx->flags) & flag) != 0;
}

// Seconds of a caller as milliseconds of a wait: nothing below 0, saturated above.
constexpr int32_t milliseconds(int64_t seconds) {
    if (seconds <= 0) return 0;
    return seconds > INT32_MAX / 1000 ? INT32_MAX : static_cast<int32_t>(seconds * 1000);
}

constexpr bool is_port(int32_t port) {
    return port >= 0 && port <= 65535;
}

// Counts on a performance counter of the context: 0 connections, 1 bytes received, 2 bytes sent.
void count(cm_net_state *state, int32_t counter, int64_t amount);

// ---- the table ------------------------------------------------------------------------------------------------------

// A cleared handle without a socket, on the in-use list; waits while the table is full.  `counted`: it counts as a
// connection.  Null: shutting down, or no memory.
cm_conn *take_handle(cm_net_state *state, uint32_t read_timeout_s, bool counted);

// The same, and raises the alert of a failure under that word.
cm_conn *take_handle(cm_net_state *state, uint32_t read_timeout_s, bool counted, const char *word);

// A handle on its way to the caller: closed again unless it is handed out.
class PendingHandle {
public:
    PendingHandle(cm_net_state *state, cm_conn *conn) : state_(state), conn_(conn) {}
    ~PendingHandle() {
        if (conn_ != nullptr) cm_net_close(state_, conn_, 0);
    }
    PendingHandle(const PendingHandle &) = delete;
    PendingHandle &operator=(const PendingHandle &) = delete;

    explicit operator bool() const { return conn_ != nullptr; }
    cm_conn *operator->() const { return conn_; }
    cm_conn *get() const { return conn_; }
    cm_conn *release() {
        cm_conn *conn = conn_;
        conn_ = nullptr;
        return conn;
    }
    void close() {
        if (conn_ != nullptr) cm_net_close(state_, release(), 0);
    }

private:
    cm_net_state *const state_;
    cm_conn *conn_;
};

// Hidden marks of a handle.
enum Mark : int32_t {
    kListener = 1,
    kNameWanted = 2,       // accepted: the peer's name has yet to be looked up
    kHandshakeWanted = 4,  // accepted: the TLS handshake has yet to be done
};

// Value of `phase` from hand-out until somebody begins to close the handle.
constexpr int32_t kOpenPhase = 1;

// Gives a handle that was taken just now its socket.  False: it was closed by force meanwhile, and the socket is
// closed.
bool give_socket(cm_conn *conn, cm_socket socket);

// One call on a handle: while it lives, the descriptor that socket() gave stays open, and so do the TLS session, the
// file and the compressor.  Every function that works on a handle holds one for its whole length; they nest.  After
// each wait ask for the socket again: none means that another thread closes the handle.  Never close a handle inside
// one.
class Call {
public:
    Call(cm_net_state *state, cm_conn *conn) : state_(state), conn_(conn) {
        __atomic_add_fetch(&conn->in_call, 1, __ATOMIC_SEQ_CST);
    }
    ~Call() { leave(state_, conn_); }
    Call(const Call &) = delete;
    Call &operator=(const Call &) = delete;

    cm_socket socket() const { return __atomic_load_n(conn_->sock, __ATOMIC_SEQ_CST); }

    // Whether nobody closes the handle; to be asked before its file or compressor is touched.
    bool open() const { return __atomic_load_n(&conn_->phase, __ATOMIC_SEQ_CST) == kOpenPhase; }

    // Leaves the rest of a close to the last call inside.
    static void abandon(cm_net_state *state, cm_conn *conn, cm_socket socket);

private:
    static constexpr int32_t kAbandoned = 0x40000000;  // in `in_call`

    static void leave(cm_net_state *state, cm_conn *conn) {
        if (__atomic_sub_fetch(&conn->in_call, 1, __ATOMIC_SEQ_CST) == kAbandoned) finish_abandoned(state, conn);
    }
    static void finish_abandoned(cm_net_state *state, cm_conn *conn);

    cm_net_state *const state_;
    cm_conn *const conn_;
};

// Keeping the state's memory past cm_net_exit: whoever may still touch it holds one of these.
void hold_state(cm_net_state *state);
void leave_state(cm_net_state *state);

// Closes every open handle by force.
void close_all(cm_net_state *state);

// The job's own mark on a handle: the worker that runs it closes it, whatever else happens to it.
void give_to_job(cm_net_state *state, cm_conn *conn);

// ---- transfer -------------------------------------------------------------------------------------------------------

enum class Wait { kReady, kTimeUp, kStopped, kFailed };

// Waits until the call's socket can be read (or written), the time is up or the network stops.
Wait wait_for(cm_net_state *state, const Call &call, bool for_write, int32_t timeout_ms);

// cm_net_receive: true with 0 bytes when the peer has closed.
bool receive(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count);

// Sends all bytes of all slices, as few system calls as that takes, with one line in the trace.  Works
// for every kind of handle.  `more_follows`: another send comes at once, a partly filled packet may wait for it.
bool send_slices(cm_net_state *state, cm_conn *conn, const Slice *slices, int32_t count, bool more_follows);

// One step of a transfer over a socket that does not block: what is there, and what goes at once, none of which is no
// failure.  A TLS or file handle sends all.
enum class Now { kBytes, kNothing, kEnd, kFailed };
Now receive_now(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count);
bool send_now(cm_net_state *state, cm_conn *conn, const void *data, int32_t length, int32_t *out_count);

// Sends a part of an open file, without its bytes passing through here where that is possible.  The file's position is
// not kept.  False also when the file is shorter.
bool send_file(cm_net_state *state, cm_conn *conn, int32_t descriptor, int64_t offset, int64_t length);

// ---- trace ----------------------------------------------------------------------------------------------------------

// Whether opens and closes, respectively each packet, leave a line in the network log.
inline bool opens_traced(const cm_net_state *state) {
    return state->ctx != nullptr && load_relaxed(state->ctx->net_trace_level) >= CM_NTRACE_OPENCLOSE;
}
inline bool packets_traced(const cm_net_state *state) {
    return state->ctx != nullptr && load_relaxed(state->ctx->net_trace_level) >= CM_NTRACE_PACKETS;
}

// Writes one line, when the network log is open.
void trace(cm_context *ctx, const char *format, ...) CM_PRINTF(2, 3);

// The same for a packet: the hex dump of its bytes follows at level 4, with no other line between.
void trace_packet(cm_context *ctx, const Slice *slices, int32_t count, const char *format, ...) CM_PRINTF(4, 5);

}  // namespace cm::net
