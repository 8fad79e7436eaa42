// Hardware addresses of the link, and dial-up lines of the Remote Access Service, whose library few machines need: it
// is loaded with the first call.
#include "win32.h"

#include <iphlpapi.h>
#include <ras.h>
#include <raserror.h>
#include <string.h>

#include "platform/system.h"

namespace cm::platform {

struct Line {
    HRASCONN connection;
};

namespace system {

namespace {

constexpr int32_t kHangUpStepMs = 50, kHangUpSteps = 60;

struct RemoteAccess {
    decltype(&RasDialA) dial;
    decltype(&RasHangUpA) hang_up;
    decltype(&RasGetConnectStatusA) status;
    decltype(&RasGetErrorStringA) error_text;
};

template <class Function>
bool find(void *library, const char *name, Function *out) {
    *out = reinterpret_cast<Function>(library_symbol(library, name));
    return *out != nullptr;
}

// Loaded at most once and kept, since a line may be up as long as the program runs.
bool remote_access(RemoteAccess *out) {
    static void *kept = nullptr;
    void *library = __atomic_load_n(&kept, __ATOMIC_ACQUIRE);
    if (library == nullptr) {
        library = library_open("rasapi32.dll");
        void *none = nullptr;
        if (library == nullptr) return false;
        if (!__atomic_compare_exchange_n(&kept, &none, library, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
            library_close(library);  // another thread was first; the library stays
        library = __atomic_load_n(&kept, __ATOMIC_ACQUIRE);
    }
    return find(library, "RasDialA", &out->dial) && find(library, "RasHangUpA", &out->hang_up) &&
           find(library, "RasGetConnectStatusA", &out->status) && find(library, "RasGetErrorStringA", &out->error_text);
}

template <size_t kSize>
bool put(char (&out)[kSize], const char *text) {
    const size_t length = strlen(text);
    if (length >= kSize) return false;
    memcpy(out, text, length + 1);
    return true;
}

// The service wants to see the line gone before the program goes on.
void hang_up(const RemoteAccess &service, HRASCONN connection) {
    service.hang_up(connection);
    for (int32_t step = 0; step < kHangUpSteps; step++) {
        RASCONNSTATUSA status = {};
        status.dwSize = sizeof status;
        if (service.status(connection, &status) == ERROR_INVALID_HANDLE) return;
        Sleep(kHangUpStepMs);
    }
}

}  // namespace

Error hardware_address(uint32_t address, uint8_t out[6]) {
    ULONG words[2] = {}, length = 6;
    constexpr uint8_t kNone[6] = {};
    if (SendARP(address, 0, words, &length) != NO_ERROR || length != 6 || memcmp(words, kNone, 6) == 0)
        return CM_EHOSTUNREACH;
    memcpy(out, words, 6);
    return 0;
}

Error line_dial(const char *entry, const char *user, const char *password, Line **out_line) {
    RemoteAccess service;
    if (!remote_access(&service)) return kNotSupported;
    RASDIALPARAMSA parameters = {};
    parameters.dwSize = sizeof parameters;
    if (!put(parameters.szEntryName, entry) || !put(parameters.szUserName, user) ||
        !put(parameters.szPassword, password))
        return CM_EINVAL;
    auto *line = static_cast<Line *>(os.allocate_zeroed(sizeof(Line)));
    if (line == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    const DWORD error = service.dial(nullptr, nullptr, &parameters, 0, nullptr, &line->connection);
    SecureZeroMemory(parameters.szPassword, sizeof parameters.szPassword);
    if (error == 0) {
        *out_line = line;
        return 0;
    }
    if (line->connection != nullptr) hang_up(service, line->connection);  // a failed call holds the port, too
    os.release(line);
    return static_cast<Error>(error);
}

bool line_connected(Line *line) {
    RemoteAccess service;
    RASCONNSTATUSA status = {};
    status.dwSize = sizeof status;
    return remote_access(&service) && service.status(line->connection, &status) == 0 &&
           status.rasconnstate == RASCS_Connected;
}

void line_hang_up(Line *line) {
    RemoteAccess service;
    if (remote_access(&service)) hang_up(service, line->connection);
    os.release(line);
}

void line_error_text(Error error, char *out, size_t size) {
    RemoteAccess service;
    if (size == 0) return;
    out[0] = '\0';
    if (!remote_access(&service)) return;
    if (service.error_text(static_cast<UINT>(error), out, static_cast<DWORD>(size)) != 0) out[0] = '\0';
    for (char *at = out; *at != '\0'; at++)
        if (*at < ' ' && *at >= 0) *at = ' ';  // such texts end with a line end
}

}  // namespace system
}  // namespace cm::platform
