// Everything that is made of connections, as scenarios: data/{start,listen,accept,connect,transfer,datagrams,close,
// streams,circuit,poll,trace}.txt.
#include <atomic>

#include "core/cmthread.h"
#include "net.h"
#include "net/dialup_hook.h"
#include "net/ntp_hook.h"
#include "support/scenario.h"

using namespace cm::test;

namespace {

using std::string;
using std::to_string;

int dialled, hung_up, checked;
int16_t line_answers;
const cm::net::Dialup kLine = {[](cm_context *) -> int16_t { return ++dialled, line_answers; },
                               [](cm_context *) -> int16_t { return ++hung_up, int16_t{1}; },
                               [](cm_context *) -> int16_t { return ++checked, int16_t{1}; }};

int16_t CM_CALL set_the_clock(cm_context *, const char *, cm_value) {
    return 1;
}

// The setting of a case is section "common" of the configuration.  This host is called "box" and has the address
// 10.0.0.1; 127.0.0.2 is client.example.  What a step makes has a name, and "@NAME" is its port, wherever a step takes
// or gives a text.
//
// The library's ends of connections:
//     listen L [ADDRESS|* [PORT [SECONDS]]], listenu L [ADDRESS|* [PORT]], listenc L C      "*": null
//     accept C L [chunked]          visit C L [ADDRESS]    a peer connects and is accepted
//     connect C HOST PORT [tls|later|from OWN-PORT]    1, or the number of the error
//     take C                        a handle without a socket
//     send C TEXT [LENGTH], receive C [SIZE], alive C, all-confirmed C
//     limit C MS                    by the system
//     token C, answer C TEXT [LENGTH], putfile C NAME [FIRST LAST], end-body C, encode C chunked|gzip    buffered
//     fopen C NAME                  what is sent goes to a file of the install folder
//     dnssendto U PORT TEXT [LENGTH], sendto U PORT TEXT, recv U [SECONDS], recvfrom U
//     circuit A B SECONDS
//     close C [drain], closeall, enter C, leave C          the last two: another thread is inside a call
//     flags C, tell C FIELD..., same C D, open             open: how many handles are
// Their peers:
//     peer C L [ADDRESS], put C TEXT, get C [SIZE], pour C (puts until that fails), end C, reset C
//     udp U [ADDRESS [PORT]], datagram U PORT TEXT, got U
//     free P, dead P                a port where nobody listens; "dead": which is taken
// The accept loop, whose handler sends back what comes; for "replace" it closes its connection and takes NEW:
//     serve L..., polladd L, ask L TEXT, serving, served, hold handlers|names|nobody, stop, loop-ends
// The whole:
//     init [tls], exit, shutdown, cancel, initip, called NAME, host NAME [ADDRESS...], host-fails ERROR, state
//     tasks, run-task NAME, end-scheduler, threads, counters, stop-library; folder NAME, file NAME TEXT, content NAME
//     line ANSWER, line-calls       a dialled line; how often it was dialled, hung up and checked
//     trace LEVEL, traced, said, alert, logged TEXT        the next line of the network log, the log, the alerts
// Around another step:
//     within MS, slept, lingers     how long it sleeps, the linger options that it sets
//     confirmed 0|1                 whether the system says that all bytes are
//     under-way, unanswered         a connect that goes on, one that nobody answers
class Network : public World {
public:
    explicit Network(const Row &head) : net_(head.fields.size() > 1 ? head.text(1) : "") {
        net_.said();
        cm::net::ntp_task = set_the_clock;
        handles();
        transfers();
        datagrams();
        peers();
        accept_loop();
        whole();
        texts();
        around();
    }
    ~Network() {
        hold("");
        cm::net::dialup = nullptr;
    }

private:
    // ---- names and texts --------------------------------------------------------------------------------------------

