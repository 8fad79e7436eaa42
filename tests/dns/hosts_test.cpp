// The hosts files, and what comes before and after them: cache, hook, system, settings.
#include "world.h"

using namespace cm::test;

namespace {

// What a hosts file gives for a name, nobody else being asked.
TEST(Hosts, AreReadLineByLine) {
    World world("");
    for (const Row &row : rows("dns/hosts")) {
        world.hosts(row[1]);
        world.lib.ctx()->dns->flags = row.number(4) != 0 ? CM_DNS_WILDCARDS : 0;
        EXPECT_EQ(world.addresses(row.text(2), false, true), row[3]) << row.where;
    }
    world.lib.folder().remove("config/hosts");
    EXPECT_EQ(world.addresses("host", false, true), "");
}

TEST(Hosts, LongLinesAndNamesAreCut) {
    World world("");
    const string filler(1024 - strlen("10.0.0.1  host"), 'x'), longest(255, 'n'), longer(256, 'n');
    world.hosts("10.0.0.1 " + filler + " host\n10.0.0.2 " + filler + "x host\n10.0.0.3 " + string(9000, 'y') +
                " behind\n10.0.0.4 " + longer + " " + longest + "\n" + string(30, '1') + " far\n10.0.0.5 last\n");
    EXPECT_EQ(world.addresses("host", false, true), "10.0.0.1");
    EXPECT_EQ(world.addresses("hos", false, true), "10.0.0.2");
    EXPECT_EQ(world.addresses("behind", false, true), "");
    EXPECT_EQ(world.addresses(longest.c_str(), false, true), "10.0.0.4");
    EXPECT_EQ(world.addresses(longer.c_str(), false, true), "");
    EXPECT_EQ(world.addresses("last", false, true), "10.0.0.5");
    EXPECT_EQ(world.name("10.0.0.4", false, true), longest);
}

// A file without a line is not read again until it looks different; one that changed just now is.
TEST(Hosts, FilesOfNothingAreNotReadAgain) {
    World world("");
    int opened = 0;
    const auto real = os.file_open;
    const Replace<&Table::file_open> open([&](const char *path, int32_t flags, int32_t *out) {
        opened += string(path).ends_with("/hosts");
        return real(path, flags, out);
    });
    const auto opens = [&] {
        opened = 0;
        EXPECT_EQ(world.addresses("host", false, true), "");
        EXPECT_EQ(world.addresses("host", false, true), "");
        return opened;
    };
    EXPECT_EQ(opens(), 2);  // changed in the future
    world.clock.set(4000000000);
    EXPECT_EQ(opens(), 1);
    EXPECT_EQ(opens(), 0);
    world.hosts("# another remark\n");
    EXPECT_EQ(opens(), 1);
    world.hosts("10.0.0.1 host\n");
    EXPECT_EQ(world.addresses("host", false, true), "10.0.0.1");
    world.hosts("10.0.0.1 other\n");
    EXPECT_EQ(opens(), 2);
}

TEST(Hosts, NameAddressesToo) {
    World world("DNS Wildcards = true");
    world.hosts("10.0.0.1 *.host # first second\n10.0.0.1 third\n10.0.0.2 \"a\" b\n");
    EXPECT_EQ(world.name("10.0.0.1", false, true), "first");
    EXPECT_EQ(world.name("10.0.0.2", false, true), "b");
    EXPECT_EQ(world.name("10.0.0.3", false, true), "");
}

TEST(Hosts, NameExchangers) {
    World world("");
    world.lib.folder().write(
        "config/mxhosts",
        "# mxhosts\ndomain 20 b\nother 1 x\nDOMAIN 10 a.host\ndomain 65536 x\ndomain -1 x\ndomain x\n"
        "domain 10 x\"y\ndomain 30 d\ndomain 20 c\ndomain 40 e\n\ndomain 0 hidden\n");
    EXPECT_EQ(world.exchangers("domain", true), "a.host b c d");
    EXPECT_EQ(world.exchangers("Other", true), "x");
    EXPECT_EQ(world.exchangers("*", true), "");
    world.lib.folder().write("config/mxhosts", "*.host 5 any\nwww.host 4 one\n");
    EXPECT_EQ(world.exchangers("www.host", true), "one");
    world.lib.ctx()->dns->flags = CM_DNS_WILDCARDS;
    EXPECT_EQ(world.exchangers("www.host", true), "one any");
}

TEST(Sources, HookThenServerOrSystem) {
    World world("");
    world.hosts("10.0.0.1 host\n");
    cm_dns_state *dns = world.lib.ctx()->dns;
    static int asked;
    asked = 0;
    dns->hook_argument = 77;
    dns->hook = [](cm_context *ctx, cm_value argument, const char *name, uint32_t *out_address) -> int16_t {
        asked++;
        EXPECT_EQ(ctx->dns->hook_argument, argument);
        *out_address = address_of("10.0.0.7");
        return string(name) == "hooked";
    };
    EXPECT_EQ(world.addresses("host", false, true), "10.0.0.1");
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(world.addresses("hooked", false, true), "10.0.0.7");
    EXPECT_EQ(world.addresses("other", false, true), "");
    EXPECT_EQ(asked, 2);
    const Replace<&Table::host_by_name> by_name([](const char *name, uint32_t out[4], int32_t *count) -> Error {
        for (uint32_t i = 0; i < 4; i++) out[i] = address_of("10.0.1.1");
        *count = string(name) == "two" ? 2 : 9;
        return 0;
    });
    EXPECT_EQ(world.addresses("two", false), "10.0.1.1 10.0.1.1");
    EXPECT_EQ(world.addresses("many", false), "10.0.1.1 10.0.1.1 10.0.1.1 10.0.1.1");
    string name(61, 'n');
    const Replace<&Table::host_by_address> by_address([&](uint32_t, char *out, size_t size) -> Error {
        cm_strncpy(out, name.c_str(), static_cast<int32_t>(size));
        return 0;
    });
    EXPECT_EQ(world.name("10.0.0.9", false), string(60, 'n'));
    name = "bad\nname";
    EXPECT_EQ(world.name("10.0.0.9", false), "");
}

TEST(Sources, TheCacheKeepsThreeAddresses) {
    World world(string(kServerHere) + "Cache DNS Interval = 60");
    Script script;
    script.advance = [&](int64_t ms) { world.clock.advance_ms(ms); };
    script.serve = [&](const string &query) {
        script.reply(
            answer_to(query, {a_record("10.0.0.1"), a_record("10.0.0.2"), a_record("10.0.0.3"), a_record("10.0.0.4")}));
    };
    EXPECT_EQ(world.addresses("host"), "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4");
    EXPECT_EQ(world.addresses("host"), "10.0.0.1 10.0.0.2 10.0.0.3");
    EXPECT_EQ(world.addresses("host", false, true), "10.0.0.1 10.0.0.2 10.0.0.3");
    EXPECT_EQ(script.queries.size(), 1u);
    world.clock.advance(61);
    EXPECT_EQ(world.addresses("host", false, true), "");
    world.hosts("10.0.0.9 host\n");
    EXPECT_EQ(world.addresses("host"), "10.0.0.9");
    world.hosts("");
    EXPECT_EQ(world.addresses("host"), "10.0.0.9");
    script.serve = [&](const string &query) { script.reply(answer_to(query, {}, 3)); };
    EXPECT_EQ(world.addresses("nobody"), "");
    EXPECT_EQ(world.addresses("nobody"), "");
    EXPECT_EQ(script.queries.size(), 3u);
}

TEST(Sources, ServersThatAreNoAddresses) {
    {
        World world("DNS Primary = 10.1\nDNS Secondary = 10.0.0.2");
        EXPECT_TRUE(world.lib.logged("WARN:  DNS Primary Server is not a valid IP address: 10.1"));
        EXPECT_EQ(dotted(world.lib.ctx()->dns->primary), "10.0.0.2");
        EXPECT_EQ(world.lib.ctx()->dns->alternate, 0u);
        EXPECT_EQ(world.lib.folder().read("config/hosts"), "# hosts\n");
        EXPECT_EQ(world.lib.folder().read("config/mxhosts"), "# mxhosts\n");
    }
    World world("DNS Primary = 10.0.0.1\nDNS Secondary = x\nDNS Hosts File = names",
                [](TempFolder &folder) { folder.write("config/names", "10.0.0.1 host\n"); });
    EXPECT_TRUE(world.lib.logged("WARN:  DNS Secondary Server is not a valid IP address: x"));
    EXPECT_EQ(world.lib.ctx()->dns->primary, 0u);
    EXPECT_EQ(world.addresses("host", false, true), "10.0.0.1");
    EXPECT_FALSE(world.lib.folder().exists("config/hosts"));
}

TEST(Sources, WithoutAContextOnlyTheSystem) {
    uint32_t address = 0;
    char name[CM_DNS_NAME];
    EXPECT_EQ(cm_dns_gethostaddr(nullptr, "host", 0, 1, &address, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(address, CM_INADDR_NONE);
    EXPECT_EQ(cm_dns_gethostname(nullptr, 1, 0, 1, name), 0);
    EXPECT_EQ(cm_dns_gethostname(nullptr, 1, 0, 1, nullptr), 0);
    EXPECT_EQ(cm_dns_gethostmx(nullptr, "host", 0, name, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(cm_dns_localrecord(nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(cm_dns_forward(nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(cm_dns_failure(nullptr, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(cm_dns_optimize(nullptr), 0);
    EXPECT_EQ(cm_dns_init(nullptr), 0);
    EXPECT_EQ(cm_dns_exit(nullptr), 0);
}

}  // namespace
