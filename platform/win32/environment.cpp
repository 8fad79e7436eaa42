// The process: environment, working directory, standard error stream, random bytes, the abort signal.
#include "win32.h"

#include <bcrypt.h>
#include <io.h>
#include <signal.h>

namespace cm::platform {

const char *const kLastResortTemp = "c:\\temp";
const bool kFoldsPathCase = true;

namespace system {

using namespace win32;

// The texts live in a few static slots: start-up, the only caller, holds at most two at a time.
const char *environment(const char *name) {
    constexpr int kSlots = 4;
    static char slot[kSlots][1100];
    static int next = 0;
    Wide wide_name(name);
    if (!wide_name) return nullptr;
    wchar_t value[1100];
    const DWORD length = GetEnvironmentVariableW(wide_name.get(), value, 1100);
    if (length == 0 || length >= 1100) return nullptr;
    char *out = slot[next];
    if (!narrow(value, out, sizeof slot[0])) return nullptr;
    next = (next + 1) % kSlots;
    return out;
}

bool working_directory(char *out, size_t size) {
    wchar_t path[1100];
    const DWORD length = GetCurrentDirectoryW(1100, path);
    if (length == 0 || length >= 1100 || !narrow(path, out, size)) return false;
    for (char *c = out; *c != '\0'; c++)
        if (*c == '\\') *c = '/';
    return true;
}

void write_standard_error(const char *text, size_t length) {
    const HANDLE stream = GetStdHandle(STD_ERROR_HANDLE);
    if (stream == nullptr || stream == INVALID_HANDLE_VALUE) return;
    while (length > 0) {
        DWORD written = 0;
        const DWORD piece = length > 32768 ? 32768 : static_cast<DWORD>(length);
        if (!WriteFile(stream, text, piece, &written, nullptr) || written == 0) return;
        text += written;
        length -= written;
    }
}

bool random_bytes(void *out, size_t count) {
    return BCryptGenRandom(nullptr, static_cast<PUCHAR>(out), static_cast<ULONG>(count),
                           BCRYPT_USE_SYSTEM_PREFERRED_RNG) >= 0;
}

void handle_abort(void (*handler)(int)) {
    signal(SIGABRT, handler != nullptr ? handler : SIG_DFL);
}

// ExitProcess would run the detach code of every library first.
void exit_at_once(int32_t status) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
}

// The first three descriptors of the C run-time are its own and never handed out, whether or not they lead anywhere.
bool standard_handles_open() {
    return true;
}

}  // namespace system
}  // namespace cm::platform