    cm_conn *&conn(const string &name) {
        const std::lock_guard lock(mutex_);
        return conns_[name];
    }
    int32_t port(const string &word) const { return std::stoi(word[0] == '@' ? ports_.at(word.substr(1)) : word); }
    void name_port(const string &name, int64_t port) {
        ports_[name] = to_string(port);
        names_of_ports_.try_emplace(to_string(port), name);
    }
    string path(const string &name = "") { return net_.lib.folder().path(name); }
    // With names for ports, and "~" for the install folder.
    string named(string text) {
        if (const size_t at = text.find(path()); at != text.npos) text.replace(at, path().size(), "~");
        for (const auto &[port, name] : names_of_ports_)
            for (size_t at; (at = text.find(port)) != text.npos;) text.replace(at, port.size(), "@" + name);
        return text;
    }
    // The next line of a text that grows; "" at its end.
    string next_line(const string &source, const Strings &lines) {
        size_t &at = lines_given_[source];
        at = std::min(at, lines.size());
        return at < lines.size() ? named(lines[at++]) : "";
    }
    static int32_t number(const Words &words, size_t index, int32_t otherwise) {
        return words.count() > index ? static_cast<int32_t>(words.number(index)) : otherwise;
    }
    static string listed(const Strings &texts) {
        string all;
        for (const string &text : texts) all += (all.empty() ? "" : " ") + text;
        return all;
    }

    // ---- handles ----------------------------------------------------------------------------------------------------

    int16_t listening(const string &kind, const Words &words) {
        cm_conn *&listener = conn(words[0]);
        const char *const address = words[1] == "*" ? nullptr : words.count() > 1 ? words.text(1) : "127.0.0.1";
        const int32_t wanted = words.count() > 2 ? port(words[2]) : 0;
        const int16_t result = kind == "listen"
                                   ? cm_net_listen(net_.state, address, wanted, 128, number(words, 3, 20), 1, &listener)
                               : kind == "listenu" ? cm_net_listenu(net_.state, address, wanted, &listener)
                                                   : cm_net_listenc(net_.state, conn(words[1]), 1, 0, &listener);
        EXPECT_EQ(result, listener != nullptr);
        if (listener != nullptr) name_port(words[0], listener->peer_port);
        return result;
    }
    void handles() {
        for (const char *kind : {"listen", "listenu", "listenc"})
            on(kind, [this, kind](auto &words) { return listening(kind, words); });
        on("accept", [this](auto &words) {
            cm_conn *&made = conn(words[0]);
            const uint32_t flags = words[2] == "chunked" ? CM_CONN_CHUNKED : 0;
            const int16_t result = cm_net_accept(net_.state, conn(words[1]), flags, &made);
            EXPECT_EQ(result, made != nullptr);
            if (made != nullptr) name_port(words[0], made->peer_port);
            return result;
        });
        on("visit", [this](auto &words) {
            run(Words("peer " + words.rest(0)));
            return (conn(words[0]) = net_.accept(conn(words[1]))) != nullptr;
        });
        on("connect", [this](auto &words) {
            cm_conn *&made = conn(words[0]);
            const char *const host = words.text(1);
            int32_t error = -1;
            const int16_t result =
                words[3] == "from"
                    ? cm_net_connecta(net_.state, host, port(words[2]), 5, 0, 0, &made, &error, port(words[4]))
                    : cm_net_connect(net_.state, host, port(words[2]), 5, words[3] == "tls", words[3] == "later", &made,
                                     &error);
            EXPECT_EQ(result, made != nullptr);
            EXPECT_TRUE(result == 0 || error == 0);
            return result != 0 ? 1 : error;
        });
        on("take",
           [this](auto &words) { return (conn(words[0]) = cm::net::take_handle(net_.state, 7, true)) != nullptr; });
        on("close", [this](auto &words) { return cm_net_close(net_.state, conn(words[0]), words[1] == "drain"); });
        on("closeall", [this](auto &) { return cm_net_closeall(net_.state); });
        on("enter", [this](auto &words) { call_ = std::make_unique<cm::net::Call>(net_.state, conn(words[0])); });
        on("leave", [this](auto &) { return call_->socket() == cm::platform::kNoSocket && (call_.reset(), true); });
        on("same", [this](auto &words) { return conn(words[0]) == conn(words[1]); });
        on("open", [this](auto &) {
            const cm::MutexGuard lock(net_.state->table_mutex);
            int32_t linked = 0;
            for (const cm_conn *one = net_.state->in_use; one != nullptr; one = one->next) linked++;
            EXPECT_EQ(linked, net_.state->open_count);
            return linked;
        });
        on("flags", [this](auto &words) { return flags(conn(words[0])); });
        on("tell", [this](auto &words) { return tell(*conn(words[0]), words); });
    }
    static string flags(const cm_conn *conn) {
        Strings names;
        for (const auto &[flag, name] : {std::pair(CM_CONN_CLOSED, "closed"),
                                         {CM_CONN_BUSY, "busy"},
                                         {CM_CONN_DIALED, "dialed"},
                                         {CM_CONN_TLS, "tls"},
                                         {CM_CONN_DATAGRAM, "datagram"},
                                         {CM_CONN_FILE, "file"},
                                         {CM_CONN_CHUNKED, "chunked"},
                                         {CM_CONN_LOOPBACK, "loopback"}})
            if (cm::net::has_flag(conn, flag)) names.push_back(name);
        return listed(names);
    }
    string tell(const cm_conn &one, const Words &words) {
        EXPECT_EQ(one.peer_host_len, static_cast<int32_t>(strlen(one.peer_host)));
        const std::map<string, string> fields = {
            {"address", one.peer_text},
            {"host", one.peer_host},
            {"port", to_string(one.peer_port)},
            {"local", to_string(one.local_port)},
            {"seconds", to_string(one.read_timeout)},
            {"sent", to_string(one.bytes_sent)},
            {"socket", to_string(*one.sock)},
            {"compressor", to_string(one.gz != nullptr)},
            {"unsent", string(reinterpret_cast<const char *>(one.out_buf), one.out_count > 0)},
            {"bytes", string(reinterpret_cast<const char *>(one.in_buf), static_cast<size_t>(one.in_count))}};
        Strings told;
        for (size_t i = 1; i < words.count(); i++) told.push_back(fields.at(words[i]));
        return named(listed(told));
    }

