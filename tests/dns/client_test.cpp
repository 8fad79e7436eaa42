// The resolver's own client against a server that follows a script.
#include <algorithm>
#include <set>

#include "world.h"

using namespace cm::test;

namespace {

class Client : public testing::Test {
protected:
    Client() {
        script_.advance = [this](int64_t ms) { world_.clock.advance_ms(ms); };
    }
    // Answers every query with these records.
    void answer_with(const Strings &records, uint32_t rcode = 0) {
        script_.serve = [=, this](const string &query) { script_.reply(answer_to(query, records, rcode)); };
    }

    World world_;
    Script script_;
};

TEST_F(Client, AsksAsTheProtocolSays) {
    answer_with({a_record("10.0.0.1")});
    EXPECT_EQ(world_.addresses("www.Some.Host"), "10.0.0.1");
    ASSERT_EQ(script_.queries.size(), 1u);
    const string query = script_.queries[0].bytes;
    EXPECT_EQ(query.substr(2), string("\x01\0\0\x01\0\0\0\0\0\0", 10) + wire("www.Some.Host") + be16(1) + be16(1));
    EXPECT_NE(query.substr(0, 2), be16(0));
    EXPECT_EQ(script_.elapsed_ms(), 0);
}

// Six tries, two rounds, one identifier; a server without an address is passed over.
TEST_F(Client, KeepsTheScheduleWithADeadServer) {
    EXPECT_EQ(world_.addresses("dead"), "");
    const int64_t expected[] = {0, 1000, 5000, 11000, 12000, 16000};
    ASSERT_EQ(script_.queries.size(), std::size(expected));
    std::set<int32_t> ports;
    for (size_t i = 0; i < std::size(expected); i++) {
        EXPECT_EQ(script_.queries[i].at_ms, expected[i]) << i;
        EXPECT_EQ(script_.queries[i].bytes, script_.queries[0].bytes) << i;
        ports.insert(script_.queries[i].from_port);
    }
    EXPECT_GE(ports.size(), 2u);
    EXPECT_EQ(script_.elapsed_ms(), 2 * (1 + 4 + 6) * 1000);
}

TEST_F(Client, AlternatesBetweenTwoServers) {
    world_.lib.ctx()->dns->alternate = address_of("127.0.0.3");
    int left = 5;
    script_.serve = [&](const string &query) {
        if (--left == 0) script_.reply(answer_to(query, {a_record("10.0.0.1")}));
    };
    EXPECT_EQ(world_.addresses("late"), "10.0.0.1");
    const int64_t times[] = {0, 1000, 2000, 6000, 10000};
    ASSERT_EQ(script_.queries.size(), 5u);
    for (size_t i = 0; i < 5; i++) {
        EXPECT_EQ(script_.queries[i].at_ms, times[i]) << i;
        EXPECT_EQ(dotted(script_.queries[i].to), i % 2 == 0 ? "127.0.0.1" : "127.0.0.3");
    }
}

TEST_F(Client, TakesUpOneOrBothExchanges) {
    struct {
        const char *what;
        uint32_t rcode;
        Strings records;
        size_t queries;
    } const rows[] = {
        {"no answers", 0, {}, 2},
        {"server failure", 2, {}, 2},
        {"server failure with a record", 2, {a_record("10.0.0.1")}, 2},
        {"name error", 3, {}, 1},
        {"format error", 1, {}, 1},
        {"refused", 5, {a_record("10.0.0.1")}, 1},
        {"a record that is cut off", 0, {a_record("10.0.0.1").substr(0, 13)}, 2},
        {"only another type", 0, {record(kOwner, 5, wire("other"))}, 2},
        {"an address of three bytes first", 0, {record(kOwner, 1, "abc"), a_record("10.0.0.1")}, 2},
    };
    for (const auto &row : rows) {
        script_.queries.clear();
        answer_with(row.records, row.rcode);
        EXPECT_EQ(world_.addresses("host"), "") << row.what;
        EXPECT_EQ(script_.queries.size(), row.queries) << row.what;
    }
    // The second of them may still answer.
    int asked = 0;
    script_.serve = [&](const string &query) {
        script_.reply(answer_to(query, {a_record("10.0.0.9")}, asked++ == 0 ? 2 : 0));
    };
    EXPECT_EQ(world_.addresses("host"), "10.0.0.9");
    EXPECT_EQ(script_.elapsed_ms(), 0);
}

// A bare header without the response bit is how this library's servers say no.
TEST_F(Client, TakesABareErrorHeader) {
    script_.serve = [&](const string &query) { script_.reply(query.substr(0, 2) + be16(0x0103) + string(8, '\0')); };
    EXPECT_EQ(world_.addresses("host"), "");
    EXPECT_EQ(script_.queries.size(), 1u);
    EXPECT_EQ(script_.elapsed_ms(), 0);
}

// What is no answer to the query, whoever sent it.
Strings forgeries(const string &query) {
    const Strings good = {a_record("6.6.6.6")};
    string other_id = query, other_name = query, other_type = query;
    other_id[1] = static_cast<char>(other_id[1] ^ 1);
    other_name[13] = 'x';
    other_type[query.size() - 3] = 28;
    string two_questions = answer_to(query, good);
    two_questions[5] = 2;
    return {
        answer_to(other_id, good),
        answer_to(other_name, good),
        answer_to(other_type, good),
        two_questions,
        answer_to(query, good, 0, 0x0100),  // no response bit
        answer_to(query, {}, 3, 0x0100),    // the same, saying no
        answer_to(query, good).substr(0, 11),
        answer_to(query, good).substr(0, 12),
        query.substr(0, 2) + be16(0x8180) + string(8, '\0'),  // a bare header that is no error
        answer_to(query, good) + string(513, 'x'),            // longer than the buffer
        "",
    };
}

TEST_F(Client, DropsWhatIsNoAnswerToTheQuery) {
    Udp neighbour, stranger("127.0.0.2");
    script_.serve = [&](const string &query) {
        for (const string &forgery : forgeries(query)) script_.reply(forgery);
        const string good = answer_to(query, {a_record("6.6.6.6")});
        neighbour.send(good, script_.client_port, script_.client_address);  // another port
        stranger.send(good, script_.client_port, script_.client_address);   // another address
        stranger.send(string(2000, 'x'), script_.client_port, script_.client_address);
        script_.reply(answer_to(query, {a_record("10.0.0.1")}));
    };
    EXPECT_EQ(world_.addresses("some.host"), "10.0.0.1");
    EXPECT_EQ(script_.queries.size(), 1u);
    EXPECT_EQ(script_.elapsed_ms(), 0);
}

TEST_F(Client, AFloodOfForgeriesNeitherWinsNorGainsTime) {
    Udp stranger("127.0.0.2");
    int sent = 0, most = 5000;
    script_.idle = [&] {
        if (sent >= most || script_.queries.empty()) return false;
        const string query = script_.queries.back().bytes;
        for (const string &forgery : forgeries(query)) script_.reply(forgery);
        for (int i = 0; i < 39; i++)
            stranger.send(answer_to(query, {a_record("6.6.6.6")}), script_.client_port, script_.client_address);
        sent += 50;
        world_.clock.advance_ms(9);
        if (sent == 5000) script_.reply(answer_to(query, {a_record("10.0.0.1")}));
        return true;
    };
    EXPECT_EQ(world_.addresses("flooded"), "10.0.0.1");
    EXPECT_EQ(sent, 5000);
    EXPECT_EQ(script_.queries.size(), 1u);
    EXPECT_LT(script_.elapsed_ms(), 1000);

    sent = 5050;
    most = INT32_MAX;  // and one that never ends
    const int64_t before = script_.elapsed_ms();
    EXPECT_EQ(world_.addresses("flooded"), "");
    EXPECT_LE(script_.elapsed_ms() - before, 22000 * 11 / 10);
}

TEST_F(Client, IdentifiersAndPortsAreHardToGuess) {
    script_.serve = [&](const string &query) { script_.reply(answer_to(query, {}, 3)); };
    for (int i = 0; i < 2000; i++) world_.addresses("nobody");
    std::set<string> ids;
    std::set<int32_t> ports;
    for (const auto &query : script_.queries) {
        ids.insert(query.bytes.substr(0, 2));
        ports.insert(query.from_port);
        const uint16_t id = cm::dns::number_at(reinterpret_cast<const uint8_t *>(query.bytes.data()));
        EXPECT_TRUE(id >= 1 && id <= 65530) << id;
    }
    EXPECT_GE(ids.size(), 1900u);
    EXPECT_GE(ports.size(), 1800u);
}

TEST_F(Client, TheReverseQuestionHasTheAddressAsItStands) {
    answer_with({record(kOwner, 12, wire("name.of.it"))});
    EXPECT_EQ(world_.name("10.1.2.3"), "name.of.it");
    EXPECT_EQ(script_.queries[0].bytes.substr(12), wire("10.1.2.3.in-addr.arpa") + be16(12) + be16(1));
    answer_with({record(kOwner, 12, wire("bad name")), record(kOwner, 12, string("\4a\nb\"\0", 6))});
    EXPECT_EQ(world_.name("10.1.2.3"), "");
    EXPECT_EQ(script_.queries.size(), 3u);
}

TEST_F(Client, ExchangersComeBestFirst) {
    answer_with({mx_record(50, "e"), mx_record(10, "b"), mx_record(30, "d"), mx_record(10, "c"), mx_record(5, "a")});
    EXPECT_EQ(world_.exchangers("domain"), "a b c d");
    EXPECT_EQ(script_.queries[0].bytes.substr(12), wire("domain") + be16(15) + be16(1));
    answer_with({mx_record(5, "a"), record(kOwner, 5, wire("other"))});
    EXPECT_EQ(world_.exchangers("domain"), "");
    EXPECT_EQ(world_.exchangers("domain", true), "");
    EXPECT_EQ(script_.queries.size(), 3u);
    char best[CM_DNS_NAME];
    answer_with({mx_record(5, "a")});
    EXPECT_EQ(cm_dns_gethostmx(world_.lib, "domain", 0, best, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(cm_dns_gethostmx(world_.lib, nullptr, 0, best, nullptr, nullptr, nullptr), 0);
}

TEST_F(Client, NamesThatFitNoMessageFailBeforeItIsSent) {
    for (const string &name : {string(64, 'a'), "a." + string(64, 'a') + ".b", string("a..b"), string("."),
                               string(".a"), string("a\\"), string(300, 'a')})
        EXPECT_EQ(world_.addresses(name.c_str()), "") << name;
    for (const char *name : {"1.2.3.4", "1", "127.1", ""}) {
        EXPECT_EQ(world_.addresses(name), "") << name;
        EXPECT_EQ(world_.exchangers(name), "") << name;
    }
    EXPECT_EQ(script_.queries.size(), 0u);
    answer_with({a_record("10.0.0.1")});
    for (const char *name : {"1.2.3.", "1a", "3com.example"}) EXPECT_EQ(world_.addresses(name), "10.0.0.1") << name;
    EXPECT_EQ(script_.queries[0].bytes.substr(12), wire("1.2.3") + be16(1) + be16(1));
}

TEST_F(Client, NoServerNoWait) {
    world_.lib.ctx()->dns->primary = 0;
    EXPECT_EQ(world_.addresses("host"), "");
    EXPECT_EQ(world_.exchangers("host"), "");
    EXPECT_EQ(script_.queries.size(), 0u);
    EXPECT_EQ(script_.elapsed_ms(), 0);
    world_.lib.ctx()->dns->primary = address_of("127.0.0.1");
    cm_net_shutdown(world_.net);
    EXPECT_EQ(world_.addresses("host"), "");
    EXPECT_EQ(script_.elapsed_ms(), 0);
}

TEST_F(Client, EveryFailureOnTheWayIsSurvived) {
    answer_with({a_record("10.0.0.1"), a_record("10.0.0.2")});
    for (const uint32_t group : {Faults::kAllocations, Faults::kSockets, Faults::kFiles, Faults::kEnvironment}) {
        string found;
        each_failure(
            group, [&] { found = world_.addresses("host"); },
            [&](bool injected) {
                EXPECT_TRUE(found == "10.0.0.1 10.0.0.2" || (injected && found.empty()));
                EXPECT_EQ(cm::load_relaxed(world_.net->open_count), 0);
            });
    }
}

}  // namespace
