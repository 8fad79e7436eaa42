// Relaying between two connections.
#include "net.h"
#include "net/transport.h"

using namespace cm::test;

namespace {

// Stands in for TLS on one connection: every byte turned over, one byte a read, and a first record without any.
struct Turned {
    static std::string turn(std::string text) {
        for (char &c : text) c = static_cast<char>(~c);
        return text;
    }
    static bool pending(cm_net_state *, cm_conn *) { return !held.empty(); }
    static cm::net::TlsRead read(cm_net_state *, cm_conn *conn, void *buffer, int32_t, int32_t *out_count) {
        char record[1000];
        size_t got = 0;
        if (held.empty()) {
            const cm::platform::Error error =
                os.socket_receive(*conn->sock, record, greeting > 0 ? 8 : sizeof record, false, &got);
            if (error == CM_EWOULDBLOCK) return cm::net::TlsRead::kWait;
            if (error != 0) return cm::net::TlsRead::kFailed;
            if (got == 0) return cm::net::TlsRead::kClosed;
            held = turn({record, got});
            if (greeting-- > 0) return held.clear(), cm::net::TlsRead::kWait;
        }
        *static_cast<char *>(buffer) = held[0];
        held.erase(0, 1);
        *out_count = 1;
        return cm::net::TlsRead::kData;
    }
    static bool write(cm_net_state *, cm_conn *conn, const void *data, int32_t length) {
        const std::string text = turn({static_cast<const char *>(data), static_cast<size_t>(length)});
        const cm::platform::Slice slice = {text.data(), text.size()};
        size_t count = 0;
        return os.socket_send(*conn->sock, &slice, 1, false, &count) == 0 && count == text.size();
    }
    inline static std::string held;
    inline static int greeting = 1;
};

class Circuit : public testing::Test {
protected:
    // Relays on a thread of its own.
    void start(int32_t timeout = 20) {
        thread_ =
            std::thread([this, timeout] { result_ = cm_net_circuit(net_.state, client_.conn, server_.conn, timeout); });
    }
    int16_t join() {
        thread_.join();
        return result_;
    }

    Net net_{"Linger Close = FALSE"};
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
    EXPECT_FALSE(net_.closed(client_.conn));
    EXPECT_EQ(cm_net_send(net_.state, client_.conn, ".", 1), 1) << "it goes on";
    EXPECT_EQ(client_.peer.receive(1), ".");
    EXPECT_NE(net_.trace().find("REQUEST 127.0.0.2 -> 127.0.0.3\n"), std::string::npos);
    EXPECT_NE(net_.trace().find("RESPONSE  127.0.0.3 -> 127.0.0.2\n"), std::string::npos);
}

TEST_F(Circuit, RelaysBetweenTlsAndPlain) {
    cm::net::Transport turned = {};
    turned.pending = Turned::pending;
    turned.read = Turned::read;
    turned.write = Turned::write;
    cm::net::transport = &turned;
    cm::set_bits_relaxed(server_.conn->flags, uint32_t{CM_CONN_TLS});
    start();
    EXPECT_TRUE(server_.peer.send("(ticket)"));
    EXPECT_TRUE(client_.peer.send("question"));
    EXPECT_EQ(server_.peer.receive(8), Turned::turn("question"));
    EXPECT_TRUE(server_.peer.send(Turned::turn("an answer of many bytes")));
    EXPECT_EQ(client_.peer.receive(23), "an answer of many bytes");
    server_.peer.close();
    EXPECT_EQ(join(), 1);
    cm::net::transport = nullptr;
}

// Two peers that write everything before they read anything.
TEST_F(Circuit, NoDirectionHoldsUpTheOther) {
    const std::string to_server(16000000, 'a'), to_client(16000000, 'b');
    std::string at_server, at_client;
    start();
    std::thread writer([&] { EXPECT_TRUE(server_.peer.send(to_client)); });
    std::thread reader([&] { at_server = server_.peer.receive(to_server.size()); });
    EXPECT_TRUE(client_.peer.send(to_server));
    at_client = client_.peer.receive(to_client.size());
    writer.join();
    reader.join();
    EXPECT_TRUE(at_server == to_server);
    EXPECT_TRUE(at_client == to_client);
    client_.peer.close();
    EXPECT_EQ(join(), 1);
}

TEST_F(Circuit, EndsWhenNothingMoves) {
    EXPECT_EQ(cm_net_circuit(net_.state, client_.conn, server_.conn, 0), 0);
    EXPECT_EQ(cm_net_circuit(net_.state, client_.conn, client_.conn, 1), 0);
    EXPECT_EQ(cm_net_circuit(net_.state, client_.conn, nullptr, 1), 0);
    // A server that takes nothing: what it did not take stays in its buffer.
    ASSERT_EQ(os.socket_option(client_.peer.socket(), cm::platform::SocketOption::kSendTimeout, 100), 0);
    start(1);
    while (client_.peer.send(std::string(65536, 'x'))) {
    }
    EXPECT_EQ(join(), 0);
    EXPECT_GT(server_.conn->out_count, 0);
    EXPECT_EQ(server_.conn->out_buf[0], 'x');
    EXPECT_FALSE(net_.closed(server_.conn));
}

TEST_F(Circuit, EndsWithTheNetwork) {
    start();
    EXPECT_TRUE(client_.peer.send("x"));
    EXPECT_EQ(server_.peer.receive(1), "x");
    cm_net_closeall(net_.state);
    EXPECT_EQ(join(), 0);
}

}  // namespace
