// Messages beside c-ares, a look-up beside a bare round trip of sockets.
#include <ares.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "net/address.h"
#include "net/cmdns.h"
#include "platform/platform.h"
#include "ratio.h"
#include "tilvarcm.h"

using cm::bench::keep;
using cm::platform::os;
using namespace cm::dns;

namespace {

constexpr int kCalls = 1000, kRounds = 50;
constexpr char kName[] = "www.some.example.host";

size_t query(uint8_t *out) {
    return build_query(out, CM_DNS_BUFFER, 0x1234, kName, kTypeA);
}

// An alias and four addresses, as a common reply has them.
size_t reply(uint8_t *out) {
    Writer writer(out, CM_DNS_BUFFER);
    writer.zeros(kHeaderSize);
    writer.name(kName);
    writer.number(kTypeA);
    writer.number(kClassIn);
    const auto head = [&](const char *owner, uint16_t type) {
        writer.name(owner);
        writer.number(type);
        writer.number(kClassIn);
        writer.number32(3600);
    };
    head(kName, 5);
    writer.number(2 + 7);
    writer.name("target.example.host");
    for (uint32_t i = 1; i <= 4; i++) {
        head("target.example.host", kTypeA);
        writer.number(4);
        writer.number32(0x0A000000 + i);
    }
    put_number(out, 0x1234);
    out[2] = 0x81;
    out[3] = 0x80;
    out[5] = 1;
    out[7] = 5;
    return writer.length();
}

void messages(cm::bench::Rows &rows) {
    static uint8_t bytes[CM_DNS_BUFFER];
    static const size_t length = reply(bytes);
    Answer check;
    hostent *host = nullptr;
    if (!parse_answer({bytes, length}, kTypeA, &check) || check.count != 4 ||
        ares_parse_a_reply(bytes, static_cast<int>(length), &host, nullptr, nullptr) != ARES_SUCCESS)
        std::abort();
    ares_free_hostent(host);
    rows.pair(
        "dns, parse a reply", kCalls,
        [] {
            for (int i = 0; i < kCalls; i++) {
                Answer answer;
                keep(parse_answer({bytes, length}, kTypeA, &answer));
                keep(answer);
            }
        },
        [] {
            for (int i = 0; i < kCalls; i++) {
                hostent *found = nullptr;
                keep(ares_parse_a_reply(bytes, static_cast<int>(length), &found, nullptr, nullptr));
                ares_free_hostent(found);
            }
        },
        "<= 0.3");
    rows.pair(
        "dns, build a query", kCalls,
        [] {
            for (int i = 0; i < kCalls; i++) {
                uint8_t out[CM_DNS_BUFFER];
                keep(query(out));
                keep(out);
            }
        },
        [] {
            for (int i = 0; i < kCalls; i++) {
                unsigned char *out = nullptr;
                int size = 0;
                keep(ares_create_query(kName, kClassIn, kTypeA, 0x1234, 1, &out, &size, 0));
                ares_free_string(out);
            }
        },
        "<= 0.6");
}

// Answers every datagram with the reply, under its identifier.
class Server {
public:
    Server() {
        os.socket_open(cm::platform::SocketKind::kDatagram, &socket_);
        cm::net::parse_dotted("127.0.0.1", &address_);
        os.socket_bind(socket_, address_, 0);
        uint32_t bound = 0;
        os.socket_local(socket_, &bound, &port_);
        thread_ = std::thread([this] { serve(); });
    }
    ~Server() {
        stop_ = true;
        os.socket_send_to(socket_, address_, port_, "x", 1);
        thread_.join();
        os.socket_close(socket_);
    }
    int32_t port() const { return port_; }
    uint32_t address() const { return address_; }

private:
    void serve() {
        uint8_t out[CM_DNS_BUFFER], in[CM_DNS_BUFFER];
        const size_t length = reply(out);
        while (!stop_) {
            size_t got = 0;
            uint32_t address = 0;
            int32_t port = 0;
            if (os.socket_receive_from(socket_, in, sizeof in, false, &got, &address, &port) != 0 || got < 12) continue;
            std::memcpy(out, in, 2);
            os.socket_send_to(socket_, address, port, out, length);
        }
    }
    cm_socket socket_ = cm::platform::kNoSocket;
    uint32_t address_ = 0;
    int32_t port_ = 0;
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

// A socket of its own, a question, its answer: what no look-up can do without.
void bare_round_trip(const Server &server) {
    uint8_t out[CM_DNS_BUFFER], in[CM_DNS_BUFFER];
    const size_t length = query(out);
    cm_socket socket = cm::platform::kNoSocket;
    os.socket_open(cm::platform::SocketKind::kDatagram, &socket);
    os.socket_send_to(socket, server.address(), server.port(), out, length);
    size_t got = 0;
    uint32_t address = 0;
    int32_t port = 0;
    keep(os.socket_receive_from(socket, in, sizeof in, false, &got, &address, &port));
    os.socket_close(socket);
}

void look_ups(cm::bench::Rows &rows) {
    cm_context *ctx = nullptr;
    cm_net_state *net = nullptr;
    if (cm_ctx_init(&ctx, "config", "bench.log", 1, nullptr) == 0 || cm_net_init(ctx, 0, &net) == 0) std::abort();
    static cm_context *context;
    static const Server *here;
    Server server;
    context = ctx;
    here = &server;
    server_port = server.port();
    ctx->dns->primary = server.address();
    const auto look_up = [](int count) {
        uint32_t found = 0;
        for (int i = 0; i < count; i++)
            if (cm_dns_gethostaddr(context, kName, 0, 1, &found, nullptr, nullptr, nullptr) == 0) std::abort();
    };
    const auto bare = [] {
        for (int i = 0; i < kRounds; i++) bare_round_trip(*here);
    };
    rows.pair(
        "dns, a look-up / bare round trip", kRounds, [=] { look_up(kRounds); }, bare, "<= 1.3");
    ctx->cache_dns_interval = 3600;
    if (cm_cache_init(ctx) == 0) std::abort();
    look_up(1);
    rows.pair(
        "dns, a cached address / bare round trip", kRounds, [=] { look_up(kRounds); }, bare, "<= 0.02");
    cm_net_shutdown(net);
    cm_net_exit(net);
    cm_ctx_exit(ctx);
}

// An installation of its own, whose hosts file, as most, has no names and was not edited just now.
class Home {
public:
    Home() {
        namespace fs = std::filesystem;
        if (mkdtemp(folder_) == nullptr || setenv("TVHOME", folder_, 1) != 0) std::abort();
        fs::create_directory(std::string(folder_) + "/config");
        const std::string hosts = std::string(folder_) + "/config/hosts";
        std::ofstream(hosts) << "# hosts\n";
        fs::last_write_time(hosts, fs::file_time_type::clock::now() - std::chrono::hours(1));
    }
    ~Home() { std::filesystem::remove_all(folder_); }

private:
    char folder_[32] = "/tmp/bench_dns.XXXXXX";
};

}  // namespace

int main(int argc, char **argv) {
    cm::bench::Rows rows(argc, argv);
    messages(rows);
    const Home home;
    look_ups(rows);
    return rows.failures();
}
