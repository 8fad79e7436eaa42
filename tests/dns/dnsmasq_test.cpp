// The resolver's own client against a real name server.
#include <random>

#include "world.h"

using namespace cm::test;

namespace {

constexpr char kProgram[] = "/usr/sbin/dnsmasq";

// The port of name servers where this process may use it, else one that it may.
int32_t port_at(const string &address) {
    cm_socket socket = cm::platform::kNoSocket;
    EXPECT_EQ(os.socket_open(cm::platform::SocketKind::kDatagram, &socket), 0);
    const bool allowed = os.socket_bind(socket, address_of(address.c_str()), 53) == 0;
    os.socket_close(socket);
    return allowed ? 53 : 5353;
}

TEST(Dnsmasq, AnswersAsItDoesToEverybody) {
    if (cm::platform::kFoldsPathCase || os.path_access(kProgram, CM_ACCESS_EXISTS) != 0)
        GTEST_SKIP() << "the package dnsmasq-base is not installed";
    // An address of this run's own: no port of it is taken by what else runs on this machine.
    std::random_device random;
    const string address = "127.53." + std::to_string(random() % 256) + "." + std::to_string(1 + random() % 254);
    const int32_t port = port_at(address), none[3] = {-1, -1, -1};
    const TempFolder folder;
    const string command =
        string(kProgram) + " --keep-in-foreground --conf-file=/dev/null --pid-file= --no-resolv --no-hosts" +
        " --user=root --bind-interfaces --local=/test/ --listen-address=" + address +
        " --port=" + std::to_string(port) + " --cname=first.test,second.test --cname=second.test,one.test" +
        " --mx-host=domain.test,e.test,50 --mx-host=domain.test,b.test,20 --mx-host=domain.test,a.test,10" +
        " --mx-host=domain.test,d.test,40 --mx-host=domain.test,c.test,30" +
        " --ptr-record=10.9.8.7.in-addr.arpa,as-it-stands.test --addn-hosts=" +
        folder.write("hosts",
                     "10.1.0.1 many.test\n10.1.0.2 many.test\n10.1.0.3 many.test\n10.1.0.4 many.test\n"
                     "10.1.0.5 many.test\n10.1.0.9 one.test\n");
    cm::platform::Process *process = nullptr;
    ASSERT_EQ(os.process_start(command.c_str(), folder.path().c_str(), none, &process), 0);
    Udp probe;
    EXPECT_TRUE(eventually([&] {
        probe.send(query_of("one.test", 1), port, address_of(address.c_str()));
        return probe.readable(50);
    }));
    for (const Scenario &scenario : scenarios("dns/dnsmasq")) Dns({}, address, port).play(scenario);
    int32_t code = 0;
    os.process_kill(process);
    os.process_wait(process, 20000, &code);
    os.process_release(process);
}

}  // namespace
