// A started network and its peers, for the tests of this folder.  Peers are bare sockets of the platform's table, so
// that nothing of what is tested stands on both ends.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/relaxed.h"
#include "net/address.h"
#include "net/cmnet.h"
#include "support/support.h"

namespace cm::test {

using platform::os;

inline uint32_t address_of(const char *dotted) {
    uint32_t address = 0;
    EXPECT_TRUE(net::parse_dotted(dotted, &address)) << dotted;
    return address;
}

// Alerts of a context while it lives, each as "subject: message".
class Alerts {
public:
    explicit Alerts(cm_context *ctx) : ctx_(ctx) {
        all().clear();
        ctx->alert_handler = take;
    }
    ~Alerts() {
        cm_context *running = nullptr;
        if (cm_ctx_global(&running) == 1 && running == ctx_) ctx_->alert_handler = nullptr;
    }
    std::vector<std::string> get() const {
        const std::lock_guard lock(mutex());
        return all();
    }

private:
    static void CM_CALL take(cm_context *, const cm_alert *alert) {
        const std::lock_guard lock(mutex());
        EXPECT_STREQ(alert->category, "Networking");
        all().push_back(std::string(alert->subject) + ": " + alert->message);
    }
    static std::vector<std::string> &all() {
        static std::vector<std::string> alerts;
        return alerts;
    }
    static std::mutex &mutex() {
        static std::mutex mutex;
        return mutex;
    }
    cm_context *const ctx_;
};

// The other end of a connection.
class Peer {
public:
    explicit Peer(cm_socket socket) : socket_(socket) {}
    // Connects to a port of 127.0.0.1, from an address of the loopback network.
    explicit Peer(uint32_t port, const char *from = "127.0.0.1") {
        EXPECT_EQ(os.socket_open(platform::SocketKind::kStream, &socket_), 0);
        EXPECT_EQ(os.socket_bind(socket_, address_of(from), 0), 0);
        EXPECT_EQ(os.socket_option(socket_, platform::SocketOption::kReceiveTimeout, 20000), 0);
        error_ = os.socket_connect(socket_, address_of("127.0.0.1"), static_cast<int32_t>(port));
    }
    ~Peer() { close(); }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    platform::Error error() const { return error_; }
    cm_socket socket() const { return socket_; }
    void close() {
        if (socket_ != platform::kNoSocket) os.socket_close(socket_);
        socket_ = platform::kNoSocket;
    }
    void reset() {  // a close that the other side sees as a reset
        os.socket_option(socket_, platform::SocketOption::kLinger, 0);
        close();
    }
    bool send(std::string_view text) {
        for (size_t count = 0; !text.empty(); text.remove_prefix(count)) {
            const platform::Slice slice = {text.data(), text.size()};
            if (os.socket_send(socket_, &slice, 1, false, &count) != 0) return false;
        }
        return true;
    }
    // Up to `most` bytes; ends early at the end of the stream or with a failure, which leaves its number in error().
    std::string receive(size_t most = SIZE_MAX) {
        std::string text;
        std::vector<char> piece(std::min<size_t>(most, 65536));
        for (size_t got = 1; got > 0 && text.size() < most; text.append(piece.data(), got)) {
            got = 0;
            error_ = os.socket_receive(socket_, piece.data(), std::min(piece.size(), most - text.size()), false, &got);
            if (error_ != 0) break;
        }
        return text;
    }
    uint32_t port() const {
        uint32_t address = 0;
        int32_t port = 0;
        EXPECT_EQ(os.socket_local(socket_, &address, &port), 0);
        return static_cast<uint32_t>(port);
    }

private:
    cm_socket socket_ = platform::kNoSocket;
    platform::Error error_ = 0;
};

// Waits (really) until something that another thread does has come true.
inline bool eventually(const std::function<bool()> &come_true, int seconds = 20) {
    for (int round = 0; round < seconds * 200; round++) {
        if (come_true()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// Ends the library's own threads, so that none of them uses the table while a test replaces entries of it.
inline void end_threads(cm_context *ctx) {
    EXPECT_EQ(cm_free_threads(ctx), 1);
    cm_hash_clear(ctx->thread_table, nullptr);
}

inline int32_t threads(cm_context *ctx) {
    cm_take_mutex(ctx->thread_mutex);
    const int32_t count = ctx->thread_table->entries;
    cm_release_mutex(ctx->thread_mutex);
    return count;
}

class Net {
public:
    explicit Net(const char *common = "", const std::function<void(TempFolder &)> &prepare = nullptr)
        : lib(common, prepare), alerts(lib.ctx()) {
        EXPECT_TRUE(lib.ok()) << lib.notices();
        end_threads(lib);
        EXPECT_EQ(cm_net_init(lib, 0, &state), 1);
    }
    ~Net() { stop(); }
    Net(const Net &) = delete;
    Net &operator=(const Net &) = delete;

    void stop() {
        if (state == nullptr) return;
        cm_net_shutdown(state);
        cm_net_closeall(state);
        EXPECT_EQ(cm_net_exit(state), 1);
        state = nullptr;
    }

    cm_conn *listen(int32_t read_timeout = 20) {
        cm_conn *listener = nullptr;
        EXPECT_EQ(cm_net_listen(state, "127.0.0.1", 0, 128, read_timeout, 0, &listener), 1);
        return listener;
    }
    cm_conn *accept(cm_conn *listener) {
        cm_conn *conn = nullptr;
        EXPECT_EQ(cm_net_accept(state, listener, 0, &conn), 1);
        return conn;
    }
    std::string receive(cm_conn *conn, int32_t size = 4096) {
        std::string text(static_cast<size_t>(size), '\0');
        int32_t count = -1;
        if (cm_net_receive(state, conn, text.data(), size, &count) == 0) return "(failed)";
        text.resize(static_cast<size_t>(count));
        return text;
    }
    bool closed(const cm_conn *conn) const { return net::has_flag(conn, CM_CONN_CLOSED); }
    int32_t open() const { return load_relaxed(state->open_count); }
    std::string trace() { return lib.folder().read("log/network.log"); }

    Library lib;
    Alerts alerts;
    cm_net_state *state = nullptr;
};

// A connection with both of its ends.
struct Link {
    explicit Link(Net &net, int32_t read_timeout = 20, const char *from = "127.0.0.1")
        : listener(net.listen(read_timeout)), peer(listener->peer_port, from), conn(net.accept(listener)) {}
    cm_conn *listener;
    Peer peer;
    cm_conn *conn;
};

// The accept loop on a thread of its own.  The handler is any function; it must not outlive the Server.
class Server {
public:
    using Handler = std::function<void(cm_context *, cm_conn *, cm_thread *)>;
    Server(Net &net, std::vector<cm_conn *> listeners, Handler handler) : net_(net), handler_(std::move(handler)) {
        for (cm_conn *listener : listeners) entries_.push_back(entry(listener));
        thread_ = std::thread(
            [this] { result_ = cm_net_poll(net_.state, entries_.data(), static_cast<int32_t>(entries_.size())); });
        EXPECT_TRUE(eventually([this] { return __atomic_load_n(&net_.state->listener_count, __ATOMIC_ACQUIRE) > 0; }));
    }
    ~Server() { stop(); }
    cm_poll_entry entry(cm_conn *listener) { return {serve, listener, reinterpret_cast<cm_value>(this), "Test"}; }
    int16_t stop() {
        if (net_.state != nullptr) cm_net_shutdown(net_.state);
        return join();
    }
    int16_t join() {
        if (thread_.joinable()) thread_.join();
        // Workers that are still busy may use the entries and the handler.
        const auto left = [this] { return __atomic_load_n(&net_.state->users, __ATOMIC_ACQUIRE) == 1; };
        EXPECT_TRUE(net_.state == nullptr || eventually(left));
        return result_;
    }

private:
    static int16_t CM_CALL serve(cm_context *ctx, cm_conn *conn, cm_thread *self, cm_value argument) {
        reinterpret_cast<Server *>(argument)->handler_(ctx, conn, self);
        return 1;
    }
    Net &net_;
    Handler handler_;
    std::vector<cm_poll_entry> entries_;
    std::thread thread_;
    int16_t result_ = -1;
};

}  // namespace cm::test
