// Texts between the contract (UTF-8) and Win32 (UTF-16).
#include "win32.h"

namespace cm::platform::win32 {

namespace {

constexpr size_t kPrefixLimit = 248;  // CreateDirectory's, the smallest of the system's limits

bool is_separator(wchar_t c) {
    return c == L'/' || c == L'\\';
}

// "dir/" names "dir"; "/", "//" and "c:/" stay as they are.
void strip_trailing_separator(wchar_t *path) {
    const size_t length = wcslen(path);
    if (length < 2 || !is_separator(path[length - 1])) return;
    if (is_separator(path[length - 2]) || path[length - 2] == L':') return;
    path[length - 1] = L'\0';
}

}  // namespace

wchar_t *WideBuffer::reserve(size_t count) {
    if (count <= sizeof room_ / sizeof room_[0]) return room_;
    more_ = static_cast<wchar_t *>(os.allocate(count * sizeof(wchar_t)));
    if (more_ == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return more_;
}

Wide::Wide(const char *text) {
    if (text == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return;
    }
    const size_t bytes = strlen(text) + 1;  // never fewer than UTF-16 units
    if (bytes > INT32_MAX) {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
        return;
    }
    const int size = static_cast<int>(bytes);
    wchar_t *out = buffer_.reserve(bytes);
    if (out != nullptr && MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, size, out, size) > 0) text_ = out;
}

WidePath::WidePath(const char *path) {
    Wide given(path);
    if (!given) return;
    if (given.get()[0] == L'\0') {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return;
    }
    strip_trailing_separator(given.get());
    constexpr wchar_t kPrefix[] = L"\\\\?\\", kShare[] = L"\\\\?\\UNC";
    constexpr size_t kRoom = 8;  // the longer prefix
    const DWORD needed = GetFullPathNameW(given.get(), 0, nullptr, nullptr);
    wchar_t *full = needed == 0 ? nullptr : buffer_.reserve(needed + kRoom);
    const DWORD length = full == nullptr ? 0 : GetFullPathNameW(given.get(), needed, full + kRoom, nullptr);
    if (length == 0 || length >= needed) return;
    const wchar_t *name = full + kRoom;
    const bool device = wcsncmp(name, L"\\\\?\\", 4) == 0 || wcsncmp(name, L"\\\\.\\", 4) == 0;
    const bool share = !device && wcsncmp(name, L"\\\\", 2) == 0;
    size_t prefix = 0;
    if (!device && length >= kPrefixLimit) {
        // A share's own two backslashes become the prefix's last one.
        if (share) name++;
        prefix = share ? wcslen(kShare) : wcslen(kPrefix);
        memcpy(full, share ? kShare : kPrefix, prefix * sizeof(wchar_t));
    }
    memmove(full + prefix, name, (wcslen(name) + 1) * sizeof(wchar_t));
    path_ = full;
}

bool narrow(const wchar_t *text, char *out, size_t size) {
    if (size == 0 || size > INT32_MAX) return false;
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, out, static_cast<int>(size), nullptr, nullptr) > 0;
}

}  // namespace cm::platform::win32
