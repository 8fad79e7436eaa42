// Relaying between a connection with TLS and one without.
#include "net.h"
#include "net/transport.h"

using namespace cm::test;
using cm::net::TlsRead;

namespace {

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

TEST(Relay, BetweenTlsAndPlain) {
    cm::net::Transport bytes = {};
    bytes.pending = pending;
    bytes.read = read_byte;
    bytes.write = write_all;
    cm::net::transport = &bytes;
    Net net;
    Link client(net), server(net);
    cm::set_bits_relaxed(server.conn->flags, uint32_t{CM_CONN_TLS});
    std::thread circuit([&] { EXPECT_EQ(cm_net_circuit(net.state, client.conn, server.conn, 20), 1); });
    EXPECT_TRUE(server.peer.send("(ticket)"));
    EXPECT_TRUE(client.peer.send("question"));
    EXPECT_EQ(server.peer.receive(8), "question");
    EXPECT_TRUE(server.peer.send("an answer"));
    EXPECT_EQ(client.peer.receive(9), "an answer");
    server.peer.close();
    circuit.join();
    cm::net::transport = nullptr;
}

}  // namespace
