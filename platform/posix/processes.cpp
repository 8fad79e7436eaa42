// Child processes.  Everything is made ready before the child exists: the words of the command, the program's path, the
// descriptors.  The spawn call of the C library starts it without a copy of this process's memory, allocates nothing
// between there and the program's start, and gives back the error when that fails.
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>

#include "posix.h"

extern char **environ;

namespace cm::platform {

// A child that has ended stays a zombie until its record is released, so its number, which is also that of its group,
// names nobody else as long as there is a record.
struct Process {
    pid_t id = -1;
    std::atomic<bool> killed = false;  // by any thread, while others wait
    std::atomic<bool> gone = false;    // somebody else took the zombie: the number may be a stranger's by now
    int handle = -1;  // readable once the child has ended; -1: not to be had, so it is asked for now and then
    Process *next = nullptr;
};

namespace system {

using posix::Deadline;
using posix::error_number;
using posix::MutexGuard;
using posix::repeat;

namespace {

// ---- the command line -----------------------------------------------------------------------------------------------

bool is_blank(char c) {
    return c == ' ' || c == '\t';
}

// Splits a command line into words as Windows programs see them.  The first word, the program, ends at a blank, or at
// the second quote when it begins with one, and knows no escapes.  In the others a run of backslashes before a quote is
// halved, and an odd one makes the quote a letter; a second quote right after one that ends a quoted part is a letter.
class CommandWords {
public:
    CommandWords() = default;
    ~CommandWords() { os.release(words_); }
    CommandWords(const CommandWords &) = delete;
    CommandWords &operator=(const CommandWords &) = delete;

    bool split(const char *command) {
        while (is_blank(*command)) command++;
        const size_t length = strlen(command);
        // No more words than every second byte, and a null; then the text, which never gets longer.
        const size_t slots = length / 2 + 2;
        words_ = static_cast<char **>(os.allocate(slots * sizeof(char *) + length + 1));
        if (words_ == nullptr) return false;
        from_ = command;
        to_ = reinterpret_cast<char *>(words_ + slots);
        program();
        while (skip_blanks(), *from_ != '\0') word();
        words_[count_] = nullptr;
        return true;
    }

    char *const *words() const { return words_; }

private:
    void skip_blanks() {
        while (is_blank(*from_)) from_++;
    }
    void begin() { words_[count_++] = to_; }
    void end() { *to_++ = '\0'; }

    void program() {
        begin();
        const bool quoted = *from_ == '"';
        if (quoted) from_++;
        while (*from_ != '\0' && !(quoted ? *from_ == '"' : is_blank(*from_))) *to_++ = *from_++;
        if (*from_ != '\0') from_++;
        end();
    }

    void word() {
        begin();
        bool quoted = false;
        while (*from_ != '\0' && (quoted || !is_blank(*from_))) {
            size_t slashes = 0;
            while (from_[slashes] == '\\') slashes++;
            from_ += slashes;
            if (*from_ != '"') {
                put_slashes(slashes);
                if (slashes == 0) *to_++ = *from_++;
                continue;
            }
            put_slashes(slashes / 2);
            from_++;
            if (slashes % 2 != 0) {
                *to_++ = '"';
            } else if (quoted && *from_ == '"') {
                *to_++ = *from_++;
                quoted = false;
            } else {
                quoted = !quoted;
            }
        }
        end();
    }

    void put_slashes(size_t count) {
        memset(to_, '\\', count);
        to_ += count;
    }

    char **words_ = nullptr;
    size_t count_ = 0;
    const char *from_ = nullptr;
    char *to_ = nullptr;
};

// ---- the program ----------------------------------------------------------------------------------------------------

// The file that a program name means: itself with a separator in it, else the first match in PATH.  Empty entries of
// PATH, which mean the working directory, are passed over.
Error find_program(const char *name, char *out, size_t size) {
    if (name[0] == '\0') return ENOENT;
    if (strchr(name, '/') != nullptr) {
        if (strlen(name) >= size) return ENAMETOOLONG;
        strcpy(out, name);
        return 0;
    }
    const char *path = os.environment("PATH");
    if (path == nullptr) path = "/usr/local/bin:/usr/bin:/bin";
    Error error = ENOENT;
    for (;;) {
        const size_t length = strcspn(path, ":");
        const int made =
            snprintf(out, size, "%.*s/%s", static_cast<int>(std::min<size_t>(length, PATH_MAX)), path, name);
        struct stat status;
        if (length > 0 && made > 0 && static_cast<size_t>(made) < size && stat(out, &status) == 0 &&
            S_ISREG(status.st_mode)) {
            if (faccessat(AT_FDCWD, out, X_OK, AT_EACCESS) == 0) return 0;
            error = error_number(errno);
        }
        if (path[length] == '\0') return error;
        path += length + 1;
    }
}

// The three descriptors, moved out of the range 0 to 2, where setting one could overwrite another.
class Standard {
public:
    Standard() = default;
    ~Standard() {
        for (int moved : moved_)
            if (moved != -1) close(moved);
    }
    Standard(const Standard &) = delete;
    Standard &operator=(const Standard &) = delete;

