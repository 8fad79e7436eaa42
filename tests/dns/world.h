// A resolver with a name server of the test's making on the loopback network.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/relaxed.h"
#include "messages.h"
#include "net/cmdns.h"
#include "net/cmnet.h"
#include "support/support.h"

namespace cm::test {

using platform::os;

// ---- sockets --------------------------------------------------------------------------------------------------------

class Udp {
public:
    explicit Udp(const char *address = "127.0.0.1") {
        EXPECT_EQ(os.socket_open(platform::SocketKind::kDatagram, &socket_), 0);
        EXPECT_EQ(os.socket_option(socket_, platform::SocketOption::kIgnorePortUnreachable, 1), 0);
        EXPECT_EQ(os.socket_bind(socket_, address_of(address), 0), 0);
        uint32_t bound = 0;
        EXPECT_EQ(os.socket_local(socket_, &bound, &port_), 0);
    }
    ~Udp() { os.socket_close(socket_); }
    Udp(const Udp &) = delete;
    Udp &operator=(const Udp &) = delete;

    int32_t port() const { return port_; }
    void send(const string &data, uint32_t address, int32_t port) {
        EXPECT_EQ(platform::kSystem.socket_send_to(socket_, address, port, data.data(), data.size()), 0);
    }
    // "(none)" when nothing comes within `seconds`.
    string receive(int seconds = 20) {
        platform::WaitItem item = {socket_, false, false, false};
        int32_t ready = 0;
        char data[4096];
        size_t count = 0;
        if (platform::kSystem.socket_wait(&item, 1, seconds * 1000, &ready) != 0 || ready == 0) return "(none)";
        if (platform::kSystem.socket_receive_from(socket_, data, sizeof data, true, &count, &from_address,
                                                  &from_port) != 0)
            return "(none)";
        return {data, count};
    }

    uint32_t from_address = 0;  // of what was received last
    int32_t from_port = 0;

private:
    cm_socket socket_ = platform::kNoSocket;
    int32_t port_ = 0;
};

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

    Script() {
        start_ms_ = os.monotonic_ms();
        self() = this;
        port_before_ = dns::server_port;
        dns::server_port = server.port();
        wait_ = os.socket_wait;
        send_ = os.socket_send_to;
        os.socket_wait = wait;
        os.socket_send_to = send;
    }
    ~Script() {
        os.socket_wait = wait_;
        os.socket_send_to = send_;
        dns::server_port = port_before_;
        self() = nullptr;
    }
    Script(const Script &) = delete;
    Script &operator=(const Script &) = delete;

    void reply(const string &data) { server.send(data, client_address, client_port); }

    Udp server;
    std::function<void(const string &query)> serve;  // a query has come
    std::function<bool()> idle;                      // the client waits: true when more was sent
    std::function<void(int64_t)> advance;            // the clock
    std::vector<Query> queries;
    uint32_t client_address = 0;
    int32_t client_port = 0;

    int64_t elapsed_ms() const { return os.monotonic_ms() - start_ms_; }

private:
    static Script *&self() {
        static Script *script;
        return script;
    }
    static platform::Error wait(platform::WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
        for (;;) {
            const platform::Error error = self()->wait_(items, count, 0, out_ready);
            if (error != 0 || *out_ready > 0 || timeout_ms == 0) return error;
            if (self()->idle && self()->idle()) continue;
            if (timeout_ms > 0) self()->advance(timeout_ms);
            return 0;
        }
    }
    static platform::Error send(cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
        Script &script = *self();
        // Every server's address is the one server, so that a test may have several.
        const platform::Error error =
            script.send_(socket, port == script.server.port() ? address_of("127.0.0.1") : address, port, data, length);
        if (error != 0 || port != script.server.port()) return error;
        const string query = script.server.receive();
        script.client_address = script.server.from_address;
        script.client_port = script.server.from_port;
        script.queries.push_back({query, address, script.client_port, script.elapsed_ms()});
        if (script.serve) script.serve(query);
        return 0;
    }

    int64_t start_ms_ = 0;
    int32_t port_before_ = 0;
    decltype(os.socket_wait) wait_;
    decltype(os.socket_send_to) send_;
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
