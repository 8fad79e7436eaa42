// Registering tasks, rounds of the scheduler, schedule.ini, the scheduler's thread.
#include <atomic>
#include <thread>

#include "core/cmthread.h"
#include "scheduler.h"
#include "support/data.h"
#include "support/failures.h"

using namespace cm::test;
using std::string;

namespace {

cm_cron_rec *task_of(cm_context *ctx, const char *name, bool with_function, const char *period) {
    ctx->cron->periodic = nullptr;
    const int16_t added = cm_cron_task(ctx, name, with_function ? note : nullptr, 0, 101, 0, period);
    EXPECT_TRUE(added == 1 || ctx->cron->periodic == nullptr);
    return added == 1 ? ctx->cron->periodic : nullptr;
}

TEST(Tasks, Registration) {
    const Library library;
    scheduler_by_hand(library);
    for (const Row &row : rows("schedule/registration"))
        for (const bool with_function : {true, false}) {
            SCOPED_TRACE(row.where);
            const cm_cron_rec *task = task_of(library, "task", with_function, row.text(0));
            EXPECT_EQ(task == nullptr ? "-" : task->period, row[with_function ? 1 : 2]);
        }
    EXPECT_EQ(cm_cron_task(library, "task", note, 0, 101, 0, "never"), 1);
    EXPECT_EQ(cm_cron_task(nullptr, "task", note, 0, 101, 0, "hourly"), 0);
    EXPECT_EQ(
        cm_cron_init(nullptr) + cm_cron_start(nullptr) + cm_cron_stop(nullptr) + cm__cron_usertask(library, "task", 0),
        0);
    for (const auto &[name, period] : {std::pair<const char *, const char *>{nullptr, "hourly"}, {"task", nullptr}})
        EXPECT_EQ(task_of(library, name, true, period), nullptr);
    EXPECT_EQ(cm_cron_func(library, nullptr, note) + cm_cron_func(library, "x", nullptr), 0);
}

TEST(Tasks, ScheduleFile) {
    Library library;
    EXPECT_TRUE(cm::cron::load_schedule(scheduler_by_hand(library)));  // there is none
    for (const Row &row : rows("schedule/schedule")) {
        library.folder().write("config/schedule.ini", row[0]);
        cm_cron *cron = scheduler_by_hand(library);
        EXPECT_EQ(cm::cron::load_schedule(cron), row[2].empty()) << row.where;
        EXPECT_EQ(listed(*cron), row[1]) << row.where;
        EXPECT_TRUE(row[2].empty() || library.log().back() == "ERROR: cm_cron_init(schedule.ini): " + row[2])
            << row.where << library.log().back();
    }
}

std::atomic<int> ticks;
int16_t CM_CALL tick(cm_context *, const char *, cm_value) {
    return ++ticks, 1;
}

void until(const std::function<bool()> &holds) {
    while (!holds()) os.thread_yield();
}

TEST(Tasks, TheThreadWorksEveryTenthWakeUp) {
    FrozenClock &clock = frozen_clock();
    Library library("Trace Level = INFO");
    const auto wait_for_tick = [&] {
        for (const int before = ticks; ticks == before; clock.advance_ms(6000))
            for (int i = 0; i < 1000; i++) os.thread_yield();
    };
    scheduler_by_hand(library.ctx())->thread = nullptr;
    library.folder().write("config/schedule.ini", "[startup]\nfirst = tick\n[shutdown]\nlast = tick\n");
    cm_cron_func(library, "tick", tick);
    EXPECT_EQ(cm_cron_start(library) + cm_cron_start(library), 2);  // the second time it runs already
    cm_cron *cron = library.ctx()->cron;
    until([] { return ticks == 1; });
    const int64_t began = clock.seconds();
    ASSERT_EQ(cm_cron_task(library, "tick", tick, 0, 101, 0, "* * * * *"), 1);
    wait_for_tick();
    EXPECT_GE(clock.seconds() - began, 54);
    const int before = ticks, threads = library.ctx()->thread_table->entries;
    EXPECT_EQ(cm_cron_stop(library), 1);
    EXPECT_GT(ticks, before);
    EXPECT_EQ(library.ctx()->cron, nullptr);
    EXPECT_TRUE(library.logged("INFO:  CRON Scheduler signaled to shutdown..."));
    EXPECT_EQ(cm_cron_stop(library), 1);  // nothing to do
    until([&] {                           // it ends without its six seconds
        const cm::MutexGuard guard(library.ctx()->thread_mutex);
        return library.ctx()->thread_table->entries < threads;
    });
    clock.fail(true);  // minutes that it does not know of are not missed
    ASSERT_EQ(cm_cron_task(library, "again", tick, 0, 101, 0, "* * * * *"), 1);  // starts another one
    clock.fail(false);
    EXPECT_NE(library.ctx()->cron, cron);
    wait_for_tick();
}

TEST(Tasks, ManyThreadsRegisterStopAndRemove) {
    Library library("Maximum Threads = 300");
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&, name = std::to_string(i)] {
            for (int k = 0; k < 50; k++) {
                cm_cron_task(library, name.c_str(), tick, 0, 101, 0, "* * * * *");
                cm_cron_func(library, name.c_str(), tick);
                if (k % 10 == 9) cm_cron_stop(library);
                cm_cron_remove(library, name.c_str());
                cm_cron_start(library);
            }
        });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(cm_cron_stop(library), 1);
}

TEST(Tasks, EveryFailure) {
    LeakCheck leaks;
    {
        const Library library;
        cm_thread *const nobody = scheduler_by_hand(library)->thread;
        const string command(5000, 'x');  // a block of its own
        int16_t named = 0;
        each_failure(
            Faults::kAllocations | Faults::kLocks,
            [&] {
                library.ctx()->cron = nullptr;
                if (cm_cron_init(library) == 0) return;
                library.ctx()->cron->thread = nobody;
                named = cm_cron_func(library, command.c_str(), note);
                cm_cron_task(library, "task", nullptr, 0, 101, 0, ("* * * * * " + command).c_str());
            },
            [&](bool failed) {
                const cm_cron *cron = library.ctx()->cron;
                EXPECT_TRUE(failed || (named == 1 && listed(*cron).ends_with("] task -> note = " + command)));
                EXPECT_TRUE(cron == nullptr || cron->periodic == nullptr || listed(*cron).ends_with(command));
            });
    }
    EXPECT_EQ(leaks.outstanding(), 0u);
}

}  // namespace
