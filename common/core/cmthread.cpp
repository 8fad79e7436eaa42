// Threads and the thread table.
//
// A thread's record is in the context's table while the thread runs and on the list of spare records afterwards; both,
// and the serial numbers, are guarded by `thread_mutex`.  Whoever ends a thread from outside takes its record over by
// setting the record's state under that mutex; the thread, on its own way out, then leaves everything to him.  A record
// without a context has no mutex: there the state alone says who frees it.
//
// No thread is cut off in the middle of something.  It is asked first, which brings each of its waits in the library
// back at once; then it gets a moment to leave; only then it is stopped for good, outside library locks.
#include "core/cmthread.h"

#include <atomic>

#include "core/cmerror.h"
#include "core/relaxed.h"
#include "platform/platform.h"

namespace cm::thread {
namespace {

using platform::os;
using platform::Thread;

// The sizes that messages name are part of their text.
constexpr int kRecordSizeInMessage = 36, kCellSizeInMessage = 4;
constexpr int32_t kFirstSerialNotUsed = 999999;
constexpr int64_t kGraceMs = 2000;  // for threads that were asked to end
constexpr int32_t kWaitRounds = 45;

enum State : int32_t {
    kStarting,  // not known to its creator yet
    kRunning,
    kTaken,  // somebody ends it from outside and owns the record
    kLeft,   // the same, and the thread has passed its own way out
    kEnded   // on the spare list, or free to go
};

Thread *thread_of(const cm_thread *record) {
    return reinterpret_cast<Thread *>(*record->handle);
}

std::atomic_ref<int32_t> state_of(cm_thread *record) {
    return std::atomic_ref<int32_t>(record->state);
}

void free_record(cm_thread *record) {
    os.release(record->handle);
    os.release(record);
}

cm_thread *allocate_record(cm_context *ctx) {
    auto *record = static_cast<cm_thread *>(os.allocate_zeroed(sizeof(cm_thread)));
    if (record == nullptr) {
        report(ctx, CM_ERROR, "cm_create_thread(): MALLOC() of %d bytes failed.", kRecordSizeInMessage);
        return nullptr;
    }
    record->handle = static_cast<cm_value *>(os.allocate_zeroed(sizeof(cm_value)));
    if (record->handle == nullptr) {
        report(ctx, CM_ERROR, "cm_create_thread(): MALLOC() of %d bytes failed.", kCellSizeInMessage);
        os.release(record);
        return nullptr;
    }
    record->table_key = reinterpret_cast<cm_value>(record->handle);
    return record;
}

// Everything between here and enter_spare needs `thread_mutex`.

// A spare record is taken whatever the limit says: kept, since its thread has been counted before.
cm_thread *obtain_record(cm_context *ctx) {
    cm_thread *record = ctx->thread_spare;
    if (record != nullptr) {
        ctx->thread_spare = record->next;
        record->next = nullptr;
        return record;
    }
    if (ctx->thread_table->entries >= ctx->max_threads) {
        report(ctx, CM_ERROR, "Maximum number of threads exceeded (%d).", ctx->max_threads);
        return nullptr;
    }
    return allocate_record(ctx);
}

int32_t next_serial(cm_context *ctx) {
    const int32_t serial = ctx->thread_serial;
    ctx->thread_serial = serial + 1 >= kFirstSerialNotUsed ? 0 : serial + 1;
    return serial;
}

int16_t enter_table(cm_context *ctx, const cm_thread *record, cm_value value) {
    return cm_hash_entry(ctx->thread_table, CM_OP_SET, &record->table_key, sizeof record->table_key, value);
}

void leave_table(cm_context *ctx, const cm_thread *record) {
    cm_hash_entry(ctx->thread_table, CM_OP_DELETE, &record->table_key, sizeof record->table_key, 0);
}

void enter_spare(cm_context *ctx, cm_thread *record) {
    leave_table(ctx, record);
    os.thread_release(thread_of(record));
    *record->handle = 0;
    record->state = kEnded;
    record->next = ctx->thread_spare;
    ctx->thread_spare = record;
}

// ---- the way in and the way out -------------------------------------------------------------------------------------

void finish_recorded(cm_thread *record) {
    cm_context *ctx = record->ctx;
    const MutexGuard guard(ctx->thread_mutex);
    if (record->state == kTaken)
        record->state = kLeft;
    else
        enter_spare(ctx, record);
}

void discard(cm_thread *record) {
    os.thread_release(thread_of(record));
    free_record(record);
}

// True: the state was `from` and is `to` now.
bool change_state(cm_thread *record, State from, State to) {
    int32_t expected = from;
    return state_of(record).compare_exchange_strong(expected, to, std::memory_order_acq_rel, std::memory_order_acquire);
}

// Whoever comes last frees the record: the creator, which still stores the handle, the thread, or who took it over.
void finish_unrecorded(cm_thread *record) {
    if (change_state(record, kStarting, kEnded)) return;
    if (state_of(record).exchange(kLeft, std::memory_order_acq_rel) == kRunning) discard(record);
}

void run(void *argument) {
    auto *record = static_cast<cm_thread *>(argument);
    record->function(record, record->argument);
    if (record->ctx != nullptr)
        finish_recorded(record);
    else
        finish_unrecorded(record);
}

bool start(cm_thread *record) {
    Thread *thread = nullptr;
    if (os.thread_start(run, record, &thread) != 0) return false;
    *record->handle = reinterpret_cast<cm_value>(thread);
    return true;
}

void fill(cm_thread *record, cm_context *ctx, cm_thread_fn function, cm_value argument, const char *label) {
    record->serial = ctx == nullptr ? 0 : next_serial(ctx);
    record->jobs = 0;
    record->label = label;
    record->argument = argument;
    record->function = function;
    record->ctx = ctx;
}

// The out argument is stored before the thread starts: the thread may look at it, and without a context the record may
// be gone by the time that it has started.
bool create_unrecorded(cm_thread_fn function, cm_value argument, const char *label, cm_thread **out_thread) {
    cm_thread *record = allocate_record(nullptr);
    if (record == nullptr) return false;
    fill(record, nullptr, function, argument, label);
    record->state = kStarting;
    if (out_thread != nullptr) *out_thread = record;
    if (!start(record)) {
        if (out_thread != nullptr) *out_thread = nullptr;
        free_record(record);
        return false;
    }
    if (!change_state(record, kStarting, kRunning)) discard(record);
    return true;
}

// The mutex is held until all is entered: a thread that ends at once waits for it on its way out.  The record enters
// the table first, since a started thread could not be taken back.
bool create_recorded(cm_context *ctx, cm_thread_fn function, cm_value argument, const char *label,
                     cm_thread **out_thread) {
    if (ctx->thread_mutex == nullptr || ctx->thread_table == nullptr) return false;
    const MutexGuard guard(ctx->thread_mutex);
    cm_thread *record = obtain_record(ctx);
    if (record == nullptr) return false;
    fill(record, ctx, function, argument, label);
    if (enter_table(ctx, record, reinterpret_cast<cm_value>(record)) == 0) {
        free_record(record);
        return false;
    }
    record->state = kRunning;
    if (out_thread != nullptr) *out_thread = record;
    if (start(record)) return true;
    if (out_thread != nullptr) *out_thread = nullptr;
    leave_table(ctx, record);
    free_record(record);
    return false;
}

// ---- ends from outside ----------------------------------------------------------------------------------------------

enum class End { kEnded, kParked, kStillRunning };

End await_end(Thread *thread, int64_t deadline_ms) {
    const int64_t left = deadline_ms - os.monotonic_ms();
    if (os.thread_join(thread, left > 0 ? static_cast<int32_t>(left) : 0)) return End::kEnded;
    return os.thread_park(thread) ? End::kParked : End::kStillRunning;
}

End end_thread(Thread *thread) {
    os.thread_ask(thread);
    return await_end(thread, os.monotonic_ms() + kGraceMs);
}

// A thread cannot wait for its own end.  It is asked only, and its record goes when its function returns.
bool ask_if_self(const cm_thread *record) {
    Thread *self = os.thread_self();
    if (self == nullptr || self != thread_of(record)) return false;
    os.thread_ask(self);
    return true;
}

int16_t terminate_unrecorded(cm_thread *record) {
    while (state_of(record).load(std::memory_order_acquire) == kStarting) os.thread_yield();
    if (ask_if_self(record)) return 1;
    if (!change_state(record, kRunning, kTaken)) return 1;
    if (end_thread(thread_of(record)) == End::kStillRunning && change_state(record, kTaken, kRunning)) return 0;
    discard(record);
    return 1;
}

int16_t terminate_recorded(cm_thread *record) {
    cm_context *ctx = record->ctx;
    Thread *thread;
    {
        const MutexGuard guard(ctx->thread_mutex);
        if (record->state != kRunning || ask_if_self(record)) return 1;
        record->state = kTaken;
        thread = thread_of(record);
    }
    const End end = end_thread(thread);
    const MutexGuard guard(ctx->thread_mutex);
    if (end == End::kStillRunning && record->state == kTaken) {
        record->state = kRunning;  // its own way out does the rest
        return 0;
    }
    enter_spare(ctx, record);
    return 1;
}

// Takes over every thread that runs, but for the caller's own, and gives them linked by `next`.
cm_thread *take_running(cm_context *ctx) {
    const MutexGuard guard(ctx->thread_mutex);
    const Thread *self = os.thread_self();
    cm_thread *taken = nullptr;
    cm_hash_entry_rec *entry = nullptr;
    const auto out = reinterpret_cast<cm_value>(&entry);
    for (int32_t step = CM_OP_FIRST; cm_hash_entry(ctx->thread_table, step, nullptr, 0, out) != 0 && entry != nullptr;
         step = CM_OP_NEXT) {
        auto *record = reinterpret_cast<cm_thread *>(entry->value);
        if (record == nullptr || record->state != kRunning || thread_of(record) == self) continue;
        record->state = kTaken;
        record->next = taken;
        taken = record;
    }
    return taken;
}

// The entry of an ended thread stays in the table, as that of any thread that shut-down ended, but leads nowhere.  What
// a parked thread was using stays as it is.
void give_up(cm_context *ctx, cm_thread *record, End end) {
    if (end != End::kEnded) return;
    const MutexGuard guard(ctx->thread_mutex);
    enter_table(ctx, record, 0);
    discard(record);
}

// True: none of them runs any more.
bool end_all(cm_context *ctx, cm_thread *taken, int64_t deadline_ms) {
    for (cm_thread *record = taken; record != nullptr; record = record->next) os.thread_ask(thread_of(record));
    bool all = true;
    while (taken != nullptr) {
        cm_thread *record = taken;
        taken = record->next;
        const End end = await_end(thread_of(record), deadline_ms);
        if (end == End::kStillRunning) all = false;
        give_up(ctx, record, end);
    }
    return all;
}

void free_spare(cm_context *ctx) {
    const MutexGuard guard(ctx->thread_mutex);
    while (ctx->thread_spare != nullptr) {
        cm_thread *record = ctx->thread_spare;
        ctx->thread_spare = record->next;
        free_record(record);
    }
}

}  // namespace

int32_t count(cm_context *ctx) {
    if (ctx == nullptr || ctx->thread_table == nullptr) return 0;
    const MutexGuard guard(ctx->thread_mutex);
    return ctx->thread_table->entries;
}

}  // namespace cm::thread

