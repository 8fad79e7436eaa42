// The scheduler: its tasks, its rounds and its commands, driven by hand as data/scheduler.txt tells; its thread.
#include <filesystem>
#include <fstream>
#include <list>

#include "core/cmthread.h"
#include "core/relaxed.h"
#include "files/cmcron.h"
#include "support/failures.h"
#include "support/replace.h"
#include "support/scenario.h"

namespace {

using namespace cm::test;
using cm::platform::Process;
using cm::platform::Table;
using std::string;
using std::to_string;

constexpr int64_t kHour = 3600;

// A scheduler without a thread in the place of the library's own, whose thread has ended: tests do its rounds, and may
// replace entries of the table.
cm_cron *scheduler_by_hand(cm_context *ctx) {
    static cm_thread nobody;
    EXPECT_TRUE(ctx->cron == nullptr || ctx->cron->thread == &nobody || cm_terminate_thread(ctx->cron->thread) == 1);
    ctx->cron = nullptr;
    EXPECT_EQ(cm_cron_init(ctx), 1);
    ctx->cron->thread = &nobody;
    return ctx->cron;
}

// Stays for good: threads that nobody joins use the table until their last moment.
FrozenClock &frozen_clock() {
    static FrozenClock *const clock = [] {
        auto *made = new FrozenClock;
        made->set_zone(0);
        return made;
    }();
    return *clock;
}

Strings &ran() {
    static Strings names;
    return names;
}

int16_t CM_CALL note(cm_context *, const char *name, cm_value argument) {
    const string text = argument != 0 ? string(": ") + reinterpret_cast<const char *>(argument) : "";
    ran().push_back(name + text);
    return 1;
}

// "periodic 102& [* * * * *] name -> function = argument; ...", without the function when it is that of all commands.
string listed(const cm_cron &cron) {
    string text;
    const std::pair<const char *, cm_cron_rec *> lists[] = {
        {"periodic ", cron.periodic}, {"startup ", cron.startup}, {"shutdown ", cron.shutdown}};
    for (const auto &[name, list] : lists)
        for (const cm_cron_rec *task = list; task != nullptr; task = task->next)
            text += (text.empty() ? "" : "; ") + (name + std::to_string(task->origin)) +
                    (task->threaded == 1 ? "& [" : " [") + task->period + "] " + task->name +
                    (task->function == cm__cron_usertask ? ""
                     : task->function == note            ? " -> note"
                                                         : " -> another") +
                    " = " + (task->argument == 0 ? "" : reinterpret_cast<const char *>(task->argument));
    return text;
}

const string kChild = "\"" + child_program() + "\" ";

// The children of this process that have not been reaped, where the system tells.
string children() {
    string all;
    std::error_code none;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", none)) {
        std::ifstream file(task.path() / "children");
        for (string id; file >> id;) all += id + " ";
    }
    return all;
}

std::atomic<int> running, started;
std::atomic<bool> may_end;
int16_t CM_CALL wait_for_leave(cm_context *, const char *, cm_value) {
    for (running++, started++; !may_end;) os.thread_yield();
    return running--, 1;
}
int16_t CM_CALL fail(cm_context *, const char *, cm_value) {
    return 0;
}
int16_t CM_CALL stop(cm_context *ctx, const char *, cm_value) {
    return cm_cron_stop(ctx);
}
int16_t CM_CALL remove_all(cm_context *ctx, const char *, cm_value) {
    while (cm_cron_remove(ctx, "victim") == 1) continue;
    return cm_cron_remove(ctx, "remover");
}
const std::map<string, cm_task_fn> kFunctions = {{"none", nullptr}, {"note", note},         {"wait", wait_for_leave},
                                                 {"fail", fail},    {"remove", remove_all}, {"stop", stop}};

int64_t seconds_of(const string &time) {  // 2026-03-29T01:00
    cm_tm at = {};
    sscanf(time.c_str(), "%d-%d-%dT%d:%d", &at.year, &at.mon, &at.mday, &at.hour, &at.min);
    at.year -= 1900, at.mon--;
    return cm_tm2sec(&at);
}

