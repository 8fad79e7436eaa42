// Threads, and how one is made to end.
//
// A thread that is asked to end has its `ask` event set, which sleeps and event waits wait for as well, and its wake
// readable, which stands in its socket waits.
//
// A thread is parked by suspending it for good.  That must not happen while somebody would wait for it: not inside a
// region (win32.h), where the thread parks itself at the region's end instead, and not inside the system's libraries,
// where it may hold the heap's lock, the loader's, or a stream's, unless it stands in one of the system's plain waits.
#include "win32.h"

#include <process.h>

namespace cm::platform::win32 {

namespace {

constexpr int32_t kParkGraceMs = 20;  // in which a thread that only waits ends by itself
constexpr int32_t kParkLimitMs = 500;

DWORD slot = TLS_OUT_OF_INDEXES;  // each thread's record

// Made when the library is loaded, before any of its threads.
[[gnu::constructor]] void make_slot() {
    slot = TlsAlloc();
}

void drop_reference(Thread *thread) {
    if (InterlockedDecrement(&thread->references) > 0) return;
    CloseHandle(thread->ask);
    if (thread->handle != nullptr) CloseHandle(thread->handle);
    system::wake_destroy(&thread->wake);
    os.release(thread);
}

unsigned __stdcall run(void *parameter) {
    auto *thread = static_cast<Thread *>(parameter);
    TlsSetValue(slot, thread);
    thread->entry(thread->argument);
    TlsSetValue(slot, nullptr);  // from here on it has no regions, and does not park
    drop_reference(thread);
    return 0;
}

// ---- where a thread stands ------------------------------------------------------------------------------------------

struct CodeRange {
    uintptr_t first = 0, end = 0;
    bool holds(uintptr_t address) const { return address >= first && address < end; }
};

CodeRange code_of_module(const wchar_t *name) {
    const HMODULE module = GetModuleHandleW(name);
    if (module == nullptr) return {};
    const auto *start = reinterpret_cast<const unsigned char *>(module);
    const auto *head = reinterpret_cast<const IMAGE_DOS_HEADER *>(start);
    const auto *image = reinterpret_cast<const IMAGE_NT_HEADERS *>(start + head->e_lfanew);
    const uintptr_t first = reinterpret_cast<uintptr_t>(start);
    return {first, first + image->OptionalHeader.SizeOfImage};
}

CodeRange code_of_wait(const char *name) {
    constexpr uintptr_t kLength = 32;  // an entry to the kernel is some instructions
    const uintptr_t first =
        reinterpret_cast<uintptr_t>(reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
    return first == 0 ? CodeRange{} : CodeRange{first, first + kLength};
}

// Looked up before any thread is stopped: the loader's lock may be what that thread holds.
struct SystemCode {
    // Waits for locks use other calls, so that a thread in one of these is called by somebody who wants to wait.
    CodeRange waits[6] = {code_of_wait("NtDelayExecution"),         code_of_wait("NtWaitForSingleObject"),
                          code_of_wait("NtWaitForMultipleObjects"), code_of_wait("NtSignalAndWaitForSingleObject"),
                          code_of_wait("NtRemoveIoCompletion"),     code_of_wait("NtDeviceIoControlFile")};
    CodeRange libraries[7] = {code_of_module(L"ntdll.dll"),      code_of_module(L"kernel32.dll"),
                              code_of_module(L"kernelbase.dll"), code_of_module(L"msvcrt.dll"),
                              code_of_module(L"ucrtbase.dll"),   code_of_module(L"ws2_32.dll"),
                              code_of_module(L"mswsock.dll")};

    bool may_hold_lock(uintptr_t next) const {
        for (const CodeRange &wait : waits)
            if (wait.holds(next)) return false;
        for (const CodeRange &library : libraries)
            if (library.holds(next)) return true;
        return false;
    }
};

uintptr_t next_instruction(const CONTEXT &context) {
#ifdef _WIN64
    return context.Rip;
#else
    return context.Eip;
#endif
}

// Reading the context returns once the thread has really stopped.
bool stands_where_it_may_park(Thread *thread, const SystemCode &system) {
    CONTEXT context = {};
    context.ContextFlags = CONTEXT_CONTROL;
    return GetThreadContext(thread->handle, &context) != 0 && !system.may_hold_lock(next_instruction(context)) &&
           __atomic_load_n(&thread->region_depth, __ATOMIC_SEQ_CST) == 0;
}

[[noreturn]] void park_self(Thread *thread) {
    __atomic_store_n(&thread->parked, true, __ATOMIC_SEQ_CST);
    for (;;) Sleep(INFINITE);
}

bool has_ended_within(const Thread *thread, DWORD limit) {
    return WaitForSingleObject(thread->handle, limit) == WAIT_OBJECT_0;
}

}  // namespace

// Asked for in the middle of everything, so it must not clear the last error as the system's call does.
Thread *self() {
    if (slot == TLS_OUT_OF_INDEXES) return nullptr;
    const DWORD error = GetLastError();
    auto *thread = static_cast<Thread *>(TlsGetValue(slot));
    SetLastError(error);
    return thread;
}

void enter_region() {
    if (Thread *thread = self()) __atomic_fetch_add(&thread->region_depth, 1, __ATOMIC_SEQ_CST);
}

void leave_region() {
    Thread *thread = self();
    if (thread == nullptr) return;
    const long depth = __atomic_sub_fetch(&thread->region_depth, 1, __ATOMIC_SEQ_CST);
    if (depth == 0 && __atomic_load_n(&thread->park, __ATOMIC_SEQ_CST)) [[unlikely]]
        park_self(thread);
}

Wake *wake_of_self() {
    Thread *thread = self();
    if (thread == nullptr) return nullptr;
    if (thread->wake.read_end == kNoSocket && system::wake_create(&thread->wake) != 0) return nullptr;
    // Asked between the last test and the making of the wake: nobody has set it.  The fence keeps the test behind it.
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    if (__atomic_load_n(&thread->asked, __ATOMIC_SEQ_CST)) system::wake_set(&thread->wake);
    return &thread->wake;
}

}  // namespace cm::platform::win32

namespace cm::platform::system {

using namespace win32;

Error thread_start(ThreadEntry entry, void *argument, Thread **out_thread) {
    auto *thread = static_cast<Thread *>(os.allocate_zeroed(sizeof(Thread)));
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
        os.release(thread);
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
    if (thread == self()) return false;
    return has_ended_within(thread, timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms));
}

bool thread_park(Thread *thread) {
    if (thread == self()) return false;
    thread_ask(thread);
    if (thread_join(thread, kParkGraceMs)) return true;
    __atomic_store_n(&thread->park, true, __ATOMIC_SEQ_CST);
    const SystemCode system;
    const int64_t end = monotonic_ms() + kParkLimitMs;
    for (;;) {
        if (has_ended_within(thread, 0) || __atomic_load_n(&thread->parked, __ATOMIC_SEQ_CST)) return true;
        if (SuspendThread(thread->handle) == static_cast<DWORD>(-1)) return has_ended_within(thread, 0);
        if (stands_where_it_may_park(thread, system)) return true;
        ResumeThread(thread->handle);
        if (monotonic_ms() >= end) return false;
        if (has_ended_within(thread, 1)) return true;
    }
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

}  // namespace cm::platform::system
