// Start and stop: texts, the host's name and address, tasks, faults.
#include "net.h"
#include "net/ntp_hook.h"

using namespace cm::test;

namespace {

// A host of our own choosing.
struct Host {
    std::string name = "box", address = "10.0.0.1";  // no address: unknown
    Error error = 0;
    const Replace<&Table::host_name> host_name{[this](char *out, size_t size) {
        if (error == 0) cm_strncpy(out, name.c_str(), static_cast<int32_t>(size));
        return error;
    }};
    const Replace<&Table::host_by_name> host_by_name{[this](const char *, uint32_t out[4], int32_t *count) -> Error {
        if (address.empty()) return 11001;
        out[0] = address_of(address.c_str());
        *count = 1;
        return 0;
    }};
};

TEST(Start, FindsTheHostAndNoticesItsChanges) {
    Host host;
    Net net("Network Read Timeout = 33\nMaximum Connections = 44");
    cm_net_state *again = nullptr, *const state = net.state;
    EXPECT_EQ(state->read_timeout, 33u);
    EXPECT_EQ(state->max_open, 44);
    EXPECT_EQ(state->local_addr, address_of("10.0.0.1"));
    EXPECT_EQ(state->host_name_len, 3);
    EXPECT_TRUE(cm_net_init(net.lib, 0, &again) == 1 && again == state && net.lib.ctx()->net_table == state);
    EXPECT_EQ(cm_net_initip(net.lib), 1);  // nothing has changed
    EXPECT_EQ(net.said(), "INFO:  Network IP Address is 10.0.0.1\n");
    host.name = "other";
    host.address = "10.0.0.2";
    EXPECT_EQ(cm_net_initip(net.lib), 1);
    EXPECT_STREQ(state->host_name, "other");
    EXPECT_STREQ(state->local_text, "10.0.0.2");
    host.address = "";
    EXPECT_EQ(cm_net_initip(net.lib), 0);
    host.error = CM_ENOTSOCK;
    EXPECT_EQ(cm_net_initip(net.lib), 0);
    net.listen();
    EXPECT_EQ(cm_net_exit(std::exchange(net.state, nullptr)), 1);
    EXPECT_EQ(net.said(),
              "INFO:  cm_net_initip():  Hostname changed to 'other'\n"
              "INFO:  Network(other):  IP Address changed to: 10.0.0.2\n"
              "WARN:  cm_dns_gethostaddr() failed for 'other'\n"
              "ERROR: gethostname(10038) failed for ''\n"
              "INFO:  Closing with 1 open connections...\n");
    EXPECT_EQ(net.lib.ctx()->net_table, nullptr);
    EXPECT_EQ(cm_net_exit(state), 0);
    EXPECT_EQ(cm_net_initip(net.lib), 0);
}

TEST(Start, TheAddressIsTheLoopbackWithoutOneAndAForcedOneIsNotLookedUp) {
    Host host;
    host.address = "";
    for (const auto &[settings, address, text] :
         {std::tuple("", "127.0.0.1", "WARN:  cm_dns_gethostaddr() failed for 'box'\n"),
          std::tuple("Force IP Bind = 192.0.2.7", "192.0.2.7", "")}) {
        Net net(settings);
        EXPECT_STREQ(net.state->local_text, address);
        EXPECT_EQ(net.said(), text);
    }
}

// The tasks that are registered, but for the library's own, as "name, period, threaded".
std::string tasks(cm_context *ctx) {
    std::string text;
    for (const cm_cron_rec *task = ctx->cron->periodic; task != nullptr; task = task->next)
        if (strcmp(task->name, "Performance Monitor") != 0)
            text += std::string(task->name) + ", " + task->period + ", " + std::to_string(task->threaded) + "\n";
    return text;
}

TEST(Start, FailuresHaveTheirTextsAndLeaveNothing) {
    Library lib("Dynamic IP Test = TRUE");
    cm_net_state *state = nullptr;
    Host host;
    EXPECT_EQ(cm_net_init(lib, 1, &state), 0);  // TLS that is not there, after the task was registered
    EXPECT_EQ(tasks(lib), "");
    cm_cron_stop(lib);
    end_threads(lib);
    {
        const Replace<&Table::thread_start> none([](auto...) { return CM_EACCES; });
        EXPECT_EQ(cm_net_init(lib, 0, &state), 0);  // no scheduler to register with
        const Replace<&Table::network_start> network([] { return 10091; });
        EXPECT_EQ(cm_net_init(lib, 0, &state), 0);
    }
    host.error = 10050;
    EXPECT_EQ(cm_net_init(lib, 0, &state), 0);
    EXPECT_TRUE(lib.logged("FATAL: WSAStartup(Version 2.2) failed [10091]"));
    EXPECT_TRUE(lib.logged("ERROR: gethostname(10050): DNS lookup of '' failed."));
    EXPECT_TRUE(state == nullptr && lib.ctx()->net_table == nullptr);
    host.error = 0;
    EXPECT_EQ(cm_net_init(lib, 0, &state), 1);
    EXPECT_EQ(cm_net_exit(state), 1);
}

TEST(Start, WithoutAContext) {
    const Host here;
    cm_net_state *state = nullptr;
    EXPECT_EQ(captured_standard_error([&] { ASSERT_EQ(cm_net_init(nullptr, 0, &state), 1); }),
              "Tilvar Server Error: Network IP Address is 10.0.0.1\n");
    EXPECT_EQ(state->max_open, 30);
    EXPECT_EQ(state->read_timeout, 300u);
    cm_conn *listener = nullptr;
    ASSERT_EQ(cm_net_listen(state, "127.0.0.1", 0, 5, 5, 0, &listener), 1);
    std::thread loop([&] {
        cm_poll_entry entry = {[](cm_context *ctx, cm_conn *conn, cm_thread *, cm_value) -> int16_t {
                                   EXPECT_EQ(ctx, nullptr);
                                   return cm_net_send(conn->net, conn, "bare", CM_LEN_TEXT);
                               },
                               listener, 1, "Bare"};
        EXPECT_EQ(cm_net_poll(state, &entry, 1), 1);
    });
    EXPECT_EQ(Peer(listener->peer_port).receive(), "bare");
    cm_net_shutdown(state);
    loop.join();
    EXPECT_EQ(cm_net_exit(state), 1);
}

int16_t CM_CALL set_the_clock(cm_context *, const char *, cm_value) {
    return 1;
}

TEST(Start, RegistersTheTasksThatAreSetAndStopTakesThemBack) {
    Host host;
    cm::net::ntp_task = set_the_clock;
    Net net("Dynamic IP Test = TRUE\nNTP Server = time.example\nNTP Cron = 0 * * * *");
    EXPECT_EQ(tasks(net.lib), "Dynamic IP Lookup, 1-60/5 * * * *, 0\nNTP Synchronization, 0 * * * *, 1\n");
    host.address = "10.9.9.9";
    for (const cm_cron_rec *task = net.lib.ctx()->cron->periodic; task != nullptr; task = task->next) {
        EXPECT_EQ(task->origin, 101);
        if (task->function == set_the_clock) {
            EXPECT_EQ(task->argument, reinterpret_cast<cm_value>(net.state));
        } else {
            EXPECT_EQ(task->function(net.lib, task->name, task->argument), 1);
        }
    }
    EXPECT_STREQ(net.state->local_text, "10.9.9.9");
    net.stop();
    EXPECT_EQ(tasks(net.lib), "");
    net.lib.ctx()->ntp_cron = nullptr;
    cm::clear_bits_relaxed(net.lib.ctx()->flags, uint32_t{CTX_DYNAMIC_IP_TEST});
    EXPECT_EQ(cm_net_init(net.lib, 0, &net.state), 1);
    EXPECT_EQ(tasks(net.lib), "");
}

// One whole life: start, a listener, a request served through an outgoing connection and back, stop.  True: all of it
// went well.
bool one_request(cm_context *ctx) {
    cm_net_state *state = nullptr;
    if (cm_net_init(ctx, 0, &state) == 0) {
        EXPECT_TRUE(state == nullptr && ctx->net_table == nullptr);
        return false;
    }
    cm_conn *listener = nullptr, *out = nullptr, *in = nullptr;
    int32_t error = 0, count = 0;
    char text[8] = "";
    const bool well =
        cm_net_listen(state, "127.0.0.1", 0, 5, 1, 0, &listener) == 1 &&
        cm_net_connect(state, "127.0.0.1", static_cast<int32_t>(listener->peer_port), 1, 0, 0, &out, &error) == 1 &&
        cm_net_accept(state, listener, 0, &in) == 1 && cm_net_send(state, out, "ping", 4) == 1 &&
        cm_net_receive(state, in, text, sizeof text, &count) == 1 && count == 4 &&
        cm_net_send(state, in, text, count) == 1 && cm_net_receive(state, out, text, sizeof text, &count) == 1 &&
        count == 4;
    for (cm_conn *conn : {out, in, listener}) EXPECT_EQ(cm_net_close(state, conn, conn == in), 1);
    EXPECT_EQ(state->open_count, 0);
    EXPECT_EQ(cm_net_exit(state), 1);
    return well;
}

class Life : public testing::TestWithParam<std::tuple<uint32_t, Faults::Mode>> {};

TEST_P(Life, SurvivesTheFailureOfEveryCall) {
    const auto [groups, mode] = GetParam();
    Library lib("Linger Close = FALSE\nDynamic IP Test = TRUE\nNetwork Trace Level = STREAM");
    ASSERT_TRUE(lib.ok());
    end_threads(lib);
    const Host here;
    ASSERT_TRUE(one_request(lib));
    bool well = false;
    each_failure(
        groups, [&] { well = one_request(lib); },
        [&](bool injected, size_t leaked) {
            EXPECT_LE(leaked, 2u);  // the context's own pool may have grown by a block for the state
            EXPECT_TRUE(well || injected);
        },
        mode);
    EXPECT_TRUE(one_request(lib));
}
INSTANTIATE_TEST_SUITE_P(Faults, Life,
                         testing::Combine(testing::Values(Faults::kAllocations, Faults::kSockets, Faults::kLocks,
                                                          Faults::kFiles),
                                          testing::Values(Faults::kOnce, Faults::kFromThenOn)));

}  // namespace
