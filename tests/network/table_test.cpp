// Handles: hand-out, the full table, close, second close, forced close.
#include "net.h"

using namespace cm::test;

namespace {

cm_conn *take(Net &net) {
    return cm::net::take_handle(net.state, 7, true);
}

TEST(Table, AHandleIsClearedAndKeepsItsCell) {
    Net net;
    cm_conn *first = take(net);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->read_timeout, 7u);
    EXPECT_EQ(*first->sock, -1);
    cm_socket *const cell = first->sock;
    const uint32_t serial = first->serial;
    first->in_buf[0] = first->in_buf[CM_NET_IN_SIZE - 1] = first->out_buf[CM_NET_STAGE_ALLOC - 1] = 'x';
    first->peer_host[3] = 'y';
    first->in_count = first->out_count = first->tls_alg_bits = 5;
    EXPECT_EQ(cm_net_close(net.state, first, 0), 1);
    EXPECT_TRUE(net.closed(first));
    EXPECT_EQ(net.open(), 0);

    cm_conn *again = take(net);
    ASSERT_EQ(again, first);
    EXPECT_EQ(again->sock, cell);
    EXPECT_GT(again->serial, serial);
    EXPECT_EQ(again->flags, 0u);
    EXPECT_EQ(again->in_buf[0] + again->in_buf[CM_NET_IN_SIZE - 1] + again->out_buf[CM_NET_STAGE_ALLOC - 1], 0);
    EXPECT_EQ(again->peer_host[3] + again->in_count + again->out_count + again->tls_alg_bits, 0);
    EXPECT_EQ(cm_net_close(net.state, nullptr, 1), 1);
}

TEST(Table, ASecondCloseDoesNothingAndAnyOrderKeepsTheListsWhole) {
    Net net;
    cm_conn *a = take(net), *b = take(net);
    for (int i = 0; i < 3; i++) EXPECT_EQ(cm_net_close(net.state, a, 1), 1);
    EXPECT_EQ(net.open(), 1);
    cm_conn *c = take(net), *d = take(net);
    EXPECT_EQ(c, a);
    EXPECT_TRUE(d != a && d != b);
    std::vector<cm_conn *> handles = {a, b, d, take(net), take(net), take(net)};
    for (const size_t i : {3u, 5u, 0u, 4u, 1u, 2u}) {
        cm_net_close(net.state, handles[i], 0);
        int32_t listed = 0;
        for (const cm_conn *conn = net.state->in_use; conn != nullptr; conn = conn->next) listed++;
        EXPECT_EQ(listed, net.open());
    }
    EXPECT_EQ(net.open(), 0);
}

TEST(Table, AFullTableWaitsInStepsOfASecondUntilAHandleIsClosed) {
    Net net("Maximum Connections = 2");
    cm_conn *a = take(net);
    take(net);
    {
        const Replace<&Table::sleep> asked_to_end([](int32_t) { return false; });
        EXPECT_EQ(take(net), nullptr);
    }
    std::vector<int32_t> sleeps;
    {
        const Replace<&Table::sleep> sleep([&](int32_t milliseconds) {
            sleeps.push_back(milliseconds);
            if (sleeps.size() == 2) cm::store_relaxed(net.state->shutting_down, int16_t{1});  // does not end the wait
            if (sleeps.size() == 3) cm_net_close(net.state, a, 0);
            return true;
        });
        EXPECT_EQ(take(net), a);
    }
    EXPECT_EQ(sleeps, (std::vector<int32_t>{1000, 1000, 1000}));
    EXPECT_EQ(take(net), nullptr);  // the flag is looked at before the wait
    cm::store_relaxed(net.state->shutting_down, int16_t{0});
    std::thread waiter([&] { EXPECT_EQ(take(net), nullptr); });  // which ends with the network, too
    ASSERT_TRUE(eventually([&] { return cm::load_relaxed(net.state->users) == 2; }));
    net.stop();
    waiter.join();
}

