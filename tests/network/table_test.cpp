// Handles: hand-out, the full table, close, second close, forced close.
#include <atomic>

#include "net.h"

using namespace cm::test;
using Strings = std::vector<std::string>;

namespace {

cm_conn *take(Net &net) {
    return cm::net::take_handle(net.state, 7, true);
}

// Replaces the sleep of every thread: what a sleeper does instead.
class SleepHook {
public:
    explicit SleepHook(std::function<bool(int32_t)> instead) : saved_(os.sleep) {
        function() = std::move(instead);
        os.sleep = [](int32_t milliseconds) { return function()(milliseconds); };
    }
    ~SleepHook() { os.sleep = saved_; }

private:
    static std::function<bool(int32_t)> &function() {
        static std::function<bool(int32_t)> function;
        return function;
    }
    bool (*saved_)(int32_t);
};

TEST(Table, AHandleIsClearedAndKeepsItsCell) {
    Net net;
    cm_conn *first = take(net);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(net.state->in_use, first);
    EXPECT_EQ(first->read_timeout, 7u);
    EXPECT_EQ(*first->sock, -1);
    cm_socket *const cell = first->sock;
    const uint32_t serial = first->serial;
    first->in_buf[0] = first->in_buf[CM_NET_IN_SIZE - 1] = first->out_buf[CM_NET_STAGE_ALLOC - 1] = 'x';
    first->peer_host[3] = 'y';
    first->in_count = first->out_count = first->tls_alg_bits = 5;
    EXPECT_EQ(cm_net_close(net.state, first, 0), 1);
    EXPECT_TRUE(net.closed(first));
    EXPECT_EQ(net.state->free_list, first);
    EXPECT_EQ(net.open(), 0);

    cm_conn *again = take(net);
    ASSERT_EQ(again, first);
    EXPECT_EQ(again->sock, cell);
    EXPECT_GT(again->serial, serial);
    EXPECT_EQ(again->flags, 0u);
    EXPECT_EQ(again->in_buf[0] + again->in_buf[CM_NET_IN_SIZE - 1] + again->out_buf[CM_NET_STAGE_ALLOC - 1], 0);
    EXPECT_EQ(again->peer_host[3] + again->in_count + again->out_count + again->tls_alg_bits, 0);
    EXPECT_EQ(cm_net_close(net.state, nullptr, 1), 1);
    EXPECT_EQ(cm_net_close(net.state, again, 0), 1);
}

TEST(Table, TheSecondCloseOfAHandleDoesNothing) {
    Net net;
    cm_conn *a = take(net), *b = take(net);
    for (int i = 0; i < 3; i++) EXPECT_EQ(cm_net_close(net.state, a, 1), 1);
    EXPECT_EQ(net.open(), 1);
    cm_conn *c = take(net), *d = take(net);
    EXPECT_EQ(c, a);
    EXPECT_NE(d, a);
    EXPECT_NE(d, b);
    EXPECT_EQ(net.open(), 3);
}

TEST(Table, AnyOrderOfClosesKeepsTheListsWhole) {
    Net net;
    std::vector<cm_conn *> handles;
    for (int i = 0; i < 6; i++) handles.push_back(take(net));
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
    cm_conn *a = take(net), *b = take(net);
    std::vector<int32_t> sleeps;
    cm_conn *c = nullptr;
    {
        const SleepHook hook([&](int32_t milliseconds) {
            sleeps.push_back(milliseconds);
            if (sleeps.size() == 2) cm::store_relaxed(net.state->shutting_down, int16_t{1});  // does not end the wait
            if (sleeps.size() == 3) cm_net_close(net.state, a, 0);
            return true;
        });
        c = take(net);
    }
    EXPECT_EQ(c, a);
    EXPECT_EQ(sleeps, (std::vector<int32_t>{1000, 1000, 1000}));
    EXPECT_EQ(take(net), nullptr);  // the flag is looked at before the wait
    cm_net_close(net.state, b, 0);
}

TEST(Table, TheWaitForAHandleEndsWithItsThreadAndWithTheNetwork) {
    Net net("Maximum Connections = 1");
    cm_conn *only = take(net);
    {
        const SleepHook asked_to_end([](int32_t) { return false; });
        EXPECT_EQ(take(net), nullptr);
    }
    std::thread waiter([&] { EXPECT_EQ(take(net), nullptr); });
    ASSERT_TRUE(eventually([&] { return cm::load_relaxed(net.state->users) == 2; }));
    net.stop();
    waiter.join();
    static_cast<void>(only);
}

TEST(Table, NoHandleIsAnAlertUnderTheCallersWord) {
    Net net;
    cm_net_shutdown(net.state);
    cm_conn *conn = nullptr;
    int32_t error = -1;
    EXPECT_EQ(cm_net_listen(net.state, nullptr, 0, 5, 5, 0, &conn), 0);
    EXPECT_EQ(cm_net_connect(net.state, "127.0.0.1", 9, 5, 0, 0, &conn, &error), 0);
    EXPECT_EQ(net.alerts.get(),
              (Strings{"listener: No connection handles available.", "connect: No connection handles available."}));
}

TEST(Table, ACloseLingersOnlyForBytesThatAreNotConfirmed) {
    static bool confirmed;
    static int ended;
    const auto real_confirmed = os.socket_all_confirmed;
    static decltype(os.socket_option) real_option;
    real_option = os.socket_option;
    for (const bool all : {true, false}) {
        Net net;
        Link link(net);
        EXPECT_EQ(cm_net_send(net.state, link.conn, "reply", CM_LEN_TEXT), 1);
        confirmed = all;
        ended = 0;
        os.socket_all_confirmed = [](cm_socket) { return confirmed; };
        os.socket_option = [](cm_socket socket, cm::platform::SocketOption option, int32_t value) {
            ended += option == cm::platform::SocketOption::kLinger && value == -1;
            return real_option(socket, option, value);
        };
        EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
        EXPECT_EQ(cm_net_close(net.state, link.listener, 1), 1);
        os.socket_option = real_option;
        os.socket_all_confirmed = real_confirmed;
        EXPECT_EQ(ended, all ? 1 : 0);
        EXPECT_EQ(link.peer.receive(), "reply");
    }
}

TEST(Table, BytesThatThePeerDoesNotTakeAreNotConfirmed) {
    Net net;
    Link link(net);
    ASSERT_EQ(os.socket_set_blocking(*link.conn->sock, false), 0);
    const std::string block(1 << 20, 'x');
    const cm::platform::Slice slice = {block.data(), block.size()};
    for (size_t sent = 0; os.socket_send(*link.conn->sock, &slice, 1, false, &sent) == 0;) {
    }
    EXPECT_FALSE(os.socket_all_confirmed(*link.conn->sock));
    link.peer.reset();
}

TEST(Table, AForcedCloseWakesTheReaderAndSparesItsHandle) {
    Net net("Trace Level = TRACE");
    Link link(net);
    int32_t count = -1;
    int16_t result = -1;
    std::thread reader([&] {
        char byte = 0;
        result = cm_net_receive(net.state, link.conn, &byte, 1, &count);
    });
    ASSERT_TRUE(eventually([&] { return cm::net::has_flag(link.conn, CM_CONN_BUSY); }));
    const int64_t begin = os.monotonic_ms();
    EXPECT_EQ(cm_net_closeall(net.state), 1);
    reader.join();
    EXPECT_LT(os.monotonic_ms() - begin, 3000);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(net.open(), 0);
    EXPECT_EQ(net.state->in_use, nullptr);
    EXPECT_TRUE(net.lib.logged("TRACE: Forced closing of all network connections..."));
    EXPECT_EQ(link.peer.receive(1), "");

    // Nobody gets it before its owner has closed it too.
    cm_conn *other = take(net);
    EXPECT_NE(other, link.conn);
    EXPECT_EQ(cm_net_send(net.state, link.conn, "x", 1), 0);
    EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
    EXPECT_EQ(net.open(), 1);
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

TEST(Table, AListenerClosedByForceEndsAWaitingAccept) {
    Net net;
    cm_conn *listener = net.listen();
    std::thread acceptor([&] {
        cm_conn *conn = nullptr;
        EXPECT_EQ(cm_net_accept(net.state, listener, 0, &conn), 0);
        EXPECT_EQ(conn, nullptr);
    });
    ASSERT_TRUE(eventually([&] { return net.open() == 2; }));
    cm_net_closeall(net.state);
    acceptor.join();
    EXPECT_EQ(net.open(), 0);
}

}  // namespace
