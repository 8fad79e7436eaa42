// Starting and stopping the network, and the host's own name and address.
//
// There is one network state in a process.  Its memory belongs to everybody who may still be inside: the start, the
// accept loop, each job, each thread that waits for a handle.  The last one to leave frees it, so that cm_net_exit,
// which waits only so long, never takes it from under a thread.
#include <string.h>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmthread.h"
#include "core/cmtpool.h"
#include "net/address.h"
#include "net/cmnet.h"
#include "net/ntp_hook.h"
#include "net/transport.h"

namespace cm::net {

const Transport *transport = nullptr;
cm_task_fn ntp_task = cm_ntp_cron;

namespace {

using platform::os;
using platform::Wake;

constexpr uint32_t kPoolBlockSize = 1024;
constexpr int32_t kMostOpenWithoutContext = 30;
constexpr uint32_t kReadTimeoutWithoutContext = 300;
constexpr size_t kNameSize = 256;
constexpr char kLoopbackText[] = "127.0.0.1";

constexpr char kAddressTask[] = "Dynamic IP Lookup";
// Kept as it is registered, though no clock ever reaches the sixtieth minute.
constexpr char kAddressTaskPeriod[] = "1-60/5 * * * *";
constexpr char kTimeTask[] = "NTP Synchronization";
constexpr int32_t kTaskOfLibrary = 101;  // origin of tasks that no configuration file names

constexpr int32_t kCancelMs = 1000, kCancelledMs = 500;
constexpr int32_t kStopTries = 4, kStopPauseMs = 100;
constexpr int64_t kLeaversGraceMs = 2000;
constexpr int32_t kPollMs = 5;

cm_net_state *the_state = nullptr;

void publish(cm_net_state *state) {
    __atomic_store_n(&the_state, state, __ATOMIC_RELEASE);
}

Wake wake_of(const cm_socket (&ends)[2]) {
    return {ends[0], ends[1]};
}

bool make_wake(cm_socket (&ends)[2]) {
    Wake wake;
    if (os.wake_create(&wake) != 0) return false;
    ends[0] = wake.read_end;
    ends[1] = wake.write_end;
    return true;
}

void destroy_wake(cm_socket (&ends)[2]) {
    Wake wake = wake_of(ends);
    if (wake.read_end != kNoSocket) os.wake_destroy(&wake);
}

// The state itself lies in the context's pool and goes with that.
void destroy(cm_net_state *state) {
    if (transport != nullptr && state->tls_locks != nullptr) transport->stop(state, false);
    destroy_wake(state->wake);
    destroy_wake(state->stop);
    if (state->table_mutex != nullptr) cm_delete_mutex(state->table_mutex);
    if (state->pool != nullptr) cm_mem_exit(state->pool);
    if (state->ctx == nullptr) os.release(state);
}

// From now on every operation fails at its next look, and the accept loop ends.
void stop_loop(cm_net_state *state) {
    store_relaxed(state->shutting_down, int16_t{1});
    const Wake wake = wake_of(state->wake);
    os.wake_set(&wake);
}

// The same, and every wait comes back to look.
void stop_operations(cm_net_state *state) {
    stop_loop(state);
    const Wake wake = wake_of(state->stop);
    os.wake_set(&wake);
}

// ---- name and address -----------------------------------------------------------------------------------------------

// With the table mutex, once threads are about.
bool store_name(cm_net_state *state, const char *name) {
    char *copy = nullptr;
    int32_t length = 0;
    if (cm_mem_savestr(state->pool, name, CM_LEN_TEXT, &copy, &length) == 0) return false;
    state->host_name = copy;
    state->host_name_len = length;
    return true;
}

void store_address(cm_net_state *state, uint32_t address) {
    store_relaxed(state->local_addr, address);
    format_dotted(address, state->local_text);
}

bool look_up(cm_context *ctx, const char *name, uint32_t *out_address) {
    if (cm_dns_gethostaddr(ctx, name, 0, 0, out_address, nullptr, nullptr, nullptr) != 0) return true;
    report(ctx, CM_WARN, "cm_dns_gethostaddr() failed for '%s'", name);
    return false;
}

void find_address(cm_net_state *state, const char *name) {
    cm_context *ctx = state->ctx;
    uint32_t address = 0;
    if (ctx != nullptr && ctx->bind_address_len > 0 && parse_dotted(ctx->bind_address, &address)) {
        store_address(state, address);
    } else if (look_up(ctx, name, &address)) {
        store_address(state, address);
        report(ctx, CM_INFO, "Network IP Address is %s", state->local_text);
    } else {
        store_address(state, state->loopback);
    }
}

void notice_name(cm_net_state *state, const char *name) {
    const MutexGuard lock(state->table_mutex);
    if (state->host_name != nullptr && strcmp(state->host_name, name) == 0) return;
    if (store_name(state, name)) report(state->ctx, CM_INFO, "cm_net_initip():  Hostname changed to '%s'", name);
}

void notice_address(cm_net_state *state, const char *name, uint32_t address) {
    const MutexGuard lock(state->table_mutex);
    if (address == state->local_addr) return;
    store_address(state, address);
    report(state->ctx, CM_INFO, "Network(%s):  IP Address changed to: %s", name, state->local_text);
}

int16_t CM_CALL address_task(cm_context *ctx, const char *name, cm_value argument) {
    return cm_net_initip(ctx);
}

// ---- start ----------------------------------------------------------------------------------------------------------

cm_net_state *create_state(cm_context *ctx) {
    void *memory =
        ctx != nullptr ? shared_allocate(ctx, sizeof(cm_net_state)) : os.allocate_zeroed(sizeof(cm_net_state));
    auto *state = static_cast<cm_net_state *>(memory);
    if (state == nullptr) return nullptr;
    memset(static_cast<void *>(state), 0, sizeof *state);
    state->ctx = ctx;
    state->users = 1;
    state->max_open = ctx != nullptr ? ctx->max_connections : kMostOpenWithoutContext;
    state->read_timeout = ctx != nullptr ? static_cast<uint32_t>(ctx->net_read_timeout) : kReadTimeoutWithoutContext;
    state->wake[0] = state->wake[1] = state->stop[0] = state->stop[1] = kNoSocket;
    parse_dotted(kLoopbackText, &state->loopback);
    return state;
}

// A start under way.  What it has made is undone unless it is finished.
class Start {
public:
    explicit Start(cm_context *ctx) : ctx_(ctx) {}
    ~Start() {
        if (finished_) return;
        if (started() == state_) publish(nullptr);
        if (address_task_) cm_cron_remove(ctx_, kAddressTask);
        if (state_ != nullptr) leave_state(state_);
        if (network_) os.network_stop();
    }
    Start(const Start &) = delete;
    Start &operator=(const Start &) = delete;

