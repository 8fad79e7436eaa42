// The network log, line by line.
#include "net.h"
#include "net/cmnet.h"

using namespace cm::test;

namespace {

// One short conversation; gives the log with the port numbers replaced: L the listener's, P the peer's.
std::string conversation(const char *common) {
    std::string text;
    {
        Net net(common);
        cm_conn *listener = net.listen();
        cm_conn *out = nullptr;
        int32_t error = 0;
        const auto port = static_cast<int32_t>(listener->peer_port);
        EXPECT_EQ(cm_net_connect(net.state, "127.0.0.1", port, 5, 0, 0, &out, &error), 1);
        cm_conn *in = net.accept(listener);
        const std::string peer_port = std::to_string(in->peer_port);
        EXPECT_EQ(cm_net_send(net.state, out, "GET / HTTP/1.0\r\n\r\n", CM_LEN_TEXT), 1);
        EXPECT_EQ(net.receive(in), "GET / HTTP/1.0\r\n\r\n");
        EXPECT_EQ(cm_net_send(net.state, in, "\xFF ok", CM_LEN_TEXT), 1);
        EXPECT_EQ(net.receive(out), "\xFF ok");
        EXPECT_EQ(cm_net_send(net.state, out, "", CM_LEN_TEXT), 1);  // no line
        cm_net_close(net.state, out, 0);                             // no line: outgoing
        EXPECT_EQ(net.receive(in), "");                              // no line: nothing came
        cm_net_close(net.state, in, 0);
        cm_net_close(net.state, listener, 0);  // no line
        text = net.trace();
        for (const auto &[number, letter] : {std::pair(std::to_string(port), "L"), std::pair(peer_port, "P")})
            for (size_t at; (at = text.find(number)) != std::string::npos;) text.replace(at, number.size(), letter);
    }
    return text;
}

constexpr char kOpens[] = "TCP CONNECT -> 127.0.0.1:L\nTCP ACCEPT [L] -> 127.0.0.1:P\nCLOSE [L] -> 127.0.0.1:P\n";

constexpr char kPackets[] =
    "TCP CONNECT -> 127.0.0.1:L\n"
    "TCP ACCEPT [L] -> 127.0.0.1:P\n"
    "TCP WRITE [0] -> 127.0.0.1:L [18 bytes]\n"
    "TCP READ [L] -> 127.0.0.1:P [18 bytes]\n"
    "TCP WRITE [L] -> 127.0.0.1:P [4 bytes]\n"
    "TCP READ [0] -> 127.0.0.1:L [4 bytes]\n"
    "CLOSE [L] -> 127.0.0.1:P\n";

constexpr char kRequestDump[] =
    "000000:  47 45 54 20 2F 20 48 54 : 54 50 2F 31 2E 30 0D 0A   GET / HTTP/1.0..\n"
    "000010:  0D 0A                   :                           ................\n";
constexpr char kReplyDump[] = "000000:  FF 20 6F 6B             :                           . ok............\n";

TEST(Trace, EachLevelWritesItsLines) {
    EXPECT_EQ(conversation("Network Trace Level = NONE"), "");
    EXPECT_EQ(conversation("Network Trace Level = OPENCLOSE"), kOpens);
    EXPECT_EQ(conversation("Network Trace Level = PACKETS"), kPackets);
    EXPECT_EQ(conversation("Network Trace Level = SSL"), kPackets);
    std::string stream = kPackets;
    for (const auto &[mark, dump] : {std::pair("[18 bytes]\n", kRequestDump), std::pair("[4 bytes]\n", kReplyDump)})
        for (size_t at = 0; (at = stream.find(mark, at)) != std::string::npos; at++)
            stream.insert(at + strlen(mark), dump);
    EXPECT_EQ(conversation("Network Trace Level = STREAM"), stream);
}

TEST(Trace, DatagramsAndRefusedConnections) {
    Net net("Network Trace Level = OPENCLOSE\nThrottle IPs = 1\nNetwork Log File = wire.log");
    cm_conn *udp = nullptr, *datagram = nullptr;
    ASSERT_EQ(cm_net_listenu(net.state, "127.0.0.1", 0, &udp), 1);
    cm_socket socket = -1;
    ASSERT_EQ(os.socket_open(cm::platform::SocketKind::kDatagram, &socket), 0);
    ASSERT_EQ(os.socket_send_to(socket, address_of("127.0.0.1"), static_cast<int32_t>(udp->peer_port), "x", 1), 0);
    ASSERT_EQ(cm_net_accept(net.state, udp, 0, &datagram), 1);
    const std::string ends =
        " [" + std::to_string(udp->peer_port) + "] -> 127.0.0.1:" + std::to_string(datagram->peer_port) + "\n";
    cm_net_close(net.state, datagram, 0);
    cm_net_close(net.state, datagram, 0);  // once per use
    os.socket_close(socket);
    Link link(net, 5, "127.0.0.2");
    Peer refused(link.listener->peer_port, "127.0.0.2");
    EXPECT_EQ(cm_net_accept(net.state, link.listener, 0, &datagram), 0);
    const std::string port = " [" + std::to_string(link.listener->peer_port) + "] -> 127.0.0.2:";
    EXPECT_EQ(net.lib.folder().read("log/wire.log"), "UDP ACCEPT" + ends + "CLOSE" + ends + "TCP ACCEPT" + port +
                                                         std::to_string(link.conn->peer_port) + "\nTCP ACCEPT" + port +
                                                         std::to_string(refused.port()) + "\nCLOSE" + port +
                                                         std::to_string(refused.port()) + "\n");
}

TEST(Trace, LevelsChangeWhileItRuns) {
    Net net;
    Link link(net);
    const auto line = [&] { cm_net_send(net.state, link.conn, "x", 1); };
    line();
    EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_PACKETS), 1);
    line();
    EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_OPENCLOSE), 1);
    line();
    EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_SSL), 1);  // the file goes on
    line();
    EXPECT_EQ(lines_of(net.trace()).size(), 2u);
    {
        const FrozenClock clock;
        EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_NONE), 1);
        EXPECT_EQ(clock.slept_ms(), 1000);
        EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_NONE), 1);  // nothing to close, nothing to wait for
        EXPECT_EQ(clock.slept_ms(), 1000);
    }
    line();
    EXPECT_EQ(lines_of(net.trace()).size(), 2u);
    EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_STREAM), 1);
    EXPECT_EQ(net.trace(), "");  // afresh
    EXPECT_EQ(cm_net_trace(nullptr, 1), 0);
}

TEST(Trace, AFileThatCannotBeOpened) {
    Net net("Network Log File = wire.log");
    net.lib.folder().make_folder("log/wire.log");
    EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_STREAM), 0);
    EXPECT_EQ(net.lib.ctx()->net_trace_level, CM_NTRACE_NONE);
    EXPECT_TRUE(net.lib.logged("ERROR: Unable to open the network log file: wire.log"));
    Library failing("Network Trace Level = PACKETS\nNetwork Log File = wire.log",
                    [](TempFolder &folder) { folder.make_folder("log/wire.log"); });
}

}  // namespace
