// Processes by number, and waiting for handles while the thread's window messages go on.
#include "win32.h"

#include <algorithm>

#include "platform/system.h"

namespace cm::platform::system {

namespace {

using win32::last_error;

constexpr DWORD kSliceMs = 50;  // how long an asked thread may be kept

class Handle {
public:
    explicit Handle(HANDLE handle) : handle_(handle) {}
    ~Handle() {
        if (handle_ != nullptr) CloseHandle(handle_);
    }
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    explicit operator bool() const { return handle_ != nullptr; }
    HANDLE get() const { return handle_; }

private:
    const HANDLE handle_;
};

void dispatch_messages() {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        // The end of the program is for the thread's own loop.
        if (message.message == WM_QUIT) return PostQuitMessage(static_cast<int>(message.wParam));
        TranslateMessage(&message);
        DispatchMessageW(&message);
    }
}

}  // namespace

bool process_running(int32_t id) {
    if (id <= 0) return false;
    const Handle process(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(id)));
    if (!process) return GetLastError() == ERROR_ACCESS_DENIED;
    return WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT;
}

Error process_end(int32_t id) {
    if (id <= 0 || static_cast<DWORD>(id) == GetCurrentProcessId()) return CM_EINVAL;
    const Handle process(OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(id)));
    return process && TerminateProcess(process.get(), 1) ? 0 : last_error();
}

// The record keeps the number from being given to another process.
bool process_await(Process *process, int32_t timeout_ms) {
    const Handle handle(OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(process_id(process))));
    return handle && object_wait(reinterpret_cast<intptr_t>(handle.get()), timeout_ms);
}

bool object_wait(intptr_t object, int32_t timeout_ms) {
    const auto handle = reinterpret_cast<HANDLE>(object);
    const int64_t end = timeout_ms < 0 ? INT64_MAX : monotonic_ms() + timeout_ms;
    for (;;) {
        if (thread_asked()) return false;
        const int64_t left = std::max<int64_t>(end - monotonic_ms(), 0);
        const auto slice = static_cast<DWORD>(std::min<int64_t>(left, kSliceMs));
        const DWORD result = MsgWaitForMultipleObjects(1, &handle, FALSE, slice, QS_ALLINPUT);
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED_0) return true;
        if (result == WAIT_OBJECT_0 + 1)
            dispatch_messages();
        else if (result != WAIT_TIMEOUT || left <= slice)
            return false;
    }
}

}  // namespace cm::platform::system
