// A resolver with a name server of the test's making on the loopback network.
#pragma once

#include <functional>

#include "core/relaxed.h"
#include "messages.h"
#include "net/cmdns.h"
#include "net/cmnet.h"

namespace cm::test {

// A server of names that answers inside the client's own calls, so that nothing depends on timing: a query is served
// when it is sent, and a wait that finds nothing moves the clock to its end.
class Script {
public:
    struct Query {
        string bytes;
        uint32_t to;
        int32_t from_port;
        int64_t at_ms;  // since the script began
    };

    Script() { dns::server_port = server.port(); }
    ~Script() { dns::server_port = port_before_; }
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;

    void reply(const string &data) { server.send(data, client_port, client_address); }

    Udp server;
    std::function<void(const string &query)> serve;  // a query has come
    std::function<bool()> idle;                      // the client waits: true when more was sent
    std::function<void(int64_t)> advance;            // the clock
    std::vector<Query> queries;
    uint32_t client_address = 0;
    int32_t client_port = 0;

    int64_t elapsed_ms() const { return os.monotonic_ms() - start_ms_; }

private:
    Error wait(platform::WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
        for (;;) {
            const Error error = wait_.real(items, count, 0, out_ready);
            if (error != 0 || *out_ready > 0 || timeout_ms == 0) return error;
            if (idle && idle()) continue;
            if (timeout_ms > 0) advance(timeout_ms);
            return 0;
        }
    }
    // Every server's address is the one server, so that a test may have several.
    Error send(cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
        const bool here = port == server.port();
        const Error error = send_.real(socket, here ? address_of("127.0.0.1") : address, port, data, length);
        if (error != 0 || !here) return error;
        const string query = server.receive();
        client_address = server.from_address;
        client_port = server.from_port;
        queries.push_back({query, address, client_port, elapsed_ms()});
        if (serve) serve(query);
        return 0;
    }

    const int64_t start_ms_ = os.monotonic_ms();
    const int32_t port_before_ = dns::server_port;
    const Replace<&Table::socket_wait> wait_{[this](auto... arguments) { return wait(arguments...); }};
    const Replace<&Table::socket_send_to> send_{[this](auto... arguments) { return send(arguments...); }};
};

// ---- a started library ----------------------------------------------------------------------------------------------

inline const char kServerHere[] = "DNS Primary = 127.0.0.1\nDNS Timeout = 6\n";

struct World {
    explicit World(const string &common = kServerHere, const std::function<void(TempFolder &)> &prepare = nullptr)
        : lib((common + "\nForce IP Bind = 127.0.0.1\nTrace Level = TRACE\n").c_str(), prepare) {
        EXPECT_TRUE(lib.ok()) << lib.notices();
        EXPECT_EQ(cm_free_threads(lib), 1);  // the scheduler's would see the table change
        cm_hash_clear(lib.ctx()->thread_table, nullptr);
        EXPECT_EQ(cm_net_init(lib, 0, &net), 1);
    }
    ~World() {
        cm_net_shutdown(net);
        EXPECT_EQ(cm_net_exit(net), 1);
    }

    // The addresses of a name, " " between them; "" when the look-up fails.
    string addresses(const char *name, bool own = true, bool local_only = false) {
        uint32_t found[4] = {1, 1, 1, 1};
        const int16_t result =
            cm_dns_gethostaddr(lib, name, local_only, own, &found[0], &found[1], &found[2], &found[3]);
        string text;
        for (const uint32_t one : found)
            if (one != CM_INADDR_NONE) text += (text.empty() ? "" : " ") + dotted(one);
        EXPECT_EQ(result, text.empty() ? 0 : 1);
        return text;
    }
    string name(const char *dotted_text, bool own = true, bool local_only = false) {
        char found[CM_DNS_NAME] = "before";
        const int16_t result = cm_dns_gethostname(lib, address_of(dotted_text), local_only, own, found);
        EXPECT_EQ(result, *found == 0 ? 0 : 1);
        return found;
    }
    string exchangers(const char *domain, bool local_only = false) {
        char found[4][CM_DNS_NAME] = {"before", "before", "before", "before"};
        const int16_t result = cm_dns_gethostmx(lib, domain, local_only, found[0], found[1], found[2], found[3]);
        string text;
        for (const char *one : found)
            if (*one != 0) text += (text.empty() ? "" : " ") + string(one);
        EXPECT_EQ(result, text.empty() ? 0 : 1);
        return text;
    }
    string hosts(const string &content) { return lib.folder().write("config/hosts", content); }

    FrozenClock clock;
    Library lib;
    cm_net_state *net = nullptr;
};

}  // namespace cm::test