    bool begin() {
        const Error error = os.network_start();
        network_ = error == 0;
        if (!network_) report(ctx_, CM_FATAL, "WSAStartup(Version %d.%d) failed [%d]", 2, 2, error);
        return network_;
    }
    bool find_name() {
        const Error error = os.host_name(name_, sizeof name_);
        if (error == 0) return true;
        report(ctx_, CM_ERROR, "gethostname(%d): DNS lookup of '%s' failed.", error, name_);
        return false;
    }
    bool make_state() {
        state_ = create_state(ctx_);
        return state_ != nullptr && cm_mem_init(ctx_, &state_->pool, kPoolBlockSize) != 0 &&
               cm_create_mutex(ctx_, &state_->table_mutex) != 0 && make_wake(state_->wake) && make_wake(state_->stop) &&
               store_name(state_, name_);
    }
    bool register_address_task() {
        find_address(state_, name_);
        if (!context_flag(ctx_, CTX_DYNAMIC_IP_TEST)) return true;
        address_task_ = cm_cron_task(ctx_, kAddressTask, address_task, 0, kTaskOfLibrary, 0, kAddressTaskPeriod) != 0;
        return address_task_;
    }
    bool start_tls(bool wanted) {
        publish(state_);
        if (!wanted) return true;
        state_->tls = 1;
        return ctx_ != nullptr && transport != nullptr && transport->start(ctx_, state_);
    }
    // A period that does not parse has been reported and is no reason not to start.
    void register_time_task() {
        if (ctx_ == nullptr || ntp_task == nullptr) return;
        if (ctx_->ntp_server == nullptr || ctx_->ntp_server[0] == '\0') return;
        if (ctx_->ntp_cron == nullptr || ctx_->ntp_cron[0] == '\0') return;
        cm_cron_task(ctx_, kTimeTask, ntp_task, reinterpret_cast<cm_value>(state_), kTaskOfLibrary, 1, ctx_->ntp_cron);
    }
    cm_net_state *finish() {
        if (ctx_ != nullptr) ctx_->net_table = state_;
        finished_ = true;
        return state_;
    }

private:
    cm_context *const ctx_;
    cm_net_state *state_ = nullptr;
    bool network_ = false, address_task_ = false, finished_ = false;
    char name_[kNameSize] = "";
};

// ---- stop -----------------------------------------------------------------------------------------------------------

void stop_network() {
    for (int32_t tries = 1; os.network_stop() == CM_EINPROGRESS && tries < kStopTries; tries++) os.sleep(kStopPauseMs);
}

void wait_for_leavers(const cm_net_state *state) {
    const int64_t end = os.monotonic_ms() + kLeaversGraceMs;
    while (__atomic_load_n(&state->users, __ATOMIC_ACQUIRE) > 1 && os.monotonic_ms() < end) {
        os.sleep(kPollMs);
        os.thread_yield();
    }
}

}  // namespace

cm_net_state *started() {
    return __atomic_load_n(&the_state, __ATOMIC_ACQUIRE);
}

void count(cm_net_state *state, int32_t counter, int64_t amount) {
    if (context_flag(state->ctx, CTX_TRACE_PERF)) cm_perf(state->ctx, counter, static_cast<uint32_t>(amount));
}

void hold_state(cm_net_state *state) {
    __atomic_add_fetch(&state->users, 1, __ATOMIC_RELAXED);
}

void leave_state(cm_net_state *state) {
    if (__atomic_sub_fetch(&state->users, 1, __ATOMIC_ACQ_REL) == 0) destroy(state);
}

}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_init(cm_context *ctx, int16_t tls_wanted, cm_net_state **out_state) {
    using namespace cm::net;
    if (cm_net_state *running = started()) {
        if (out_state != nullptr) *out_state = running;
        return 1;
    }
    if (out_state != nullptr) *out_state = nullptr;
    cm::thread_pool::close_connection = cm_net_close;
    Start start(ctx);
    if (!start.begin() || !start.find_name() || !start.make_state() || !start.register_address_task() ||
        !start.start_tls(tls_wanted != 0))
        return 0;
    start.register_time_task();
    cm_net_state *state = start.finish();
    if (out_state != nullptr) *out_state = state;
    return 1;
}

