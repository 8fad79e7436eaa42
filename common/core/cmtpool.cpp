// The thread pool: worker threads that run jobs, usually one accepted connection each.
//
// What the workers share outlives the pool's own record, which lies in the caller's memory pool: a worker that idles
// may find out that the pool is gone only after that memory went.  So workers reach the record through their Crew,
// which is counted: each worker holds it, the pool holds it, and the last one frees it with the lock and the event.
//
// Waking a thread costs far more than handing over a job.  At most one wake-up is under way at any time; the worker
// that it wakes takes a job and, when there are more, wakes the next worker itself.  A worker waits only after it saw
// an empty queue under the lock, and is counted as idle under the same lock, so no wake-up is lost.
#include "core/cmtpool.h"

#include "core/cmerror.h"
#include "core/cmthread.h"
#include "core/relaxed.h"
#include "platform/platform.h"

namespace cm::thread_pool {

CloseConnection close_connection = nullptr;

namespace {

using platform::Event;
using platform::os;

constexpr int kPoolSizeInMessage = 48;  // part of the text
constexpr int32_t kJobs = 500;
constexpr int32_t kSpareWorkers = 3;  // with fewer idle ones than that another worker is started
constexpr int32_t kRow = 2;           // jobs in one go after which more are expected at once
constexpr int32_t kLastJobNumber = 999999;
constexpr int64_t kSubmitterGraceMs = 2000;
constexpr const char *kIdleLabel = "IDLE-Worker";

// All guarded by `lock`, which also guards the pool's record.
struct Crew {
    cm_mutex *lock;
    Event *wake;
    cm_context *ctx;
    cm_net_state *net;
    cm_tpool *pool;
    int32_t holders;  // workers, and the pool until it is closed
    int32_t idle;     // workers in a wait
    bool waking;      // a wake-up is under way
    bool lingering;   // a worker is about to look at the queue once more
    bool closed;      // idle workers leave, and are no longer counted in the pool's record
};

void destroy(Crew *crew) {
    if (crew->wake != nullptr) os.event_destroy(crew->wake);
    cm_delete_mutex(crew->lock);
    os.release(crew);
}

Crew *create_crew(cm_context *ctx, cm_net_state *net, cm_tpool *pool) {
    auto *crew = static_cast<Crew *>(os.allocate_zeroed(sizeof(Crew)));
    if (crew == nullptr) {
        report(ctx, CM_ERROR, "cm_tpool_init(): MALLOC() of %d bytes failed.", kPoolSizeInMessage);
        return nullptr;
    }
    crew->wake = os.event_create();
    if (crew->wake == nullptr || cm_create_mutex(ctx, &crew->lock) == 0) {
        destroy(crew);
        return nullptr;
    }
    crew->ctx = ctx;
    crew->net = net;
    crew->pool = pool;
    crew->holders = 1;
    return crew;
}

// Gives up one hold and the lock, which the caller has.
void leave(Crew *crew) {
    const bool last = --crew->holders == 0;
    cm_release_mutex(crew->lock);
    if (last) destroy(crew);
}

bool shutting_down(const Crew *crew) {
    return crew->closed || (load_relaxed(crew->ctx->flags) & CTX_SHUTDOWN) != 0;
}

// True: the caller sets the event, best after it gave up the lock.
bool claim_wake_up(Crew *crew) {
    if (crew->waking || crew->idle == 0) return false;
    crew->waking = true;
    return true;
}

// A job owns its connection from the call of cm_tpool_exec on.  A function that closed it all the same has given the
// handle back, maybe to another client: then its serial number has moved on.
void close_for(cm_net_state *net, const cm_job &job, int16_t graceful) {
    const CloseConnection function = load_relaxed(close_connection);
    if (function == nullptr || job.connection == nullptr || load_relaxed(job.connection->serial) != job.serial) return;
    function(net, job.connection, graceful);
}

void set_label(cm_thread *self, const char *label, cm_conn *connection) {
    store_relaxed(self->label, label);
    store_relaxed(self->argument, reinterpret_cast<cm_value>(connection));
}

// ---- queue ----------------------------------------------------------------------------------------------------------

cm_job *first_job(cm_tpool *pool) {
    cm_job *job = pool->queue_head;
    if (job == nullptr) return nullptr;
    pool->queue_head = job->next;
    if (pool->queue_head == nullptr) pool->queue_tail = nullptr;
    job->next = nullptr;
    return job;
}

void append_job(cm_tpool *pool, cm_job *job) {
    if (pool->queue_tail != nullptr)
        pool->queue_tail->next = job;
    else
        pool->queue_head = job;
    pool->queue_tail = job;
}

void spare_job(cm_tpool *pool, cm_job *job) {
    job->next = pool->job_spare;
    pool->job_spare = job;
}

// Kept: a job without a connection or with an argument of 0 never runs, and its record is not used again.
bool runs(const cm_job *job) {
    return job->connection != nullptr && job->argument != 0 && job->function != nullptr;
}

// Takes the first job that runs.  The lock is given up for a moment while a dropped job's connection is closed.
cm_job *take_job(Crew *crew) {
    while (cm_job *job = first_job(crew->pool)) {
        if (runs(job)) return job;
        cm_release_mutex(crew->lock);
        close_for(crew->net, *job, 0);
        cm_take_mutex(crew->lock);
        if (shutting_down(crew)) break;
    }
    return nullptr;
}

// ---- workers --------------------------------------------------------------------------------------------------------

// After the pool was closed its record, which lies in memory of the network's, is only sure to be there as long as the
// connection of a job is open.  So a worker counts itself out before it closes that.
void count_out_if_closed(Crew *crew) {
    const MutexGuard guard(crew->lock);
    if (!crew->closed) return;
    add_relaxed(crew->pool->busy, -1);
    add_relaxed(crew->pool->workers, -1);
}

void run_job(Crew *crew, cm_thread *self, const cm_job &job) {
    set_label(self, job.label, job.connection);
    store_relaxed(self->jobs, self->jobs >= kLastJobNumber ? 1 : self->jobs + 1);
    job.function(crew->ctx, job.connection, self, job.argument);
    if ((load_relaxed(crew->ctx->flags) & CTX_SHUTDOWN) != 0) count_out_if_closed(crew);
    close_for(crew->net, job, 1);
    set_label(self, kIdleLabel, nullptr);
}

enum class After { kIdle, kIdleAfterRow, kLeave, kTooMany };

// Runs that job and those that wait after it.  Called with the lock, comes back with it.
After run_jobs(Crew *crew, cm_thread *self, cm_job *job) {
    cm_tpool *pool = crew->pool;
    const int32_t busy = add_relaxed(pool->busy, 1);
    if (busy > pool->busy_peak) store_relaxed(pool->busy_peak, busy);
    int32_t row = 0;
    for (; job != nullptr; row++) {
        const bool wake_next = pool->queue_head != nullptr && claim_wake_up(crew);
        cm_release_mutex(crew->lock);
        if (wake_next) os.event_set(crew->wake);
        run_job(crew, self, *job);
        cm_take_mutex(crew->lock);
        if (crew->closed) return After::kLeave;
        if (shutting_down(crew)) break;
        spare_job(pool, job);
        job = take_job(crew);
    }
    const bool too_many = add_relaxed(pool->busy, -1) < pool->workers - crew->ctx->idle_threads;
    if (!too_many && !shutting_down(crew)) return row < kRow ? After::kIdle : After::kIdleAfterRow;
    add_relaxed(pool->workers, -1);
    return shutting_down(crew) ? After::kLeave : After::kTooMany;
}

// Lets others run for a moment.  While jobs come one upon the other, one of them will have come then, and neither the
// wait nor its end has to go through the system.  Called with the lock, comes back with it.
void linger(Crew *crew) {
    if (crew->lingering) return;
    crew->lingering = true;
    cm_release_mutex(crew->lock);
    os.thread_yield();
    cm_take_mutex(crew->lock);
    crew->lingering = false;
}

// False: the thread was asked to end.  A wake-up that it may have used up is passed on.
bool await_wake_up(Crew *crew) {
    crew->idle++;
    cm_release_mutex(crew->lock);
    const bool woken = os.event_wait(crew->wake, platform::kForever);
    cm_take_mutex(crew->lock);
    crew->idle--;
    if (woken)
        crew->waking = false;
    else if (crew->waking)
        os.event_set(crew->wake);
    return woken;
}

// Ends an idle worker and, at shut-down, lets the next one find out.  Called with the lock, which it gives up.
int16_t end_idle(Crew *crew, int16_t result) {
    if (!crew->closed) add_relaxed(crew->pool->workers, -1);
    if (shutting_down(crew) && claim_wake_up(crew)) os.event_set(crew->wake);
    leave(crew);
    return result;
}

int16_t CM_CALL work(cm_thread *self, cm_value argument) {
    auto *crew = reinterpret_cast<Crew *>(argument);
    cm_context *ctx = crew->ctx;
    set_label(self, kIdleLabel, nullptr);
    cm_take_mutex(crew->lock);
    for (;;) {
        if (shutting_down(crew)) return end_idle(crew, 1);
        if (cm_job *job = take_job(crew)) {
            const After after = run_jobs(crew, self, job);
            if (after == After::kIdleAfterRow) linger(crew);
            if (after == After::kIdle || after == After::kIdleAfterRow) continue;
            leave(crew);
            if (after == After::kTooMany) report(ctx, CM_TRACE, "Thread-Pool Worker terminating...");
            return 1;
        }
        if (shutting_down(crew)) continue;
        if (!await_wake_up(crew)) return end_idle(crew, 0);
    }
}

// With the lock.
bool start_worker(Crew *crew) {
    if (cm_create_thread(crew->ctx, work, reinterpret_cast<cm_value>(crew), kIdleLabel, nullptr) == 0) return false;
    crew->holders++;
    add_relaxed(crew->pool->workers, 1);
    return true;
}

// ---- the pool -------------------------------------------------------------------------------------------------------

// Counts a submitter in, so that closing the pool does not take the lock away from under it.  The order matters and is
// the same for all threads: count first, then look for the lock; take the lock away first, then look at the count.
class Submitter {
public:
    explicit Submitter(cm_tpool *pool) : pool_(pool) {
        __atomic_add_fetch(&pool->submitters, 1, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(&pool->lock, __ATOMIC_SEQ_CST) != nullptr) crew_ = static_cast<Crew *>(pool->crew);
    }
    ~Submitter() { __atomic_sub_fetch(&pool_->submitters, 1, __ATOMIC_RELEASE); }
    Submitter(const Submitter &) = delete;
    Submitter &operator=(const Submitter &) = delete;

