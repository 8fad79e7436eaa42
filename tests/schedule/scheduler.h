// What the tests of this folder share: a scheduler that is driven by hand, and tasks that tell what ran.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/relaxed.h"
#include "files/cmcron.h"
#include "platform/platform.h"
#include "support/support.h"

namespace cm::test {

using platform::os;
using Strings = std::vector<std::string>;

constexpr int64_t kMinute = 60, kHour = 3600, kDay = 86400;

// A scheduler without a thread in the place of the library's own, whose thread has ended: tests do its rounds, and may
// replace entries of the table.
inline cm_cron *scheduler_by_hand(cm_context *ctx) {
    static cm_thread nobody;
    EXPECT_TRUE(ctx->cron == nullptr || ctx->cron->thread == &nobody || cm_terminate_thread(ctx->cron->thread) == 1);
    ctx->cron = nullptr;
    EXPECT_EQ(cm_cron_init(ctx), 1);
    ctx->cron->thread = &nobody;
    return ctx->cron;
}

// A started library with such a scheduler.
struct Scheduler {
    explicit Scheduler(const char *common = "Trace Level = INFO") : library(common) {}

    void round(int64_t now) { cron::run_round(cron, now); }
    int16_t add(const char *name, cm_task_fn function, const char *period, int32_t threaded = 0,
                const char *argument = nullptr) {
        return cm_cron_task(library, name, function, reinterpret_cast<cm_value>(argument), 101, threaded, period);
    }
    static Strings names(const cm_cron_rec *list) {
        Strings names;
        for (; list != nullptr; list = list->next) names.push_back(list->name);
        return names;
    }

    static constexpr int64_t kStart = 1000000020;  // a whole minute
    Library library;
    cm_context *const ctx = library.ctx();
    cm_cron *const cron = scheduler_by_hand(ctx);
    const int64_t began_ = cron->last = kStart;
};

inline Strings &ran() {
    static Strings names;
    return names;
}

inline int16_t CM_CALL note(cm_context *, const char *name, cm_value argument) {
    const std::string text = argument != 0 ? std::string(": ") + reinterpret_cast<const char *>(argument) : "";
    ran().push_back(name + text);
    return 1;
}

inline int16_t CM_CALL fail(cm_context *, const char *, cm_value) {
    return 0;
}

}  // namespace cm::test
