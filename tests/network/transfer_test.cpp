// Receive, send, drain, and whether the peer is alive.
#include "net.h"

using namespace cm::test;
using cm::platform::Slice;

namespace {

// Counts the waits for sockets while it lives.
class WaitCounter {
public:
    int get() const { return count_; }

private:
    int count_ = 0;
    Replace<&Table::socket_wait> wait_{[this, real = os.socket_wait](auto... arguments) {
        count_++;
        return real(arguments...);
    }};
};

bool busy(const cm_conn *conn) {
    return cm::net::has_flag(conn, CM_CONN_BUSY);
}

TEST(Receive, TakesWhatIsThereAndWaitsForTheRest) {
    Net net;
    Link link(net);
    ASSERT_TRUE(link.peer.send("hello world"));
    {
        const WaitCounter waits;
        EXPECT_EQ(net.receive(link.conn, 5), "hello");
        EXPECT_EQ(net.receive(link.conn), " world");
        EXPECT_EQ(waits.get(), 0);
    }
    std::thread sender([&] {
        EXPECT_TRUE(eventually([&] { return busy(link.conn); }));
        EXPECT_TRUE(link.peer.send("late"));
    });
    EXPECT_EQ(net.receive(link.conn), "late");
    sender.join();
    EXPECT_FALSE(busy(link.conn));
    link.peer.close();  // success with nothing, once
    EXPECT_EQ(net.receive(link.conn), "");
    EXPECT_TRUE(net.closed(link.conn));
    EXPECT_EQ(net.receive(link.conn), "(failed)");
    EXPECT_FALSE(net.send(link.conn, "x"));
}

TEST(Receive, FailsAndMarksTheHandleClosed) {
    Net net;
    Link reset(net), timed(net, 0), negative(net, -5), kernel(net), stopped(net);
    reset.peer.reset();
    ASSERT_TRUE(eventually([&] { return cm_net_isalive(net.state, reset.conn) == 0; }));
    ASSERT_EQ(os.socket_option(*kernel.conn->sock, cm::platform::SocketOption::kReceiveTimeout, 50), 0);
    cm::set_bits_relaxed(kernel.conn->flags, uint32_t{CM_CONN_KTIMEOUT});
    cm_conn *bare = cm::net::take_handle(net.state, 1, false);  // no socket
    for (cm_conn *conn : {reset.conn, timed.conn, negative.conn, kernel.conn, bare}) {
        const WaitCounter waits;
        EXPECT_EQ(net.receive(conn), "(failed)");
        EXPECT_TRUE(net.closed(conn) && !busy(conn));
        EXPECT_EQ(waits.get(), conn == timed.conn || conn == negative.conn);  // a time-out of 0 does not last
    }
    char byte = 0;
    int32_t count = 5;
    EXPECT_EQ(cm_net_receive(net.state, stopped.conn, &byte, 0, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(cm_net_receive(net.state, stopped.conn, nullptr, 1, &count), 0);
    EXPECT_EQ(cm_net_receive(net.state, stopped.conn, &byte, -1, nullptr), 0);
    EXPECT_FALSE(net.closed(stopped.conn));
    std::thread reader([&] { EXPECT_EQ(net.receive(stopped.conn), "(failed)"); });
    ASSERT_TRUE(eventually([&] { return busy(stopped.conn); }));
    cm_net_shutdown(net.state);  // wakes it long before its twenty seconds
    reader.join();
}

TEST(Send, SendsATextUpToItsEndAndAnythingElseByLength) {
    Net net;
    Link link(net), gone(net);
    const auto send = [&](const char *data, int32_t length) { return cm_net_send(net.state, link.conn, data, length); };
    EXPECT_TRUE(send("text\0more", CM_LEN_TEXT) && send("a\0b", 3) && send("x", 0) && send("x", -7));
    EXPECT_FALSE(send(nullptr, CM_LEN_TEXT) || send(nullptr, 4));
    EXPECT_EQ(link.peer.receive(7), std::string("texta\0b", 7));
    EXPECT_EQ(link.conn->bytes_sent, 7u);
    EXPECT_FALSE(net.closed(link.conn));
    gone.peer.reset();
    ASSERT_TRUE(eventually([&] { return cm_net_isalive(net.state, gone.conn) == 0; }));
    for (cm_conn *conn : {gone.conn, cm::net::take_handle(net.state, 1, false)}) {
        EXPECT_FALSE(net.send(conn, "x"));
        EXPECT_TRUE(net.closed(conn));
        EXPECT_EQ(conn->bytes_sent, 0u);
    }
    cm_net_shutdown(net.state);
    EXPECT_FALSE(send("x", 1));
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

TEST(Send, APeerThatNeverReadsIsGivenUpAfterTheReadTimeOut) {
    Net net;
    const Link link(net, 1);
    const std::string block(1 << 20, 'x');
    const int64_t begin = os.monotonic_ms();
    int sent = 0;
    while (net.send(link.conn, block) && sent < 64) sent++;
    EXPECT_LT(sent, 64);
    EXPECT_TRUE(net.closed(link.conn));
    EXPECT_LT(os.monotonic_ms() - begin, 6000);
}

TEST(Send, PartsOfFiles) {
    for (const char *settings : {"", "Network Trace Level = PACKETS"}) {  // by the system's call, and piece by piece
        Net net(settings);
        Link link(net);
        std::string bytes, got;
        for (int i = 0; i < 300000; i++) bytes += static_cast<char>('a' + i % 23);
        const std::string path = net.lib.folder().write("big.bin", bytes);
        int32_t descriptor = -1;
        ASSERT_EQ(os.file_open(path.c_str(), CM_O_RDONLY | CM_O_BINARY, &descriptor), 0);
        std::thread reader([&] { got = link.peer.receive(); });
        EXPECT_TRUE(cm::net::send_file(net.state, link.conn, descriptor, 1000, 250000));
        EXPECT_TRUE(cm::net::send_file(net.state, link.conn, descriptor, 0, 0));
        EXPECT_EQ(link.conn->bytes_sent, 250000u);
        EXPECT_FALSE(cm::net::send_file(net.state, link.conn, descriptor, 299990, 20));  // shorter than that
        cm_net_close(net.state, link.conn, 0);
        reader.join();
        os.file_close(descriptor);
        EXPECT_TRUE(got == bytes.substr(1000, 250000) + bytes.substr(299990));
    }
}

TEST(Alive, UntilAReset) {
    Net net;
    Link link(net), finished(net);
    const auto alive = [&](cm_conn *conn) { return cm_net_isalive(net.state, conn) == 1; };
    EXPECT_TRUE(alive(link.conn));
    finished.peer.close();
    EXPECT_TRUE(alive(finished.conn));  // an end of its stream alone is no reset
    link.peer.reset();
    EXPECT_TRUE(eventually([&] { return !alive(link.conn); }));
    EXPECT_EQ(net.receive(link.conn), "(failed)");  // the error is still there to be read
    EXPECT_FALSE(alive(link.conn));
    EXPECT_TRUE(alive(cm::net::take_handle(net.state, 1, false)));  // kept: an error that is not the peer's
    {
        const Replace<&Table::socket_wait> wait([](auto...) { return CM_ENOTCONN; });
        EXPECT_FALSE(alive(finished.conn));
    }
    cm_net_shutdown(net.state);
    EXPECT_FALSE(alive(finished.conn));
}

TEST(Drain, ReadsOffAPeerThatStillSendsUnlessLingerDoesThat) {
    struct {
        const char *settings;
        bool failed;  // a handle that failed has nobody to read off
        int waits;    // the unread bytes, then a second of silence
    } const cases[] = {
        {"Linger Close = TRUE", false, 0}, {"Linger Close = FALSE", false, 2}, {"Linger Close = FALSE", true, 0}};
    for (const auto &[settings, failed, expected] : cases) {
        Net net(settings);
        Link link(net);
        ASSERT_TRUE(link.peer.send("unread") && net.send(link.conn, "the last reply"));
        if (failed) cm::net::mark_closed(link.conn);
        std::string got;
        std::thread peer([&] {
            got = link.peer.receive();
            link.peer.close();
        });
        const WaitCounter waits;
        EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
        EXPECT_EQ(waits.get(), expected);
        peer.join();
        EXPECT_TRUE(failed || got == "the last reply");
    }
}

TEST(Drain, EndsForAPeerThatNeverDoes) {
    Net net("Linger Close = FALSE");
    Link link(net);
    std::thread flood([&] {
        while (link.peer.send(std::string(65536, 'f'))) {
        }
    });
    const int64_t begin = os.monotonic_ms();
    EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
    EXPECT_LT(os.monotonic_ms() - begin, 31000);
    flood.join();
}

}  // namespace