struct Schedules : World {
    explicit Schedules(const Row & = {}) {
        library.folder().make_folder("tmp");
        os.network_start();  // ignores a signal, which the children must not
        running = started = 0;
        may_end = false;
        on("at", [this](auto &words) { clock.set(cron()->last = seconds_of(words[0])); });
        on("zone", [this](auto &words) {
            zone.clear();
            for (size_t i = 0; i < words.count(); i += 2)
                zone[i == 0 ? INT64_MIN : seconds_of(words[i - 1])] = words.number(i) * kHour;
        });
        on("task", [this](auto &words) { return task(words, words.rest(2), 0); });
        on("given", [this](auto &words) {
            return task(words, words[3], reinterpret_cast<cm_value>(arguments.emplace_back(words[2]).c_str()));
        });
        on("tasks", [this](auto &words) {
            int added = 0;
            for (int i = 0; i < words.number(0); i++) added += task(words, words.rest(2), 0);
            return added;
        });
        on("function", [this](auto &words) { return cm_cron_func(library, words.text(0), kFunctions.at(words[1])); });
        on("remove", [this](auto &words) { return cm_cron_remove(library, words.text(0)); });
        on("list", [this](auto &) { return listed(*cron()); });
        on("round", [this](auto &words) { return round(words.number(0)), take_ran(); });
        on("rounds", [this](auto &words) {
            std::map<string, int> counts;
            for (int i = 0; i < words.number(0); i++, ran().clear()) {
                round(words.number(1));
                for (const string &name : ran()) counts[name]++;
            }
            string text;
            for (const auto &[name, count] : counts) text += (text.empty() ? "" : ", ") + name + " " + to_string(count);
            return text;
        });
        on("schedule", [this](auto &words) { library.folder().write("config/schedule.ini", words.rest(0)); });
        on("load", [this](auto &) {
            const bool loaded = cm::cron::load_schedule(cron());
            return to_string(loaded) + (loaded ? "" : "; " + library.log().back());
        });
        on("changed", [this](auto &) { cron()->stamp--; });
        on("running", [](auto &) { return to_string(running) + " of " + to_string(started); });
        on("leave", [](auto &) { may_end = true; });
        on("busy", [this](auto &) {
            int busy = 0;
            for (const cm_cron_rec *task = cron()->periodic; task != nullptr; task = task->next)
                busy += cm::load_relaxed(task->state) != cm::cron::kIdle;
            return busy;
        });
        on("threadless", [this](auto &) { cron()->thread = nullptr; });
        on("shutting-down", [this](auto &) { library.ctx()->flags |= CTX_SHUTDOWN; });
        on("scheduler", [this](auto &) { return cron() != nullptr; });
        on("logged", [this](auto &words) { return library.logged(words.rest(0)); });
        on("command", [this](auto &words) { return command(kChild + words.rest(0)); });
        on("program", [this](auto &words) { return command(words.rest(0)); });
    }
    ~Schedules() {
        may_end = true;
        library.stop();
        EXPECT_EQ(children(), "");
        EXPECT_TRUE(eventually([this] { return leaks.outstanding() == 0; })) << leaks.outstanding();
    }

    cm_cron *cron() { return library.ctx()->cron; }
    int16_t task(const Words &words, const string &period, cm_value argument) {
        const bool threaded = words[1].ends_with("&");
        return cm_cron_task(library, words.text(0), kFunctions.at(words[1].substr(0, words[1].size() - threaded)),
                            argument, 101, threaded, period.c_str());
    }
    void round(int64_t seconds) {
        clock.advance(seconds);
        cm::cron::run_round(scheduler, clock.seconds());
    }
    string take_ran() {
        string text;
        for (const string &name : std::exchange(ran(), {})) text += (text.empty() ? "" : "; ") + name;
        return text;
    }
    int16_t run_command(const string &line) {
        return cm__cron_usertask(library, "task", reinterpret_cast<cm_value>(line.c_str()));
    }
    // The result, and what is new in the log.
    string command(const string &line) {
        const size_t before = library.log().size();
        string text = to_string(run_command(line));
        const Strings log = library.log();
        for (size_t i = before; i < log.size(); i++) text += "; " + log[i];
        const string root = std::filesystem::canonical(library.folder().path()).generic_string();
        for (const auto &[path, name] : {std::pair{kChild, "CHILD "}, {root, "ROOT"}})
            if (const size_t at = text.find(path); at != string::npos) text.replace(at, path.size(), name);
        EXPECT_EQ(library.folder().names("tmp"), Strings{});
        return text;
    }

