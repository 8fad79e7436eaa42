// The connection table: handing handles out and taking them back.
//
// A handle is on the in-use list from its hand-out to its close, and on the free list until the next one; its memory is
// never given back while the network runs, nor is its socket cell ever another handle's.  A forced close takes it off
// the in-use list but keeps it from the free list until its owner has closed it too: the owner still has the pointer,
// and may not find another client's connection behind it.
#include <string.h>

#include "core/cmerror.h"
#include "core/cmthread.h"
#include "net/cmnet.h"
#include "net/cmnetbody.h"
#include "net/dialup_hook.h"
#include "net/transport.h"

namespace cm::net {

const Dialup *dialup = nullptr;

namespace {

using platform::os;
using platform::SocketOption;
using platform::WaitItem;

constexpr int32_t kFullStepMs = 1000;
constexpr int64_t kCallsGraceMs = 1000;   // for calls inside a handle that is being closed
constexpr int64_t kOwnersGraceMs = 6000;  // for owners that are closing: linger takes up to five seconds
constexpr int32_t kPollMs = 5;            // grain of both
constexpr int32_t kQuietMs = 1000;        // a peer that is silent that long has said everything
constexpr int64_t kDrainMs = 30000;       // limits for a peer that never falls silent
constexpr size_t kDrainBytes = 1 << 20;

// Of `phase`.  Leaving kOpen is one atomic step, which decides who closes; all others happen under the table mutex.
enum Phase : int32_t {
    kFree,
    kOpen = kOpenPhase,
    kClosing,
    kForcing,      // closed by force
    kForcingLeft,  // the same, and the owner has closed it meanwhile
    kForced        // off the list, its owner has yet to close it
};

bool claim(cm_conn *conn, Phase phase) {
    int32_t expected = kOpen;
    return __atomic_compare_exchange_n(&conn->phase, &expected, phase, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

void set_phase(cm_conn *conn, Phase phase) {
    __atomic_store_n(&conn->phase, phase, __ATOMIC_RELEASE);
}

cm_socket take_socket(cm_conn *conn) {
    return __atomic_exchange_n(conn->sock, kNoSocket, __ATOMIC_SEQ_CST);
}

// ---- the lists, under the table mutex -------------------------------------------------------------------------------

void link(cm_net_state *state, cm_conn *conn) {
    conn->next = state->in_use;
    conn->link = &state->in_use;
    if (conn->next != nullptr) conn->next->link = &conn->next;
    state->in_use = conn;
    add_relaxed(state->open_count, 1);
}

void unlink(cm_net_state *state, cm_conn *conn) {
    if (conn->link == nullptr) return;
    *conn->link = conn->next;
    if (conn->next != nullptr) conn->next->link = conn->link;
    conn->next = nullptr;
    conn->link = nullptr;
    add_relaxed(state->open_count, -1);
}

void push_free(cm_net_state *state, cm_conn *conn) {
    set_phase(conn, kFree);
    conn->next = state->free_list;
    state->free_list = conn;
}

cm_conn *allocate(cm_net_state *state) {
    auto *cell = static_cast<cm_socket *>(cm_mem_alloc(state->pool, sizeof(cm_socket)));
    auto *conn = cell == nullptr ? nullptr : static_cast<cm_conn *>(cm_mem_alloc(state->pool, sizeof(cm_conn)));
    if (conn == nullptr) return nullptr;
    conn->sock = cell;
    conn->net = state;
    return conn;
}

// The big buffers are left to clear_buffers, outside the mutex.  What a stale copy of the pointer may still count or
// compare, `in_call` and `serial`, goes on from where it is.
void clear_fields(cm_conn *conn) {
    cm_socket *cell = conn->sock;
    memset(static_cast<void *>(conn), 0, offsetof(cm_conn, in_buf));
    conn->sock = cell;
    conn->link = nullptr;
    conn->job = 0;
    conn->marks = 0;
    conn->parting = kNoSocket;
    add_relaxed(conn->serial, 1u);
}

void clear_buffers(cm_conn *conn) {
    memset(conn->in_buf, 0, offsetof(cm_conn, out_buf) + sizeof conn->out_buf - offsetof(cm_conn, in_buf));
}

cm_conn *enter_next(cm_net_state *state, uint32_t read_timeout_s) {
    cm_conn *conn = state->free_list;
    if (conn != nullptr)
        state->free_list = conn->next;
    else
        conn = allocate(state);
    if (conn == nullptr) return nullptr;
    clear_fields(conn);
    __atomic_store_n(conn->sock, kNoSocket, __ATOMIC_SEQ_CST);
    conn->read_timeout = read_timeout_s;
    set_phase(conn, kOpen);
    link(state, conn);
    return conn;
}

// Gives the mutex up while it sleeps.  Kept: only a handle that comes free ends the wait, whatever else is going on;
// cm_net_exit, which frees them all, is the one thing that it must notice.
bool wait_for_room(cm_net_state *state) {
    bool go_on = true;
    while (go_on && state->open_count >= state->max_open) {
        cm_release_mutex(state->table_mutex);
        go_on = os.sleep(kFullStepMs);
        cm_take_mutex(state->table_mutex);
        go_on = go_on && load_relaxed(state->exited) == 0;
    }
    return go_on;
}

// ---- giving up what a handle holds ----------------------------------------------------------------------------------

// Reads off what the peer still sends, so that its last bytes do not turn the close into a reset that would take our
// last bytes from it.
void drain(cm_net_state *state, cm_socket socket) {
    char scrap[255];
    size_t total = 0;
    const int64_t end = os.monotonic_ms() + kDrainMs;
    while (!stopping(state) && total < kDrainBytes && os.monotonic_ms() < end) {
        WaitItem items[] = {{socket, false, false, false}, {state->stop[0], false, false, false}};
        int32_t ready = 0;
        size_t got = 0;
        if (os.socket_wait(items, 2, kQuietMs, &ready) != 0 || !items[0].ready) return;
        if (os.socket_receive(socket, scrap, sizeof scrap, true, &got) != 0 || got == 0) return;
        total += got;
    }
}

// A close that lingers waits for the peer's word on our end of the stream too, a round trip and two thread switches.
// Once all bytes are confirmed there is nothing left that the linger could save.
void end_needless_linger(const cm_conn *conn, cm_socket socket) {
    const bool lingers = (conn->marks & kListener) == 0 && !has_flag(conn, CM_CONN_DATAGRAM);
    if (lingers && os.socket_all_confirmed(socket)) os.socket_option(socket, SocketOption::kLinger, -1);
}

// Ends everything that the handle holds.  No call is inside it.
void dismantle(cm_net_state *state, cm_conn *conn, cm_socket socket, bool drain_first) {
    if (has_flag(conn, CM_CONN_DIALED) && dialup != nullptr) dialup->hang_up(state->ctx);
    release_body(conn);
    if (has_flag(conn, CM_CONN_TLS)) {
        clear_bits_relaxed(conn->flags, uint32_t{CM_CONN_TLS});
        if (conn->ssl != nullptr && transport != nullptr) transport->close(state, conn);
        conn->ssl = nullptr;
    }
    if (conn->file != nullptr) {
        cm_fclose(conn->file);
        conn->file = nullptr;
    }
    if (socket != kNoSocket) {
        if (drain_first) drain(state, socket);
        if (context_flag(state->ctx, CTX_LINGER_CLOSE)) end_needless_linger(conn, socket);
        if (!has_flag(conn, CM_CONN_DATAGRAM)) os.socket_shutdown(socket);
        os.socket_close(socket);
    }
    if (conn->local_port != 0 && opens_traced(state))
        trace(state->ctx, "CLOSE [%ld] -> %s:%ld\n", static_cast<long>(conn->local_port), conn->peer_text,
              static_cast<long>(conn->peer_port));
    mark_closed(conn);
}

// Off the in-use list; to the free list unless its owner still has to close it.
void settle(cm_net_state *state, cm_conn *conn) {
    const MutexGuard lock(state->table_mutex);
    unlink(state, conn);
    if (load_relaxed(conn->phase) == kForcing)
        set_phase(conn, kForced);
    else
        push_free(state, conn);
}

bool calls_left(const cm_conn *conn, int64_t deadline) {
    while (__atomic_load_n(&conn->in_call, __ATOMIC_SEQ_CST) != 0) {
        if (os.monotonic_ms() >= deadline) return true;
        os.sleep(kPollMs);
        os.thread_yield();
    }
    return false;
}

// The close of a handle that the caller has claimed.  Calls of other threads get until `deadline`.
void close_claimed(cm_net_state *state, cm_conn *conn, bool drain_first, int64_t grace_ms) {
    const cm_socket socket = take_socket(conn);
    if (__atomic_load_n(&conn->in_call, __ATOMIC_SEQ_CST) != 0) {
        mark_closed(conn);
        if (socket != kNoSocket) os.socket_shutdown(socket);
        if (calls_left(conn, os.monotonic_ms() + grace_ms)) return Call::abandon(state, conn, socket);
    }
    dismantle(state, conn, socket, drain_first);
    settle(state, conn);
}

// A close by its owner of what is closed already, by force or before.
void close_again(cm_net_state *state, cm_conn *conn) {
    const MutexGuard lock(state->table_mutex);
    switch (load_relaxed(conn->phase)) {
        case kForcing:
            return set_phase(conn, kForcingLeft);
        case kForced:
            return push_free(state, conn);
        default:
            return;
    }
}

// ---- forced close ---------------------------------------------------------------------------------------------------

// Ends every connection on the wire at once, so that all calls that wait for them come back together.
void shut_down_all(cm_net_state *state) {
    const MutexGuard lock(state->table_mutex);
    for (cm_conn *conn = state->in_use; conn != nullptr; conn = conn->next) {
        if (load_relaxed(conn->phase) != kOpen) continue;
        const Call call(state, conn);
        if (call.socket() == kNoSocket) continue;
        mark_closed(conn);
        os.socket_option(call.socket(), SocketOption::kLinger, -1);  // or each peer that is stuck holds us up
        os.socket_shutdown(call.socket());
    }
}

// The newest handle that nobody is closing, claimed; null without one.
cm_conn *claim_first(cm_net_state *state, bool *out_empty) {
    const MutexGuard lock(state->table_mutex);
    *out_empty = state->in_use == nullptr;
    for (cm_conn *conn = state->in_use; conn != nullptr; conn = conn->next)
        if (claim(conn, kForcing)) return conn;
    return nullptr;
}

}  // namespace

void Call::abandon(cm_net_state *state, cm_conn *conn, cm_socket socket) {
    {
        const MutexGuard lock(state->table_mutex);
        unlink(state, conn);
    }
    hold_state(state);
    conn->parting = socket;
    // They may all have left just now, so this is a call as well, and may be the last.
    __atomic_add_fetch(&conn->in_call, 1, __ATOMIC_SEQ_CST);
    __atomic_fetch_or(&conn->in_call, kAbandoned, __ATOMIC_SEQ_CST);
    leave(state, conn);
}

void Call::finish_abandoned(cm_net_state *state, cm_conn *conn) {
    int32_t expected = kAbandoned;  // a stale caller may have come and gone meanwhile: one of us finishes
    if (!__atomic_compare_exchange_n(&conn->in_call, &expected, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return;
    dismantle(state, conn, conn->parting, false);
    settle(state, conn);
    leave_state(state);
}

void close_all(cm_net_state *state) {
    shut_down_all(state);
    const int64_t calls_end = os.monotonic_ms() + kCallsGraceMs, owners_end = os.monotonic_ms() + kOwnersGraceMs;
    for (bool empty = false; !empty;) {
        if (cm_conn *conn = claim_first(state, &empty)) {
            const int64_t left = calls_end - os.monotonic_ms();
            close_claimed(state, conn, false, left > 0 ? left : 0);
        } else if (!empty) {
            if (os.monotonic_ms() >= owners_end) return;
            os.sleep(kPollMs);
        }
    }
}

bool give_socket(cm_conn *conn, cm_socket socket) {
    __atomic_store_n(conn->sock, socket, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&conn->phase, __ATOMIC_SEQ_CST) == kOpen) return true;
    const cm_socket back = take_socket(conn);  // none: whoever closes the handle has it
    if (back != kNoSocket) os.socket_close(back);
    return false;
}

cm_conn *take_handle(cm_net_state *state, uint32_t read_timeout_s, bool counted) {
    if (stopping(state)) return nullptr;
    bool full = false;
    cm_conn *conn = nullptr;
    {
        const MutexGuard lock(state->table_mutex);
        full = state->open_count >= state->max_open;
        if (full) hold_state(state);
        if (!full || wait_for_room(state)) conn = enter_next(state, read_timeout_s);
    }
    if (full) leave_state(state);
    if (conn == nullptr) return nullptr;
    clear_buffers(conn);
    if (counted) count(state, 0, 1);
    return conn;
}

cm_conn *take_handle(cm_net_state *state, uint32_t read_timeout_s, bool counted, const char *word) {
    cm_conn *conn = take_handle(state, read_timeout_s, counted);
    if (conn == nullptr) alert(state->ctx, word, "No connection handles available.");
    return conn;
}

void give_to_job(cm_net_state *state, cm_conn *conn) {
    hold_state(state);
    __atomic_store_n(&conn->job, 1, __ATOMIC_RELEASE);
}

}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_close(cm_net_state *state, cm_conn *conn, int16_t graceful) {
    using namespace cm;
    using namespace cm::net;
    if (conn == nullptr) return 1;
    if (state == nullptr) return 0;
    const bool job = __atomic_exchange_n(&conn->job, 0, __ATOMIC_ACQ_REL) != 0;
    if (claim(conn, kClosing)) {
        const bool drain_first =
            graceful != 0 && !has_flag(conn, CM_CONN_CLOSED) && !context_flag(state->ctx, CTX_LINGER_CLOSE);
        close_claimed(state, conn, drain_first, kCallsGraceMs);
    } else {
        close_again(state, conn);
    }
    if (job) leave_state(state);
    return 1;
}

CM_API int16_t CM_CALL cm_net_closeall(cm_net_state *state) {
    if (state == nullptr) return 0;
    cm::report(state->ctx, CM_TRACE, "Forced closing of all network connections...");
    cm::net::close_all(state);
    return 1;
}
