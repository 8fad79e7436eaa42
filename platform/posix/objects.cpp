// Processes by number, and waiting for descriptors.
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "posix.h"

namespace cm::platform::system {

using posix::Deadline;
using posix::repeat;
using posix::result_error;

// A number of 0 and below would mean a group of processes, or all of them.
bool process_running(int32_t id) {
    if (id <= 0) return false;
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, id, 0));
    if (handle == -1) return errno != ESRCH && (kill(id, 0) == 0 || errno == EPERM);
    pollfd entry = {handle, POLLIN, 0};
    const int ended = repeat([&] { return poll(&entry, 1, 0); });
    close(handle);
    return ended == 0;
}

Error process_end(int32_t id) {
    if (id <= 1 || id == getpid()) return CM_EINVAL;
    return result_error(kill(id, SIGKILL));
}

bool process_await(Process *process, int32_t timeout_ms) {
    return process_wait(process, timeout_ms, nullptr);
}

bool object_wait(intptr_t object, int32_t timeout_ms) {
    if (object < 0 || object > INT_MAX) return false;
    const Deadline limit(timeout_ms);
    pollfd entry = {static_cast<int>(object), POLLIN, 0};
    for (;;) {
        if (thread_asked()) return false;
        const int ready = poll(&entry, 1, limit.left_ms());
        if (ready >= 0) return ready == 1 && (entry.revents & POLLNVAL) == 0;
        if (errno != EINTR) return false;
    }
}

}  // namespace cm::platform::system
