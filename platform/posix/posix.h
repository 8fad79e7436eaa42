// What the POSIX files share: error numbers, deadlines, and the calling thread's own record.
#pragma once

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include <atomic>

#include "platform/system.h"

namespace cm::platform::posix {

// ---- errors ---------------------------------------------------------------------------------------------------------

// The number that the contract promises for an errno.  `blocking` tells that the call was one of a blocking socket: the
// system says "would block" there when a time-out of the kernel ran off.
Error error_number(int number, bool blocking = false);

// Repeats an interrupted call, unless the thread was asked to end.
template <class Call>
auto repeat(Call call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR || system::thread_asked()) return result;
    }
}

template <class Result>
Error result_error(Result result) {
    return result == -1 ? error_number(errno) : 0;
}

// ---- deadlines ------------------------------------------------------------------------------------------------------

class Deadline {
public:
    explicit Deadline(int32_t timeout_ms) : end_(timeout_ms < 0 ? INT64_MAX : system::monotonic_ms() + timeout_ms) {}

    bool forever() const { return end_ == INT64_MAX; }
    int32_t left_ms() const {  // kForever, or 0 and more
        if (forever()) return kForever;
        const int64_t left = end_ - system::monotonic_ms();
        return left > 0 ? static_cast<int32_t>(left) : 0;
    }
    timespec absolute() const {  // on the monotonic clock; not of a deadline that never comes
        timespec when = {};
        when.tv_sec = end_ / 1000;
        when.tv_nsec = end_ % 1000 * 1000000;
        return when;
    }

private:
    int64_t end_;
};

// ---- sleeping on a word ---------------------------------------------------------------------------------------------

// Sleeps while the word has that value, or shorter.  False: time is up.
bool futex_wait(const std::atomic<uint32_t> &word, uint32_t value, const Deadline &limit);

// Wakes one sleeper.  The word may be gone by now: waking an address that nobody sleeps at does nothing.
void futex_wake(const std::atomic<uint32_t> &word);

inline void relax() {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#endif
}

// ---- the calling thread ---------------------------------------------------------------------------------------------

// The word that a thread sleeps on.  It is the thread's own, so a setter touches it only between taking the thread off
// an event's list and adding kSignalled, without which the thread does not leave.
struct Waiter {
    static constexpr uint32_t kSignalled = 1, kAsked = 2;

    std::atomic<uint32_t> word{0};
    Waiter *next = nullptr;  // waiting list of an event, under the event's lock

    bool asked() const { return (word.load(std::memory_order_acquire) & kAsked) != 0; }
    void add(uint32_t bits) {  // and wakes the thread, which may be gone by then
        word.fetch_or(bits, std::memory_order_acq_rel);
        futex_wake(word);
    }
    bool sleep_while(uint32_t value, const Deadline &limit) { return futex_wait(word, value, limit); }
};

Waiter &own_waiter();

// Between enter and leave the thread is never parked, because somebody would wait for it: it holds a lock, has its name
// on a list, or is inside the allocator.  Kept in the thread's own memory, where its signal handler reads it.
struct Region {
    uint32_t depth;
    bool park_at_end;
};
extern constinit thread_local Region own_region __attribute__((tls_model("initial-exec")));

[[noreturn]] void park_self();

inline void enter_region() {
    own_region.depth++;
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

inline void leave_region() {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (--own_region.depth == 0 && own_region.park_at_end) [[unlikely]]
        park_self();
}

class RegionGuard {
public:
    RegionGuard() { enter_region(); }
    ~RegionGuard() { leave_region(); }
    RegionGuard(const RegionGuard &) = delete;
    RegionGuard &operator=(const RegionGuard &) = delete;
};

// A lock of this layer, held for a scope.
class MutexGuard {
public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    RegionGuard region_;
    pthread_mutex_t &mutex_;
};

}  // namespace cm::platform::posix