    Error take(const int32_t standard[3]) {
        for (int i = 0; i < 3; i++) {
            use_[i] = standard[i];
            if (standard[i] < 0 || standard[i] > STDERR_FILENO || standard[i] == i) continue;
            moved_[i] = use_[i] = fcntl(standard[i], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
            if (moved_[i] == -1) return error_number(errno);
        }
        return 0;
    }

    int add_to(posix_spawn_file_actions_t *actions) const {
        for (int i = 0; i < 3; i++) {
            const int error = use_[i] < 0 ? posix_spawn_file_actions_addopen(actions, i, "/dev/null", O_RDWR, 0)
                                          : posix_spawn_file_actions_adddup2(actions, use_[i], i);
            if (error != 0) return error;
        }
        return posix_spawn_file_actions_addclosefrom_np(actions, STDERR_FILENO + 1);
    }

private:
    int use_[3] = {-1, -1, -1};
    int moved_[3] = {-1, -1, -1};
};

int spawn(const char *program, char *const *words, const char *directory, const Standard &standard, pid_t *out_id) {
    posix::RegionGuard region;  // the C library allocates
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    int error = posix_spawn_file_actions_init(&actions);
    if (error != 0) return error;
    if ((error = posix_spawnattr_init(&attributes)) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return error;
    }
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    error = standard.add_to(&actions);
    if (error == 0 && directory != nullptr) error = posix_spawn_file_actions_addchdir_np(&actions, directory);
    if (error == 0) error = posix_spawn(out_id, program, &actions, &attributes, words, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

// ---- children -------------------------------------------------------------------------------------------------------

// Records that were released while their child ran.  They are looked at when the next child starts, so that no more
// zombies stay than there were children at one time.
pthread_mutex_t left_running_mutex = PTHREAD_MUTEX_INITIALIZER;
Process *left_running = nullptr;

bool reap(const Process *process) {
    return repeat([&] { return waitpid(process->id, nullptr, WNOHANG); }) != 0;  // also when there is no such child
}

void forget(Process *process) {
    if (process->handle != -1) close(process->handle);
    os.release(process);
}

void reap_left_running() {
    MutexGuard guard(left_running_mutex);
    for (Process **at = &left_running; *at != nullptr;) {
        Process *process = *at;
        if (reap(process)) {
            *at = process->next;
            forget(process);
        } else {
            at = &process->next;
        }
    }
}

// Whether the child has ended; it stays a zombie.  A child that another part of the process reaped has ended too.
bool has_ended(Process *process, int32_t *out_exit_code) {
    siginfo_t info = {};
    const int result =
        repeat([&] { return waitid(P_PID, static_cast<id_t>(process->id), &info, WEXITED | WNOWAIT | WNOHANG); });
    int32_t ignored;
    if (out_exit_code == nullptr) out_exit_code = &ignored;
    if (result != 0) {
        *out_exit_code = -1;
        process->gone = errno == ECHILD;
        return process->gone;
    }
    if (info.si_pid != process->id) return false;
    *out_exit_code = info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
    return true;
}

// The thread was asked to end, which does not end the wait for a child that is about to go.
bool gives_up(const Process *process) {
    return !process->killed && thread_asked();
}

// Waits until the child has ended or time is up, or for a while where the system cannot tell the end.
bool wait_for_end(const Process *process, int32_t left_ms) {
    if (process->handle == -1) left_ms = left_ms == kForever ? 10 : std::min(left_ms, 10);
    pollfd entry = {process->handle, POLLIN, 0};
    return poll(&entry, 1, left_ms) >= 0 || (errno == EINTR && !gives_up(process));
}

}  // namespace

Error process_start(const char *command, const char *directory, const int32_t standard[3], Process **out_process) {
    reap_left_running();
    CommandWords words;
    if (!words.split(command)) return ENOMEM;
    char program[PATH_MAX];
    if (const Error error = find_program(words.words()[0], program, sizeof program)) return error;
    Standard descriptors;
    if (const Error error = descriptors.take(standard)) return error;
    void *memory = os.allocate(sizeof(Process));
    if (memory == nullptr) return ENOMEM;
    Process *process = new (memory) Process;
    if (const int error = spawn(program, words.words(), directory, descriptors, &process->id)) {
        os.release(process);
        return error_number(error);
    }
    process->handle = static_cast<int>(syscall(SYS_pidfd_open, process->id, 0));
    *out_process = process;
    return 0;
}

bool process_wait(Process *process, int32_t timeout_ms, int32_t *out_exit_code) {
    const Deadline limit(timeout_ms);
    int32_t unwanted = 0;
    if (out_exit_code == nullptr) out_exit_code = &unwanted;
    for (;;) {
        if (has_ended(process, out_exit_code)) return true;
        const int32_t left = limit.left_ms();
        if (left == 0 || gives_up(process) || !wait_for_end(process, left)) return false;
    }
}

void process_kill(Process *process) {
    process->killed = true;
    if (!process->gone) kill(-process->id, SIGKILL);
}

int32_t process_id(Process *process) {
    return process->id;
}

void process_release(Process *process) {
    if (process == nullptr) return;
    if (reap(process)) {
        forget(process);
        return;
    }
    MutexGuard guard(left_running_mutex);
    process->next = left_running;
    left_running = process;
}

}  // namespace system
}  // namespace cm::platform
