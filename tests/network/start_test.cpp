// The network without a context, and with every call of its life failing.
#include "net.h"

using namespace cm::test;

namespace {

TEST(Bare, WithoutAContext) {
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
    EXPECT_EQ(cm_net_exit(state) + cm_net_trace(nullptr, 1) + cm_net_sendto(nullptr, nullptr, 1, 1, "x", 1) +
                  cm_net_recv(nullptr, nullptr, nullptr, 1, 0, nullptr),
              0);
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
