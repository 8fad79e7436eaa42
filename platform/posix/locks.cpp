#include <pthread.h>

#include <new>

#include "posix.h"

namespace cm::platform {

struct Lock {
    pthread_mutex_t mutex;
};

// Waiters are a stack: the newest is let go first, since its memory is the warmest.
struct Event {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    posix::Waiter *waiting = nullptr;  // under mutex
    bool set = false;                  // under mutex: a signal that nobody has had yet
};

namespace system {

using posix::Deadline;
using posix::MutexGuard;
using posix::RegionGuard;
using posix::Waiter;

Lock *lock_create() {
    Lock *lock = static_cast<Lock *>(os.allocate(sizeof(Lock)));
    if (lock == nullptr) return nullptr;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    const int error = pthread_mutex_init(&lock->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error == 0) return lock;
    os.release(lock);
    return nullptr;
}

void lock_destroy(Lock *lock) {
    if (lock == nullptr) return;
    pthread_mutex_destroy(&lock->mutex);
    os.release(lock);
}

// The region begins before the lock is had: a thread that stops while it waits could take a wake-up with it that was
// meant for the next in line.
void lock_acquire(Lock *lock) {
    posix::enter_region();
    pthread_mutex_lock(&lock->mutex);
}

void lock_release(Lock *lock) {
    pthread_mutex_unlock(&lock->mutex);
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
