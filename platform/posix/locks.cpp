#include <pthread.h>

#include <new>

#include "posix.h"

namespace cm::platform {

using posix::Deadline;

// One word that says free, held, or held with somebody asleep on it; quicker than the system's recursive mutex, which
// would also have to be called through a function.  A thread that finds itself as the holder is right, and one that is
// not never finds itself, so `holder` may be read without the lock.
struct Lock {
    enum State : uint32_t { kFree, kHeld, kWaitedFor };

    std::atomic<uint32_t> state{kFree};
    uint32_t repeats = 0;                       // the holder's: acquires beyond the first
    std::atomic<const void *> holder{nullptr};  // address of the holder's region record

    bool take(State as) {
        uint32_t expected = kFree;
        return state.compare_exchange_strong(expected, as, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void wait_and_take();
};

namespace {
constexpr int kLooks = 100;  // at a lock that is held, before the thread sleeps: most are held for less time than that
}

void Lock::wait_and_take() {
    for (int i = 0; i < kLooks; i++) {
        if (state.load(std::memory_order_relaxed) == kFree && take(kHeld)) return;
        posix::relax();
    }
    // From here on it is taken as waited for, since others may sleep on it as well.
    while (state.exchange(kWaitedFor, std::memory_order_acquire) != kFree)
        posix::futex_wait(state, kWaitedFor, Deadline(kForever));
}

// Waiters are a stack: the newest is let go first, since its memory is the warmest.
struct Event {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    posix::Waiter *waiting = nullptr;  // under mutex
    bool set = false;                  // under mutex: a signal that nobody has had yet
};

namespace system {

using posix::MutexGuard;
using posix::RegionGuard;
using posix::Waiter;

Lock *lock_create() {
    void *memory = os.allocate(sizeof(Lock));
    return memory != nullptr ? new (memory) Lock : nullptr;
}

void lock_destroy(Lock *lock) {
    os.release(lock);
}

// The region begins before the lock is had: a thread that stops while it waits could take a wake-up with it that was
// meant for the next in line.
void lock_acquire(Lock *lock) {
    posix::enter_region();
    if (lock->holder.load(std::memory_order_relaxed) == &posix::own_region) {
        lock->repeats++;
        return;
    }
    if (!lock->take(Lock::kHeld)) [[unlikely]]
        lock->wait_and_take();
    lock->holder.store(&posix::own_region, std::memory_order_relaxed);
}

// A lock that the caller does not hold is left alone.
void lock_release(Lock *lock) {
    if (lock->holder.load(std::memory_order_relaxed) != &posix::own_region) return;
    if (lock->repeats > 0) {
        lock->repeats--;
    } else {
        lock->holder.store(nullptr, std::memory_order_relaxed);
        if (lock->state.exchange(Lock::kFree, std::memory_order_release) == Lock::kWaitedFor) [[unlikely]]
            posix::futex_wake(lock->state);
    }
    posix::leave_region();
}

Event *event_create() {
    void *memory = os.allocate(sizeof(Event));
    return memory != nullptr ? new (memory) Event : nullptr;
}

void event_destroy(Event *event) {
    if (event == nullptr) return;
    pthread_mutex_destroy(&event->mutex);
    os.release(event);
}

void event_set(Event *event) {
    RegionGuard region;  // a waiter that was taken off the list must get its signal
    pthread_mutex_lock(&event->mutex);
    Waiter *const first = event->waiting;
    if (first != nullptr)
        event->waiting = first->next;
    else
        event->set = true;
    pthread_mutex_unlock(&event->mutex);
    if (first != nullptr) first->add(Waiter::kSignalled);
}

namespace {

// Takes a signal that is there already, else puts the waiter on the list.
bool take_or_enlist(Event *event, Waiter &self) {
    MutexGuard guard(event->mutex);
    if (event->set) {
        event->set = false;
        return true;
    }
    self.next = event->waiting;
    event->waiting = &self;
    return false;
}

// False: it is not on the list any more, so a signal is on its way.
bool withdraw(Event *event, Waiter &self) {
    MutexGuard guard(event->mutex);
    for (Waiter **at = &event->waiting; *at != nullptr; at = &(*at)->next) {
        if (*at != &self) continue;
        *at = self.next;
        return true;
    }
    return false;
}

}  // namespace

bool event_wait(Event *event, int32_t timeout_ms) {
    RegionGuard region;  // a name on the list is a promise to take the signal
    Waiter &self = posix::own_waiter();
    if (self.asked()) return false;
    if (take_or_enlist(event, self)) return true;
    const Deadline limit(timeout_ms);
    bool wait = true;
    for (;;) {
        const uint32_t word = self.word.load(std::memory_order_acquire);
        if ((word & Waiter::kSignalled) != 0) {
            self.word.fetch_and(~Waiter::kSignalled, std::memory_order_acq_rel);
            return true;
        }
        if (wait && (word & Waiter::kAsked) == 0) {
            wait = self.sleep_while(word, limit);
        } else {
            if (withdraw(event, self)) return false;
            self.sleep_while(word, Deadline(kForever));
        }
    }
}

}  // namespace system
}  // namespace cm::platform
