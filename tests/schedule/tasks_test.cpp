// Registering tasks, rounds of the scheduler, its thread.
#include <latch>
#include <thread>

#include "scheduler.h"

using namespace cm::test;
using cm::cron::kDue;
using cm::cron::kIdle;
using cm::cron::kRunning;
using std::string;

namespace {

constexpr int64_t kStart = Scheduler::kStart;

class Tasks : public testing::Test {
protected:
    Tasks() { clock.set_zone(0); }
    FrozenClock clock{kStart};
    void SetUp() override { ran().clear(); }
};

TEST_F(Tasks, Registration) {
    Scheduler scheduler;
    const struct {
        const char *period;
        bool with_function, without;
        bool listed = true;
    } rows[] = {
        {"never", true, true, false},
        {" \t NEVER", true, true, false},
        {"never ", true, false},  // not the word, and no period either
        {"", false, false, false},
        {"  \t", false, false, false},
        {"# * * * * * x", false, false, false},
        {"  #", false, false, false},
        {"* * * * *", true, false},
        {"* * * * * note it", true, true},
        {"hourly", true, false},
        {"1-60/4 * * * *", true, false},
        {"* * 32 * * note it", true, false},
        {"* * * 13 * note it", true, false},
        {"* * * * 7 note it", true, false},
        {"* * * *", true, false},
        {"nonsense", true, false},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(scheduler.add("task", note, row.period), row.with_function) << row.period;
        EXPECT_EQ(scheduler.cron->periodic != nullptr, row.with_function && row.listed) << row.period;
        scheduler.cron->periodic = nullptr;
        EXPECT_EQ(scheduler.add("task", nullptr, row.period), row.without) << row.period;
        EXPECT_EQ(scheduler.cron->periodic != nullptr, row.without && row.listed) << row.period;
        scheduler.cron->periodic = nullptr;
    }
    EXPECT_EQ(cm_cron_task(nullptr, "task", note, 0, 101, 0, "hourly"), 0);
    EXPECT_EQ(scheduler.add(nullptr, note, "hourly"), 0);
    EXPECT_EQ(scheduler.add("task", note, nullptr), 0);
}

TEST_F(Tasks, WordsStandForPeriods) {
    Scheduler scheduler;
    const struct {
        const char *word, *period;
    } rows[] = {{"Timeout", "* * * * *"},
                {"hourly", "0 * * * *"},
                {"DAILY", "0 0 * * *"},
                {" weekly", "0 0 * * sun"},
                {"monthly", "0 0 1 * *"}};
    for (const auto &row : rows) {
        ASSERT_EQ(scheduler.add("word", note, row.word), 1);
        ASSERT_EQ(scheduler.add("fields", note, row.period), 1);
        const cm_cron_rec *word = scheduler.cron->periodic, *fields = word->next;
        EXPECT_STREQ(word->period, row.period);
        EXPECT_EQ(memcmp(word->minute, fields->minute, 60 + 24 + 32 + 12 + 7), 0) << row.word;
        scheduler.cron->periodic = nullptr;
    }
}

TEST_F(Tasks, RecordHoldsWhatWasGiven) {
    Scheduler scheduler;
    const char *const argument = "given";
    ASSERT_EQ(cm_cron_task(scheduler.library, "one", note, CM_OUT(argument), 7, 1, " 1,2  3 * jan\tmon   the command "),
              1);
    const cm_cron_rec *task = scheduler.cron->periodic;
    EXPECT_STREQ(task->name, "one");
    EXPECT_STREQ(task->period, "1,2  3 * jan\tmon");
    EXPECT_EQ(task->argument, CM_OUT(argument));
    EXPECT_EQ(task->origin, 7);
    EXPECT_EQ(task->threaded, 1);
    EXPECT_EQ(task->function, note);
    EXPECT_EQ(task->state, kIdle);
    EXPECT_EQ(set_of(task->day, 32), std::set<int>{});
    ASSERT_EQ(scheduler.add("two", note, "* * * * * the command "), 1);
    EXPECT_STREQ(reinterpret_cast<const char *>(task->next->argument), "the command ");
    EXPECT_EQ(Scheduler::names(scheduler.cron->periodic), (Strings{"one", "two"}));
}

TEST_F(Tasks, APeriodThatFailsKeepsAFunctionSilent) {
    Scheduler scheduler;
    ASSERT_EQ(scheduler.add("timer", note, "1-60/4 * * * *"), 1);
    const cm_cron_rec *task = scheduler.cron->periodic;
    EXPECT_EQ(set_of(task->minute, 60).size(), 15u);
    EXPECT_TRUE(set_of(task->hour, 24).empty() && set_of(task->month, 12).empty());
    for (int64_t now = kStart; now < kStart + 2 * kHour; now += kMinute) scheduler.round(now);
    EXPECT_TRUE(ran().empty());
}

TEST_F(Tasks, CommandsOfRegisteredFunctions) {
    Scheduler scheduler;
    EXPECT_EQ(cm_cron_func(scheduler.library, "doit", fail), 1);
    EXPECT_EQ(cm_cron_func(scheduler.library, "Do", note), 1);  // the newest that fits wins
    const char *argument = "DOIT by argument";
    ASSERT_EQ(scheduler.add("a", nullptr, "* * * * * doit now"), 1);
    ASSERT_EQ(scheduler.add("b", nullptr, "* * * * *", 0, CM_OUT(argument)), 1);
    ASSERT_EQ(scheduler.add("c", nullptr, "startup", 0, CM_OUT(argument)), 1);
    ASSERT_EQ(scheduler.add("d", nullptr, "* * * * * d oit"), 1);
    EXPECT_EQ(scheduler.cron->periodic->function, note);
    EXPECT_EQ(scheduler.cron->periodic->next->function, note);
    EXPECT_EQ(scheduler.cron->startup->function, note);
    EXPECT_EQ(scheduler.cron->periodic->next->next->function, cm__cron_usertask);
    EXPECT_EQ(scheduler.add("e", nullptr, "startup"), 0);  // no command
    EXPECT_EQ(scheduler.add("f", nullptr, "shutdown", 0, CM_OUT("")), 0);
    EXPECT_EQ(cm_cron_func(scheduler.library, nullptr, note), 0);
    EXPECT_EQ(cm_cron_func(scheduler.library, "x", nullptr), 0);
    scheduler.ctx()->cron = nullptr;
    EXPECT_EQ(cm_cron_func(scheduler.library, "x", note), 0);
    EXPECT_EQ(cm_cron_remove(scheduler.library, "a"), 0);
}

TEST_F(Tasks, RemoveTakesTheFirstPeriodicOne) {
    Scheduler scheduler;
    for (const char *name : {"a", "b", "a"}) scheduler.add(name, note, "* * * * *");
    scheduler.add("s", note, "startup");
    EXPECT_EQ(cm_cron_remove(scheduler.library, "A"), 0);
    EXPECT_EQ(cm_cron_remove(scheduler.library, "s"), 0);
    EXPECT_EQ(cm_cron_remove(scheduler.library, "a"), 1);
    EXPECT_EQ(Scheduler::names(scheduler.cron->periodic), (Strings{"b", "a"}));
    EXPECT_EQ(cm_cron_remove(scheduler.library, "a"), 1);
    EXPECT_EQ(cm_cron_remove(scheduler.library, "a"), 0);
    EXPECT_EQ(Scheduler::names(scheduler.cron->periodic), Strings{"b"});
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
    for (const cm_cron_rec *task = scheduler.cron->periodic; task != nullptr; task = task->next)
        EXPECT_EQ(task->state, kIdle);
    scheduler.round(kStart + 60 + 3 * kDay);  // many missed minutes, one run
    EXPECT_EQ(ran().size(), 4u);
    scheduler.round(kStart);  // the clock was set back: it goes on from there
    scheduler.round(kStart + 60);
    EXPECT_EQ(ran().size(), 6u);
    scheduler.ctx()->flags |= CTX_SHUTDOWN;
    scheduler.round(kStart + 120);
    EXPECT_EQ(ran().size(), 6u);
}

int16_t CM_CALL stop_it(cm_context *ctx, const char *, cm_value) {
    return cm_cron_stop(ctx);
}
int16_t CM_CALL remove_all(cm_context *ctx, const char *, cm_value) {
    while (cm_cron_remove(ctx, "victim") == 1) {
    }
    return cm_cron_remove(ctx, "remover");
}

TEST_F(Tasks, TasksMayChangeTheListAndStopTheScheduler) {
    Scheduler scheduler;
    scheduler.add("remover", remove_all, "* * * * *");
    for (const char *name : {"victim", "stays", "victim"}) scheduler.add(name, note, "* * * * *");
    scheduler.round(kStart + 60);
    EXPECT_EQ(Scheduler::names(scheduler.cron->periodic), Strings{"stays"});
    EXPECT_EQ(ran().back(), "stays");
    ran().clear();
    scheduler.add("stop", stop_it, "* * * * *");
    scheduler.add("late", note, "* * * * *");
    scheduler.round(kStart + 120);
    EXPECT_EQ(ran(), Strings{"stays"});
    EXPECT_EQ(scheduler.ctx()->cron, nullptr);
}

// ---- tasks with threads of their own --------------------------------------------------------------------------------

std::atomic<int> running, started;
std::atomic<bool> may_end;
int16_t CM_CALL wait_for_leave(cm_context *, const char *, cm_value) {
    started++;
    running++;
    while (!may_end) os.thread_yield();
    running--;
    return 1;
}
int32_t state_of(const cm_cron_rec *task) {
    return cm::load_relaxed(task->state);
}
void until(const std::function<bool()> &holds) {
    while (!holds()) os.thread_yield();
}

TEST_F(Tasks, AHundredThreadsAtOnce) {
    Scheduler scheduler("", "Maximum Threads = 300");
    running = started = 0;
    may_end = false;
    for (int i = 0; i < 100; i++) ASSERT_EQ(scheduler.add("threaded", wait_for_leave, "* * * * *", 1), 1);
    scheduler.add("failing", fail, "* * * * *", 1);
    scheduler.round(kStart + 60);
    until([] { return running == 100; });
    const cm_cron_rec *failing = scheduler.cron->periodic;
    while (failing->next != nullptr) failing = failing->next;
    until([&] { return state_of(failing) == kIdle; });
    EXPECT_TRUE(scheduler.library.logged("ERROR: cm__cron_usertask(): Task 'failing' failed."));
    cm_cron_remove(scheduler.library, "failing");
    scheduler.round(kStart + 120);  // none is started twice
    EXPECT_EQ(started, 100);
    for (const cm_cron_rec *task = scheduler.cron->periodic; task != nullptr; task = task->next)
        EXPECT_EQ(state_of(task), kRunning);
    may_end = true;
    for (const cm_cron_rec *task = scheduler.cron->periodic; task != nullptr; task = task->next)
        until([&] { return state_of(task) == kIdle; });
    scheduler.round(kStart + 180);
    until([] { return started == 200 && running == 0; });
}

TEST_F(Tasks, AThreadThatCannotStart) {
    Scheduler scheduler;
    scheduler.add("threaded", note, "* * * * *", 1);
    {
        const Faults faults(Faults::kThreads, 1, 5, Faults::kFromThenOn);
        scheduler.round(kStart + 60);
    }
    EXPECT_EQ(scheduler.cron->periodic->state, kIdle);
    EXPECT_TRUE(scheduler.library.logged("ERROR: Failed to start CRON task thread."));
    EXPECT_TRUE(ran().empty());
}

// ---- start and stop -------------------------------------------------------------------------------------------------

std::atomic<int> ticks;
int16_t CM_CALL tick(cm_context *, const char *, cm_value) {
    ticks++;
    return 1;
}

TEST_F(Tasks, ThreadWorksEveryTenthWakeUpAndStops) {
    LeakCheck leaks;
    {
        Library library("Trace Level = INFO",
                        [](TempFolder &folder) { folder.write("config/schedule.ini", "[shutdown]\nlast = tick\n"); });
        ticks = 0;
        ASSERT_EQ(cm_cron_func(library, "tick", tick), 1);
        cm_cron *cron = library.ctx()->cron;
        ASSERT_NE(cron->thread, nullptr);
        EXPECT_EQ(cm_cron_start(library), 1);  // runs already
        EXPECT_EQ(library.ctx()->cron, cron);
        ASSERT_EQ(cm_cron_task(library, "tick", tick, 0, 101, 0, "* * * * *"), 1);
        const int32_t threads = library.ctx()->thread_table->entries;
        const int64_t began = clock.seconds();
        while (ticks == 0) {
            clock.advance_ms(6000);
            for (int i = 0; i < 1000; i++) os.thread_yield();
        }
        EXPECT_GE(clock.seconds() - began, 54);
        ticks = 0;
        EXPECT_EQ(cm_cron_stop(library), 1);
        EXPECT_EQ(library.ctx()->cron, nullptr);
        EXPECT_TRUE(library.logged("INFO:  CRON Scheduler signaled to shutdown..."));
        EXPECT_EQ(cm_cron_stop(library), 1);  // nothing to do
        // The thread ends without being waited for, and without its six seconds.
        until([&] {
            cm_take_mutex(library.ctx()->thread_mutex);
            const bool gone = library.ctx()->thread_table->entries < threads;
            cm_release_mutex(library.ctx()->thread_mutex);
            return gone;
        });
        ticks = 0;
        ASSERT_EQ(cm_cron_task(library, "again", tick, 0, 101, 0, "* * * * *"), 1);  // starts another one
        EXPECT_NE(library.ctx()->cron, cron);
        while (ticks == 0) {
            clock.advance_ms(6000);
            for (int i = 0; i < 1000; i++) os.thread_yield();
        }
    }
    EXPECT_EQ(leaks.outstanding(), 0u);
}

TEST_F(Tasks, StopRunsTheShutDownTasks) {
    Scheduler scheduler;
    scheduler.add("one", note, "shutdown");
    scheduler.add("failing", fail, "Shutdown");
    scheduler.add("two", note, "shutdown");
    scheduler.add("start", note, "startup");
    EXPECT_EQ(cm_cron_stop(scheduler.library), 1);
    EXPECT_EQ(ran(), (Strings{"one", "two"}));
    EXPECT_TRUE(scheduler.library.logged("ERROR: The scheduler task 'failing' failed."));
    EXPECT_EQ(scheduler.cron->stop, 1);
}

TEST_F(Tasks, ManyThreadsRegisterStopAndRemove) {
    Library library("Maximum Threads = 300");
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&, i] {
            for (int k = 0; k < 50; k++) {
                const string name = std::to_string(i);
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

TEST_F(Tasks, StartFails) {
    Library library("");
    ASSERT_EQ(cm_cron_stop(library), 1);
    {
        const Faults faults(Faults::kThreads, 1);
        EXPECT_EQ(cm_cron_start(library), 0);
    }
    EXPECT_EQ(library.ctx()->cron, nullptr);
    EXPECT_TRUE(library.logged("ERROR: Failed to start CRON thread."));
    {
        const Faults faults(Faults::kThreads, 1);
        EXPECT_EQ(cm_cron_task(library, "task", note, 0, 101, 0, "hourly"), 0);
    }
    EXPECT_EQ(cm_cron_start(library), 1);
    EXPECT_EQ(cm_cron_init(nullptr), 0);
    EXPECT_EQ(cm_cron_start(nullptr), 0);
    EXPECT_EQ(cm_cron_stop(nullptr), 0);
}

TEST_F(Tasks, EveryFailureOfAStart) {
    LeakCheck leaks;
    {
        Library library("");
        for (int64_t k = 1;; k++) {
            ASSERT_EQ(cm_cron_stop(library), 1);
            Faults faults(Faults::kBoth & ~Faults::kClock, k);
            const int16_t result = cm_cron_task(library, "task", note, 0, 101, 0, "* * * * * command");
            EXPECT_TRUE(result == 1 || faults.injected() > 0);
            if (result == 0) {
                EXPECT_TRUE(library.ctx()->cron == nullptr || library.ctx()->cron->periodic == nullptr);
            }
            if (faults.injected() == 0) break;
        }
    }
    EXPECT_EQ(leaks.outstanding(), 0u);
}

TEST_F(Tasks, EveryFailureOfRegistering) {
    Scheduler scheduler;
    const string command(5000, 'x');  // a block of its own
    for (int64_t k = 1;; k++) {
        Faults faults(Faults::kAllocations, k);
        const int16_t named = cm_cron_func(scheduler.library, command.c_str(), note);
        const int16_t added = scheduler.add("task", nullptr, ("* * * * * " + command).c_str());
        EXPECT_EQ(named + added, faults.injected() > 0 ? 1 : 2);
        EXPECT_EQ(scheduler.cron->periodic != nullptr, added == 1);
        scheduler.cron->periodic = nullptr;
        if (faults.injected() == 0) break;
    }
}

TEST_F(Tasks, AClockThatCannotBeReadMakesNothingDue) {
    Library library("");
    ticks = 0;
    ASSERT_EQ(cm_cron_stop(library), 1);
    clock.fail(true);
    ASSERT_EQ(cm_cron_task(library, "tick", tick, 0, 101, 0, "59 23 31 12 *"), 1);
    clock.fail(false);
    cm_cron *cron = library.ctx()->cron;
    until([&] { return cm::load_relaxed(cron->last) != 0; });
    for (int i = 0; i < 40; i++) {
        clock.advance_ms(6000);
        for (int yields = 0; yields < 1000; yields++) os.thread_yield();
    }
    EXPECT_EQ(ticks, 0);
}

}  // namespace
