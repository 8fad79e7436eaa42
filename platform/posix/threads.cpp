// Threads, and how one is made to end.
//
// A thread that is asked to end has the mark kAsked in the word that it sleeps on, so sleeps and event waits see it at
// once and never miss it.  Waits inside the kernel (poll, receive, accept) are broken off by a signal whose handler
// does nothing; a signal that comes just before such a wait is lost, so whoever waits for the thread's end repeats it.
//
// The same signal parks a thread: its handler never returns.  It must not do that while somebody would wait for the
// thread, so not inside a region (posix.h), where the thread parks at the region's end instead, and not inside the C
// library or the allocator, where it may hold a lock that is not ours; then a later signal tries again.
#include <dlfcn.h>
#include <link.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <new>

#include "posix.h"

namespace cm::platform {

struct Thread {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed;   // `ended` was set, or the thread was asked
    pthread_t id = {};        // under mutex
    bool ended = false;       // under mutex: it runs nothing of its entry any more
    bool given_back = false;  // under mutex: `id` was joined or detached and names nothing
    std::atomic<bool> park{false};
    std::atomic<bool> parked{false};
    std::atomic<int> owners{2};  // the thread and the holder of the record
    posix::Waiter waiter;
    ThreadEntry entry = nullptr;
    void *argument = nullptr;
};

namespace posix {

constinit thread_local Region own_region = {};

namespace {

constinit thread_local Thread *self __attribute__((tls_model("initial-exec"))) = nullptr;
constinit thread_local Waiter foreign_waiter __attribute__((tls_model("initial-exec")));  // of a thread not ours

constexpr int32_t kRepeatSignalMs = 4;
constexpr int32_t kParkLimitMs = 500;

// ---- the signal -----------------------------------------------------------------------------------------------------

int wake_signal = 0;

struct CodeRange {
    uintptr_t first, end;
    bool holds(uintptr_t address) const { return address >= first && address < end; }
};
// Of the C library, the allocator that may stand in for its own, the loader, and the kernel's part that reads the
// clock.
CodeRange guarded_code[4];

uintptr_t address_of(const char *function) {
    return reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, function));
}

void find_code(uintptr_t address, CodeRange *out) {
    struct Search {
        uintptr_t address;
        CodeRange *out;
    } search = {address, out};
    dl_iterate_phdr(
        [](dl_phdr_info *object, size_t, void *argument) {
            const Search *wanted = static_cast<Search *>(argument);
            if (object->dlpi_name == nullptr || object->dlpi_name[0] == '\0') return 0;  // the program itself
            for (int i = 0; i < object->dlpi_phnum; i++) {
                const ElfW(Phdr) &part = object->dlpi_phdr[i];
                if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
                const uintptr_t first = object->dlpi_addr + part.p_vaddr;
                const CodeRange code = {first, first + part.p_memsz};
                if (code.holds(wanted->address)) *wanted->out = code;
            }
            return 0;
        },
        &search);
}

// Whether the interrupted code may hold a lock that is not ours.  It does not when a system call was broken off: those
// that are made with a lock held cannot be, but for the one that sleeps on a word, which waits for a second lock.
bool in_guarded_code(const void *context) {
#if defined(__x86_64__)
    const auto &registers = static_cast<const ucontext_t *>(context)->uc_mcontext.gregs;
    const uintptr_t next = static_cast<uintptr_t>(registers[REG_RIP]);
    if (std::none_of(std::begin(guarded_code), std::end(guarded_code), [&](auto &code) { return code.holds(next); }))
        return false;
    const unsigned char *code = reinterpret_cast<const unsigned char *>(next);
    const bool broken_off = code[-2] == 0x0F && code[-1] == 0x05 && registers[REG_RAX] == -EINTR;
    // The call's number is gone by now, its arguments are not: an address, and an operation.
    const auto operation = registers[REG_RSI] & ~static_cast<greg_t>(FUTEX_CLOCK_REALTIME);
    const bool sleeps_on_word = operation == FUTEX_WAIT_PRIVATE || operation == FUTEX_WAIT_BITSET_PRIVATE;
    return !broken_off || sleeps_on_word;
#else
    return context == nullptr;
#endif
}

void on_signal(int, siginfo_t *, void *context) {
    if (self == nullptr || !self->park.load(std::memory_order_relaxed)) return;
    if (own_region.depth > 0)
        own_region.park_at_end = true;
    else if (!in_guarded_code(context))
        park_self();
}

// Takes the first signal that the host does not use.  SIGURG is ignored by default, so a stray one harms nobody.
void take_signal() {
    find_code(address_of("gnu_get_libc_version"), &guarded_code[0]);
    find_code(address_of("malloc"), &guarded_code[1]);
    find_code(address_of("__tls_get_addr"), &guarded_code[2]);
    find_code(getauxval(AT_SYSINFO_EHDR), &guarded_code[3]);
    struct sigaction ours = {};
    ours.sa_sigaction = on_signal;
    ours.sa_flags = SA_SIGINFO;  // not SA_RESTART: system calls shall be broken off
    sigfillset(&ours.sa_mask);
    for (int number : {SIGURG, SIGRTMAX - 1, SIGRTMAX - 2, SIGRTMAX - 3, SIGRTMAX - 4}) {
        struct sigaction before = {};
        if (sigaction(number, nullptr, &before) != 0 || (before.sa_flags & SA_SIGINFO) != 0) continue;
        if (before.sa_handler != SIG_DFL && before.sa_handler != SIG_IGN) continue;
        if (sigaction(number, &ours, nullptr) != 0) continue;
        wake_signal = number;
        return;
    }
}

// ---- records --------------------------------------------------------------------------------------------------------

void let_go(Thread *thread) {
    if (thread->owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    pthread_cond_destroy(&thread->changed);
    pthread_mutex_destroy(&thread->mutex);
    thread->~Thread();
    os.release(thread);
}

void *run(void *argument) {
    Thread *thread = static_cast<Thread *>(argument);
    {
        MutexGuard guard(thread->mutex);  // the starter holds it until `id` is set
    }
    self = thread;
    sigset_t open;
    sigemptyset(&open);
    sigaddset(&open, wake_signal);
    pthread_sigmask(SIG_UNBLOCK, &open, nullptr);

    thread->entry(thread->argument);

    self = nullptr;  // from here on the signal does nothing
    own_region.park_at_end = false;
    pthread_mutex_lock(&thread->mutex);
    thread->ended = true;
    pthread_cond_broadcast(&thread->changed);
    pthread_mutex_unlock(&thread->mutex);
    let_go(thread);
    return nullptr;
}

Thread *make_record(ThreadEntry entry, void *argument) {
    void *memory = os.allocate(sizeof(Thread));
    if (memory == nullptr) return nullptr;
    Thread *thread = new (memory) Thread;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&thread->changed, &attributes);
    pthread_condattr_destroy(&attributes);
    thread->entry = entry;
    thread->argument = argument;
    return thread;
}

// With the record's mutex held.
void send_signal(Thread *thread) {
    if (!thread->ended && !thread->given_back) pthread_kill(thread->id, wake_signal);
}

// With the record's mutex held: the thread is past its entry, so this takes no time to speak of.
void join_ended(Thread *thread) {
    if (!thread->given_back) pthread_join(thread->id, nullptr);
    thread->given_back = true;
}

timespec soon(int32_t milliseconds) {
    return Deadline(milliseconds).absolute();
}

}  // namespace

