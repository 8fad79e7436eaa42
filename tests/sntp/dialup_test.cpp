// The dial-up line, on a system that has one: who dials, who shares it, when it is hung up.
#include <gtest/gtest.h>

#include "net/cmras.h"
#include "network/net.h"

using namespace cm::test;
using cm::platform::Line;
using std::string;

namespace {

constexpr char kSettings[] =
    "Dial-On-Demand = TRUE\nDial-On-Demand Entry = Office\nDial-On-Demand User = me\nDial-On-Demand Password = secret\n"
    "Dial-On-Demand Timeout = 100\nDial-On-Demand Busy Timeout = 1000\nDial-On-Demand Trace = TRUE\nTrace Level = "
    "INFO\n";
constexpr char kDial[] = "dial Office/me/secret ";

class DialUp : public testing::Test {
protected:
    string take_calls() { return std::exchange(calls_, ""); }
    // After so many seconds the task looks, and does this.
    string later(cm_context *ctx, int64_t seconds) {
        clock_.advance(seconds);
        EXPECT_EQ(cm::dialup::look_after_line(ctx, "", 0), 1);
        return take_calls();
    }
    int tasks(const cm_context *ctx) {
        int count = 0;
        for (const cm_cron_rec *task = ctx->cron->periodic; task != nullptr; task = task->next)
            count += string(task->name) == "Dial-On-Demand Timer" && string(task->period) == "* * * * *";
        return count;
    }

    bool up = false;
    Error error = 0;

private:
    Line *const line_ = reinterpret_cast<Line *>(&up);
    string calls_;
    FrozenClock clock_;
    const Replace<&Table::line_dial> dial_{
        [this](const char *entry, const char *user, const char *password, Line **out) {
            calls_ += string("dial ") + entry + "/" + user + "/" + password + " ";
            if (error == 0) *out = line_;
            up = error == 0;
            return error;
        }};
    const Replace<&Table::line_connected> connected_{[this](Line *) { return up; }};
    const Replace<&Table::line_hang_up> hang_up_{[this](Line *given) {
        EXPECT_EQ(given, line_);
        calls_ += "hang-up ";
        up = false;
    }};
    const Replace<&Table::line_error_text> text_{[](Error number, char *out, size_t size) {
        cm_snprintf(out, static_cast<int32_t>(size), "text of %d", number);
    }};
};

TEST_F(DialUp, OneLineForAllUntilNobodyNeedsIt) {
    Library lib(kSettings);
    EXPECT_EQ(tasks(lib), 1);
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    EXPECT_EQ(cm_ras_hangup(lib), 0);
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(take_calls(), kDial);
    EXPECT_EQ(cm_ras_checkstatus(lib), 1);
    EXPECT_EQ(cm_ras_hangup(lib), 1);
    EXPECT_EQ(later(lib, 500), "");
    EXPECT_EQ(cm_ras_hangup(lib), 1);
    EXPECT_EQ(cm_ras_hangup(lib), 0);
    EXPECT_EQ(later(lib, 99), "");
    EXPECT_EQ(later(lib, 1), "hang-up ");
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(later(lib, 999), kDial);  // in use, but nothing happens
    EXPECT_EQ(later(lib, 1), "hang-up ");
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    up = false;
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    EXPECT_EQ(take_calls(), string(kDial) + "hang-up ");
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    up = false;
    EXPECT_EQ(cm_ras_dialup(lib), 1);
    EXPECT_EQ(take_calls(), string(kDial) + "hang-up " + kDial);
    lib.stop();
    EXPECT_EQ(take_calls(), "hang-up ");
    for (const char *line : {"Dialing", "Connected to", "Disconnected from"})
        EXPECT_TRUE(lib.logged(string("INFO:  Dial-On-Demand: ") + line + " 'Office'")) << line;
}

TEST_F(DialUp, WhatCannotBeDialledIsLogged) {
    const Library lib(kSettings);
    for (const Error number : {676, cm::platform::kNotSupported}) {
        error = number;
        EXPECT_EQ(cm_ras_dialup(lib), 0);
        EXPECT_EQ(cm_ras_hangup(lib), 0);
    }
    EXPECT_TRUE(lib.logged("ERROR: cm_ras_dialup() Unable to dial 'Office': text of 676 [676]"));
    EXPECT_TRUE(lib.logged("ERROR: cm_ras_dialup() There are no dial-up lines on this system."));
}

TEST_F(DialUp, ConnectionsDialAndHangUp) {
    Net net(kSettings);
    const auto port = static_cast<int32_t>(net.listen(20, nullptr)->peer_port);
    cm_conn *conn = nullptr;
    ASSERT_EQ(cm_net_connect(net.state, "127.0.0.1", port, 5, 0, 0, &conn, nullptr), 1);
    EXPECT_EQ(take_calls(), "");
    ASSERT_EQ(cm_net_connect(net.state, "127.0.0.2", port, 5, 0, 0, &conn, nullptr), 1);
    EXPECT_EQ(take_calls(), kDial);
    EXPECT_EQ(cm_net_close(net.state, conn, 0), 1);
    EXPECT_EQ(cm_ras_hangup(net.lib), 0);  // the close did
}

TEST_F(DialUp, WithoutTheSettingAndAStartThatFails) {
    const Library lib;
    EXPECT_EQ(cm_ras_dialup(lib), 0);
    EXPECT_EQ(cm_ras_checkstatus(lib), 0);
    EXPECT_EQ(take_calls(), "");
    EXPECT_EQ(tasks(lib), 0);
    end_threads(lib);
    lib.ctx()->flags |= CTX_DIAL_ON_DEMAND;
    int16_t started = 0;
    each_failure(
        Faults::kAllocations | Faults::kLocks, [&] { started = cm_ras_init(lib); },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(started, !injected);
            EXPECT_EQ(lib.ctx()->ras != nullptr, started == 1);
            EXPECT_TRUE(leaked == 0 || started == 1);
        });
    EXPECT_TRUE(lib.logged("ERROR: cm_ras_init() Unable to start dial-on-demand."));
}

}  // namespace
