// Child processes under handles, processes by number, services.
//
// A handle is a serial number that is never given out again, with the top bit set, which no handle or descriptor of the
// system has.  So a stale handle finds nothing, where a stale process number, or a stale pointer, could find a
// stranger. The records behind the handles are on one list under a lock; who works on a record counts as its user, and
// the last one to leave a record that is off the list frees it.
#include <atomic>
#include <new>

#include "core/cmerror.h"
#include "platform/platform.h"

namespace cm::process {
namespace {

using platform::kForever;
using platform::Lock;
using platform::os;
using platform::Process;

constexpr cm_value kMark = ~(~cm_value{0} >> 1);
constexpr int32_t kKilledMs = 3000;  // for a killed child to be gone

struct Record {
    Process *process = nullptr;
    cm_value handle = 0;
    int32_t users = 0;
    bool listed = true;
    Record *next = nullptr;
};

// Made with the first handle and kept until the program ends, since any thread may ask about a handle at any time.
std::atomic<Lock *> the_lock{nullptr};
Record *first = nullptr;   // under the lock
cm_value last_serial = 0;  // under the lock

bool make_lock() {
    if (the_lock.load(std::memory_order_acquire) != nullptr) return true;
    Lock *made = os.lock_create(), *none = nullptr;
    if (made == nullptr) return false;
    if (!the_lock.compare_exchange_strong(none, made)) os.lock_destroy(made);
    return true;
}

class Guard {
public:
    Guard() : lock_(the_lock.load(std::memory_order_acquire)) {
        if (lock_ != nullptr) os.lock_acquire(lock_);
    }
    ~Guard() {
        if (lock_ != nullptr) os.lock_release(lock_);
    }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    Lock *const lock_;  // null: there is no handle yet
};

// A child that this call works on.
class Held {
public:
    explicit Held(cm_value handle) {
        const Guard guard;
        for (record_ = first; record_ != nullptr && record_->handle != handle;) record_ = record_->next;
        if (record_ != nullptr) record_->users++;
    }
    ~Held() {
        if (record_ == nullptr) return;
        {
            const Guard guard;
            if (--record_->users > 0 || record_->listed) return;
        }
        os.process_release(record_->process);
        os.release(record_);
    }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

    explicit operator bool() const { return record_ != nullptr; }
    Process *get() const { return record_->process; }

    // False: another thread has done it.
    bool take_off_list() {
        const Guard guard;
        for (Record **at = &first; *at != nullptr; at = &(*at)->next) {
            if (*at != record_) continue;
            *at = record_->next;
            record_->listed = false;
            return true;
        }
        return false;
    }

private:
    Record *record_;
};

// The record before the child: once that runs, nothing may fail any more.
Record *make_record() {
    void *memory = make_lock() ? os.allocate(sizeof(Record)) : nullptr;
    return memory == nullptr ? nullptr : new (memory) Record;
}

cm_value enter(Record *record, Process *process) {
    const Guard guard;
    record->process = process;
    record->handle = ++last_serial | kMark;
    record->next = first;
    first = record;
    return record->handle;
}

Process *start(cm_context *ctx, const char *function, const char *command, const char *directory) {
    constexpr int32_t kNothing[3] = {-1, -1, -1};
    Process *process = nullptr;
    const platform::Error error = os.process_start(command, directory, kNothing, &process);
    if (error == 0) return process;
    report(ctx, CM_ERROR, "%s() Unable to start: %s [%ld]", function, command, static_cast<long>(error));
    return nullptr;
}

int32_t milliseconds(int32_t seconds) {
    if (seconds <= 0) return kForever;
    return seconds > INT32_MAX / 1000 ? INT32_MAX : seconds * 1000;
}

}  // namespace
}  // namespace cm::process

using namespace cm::process;

CM_API int16_t CM_CALL cm_spawn(cm_context *ctx, const char *command, const char *directory, cm_value *out_process) {
    if (out_process != nullptr) *out_process = 0;
    if (command == nullptr) return 0;
    Record *record = nullptr;
    if (out_process != nullptr && (record = make_record()) == nullptr) return 0;
    Process *process = start(ctx, "cm_spawn", command, directory);
    if (process == nullptr)
        os.release(record);
    else if (record == nullptr)
        os.process_release(process);
    else
        *out_process = enter(record, process);
    return process == nullptr ? 0 : 1;
}

CM_API int16_t CM_CALL cm_exec(cm_context *ctx, const char *command, const char *directory, int32_t timeout,
                               int32_t *out_exit_code) {
    if (out_exit_code != nullptr) *out_exit_code = 0;
    if (command == nullptr) return 0;
    Process *process = start(ctx, "cm_exec", command, directory);
    if (process == nullptr) return 0;
    int32_t code = 0;
    const bool ended = os.process_wait(process, milliseconds(timeout), &code);
    if (!ended) {
        os.process_kill(process);
        os.process_wait(process, kKilledMs, nullptr);
        if (!os.thread_asked()) cm::report(ctx, CM_ERROR, "cm_exec() Process timeout: %s", command);
    }
    os.process_release(process);
    if (ended && out_exit_code != nullptr) *out_exit_code = code;
    return ended ? 1 : 0;
}

CM_API int16_t CM_CALL cm_exitcode(cm_value process, int32_t *out_exit_code) {
    if (out_exit_code != nullptr) *out_exit_code = 0;
    Held held(process);
    int32_t code = 0;
    if (!held || !os.process_wait(held.get(), 0, &code) || !held.take_off_list()) return 0;
    if (out_exit_code != nullptr) *out_exit_code = code;
    return 1;
}

CM_API int16_t CM_CALL cm_kill(cm_value process) {
    const Held held(process);
    if (!held) return 0;
    os.process_kill(held.get());
    return 1;
}

CM_API int16_t CM_CALL cm_killid(int32_t process_id) {
    return os.process_end(process_id) == 0 ? 1 : 0;
}

CM_API int16_t CM_CALL cm_isrunning(int32_t process_id) {
    return os.process_running(process_id) ? 1 : 0;
}

CM_API int16_t CM_CALL cm_waitforobject(cm_value object, int32_t milliseconds) {
    if (object == 0) return 0;
    const int32_t limit = milliseconds < 0 ? kForever : milliseconds;
    if ((object & kMark) == 0) return os.object_wait(static_cast<intptr_t>(object), limit) ? 1 : 0;
    const Held held(object);
    return held && os.process_await(held.get(), limit) ? 1 : 0;
}

CM_API int16_t CM_CALL cm_issvcinstalled(const char *service) {
    return service != nullptr && os.service_installed(service) ? 1 : 0;
}

CM_API int16_t CM_CALL cm_issvcrunning(const char *service) {
    return service != nullptr && os.service_running(service) ? 1 : 0;
}