    Crew *crew() const { return crew_; }

private:
    cm_tpool *pool_;
    Crew *crew_ = nullptr;
};

bool submitters_left(const cm_tpool *pool) {
    const int64_t deadline_ms = os.monotonic_ms() + kSubmitterGraceMs;
    while (__atomic_load_n(&pool->submitters, __ATOMIC_SEQ_CST) != 0) {
        if (os.monotonic_ms() > deadline_ms) return false;
        os.thread_yield();
    }
    return true;
}

bool add_jobs(cm_tpool *pool) {
    for (int32_t i = 0; i < kJobs; i++) {
        auto *job = static_cast<cm_job *>(cm_mem_alloc(pool->pool, sizeof(cm_job)));
        if (job == nullptr) return false;
        spare_job(pool, job);
    }
    return true;
}

bool start_crew(cm_tpool *pool) {
    Crew *crew = create_crew(pool->ctx, pool->net, pool);
    if (crew == nullptr) return false;
    pool->crew = crew;
    pool->wake = crew->wake;
    pool->lock = crew->lock;
    const MutexGuard guard(crew->lock);
    for (int32_t i = 0; i < pool->ctx->idle_threads; i++)
        if (!start_worker(crew)) return false;
    return true;
}

// Sends idle workers away; busy ones leave after their job.  Jobs that wait are never run: their connections are
// closed.
void close_pool(cm_tpool *pool) {
    if (__atomic_exchange_n(&pool->lock, nullptr, __ATOMIC_SEQ_CST) == nullptr) return;
    pool->wake = nullptr;
    auto *crew = static_cast<Crew *>(pool->crew);
    // A submitter that was stopped for good keeps the crew: it is not freed then.
    const bool may_free = submitters_left(pool);
    cm_take_mutex(crew->lock);
    crew->closed = true;
    store_relaxed(pool->workers, pool->busy);
    if (claim_wake_up(crew)) os.event_set(crew->wake);
    cm_net_state *net = crew->net;
    cm_job *job = pool->queue_head;
    pool->queue_head = pool->queue_tail = nullptr;
    pool->crew = nullptr;
    if (may_free)
        leave(crew);
    else
        cm_release_mutex(crew->lock);
    while (job != nullptr) {
        const cm_job *dropped = job;
        job = job->next;
        close_for(net, *dropped, 0);
    }
}

struct Queued {
    bool queued = false;
    bool new_worker = false;
    bool wake = false;
};

// With the lock.
Queued queue_job(Crew *crew, const cm_job &request) {
    Queued done;
    cm_tpool *pool = crew->pool;
    if (pool->workers == 0 || crew->closed) return done;
    const bool short_of_workers = pool->busy >= pool->workers - kSpareWorkers && pool->workers < pool->max_workers;
    done.new_worker = short_of_workers && !shutting_down(crew) && start_worker(crew);
    cm_job *job = pool->job_spare;
    if (job == nullptr) return done;
    pool->job_spare = job->next;
    *job = request;
    const bool first = pool->queue_head == nullptr;
    append_job(pool, job);
    done.queued = true;
    done.wake = !(first && crew->lingering) && claim_wake_up(crew);
    return done;
}

Queued submit(cm_tpool *pool, const cm_job &request) {
    const Submitter submitter(pool);
    Crew *crew = submitter.crew();
    if (crew == nullptr) return {};
    cm_take_mutex(crew->lock);
    const Queued done = queue_job(crew, request);
    cm_release_mutex(crew->lock);
    if (done.wake) os.event_set(crew->wake);
    return done;
}

}  // namespace
}  // namespace cm::thread_pool