    std::list<string> arguments;
    FrozenClock &clock = frozen_clock();
    LeakCheck leaks;
    std::map<int64_t, int64_t> zone = {{INT64_MIN, 0}};  // from when on it is ahead by how many seconds
    const Replace<&Table::local_calendar> calendar{[this](int64_t seconds, cm_tm *out) {
        return calendar.real(seconds + std::prev(zone.upper_bound(seconds))->second, out);
    }};
    Library library{"Trace Level = INFO\nTmp Directory = tmp\nMaximum Threads = 300"};
    cm_cron *const scheduler = scheduler_by_hand(library.ctx());
};
SCENARIOS(ScheduleScenarios, Schedules, "schedule/scheduler");
SCENARIOS(Registration, Schedules, "schedule/registration");
SCENARIOS(ScheduleFile, Schedules, "schedule/schedule");

TEST(Schedule, NullArguments) {
    const Library library;
    EXPECT_EQ(cm_cron_task(library, nullptr, note, 0, 101, 0, "hourly"), 0);
    EXPECT_EQ(cm_cron_task(library, "task", note, 0, 101, 0, nullptr), 0);
    EXPECT_EQ(cm_cron_task(nullptr, "task", note, 0, 101, 0, "hourly"), 0);
    EXPECT_EQ(cm_cron_init(nullptr) + cm_cron_start(nullptr) + cm_cron_stop(nullptr), 0);
    EXPECT_EQ(cm_cron_func(library, nullptr, note) + cm_cron_func(library, "x", nullptr), 0);
    EXPECT_EQ(cm__cron_usertask(library, "task", 0), 0);
}

TEST(Schedule, EveryFailure) {
    Schedules world;
    cm_context *const ctx = world.library;
    const string command = kChild + "error oops", argument(5000, 'x');  // a block of its own
    int16_t named = 0, result = 0;
    each_failure(
        Faults::kBoth & ~(Faults::kSockets | Faults::kClock | Faults::kThreads | Faults::kLibraries),
        [&] {
            named = result = 0;
            ctx->cron = nullptr;
            if (cm_cron_init(ctx) == 0) return;
            ctx->cron->thread = world.scheduler->thread;
            named = cm_cron_func(ctx, argument.c_str(), note);
            cm_cron_task(ctx, "task", nullptr, 0, 101, 0, ("* * * * * " + argument).c_str());
            result = world.run_command(command);
        },
        [&](bool failed) {
            const bool added = ctx->cron != nullptr && ctx->cron->periodic != nullptr;
            EXPECT_TRUE(!added || named == 0 || listed(*ctx->cron).ends_with("] task -> note = " + argument));
            EXPECT_TRUE(failed || (added && named + result == 2 && world.library.folder().names("tmp").empty()));
            for (const string &name : world.library.folder().names("tmp")) world.library.folder().remove("tmp/" + name);
        });
}

// The connection of a child, and whether the child has gone.
cm_socket accepted(const BareSocket &listener) {
    cm_socket peer = cm::platform::kNoSocket;
    uint32_t address = 0;
    int32_t port = 0;
    EXPECT_TRUE(listener.readable(20000) && os.socket_accept(listener.socket(), &peer, &address, &port) == 0);
    return peer;
}
bool has_gone(cm_socket peer) {
    char byte;
    size_t got = 0;
    os.socket_receive(peer, &byte, 1, false, &got);  // until the connection ends
    os.socket_close(peer);
    return got == 0;
}

TEST(Commands, ATimeOutEndsTheWholeGroup) {
    Schedules world;
    Library &library = world.library;
    const BareSocket listener;
    os.socket_listen(listener.socket(), 5);
    const string command = kChild + "nest " + std::to_string(listener.port());
    library.ctx()->sched_task_timeout = 1;
    const Replace<&Table::process_wait> once_it_runs([&](Process *process, int32_t timeout, int32_t *code) {
        return listener.readable(20000) && once_it_runs.real(process, timeout == 1000 ? 1 : timeout, code);
    });
    EXPECT_EQ(world.run_command(command), 0);
    EXPECT_TRUE(has_gone(accepted(listener)));  // the grandchild
    EXPECT_EQ(library.log().back(), "ERROR: CRON process timeout: " + command);
    EXPECT_EQ(library.folder().names("tmp"), Strings{});
}

