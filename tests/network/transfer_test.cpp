// Receive, send, drain, and whether the peer is alive.
#include "net.h"

using namespace cm::test;
using cm::platform::Error;
using cm::platform::Slice;
using cm::platform::WaitItem;

namespace {

// Counts the waits for sockets while it lives.
class WaitCounter {
public:
    WaitCounter() : saved_(os.socket_wait) {
        count() = 0;
        real() = saved_;
        os.socket_wait = [](WaitItem *items, int32_t number, int32_t timeout_ms, int32_t *out_ready) {
            ++count();
            return real()(items, number, timeout_ms, out_ready);
        };
    }
    ~WaitCounter() { os.socket_wait = saved_; }
    int get() const { return count(); }

private:
    using Wait = decltype(cm::platform::Table::socket_wait);
    static int &count() {
        static int count;
        return count;
    }
    static Wait &real() {
        static Wait real;
        return real;
    }
    Wait saved_;
};

TEST(Receive, TakesWhatIsThereWithoutWaiting) {
    Net net;
    Link link(net);
    ASSERT_TRUE(link.peer.send("hello world"));
    const WaitCounter waits;
    EXPECT_EQ(net.receive(link.conn, 5), "hello");
    EXPECT_EQ(net.receive(link.conn), " world");
    EXPECT_EQ(waits.get(), 0);
    EXPECT_FALSE(cm::net::has_flag(link.conn, CM_CONN_BUSY));
}

TEST(Receive, WaitsForWhatIsNotThereYet) {
    Net net;
    Link link(net);
    std::thread sender([&] {
        EXPECT_TRUE(eventually([&] { return cm::net::has_flag(link.conn, CM_CONN_BUSY); }));
        EXPECT_TRUE(link.peer.send("late"));
    });
    EXPECT_EQ(net.receive(link.conn), "late");
    sender.join();
    EXPECT_FALSE(cm::net::has_flag(link.conn, CM_CONN_BUSY));
}

TEST(Receive, APeerThatClosesIsSuccessWithNothingOnce) {
    Net net;
    Link link(net);
    ASSERT_TRUE(link.peer.send("bye"));
    link.peer.close();
    EXPECT_EQ(net.receive(link.conn), "bye");
    EXPECT_EQ(net.receive(link.conn), "");
    EXPECT_TRUE(net.closed(link.conn));
    EXPECT_EQ(net.receive(link.conn), "(failed)");
    EXPECT_EQ(cm_net_send(net.state, link.conn, "x", 1), 0);
}

TEST(Receive, FailsAndMarksTheHandleClosed) {
    Net net;
    Link reset(net), timed(net, 0), negative(net, -5), stopped(net);
    reset.peer.reset();
    ASSERT_TRUE(eventually([&] { return cm_net_isalive(net.state, reset.conn) == 0; }));
    EXPECT_EQ(net.receive(reset.conn), "(failed)");
    EXPECT_TRUE(net.closed(reset.conn));
    EXPECT_EQ(net.receive(timed.conn), "(failed)");  // a time-out of 0 does not wait
    EXPECT_EQ(net.receive(negative.conn), "(failed)");
    EXPECT_TRUE(net.closed(timed.conn) && net.closed(negative.conn));
    EXPECT_FALSE(cm::net::has_flag(timed.conn, CM_CONN_BUSY));

    std::thread reader([&] { EXPECT_EQ(net.receive(stopped.conn), "(failed)"); });
    ASSERT_TRUE(eventually([&] { return cm::net::has_flag(stopped.conn, CM_CONN_BUSY); }));
    cm_net_shutdown(net.state);  // wakes it long before its twenty seconds
    reader.join();
}

TEST(Receive, RefusesWhatItCannotDo) {
    Net net;
    Link link(net);
    char byte = 0;
    int32_t count = 5;
    EXPECT_EQ(cm_net_receive(net.state, link.conn, &byte, 0, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(cm_net_receive(net.state, link.conn, nullptr, 1, &count), 0);
    EXPECT_EQ(cm_net_receive(net.state, link.conn, &byte, -1, &count), 0);
    EXPECT_EQ(cm_net_receive(nullptr, link.conn, &byte, 1, &count), 0);
    EXPECT_EQ(cm_net_receive(net.state, nullptr, &byte, 1, nullptr), 0);
    EXPECT_FALSE(net.closed(link.conn));
    cm_conn *bare = cm::net::take_handle(net.state, 1, false);
    EXPECT_EQ(cm_net_receive(net.state, bare, &byte, 1, &count), 0);
    EXPECT_TRUE(net.closed(bare));  // no socket
}

TEST(Receive, WithKernelTimeOutsItDoesNotWaitFirst) {
    Net net;
    Link link(net);
    ASSERT_EQ(os.socket_option(*link.conn->sock, cm::platform::SocketOption::kReceiveTimeout, 50), 0);
    cm::set_bits_relaxed(link.conn->flags, uint32_t{CM_CONN_KTIMEOUT});
    const WaitCounter waits;
    EXPECT_EQ(net.receive(link.conn), "(failed)");
    EXPECT_EQ(waits.get(), 0);
}

TEST(Send, SendsATextUpToItsEndAndAnythingElseByLength) {
    Net net;
    Link link(net);
    EXPECT_EQ(cm_net_send(net.state, link.conn, "text\0more", CM_LEN_TEXT), 1);
    EXPECT_EQ(cm_net_send(net.state, link.conn, "a\0b", 3), 1);
    EXPECT_EQ(cm_net_send(net.state, link.conn, "x", 0), 1);
    EXPECT_EQ(cm_net_send(net.state, link.conn, "x", -7), 1);
    EXPECT_EQ(cm_net_send(net.state, link.conn, nullptr, CM_LEN_TEXT), 0);
    EXPECT_EQ(cm_net_send(net.state, link.conn, nullptr, 4), 0);
    EXPECT_EQ(link.peer.receive(7), std::string("texta\0b", 7));
    EXPECT_EQ(link.conn->bytes_sent, 7u);
    EXPECT_FALSE(net.closed(link.conn));
    cm_conn *bare = cm::net::take_handle(net.state, 1, false);
    EXPECT_EQ(cm_net_send(net.state, bare, "x", 1), 0);
    EXPECT_TRUE(net.closed(bare));
    cm_net_shutdown(net.state);
    EXPECT_EQ(cm_net_send(net.state, link.conn, "x", 1), 0);
}

TEST(Send, ManySlicesArriveInOrderThroughShortSends) {
    Net net;
    Link link(net);
    static decltype(os.socket_send) real;
    real = os.socket_send;
    os.socket_send = [](cm_socket socket, const Slice *slices, int32_t count, bool more, size_t *out) -> Error {
        static int call = 0;
        if (++call % 5 == 0) return CM_EWOULDBLOCK;
        const Slice some = {slices[0].data, std::min<size_t>(slices[0].length, 3)};
        return count > 1 && call % 2 == 0 ? real(socket, slices, count, more, out) : real(socket, &some, 1, more, out);
    };
    std::string expected;
    std::vector<std::string> texts;
    for (int i = 0; i < 40; i++)
        texts.push_back(std::string(static_cast<size_t>(i % 7), static_cast<char>('a' + i % 26)));
    std::vector<Slice> slices;
    for (const std::string &text : texts) {
        slices.push_back({text.data(), text.size()});
        expected += text;
    }
    EXPECT_TRUE(cm::net::send_slices(net.state, link.conn, slices.data(), static_cast<int32_t>(slices.size()), false));
    os.socket_send = real;
    EXPECT_EQ(link.peer.receive(expected.size()), expected);
    EXPECT_EQ(link.conn->bytes_sent, expected.size());
}

TEST(Send, AFailureMarksTheHandleClosed) {
    Net net;
    Link link(net);
    link.peer.reset();
    ASSERT_TRUE(eventually([&] { return cm_net_isalive(net.state, link.conn) == 0; }));
    EXPECT_EQ(cm_net_send(net.state, link.conn, "x", 1), 0);
    EXPECT_TRUE(net.closed(link.conn));
    EXPECT_EQ(link.conn->bytes_sent, 0u);
}

TEST(Send, AHandleOfAFileWritesItsFile) {
    Net net;
    cm_conn *stream = cm::net::take_handle(net.state, 1, false);
    cm::set_bits_relaxed(stream->flags, uint32_t{CM_CONN_FILE});
    ASSERT_EQ(cm_fopen(net.lib, net.lib.folder().absolute("out.txt").c_str(), CM_O_CREAT | CM_O_WRONLY | CM_O_BINARY,
                       &stream->file),
              1);
    EXPECT_EQ(cm_net_send(net.state, stream, "to the file", CM_LEN_TEXT), 1);
    EXPECT_EQ(stream->bytes_sent, 11u);
    char byte = 0;
    EXPECT_EQ(cm_net_receive(net.state, stream, &byte, 1, nullptr), 0);
    EXPECT_EQ(cm_net_close(net.state, stream, 1), 1);
    EXPECT_EQ(net.lib.folder().read("out.txt"), "to the file");
    EXPECT_EQ(cm_net_send(net.state, stream, "x", 1), 0);
}

TEST(Send, APeerThatNeverReadsIsGivenUpAfterTheReadTimeOut) {
    Net net;
    Link link(net, 1);
    const std::string block(1 << 20, 'x');
    const int64_t begin = os.monotonic_ms();
    int sent = 0;
    while (cm_net_send(net.state, link.conn, block.data(), 1 << 20) == 1 && sent < 64) sent++;
    EXPECT_LT(sent, 64);
    EXPECT_TRUE(net.closed(link.conn));
    EXPECT_LT(os.monotonic_ms() - begin, 6000);
}

class SendFile : public testing::TestWithParam<bool> {};

TEST_P(SendFile, SendsAPart) {
    Net net(GetParam() ? "Network Trace Level = PACKETS" : "");
    Link link(net);
    std::string bytes;
    for (int i = 0; i < 300000; i++) bytes += static_cast<char>('a' + i % 23);
    const std::string path = net.lib.folder().write("big.bin", bytes);
    int32_t descriptor = -1;
    ASSERT_EQ(os.file_open(path.c_str(), CM_O_RDONLY | CM_O_BINARY, &descriptor), 0);
    std::string got;
    std::thread reader([&] { got = link.peer.receive(); });
    EXPECT_TRUE(cm::net::send_file(net.state, link.conn, descriptor, 1000, 250000));
    EXPECT_TRUE(cm::net::send_file(net.state, link.conn, descriptor, 0, 0));
    EXPECT_EQ(link.conn->bytes_sent, 250000u);
    EXPECT_FALSE(cm::net::send_file(net.state, link.conn, descriptor, 299990, 20));  // shorter than that
    cm_net_close(net.state, link.conn, 0);
    reader.join();
    os.file_close(descriptor);
    EXPECT_EQ(got, bytes.substr(1000, 250000) + bytes.substr(299990));
}
INSTANTIATE_TEST_SUITE_P(Traced, SendFile, testing::Bool());

TEST(Alive, UntilAReset) {
    Net net;
    Link link(net), finished(net);
    EXPECT_EQ(cm_net_isalive(net.state, link.conn), 1);
    finished.peer.close();
    EXPECT_EQ(cm_net_isalive(net.state, finished.conn), 1);  // an end of its stream alone is no reset
    link.peer.reset();
    EXPECT_TRUE(eventually([&] { return cm_net_isalive(net.state, link.conn) == 0; }));
    EXPECT_EQ(net.receive(link.conn), "(failed)");  // the error is still there to be read
    EXPECT_EQ(cm_net_isalive(net.state, link.conn), 0);
    cm_conn *bare = cm::net::take_handle(net.state, 1, false);
    EXPECT_EQ(cm_net_isalive(net.state, bare), 1);  // kept: an error that is not the peer's counts as alive
    static decltype(os.socket_wait) real;
    real = os.socket_wait;
    os.socket_wait = [](WaitItem *, int32_t, int32_t, int32_t *) -> Error { return CM_ENOTCONN; };
    EXPECT_EQ(cm_net_isalive(net.state, finished.conn), 0);
    os.socket_wait = real;
    cm_net_shutdown(net.state);
    EXPECT_EQ(cm_net_isalive(net.state, finished.conn), 0);
}

TEST(Drain, ReadsOffAPeerThatStillSendsUnlessLingerDoesThat) {
    for (const bool linger : {false, true}) {
        Net net(linger ? "Linger Close = TRUE" : "Linger Close = FALSE");
        Link link(net);
        ASSERT_TRUE(link.peer.send("unread"));
        EXPECT_EQ(cm_net_send(net.state, link.conn, "the last reply", CM_LEN_TEXT), 1);
        std::string got;
        std::thread peer([&] {
            got = link.peer.receive();
            link.peer.close();
        });
        const WaitCounter waits;
        EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
        EXPECT_EQ(waits.get(), linger ? 0 : 2);  // the unread bytes, then a second of silence
        peer.join();
        EXPECT_EQ(got, "the last reply");
    }
}

TEST(Drain, EndsForAPeerThatNeverDoes) {
    Net net("Linger Close = FALSE");
    Link link(net);
    std::thread flood([&] {
        const std::string block(65536, 'f');
        while (link.peer.send(block)) {
        }
    });
    const int64_t begin = os.monotonic_ms();
    EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
    EXPECT_LT(os.monotonic_ms() - begin, 31000);
    flood.join();
}

TEST(Drain, NotForAHandleThatFailed) {
    Net net("Linger Close = FALSE");
    Link link(net);
    ASSERT_TRUE(link.peer.send("unread"));
    cm::net::mark_closed(link.conn);
    const WaitCounter waits;
    EXPECT_EQ(cm_net_close(net.state, link.conn, 1), 1);
    EXPECT_EQ(waits.get(), 0);
}

}  // namespace