using namespace cm;
using namespace cm::thread_pool;

int16_t cm_tpool_init(cm_context *ctx, cm_net_state *net, cm_mem_pool *pool, int32_t max_workers,
                      cm_tpool **out_tpool) {
    if (out_tpool == nullptr) return 0;
    *out_tpool = nullptr;
    if (ctx == nullptr || pool == nullptr) return 0;
    auto *tpool = static_cast<cm_tpool *>(cm_mem_alloc(pool, sizeof(cm_tpool)));
    if (tpool == nullptr) {
        report(ctx, CM_ERROR, "cm_tpool_init(): MALLOC() of %d bytes failed.", kPoolSizeInMessage);
        return 0;
    }
    *tpool = {};
    tpool->ctx = ctx;
    tpool->pool = pool;
    tpool->net = net;
    tpool->max_workers = max_workers;
    if (!add_jobs(tpool) || !start_crew(tpool)) {
        // The context's shut-down flag stays as it is: the rest of the server goes on without a pool.
        close_pool(tpool);
        return 0;
    }
    *out_tpool = tpool;
    return 1;
}

int16_t cm_tpool_exec(cm_tpool *tpool, cm_conn *connection, cm_value argument, const char *label, cm_job_fn function) {
    if (tpool == nullptr) return 0;
    const uint32_t serial = connection == nullptr ? 0 : load_relaxed(connection->serial);
    const cm_job request = {nullptr, argument, connection, label, function, serial};
    const Queued done = submit(tpool, request);
    if (done.new_worker) report(tpool->ctx, CM_TRACE, "Thread-Pool Worker spawned...");
    if (!done.queued) close_for(tpool->net, request, 0);
    return done.queued;
}

int16_t cm_tpool_exit(cm_tpool *tpool) {
    if (tpool == nullptr) return 0;
    set_bits_relaxed(tpool->ctx->flags, uint32_t{CTX_SHUTDOWN});
    close_pool(tpool);
    return 1;
}
