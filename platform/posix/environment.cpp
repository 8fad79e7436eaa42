#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include "posix.h"

namespace cm::platform::system {

const char *environment(const char *name) {
    const char *value = getenv(name);
    return value != nullptr && value[0] != '\0' ? value : nullptr;
}

bool working_directory(char *out, size_t size) {
    return getcwd(out, size) != nullptr;
}

void write_standard_error(const char *text, size_t length) {
    size_t written = 0;
    file_write(STDERR_FILENO, text, length, &written);  // nowhere to tell of a failure
}

bool random_bytes(void *out, size_t count) {
    char *to = static_cast<char *>(out);
    while (count > 0) {
        const ssize_t got = getrandom(to, count, 0);
        if (got < 0 && errno != EINTR) return false;
        if (got < 0) continue;
        to += got;
        count -= static_cast<size_t>(got);
    }
    return true;
}

void handle_abort(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler != nullptr ? handler : SIG_DFL;
    sigaction(SIGABRT, &action, nullptr);
}

void exit_at_once(int32_t status) {
    _exit(status);
}

bool standard_handles_open() {
    for (int descriptor = 0; descriptor <= STDERR_FILENO; descriptor++) {
        if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) continue;
        // The lowest free number is taken, which is this one.
        const int opened = open("/dev/null", O_RDWR | O_NOCTTY);
        if (opened == descriptor) continue;
        if (opened != -1)
            close(opened);  // another thread was faster: the number is taken all the same
        else
            return false;
    }
    return true;
}

}  // namespace cm::platform::system
