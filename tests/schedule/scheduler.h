// What the tests of this folder share: a scheduler that is driven by hand, and tasks that tell what ran.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
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

// Stays for good: threads that nobody joins use the table until their last moment.
inline FrozenClock &frozen_clock() {
    static FrozenClock *const clock = [] {
        auto *made = new FrozenClock;
        made->set_zone(0);
        return made;
    }();
    return *clock;
}

inline Strings &ran() {
    static Strings names;
    return names;
}

inline int16_t CM_CALL note(cm_context *, const char *name, cm_value argument) {
    const std::string text = argument != 0 ? std::string(": ") + reinterpret_cast<const char *>(argument) : "";
    ran().push_back(name + text);
    return 1;
}

// "periodic 102& [* * * * *] name -> function = argument; ...", without the function when it is that of all commands.
inline std::string listed(const cm_cron &cron) {
    std::string text;
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

const std::string kChild = "\"" + child_program() + "\" ";

// The children of this process that have not been reaped, where the system tells.
inline std::string children() {
    std::string all;
    std::error_code none;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", none)) {
        std::ifstream file(task.path() / "children");
        for (std::string id; file >> id;) all += id + " ";
    }
    return all;
}

}  // namespace cm::test