TEST(Table, NoHandleIsAnAlertUnderTheCallersWord) {
    Net net;
    cm_net_shutdown(net.state);
    cm_conn *conn = nullptr;
    EXPECT_EQ(net.listen(), nullptr);
    EXPECT_EQ(cm_net_connect(net.state, "127.0.0.1", 9, 5, 0, 0, &conn, nullptr), 0);
    EXPECT_EQ(net.alerts(), "listener: No connection handles available.\nconnect: No connection handles available.\n");
}

TEST(Table, ACloseLingersOnlyForBytesThatAreNotConfirmed) {
    const auto real = os.socket_option;
    for (const bool all : {true, false}) {
        Net net;
        Link link(net);
        EXPECT_TRUE(net.send(link.conn, "reply"));
        int ended = 0;
        const Replace<&Table::socket_all_confirmed> confirmed([=](cm_socket) { return all; });
        const Replace<&Table::socket_option> option([&](cm_socket socket, auto which, int32_t value) {
            ended += which == cm::platform::SocketOption::kLinger && value == -1;
            return real(socket, which, value);
        });
        EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
        EXPECT_EQ(cm_net_close(net.state, link.listener, 1), 1);
        EXPECT_EQ(ended, all ? 1 : 0);
        EXPECT_EQ(link.peer.receive(), "reply");
    }
    Net net;
    Link link(net);
    ASSERT_EQ(os.socket_set_blocking(*link.conn->sock, false), 0);
    const std::string block(1 << 20, 'x');
    const cm::platform::Slice slice = {block.data(), block.size()};
    for (size_t sent = 0; os.socket_send(*link.conn->sock, &slice, 1, false, &sent) == 0;) {
    }
    EXPECT_FALSE(os.socket_all_confirmed(*link.conn->sock));  // the peer does not take them
    link.peer.reset();
}

TEST(Table, AForcedCloseWakesAllWaitsAndSparesTheirHandles) {
    Net net("Trace Level = TRACE");
    Link link(net);
    std::thread reader([&] { EXPECT_EQ(net.receive(link.conn), "(failed)"); });
    std::thread acceptor([&] { EXPECT_EQ(net.accept(link.listener), nullptr); });
    ASSERT_TRUE(eventually([&] { return cm::net::has_flag(link.conn, CM_CONN_BUSY) && net.open() == 3; }));
    const int64_t begin = os.monotonic_ms();
    EXPECT_EQ(cm_net_closeall(net.state), 1);
    reader.join();
    acceptor.join();
    EXPECT_LT(os.monotonic_ms() - begin, 3000);
    EXPECT_EQ(net.open(), 0);
    EXPECT_EQ(net.state->in_use, nullptr);
    EXPECT_TRUE(net.lib.logged("TRACE: Forced closing of all network connections..."));
    EXPECT_EQ(link.peer.receive(1), "");

    // Nobody gets it before its owner has closed it too.
    for (int i = 0; i < 3; i++) EXPECT_NE(take(net), link.conn);
    EXPECT_FALSE(net.send(link.conn, "x"));
    EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
    EXPECT_EQ(net.open(), 3);
    EXPECT_EQ(take(net), link.conn);
}

TEST(Table, ACallThatDoesNotComeBackFinishesTheCloseItself) {
    Net net;
    Link link(net);
    cm_conn *conn = link.conn;
    {
        const cm::net::Call call(net.state, conn);
        const cm_socket socket = call.socket();
        EXPECT_EQ(cm_net_close(net.state, conn, 0), 1);  // from "another thread": gives up after a second
        EXPECT_EQ(call.socket(), cm::platform::kNoSocket);
        EXPECT_EQ(net.open(), 1);  // the listener
        EXPECT_NE(net.state->free_list, conn);
        uint32_t address = 0;
        int32_t port = 0;
        EXPECT_EQ(os.socket_local(socket, &address, &port), 0);  // the descriptor is still ours
    }
    EXPECT_EQ(net.state->free_list, conn);
    EXPECT_EQ(link.peer.receive(1), "");
}

}  // namespace