using namespace cm;
using namespace cm::thread;

int16_t cm_create_thread(cm_context *ctx, cm_thread_fn function, cm_value argument, const char *label,
                         cm_thread **out_thread) {
    if (out_thread != nullptr) *out_thread = nullptr;
    if (function == nullptr) return 0;
    return ctx == nullptr ? create_unrecorded(function, argument, label, out_thread)
                          : create_recorded(ctx, function, argument, label, out_thread);
}

int16_t cm_terminate_thread(cm_thread *thread) {
    if (thread == nullptr) return 0;
    return thread->ctx == nullptr ? terminate_unrecorded(thread) : terminate_recorded(thread);
}

int16_t cm_free_threads(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    bool all = true;
    if (ctx->thread_table != nullptr) {
        // A thread that was asked may have started another one meanwhile.
        const int64_t deadline_ms = os.monotonic_ms() + kGraceMs;
        while (cm_thread *taken = take_running(ctx)) all &= end_all(ctx, taken, deadline_ms);
    }
    free_spare(ctx);
    return all;
}

int16_t cm_waitfor_threads(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    report(ctx, CM_INFO, "Waiting for active threads to terminate...");
    for (int32_t round = 0; round < kWaitRounds && count(ctx) > 0; round++)
        if (!os.sleep(1000)) break;
    const int32_t active = count(ctx);
    if (active > 0) {
        report(ctx, CM_INFO, "Closing with %ld active threads...", static_cast<long>(active));
        return 0;
    }
    report(ctx, CM_INFO, "Closing with NO OPEN THREADS...");
    return 1;
}