Waiter &own_waiter() {
    return self != nullptr ? self->waiter : foreign_waiter;
}

bool futex_wait(const std::atomic<uint32_t> &word, uint32_t value, const Deadline &limit) {
    const timespec until = limit.absolute();
    const long result = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, value,
                                limit.forever() ? nullptr : &until, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result == 0 || errno != ETIMEDOUT;
}

void futex_wake(const std::atomic<uint32_t> &word) {
    syscall(SYS_futex, &word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, 1, nullptr, nullptr, 0);
}

void park_self() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    self->parked.store(true, std::memory_order_release);
    for (;;) pause();
}

}  // namespace posix

namespace system {

using posix::Deadline;
using posix::MutexGuard;
using posix::Waiter;

Error thread_start(ThreadEntry entry, void *argument, Thread **out_thread) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, posix::take_signal);
    if (posix::wake_signal == 0) return EBUSY;  // the host has handlers for every signal that would do
    Thread *thread = posix::make_record(entry, argument);
    if (thread == nullptr) return ENOMEM;
    int error = 0;
    {
        MutexGuard guard(thread->mutex);
        error = pthread_create(&thread->id, nullptr, posix::run, thread);
    }
    if (error != 0) {
        thread->owners.store(1, std::memory_order_relaxed);
        posix::let_go(thread);
        return error;
    }
    *out_thread = thread;
    return 0;
}

void thread_ask(Thread *thread) {
    thread->waiter.add(Waiter::kAsked);
    MutexGuard guard(thread->mutex);
    posix::send_signal(thread);
    pthread_cond_broadcast(&thread->changed);  // a joiner goes on to repeat the signal
}

bool thread_join(Thread *thread, int32_t timeout_ms) {
    if (thread == posix::self) return false;
    const Deadline limit(timeout_ms);
    MutexGuard guard(thread->mutex);
    while (!thread->ended) {
        const int32_t left = limit.left_ms();
        if (left == 0) return false;
        int32_t wait = left;
        if (thread->waiter.asked()) {
            posix::send_signal(thread);
            wait = left == kForever ? posix::kRepeatSignalMs : std::min(left, posix::kRepeatSignalMs);
        }
        if (wait == kForever) {
            pthread_cond_wait(&thread->changed, &thread->mutex);
        } else {
            const timespec until = posix::soon(wait);
            pthread_cond_timedwait(&thread->changed, &thread->mutex, &until);
        }
    }
    posix::join_ended(thread);
    return true;
}

bool thread_park(Thread *thread) {
    if (thread == posix::self) return false;
    thread->park.store(true, std::memory_order_relaxed);
    thread_ask(thread);
    const Deadline limit(posix::kParkLimitMs);
    for (;;) {
        if (thread->parked.load(std::memory_order_acquire)) return true;
        const int32_t left = limit.left_ms();
        if (thread_join(thread, std::min(left, 1))) return true;
        if (left == 0) return false;
    }
}

void thread_release(Thread *thread) {
    {
        MutexGuard guard(thread->mutex);
        if (thread->ended) posix::join_ended(thread);
        if (!thread->given_back) pthread_detach(thread->id);
        thread->given_back = true;
    }
    posix::let_go(thread);
}

Thread *thread_self() {
    return posix::self;
}

bool thread_asked() {
    return posix::self != nullptr && posix::self->waiter.asked();
}

void thread_yield() {
    sched_yield();
}

}  // namespace system
}  // namespace cm::platform
