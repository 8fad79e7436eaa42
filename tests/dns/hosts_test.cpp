// The hosts files, and what comes before and after them: cache, hook, system, settings.
#include "world.h"

using namespace cm::test;

namespace {

// What a hosts file gives for a name, nobody else being asked.
TEST(Hosts, AreReadLineByLine) {
    struct {
        const char *what, *content, *name, *found;
        bool wildcards;
    } const rows[] = {
        {"a line", "10.0.0.1 host\n", "host", "10.0.0.1", false},
        {"no case", "10.0.0.1 Some.Host\n", "sOME.hOST", "10.0.0.1", false},
        {"the whole name", "10.0.0.1 hos\n10.0.0.2 hosts\n", "host", "", false},
        {"several names", "10.0.0.1 a b\tc host\n", "host", "10.0.0.1", false},
        {"the first of two lines", "10.0.0.1 host\n10.0.0.2 host\n", "host", "10.0.0.1", false},
        {"remarks and blank lines", "# 10.0.0.9 host\n \t\n  # x\n  10.0.0.1   host\n", "host", "10.0.0.1", false},
        {"nothing behind an empty line", "10.0.0.2 other\n\n10.0.0.1 host\n", "host", "", false},
        {"an empty line of the other kind", "\r\n10.0.0.1 host\r\n", "host", "", false},
        {"line ends of the other kind", "10.0.0.9 other\r\n10.0.0.1 host\r\n", "host", "10.0.0.1", false},
        {"no line end", "10.0.0.1 host", "host", "10.0.0.1", false},
        {"a remark behind names is names", "10.0.0.1 a # host\n", "host", "10.0.0.1", false},
        {"no address first", "::1 host\n10.0.0 host\n10.0.0.256 host\nhost 10.0.0.1\n10.0.0.1x host\n10.0.0.2 host\n",
         "host", "10.0.0.2", false},
        {"no patterns without the setting", "10.0.0.1 *\n", "host", "", false},
        {"a pattern", "10.0.0.1 *.some.*\n10.0.0.2 *\n", "www.SOME.host", "10.0.0.1", true},
        {"another", "10.0.0.1 h?st\n", "host", "10.0.0.1", true},
        {"a pattern has no special cases", "10.0.0.1 *.*\n10.0.0.2 *\n", "host", "10.0.0.2", true},
        {"nor here", "10.0.0.1 *.*\n", "some.host", "10.0.0.1", true},
        {"a name among patterns", "10.0.0.1 HOST\n", "host", "10.0.0.1", true},
        {"a file of nothing", "", "host", "", false},
    };
    World world("");
    for (const auto &row : rows) {
        world.hosts(row.content);
        world.lib.ctx()->dns->flags = row.wildcards ? CM_DNS_WILDCARDS : 0;
        EXPECT_EQ(world.addresses(row.name, false, true), row.found) << row.what;
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
    static int opened;
    static decltype(os.file_open) real;
    real = os.file_open;
    os.file_open = [](const char *path, int32_t flags, int32_t *out) {
        opened += string(path).ends_with("/hosts");
        return real(path, flags, out);
    };
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
    os.file_open = real;
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
    os.host_by_name = [](const char *name, uint32_t out[4], int32_t *count) -> cm::platform::Error {
        for (uint32_t i = 0; i < 4; i++) out[i] = address_of("10.0.1.1");
        *count = string(name) == "two" ? 2 : 9;
        return 0;
    };
    EXPECT_EQ(world.addresses("two", false), "10.0.1.1 10.0.1.1");
    EXPECT_EQ(world.addresses("many", false), "10.0.1.1 10.0.1.1 10.0.1.1 10.0.1.1");
    os.host_by_address = [](uint32_t, char *out, size_t size) -> cm::platform::Error {
        cm_strncpy(out, string(61, 'n').c_str(), static_cast<int32_t>(size));
        return 0;
    };
    EXPECT_EQ(world.name("10.0.0.9", false), string(60, 'n'));
    os.host_by_address = [](uint32_t, char *out, size_t size) -> cm::platform::Error {
        cm_strncpy(out, "bad\nname", static_cast<int32_t>(size));
        return 0;
    };
    EXPECT_EQ(world.name("10.0.0.9", false), "");
    os.host_by_name = cm::platform::kSystem.host_by_name;
    os.host_by_address = cm::platform::kSystem.host_by_address;
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
