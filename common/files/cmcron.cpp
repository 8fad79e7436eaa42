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
    store_relaxed(task->state, int32_t{kRunning});
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
    os.wall_clock(&now);
    cron->last = now.seconds;
    load_schedule(cron);
    run_all(cron, &cron->startup);
    // Wake-ups are counted, not time: a machine that slept does its missed minutes within ten of them.
    for (int32_t wakes = 1; load_relaxed(cron->stop) == 0; wakes++) {
        os.event_wait(static_cast<platform::Event *>(cron->wake), kWakeInterval);
        if (os.thread_asked() || !is_current(cron)) {
            store_relaxed(cron->stop, int32_t{1});
        } else if (wakes % kWakesPerRound == 0 && os.wall_clock(&now)) {
            run_round(cron, now.seconds);
        }
    }
    return 1;
}

}  // namespace

void run_round(cm_cron *cron, int64_t now) {
    load_schedule(cron);
    {
        const MutexGuard guard(cron->lock);
        if (now > cron->last) mark_due(cron->periodic, cron->last, now);
    }
    for (cm_cron_rec *task = first_of(cron, &cron->periodic); task != nullptr; task = next_of(cron, task)) {
        if (!may_run(cron)) break;
        if (load_relaxed(task->state) == kDue) run(task);
    }
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
    store_relaxed(ctx->cron, cron);
    return 1;
}

CM_API int16_t CM_CALL cm_cron_start(cm_context *ctx) {
    if (ctx == nullptr || !cm_cron_init(ctx)) return 0;
    cm_cron *cron = ctx->cron;
    store_relaxed(cron->stop, int32_t{0});
    if (cm_create_thread(ctx, cron::scheduler_thread, reinterpret_cast<cm_value>(cron), "CRON", &cron->thread))
        return 1;
    report(ctx, CM_ERROR, "Failed to start CRON thread.");
    store_relaxed(ctx->cron, static_cast<cm_cron *>(nullptr));
    return 0;
}

CM_API int16_t CM_CALL cm_cron_stop(cm_context *ctx) {
    if (ctx == nullptr) return 0;
    cm_cron *cron = ctx->cron;
    if (cron == nullptr) return 1;
    cron::run_all(cron, &cron->shutdown);
    store_relaxed(cron->stop, int32_t{1});
    store_relaxed(ctx->cron, static_cast<cm_cron *>(nullptr));
    os.event_set(static_cast<platform::Event *>(cron->wake));
    report(ctx, CM_INFO, "CRON Scheduler signaled to shutdown...");
    return 1;
}

CM_API int16_t CM_CALL cm_cron_func(cm_context *ctx, const char *name, cm_task_fn function) {
    if (ctx == nullptr || ctx->cron == nullptr || name == nullptr || function == nullptr) return 0;
    auto *entry = static_cast<cm_cron_fn *>(shared_allocate(ctx, sizeof(cm_cron_fn)));
    char *copy = entry == nullptr ? nullptr : cron::copy_text(ctx, name);
    if (copy == nullptr) return 0;
    entry->name = copy;
    entry->function = function;
    const MutexGuard guard(ctx->cron->lock);
    entry->next = ctx->cron->functions;
    ctx->cron->functions = entry;
    return 1;
}

CM_API int16_t CM_CALL cm_cron_task(cm_context *ctx, const char *name, cm_task_fn function, cm_value argument,
                                    int32_t origin, int32_t threaded, const char *period) {
    if (ctx == nullptr || name == nullptr || period == nullptr) return 0;
    std::string_view text = cron::without_leading_blanks(period);
    if (equal_folded(text, "never")) return 1;
    if (text.empty() || text.front() == '#') return 0;
    for (const cron::Alias &alias : cron::kAliases)
        if (equal_folded(text, alias.word)) text = alias.period;
    if (ctx->cron == nullptr || ctx->cron->thread == nullptr)
        if (!cm_cron_start(ctx)) return 0;
    cm_cron *scheduler = ctx->cron;

    auto *task = static_cast<cm_cron_rec *>(shared_allocate(ctx, sizeof(cm_cron_rec)));
    if (task == nullptr) return 0;
    memset(task, 0, sizeof *task);
    const bool at_start = equal_folded(text, "startup"), at_stop = equal_folded(text, "shutdown");
    const std::string_view whole = text;
    bool valid = true;
    if (at_start || at_stop)
        text = {};
    else
        valid = cron::parse_period(text, cron::sets_of(task));

    // What is left behind the fields is the command, where an argument does not stand in for it.  With a function a
    // period that did not parse is registered all the same, with the sets that were filled.
    const char *command = text.empty() ? reinterpret_cast<const char *>(argument) : text.data();
    if (function == nullptr && (!valid || command == nullptr || *command == '\0')) return 0;
    if (function == nullptr) function = cron::function_of(scheduler, command);
    if (argument == 0 && valid && !text.empty()) {
        argument = reinterpret_cast<cm_value>(cron::copy_text(ctx, text));
        if (argument == 0) return 0;
    }
    std::string_view fields = whole;
    fields.remove_suffix(text.size());
    while (!fields.empty() && is_space(fields.back())) fields.remove_suffix(1);
    task->ctx = ctx;
    task->origin = origin;
    task->threaded = threaded;
    task->argument = argument;
    task->function = function;
    task->name = cron::copy_text(ctx, name);
    task->period = cron::copy_text(ctx, fields);
    if (task->name == nullptr || task->period == nullptr) return 0;
    if (!at_start && !at_stop) cron::apply_day_rule(cron::sets_of(task));
    cron::append(scheduler,
                 at_start  ? &scheduler->startup
                 : at_stop ? &scheduler->shutdown
                           : &scheduler->periodic,
                 task);
    return 1;
}

CM_API int16_t CM_CALL cm_cron_remove(cm_context *ctx, const char *name) {
    if (ctx == nullptr || ctx->cron == nullptr || name == nullptr) return 0;
    const MutexGuard guard(ctx->cron->lock);
    for (cm_cron_rec **task = &ctx->cron->periodic; *task != nullptr; task = &(*task)->next)
        if (strcmp((*task)->name, name) == 0) {
            *task = (*task)->next;
            return 1;
        }
    return 0;
}
