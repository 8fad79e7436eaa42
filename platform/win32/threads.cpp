// Threads, and their end: asked first, parked (suspended for good) outside library locks at the last.
#include "entries.h"
#include "win32.h"

#include <process.h>

namespace cm::platform::win32 {

namespace {

constexpr int kParkTries = 2000;

DWORD slot = TLS_OUT_OF_INDEXES;  // each thread's record

// Made when the library is loaded, before any of its threads.
[[gnu::constructor]] void make_slot() {
    slot = TlsAlloc();
}

void drop_reference(Thread *thread) {
    if (InterlockedDecrement(&thread->references) > 0) return;
    CloseHandle(thread->ask);
    if (thread->handle != nullptr) CloseHandle(thread->handle);
    wake_destroy(&thread->wake);
    HeapFree(GetProcessHeap(), 0, thread);
}

unsigned __stdcall run(void *parameter) {
    auto *thread = static_cast<Thread *>(parameter);
    TlsSetValue(slot, thread);
    thread->entry(thread->argument);
    TlsSetValue(slot, nullptr);
    drop_reference(thread);
    return 0;
}

}  // namespace

Thread *self() {
    return slot == TLS_OUT_OF_INDEXES ? nullptr : static_cast<Thread *>(TlsGetValue(slot));
}

void enter_region() {
    if (Thread *thread = self()) __atomic_fetch_add(&thread->lock_depth, 1, __ATOMIC_SEQ_CST);
}

void leave_region() {
    if (Thread *thread = self()) __atomic_fetch_sub(&thread->lock_depth, 1, __ATOMIC_SEQ_CST);
}

Wake *wake_of_self() {
    Thread *thread = self();
    if (thread == nullptr) return nullptr;
    if (thread->wake.read_end == kNoSocket && wake_create(&thread->wake) != 0) return nullptr;
    // Asked between the last test and the making of the wake: nobody has set it.  The fence keeps the test behind it.
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    if (__atomic_load_n(&thread->asked, __ATOMIC_SEQ_CST)) wake_set(&thread->wake);
    return &thread->wake;
}

Error thread_start(ThreadEntry entry, void *argument, Thread **out_thread) {
    auto *thread = static_cast<Thread *>(allocate_zeroed(sizeof(Thread)));
    if (thread == nullptr) return kNoMemory;
    thread->entry = entry;
    thread->argument = argument;
    thread->references = 2;
    thread->wake = Wake{};
    thread->ask = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const uintptr_t handle =
        thread->ask == nullptr ? 0 : _beginthreadex(nullptr, 0, run, thread, CREATE_SUSPENDED, nullptr);
    if (handle == 0) {
        const Error error = last_error();
        if (thread->ask != nullptr) CloseHandle(thread->ask);
        release(thread);
        return error;
    }
    thread->handle = reinterpret_cast<HANDLE>(handle);
    *out_thread = thread;
    ResumeThread(thread->handle);
    return 0;
}

void thread_ask(Thread *thread) {
    __atomic_store_n(&thread->asked, true, __ATOMIC_SEQ_CST);
    SetEvent(thread->ask);
    if (__atomic_load_n(&thread->wake.write_end, __ATOMIC_SEQ_CST) != kNoSocket) wake_set(&thread->wake);
}

bool thread_join(Thread *thread, int32_t timeout_ms) {
    return WaitForSingleObject(thread->handle, timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms)) ==
           WAIT_OBJECT_0;
}

bool thread_park(Thread *thread) {
    for (int i = 0; i < kParkTries; i++) {
        if (thread_join(thread, 0)) return true;
        if (SuspendThread(thread->handle) == static_cast<DWORD>(-1)) return thread_join(thread, 0);
        // Reading the context returns once the thread has really stopped.
        CONTEXT context = {};
        context.ContextFlags = CONTEXT_CONTROL;
        const bool stopped = GetThreadContext(thread->handle, &context) != 0;
        if (stopped && __atomic_load_n(&thread->lock_depth, __ATOMIC_SEQ_CST) == 0) return true;
        ResumeThread(thread->handle);
        Sleep(1);
    }
    return false;
}

void thread_release(Thread *thread) {
    drop_reference(thread);
}

Thread *thread_self() {
    return self();
}

bool thread_asked() {
    const Thread *thread = self();
    return thread != nullptr && __atomic_load_n(&thread->asked, __ATOMIC_SEQ_CST);
}

void thread_yield() {
    SwitchToThread();
}

}  // namespace cm::platform::win32
