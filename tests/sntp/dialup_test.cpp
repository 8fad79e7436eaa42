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

class DialUp : public testing::Test {
protected:
    int16_t run(Net &net, const string &step) {
        const int number = atoi(step.c_str() + step.find(' ') + 1);
        if (step == "dialup") return cm_ras_dialup(net.lib);
        if (step == "hangup") return cm_ras_hangup(net.lib);
        if (step == "status") return cm_ras_checkstatus(net.lib);
        if (step == "break") up = false;
        if (step == "stop") net.stop(), net.lib.stop();
        if (step.starts_with("fail")) error = number;
        if (!step.starts_with("wait")) return 1;
        clock.advance(number);
        return cm::dialup::look_after_line(net.lib, "", 0);
    }

    bool up = false;
    Error error = 0;
    string asked;
    FrozenClock clock;
    const Replace<&Table::line_dial> dial{
        [this](const char *entry, const char *user, const char *password, Line **out) {
            asked += string("dial ") + entry + "/" + user + "/" + password;
            if (error == 0) *out = reinterpret_cast<Line *>(&up);
            up = error == 0;
            return error;
        }};
    const Replace<&Table::line_connected> connected{[this](Line *) { return up; }};
    const Replace<&Table::line_hang_up> hang_up{[this](Line *) { asked += "hang up", up = false; }};
    const Replace<&Table::line_error_text> text{[](Error number, char *out, size_t size) {
        cm_snprintf(out, static_cast<int32_t>(size), "text of %d", number);
    }};
};

TEST_F(DialUp, OneLineForAllUntilNobodyNeedsIt) {
    Net net(kSettings);
    net.said();
    for (const Row &row : rows("sntp/line")) {
        SCOPED_TRACE(row.where);
        EXPECT_EQ(run(net, row[0]), row.number(1));
        EXPECT_EQ(std::exchange(asked, ""), row.fields.size() > 2 ? row[2] : "");
        EXPECT_EQ(net.lib.ok() ? net.said() : "", row.fields.size() > 3 ? row[3] : "");
    }
}

TEST_F(DialUp, ConnectionsDialAndHangUpAndAStartMayFail) {
    Net net;
    const int32_t port = static_cast<int32_t>(net.listen(20, nullptr)->peer_port);
    int16_t started = 0;
    net.lib.ctx()->flags |= CTX_DIAL_ON_DEMAND;
    EXPECT_EQ(cm_ras_dialup(net.lib) + cm_ras_checkstatus(net.lib), 0);  // not started
    each_failure(
        Faults::kAllocations | Faults::kLocks, [&] { started = cm_ras_init(net.lib); },
        [&](bool injected, size_t leaked) {
            EXPECT_EQ(started, !injected);
            EXPECT_TRUE(leaked == 0 || started == 1);
        });
    EXPECT_TRUE(net.lib.logged("ERROR: cm_ras_init() Unable to start dial-on-demand."));
    const cm_cron_rec *task = net.lib.ctx()->cron->periodic;
    while (task != nullptr && string(task->name) != "Dial-On-Demand Timer") task = task->next;
    EXPECT_STREQ(task == nullptr ? "none" : task->period, "* * * * *");
    for (const string host : {"127.0.0.1", "127.0.0.2"}) {
        cm_conn *conn = nullptr;
        ASSERT_EQ(cm_net_connect(net.state, host.c_str(), port, 5, 0, 0, &conn, nullptr), 1);
        EXPECT_EQ(std::exchange(asked, ""), host == "127.0.0.1" ? "" : "dial //");
        EXPECT_EQ(cm_net_close(net.state, conn, 0), 1);
        EXPECT_EQ(cm_ras_hangup(net.lib), 0);  // the close did
    }
}

}  // namespace
