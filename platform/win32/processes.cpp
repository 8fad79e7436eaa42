// Child processes: started suspended, put into a job of their own (so that grandchildren end with them), then let go.
#include "win32.h"

#include <io.h>

#include <atomic>

namespace cm::platform {

struct Process {
    HANDLE handle;
    HANDLE job;
    DWORD id;
    std::atomic<bool> killed;  // about to go: the wait for it lasts even when the thread was asked to end
};

namespace system {

using namespace win32;

namespace {

constexpr int64_t kRestMs = 1000;

// Inheritable copies of the three handles.
class Inherited {
public:
    explicit Inherited(const int32_t standard[3]) {
        for (int i = 0; i < 3; i++) {
            const auto source =
                standard[i] < 0 ? INVALID_HANDLE_VALUE : reinterpret_cast<HANDLE>(_get_osfhandle(standard[i]));
            ok_ = ok_ && (source == INVALID_HANDLE_VALUE ? open_null(i) : copy(i, source));
        }
    }
    ~Inherited() {
        for (HANDLE handle : handles_)
            if (handle != nullptr) CloseHandle(handle);
    }
    Inherited(const Inherited &) = delete;
    Inherited &operator=(const Inherited &) = delete;
    explicit operator bool() const { return ok_; }
    HANDLE *list() { return handles_; }

private:
    bool copy(int i, HANDLE source) {
        return DuplicateHandle(GetCurrentProcess(), source, GetCurrentProcess(), &handles_[i], 0, TRUE,
                               DUPLICATE_SAME_ACCESS) != 0;
    }
    bool open_null(int i) {
        SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
        const HANDLE handle = CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          &inherit, OPEN_EXISTING, 0, nullptr);
        handles_[i] = handle == INVALID_HANDLE_VALUE ? nullptr : handle;
        return handles_[i] != nullptr;
    }

    HANDLE handles_[3] = {};
    bool ok_ = true;
};

// The attribute that limits inheritance to those three.
class HandleList {
public:
    explicit HandleList(HANDLE *handles) {
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        list_ = static_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(os.allocate(size));
        if (list_ == nullptr) return;
        made_ = InitializeProcThreadAttributeList(list_, 1, 0, &size) != 0;
        ok_ = made_ && UpdateProcThreadAttribute(list_, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles,
                                                 3 * sizeof(HANDLE), nullptr, nullptr) != 0;
    }
    ~HandleList() {
        if (made_) DeleteProcThreadAttributeList(list_);
        os.release(list_);
    }
    HandleList(const HandleList &) = delete;
    HandleList &operator=(const HandleList &) = delete;
    explicit operator bool() const { return ok_; }
    LPPROC_THREAD_ATTRIBUTE_LIST get() { return list_; }

private:
    LPPROC_THREAD_ATTRIBUTE_LIST list_ = nullptr;
    bool made_ = false, ok_ = false;
};

bool has_members(HANDLE job) {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION found = {};
    return job != nullptr &&
           QueryInformationJobObject(job, JobObjectBasicAccountingInformation, &found, sizeof found, nullptr) &&
           found.ActiveProcesses > 0;
}

// Those of the job that end with the child (all of them after a kill, its console's host otherwise) end a little later
// and hold its files until then.  A grandchild that stays is left alone.
void wait_for_rest(const Process *process, int32_t timeout_ms, int64_t start) {
    const int64_t end = start + (timeout_ms < 0 ? INT32_MAX : timeout_ms);
    for (const int64_t most = monotonic_ms() + kRestMs; has_members(process->job) && monotonic_ms() < end;) {
        if (!process->killed && (monotonic_ms() >= most || thread_asked())) return;
        Sleep(1);
    }
}

}  // namespace

Error process_start(const char *command, const char *directory, const int32_t standard[3], Process **out_process) {
    while (*command == ' ' || *command == '\t') command++;  // they would make an empty program name
    Inherited handles(standard);
    Wide line(command);
    const WidePath folder(directory == nullptr ? "." : directory);
    if (!handles || !line || !folder) return last_error();
    HandleList list(handles.list());
    auto *process = static_cast<Process *>(os.allocate_zeroed(sizeof(Process)));
    if (!list || process == nullptr) {
        os.release(process);
        return kNoMemory;
    }
    STARTUPINFOEXW start = {};
    start.StartupInfo.cb = sizeof start;
    start.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    start.StartupInfo.hStdInput = handles.list()[0];
    start.StartupInfo.hStdOutput = handles.list()[1];
    start.StartupInfo.hStdError = handles.list()[2];
    start.lpAttributeList = list.get();
    PROCESS_INFORMATION made = {};
    constexpr DWORD kFlags = CREATE_SUSPENDED | CREATE_NO_WINDOW | EXTENDED_STARTUPINFO_PRESENT;
    if (!CreateProcessW(nullptr, line.get(), nullptr, nullptr, TRUE, kFlags, nullptr, folder.get(), &start.StartupInfo,
                        &made)) {
        const Error error = last_error();
        os.release(process);
        return error;
    }
    process->handle = made.hProcess;
    process->id = made.dwProcessId;
    // Without a job (nested jobs are refused by old systems) a time-out still ends the child itself.
    process->job = CreateJobObjectW(nullptr, nullptr);
    if (process->job != nullptr) AssignProcessToJobObject(process->job, made.hProcess);
    ResumeThread(made.hThread);
    CloseHandle(made.hThread);
    *out_process = process;
    return 0;
}

bool process_wait(Process *process, int32_t timeout_ms, int32_t *out_exit_code) {
    const DWORD limit = timeout_ms < 0 ? INFINITE : static_cast<DWORD>(timeout_ms);
    const int64_t start = monotonic_ms();
    const Thread *thread = self();
    const bool may_be_asked = thread != nullptr && !process->killed;
    const HANDLE handles[2] = {process->handle, may_be_asked ? thread->ask : nullptr};
    if (WaitForMultipleObjects(may_be_asked ? 2 : 1, handles, FALSE, limit) != WAIT_OBJECT_0) return false;
    DWORD code = 0;
    GetExitCodeProcess(process->handle, &code);
    if (out_exit_code != nullptr) *out_exit_code = static_cast<int32_t>(code);
    wait_for_rest(process, timeout_ms, start);
    return true;
}

void process_kill(Process *process) {
    process->killed = true;
    if (process->job == nullptr || !TerminateJobObject(process->job, 1)) TerminateProcess(process->handle, 1);
}

int32_t process_id(Process *process) {
    return static_cast<int32_t>(process->id);
}

void process_release(Process *process) {
    if (process == nullptr) return;
    CloseHandle(process->handle);
    if (process->job != nullptr) CloseHandle(process->job);
    os.release(process);
}

}  // namespace system
}  // namespace cm::platform
