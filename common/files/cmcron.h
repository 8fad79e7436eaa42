// The scheduler inside the library: crontab periods, the task lists and the thread that runs what is due.
//
//   cmcron_period.cpp   the five fields of a period, and which tasks a minute makes due
//   cmcron.cpp          registering tasks, the "CRON" thread, running tasks
//   cmcron_file.cpp     schedule.ini
//   cmcron_command.cpp  commands as processes
//
// Tasks are marked due by the thread once a minute and run in list order.  Records live in the context's pool and are
// never freed, so a record that was unlinked while it ran stays valid; the lock guards the links and the states alone
// and is never held while a task runs.
#pragma once

#include <stdint.h>

#include <string_view>

#include "tilvarcm.h"

namespace cm::cron {

constexpr int32_t kOriginCronSection = 102;
constexpr int32_t kOriginAliasSection = 103;

enum TaskState : int32_t { kIdle = 0, kDue = 1, kRunning = 2 };

// ---- periods (pure) -------------------------------------------------------------------------------------------------

// Which values of each field a period names.
struct Sets {
    uint8_t *minute, *hour, *day, *month, *weekday;
};

inline Sets sets_of(cm_cron_rec *task) {
    return {task->minute, task->hour, task->day, task->month, task->weekday};
}

// Parses one field at the front of `text` into `count` flags; consumes it and the blanks behind it.  `names` (null, or
// ending with a null entry) are allowed in place of numbers.  False: not a field; the flags that the attempt set stay.
bool parse_field(std::string_view &text, uint8_t *flags, int32_t count, int32_t offset, const char *const *names);

// Parses the five fields; `text` is left behind them.  At the first field that fails the later ones stay empty.
bool parse_period(std::string_view &text, const Sets &sets);

// The day rule: of a restricted and an unrestricted day field only the restricted one counts.
void apply_day_rule(const Sets &sets);

// Marks every idle task of a list that a minute after `last` and up to `now` matches (seconds since 1970).  However far
// the clock jumped, the walk passes over days and hours in which nothing can match, goes back ten years at most, and
// ends when nothing is left to mark.
void mark_due(cm_cron_rec *tasks, int64_t last, int64_t now);

// ---- tasks ----------------------------------------------------------------------------------------------------------

// cm_cron_task for a scheduler that is there, and may have been told to stop meanwhile.
bool add_task(cm_cron *cron, const char *name, cm_task_fn function, cm_value argument, int32_t origin, int32_t threaded,
              const char *period);

// One round of the scheduler at that time: reload of schedule.ini, marking, running.
void run_round(cm_cron *cron, int64_t now);

// Reads schedule.ini when it has changed.  False: something in it stopped the reading.
bool load_schedule(cm_cron *cron);

// Unlinks every task of the cron section.
void unlink_cron_section(cm_cron *cron);

// Gives up the locks and events of every scheduler of this start; its threads have ended.
void release_all(cm_context *ctx);

}  // namespace cm::cron
