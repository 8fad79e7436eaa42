// What the Win32 side shares: the system's headers, texts between UTF-8 and UTF-16, error numbers, the thread record.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#define FD_SETSIZE 1024
#include <windows.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include "platform/platform.h"

namespace cm::platform::win32 {

// Error numbers of the contract that are not Winsock's: those of the C library on both systems.
constexpr Error kNoEntry = 2, kNoMemory = 12, kExists = 17, kNotDirectory = 20, kIsDirectory = 21, kNoSpace = 28,
                kNotEmpty = 39, kNameTooLong = 10063;

// The contract's number for a GetLastError code.
Error map_error(DWORD code);
inline Error last_error() {
    return map_error(GetLastError());
}

// A UTF-8 text as UTF-16, terminated.
class Wide {
public:
    explicit Wide(const char *text);
    ~Wide();
    Wide(const Wide &) = delete;
    Wide &operator=(const Wide &) = delete;
    explicit operator bool() const { return text_ != nullptr; }
    wchar_t *get() { return text_; }

private:
    wchar_t *text_ = nullptr;
};

// A path as the wide calls want it: full, with backslashes, without a trailing separator, and with the prefix that
// lifts the limit of 260 characters where it is that long.
class WidePath {
public:
    explicit WidePath(const char *path);
    ~WidePath();
    WidePath(const WidePath &) = delete;
    WidePath &operator=(const WidePath &) = delete;
    explicit operator bool() const { return path_ != nullptr; }
    const wchar_t *get() const { return path_; }

private:
    wchar_t *path_ = nullptr;
};

// UTF-16 to UTF-8; false when it does not fit.
bool narrow(const wchar_t *text, char *out, size_t size);

}  // namespace cm::platform::win32

namespace cm::platform {

// A thread that thread_start made.  It and its owner each hold one reference.
struct Thread {
    HANDLE handle;
    HANDLE ask;  // manual-reset: set once the thread is asked to end
    ThreadEntry entry;
    void *argument;
    long references;
    long lock_depth;  // library locks and allocations in progress; changed by the thread itself only
    bool asked;
    Wake wake;  // stands in this thread's socket waits, made by the first of them
};

namespace win32 {

Thread *self();        // null on a thread of the host's
Wake *wake_of_self();  // null when there is none
void enter_region();   // the thread must not be parked until leave_region
void leave_region();

}  // namespace win32
}  // namespace cm::platform
