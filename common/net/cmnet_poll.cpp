// The accept loop.
//
// The thread that calls cm_net_poll waits for all listeners at once, takes what has come and hands it to a worker; the
// worker does whatever may take long (reverse look-up, TLS handshake) before the handler.  The loop's entries only ever
// grow: an entry is written before the count that covers it, so that the loop reads both without a lock.
#include "core/cmerror.h"
#include "core/cmthread.h"
#include "net/cmnet_accept.h"

namespace cm::net {
namespace {

using platform::kForever;
using platform::os;
using platform::WaitItem;
using platform::Wake;

constexpr int32_t kThreadsBesidePool = 2;
constexpr int32_t kPauseMs = 100;  // after an accept failure that another try would meet again

int32_t entry_count(const cm_net_state *state) {
    return __atomic_load_n(&state->listener_count, __ATOMIC_ACQUIRE);
}

// With the table mutex.
void append(cm_net_state *state, cm_poll_entry *entry) {
    const int32_t count = state->listener_count;
    state->slots[count] = entry;
    __atomic_store_n(&state->listener_count, count + 1, __ATOMIC_RELEASE);
}

void set_non_blocking(cm_net_state *state, cm_conn *listener) {
    if (listener == nullptr) return;
    const Call call(state, listener);
    if (call.socket() != kNoSocket) os.socket_set_blocking(call.socket(), false);
}

// Whether the listeners of a loop are in place, and the pool of its workers.
class Loop {
public:
    explicit Loop(cm_net_state *state) : state_(state), ctx_(state->ctx) {}
    Loop(const Loop &) = delete;
    Loop &operator=(const Loop &) = delete;

    bool begin(cm_poll_entry *entries, int32_t count);
    void run();
    void end();

private:
    bool stopped() const { return stopping(state_) || context_flag(ctx_, CTX_SHUTDOWN); }
    bool wait();
    void serve_ready();
    void hand_over(cm_poll_entry *entry, cm_conn *conn);
    void start_pool();

