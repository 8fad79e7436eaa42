// Texts between the contract (UTF-8) and Win32 (UTF-16).
#include "win32.h"

namespace cm::platform::win32 {

namespace {

constexpr size_t kPrefixLimit = 248;  // CreateDirectory's, the smallest of the system's limits

wchar_t *allocate_text(size_t count) {
    return static_cast<wchar_t *>(HeapAlloc(GetProcessHeap(), 0, count * sizeof(wchar_t)));
}

void release_text(wchar_t *text) {
    if (text != nullptr) HeapFree(GetProcessHeap(), 0, text);
}

wchar_t *widen(const char *text) {
    if (text == nullptr) return nullptr;
    const int count = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0);
    if (count <= 0) return nullptr;
    wchar_t *out = allocate_text(static_cast<size_t>(count));
    if (out != nullptr) MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, out, count);
    return out;
}

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

Wide::Wide(const char *text) : text_(widen(text)) {}
Wide::~Wide() {
    release_text(text_);
}

WidePath::WidePath(const char *path) {
    wchar_t *given = widen(path);
    if (given == nullptr || given[0] == L'\0') {
        release_text(given);
        SetLastError(ERROR_PATH_NOT_FOUND);
        return;
    }
    strip_trailing_separator(given);
    constexpr wchar_t kPrefix[] = L"\\\\?\\", kShare[] = L"\\\\?\\UNC";
    constexpr size_t kRoom = 8;  // the longer prefix
    const DWORD needed = GetFullPathNameW(given, 0, nullptr, nullptr);
    wchar_t *full = needed == 0 ? nullptr : allocate_text(needed + kRoom);
    const DWORD length = full == nullptr ? 0 : GetFullPathNameW(given, needed, full + kRoom, nullptr);
    release_text(given);
    if (length == 0 || length >= needed) {
        release_text(full);
        return;
    }
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

WidePath::~WidePath() {
    release_text(path_);
}

bool narrow(const wchar_t *text, char *out, size_t size) {
    if (size == 0 || size > INT32_MAX) return false;
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, out, static_cast<int>(size), nullptr, nullptr) > 0;
}

}  // namespace cm::platform::win32
