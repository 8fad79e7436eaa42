// A small name server on the library: local records, forwarding, error replies.
#include "world.h"

using namespace cm::test;

namespace {

class Server : public testing::Test {
protected:
    Server() {
        EXPECT_EQ(cm_net_listenu(world_.net, "127.0.0.1", 0, &listener_), 1);
        script_.advance = [this](int64_t ms) { world_.clock.advance_ms(ms); };
    }
    ~Server() override { cm_net_close(world_.net, listener_, 0); }

    // A request as the accept loop hands it out.
    cm_conn *request(const string &bytes) {
        client_.send(bytes, listener_->peer_port);
        cm_conn *conn = nullptr;
        EXPECT_EQ(cm_net_accept(world_.net, listener_, 0, &conn), 1);
        return conn;
    }
    using Operation = int16_t (*)(cm_context *, cm_net_state *, cm_conn *, cm_conn *);
    // The reply to a request, "(none)" with a result of 0.
    string reply(Operation operation, const string &bytes) {
        cm_conn *conn = request(bytes);
        const int16_t result = operation(world_.lib, world_.net, listener_, conn);
        cm_net_close(world_.net, conn, 0);
        return result != 0 ? client_.receive() : "(none)";
    }
    string local(const string &name, uint32_t type) {
        const string query = query_of(name, type);
        const string answer = reply(cm_dns_localrecord, query);
        if (answer == "(none)") return answer;
        EXPECT_EQ(answer.substr(0, 3), query.substr(0, 2) + "\x85") << "answer, authoritative, recursion desired";
        EXPECT_EQ(answer.substr(4, 2), be16(1));
        EXPECT_EQ(answer.substr(12, query.size() - 12), query.substr(12));
        return std::to_string(answer[7]) + answer.substr(query.size());
    }
    static string query_of(const string &name, uint32_t type, uint32_t flags = 0x0100) {
        return be16(0x1234) + be16(flags) + be16(1) + string(6, '\0') + wire(name) + be16(type) + be16(1);
    }
    static string with_ttl(string one, uint32_t ttl) { return one.replace(6, 4, be16(ttl >> 16) + be16(ttl)); }