TEST(Commands, EndWithTheLibrary) {
    LeakCheck leaks;
    {
        const BareSocket listener;
        os.socket_listen(listener.socket(), 5);
        const string port = std::to_string(listener.port());
        Library library("", [&](TempFolder &folder) {
            folder.write("config/schedule.ini",
                         "[startup]\na = " + kChild + "nest " + port + " &\nb = " + kChild + "hold " + port + "\n");
        });
        const cm_socket one = accepted(listener), other = accepted(listener);
        EXPECT_EQ(cm_cron_stop(library), 1);  // waits for neither
        library.stop();
        EXPECT_TRUE(has_gone(one) && has_gone(other));
        EXPECT_FALSE(library.logged_text("ERROR: CRON"));
    }
    EXPECT_EQ(children(), "");
    EXPECT_EQ(leaks.outstanding(), 0u);
}

TEST(Commands, NamesThatAreTakenAreNotTouched) {
    Schedules world;
    Library &library = world.library;
    const TempFolder &folder = library.folder();
    uint64_t draw = 0, step = 0;  // number 1 each time
    const Replace<&Table::random_bytes> numbers([&](void *out, size_t) {
        memcpy(out, &draw, sizeof draw);
        draw += step;
        return true;
    });
    for (const string stream : {"iSTDIN", "oSTDOUT", "eSTDERR"})
        for (const bool link : {false, true}) {
            const string name = "tmp/Ctask" + stream.substr(0, 1) + "-1.txt";
            std::error_code unable;
            folder.write(link ? "victim" : name, "trap");
            if (link) std::filesystem::create_symlink(folder.path("victim"), folder.path(name), unable);
            if (unable) continue;  // no such links here
            char path[1024];
            cm_build_path(library, library.ctx()->tmp_dir, name.c_str() + 4, path, sizeof path, nullptr);
            draw = step = 0;
            EXPECT_EQ(world.run_command(kChild + "error x"), 0);
            EXPECT_EQ(library.log().back(),
                      "ERROR: cm__cron_usertask(" + stream.substr(1) + "): File open of '" + path + "' failed.");
            step = 1;
            EXPECT_EQ(world.run_command(kChild + "error x"), 1);  // the second draw is free
            EXPECT_EQ(folder.read(name), "trap");
            EXPECT_EQ(folder.names("tmp"), Strings{name.substr(4)});
            folder.remove(name);
        }
    draw = step = 0;
    const Replace<&Table::process_wait> swapped([&](Process *process, int32_t timeout, int32_t *code) {
        const bool ended = cm::platform::kSystem.process_wait(process, timeout, code);
        folder.write("tmp/other", "secret");
        return os.path_rename(folder.path("tmp/other").c_str(), folder.path("tmp/Ctaske-1.txt").c_str()) == 0 && ended;
    });
    EXPECT_EQ(world.run_command(kChild + "error x"), 1);
    EXPECT_FALSE(library.logged_text("secret"));
}

std::atomic<int> ticks;
int16_t CM_CALL tick(cm_context *, const char *, cm_value) {
    return ++ticks, 1;
}

TEST(Schedule, TheThreadWorksEveryTenthWakeUp) {
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
    EXPECT_TRUE(eventually([] { return ticks == 1; }));
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
    EXPECT_TRUE(eventually([&] {          // it ends without its six seconds
        const cm::MutexGuard guard(library.ctx()->thread_mutex);
        return library.ctx()->thread_table->entries < threads;
    }));
    clock.fail(true);  // minutes that it does not know of are not missed
    ASSERT_EQ(cm_cron_task(library, "again", tick, 0, 101, 0, "* * * * *"), 1);  // starts another one
    clock.fail(false);
    EXPECT_NE(library.ctx()->cron, cron);
    wait_for_tick();
}

TEST(Schedule, ManyThreadsRegisterStopAndRemove) {
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

}  // namespace
