// The scheduler driven by hand: its tasks, its rounds and its commands, as data/scheduler.txt tells them.
#include <atomic>
#include <filesystem>
#include <list>
#include <map>

#include "scheduler.h"
#include "support/replace.h"
#include "support/scenario.h"

namespace {

using namespace cm::test;
using cm::platform::Table;
using std::string;
using std::to_string;

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
    explicit Schedules(const Row &) {
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
        on("schedule", [this](auto &words) { library.folder().write("config/schedule.ini", words[0]); });
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
    // The result, and what is new in the log.
    string command(const string &line) {
        const size_t before = library.log().size();
        string text = to_string(cm__cron_usertask(library, "task", reinterpret_cast<cm_value>(line.c_str())));
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
SCENARIOS(SchedulerScenarios, Schedules, "schedule/scheduler");

}  // namespace
