// A started network, for the tests of this folder.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/relaxed.h"
#include "net/cmnet.h"
#include "support/data.h"
#include "support/failures.h"
#include "support/replace.h"
#include "support/sockets.h"

namespace cm::test {

using platform::Error;
using platform::Table;

// Ends the library's own threads, so that none of them uses the table while a test replaces entries of it.
inline void end_threads(cm_context *ctx) {
    EXPECT_EQ(cm_free_threads(ctx), 1);
    cm_hash_clear(ctx->thread_table, nullptr);
}

// What the system tells about this host, and about names.
struct Host {
    std::string name = "box";
    Error error = 0;
    std::map<std::string, std::vector<uint32_t>> addresses = {{"box", {address_of("10.0.0.1")}}};
    const Replace<&Table::host_name> host_name{[this](char *out, size_t size) {
        if (error == 0) cm_strncpy(out, name.c_str(), static_cast<int32_t>(size));
        return error;
    }};
    const Replace<&Table::host_by_name> by_name{[this](const char *asked, uint32_t out[4], int32_t *count) -> Error {
        const std::vector<uint32_t> &found = addresses[asked];
        std::copy(found.begin(), found.end(), out);
        *count = static_cast<int32_t>(found.size());
        return found.empty() ? 11001 : 0;
    }};
};

class Net {
public:
    explicit Net(const char *common = "") : lib(common) {
        EXPECT_TRUE(lib.ok()) << lib.notices();
        end_threads(lib);
        heard_ = lib.log().size();
        alerts_.clear();
        lib.ctx()->alert_handler = take_alert;
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

    cm_conn *listen(int32_t read_timeout = 20, const char *address = "127.0.0.1", int32_t port = 0) {
        cm_conn *listener = nullptr;
        const int16_t result = cm_net_listen(state, address, port, 128, read_timeout, 0, &listener);
        EXPECT_EQ(result, listener != nullptr);
        return listener;
    }
    cm_conn *accept(cm_conn *listener) {  // null: failed
        cm_conn *conn = nullptr;
        const int16_t result = cm_net_accept(state, listener, 0, &conn);
        EXPECT_EQ(result, conn != nullptr);
        return conn;
    }
    std::string receive(cm_conn *conn, int32_t size = 4096) {
        std::string text(static_cast<size_t>(size), '\0');
        int32_t count = -1;
        if (cm_net_receive(state, conn, text.data(), size, &count) == 0) return "(failed)";
        text.resize(static_cast<size_t>(count));
        return text;
    }
    bool send(cm_conn *conn, const std::string &text) {
        return cm_net_send(state, conn, text.data(), static_cast<int32_t>(text.size())) == 1;
    }
    int32_t open() const { return load_relaxed(state->open_count); }
    std::string trace() { return lib.folder().read("log/network.log"); }

    // What was logged, and the alerts as "subject: message", since the last call; "\n" behind each.
    std::string said() {
        std::string text;
        for (const Strings lines = lib.log(); heard_ < lines.size(); heard_++) text += lines[heard_] + "\n";
        return text;
    }
    std::string alerts() {
        const std::lock_guard lock(mutex_);
        return std::exchange(alerts_, "");
    }

    Library lib;
    cm_net_state *state = nullptr;

private:
    static void CM_CALL take_alert(cm_context *, const cm_alert *alert) {
        const std::lock_guard lock(mutex_);
        EXPECT_STREQ(alert->category, "Networking");
        alerts_ += std::string(alert->subject) + ": " + alert->message + "\n";
    }
    inline static std::mutex mutex_;
    inline static std::string alerts_;
    size_t heard_ = 0;
};

// A connection with both of its ends.
struct Link {
    explicit Link(Net &net) : listener(net.listen()), peer(listener->peer_port), conn(net.accept(listener)) {}
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