    cm_net_state *const state_;
    cm_context *const ctx_;
    cm_tpool *pool_ = nullptr;
    int32_t count_ = 0;
    WaitItem items_[CM_NET_MAX_LISTENERS + 1] = {};  // the wake-up object last
    uint32_t serials_[CM_NET_MAX_LISTENERS] = {};    // of the listeners when they were first seen
    int32_t seen_ = 0;
};

// The first thing a worker does for a connection that is not ready for its handler yet.
int16_t CM_CALL finish_and_serve(cm_context *ctx, cm_conn *conn, cm_thread *self, cm_value argument) {
    if (!finish_accept(conn->net, conn)) {
        mark_closed(conn);
        return 0;
    }
    return conn->entry->handler(ctx, conn, self, argument);
}

// A worker without a pool: the whole thread is one job.
int16_t CM_CALL serve_on_thread(cm_thread *self, cm_value argument) {
    auto *conn = reinterpret_cast<cm_conn *>(argument);
    cm_net_state *state = conn->net;
    const cm_poll_entry *entry = conn->entry;
    const uint32_t serial = load_relaxed(conn->serial);
    if (finish_accept(state, conn)) entry->handler(state->ctx, conn, self, entry->argument);
    if (load_relaxed(conn->serial) == serial) cm_net_close(state, conn, 1);
    return 1;
}

bool Loop::begin(cm_poll_entry *entries, int32_t count) {
    {
        const MutexGuard lock(state_->table_mutex);
        if (state_->entries != nullptr) return false;
        store_relaxed(state_->listener_count, 0);
        for (int32_t i = 0; i < count; i++) append(state_, &entries[i]);
        state_->entries = state_->slots;
    }
    start_pool();
    for (int32_t i = 0; i < count; i++) set_non_blocking(state_, entries[i].listener);
    return true;
}

void Loop::start_pool() {
    if (ctx_ == nullptr) return;
    int16_t made = 0;
    {
        const MutexGuard lock(state_->table_mutex);  // the pool takes its jobs from the state's memory
        made = cm_tpool_init(ctx_, state_, state_->pool, ctx_->max_threads - kThreadsBesidePool, &pool_);
    }
    if (made != 0) {
        report(ctx_, CM_TRACE, "Thread-pool initialized.");
        return;
    }
    pool_ = nullptr;
    report(ctx_, CM_ERROR, "Thread-pool initialization failed.");
    alert(ctx_, kPoolAlert, "Failure initializing thread pool.");
}

// False: the loop is over.  A listener that was closed, or whose handle is another connection by now, fails the wait as
// its descriptor would.
bool Loop::wait() {
    count_ = entry_count(state_);
    Error error = 0;
    for (int32_t i = 0; i < count_; i++) {
        const cm_conn *listener = state_->slots[i]->listener;
        const uint32_t serial = listener == nullptr ? 0 : load_relaxed(listener->serial);
        if (i >= seen_) serials_[i] = serial;
        const bool gone = listener == nullptr || serial != serials_[i];
        items_[i] = {gone ? kNoSocket : __atomic_load_n(listener->sock, __ATOMIC_ACQUIRE), false, false, false};
        if (items_[i].socket == kNoSocket) error = CM_ENOTSOCK;
    }
    seen_ = count_;
    items_[count_] = {state_->wake[0], false, false, false};
    int32_t ready = 0;
    if (error == 0) error = os.socket_wait(items_, count_ + 1, kForever, &ready);
    if (error == 0 && !stopped()) return true;
    store_relaxed(state_->shutting_down, int16_t{1});
    if (error != 0 && error != CM_EINTR && !context_flag(ctx_, CTX_SHUTDOWN))
        report(ctx_, CM_WARN, "Network select() failure!");
    return false;
}

// Once handed over the connection is the worker's, which may have closed it already.
void Loop::hand_over(cm_poll_entry *entry, cm_conn *conn) {
    conn->entry = entry;
    give_to_job(state_, conn);
    if (pool_ != nullptr) {
        const cm_job_fn job = conn->marks != 0 ? finish_and_serve : entry->handler;
        cm_tpool_exec(pool_, conn, entry->argument, entry->label, job);
        return;
    }
    if (cm_create_thread(ctx_, serve_on_thread, reinterpret_cast<cm_value>(conn), entry->label, nullptr) == 0)
        cm_net_close(state_, conn, 0);
}

// Whether the next try would fail the same way at once: out of descriptors or memory, not a client that has gone.
bool lasts(Error error) {
    return error != 0 && error != CM_EWOULDBLOCK && error != CM_ECONNABORTED && error != CM_ECONNRESET &&
           error != CM_EMSGSIZE && error != CM_EINTR;
}

void Loop::serve_ready() {
    for (int32_t i = 0; i < count_ && !stopping(state_); i++) {
        if (!items_[i].ready) continue;
        Error error = 0;
        cm_poll_entry *entry = state_->slots[i];
        if (cm_conn *conn = accept_one(state_, entry->listener, 0, true, &error))
            hand_over(entry, conn);
        else if (lasts(error) && !stopping(state_))
            os.sleep(kPauseMs);
    }
}

void Loop::run() {
    const Wake wake = {state_->wake[0], state_->wake[1]};
    while (!stopped() && wait()) {
        if (items_[count_].ready) os.wake_clear(&wake);
        serve_ready();
    }
    store_relaxed(state_->shutting_down, int16_t{1});
}

void Loop::end() {
    if (pool_ != nullptr) {
        cm_tpool_exit(pool_);
        report(ctx_, CM_TRACE, "Thread-pool exited.");
    }
    const MutexGuard lock(state_->table_mutex);
    state_->entries = nullptr;
    store_relaxed(state_->listener_count, 0);
}

}  // namespace
}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_poll(cm_net_state *state, cm_poll_entry *entries, int32_t count) {
    using namespace cm::net;
    if (state == nullptr || entries == nullptr || count < 1 || count > CM_NET_MAX_LISTENERS || stopping(state))
        return 0;
    hold_state(state);
    Loop loop(state);
    const bool begun = loop.begin(entries, count);
    if (begun) {
        loop.run();
        loop.end();
    }
    leave_state(state);
    return begun ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_polladd(cm_net_state *state, const cm_poll_entry *entry) {
    using namespace cm::net;
    if (state == nullptr || entry == nullptr || entry->listener == nullptr || stopping(state)) return 0;
    const cm::MutexGuard lock(state->table_mutex);
    if (state->entries == nullptr) return 0;
    const int32_t count = state->listener_count;
    for (int32_t i = 0; i < count; i++)
        if (state->slots[i]->listener == entry->listener) return 1;
    if (count >= CM_NET_MAX_LISTENERS) return 0;
    set_non_blocking(state, entry->listener);
    state->added[count] = *entry;
    append(state, &state->added[count]);
    const cm::platform::Wake wake = {state->wake[0], state->wake[1]};
    cm::platform::os.wake_set(&wake);
    return 1;
}
