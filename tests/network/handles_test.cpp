// Handles and what is sent over them, where a step of a scenario would not do.
#include "net.h"

using namespace cm::test;
using cm::platform::Slice;

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
    const cm_socket *const cell = first->sock;
    const uint32_t serial = first->serial;
    char *const begin = first->peer_text, *const end = reinterpret_cast<char *>(&first->in_call);
    std::fill(begin, end, 'x');
    EXPECT_EQ(cm_net_close(net.state, first, 0), 1);
    EXPECT_TRUE(cm::net::has_flag(first, CM_CONN_CLOSED));
    ASSERT_EQ(take(net), first);
    EXPECT_EQ(first->sock, cell);
    EXPECT_GT(first->serial, serial);
    EXPECT_EQ(first->flags, 0u);
    EXPECT_EQ(std::count(begin, end, '\0'), end - begin);
    EXPECT_EQ(cm_net_close(net.state, nullptr, 1), 1);
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

TEST(Send, ManySlicesArriveInOrderThroughShortSends) {
    Net net;
    Link link(net);
    std::string expected;
    Strings texts;
    for (size_t i = 0; i < 40; i++) expected += texts.emplace_back(i % 7, static_cast<char>('a' + i % 26));
    std::vector<Slice> slices;
    for (const std::string &text : texts) slices.push_back({text.data(), text.size()});
    int calls = 0;
    const auto real = os.socket_send;
    const Replace<&Table::socket_send> short_send(
        [&](cm_socket socket, const Slice *now, int32_t count, bool more, size_t *out) -> Error {
            if (++calls % 5 == 0) return CM_EWOULDBLOCK;
            const Slice some = {now[0].data, std::min<size_t>(now[0].length, 3)};
            return calls % 2 == 0 ? real(socket, now, count, more, out) : real(socket, &some, 1, more, out);
        });
    EXPECT_TRUE(cm::net::send_slices(net.state, link.conn, slices.data(), 40, false));
    EXPECT_EQ(link.peer.receive(expected.size()), expected);
    EXPECT_EQ(link.conn->bytes_sent, expected.size());
}

TEST(Send, AFileThatEndsBeforeItShould) {
    for (const char *settings : {"", "Network Trace Level = PACKETS"}) {  // by the system's call, and piece by piece
        Net net(settings);
        Link link(net);
        int32_t file = -1;
        const std::string path = net.lib.folder().write("short", "0123456789");
        ASSERT_EQ(os.file_open(path.c_str(), CM_O_RDONLY | CM_O_BINARY, &file), 0);
        EXPECT_FALSE(cm::net::send_file(net.state, link.conn, file, 4, 20));
        EXPECT_EQ(os.file_close(file), 0);
        cm_net_close(net.state, link.conn, 0);
        EXPECT_EQ(link.peer.receive(), "456789");
    }
}

}  // namespace
