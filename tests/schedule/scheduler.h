// What the tests of this folder share: a scheduler that is driven by hand, and a second, plain reading of periods.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/relaxed.h"
#include "files/cmcron.h"
#include "platform/platform.h"
#include "support/support.h"

namespace cm::test {

using platform::os;
using Strings = std::vector<std::string>;

constexpr int64_t kMinute = 60, kHour = 3600, kDay = 86400;

// A started library whose scheduler has no thread: the tests do its rounds.
class Scheduler {
public:
    explicit Scheduler(const std::string &schedule = "", const char *common = "Trace Level = INFO")
        : library(common,
                  [&](TempFolder &folder) {
                      if (!schedule.empty()) folder.write("config/schedule.ini", schedule);
                  }) {
        if (!library.ok()) return;
        cm_cron_stop(library);
        renew();
    }

    // A state of its own for what follows.
    void renew() {
        ctx()->cron = nullptr;
        EXPECT_EQ(cm_cron_init(library), 1);
        cron = ctx()->cron;
        cron->thread = &nobody_;
        cron->last = kStart;
    }

    cm_context *ctx() { return library.ctx(); }
    void round(int64_t now) { cron::run_round(cron, now); }
    int16_t add(const char *name, cm_task_fn function, const char *period, int32_t threaded = 0, cm_value argument = 0) {
        return cm_cron_task(library, name, function, argument, 101, threaded, period);
    }

    static Strings names(const cm_cron_rec *list) {
        Strings names;
        for (; list != nullptr; list = list->next) names.push_back(list->name);
        return names;
    }

    static constexpr int64_t kStart = 1000000020;  // a whole minute
    Library library;
    cm_cron *cron = nullptr;

private:
    cm_thread nobody_ = {};
};

// ---- runs of the task function below ----------------------------------------------------------------------------------

inline Strings &ran() {
    static Strings names;
    return names;
}

inline int16_t CM_CALL note(cm_context *, const char *name, cm_value argument) {
    ran().push_back(std::string(name) + (argument != 0 ? std::string(": ") + reinterpret_cast<const char *>(argument) : ""));
    return 1;
}

inline int16_t CM_CALL fail(cm_context *, const char *, cm_value) {
    return 0;
}

// ---- a second reading of periods ------------------------------------------------------------------------------------

// The set of a field that is valid, from its plain parts.
struct PlainItem {
    int low, high, step;
};

inline std::set<int> plain_set(const std::vector<PlainItem> &items, int count) {
    std::set<int> set;
    for (const PlainItem &item : items) {
        const int length = (item.high - item.low + count) % count;
        for (int i = 0; i <= length; i += item.step) set.insert((item.low + i) % count);
    }
    return set;
}

inline std::set<int> set_of(const uint8_t *flags, int count) {
    std::set<int> set;
    for (int i = 0; i < count; i++)
        if (flags[i] != 0) set.insert(i);
    return set;
}

inline std::set<int> range(int first, int last) {
    std::set<int> set;
    for (int i = first; i <= last; i++) set.insert(i);
    return set;
}

}  // namespace cm::test
