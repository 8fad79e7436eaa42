// The network log, line by line.
#include "net.h"

using namespace cm::test;

namespace {

std::string replaced(std::string text, uint32_t number, const char *letter) {
    const std::string digits = std::to_string(number);
    for (size_t at; (at = text.find(digits)) != text.npos;) text.replace(at, digits.size(), letter);
    return text;
}

TEST(Trace, EachLevelWritesItsLines) {
    const char *const levels[] = {"NONE", "OPENCLOSE", "PACKETS", "SSL", "STREAM"};
    for (int level = 0; level < 5; level++) {
        Net net((std::string("Network Trace Level = ") + levels[level]).c_str());
        cm_conn *listener = net.listen(), *out = nullptr;
        int32_t error = 0;
        const auto port = static_cast<int32_t>(listener->peer_port);
        ASSERT_EQ(cm_net_connect(net.state, "127.0.0.1", port, 5, 0, 0, &out, &error), 1);
        cm_conn *in = net.accept(listener);
        const uint32_t client = in->peer_port;
        EXPECT_TRUE(net.send(out, "GET / HTTP/1.0\r\n\r\n"));
        EXPECT_EQ(net.receive(in), "GET / HTTP/1.0\r\n\r\n");
        EXPECT_TRUE(net.send(in, "\xFF ok"));
        EXPECT_EQ(net.receive(out), "\xFF ok");
        EXPECT_TRUE(net.send(out, ""));   // no line
        cm_net_close(net.state, out, 0);  // no line: outgoing
        EXPECT_EQ(net.receive(in), "");   // no line: nothing came
        cm_net_close(net.state, in, 0);
        cm_net_close(net.state, listener, 0);  // no line
        std::string expected;
        for (const Row &row : rows("network/trace"))
            if (row.number(0) <= level) expected += row[1] + "\n";
        EXPECT_EQ(replaced(replaced(net.trace(), listener->peer_port, "L"), client, "P"), expected) << levels[level];
    }
}

TEST(Trace, DatagramsAndRefusedConnections) {
    Net net("Network Trace Level = OPENCLOSE\nThrottle IPs = 1\nNetwork Log File = wire.log");
    cm_conn *udp = net.listen_udp();
    Udp client;
    client.send("x", udp->peer_port);
    cm_conn *datagram = net.accept(udp);
    for (int i = 0; i < 2; i++) cm_net_close(net.state, datagram, 0);  // one line per use
    const Link link(net, 5, "127.0.0.2");
    const cm_conn *const refuser = link.listener;
    const Peer refused(refuser->peer_port, "127.0.0.2");
    EXPECT_EQ(net.accept(link.listener), nullptr);
    const auto ends = [](const cm_conn *listener, const char *from, int64_t port) {
        return " [" + std::to_string(listener->peer_port) + "] -> " + from + ":" + std::to_string(port) + "\n";
    };
    const std::string first = ends(udp, "127.0.0.1", client.port()), third = ends(refuser, "127.0.0.2", refused.port());
    EXPECT_EQ(net.lib.folder().read("log/wire.log"), "UDP ACCEPT" + first + "CLOSE" + first + "TCP ACCEPT" +
                                                         ends(refuser, "127.0.0.2", link.peer.port()) + "TCP ACCEPT" +
                                                         third + "CLOSE" + third);
}

TEST(Trace, LevelsChangeWhileItRuns) {
    Net net;
    const Link link(net);
    for (const int32_t level : {CM_NTRACE_NONE, CM_NTRACE_PACKETS, CM_NTRACE_OPENCLOSE, CM_NTRACE_SSL}) {
        if (level != CM_NTRACE_NONE) {
            EXPECT_EQ(cm_net_trace(net.lib, level), 1);
        }
        EXPECT_TRUE(net.send(link.conn, "x"));
    }
    EXPECT_EQ(lines_of(net.trace()).size(), 2u);  // the file went on
    {
        const FrozenClock clock;
        for (int i = 0; i < 2; i++) EXPECT_EQ(cm_net_trace(net.lib, CM_NTRACE_NONE), 1);
        EXPECT_EQ(clock.slept_ms(), 1000);  // the second time there is nothing to close, nothing to wait for
    }
    EXPECT_TRUE(net.send(link.conn, "x"));
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
    EXPECT_EQ(lines_of(net.said()).back(), "ERROR: Unable to open the network log file: wire.log");
}

}  // namespace
