// Starting a child and waiting for its end, beside the spawn call of the C library.
#include <spawn.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>

#include "ratio.h"
#include "tilvarcm.h"

extern char **environ;

namespace {

char program[] = "/bin/true";

void ours() {
    int32_t code = -1;
    if (cm_exec(nullptr, program, nullptr, 60, &code) != 1 || code != 0) abort();
}

void ours_by_handle() {
    cm_value process = 0;
    if (cm_spawn(nullptr, program, nullptr, &process) != 1) abort();
    if (cm_waitforobject(process, 60000) != 1 || cm_exitcode(process, nullptr) != 1) abort();
}

void peer() {
    char *const words[] = {program, nullptr};
    pid_t id = -1;
    int status = -1;
    if (posix_spawn(&id, program, nullptr, nullptr, words, environ) != 0) abort();
    if (waitpid(id, &status, 0) != id || status != 0) abort();
}

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    rows.pair("child to its end: cm_exec", 1, ours, peer, "<= 1.1");
    rows.pair("child to its end: cm_spawn", 1, ours_by_handle, peer, "<= 1.1");
    return rows.failures();
}
