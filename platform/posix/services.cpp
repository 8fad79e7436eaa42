// Services: what systemd says where it runs, else the scripts of /etc/init.d.
#include <stdio.h>
#include <string.h>

#include "posix.h"

namespace cm::platform::system {

namespace {

constexpr int32_t kAnswerMs = 10000;
constexpr size_t kMostLetters = 200;
constexpr size_t kLineSize = 300;

constexpr const char *kUnitFolders[] = {"/etc/systemd/system", "/run/systemd/system", "/usr/local/lib/systemd/system",
                                        "/usr/lib/systemd/system", "/lib/systemd/system"};

// Such a name is one word of a command and one name in a folder.
bool is_service_name(const char *name) {
    constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789:_.@-";
    const size_t length = strlen(name);
    return length > 0 && length <= kMostLetters && strspn(name, kLetters) == length && name[0] != '-' && name[0] != '.';
}

bool exists(const char *path) {
    FileStatus status;
    return os.path_status(path, true, &status) == 0;
}

bool systemd_runs() {
    return exists("/run/systemd/system");
}

bool has_script(const char *name, char (&out)[kLineSize]) {
    snprintf(out, sizeof out, "/etc/init.d/%s", name);
    return exists(out);
}

bool has_unit(const char *name) {
    char path[kLineSize];
    for (const char *folder : kUnitFolders) {
        snprintf(path, sizeof path, "%s/%s.service", folder, name);
        if (exists(path)) return true;
    }
    return false;
}

// Whether a command ends with 0 soon enough.
bool affirms(const char *command) {
    const int32_t nothing[3] = {-1, -1, -1};
    Process *process = nullptr;
    int32_t code = -1;
    if (os.process_start(command, "/", nothing, &process) != 0) return false;
    const bool ended = os.process_wait(process, kAnswerMs, &code);
    if (!ended) os.process_kill(process);
    os.process_release(process);
    return ended && code == 0;
}

}  // namespace

bool service_installed(const char *name) {
    char script[kLineSize];
    return is_service_name(name) && (has_script(name, script) || (systemd_runs() && has_unit(name)));
}

bool service_running(const char *name) {
    char script[kLineSize], command[kLineSize + 8];
    if (!is_service_name(name)) return false;
    if (systemd_runs())
        snprintf(command, sizeof command, "systemctl --quiet is-active %s.service", name);
    else if (has_script(name, script))
        snprintf(command, sizeof command, "%s status", script);
    else
        return false;
    return affirms(command);
}

}  // namespace cm::platform::system
