// The dial-up line, on a system that has one: who dials, who shares it, when it is hung up.
#include <gtest/gtest.h>

#include "net/cmras.h"
#include "network/net.h"

using namespace cm::test;
using cm::platform::Line;
using std::string;

namespace {

class DialUp : public testing::Test {
protected:
    DialUp() {
        self = this;
        os.line_dial = [](const char *entry, const char *user, const char *password, Line **out) {
            self->calls += string("dial ") + entry + "/" + user + "/" + password + " ";
            if (self->error == 0) *out = reinterpret_cast<Line *>(&self->line);
            self->up = self->error == 0;
            return self->error;
        };
        os.line_connected = [](Line *) { return self->up; };
        os.line_hang_up = [](Line *given) {
            EXPECT_EQ(given, reinterpret_cast<Line *>(&self->line));
            self->calls += "hang-up ";
            self->up = false;
        };
        os.line_error_text = [](cm::platform::Error number, char *out, size_t size) {
            cm_snprintf(out, static_cast<int32_t>(size), "text of %d", number);
        };
    }
    ~DialUp() override {
        os.line_dial = saved_.line_dial;
        os.line_connected = saved_.line_connected;
        os.line_hang_up = saved_.line_hang_up;
        os.line_error_text = saved_.line_error_text;
    }
    string take_calls() { return std::exchange(calls, ""); }

    static constexpr char kSettings[] =
        "Dial-On-Demand = TRUE\nDial-On-Demand Entry = Office\nDial-On-Demand User = me\n"
        "Dial-On-Demand Password = secret\nDial-On-Demand Timeout = 100\nDial-On-Demand Busy Timeout = 1000\n"
        "Dial-On-Demand Trace = TRUE\n";
    static inline DialUp *self = nullptr;
    const cm::platform::Table saved_ = os;
    int line = 0;
    bool up = false;
    cm::platform::Error error = 0;
    string calls;
};

TEST_F(DialUp, OneLineForAllUntilNobodyNeedsIt) {
    Library lib(kSettings);
    FrozenClock clock;
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    EXPECT_EQ(cm_ras_hangup(lib), 0);
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(take_calls(), "dial Office/me/secret ");
    EXPECT_EQ(cm_ras_checkstatus(lib), 1);
    EXPECT_EQ(cm_ras_hangup(lib), 1);
    clock.advance(500);
    EXPECT_EQ(cm::dialup::look_after_line(lib, "", 0), 1);
    EXPECT_EQ(cm_ras_hangup(lib), 1);
    EXPECT_EQ(cm_ras_hangup(lib), 0);
    clock.advance(99);
    cm::dialup::look_after_line(lib, "", 0);
    EXPECT_EQ(take_calls(), "");
    EXPECT_EQ(cm_ras_dialup(lib), 1);  // still up
    EXPECT_EQ(cm_ras_hangup(lib), 1);
    clock.advance(100);
    cm::dialup::look_after_line(lib, "", 0);
    EXPECT_EQ(take_calls(), "hang-up ");
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(take_calls(), "dial Office/me/secret ");
    clock.advance(999);  // in use, but nothing happens
    cm::dialup::look_after_line(lib, "", 0);
    EXPECT_EQ(take_calls(), "");
    clock.advance(1);
    cm::dialup::look_after_line(lib, "", 0);
    EXPECT_EQ(take_calls(), "hang-up ");
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    take_calls();
    int tasks = 0;
    for (const cm_cron_rec *task = lib.ctx()->cron->periodic; task != nullptr; task = task->next)
        tasks += string(task->name) == "Dial-On-Demand Timer" && string(task->period) == "* * * * *";
    EXPECT_EQ(tasks, 1);
    EXPECT_TRUE(lib.logged("INFO:  Dial-On-Demand: Dialing 'Office'"));
    EXPECT_TRUE(lib.logged("INFO:  Dial-On-Demand: Connected to 'Office'"));
    lib.stop();
    EXPECT_EQ(take_calls(), "hang-up ");
    EXPECT_TRUE(lib.logged("INFO:  Dial-On-Demand: Disconnected from 'Office'"));
}

TEST_F(DialUp, ALineThatBrokeIsDialledAnew) {
    const Library lib(kSettings);
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    up = false;
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    EXPECT_EQ(take_calls(), "dial Office/me/secret hang-up ");
    EXPECT_EQ(cm_ras_hangup(lib), 1);
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    up = false;
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(take_calls(), "dial Office/me/secret hang-up dial Office/me/secret ");
    up = false;
    cm::dialup::look_after_line(lib, "", 0);
    EXPECT_EQ(take_calls(), "hang-up ");
}

TEST_F(DialUp, WhatCannotBeDialledIsLogged) {
    const Library lib(kSettings);
    error = 676;
    EXPECT_EQ(cm_ras_dialup(lib), 0);
    EXPECT_TRUE(lib.logged("ERROR: cm_ras_dialup() Unable to dial 'Office': text of 676 [676]"));
    EXPECT_EQ(cm_ras_hangup(lib), 0);
    error = cm::platform::kNotSupported;
    EXPECT_EQ(cm_ras_dialup(lib), 0);
    EXPECT_TRUE(lib.logged("ERROR: cm_ras_dialup() There are no dial-up lines on this system."));
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    for (const auto function : {cm_ras_init, cm_ras_exit, cm_ras_dialup, cm_ras_hangup, cm_ras_checkstatus})
        EXPECT_EQ(function(nullptr), 0);
}

TEST_F(DialUp, ConnectionsDialAndHangUp) {
    Net net(kSettings);
    cm_conn *listener = nullptr, *conn = nullptr;
    ASSERT_EQ(cm_net_listen(net.state, nullptr, 0, 5, 5, 0, &listener), 1);
    const auto port = static_cast<int32_t>(listener->peer_port);
    ASSERT_EQ(cm_net_connect(net.state, "127.0.0.1", port, 5, 0, 0, &conn, nullptr), 1);
    EXPECT_EQ(take_calls(), "");
    ASSERT_EQ(cm_net_connect(net.state, "127.0.0.2", port, 5, 0, 0, &conn, nullptr), 1);
    EXPECT_EQ(take_calls(), "dial Office/me/secret ");
    EXPECT_EQ(cm_net_close(net.state, conn, 0), 1);
    EXPECT_EQ(cm_ras_hangup(net.lib), 0);  // the close did
}

TEST_F(DialUp, WithoutTheSettingNothingHappens) {
    const Library lib;
    EXPECT_EQ(cm_ras_dialup(lib), 0);
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    EXPECT_EQ(calls, "");
    for (const cm_cron_rec *task = lib.ctx()->cron->periodic; task != nullptr; task = task->next)
        EXPECT_STRNE(task->name, "Dial-On-Demand Timer");
}

TEST_F(DialUp, AStartThatFails) {
    const Library lib;
    lib.ctx()->flags |= CTX_DIAL_ON_DEMAND;
    for (int k = 1;; k++) {
        ASSERT_LT(k, 20);
        const LeakCheck leaks;
        int64_t injected = 0;
        {
            const Faults faults(Faults::kAllocations | Faults::kLocks, k);
            const int16_t result = cm_ras_init(lib);
            injected = faults.injected();
            EXPECT_EQ(result, injected == 0 ? 1 : 0);
            EXPECT_EQ(lib.ctx()->ras != nullptr, result == 1);
        }
        if (injected == 0) break;
        EXPECT_EQ(leaks.outstanding(), 0u) << k;
    }
    EXPECT_TRUE(lib.logged("ERROR: cm_ras_init() Unable to start dial-on-demand."));
}

}  // namespace
