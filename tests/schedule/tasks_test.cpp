// Registering tasks, rounds of the scheduler, schedule.ini, the scheduler's thread.
#include <atomic>
#include <thread>

#include "core/cmthread.h"
#include "scheduler.h"
#include "support/data.h"
#include "support/failures.h"

using namespace cm::test;
using cm::cron::kIdle;
using cm::cron::kRunning;
using std::string;

namespace {

constexpr int64_t kStart = Scheduler::kStart;

// Stays for good: threads that nobody joins use the table until their last moment.
FrozenClock &frozen_clock() {
    static FrozenClock *const clock = new FrozenClock;
    return *clock;
}

struct Tasks : testing::Test {
    FrozenClock &clock = frozen_clock();
    Tasks() {
        clock.set(kStart);
        clock.set_zone(0);
        ran().clear();
    }
};

TEST_F(Tasks, Registration) {
    Scheduler scheduler;
    for (const Row &row : rows("schedule/registration"))
        for (const bool with_function : {true, false}) {
            scheduler.cron->periodic = nullptr;
            const int16_t result = scheduler.add("task", with_function ? note : nullptr, row.text(0));
            EXPECT_EQ(result, row.number(with_function ? 1 : 2)) << row.where;
            const cm_cron_rec *task = scheduler.cron->periodic;
            EXPECT_EQ(task != nullptr, result == 1 && row[3] != "-") << row.where;
            EXPECT_TRUE(task == nullptr || task->period == row[3]) << row.where;
        }
    scheduler.cron->periodic = nullptr;
    scheduler.add("one", note, "* * * * * the command ", 1);
    const cm_cron_rec *task = scheduler.cron->periodic;
    EXPECT_EQ(task->origin * 100 + task->threaded * 10 + task->state, 10110);
    EXPECT_STREQ(reinterpret_cast<const char *>(task->argument), "the command ");
    EXPECT_EQ(cm_cron_task(nullptr, "task", note, 0, 101, 0, "hourly"), 0);
    EXPECT_EQ(scheduler.add(nullptr, note, "hourly") + scheduler.add("task", note, nullptr), 0);
}

TEST_F(Tasks, CommandsOfRegisteredFunctions) {
    Scheduler scheduler;
    EXPECT_EQ(cm_cron_func(scheduler.library, "doit", fail), 1);
    EXPECT_EQ(cm_cron_func(scheduler.library, "Do", note), 1);  // the newest that fits wins
    EXPECT_EQ(scheduler.add("a", nullptr, "* * * * * doit now"), 1);
    EXPECT_EQ(scheduler.add("b", nullptr, "* * * * *", 0, "DOIT by argument"), 1);
    EXPECT_EQ(scheduler.add("c", nullptr, "startup", 0, "d oit"), 1);
    EXPECT_EQ(scheduler.cron->periodic->function, note);
    EXPECT_EQ(scheduler.cron->periodic->next->function, note);
    EXPECT_EQ(scheduler.cron->startup->function, cm__cron_usertask);
    EXPECT_EQ(scheduler.add("e", nullptr, "startup") + scheduler.add("f", nullptr, "shutdown", 0, ""), 0);
    EXPECT_EQ(cm_cron_func(scheduler.library, nullptr, note) + cm_cron_func(scheduler.library, "x", nullptr), 0);
    scheduler.ctx->cron = nullptr;
    EXPECT_EQ(cm_cron_func(scheduler.library, "x", note) + cm_cron_remove(scheduler.library, "a"), 0);
}

TEST_F(Tasks, RoundsRunWhatIsDueInOrder) {
    Scheduler scheduler;
    scheduler.add("first", note, "* * * * * x");
    scheduler.add("failing", fail, "* * * * *");
    scheduler.add("last", note, "timeout");
    scheduler.round(kStart + 59);
    EXPECT_TRUE(ran().empty());
    scheduler.round(kStart + 60);
    EXPECT_EQ(ran(), (Strings{"first: x", "last"}));
    EXPECT_TRUE(scheduler.library.logged("ERROR: The scheduler task 'failing' failed."));
    scheduler.round(kStart + 60 + 3 * kDay);  // many missed minutes, one run
    EXPECT_EQ(ran().size(), 4u);
    scheduler.round(kStart);  // the clock was set back: it goes on from there
    scheduler.round(kStart + 60);
    EXPECT_EQ(ran().size(), 6u);
    scheduler.ctx->flags |= CTX_SHUTDOWN;
    scheduler.round(kStart + 120);
    EXPECT_EQ(ran().size(), 6u);
}

int16_t CM_CALL stop_it(cm_context *ctx, const char *, cm_value) {
    return cm_cron_stop(ctx);
}
int16_t CM_CALL remove_all(cm_context *ctx, const char *, cm_value) {
    while (cm_cron_remove(ctx, "victim") == 1) continue;
    return cm_cron_remove(ctx, "remover");
}

TEST_F(Tasks, TasksMayChangeTheListAndStopTheScheduler) {
    Scheduler scheduler;
    scheduler.add("remover", remove_all, "* * * * *");
    for (const char *name : {"victim", "stays", "victim"}) scheduler.add(name, note, "* * * * *");
    for (const char *name : {"at stop", "once more"}) scheduler.add(name, note, "shutdown");
    EXPECT_EQ(cm_cron_remove(scheduler.library, "Victim") + cm_cron_remove(scheduler.library, "at stop"), 0);
    scheduler.round(kStart + 60);
    EXPECT_EQ(Scheduler::names(scheduler.cron->periodic), Strings{"stays"});
    scheduler.add("stop", stop_it, "* * * * *");
    scheduler.add("late", note, "* * * * *");
    scheduler.round(kStart + 120);
    EXPECT_EQ(ran(), (Strings{"stays", "stays", "at stop", "once more"}));
    EXPECT_EQ(scheduler.ctx->cron, nullptr);
}

// ---- schedule.ini ---------------------------------------------------------------------------------------------------

string listed(const cm_cron &cron) {
    string text;
    const std::pair<const char *, cm_cron_rec *> lists[] = {
        {"periodic", cron.periodic}, {"startup", cron.startup}, {"shutdown", cron.shutdown}};
    for (const auto &[name, list] : lists)
        for (const cm_cron_rec *task = list; task != nullptr; task = task->next)
            text += (text.empty() ? "" : "; ") + string(name) + " " + std::to_string(task->origin) +
                    (task->threaded == 1 ? "&" : "") + " [" + task->period + "] " + task->name + " = " +
                    reinterpret_cast<const char *>(task->argument);
    return text;
}

TEST_F(Tasks, ScheduleFile) {
    Scheduler scheduler;
    EXPECT_TRUE(cm::cron::load_schedule(scheduler.cron));  // there is none
    for (const Row &row : rows("schedule/schedule")) {
        scheduler.library.folder().write("config/schedule.ini", row[0]);
        cm_cron *cron = scheduler_by_hand(scheduler.ctx);
        EXPECT_EQ(cm::cron::load_schedule(cron), row[2].empty()) << row.where;
        EXPECT_EQ(listed(*cron), row[1]) << row.where;
        EXPECT_TRUE(row[2].empty() || scheduler.library.log().back() == "ERROR: cm_cron_init(schedule.ini): " + row[2])
            << row.where << scheduler.library.log().back();
    }
}

std::atomic<int> running, started;
std::atomic<bool> may_end;
int16_t CM_CALL wait_for_leave(cm_context *, const char *, cm_value) {
    started++;
    running++;
    while (!may_end) os.thread_yield();
    running--;
    return 1;
}
void until(const std::function<bool()> &holds) {
    while (!holds()) os.thread_yield();
}

TEST_F(Tasks, AReloadDuringARun) {
    Scheduler scheduler;
    may_end = false;
    cm_cron_func(scheduler.library, "wait", wait_for_leave);
    scheduler.library.folder().write("config/schedule.ini", "[cron]\n* * * * * wait &\n[startup]\nb = wait\n");
    scheduler.round(kStart + 60);
    until([] { return running == 1; });
    const cm_cron_rec *first = scheduler.cron->periodic;
    scheduler.round(kStart + 120);  // the file has not changed, and what runs is not started again
    EXPECT_EQ(scheduler.cron->periodic, first);
    scheduler.cron->stamp--;
    scheduler.round(kStart + 180);  // another task of the same name
    until([] { return running == 2; });
    EXPECT_EQ(Scheduler::names(scheduler.cron->periodic).size(), 1u);
    EXPECT_EQ(Scheduler::names(scheduler.cron->startup), (Strings{"b", "b"}));  // kept, and added once more
    may_end = true;
    until([&] { return running == 0 && cm::load_relaxed(first->state) == kIdle; });
}

// ---- threads --------------------------------------------------------------------------------------------------------

TEST_F(Tasks, AHundredThreadsAtOnce) {
    Scheduler scheduler("Maximum Threads = 300");
    running = started = 0;
    may_end = false;
    scheduler.add("failing", fail, "* * * * *", 1);
    for (int i = 0; i < 100; i++) ASSERT_EQ(scheduler.add("threaded", wait_for_leave, "* * * * *", 1), 1);
    scheduler.round(kStart + 60);
    const cm_cron_rec *failing = scheduler.cron->periodic;
    until([&] { return running == 100 && cm::load_relaxed(failing->state) == kIdle; });
    EXPECT_TRUE(scheduler.library.logged("ERROR: cm__cron_usertask(): Task 'failing' failed."));
    cm_cron_remove(scheduler.library, "failing");
    scheduler.round(kStart + 120);  // none is started twice
    EXPECT_EQ(started, 100);
    may_end = true;
    for (const cm_cron_rec *task = scheduler.cron->periodic; task != nullptr; task = task->next)
        until([&] { return cm::load_relaxed(task->state) == kIdle; });
    scheduler.round(kStart + 180);
    until([] { return started == 200 && running == 0; });
}

std::atomic<int> ticks;
int16_t CM_CALL tick(cm_context *, const char *, cm_value) {
    return ++ticks, 1;
}

TEST_F(Tasks, TheThreadWorksEveryTenthWakeUp) {
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

TEST_F(Tasks, ManyThreadsRegisterStopAndRemove) {
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

// ---- failures -------------------------------------------------------------------------------------------------------

TEST_F(Tasks, ThreadsThatDoNotStart) {
    Scheduler scheduler;
    scheduler.add("threaded", note, "* * * * *", 1);
    const Faults faults(Faults::kThreads, 1, 5, Faults::kFromThenOn);
    scheduler.round(kStart + 60);
    EXPECT_EQ(scheduler.cron->periodic->state, kIdle);
    EXPECT_TRUE(scheduler.library.logged("ERROR: Failed to start CRON task thread."));
    scheduler.cron->thread = nullptr;
    EXPECT_EQ(scheduler.add("task", note, "hourly"), 0);
    EXPECT_TRUE(scheduler.library.logged("ERROR: Failed to start CRON thread."));
    EXPECT_EQ(scheduler.ctx->cron, nullptr);
    EXPECT_EQ(cm_cron_init(nullptr) + cm_cron_start(nullptr) + cm_cron_stop(nullptr), 0);
}

TEST_F(Tasks, EveryFailure) {
    LeakCheck leaks;
    {
        Scheduler scheduler;
        const string command(5000, 'x');  // a block of its own
        int16_t named = 0, added = 0;
        each_failure(
            Faults::kAllocations | Faults::kLocks,
            [&] {
                scheduler.ctx->cron = nullptr;
                if (cm_cron_init(scheduler.library) == 0) return;
                scheduler.ctx->cron->thread = scheduler.cron->thread;
                named = cm_cron_func(scheduler.library, command.c_str(), note);
                added = scheduler.add("task", nullptr, ("* * * * * " + command).c_str());
            },
            [&](bool failed) {
                const cm_cron *cron = scheduler.ctx->cron;
                EXPECT_TRUE(failed || named + added == 2);
                EXPECT_EQ(cron != nullptr && cron->periodic != nullptr, cron != nullptr && added == 1);
            });
    }
    EXPECT_EQ(leaks.outstanding(), 0u);
}

}  // namespace
