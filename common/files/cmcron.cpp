// The scheduler: registering tasks, and the thread that runs them.
#include "files/cmcron.h"

#include <string.h>

#include <initializer_list>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "core/relaxed.h"
#include "platform/platform.h"

namespace cm::cron {

using platform::os;

namespace {

constexpr int32_t kWakeInterval = 6000;  // milliseconds; every tenth wake-up works
constexpr int32_t kWakesPerRound = 10;
constexpr int64_t kNoTime = INT64_MIN;  // the clock could not be read: nothing was missed since

// Words that stand for a whole period.
struct Alias {
    std::string_view word, period;
};
constexpr Alias kAliases[] = {{"timeout", "* * * * *"},
                              {"hourly", "0 * * * *"},
                              {"daily", "0 0 * * *"},
                              {"weekly", "0 0 * * sun"},
                              {"monthly", "0 0 1 * *"}};

std::string_view without_leading_blanks(std::string_view text) {
    while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
    return text;
}

// A copy of a text in the context's pool, never none.
char *copy_text(cm_context *ctx, std::string_view text) {
    if (text.size() >= INT32_MAX) return nullptr;
    auto *copy = static_cast<char *>(shared_allocate(ctx, static_cast<uint32_t>(text.size()) + 1));
    if (copy == nullptr) return nullptr;
    if (!text.empty()) memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

void append(cm_cron *cron, cm_cron_rec **list, cm_cron_rec *task) {
    const MutexGuard guard(cron->lock);
    while (*list != nullptr) list = &(*list)->next;
    *list = task;
}

// The newest registered function whose name begins the command.
cm_task_fn function_of(cm_cron *cron, const char *command) {
    const MutexGuard guard(cron->lock);
    for (const cm_cron_fn *entry = cron->functions; entry != nullptr; entry = entry->next)
        if (cm_strncasecmp(command, entry->name, static_cast<int32_t>(strlen(entry->name))) == 0)
            return entry->function;
    return cm__cron_usertask;
}

// Attaching, starting and detaching happen under the mutex of the threads, one at a time; a state that was detached
// stays valid until the library ends, so whoever has it may go on.
cm_cron *state_of(const cm_context *ctx) {
    return __atomic_load_n(&ctx->cron, __ATOMIC_ACQUIRE);
}

void attach(cm_context *ctx, cm_cron *cron) {
    __atomic_store_n(&ctx->cron, cron, __ATOMIC_RELEASE);
}

bool may_run(const cm_cron *cron) {
    return load_relaxed(cron->stop) == 0 && (load_relaxed(cron->ctx->flags) & CTX_SHUTDOWN) == 0;
}

int16_t CM_CALL run_threaded(cm_thread *self, cm_value argument) {
    auto *task = reinterpret_cast<cm_cron_rec *>(argument);
    if (task->function(task->ctx, task->name, task->argument) != 1)
        report(task->ctx, CM_ERROR, "cm__cron_usertask(): Task '%s' failed.", task->name);
    store_relaxed(task->state, int32_t{kIdle});
    return 1;
}

void run(cm_cron_rec *task) {
    if (__atomic_exchange_n(&task->state, int32_t{kRunning}, __ATOMIC_RELAXED) == kRunning) return;
    if (task->threaded == 1) {
        // The record of the thread is its own once it runs: nothing is read through it here.
        if (cm_create_thread(task->ctx, run_threaded, reinterpret_cast<cm_value>(task), "CRON Task", &task->thread))
            return;
        report(task->ctx, CM_ERROR, "Failed to start CRON task thread.");
    } else if (task->function(task->ctx, task->name, task->argument) != 1) {
        report(task->ctx, CM_ERROR, "The scheduler task '%s' failed.", task->name);
    }
    store_relaxed(task->state, int32_t{kIdle});
}

cm_cron_rec *next_of(cm_cron *cron, cm_cron_rec *task) {
    const MutexGuard guard(cron->lock);
    return task->next;
}

cm_cron_rec *first_of(cm_cron *cron, cm_cron_rec *const *list) {
    const MutexGuard guard(cron->lock);
    return *list;
}

// The next due task after `task`, or from the front; those that are not due are passed over under one hold of the lock.
cm_cron_rec *next_due(cm_cron *cron, const cm_cron_rec *task) {
    const MutexGuard guard(cron->lock);
    cm_cron_rec *next = task == nullptr ? cron->periodic : task->next;
    while (next != nullptr && load_relaxed(next->state) != kDue) next = next->next;
    return next;
}

void run_all(cm_cron *cron, cm_cron_rec *const *list) {
    for (cm_cron_rec *task = first_of(cron, list); task != nullptr; task = next_of(cron, task)) run(task);
}

// Whether the scheduler that the thread works for is still the process's.
bool is_current(const cm_cron *cron) {
    cm_context *global = nullptr;
    return cm_ctx_global(&global) && global == cron->ctx && load_relaxed(cron->ctx->cron) == cron && may_run(cron);
}

int16_t CM_CALL scheduler_thread(cm_thread *self, cm_value argument) {
    auto *cron = reinterpret_cast<cm_cron *>(argument);
    platform::WallTime now = {};
    cron->last = os.wall_clock(&now) ? now.seconds : kNoTime;
    load_schedule(cron);
    run_all(cron, &cron->startup);
    // Wake-ups are counted, not time: a machine that slept does its missed minutes within ten of them.
    for (int32_t wakes = 1; load_relaxed(cron->stop) == 0; wakes++) {
        os.event_wait(static_cast<platform::Event *>(cron->wake), kWakeInterval);
        if (os.thread_asked() || !is_current(cron)) {
            store_relaxed(cron->stop, int32_t{1});
            break;
        } else if (wakes % kWakesPerRound == 0 && os.wall_clock(&now)) {
            run_round(cron, now.seconds);
        }
    }
    return 1;
}

// The scheduler, started when it has no thread yet; null when that fails.
cm_cron *started(cm_context *ctx) {
    const MutexGuard guard(ctx->thread_mutex);
    if (ctx->cron != nullptr && ctx->cron->thread != nullptr) return ctx->cron;
    return cm_cron_start(ctx) != 0 ? ctx->cron : nullptr;
}

enum class PeriodKind { kNone, kNever, kAtStart, kAtStop, kFields };

PeriodKind kind_of(std::string_view period) {
    const std::string_view text = without_leading_blanks(period);
    if (equal_folded(text, "never")) return PeriodKind::kNever;
    if (text.empty() || text.front() == '#') return PeriodKind::kNone;
    if (equal_folded(text, "startup")) return PeriodKind::kAtStart;
    if (equal_folded(text, "shutdown")) return PeriodKind::kAtStop;
    return PeriodKind::kFields;
}

// The period's text from its first field on, with a word that stands for one replaced.
std::string_view fields_of(std::string_view period) {
    const std::string_view text = without_leading_blanks(period);
    for (const Alias &alias : kAliases)
        if (equal_folded(text, alias.word)) return alias.period;
    return text;
}

bool fill_in(cm_cron_rec *task, cm_cron *cron, const char *name, std::string_view fields) {
    while (!fields.empty() && is_space(fields.back())) fields.remove_suffix(1);
    task->ctx = cron->ctx;
    task->name = copy_text(cron->ctx, name);
    task->period = copy_text(cron->ctx, fields);
    return task->name != nullptr && task->period != nullptr;
}

}  // namespace

// What is left behind the fields is the command; an argument stands in where there is none.  With a function a period
// that does not parse is registered all the same, with the sets that were filled.
bool add_task(cm_cron *cron, const char *name, cm_task_fn function, cm_value argument, int32_t origin, int32_t threaded,
              const char *period) {
    const PeriodKind kind = kind_of(period);
    if (kind == PeriodKind::kNever || kind == PeriodKind::kNone) return kind == PeriodKind::kNever;
    auto *task = static_cast<cm_cron_rec *>(shared_allocate(cron->ctx, sizeof(cm_cron_rec)));
    if (task == nullptr) return false;
    memset(task, 0, sizeof *task);
    std::string_view fields = fields_of(period), command = {};
    bool valid = true;
    if (kind == PeriodKind::kFields) {
        command = fields;
        valid = parse_period(command, sets_of(task));
        if (!valid) command = {};
        fields.remove_suffix(command.size());
        apply_day_rule(sets_of(task));
    }
    if (function == nullptr) {
        const char *text = command.empty() ? reinterpret_cast<const char *>(argument) : command.data();
        if (!valid || text == nullptr || *text == '\0') return false;
        function = function_of(cron, text);
    }
    if (argument == 0 && !command.empty()) {
        argument = reinterpret_cast<cm_value>(copy_text(cron->ctx, command));
        if (argument == 0) return false;
    }
    if (!fill_in(task, cron, name, fields)) return false;
    task->origin = origin;
    task->threaded = threaded;
    task->argument = argument;
    task->function = function;
    append(cron,
           kind == PeriodKind::kAtStart  ? &cron->startup
           : kind == PeriodKind::kAtStop ? &cron->shutdown
                                         : &cron->periodic,
           task);
    return true;
}

void run_round(cm_cron *cron, int64_t now) {
    load_schedule(cron);
    {
        const MutexGuard guard(cron->lock);
        if (cron->last != kNoTime && now > cron->last) mark_due(cron->periodic, cron->last, now);
    }
    cm_cron_rec *task = nullptr;
    while (may_run(cron) && (task = next_due(cron, task)) != nullptr) run(task);
    cron->last = now;
}

void unlink_cron_section(cm_cron *cron) {
    const MutexGuard guard(cron->lock);
    for (cm_cron_rec **list : {&cron->periodic, &cron->startup, &cron->shutdown})
        while (*list != nullptr) {
            // The unlinked record keeps its link: a walk that stands on it goes on from there.
            if ((*list)->origin == kOriginCronSection)
                *list = (*list)->next;
            else
                list = &(*list)->next;
        }
}

void release_all(cm_context *ctx) {
    for (cm_cron *cron = ctx->cron_states; cron != nullptr; cron = cron->next_state) {
        cm_delete_mutex(cron->lock);
        os.event_destroy(static_cast<platform::Event *>(cron->wake));
    }
    ctx->cron_states = nullptr;
    ctx->cron = nullptr;
}

}  // namespace cm::cron

using namespace cm;
using platform::os;

CM_API int16_t CM_CALL cm_cron_init(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    const MutexGuard guard(ctx->thread_mutex);
    if (ctx->cron != nullptr) return 1;
    auto *cron = static_cast<cm_cron *>(shared_allocate(ctx, sizeof(cm_cron)));
    if (cron == nullptr) return 0;
    memset(cron, 0, sizeof *cron);
    cron->ctx = ctx;
    cron->wake = os.event_create();
    if (cron->wake == nullptr) return 0;
    if (!cm_create_mutex(ctx, &cron->lock)) {
        os.event_destroy(static_cast<platform::Event *>(cron->wake));
        return 0;
    }
    cron->next_state = ctx->cron_states;
    ctx->cron_states = cron;
    cron::attach(ctx, cron);
    return 1;
}

CM_API int16_t CM_CALL cm_cron_start(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    const MutexGuard guard(ctx->thread_mutex);
    if (!cm_cron_init(ctx)) return 0;
    cm_cron *cron = ctx->cron;
    // A second thread would run everything twice.
    if (cron->thread != nullptr && load_relaxed(cron->stop) == 0) return 1;
    store_relaxed(cron->stop, int32_t{0});
    if (cm_create_thread(ctx, cron::scheduler_thread, reinterpret_cast<cm_value>(cron), "CRON", &cron->thread))
        return 1;
    report(ctx, CM_ERROR, "Failed to start CRON thread.");
    cron::attach(ctx, nullptr);
    return 0;
}

CM_API int16_t CM_CALL cm_cron_stop(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    cm_cron *cron = cron::state_of(ctx);
    if (cron == nullptr) return 1;
    cron::run_all(cron, &cron->shutdown);
    {
        const MutexGuard guard(ctx->thread_mutex);
        store_relaxed(cron->stop, int32_t{1});
        if (ctx->cron == cron) cron::attach(ctx, nullptr);
    }
    os.event_set(static_cast<platform::Event *>(cron->wake));
    report(ctx, CM_INFO, "CRON Scheduler signaled to shutdown...");
    return 1;
}

CM_API int16_t CM_CALL cm_cron_func(cm_context *ctx, const char *name, cm_task_fn function) {
    cm_cron *cron = ctx == nullptr ? nullptr : cron::state_of(ctx);
    if (cron == nullptr || name == nullptr || function == nullptr) return 0;
    auto *entry = static_cast<cm_cron_fn *>(shared_allocate(ctx, sizeof(cm_cron_fn)));
    char *copy = entry == nullptr ? nullptr : cron::copy_text(ctx, name);
    if (copy == nullptr) return 0;
    entry->name = copy;
    entry->function = function;
    const MutexGuard guard(cron->lock);
    entry->next = cron->functions;
    cron->functions = entry;
    return 1;
}

CM_API int16_t CM_CALL cm_cron_task(cm_context *ctx, const char *name, cm_task_fn function, cm_value argument,
                                    int32_t origin, int32_t threaded, const char *period) {
    if (ctx == nullptr || name == nullptr || period == nullptr) return 0;
    switch (cron::kind_of(period)) {
        case cron::PeriodKind::kNever:
            return 1;
        case cron::PeriodKind::kNone:
            return 0;
        default:
            break;
    }
    cm_cron *cron = cron::started(ctx);
    return cron != nullptr && cron::add_task(cron, name, function, argument, origin, threaded, period);
}

CM_API int16_t CM_CALL cm_cron_remove(cm_context *ctx, const char *name) {
    cm_cron *cron = ctx == nullptr ? nullptr : cron::state_of(ctx);
    if (cron == nullptr || name == nullptr) return 0;
    const MutexGuard guard(cron->lock);
    for (cm_cron_rec **task = &cron->periodic; *task != nullptr; task = &(*task)->next)
        if (strcmp((*task)->name, name) == 0) {
            *task = (*task)->next;
            return 1;
        }
    return 0;
}
