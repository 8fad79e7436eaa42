// Locks and events.
#include "win32.h"

namespace cm::platform {

struct Lock {
    CRITICAL_SECTION section;
};

struct Event {
    HANDLE handle;
};

namespace system {

using namespace win32;

Lock *lock_create() {
    auto *lock = static_cast<Lock *>(os.allocate(sizeof(Lock)));
    if (lock == nullptr) return nullptr;
    if (!InitializeCriticalSectionAndSpinCount(&lock->section, 1000)) {
        os.release(lock);
        return nullptr;
    }
    return lock;
}

void lock_destroy(Lock *lock) {
    if (lock == nullptr) return;
    DeleteCriticalSection(&lock->section);
    os.release(lock);
}

// The region begins before the lock is taken: a thread parked between the two would leave it locked.
void lock_acquire(Lock *lock) {
    enter_region();
    EnterCriticalSection(&lock->section);
}

void lock_release(Lock *lock) {
    LeaveCriticalSection(&lock->section);
    leave_region();
}

Event *event_create() {
    auto *event = static_cast<Event *>(os.allocate(sizeof(Event)));
    if (event == nullptr) return nullptr;
    event->handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (event->handle == nullptr) {
        os.release(event);
        return nullptr;
    }
    return event;
}

void event_destroy(Event *event) {
    if (event == nullptr) return;
    CloseHandle(event->handle);
    os.release(event);
}

void event_set(Event *event) {
    SetEvent(event->handle);
}

bool event_wait(Event *event, int32_t timeout_ms) {
    const DWORD limit = timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms);
    const Thread *thread = self();
    if (thread == nullptr) return WaitForSingleObject(event->handle, limit) == WAIT_OBJECT_0;
    // The ask comes first: with both set, the signal stays for another waiter.
    const HANDLE handles[2] = {thread->ask, event->handle};
    return WaitForMultipleObjects(2, handles, FALSE, limit) == WAIT_OBJECT_0 + 1;
}

}  // namespace system
}  // namespace cm::platform