    // ---- bytes ------------------------------------------------------------------------------------------------------

    static const char *data(const string &word) { return word == "null" ? nullptr : word.c_str(); }
    void transfers() {
        on("send", [this](auto &words) {
            return cm_net_send(net_.state, conn(words[0]), data(words[1]),
                               number(words, 2, static_cast<int32_t>(words[1].size())));
        });
        on("receive", [this](auto &words) { return net_.receive(conn(words[0]), number(words, 1, 4096)); });
        on("alive", [this](auto &words) { return cm_net_isalive(net_.state, conn(words[0])); });
        on("all-confirmed", [this](auto &words) { return os.socket_all_confirmed(*conn(words[0])->sock); });
        on("limit", [this](auto &words) {
            cm::set_bits_relaxed(conn(words[0])->flags, uint32_t{CM_CONN_KTIMEOUT});
            return os.socket_option(*conn(words[0])->sock, cm::platform::SocketOption::kReceiveTimeout,
                                    number(words, 1, 0)) == 0;
        });
        on("token", [this](auto &words) -> string {
            char text[100] = "";
            return cm_net_getarg(net_.state, conn(words[0]), 0, 0, text, sizeof text - 1, nullptr) == 1 ? text : "!";
        });
        on("answer", [this](auto &words) {
            return cm_net_putdata(net_.state, conn(words[0]), data(words[1]), number(words, 2, CM_LEN_TEXT), 0);
        });
        on("putfile", [this](auto &words) {
            return cm_net_putfile(net_.state, conn(words[0]), path(words[1]).c_str(), number(words, 2, 0),
                                  number(words, 3, 0), 0);
        });
        on("end-body", [this](auto &words) { return cm_net_enddata(net_.state, conn(words[0])); });
        on("encode", [this](auto &words) {
            cm::set_bits_relaxed(conn(words[0])->flags,
                                 static_cast<uint32_t>(words[1] == "gzip" ? CM_CONN_GZIP : CM_CONN_CHUNKED));
        });
        on("fopen", [this](auto &words) { return cm_net_fopen(net_.state, path(words[1]).c_str(), &conn(words[0])); });
        on("circuit", [this](auto &words) {
            return cm_net_circuit(net_.state, conn(words[0]), conn(words[1]), number(words, 2, 0));
        });
    }
    void datagrams() {
        on("dnssendto", [this](auto &words) {
            return cm_net_dnssendto(net_.state, address_of("127.0.0.1"), port(words[1]), words.text(2),
                                    number(words, 3, CM_LEN_TEXT), &conn(words[0]));
        });
        on("sendto", [this](auto &words) {
            return cm_net_sendto(net_.state, conn(words[0]), address_of("127.0.0.1"), port(words[1]), words.text(2),
                                 CM_LEN_TEXT);
        });
        on("recv", [this](auto &words) { return received(words, nullptr, nullptr); });
        on("recvfrom", [this](auto &words) {
            uint32_t address = 0;
            int32_t port = 0;
            const string text = received(words, &address, &port);
            return named(dotted(address) + ":" + to_string(port) + " ") + text;
        });
    }
    string received(const Words &words, uint32_t *out_address, int32_t *out_port) {
        char text[100];
        int32_t count = -1;
        cm_conn *const from = conn(words[0]);
        const int16_t result =
            out_port == nullptr
                ? cm_net_recv(net_.state, from, text, sizeof text, number(words, 1, 1), &count)
                : cm_net_recvfrom(net_.state, from, text, sizeof text, 1, &count, out_address, out_port);
        return result != 0 ? string(text, static_cast<size_t>(count)) : "(failed)";
    }