    World world_{string(kServerHere) + "DNS TTL = 70000"};
    Script script_;
    Udp client_;
    cm_conn *listener_ = nullptr;
};

TEST_F(Server, AnswersFromTheFiles) {
    world_.hosts("10.0.0.1 www.host alias\n10.0.0.2 WWW.host\n10.0.0.3 *.wild\n10.0.0.4 one.wild\n");
    world_.lib.folder().write("config/mxhosts", "host 20 mail.host\nhost 10 www.host\n*.wild 5 mx\n");
    const auto a = [](const char *address) { return with_ttl(a_record(address), 70000); };
    EXPECT_EQ(local("www.HOST", 1), "2" + a("10.0.0.1") + a("10.0.0.2"));
    EXPECT_EQ(local("alias", 1), "1" + a("10.0.0.1"));
    EXPECT_EQ(local("www.host", 28), "0");
    EXPECT_EQ(local("1.0.0.10.in-addr.arpa", 12), "1" + with_ttl(record(kOwner, 12, wire("www.host")), 70000));
    // Exchangers point into the question where they can.
    EXPECT_EQ(local("host", 15), "2" + with_ttl(record(kOwner, 15, be16(10) + "\3www\xC0\x0C"), 70000) +
                                     with_ttl(record(kOwner, 15, be16(20) + "\4mail\xC0\x0C"), 70000));
    for (const auto &[name, type] : {std::pair<const char *, uint32_t>{"nobody", 1},
                                     {"any.wild", 1},
                                     {"host", 1},
                                     {"www.host", 15},
                                     {"www.host", 16},
                                     {"2.0.0.10.in-addr.arpa", 1},
                                     {"9.0.0.10.in-addr.arpa", 12},
                                     {"alias", 255},
                                     {"", 1}})
        EXPECT_EQ(local(name, type), "(none)") << name << " " << type;
    EXPECT_TRUE(world_.lib.logged("TRACE: www.HOST -> 10.0.0.1"));
    EXPECT_TRUE(world_.lib.logged("TRACE: host -> www.host"));
    EXPECT_TRUE(world_.lib.logged("TRACE: www.host -> no data"));
    EXPECT_TRUE(world_.lib.logged("TRACE: nobody not local"));
    EXPECT_EQ(local("a\nb c", 1), "(none)");
    EXPECT_TRUE(world_.lib.logged("TRACE: a?b?c not local"));
    EXPECT_EQ(script_.queries.size(), 0u);
}

TEST_F(Server, SeesChangesOfTheFilesWithinASecond) {
    world_.hosts("10.0.0.1 host\n");
    EXPECT_EQ(local("host", 1).substr(13), four("10.0.0.1"));
    world_.hosts("10.0.0.22 host *.wild\n10.0.0.3 one.wild\n");
    EXPECT_EQ(local("host", 1).substr(13), four("10.0.0.1"));
    world_.clock.advance_ms(1000);
    EXPECT_EQ(local("host", 1).substr(13), four("10.0.0.22"));
    world_.lib.ctx()->dns->flags = CM_DNS_WILDCARDS;
    world_.hosts("10.0.0.22 *.wild\n10.0.0.3 one.wild \n10.0.0.4 *\n");
    world_.clock.advance_ms(1000);
    EXPECT_EQ(local("one.wild", 1).substr(13), four("10.0.0.22"));  // the first line that matches
    EXPECT_EQ(local("host", 1).substr(13), four("10.0.0.4"));
    world_.lib.folder().remove("config/hosts");
    world_.clock.advance_ms(1000);
    EXPECT_EQ(local("host", 1), "(none)");
}

TEST_F(Server, RequestsThatAreNotOneQuestionAreNotAnswered) {
    world_.hosts("10.0.0.1 host\n");
    string two = query_of("host", 1), other_class = query_of("host", 1);
    two[5] = 2;
    other_class.back() = 3;
    for (const string &bytes : {string("x"), query_of("host", 1).substr(0, 12), query_of("host", 1).substr(0, 20), two,
                                other_class, query_of("host", 1, 0x8100), query_of("host", 1, 0x2900),
                                be16(1) + be16(0x100) + be16(1) + string(6, '\0') + "\xC0\x0C" + be16(1) + be16(1)}) {
        EXPECT_EQ(reply(cm_dns_localrecord, bytes), "(none)");
        if (bytes != other_class) {
            EXPECT_EQ(reply(cm_dns_forward, bytes), "(none)");
        }
    }
}

TEST_F(Server, Forwards) {
    script_.serve = [&](const string &query) {
        EXPECT_EQ(query.substr(12), query_of("far.host", 16).substr(12));
        script_.reply(answer_to(query, {record(kOwner, 16, "\5hello")}, 3));
    };
    const string request_bytes = query_of("far.host", 16);
    EXPECT_EQ(reply(cm_dns_forward, request_bytes), answer_to(request_bytes, {record(kOwner, 16, "\5hello")}, 3));
    EXPECT_TRUE(world_.lib.logged("TRACE: far.host -> 127.0.0.1"));
    EXPECT_EQ(script_.queries.size(), 1u);
    script_.serve = nullptr;
    EXPECT_EQ(reply(cm_dns_forward, request_bytes), "(none)");
    EXPECT_EQ(script_.queries.size(), 4u);  // one exchange
}

TEST_F(Server, SaysNoInTwelveBytes) {
    struct {
        uint32_t flags;
        int16_t name_error;
        uint32_t replied;
    } const rows[] = {
        {0x0100, 0, 0x0102}, {0x0100, 1, 0x0103}, {0x0120, 1, 0x0123}, {0x0000, 0, 0x0102}, {0x7FFF, 1, 0x0133}};
    for (const auto &row : rows) {
        cm_conn *conn = request(query_of("host", 1, row.flags));
        EXPECT_EQ(cm_dns_failure(world_.lib, world_.net, listener_, conn, row.name_error), 1);
        EXPECT_EQ(client_.receive(), be16(0x1234) + be16(row.replied) + string(8, '\0'));
        cm_net_close(world_.net, conn, 0);
    }
    cm_conn *conn = request("eleven byte");
    EXPECT_EQ(cm_dns_failure(world_.lib, world_.net, listener_, conn, 0), 0);
    cm_net_close(world_.net, conn, 0);
}

TEST_F(Server, DoesNotGoOnArguingWithAnotherServer) {
    const string headers[] = {query_of("host", 1).substr(0, 12), query_of("host", 1, 0x8103)};
    for (int second = 0; second < 3; second++) {
        int answered = 0;
        for (int i = 0; i < 40; i++) {
            cm_conn *conn = request(headers[i % 2]);
            answered += cm_dns_failure(world_.lib, world_.net, listener_, conn, 0);
            cm_net_close(world_.net, conn, 0);
        }
        EXPECT_EQ(answered, 10);
        world_.clock.advance_ms(1000);
    }
    cm_conn *conn = request(query_of("host", 1));
    for (int i = 0; i < 30; i++) EXPECT_EQ(cm_dns_failure(world_.lib, world_.net, listener_, conn, 0), 1);
    cm_net_close(world_.net, conn, 0);
}

TEST_F(Server, RepliesOverConnections) {
    world_.hosts("10.0.0.1 host\n");
    cm_conn *stream = nullptr, *conn = nullptr;
    ASSERT_EQ(cm_net_listen(world_.net, "127.0.0.1", 0, 5, 20, 0, &stream), 1);
    Peer client(stream->peer_port);
    ASSERT_EQ(cm_net_accept(world_.net, stream, 0, &conn), 1);
    const string query = query_of("host", 1);
    memcpy(conn->in_buf, query.data(), query.size());
    conn->in_count = static_cast<int32_t>(query.size());
    EXPECT_EQ(cm_dns_localrecord(world_.lib, world_.net, stream, conn), 1);
    EXPECT_EQ(cm_dns_failure(world_.lib, world_.net, stream, conn, 0), 1);
    const string all = client.receive(2 + query.size() + 16 + 12);
    EXPECT_EQ(all.substr(0, 4), be16(static_cast<uint32_t>(query.size()) + 16) + be16(0x1234));
    EXPECT_EQ(all.substr(2 + query.size() + 16), be16(0x1234) + be16(0x0102) + string(8, '\0'));
}

TEST_F(Server, EveryFailureOnTheWayIsSurvived) {
    world_.hosts("10.0.0.1 host\n10.0.0.2 *.wild\n");
    world_.lib.folder().write("config/mxhosts", "host 10 mail.host\n");
    int size = 2;
    for (const uint32_t group : {Faults::kAllocations, Faults::kFiles, Faults::kSockets}) {
        for (int64_t k = 1;; k++) {
            cm_conn *conn = request(query_of("host", 1));
            int16_t result = 0;
            bool reached = false;
            world_.hosts("10.0.0.1 " + string(static_cast<size_t>(size++), 'x') +
                         " host\n");  // so that it is read again
            world_.clock.advance_ms(2000);
            {
                const LeakCheck leaks;
                const Faults faults(group, k);
                result = cm_dns_localrecord(world_.lib, world_.net, listener_, conn);
                reached = faults.injected() > 0;
            }
            cm_net_close(world_.net, conn, 0);
            if (result != 0) client_.receive();
            if (reached) continue;
            EXPECT_EQ(result, 1);
            break;
        }
    }
}

}  // namespace
