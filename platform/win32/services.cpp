// Services, as the service manager tells.
#include "win32.h"

#include "platform/system.h"

namespace cm::platform::system {

namespace {

using win32::Wide;

class ServiceHandle {
public:
    explicit ServiceHandle(SC_HANDLE handle) : handle_(handle) {}
    ~ServiceHandle() {
        if (handle_ != nullptr) CloseServiceHandle(handle_);
    }
    ServiceHandle(const ServiceHandle &) = delete;
    ServiceHandle &operator=(const ServiceHandle &) = delete;
    explicit operator bool() const { return handle_ != nullptr; }
    SC_HANDLE get() const { return handle_; }

private:
    const SC_HANDLE handle_;
};

// False: there is no such service.
bool query(const char *name, DWORD *out_state) {
    Wide wide(name);
    if (!wide) return false;
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager) return false;
    const ServiceHandle service(OpenServiceW(manager.get(), wide.get(), SERVICE_QUERY_STATUS));
    // A service that may not be asked is there all the same.
    if (!service) return GetLastError() == ERROR_ACCESS_DENIED;
    SERVICE_STATUS status = {};
    if (QueryServiceStatus(service.get(), &status)) *out_state = status.dwCurrentState;
    return true;
}

}  // namespace

bool service_installed(const char *name) {
    DWORD state = 0;
    return query(name, &state);
}

bool service_running(const char *name) {
    DWORD state = 0;
    return query(name, &state) && state == SERVICE_RUNNING;
}

}  // namespace cm::platform::system
