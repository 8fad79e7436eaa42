// The world of the resolver's scenarios: a started library, a name server of the test's making, and clients of the
// library's own server.  The verbs are explained in data/*.txt.
#pragma once

#include "core/relaxed.h"
#include "messages.h"
#include "net/cmdns.h"
#include "net/cmnet.h"
#include "support/failures.h"
#include "support/replace.h"

namespace cm::test {

// Nothing depends on timing: the server answers when the query is sent, and a wait that finds nothing moves the clock.
struct Dns : World {
    using Error = platform::Error;
    using Table = platform::Table;
    struct Query {
        string bytes;
        uint32_t to;
        int32_t from_port;
        int64_t at_ms;
    };
    using Operation = int16_t(cm_context *, cm_net_state *, cm_conn *, cm_conn *);

    // Without a port the name server is the scenario's, else a real one.
    explicit Dns(const Row &head = {}, const string &server = "127.0.0.1", int32_t port = 0)
        : lib(("DNS Primary = " + server + "\nDNS Timeout = 6\nDNS TTL = 70000\nForce IP Bind = 127.0.0.1\n" +
               "Trace Level = TRACE\n" + (head.fields.size() > 1 ? head[1] : ""))
                  .c_str(),
              [](TempFolder &folder) { folder.write("config/names", "10.0.0.1 named\n"); }),
          real_port_(port) {
        EXPECT_TRUE(lib.ok()) << lib.notices();
        EXPECT_EQ(cm_free_threads(lib), 1);  // the scheduler's would see the table change
        cm_hash_clear(lib.ctx()->thread_table, nullptr);
        EXPECT_EQ(cm_net_init(lib, 0, &net), 1);
        library_verbs();
        server_verbs();
        client_verbs();
    }
    ~Dns() {
        dns::server_port = port_before_;
        cm_net_close(net, listener, 0);
        cm_net_shutdown(net);
        EXPECT_EQ(cm_net_exit(net), 1);
    }

    string say(const string &step) { return run(Words(step)); }

    void library_verbs() {
        on("file", [this](auto &words) { lib.folder().write("config/" + words[0], words.rest(1)); });
        on("remove", [this](auto &words) { lib.folder().remove("config/" + words[0]); });
        on("read", [this](auto &words) { return lib.folder().read("config/" + words[0]); });
        on("opens", [this](auto &) { return std::exchange(opened_, 0); });
        on("patterns", [this](auto &words) { lib.ctx()->dns->flags = words.number(0) != 0 ? CM_DNS_WILDCARDS : 0; });
        on("primary", [this](auto &words) { return server(&lib.ctx()->dns->primary, words); });
        on("alternate", [this](auto &words) { return server(&lib.ctx()->dns->alternate, words); });
        on("stop", [this](auto &) { cm_net_shutdown(net); });
        on("clock", [this](auto &words) { clock.set(words.number(0)); });
        on("advance", [this](auto &words) { clock.advance_ms(words.number(0)); });
        on("logged", [this](auto &words) { return lib.logged(words.rest(0)); });
        on("hook", [this](auto &) {
            lib.ctx()->dns->hook_argument = 77;
            lib.ctx()->dns->hook = [](cm_context *, cm_value argument, const char *name, uint32_t *out) -> int16_t {
                *out = address_of("10.0.0.7");
                return argument == 77 && string(name) == "hooked";
            };
        });
        on("system", [this](auto &words) {
            system_error_ = static_cast<Error>(words.number(0));
            system_count_ = static_cast<int32_t>(words.number(1));
            system_name_ = words[2];
        });
        on("count", [this](auto &words) { return Words(run(words)).count(); });
        on("addresses", [this](auto &words) { return asked(words, addresses); });
        on("name", [this](auto &words) { return asked(words, name_of); });
        on("exchangers", [this](auto &words) { return asked(words, exchangers); });
    }
    static string server(uint32_t *field, const Words &words) {
        if (words.count() > 0) *field = address_of(words.text(0));
        return dotted(*field);
    }