    // ---- peers ------------------------------------------------------------------------------------------------------

    void peers() {
        on("peer", [this](auto &words) {
            auto &made = peers_[words[0]];
            made = std::make_unique<Peer>(port("@" + words[1]), words.count() > 2 ? words.text(2) : "127.0.0.1");
            name_port(words[0], made->port());
            return made->error() == 0;
        });
        on("put", [this](auto &words) { return peers_.at(words[0])->send(words[1]); });
        on("get", [this](auto &words) {
            return peers_.at(words[0])->receive(words.count() > 1 ? static_cast<size_t>(words.number(1)) : SIZE_MAX);
        });
        on("pour", [this](auto &words) {
            while (peers_.at(words[0])->send(string(65536, 'x'))) {
            }
        });
        on("end", [this](auto &words) { peers_.at(words[0])->close(); });
        on("reset", [this](auto &words) { peers_.at(words[0])->reset(); });
        on("udp", [this](auto &words) {
            auto &made = udps_[words[0]];
            made = std::make_unique<Udp>(words.count() > 1 ? words.text(1) : "127.0.0.1",
                                         words.count() > 2 ? port(words[2]) : 0);
            name_port(words[0], made->port());
        });
        on("datagram", [this](auto &words) { udps_.at(words[0])->send(words[2], port(words[1])); });
        on("got", [this](auto &words) {
            Udp &udp = *udps_.at(words[0]);
            const string text = udp.receive();
            name_port("sender", udp.from_port);
            return text;
        });
        on("free", [this](auto &words) { name_port(words[0], BareSocket().port()); });
        on("dead", [this](auto &words) {
            dead_ = std::make_unique<BareSocket>();
            name_port(words[0], dead_->port());
        });
    }

    // ---- the accept loop --------------------------------------------------------------------------------------------

