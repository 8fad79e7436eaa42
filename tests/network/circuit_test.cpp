// Relaying between two connections.
#include "net.h"
#include "net/transport.h"

using namespace cm::test;
using cm::net::TlsRead;

namespace {

class Circuit : public testing::Test {
protected:
    void start(int32_t timeout = 20) {  // relays on a thread of its own
        thread_ = std::thread([=, this] { result_ = cm_net_circuit(net_.state, client_.conn, server_.conn, timeout); });
    }
    int16_t join() {
        thread_.join();
        return result_;
    }

    Net net_;
    Link client_{net_, 20, "127.0.0.2"}, server_{net_, 20, "127.0.0.3"};
    std::thread thread_;
    int16_t result_ = -1;
};

TEST_F(Circuit, RelaysUntilASideCloses) {
    char text[8];
    ASSERT_EQ(cm_net_trace(net_.lib, CM_NTRACE_PACKETS), 1);
    ASSERT_TRUE(client_.peer.send("CONNECT\nhello"));
    ASSERT_EQ(cm_net_getarg(net_.state, client_.conn, 0, 0, text, sizeof text - 1, nullptr), 1);
    ASSERT_EQ(cm_net_putdata(net_.state, client_.conn, "200 ", 4, 0), 1);
    start();
    EXPECT_EQ(server_.peer.receive(5), "hello");
    EXPECT_TRUE(server_.peer.send("welcome"));
    EXPECT_EQ(client_.peer.receive(11), "200 welcome");
    server_.peer.close();
    EXPECT_EQ(join(), 1);
    EXPECT_TRUE(net_.closed(server_.conn));
    EXPECT_TRUE(net_.send(client_.conn, ".")) << "it goes on";
    EXPECT_NE(net_.trace().find("\nREQUEST 127.0.0.2 -> 127.0.0.3\n"), std::string::npos);
    EXPECT_NE(net_.trace().find("\nRESPONSE  127.0.0.3 -> 127.0.0.2\n"), std::string::npos);
}

// Stands in for TLS: a first record of eight bytes without data, then one byte a read.
bool pending(cm_net_state *, cm_conn *conn) {
    cm::platform::WaitItem item = {*conn->sock, false, false, false};
    int32_t ready = 0;
    return os.socket_wait(&item, 1, 0, &ready) == 0 && ready > 0;
}
TlsRead read_byte(cm_net_state *, cm_conn *conn, void *buffer, int32_t, int32_t *out_count) {
    size_t got = 0;
    const Error error = os.socket_receive(*conn->sock, buffer, 1, false, &got);
    if (error != 0) return error == CM_EWOULDBLOCK ? TlsRead::kWait : TlsRead::kFailed;
    *out_count = static_cast<int32_t>(got);
    return got == 0 ? TlsRead::kClosed : conn->tls_alg_bits++ < 8 ? TlsRead::kWait : TlsRead::kData;
}
bool write_all(cm_net_state *, cm_conn *conn, const void *data, int32_t length) {
    const cm::platform::Slice slice = {data, static_cast<size_t>(length)};
    size_t count = 0;
    return os.socket_send(*conn->sock, &slice, 1, false, &count) == 0 && count == slice.length;
}

TEST_F(Circuit, RelaysBetweenTlsAndPlain) {
    cm::net::Transport bytes = {};
    bytes.pending = pending;
    bytes.read = read_byte;
    bytes.write = write_all;
    cm::net::transport = &bytes;
    cm::set_bits_relaxed(server_.conn->flags, uint32_t{CM_CONN_TLS});
    start();
    EXPECT_TRUE(server_.peer.send("(ticket)"));
    EXPECT_TRUE(client_.peer.send("question"));
    EXPECT_EQ(server_.peer.receive(8), "question");
    EXPECT_TRUE(server_.peer.send("an answer"));
    EXPECT_EQ(client_.peer.receive(9), "an answer");
    server_.peer.close();
    EXPECT_EQ(join(), 1);
    cm::net::transport = nullptr;
}

// Two peers that write everything before they read anything; then the network ends.
TEST_F(Circuit, NoDirectionHoldsUpTheOther) {
    const std::string to_server(16000000, 'a'), to_client(16000000, 'b');
    start();
    std::thread writer([&] { EXPECT_TRUE(server_.peer.send(to_client)); });
    std::thread reader([&] { EXPECT_TRUE(server_.peer.receive(to_server.size()) == to_server); });
    EXPECT_TRUE(client_.peer.send(to_server));
    EXPECT_TRUE(client_.peer.receive(to_client.size()) == to_client);
    writer.join();
    reader.join();
    cm_net_closeall(net_.state);
    EXPECT_EQ(join(), 0);
}

TEST_F(Circuit, EndsWhenNothingMoves) {
    EXPECT_EQ(cm_net_circuit(net_.state, client_.conn, server_.conn, 0), 0);
    EXPECT_EQ(cm_net_circuit(net_.state, client_.conn, client_.conn, 1), 0);
    ASSERT_EQ(os.socket_option(client_.peer.socket(), cm::platform::SocketOption::kSendTimeout, 100), 0);
    start(1);
    while (client_.peer.send(std::string(65536, 'x'))) {
    }
    EXPECT_EQ(join(), 0);
    EXPECT_GT(server_.conn->out_count, 0) << "what the server did not take stays in its buffer";
    EXPECT_EQ(server_.conn->out_buf[0], 'x');
}

}  // namespace