    // ---- look-ups; the answers with " " between them, "" when there is none
    using Ask = string(cm_context *, const char *, int16_t local_only, int16_t own_resolver);
    string asked(const Words &words, Ask *ask) const {
        const bool here = words[0] == "here", alone = words[0] == "alone", system = alone || words[0] == "system";
        return ask(alone ? nullptr : lib.ctx(), words.text(here || system), here, !here && !system);
    }
    static string addresses(cm_context *ctx, const char *name, int16_t local_only, int16_t own) {
        uint32_t found[4] = {1, 1, 1, 1};
        const int16_t result =
            cm_dns_gethostaddr(ctx, name, local_only, own, &found[0], &found[1], &found[2], &found[3]);
        Strings all;
        for (const uint32_t one : found)
            if (one != CM_INADDR_NONE) all.push_back(dotted(one));
        return one_text(all, result);
    }
    static string name_of(cm_context *ctx, const char *address, int16_t local_only, int16_t own) {
        char found[CM_DNS_NAME] = "before";
        const int16_t result = cm_dns_gethostname(ctx, address_of(address), local_only, own, found);
        return one_text({found}, result);
    }
    static string exchangers(cm_context *ctx, const char *domain, int16_t local_only, int16_t) {
        char found[4][CM_DNS_NAME] = {"before", "before", "before", "before"};
        const int16_t result = cm_dns_gethostmx(ctx, domain, local_only, found[0], found[1], found[2], found[3]);
        return one_text({found[0], found[1], found[2], found[3]}, result);
    }
    static string one_text(const Strings &all, int16_t result) {
        string text;
        for (const string &one : all)
            if (!one.empty()) text += (text.empty() ? "" : " ") + one;
        EXPECT_EQ(result, !text.empty());
        return text;
    }

    // ---- the name server
    void server_verbs() {
        dns::server_port = real_port_ != 0 ? real_port_ : who("server").port();
        on("serve", [this](auto &words) {
            answers_ = {words};
            queries.clear();
            start_ms_ = os.monotonic_ms();
        });
        on("then", [this](auto &words) { answers_.push_back(words); });
        on("forge", [this](auto &words) { forgeries_.push_back(words); });
        on("flood", [this](auto &words) { flood_ = words.number(0), flood_ms_ = words.number(1); });
        on("queries", [this](auto &) { return queries.size(); });
        on("query", [this](auto &) { return queries.empty() ? "(none)" : queries[0].bytes.substr(2); });
        on("elapsed", [this](auto &) { return os.monotonic_ms() - start_ms_; });
        on("times", [this](auto &) { return of_queries([](auto &query) { return std::to_string(query.at_ms); }); });
        on("servers", [this](auto &) { return of_queries([](auto &query) { return dotted(query.to); }); });
        on("messages", [this](auto &) { return different([](auto &query) { return query.bytes; }); });
        on("ports-change", [this](auto &) { return ports() > 1; });
    }
    template <class Function>
    string of_queries(Function function) const {
        string text;
        for (const Query &query : queries) text += (text.empty() ? "" : " ") + function(query);
        return text;
    }
    template <class Function>
    size_t different(Function function) const {
        std::map<string, int> all;
        for (const Query &query : queries) all[function(query)]++;
        return all.size();
    }
    size_t ports() const {
        return different([](auto &query) { return std::to_string(query.from_port); });
    }
    void answer(const string &from, const Words &words, size_t first) {
        if (words[0] == "silent") return;
        who(from).send(composed(answer_to(queries.back().bytes), words, first), queries.back().from_port);
    }
    void forge() {
        for (const Words &words : forgeries_) answer(words[0], words, 1);
    }
    void answer() {
        if (!answers_.empty()) answer("server", answers_[std::min(queries.size(), answers_.size()) - 1], 0);
    }
    // Every server's address is the one server, so that there may be several.
    Error send(cm_socket socket, uint32_t to, int32_t port, const void *data, size_t length) {
        const bool here = port == who("server").port();
        const Error error = send_.real(socket, here ? address_of("127.0.0.1") : to, port, data, length);
        if (error != 0 || !here) return error;
        const string query = who("server").receive();
        queries.push_back({query, to, who("server").from_port, os.monotonic_ms() - start_ms_});
        if (flood_ == 0) forge(), answer();
        return 0;
    }
    Error wait(platform::WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
        const Error error = wait_.real(items, count, real_port_ != 0 ? timeout_ms : 0, out_ready);
        if (error != 0 || *out_ready > 0 || timeout_ms == 0) return error;
        if (flood_ == 0 || queries.empty()) return clock.advance_ms(std::max(timeout_ms, 0)), 0;
        forge();
        clock.advance_ms(flood_ms_);
        flood_ -= std::min<int64_t>(flood_, static_cast<int64_t>(forgeries_.size()));
        if (flood_ == 0) answer();
        return wait(items, count, timeout_ms, out_ready);
    }