    void serve(cm_context *ctx, cm_conn *conn, const cm_thread *self) {
        EXPECT_EQ(ctx, net_.lib.ctx());
        EXPECT_STREQ(self->label, "Test");
        EXPECT_EQ(conn->entry->listener->peer_port, conn->local_port);
        serving_++;
        wait_while_held("handlers");
        {
            const std::lock_guard lock(mutex_);
            served_.push_back(
                string(conn->peer_text) + " " + conn->peer_host +
                string(reinterpret_cast<const char *>(conn->in_buf), static_cast<size_t>(conn->in_count)));
        }
        for (string text; !(text = net_.receive(conn)).empty() && text != "(failed)";) {
            if (text == "replace") {  // the handle is another connection's before the handler returns
                cm_net_close(net_.state, conn, 0);
                EXPECT_EQ(this->conn("new") = cm::net::take_handle(net_.state, 7, true), conn);
                break;
            }
            net_.send(conn, text);
        }
        serving_--;
    }
    void wait_while_held(const string &what) {
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard lock(mutex_);
            return held_ != what;
        }));
    }
    void hold(const string &what) {
        const std::lock_guard lock(mutex_);
        held_ = what;
    }
    void accept_loop() {
        on("serve", [this](auto &words) {
            std::vector<cm_conn *> listeners;
            for (size_t i = 0; i < words.count(); i++) listeners.push_back(conn(words[i]));
            server_ = std::make_unique<Server>(net_, listeners,
                                               [this](auto *ctx, auto *conn, auto *self) { serve(ctx, conn, self); });
        });
        on("polladd", [this](auto &words) {
            cm_poll_entry entry =
                server_ ? server_->entry(conn(words[0])) : cm_poll_entry{nullptr, conn(words[0]), 0, ""};
            const int16_t result = cm_net_polladd(net_.state, &entry);
            entry = {};  // it was copied
            return result;
        });
        on("ask", [this](auto &words) {
            Peer peer(port("@" + words[0]));
            return peer.error() == 0 && peer.send(words[1]) ? peer.receive(words[1].size()) : "(failed)";
        });
        on("serving", [this](auto &) { return serving_.load(); });
        on("served", [this](auto &) {
            const std::lock_guard lock(mutex_);
            return next_line("served", served_);
        });
        on("hold", [this](auto &words) { hold(words[0]); });
        on("stop", [this](auto &) { return server_->stop(); });
        on("loop-ends", [this](auto &) { return server_->join(); });
    }

    // ---- the whole --------------------------------------------------------------------------------------------------

    void whole() {
        on("init", [this](auto &words) { return cm_net_init(net_.lib, words[0] == "tls", &net_.state); });
        on("exit", [this](auto &) { return cm_net_exit(std::exchange(net_.state, nullptr)); });
        on("shutdown", [this](auto &) { return cm_net_shutdown(net_.state); });
        on("cancel", [this](auto &) { return cm_net_cancel(net_.state); });
        on("initip", [this](auto &) { return cm_net_initip(net_.lib); });
        on("stop-library", [this](auto &) { net_.stop(), net_.lib.stop(); });
        on("state", [this](auto &) {
            const cm_net_state &state = *net_.lib.ctx()->net_table;
            EXPECT_EQ(state.host_name_len, static_cast<int32_t>(strlen(state.host_name)));
            return string(state.host_name) + " " + state.local_text + " " + to_string(state.read_timeout) + " " +
                   to_string(state.max_open) + (net_.state == &state ? "" : ", of another");
        });
        on("called", [this](auto &words) { host_.name = words[0]; });
        on("host", [this](auto &words) {
            host_.addresses[words[0]].clear();
            for (size_t i = 1; i < words.count(); i++) host_.addresses[words[0]].push_back(address_of(words.text(i)));
        });
        on("host-fails", [this](auto &words) { host_.error = number(words, 0, 0); });
        on("tasks", [this](auto &) {
            Strings tasks;
            each_task([&](const cm_cron_rec *task) {
                EXPECT_EQ(task->origin, 101);
                tasks.push_back(
                    string(task->name) + ", " + task->period + (task->threaded != 0 ? ", threaded" : "") +
                    (task->argument == reinterpret_cast<cm_value>(net_.state) ? ", knows the state;" : ";"));
            });
            return listed(tasks);
        });
        on("run-task", [this](auto &words) {
            int16_t result = -1;
            each_task([&](const cm_cron_rec *task) {
                if (task->name == words.rest(0)) result = task->function(net_.lib, task->name, task->argument);
            });
            return result;
        });
        on("end-scheduler", [this](auto &) { cm_cron_stop(net_.lib), end_threads(net_.lib); });
        on("threads", [this](auto &) {
            const cm::MutexGuard lock(net_.lib.ctx()->thread_mutex);
            return net_.lib.ctx()->thread_table->entries;
        });
        on("counters", [this](auto &) {
            uint32_t sums[3] = {};
            for (const auto &hour : net_.lib.ctx()->perf)
                for (const auto &minute : hour)
                    for (size_t i = 0; i < 3; i++) sums[i] += minute[i];
            return to_string(sums[0]) + " " + to_string(sums[1]) + " " + to_string(sums[2]);
        });
        on("line", [this](auto &words) {
            cm::net::dialup = &kLine;
            line_answers = static_cast<int16_t>(words.number(0));
        });
        on("line-calls",
           [](auto &) { return to_string(dialled) + " " + to_string(hung_up) + " " + to_string(checked); });
    }
    // All but the library's own.
    void each_task(const std::function<void(const cm_cron_rec *)> &visit) {
        for (const cm_cron_rec *task = net_.lib.ctx()->cron->periodic; task != nullptr; task = task->next)
            if (strcmp(task->name, "Performance Monitor") != 0) visit(task);
    }
    void texts() {
        on("trace", [this](auto &words) { return cm_net_trace(net_.lib, number(words, 0, 0)); });
        on("traced", [this](auto &) {
            return next_line("trace", lines_of(net_.lib.folder().read(string("log/") + net_.lib.ctx()->net_log_file)));
        });
        on("said", [this](auto &) {
            said_ += net_.said();
            return next_line("log", lines_of(said_));
        });
        on("alert", [this](auto &) {
            alerts_ += net_.alerts();
            return next_line("alerts", lines_of(alerts_));
        });
        on("logged", [this](auto &words) { return net_.lib.logged(words.rest(0)); });
        on("file", [this](auto &words) { net_.lib.folder().write(words[0], words[1]); });
        on("content", [this](auto &words) { return net_.lib.folder().read(words[0]); });
        on("folder", [this](auto &words) { net_.lib.folder().make_folder(words[0]); });
    }

    // ---- around a step ----------------------------------------------------------------------------------------------

    void around() {
        on("within", [this](auto &words) {
            const int64_t begin = os.monotonic_ms();
            const string result = run(words.from(1));
            EXPECT_LT(os.monotonic_ms() - begin, words.number(0));
            return result;
        });
        on("slept", [this](auto &words) {
            const FrozenClock clock;
            run(words);
            return clock.slept_ms();
        });
        on("confirmed", [this](auto &words) {
            const Replace<&Table::socket_all_confirmed> all([&](auto) { return words[0] == "1"; });
            return run(words.from(1));
        });
        on("lingers", [this](auto &words) {
            string values;
            const auto real = os.socket_option;
            const Replace<&Table::socket_option> option([&](cm_socket socket, auto which, int32_t value) {
                if (which == cm::platform::SocketOption::kLinger) values += to_string(value);
                return real(socket, which, value);
            });
            run(words);
            return values;
        });
        on("under-way", [this](auto &words) {
            const auto real = os.socket_connect;
            const Replace<&Table::socket_connect> connect(
                [&](auto... arguments) { return real(arguments...), CM_EINPROGRESS; });
            return run(words);
        });
        on("unanswered", [this](auto &words) {
            const Replace<&Table::socket_connect> connect([](auto...) { return CM_EWOULDBLOCK; });
            const Replace<&Table::socket_wait> wait([](auto, auto, int32_t timeout_ms, int32_t *out_ready) {
                EXPECT_EQ(timeout_ms, 5000);
                return *out_ready = 0;
            });
            return run(words);
        });
    }

    Host host_;
    const Replace<&Table::host_by_address> names_{[this](uint32_t address, char *out, size_t size) -> Error {
        if (address != address_of("127.0.0.2")) return 11001;
        wait_while_held("names");
        cm_strncpy(out, "client.example", static_cast<int32_t>(size));
        return 0;
    }};
    std::mutex mutex_;  // of conns_, served_, held_
    Net net_;
    std::map<string, cm_conn *> conns_;
    std::map<string, std::unique_ptr<Peer>> peers_;
    std::map<string, std::unique_ptr<Udp>> udps_;
    std::map<string, string> ports_, names_of_ports_;  // of several names the first
    std::map<string, size_t> lines_given_;
    string said_, alerts_, held_;
    Strings served_;
    std::atomic<int> serving_ = 0;
    std::unique_ptr<BareSocket> dead_;
    std::unique_ptr<cm::net::Call> call_;
    std::unique_ptr<Server> server_;
};

SCENARIOS(Start, Network, "network/start");
SCENARIOS(Listen, Network, "network/listen");
SCENARIOS(Accept, Network, "network/accept");
SCENARIOS(Connect, Network, "network/connect");
SCENARIOS(Transfer, Network, "network/transfer");
SCENARIOS(Datagrams, Network, "network/datagrams");
SCENARIOS(Streams, Network, "network/streams");
SCENARIOS(Close, Network, "network/close");
SCENARIOS(Circuit, Network, "network/circuit");
SCENARIOS(Poll, Network, "network/poll");
SCENARIOS(Trace, Network, "network/trace");

}  // namespace
