// Start and stop: texts, the host's name and address, tasks, faults.
#include <cstdio>

#include "net.h"
#include "net/ntp_hook.h"

using namespace cm::test;
using cm::platform::Error;
using Strings = std::vector<std::string>;

namespace {

cm::platform::Table real;
std::string host = "box", host_address = "10.0.0.1";  // empty address: unknown
Error name_error = 0;

// A host of our own choosing.
class Host {
public:
    Host() : saved_(os) {
        real = os;
        host = "box";
        host_address = "10.0.0.1";
        name_error = 0;
        os.host_name = [](char *out, size_t size) {
            if (name_error == 0) cm_strncpy(out, host.c_str(), static_cast<int32_t>(size));
            return name_error;
        };
        os.host_by_name = [](const char *, uint32_t out[4], int32_t *count) -> Error {
            if (host_address.empty()) return 11001;
            out[0] = address_of(host_address.c_str());
            *count = 1;
            return 0;
        };
    }
    ~Host() {
        os.host_name = saved_.host_name;
        os.host_by_name = saved_.host_by_name;
    }

private:
    cm::platform::Table saved_;
};

TEST(Start, KeepsTheHostsNameAndAddress) {
    const Host here;
    Net net("Network Read Timeout = 33\nMaximum Connections = 44");
    EXPECT_STREQ(net.state->host_name, "box");
    EXPECT_EQ(net.state->host_name_len, 3);
    EXPECT_STREQ(net.state->local_text, "10.0.0.1");
    EXPECT_EQ(net.state->local_addr, address_of("10.0.0.1"));
    EXPECT_EQ(net.state->read_timeout, 33u);
    EXPECT_EQ(net.state->max_open, 44);
    EXPECT_EQ(net.lib.ctx()->net_table, net.state);
    EXPECT_TRUE(net.lib.logged("INFO:  Network IP Address is 10.0.0.1"));

    cm_net_state *again = nullptr;
    EXPECT_EQ(cm_net_init(net.lib, 0, &again), 1);
    EXPECT_EQ(again, net.state);

    EXPECT_EQ(cm_net_initip(net.lib), 1);  // nothing has changed
    EXPECT_FALSE(net.lib.logged_text("changed"));
    host = "other";
    host_address = "10.0.0.2";
    EXPECT_EQ(cm_net_initip(net.lib), 1);
    EXPECT_TRUE(net.lib.logged("INFO:  cm_net_initip():  Hostname changed to 'other'"));
    EXPECT_TRUE(net.lib.logged("INFO:  Network(other):  IP Address changed to: 10.0.0.2"));
    EXPECT_STREQ(net.state->host_name, "other");
    EXPECT_STREQ(net.state->local_text, "10.0.0.2");
    host_address = "";
    EXPECT_EQ(cm_net_initip(net.lib), 0);
    EXPECT_TRUE(net.lib.logged("WARN:  cm_dns_gethostaddr() failed for 'other'"));
    name_error = CM_ENOTSOCK;
    EXPECT_EQ(cm_net_initip(net.lib), 0);
    EXPECT_TRUE(net.lib.logged("ERROR: gethostname(10038) failed for ''"));

    net.listen();
    cm_net_state *const old = net.state;
    EXPECT_EQ(cm_net_exit(old), 1);
    net.state = nullptr;
    EXPECT_TRUE(net.lib.logged("INFO:  Closing with 1 open connections..."));
    EXPECT_EQ(net.lib.ctx()->net_table, nullptr);
    EXPECT_EQ(cm_net_exit(old), 0);
    EXPECT_EQ(cm_net_initip(net.lib), 0);
}

TEST(Start, WithoutAnAddressItIsTheLoopback) {
    const Host here;
    host_address = "";
    Net net;
    EXPECT_TRUE(net.lib.logged("WARN:  cm_dns_gethostaddr() failed for 'box'"));
    EXPECT_STREQ(net.state->local_text, "127.0.0.1");
}

TEST(Start, AForcedAddressIsNotLookedUp) {
    const Host here;
    Net net("Force IP Bind = 192.0.2.7");
    EXPECT_STREQ(net.state->local_text, "192.0.2.7");
    EXPECT_FALSE(net.lib.logged_text("Network IP Address"));
}

TEST(Start, FailuresHaveTheirTexts) {
    Library lib;
    cm_net_state *state = nullptr;
    end_threads(lib);
    const Host here;
    os.network_start = []() -> Error { return 10091; };
    EXPECT_EQ(cm_net_init(lib, 0, &state), 0);
    EXPECT_TRUE(lib.logged("FATAL: WSAStartup(Version 2.2) failed [10091]"));
    os.network_start = real.network_start;
    name_error = 10050;
    EXPECT_EQ(cm_net_init(lib, 0, &state), 0);
    EXPECT_TRUE(lib.logged("ERROR: gethostname(10050): DNS lookup of '' failed."));
    name_error = 0;
    EXPECT_EQ(cm_net_init(lib, 1, &state), 0);  // TLS that is not there
    EXPECT_EQ(state, nullptr);
    EXPECT_EQ(lib.ctx()->net_table, nullptr);
    EXPECT_EQ(cm_net_init(lib, 0, &state), 1);
    EXPECT_EQ(cm_net_exit(state), 1);
}

TEST(Start, WithoutAContext) {
    cm_net_state *state = nullptr;
    const std::string text = captured_standard_error([&] {
        const Host here;
        ASSERT_EQ(cm_net_init(nullptr, 0, &state), 1);
    });
    EXPECT_EQ(text, "Tilvar Server Error: Network IP Address is 10.0.0.1\n");
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

const cm_cron_rec *task(cm_context *ctx, const char *name) {
    const cm_cron_rec *found = ctx->cron->periodic;
    while (found != nullptr && strcmp(found->name, name) != 0) found = found->next;
    return found;
}

int16_t CM_CALL set_the_clock(cm_context *, const char *, cm_value) {
    return 1;
}

constexpr char kTasks[] = "Dynamic IP Test = TRUE\nNTP Server = time.example\nNTP Cron = 0 * * * *";

TEST(Start, RegistersItsTasksAndStopTakesThemBack) {
    const Host here;
    cm::net::ntp_task = set_the_clock;
    Net net(kTasks);
    const cm_cron_rec *address = task(net.lib, "Dynamic IP Lookup"), *time = task(net.lib, "NTP Synchronization");
    ASSERT_TRUE(address != nullptr && time != nullptr);
    EXPECT_EQ(std::string(address->period).rfind("1-60/5", 0), 0u);
    EXPECT_EQ(address->origin, 101);
    EXPECT_EQ(address->threaded, 0);
    host_address = "10.9.9.9";
    EXPECT_EQ(address->function(net.lib, address->name, address->argument), 1);
    EXPECT_STREQ(net.state->local_text, "10.9.9.9");
    EXPECT_STREQ(time->period, "0 * * * *");
    EXPECT_EQ(time->origin, 101);
    EXPECT_EQ(time->threaded, 1);
    EXPECT_EQ(time->argument, reinterpret_cast<cm_value>(net.state));
    EXPECT_EQ(time->function, set_the_clock);
    net.stop();
    EXPECT_EQ(task(net.lib, "Dynamic IP Lookup"), nullptr);
    EXPECT_EQ(task(net.lib, "NTP Synchronization"), nullptr);
}

TEST(Start, RegistersOnlyWhatIsSet) {
    cm::net::ntp_task = set_the_clock;
    Net net("NTP Server = time.example");
    EXPECT_EQ(task(net.lib, "Dynamic IP Lookup"), nullptr);
    EXPECT_EQ(task(net.lib, "NTP Synchronization"), nullptr);
}

TEST(Start, AFailedOneLeavesNoTask) {
    const Host here;
    Library lib(kTasks);
    cm_net_state *state = nullptr;
    EXPECT_EQ(cm_net_init(lib, 1, &state), 0);  // TLS comes after the task
    EXPECT_EQ(task(lib, "Dynamic IP Lookup"), nullptr);
    cm_cron_stop(lib);
    end_threads(lib);
    os.thread_start = [](cm::platform::ThreadEntry, void *, cm::platform::Thread **) -> Error { return 11; };
    EXPECT_EQ(cm_net_init(lib, 0, &state), 0);  // no scheduler to register with
    os.thread_start = real.thread_start;
    EXPECT_EQ(lib.ctx()->net_table, nullptr);
    EXPECT_EQ(cm_net_init(lib, 0, &state), 1);
    EXPECT_EQ(cm_net_exit(state), 1);
}

// One whole life: start, a listener, a request served through an outgoing connection and back, stop.  True: all of it
// went well.
bool one_request(cm_context *ctx) {
    cm_net_state *state = nullptr;
    if (cm_net_init(ctx, 0, &state) == 0) {
        EXPECT_EQ(state, nullptr);
        EXPECT_EQ(ctx->net_table, nullptr);
        return false;
    }
    cm_conn *listener = nullptr, *out = nullptr, *in = nullptr;
    int32_t error = 0, count = 0;
    char text[8] = "";
    bool well = cm_net_listen(state, "127.0.0.1", 0, 5, 1, 0, &listener) == 1;
    well = well &&
           cm_net_connect(state, "127.0.0.1", static_cast<int32_t>(listener->peer_port), 1, 0, 0, &out, &error) == 1;
    well = well && cm_net_accept(state, listener, 0, &in) == 1;
    well = well && cm_net_send(state, out, "ping", CM_LEN_TEXT) == 1;
    well = well && cm_net_receive(state, in, text, sizeof text, &count) == 1 && count == 4;
    well = well && cm_net_send(state, in, text, count) == 1;
    well = well && cm_net_receive(state, out, text, sizeof text, &count) == 1 && count == 4;
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
    int64_t injected = 0;
    for (int64_t k = 1;; k++) {
        const LeakCheck leaks;
        bool well = false;
        int64_t hit = 0;
        {
            const Faults faults(groups, k, Faults::kInputOutput, mode);
            well = one_request(lib);
            hit = faults.injected();
        }
        // The context's own pool may have grown by a block for the state, never by one per round for good.
        EXPECT_LE(leaks.outstanding(), 2u) << "call " << k;
        injected += hit;
        if (hit == 0) {
            EXPECT_TRUE(well);
            break;
        }
        ASSERT_LT(k, 2000);
    }
    printf("%lld failures injected\n", static_cast<long long>(injected));
    EXPECT_TRUE(one_request(lib));
}
INSTANTIATE_TEST_SUITE_P(Faults, Life,
                         testing::Combine(testing::Values(Faults::kAllocations, Faults::kSockets, Faults::kLocks,
                                                          Faults::kFiles),
                                          testing::Values(Faults::kOnce, Faults::kFromThenOn)));

}  // namespace
