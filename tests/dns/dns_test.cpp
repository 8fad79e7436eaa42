// The resolver, and the library's own server: their scenarios, and what is not told as one.
#include "core/cmblocks.h"
#include "world.h"

namespace {

using namespace cm::test;

SCENARIOS(Client, Dns, "dns/client");
SCENARIOS(Server, Dns, "dns/server");

TEST(Resolver, IdentifiersAndPortsAreHardToGuess) {
    Dns world;
    world.say("serve flags=0x8183");
    for (int i = 0; i < 2000; i++) world.say("addresses nobody");
    const auto id = [](const Dns::Query &query) { return query.bytes.substr(0, 2); };
    for (const Dns::Query &query : world.queries) EXPECT_TRUE(id(query) >= be16(1) && id(query) <= be16(65530));
    EXPECT_GE(world.different(id), 1900u);
    EXPECT_GE(world.ports(), 1800u);
}

TEST(Resolver, EveryFailureOnTheWayIsSurvived) {
    Dns world;
    world.say("serve a:10.0.0.1 a:10.0.0.2");
    for (const uint32_t group : {Faults::kAllocations, Faults::kSockets, Faults::kFiles, Faults::kEnvironment}) {
        string found;
        each_failure(
            group, [&] { found = world.say("addresses host"); },
            [&](bool injected) {
                EXPECT_TRUE(found == "10.0.0.1 10.0.0.2" || (injected && found.empty())) << found;
                EXPECT_EQ(cm::load_relaxed(world.net->open_count), 0);
            });
    }
}

TEST(Resolver, EveryFailureOfALocalReplyIsSurvived) {
    Dns world;
    world.say("file mxhosts host 10 mail.host\\n");
    string hosts;  // more of them than a block of memory holds
    for (int i = 0; i < 300; i++) hosts += "10.0.0.1 host" + std::to_string(i) + "\n";
    world.lib.folder().write("config/hosts", hosts);
    for (const uint32_t group : {Faults::kAllocations, Faults::kFiles, Faults::kSockets}) {
        cm_conn *request = nullptr;
        int16_t result = 0;
        const auto prepare = [&] {
            cm::dns::forget_records(cm::dns::state_of(world.lib));
            cm::blocks::trim();
            request = world.request(query_of("host299", 1));
        };
        prepare();
        each_failure(
            group, [&] { result = cm_dns_localrecord(world.lib, world.net, world.listener, request); },
            [&](bool injected) {
                EXPECT_TRUE(result == 1 || injected);
                EXPECT_TRUE(result == 0 || world.who("client").receive() != "(none)");
                cm_net_close(world.net, request, 0);
                world.say("advance 1000");
                EXPECT_EQ(world.say("local host299 1"), "8580 70000 1:\x0A" + string("\0\0\x01", 3));
                prepare();
            });
        cm_net_close(world.net, request, 0);
    }
}

TEST(Resolver, NothingComesOfNothing) {
    uint32_t address = 0;
    char name[CM_DNS_NAME];
    Dns world;
    EXPECT_EQ(cm_dns_gethostaddr(nullptr, "host", 0, 1, &address, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(address, CM_INADDR_NONE);
    EXPECT_EQ(cm_dns_gethostname(nullptr, 1, 0, 1, name) + cm_dns_gethostname(nullptr, 1, 0, 1, nullptr) +
                  cm_dns_gethostmx(nullptr, "host", 0, name, nullptr, nullptr, nullptr) +
                  cm_dns_gethostmx(world.lib, nullptr, 0, name, nullptr, nullptr, nullptr) +
                  cm_dns_localrecord(nullptr, nullptr, nullptr, nullptr) +
                  cm_dns_forward(nullptr, nullptr, nullptr, nullptr) +
                  cm_dns_failure(nullptr, nullptr, nullptr, nullptr, 0) + cm_dns_optimize(nullptr) +
                  cm_dns_init(nullptr) + cm_dns_exit(nullptr),
              0);
}

}  // namespace
