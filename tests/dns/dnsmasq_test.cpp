// The resolver's own client against a real name server.
#include <chrono>
#include <random>
#include <thread>

#include "world.h"

using namespace cm::test;

namespace {

constexpr char kProgram[] = "/usr/sbin/dnsmasq";

// A loopback address of this run's own: no port of it is taken by what else runs on this machine.
string own_address() {
    std::random_device random;
    return "127.53." + std::to_string(random() % 256) + "." + std::to_string(1 + random() % 254);
}

// The port of name servers where this process may use it, else one that it may.
int32_t port_at(const string &address) {
    cm_socket socket = cm::platform::kNoSocket;
    EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kDatagram, &socket), 0);
    const bool allowed = os.socket_bind(socket, address_of(address.c_str()), 53) == 0;
    os.socket_close(socket);
    return allowed ? 53 : 5353;
}

// Whether the server takes connections; its datagram socket is bound before.  Not tried by binding the port, which is
// what the server may be about to do.
bool is_served(const string &address, int32_t port) {
    cm_socket socket = cm::platform::kNoSocket;
    EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kStream, &socket), 0);
    const bool served = os.socket_connect(socket, address_of(address.c_str()), port) == 0;
    os.socket_close(socket);
    return served;
}

class Dnsmasq : public testing::Test {
protected:
    void SetUp() override {
        if (cm::platform::kFoldsPathCase || os.path_access(kProgram, CM_ACCESS_EXISTS) != 0)
            GTEST_SKIP() << "the package dnsmasq-base is not installed";
        const string hosts = folder_.write("hosts",
                                           "10.1.0.1 many.test\n10.1.0.2 many.test\n10.1.0.3 many.test\n10.1.0.4 "
                                           "many.test\n10.1.0.5 many.test\n10.1.0.9 one.test\n");
        port_ = port_at(address_);
        string command = string(kProgram) +
                         " --keep-in-foreground --conf-file=/dev/null --pid-file= --no-resolv --no-hosts " +
                         "--user=root --listen-address=" + address_ +
                         " --bind-interfaces --local=/test/ --port=" + std::to_string(port_) + " --addn-hosts=" + hosts;
        for (const char *option :
             {"cname=first.test,second.test", "cname=second.test,one.test", "mx-host=domain.test,e.test,50",
              "mx-host=domain.test,b.test,20", "mx-host=domain.test,a.test,10", "mx-host=domain.test,d.test,40",
              "mx-host=domain.test,c.test,30", "ptr-record=10.9.8.7.in-addr.arpa,as-it-stands.test"})
            command += string(" --") + option;
        const int32_t none[3] = {-1, -1, -1};
        ASSERT_EQ(os.process_start(command.c_str(), folder_.path().c_str(), none, &process_), 0);
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!is_served(address_, port_) && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        port_before_ = cm::dns::server_port;
        cm::dns::server_port = port_;
    }
    void TearDown() override {
        if (process_ == nullptr) return;
        cm::dns::server_port = port_before_;
        int32_t code = 0;
        os.process_kill(process_);
        os.process_wait(process_, 20000, &code);
        os.process_release(process_);
    }

    TempFolder folder_;
    const string address_ = own_address();
    int32_t port_ = 0, port_before_ = 0;
    cm::platform::Process *process_ = nullptr;
    World world_{"DNS Secondary = " + address_ + "\nDNS Timeout = 5"};
};

TEST_F(Dnsmasq, AnswersAsItDoesToEverybody) {
    EXPECT_EQ(world_.addresses("one.test"), "10.1.0.9");
    EXPECT_EQ(world_.addresses("ONE.test."), "10.1.0.9");
    EXPECT_EQ(world_.addresses("first.test"), "10.1.0.9") << "two aliases before the address";
    const string many = world_.addresses("many.test");
    EXPECT_EQ(std::count(many.begin(), many.end(), ' '), 3) << many;
    EXPECT_EQ(world_.addresses("nobody.test"), "");
    EXPECT_EQ(world_.addresses("domain.test"), "") << "a name without an address";
    EXPECT_EQ(world_.exchangers("domain.test"), "a.test b.test c.test d.test");
    EXPECT_EQ(world_.exchangers("one.test"), "");
    EXPECT_EQ(world_.name("10.9.8.7"), "as-it-stands.test");
    EXPECT_EQ(world_.name("9.0.1.10"), "one.test") << "the server reads the question the other way round";
    EXPECT_EQ(world_.name("10.2.2.2"), "");
}

TEST_F(Dnsmasq, AnswersThroughForwarding) {
    cm_conn *listener = nullptr, *request = nullptr;
    ASSERT_EQ(cm_net_listenu(world_.net, "127.0.0.1", 0, &listener), 1);
    Udp client;
    const string query =
        be16(0x4321) + be16(0x0100) + be16(1) + string(6, '\0') + wire("first.test") + be16(1) + be16(1);
    client.send(query, listener->peer_port);
    ASSERT_EQ(cm_net_accept(world_.net, listener, 0, &request), 1);
    EXPECT_EQ(cm_dns_forward(world_.lib, world_.net, listener, request), 1);
    const string answer = client.receive();
    EXPECT_EQ(answer.substr(0, 2), be16(0x4321));
    EXPECT_EQ(answer.substr(6, 2), be16(3));
    EXPECT_EQ(answer.substr(answer.size() - 4), four("10.1.0.9"));
    cm_net_close(world_.net, request, 0);
}

}  // namespace