    // ---- clients of the library's own server
    void client_verbs() {
        on("over-connections", [this](auto &) { return cm_net_listen(net, "127.0.0.1", 0, 5, 20, 0, &listener); });
        on("local", [this](auto &words) { return reply(cm_dns_localrecord, words); });
        on("forward", [this](auto &words) { return reply(cm_dns_forward, words); });
        on("refuse", [this](auto &words) { return reply(refuse<0>, words); });
        on("refuse-name", [this](auto &words) { return reply(refuse<1>, words); });
        on("refused", [this](auto &words) {
            int count = 0;
            for (int64_t left = words.number(0); left > 0; left--) count += reply(refuse<0>, words, 1) != "(none)";
            return count;
        });
    }
    template <int16_t kNameError>
    static int16_t refuse(cm_context *ctx, cm_net_state *state, cm_conn *from, cm_conn *request) {
        return cm_dns_failure(ctx, state, from, request, kNameError);
    }
    cm_conn *listening() {
        const bool listens = listener != nullptr || cm_net_listenu(net, "127.0.0.1", 0, &listener) == 1;
        EXPECT_TRUE(listens);
        return listener;
    }
    bool over_connections() const { return listener != nullptr && !net::has_flag(listener, CM_CONN_DATAGRAM); }
    // A request as the accept loop hands it out.
    cm_conn *request(const string &bytes) {
        cm_conn *conn = nullptr;
        if (over_connections())
            peer_.emplace(listener->peer_port);
        else
            who("client").send(bytes, listening()->peer_port);
        EXPECT_EQ(cm_net_accept(net, listener, 0, &conn), 1);
        if (over_connections()) {
            memcpy(conn->in_buf, bytes.data(), bytes.size());
            conn->in_count = static_cast<int32_t>(bytes.size());
        }
        return conn;
    }
    string reply(Operation *operation, const Words &words, size_t first = 0) {
        const string query =
            composed(query_of(words[first], static_cast<uint32_t>(words.number(first + 1))), words, first + 2);
        cm_conn *conn = request(query);
        const int16_t result = operation(lib, net, listener, conn);
        cm_net_close(net, conn, 0);
        if (over_connections()) return peer_->receive();
        return result != 0 ? described(query, who("client").receive()) : "(none)";
    }
    // The flags of a reply, and its records: time to live, type, data.
    static string described(const string &query, const string &reply) {
        char text[32];
        snprintf(text, sizeof text, "%02x%02x", static_cast<uint8_t>(reply[2]), static_cast<uint8_t>(reply[3]));
        string all = text;
        EXPECT_EQ(reply.substr(0, 2), query.substr(0, 2));
        if (reply.size() == 12) return all + (reply.substr(4) == string(8, '\0') ? " no question" : " ?");
        EXPECT_EQ(reply.substr(4, 2) + reply.substr(8, 4), be16(1) + string(4, '\0'));
        EXPECT_EQ(reply.substr(12, query.size() - 12), query.substr(12));
        const auto number = [&](size_t at) { return dns::number_at(reinterpret_cast<const uint8_t *>(&reply[at])); };
        uint32_t records = 0;
        for (size_t at = query.size(); at + 12 <= reply.size(); at += 12 + number(at + 10), records++) {
            EXPECT_EQ(reply.substr(at, 2) + reply.substr(at + 4, 2), "\xC0\x0C" + be16(1));
            snprintf(text, sizeof text, " %d %d:", number(at + 6) << 16 | number(at + 8), number(at + 2));
            all += text + reply.substr(at + 12, number(at + 10));
        }
        EXPECT_EQ(number(6), records);
        return all;
    }

    // Sockets of the network's other ends, by name.
    Udp &who(const string &name) {
        return people_.try_emplace(name, name == "stranger" ? "127.0.0.2" : "127.0.0.1").first->second;
    }

    FrozenClock clock;
    Library lib;
    cm_net_state *net = nullptr;
    cm_conn *listener = nullptr;
    std::vector<Query> queries;

private:
    std::map<string, Udp> people_;
    std::vector<Words> answers_, forgeries_;
    int64_t flood_ = 0, flood_ms_ = 0, start_ms_ = os.monotonic_ms();
    std::optional<Peer> peer_;
    const int32_t real_port_, port_before_ = dns::server_port;
    int opened_ = 0;
    Error system_error_ = 0;
    int32_t system_count_ = 0;
    string system_name_;
    const Replace<&Table::socket_wait> wait_{[this](auto... arguments) { return wait(arguments...); }};
    const Replace<&Table::socket_send_to> send_{[this](auto... arguments) { return send(arguments...); }};
    const Replace<&Table::file_open> open_{[this](const char *path, int32_t flags, int32_t *out) {
        opened_ += string(path).ends_with("/hosts");
        return open_.real(path, flags, out);
    }};
    const Replace<&Table::host_by_name> by_name_{[this](const char *, uint32_t out[4], int32_t *count) -> Error {
        for (uint32_t i = 0; i < 4; i++) out[i] = address_of(("10.0.1." + std::to_string(i)).c_str());
        return *count = system_count_, system_error_;
    }};
    const Replace<&Table::host_by_address> by_address_{[this](uint32_t, char *out, size_t size) -> Error {
        return cm_strncpy(out, system_name_.c_str(), static_cast<int32_t>(size)), system_error_;
    }};
};

}  // namespace cm::test
