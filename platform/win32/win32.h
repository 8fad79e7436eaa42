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

#include "platform/system.h"

namespace cm::platform::win32 {

// Error numbers of the contract that are not Winsock's: those of the C library on both systems.
constexpr Error kNoEntry = 2, kNoMemory = 12, kExists = 17, kNotDirectory = 20, kIsDirectory = 21, kNoSpace = 28,
                kNotEmpty = 39, kNameTooLong = 10063;

// The contract's number for a GetLastError code.
Error map_error(DWORD code);
inline Error last_error() {
    return map_error(GetLastError());
}

// Room for a UTF-16 text, in the object itself unless the text is long.
class WideBuffer {
public:
    WideBuffer() = default;
    ~WideBuffer() { os.release(more_); }
    WideBuffer(const WideBuffer &) = delete;
    WideBuffer &operator=(const WideBuffer &) = delete;
    wchar_t *reserve(size_t count);  // once; null when there is no memory

private:
    alignas(8) wchar_t room_[320];
    wchar_t *more_ = nullptr;
};

// A UTF-8 text as UTF-16, terminated.
class Wide {
public:
    explicit Wide(const char *text);
    explicit operator bool() const { return text_ != nullptr; }
    wchar_t *get() { return text_; }

private:
    WideBuffer buffer_;
    wchar_t *text_ = nullptr;
};

// A path as the wide calls want it: full, with backslashes, without a trailing separator, and with the prefix that
// lifts the limit of 260 characters where it is that long.
class WidePath {
public:
    explicit WidePath(const char *path);
    explicit operator bool() const { return path_ != nullptr; }
    const wchar_t *get() const { return path_; }

private:
    WideBuffer buffer_;
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
    long region_depth;  // changed by the thread itself only
    bool asked;
    bool park, parked;
    Wake wake;  // stands in this thread's socket waits, made by the first of them
};

namespace win32 {

Thread *self();        // null on a thread of the host's
Wake *wake_of_self();  // null when there is none

// Between enter and leave the thread is never parked, because somebody would wait for it: it holds a lock, or is inside
// the allocator.
void enter_region();
void leave_region();

}  // namespace win32
}  // namespace cm::platform