CM_API int16_t CM_CALL cm_net_initip(cm_context *ctx) {
    using namespace cm::net;
    cm_net_state *state = ctx != nullptr ? ctx->net_table : started();
    if (state == nullptr || stopping(state)) return 0;
    char name[kNameSize] = "";
    const Error error = cm::platform::os.host_name(name, sizeof name);
    if (error != 0) {
        cm::report(ctx, CM_ERROR, "gethostname(%d) failed for '%s'", error, name);
        return 0;
    }
    notice_name(state, name);
    uint32_t address = 0;
    if (!look_up(ctx, name, &address)) return 0;
    notice_address(state, name, address);
    return 1;
}

CM_API int16_t CM_CALL cm_net_shutdown(cm_net_state *state) {
    if (state == nullptr) return 0;
    cm::net::stop_operations(state);
    return 1;
}

CM_API int16_t CM_CALL cm_net_cancel(cm_net_state *state) {
    using namespace cm::net;
    if (state == nullptr) return 0;
    stop_loop(state);
    cm::report(state->ctx, CM_INFO, "Pending network requests being cancelled...");
    cm::platform::os.sleep(kCancelMs);
    stop_operations(state);
    cm::platform::os.sleep(kCancelledMs);
    return 1;
}

CM_API int16_t CM_CALL cm_net_exit(cm_net_state *state) {
    using namespace cm::net;
    if (state == nullptr || started() != state) return 0;
    cm_context *ctx = state->ctx;
    publish(nullptr);
    stop_operations(state);
    cm::report(ctx, CM_INFO, "Closing with %ld open connections...",
               static_cast<long>(cm::load_relaxed(state->open_count)));
    cm::store_relaxed(state->exited, int32_t{1});
    for (const char *task : {kTimeTask, kAddressTask}) cm_cron_remove(ctx, task);
    close_all(state);
    wait_for_leavers(state);
    if (ctx != nullptr && ctx->net_table == state) ctx->net_table = nullptr;
    leave_state(state);
    stop_network();
    return 1;
}
