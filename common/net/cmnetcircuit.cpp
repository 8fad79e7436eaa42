// Relaying between two connections, as a proxy does once it has reached the server that its client asked for.
//
// Each direction gathers in the output buffer of the connection it leads to, and receives again when all of that has
// left.  The sockets do not block meanwhile: one thread serves both directions, and a peer that takes nothing must not
// keep it from reading, or two that both write before they read would wait for each other.
#include <cstring>

#include "net/cmnetinput.h"
#include "net/transport.h"

namespace cm::net {
namespace {

using platform::os;
using platform::WaitItem;

class NonBlocking {
public:
    explicit NonBlocking(const Call &call) : call_(call) {
        const cm_socket socket = call.socket();
        set_ = socket != kNoSocket && os.socket_set_blocking(socket, false) == 0;
    }
    ~NonBlocking() {
        const cm_socket socket = call_.socket();
        if (set_ && socket != kNoSocket) os.socket_set_blocking(socket, true);
    }
    NonBlocking(const NonBlocking &) = delete;
    NonBlocking &operator=(const NonBlocking &) = delete;

    explicit operator bool() const { return set_; }

private:
    const Call &call_;
    bool set_ = false;
};

enum class Step { kMoved, kStuck, kEnded, kFailed };

class Direction {
public:
    Direction(cm_net_state *state, cm_conn *from, cm_conn *to, const char *word)
        : state_(state), from_(from), to_(to), word_(word) {}
    // What has not left stays buffered.
    ~Direction() {
        to_->out_count -= gone_;
        if (gone_ > 0) memmove(to_->out_buf, to_->out_buf + gone_, static_cast<size_t>(to_->out_count));
    }
    Direction(const Direction &) = delete;
    Direction &operator=(const Direction &) = delete;

    // Whether the next step need not wait.
    bool ready() const {
        if (full()) return false;
        if (!unread(from_).empty()) return true;
        return has_flag(from_, CM_CONN_TLS) && transport != nullptr && transport->pending(state_, from_);
    }
    WaitItem awaited() const {
        return {__atomic_load_n(full() ? to_->sock : from_->sock, __ATOMIC_SEQ_CST), full(), false, false};
    }
    Step step() {
        const Step taken = full() ? Step::kMoved : take();
        return taken == Step::kMoved ? pass_on() : taken;
    }

private:
    bool full() const { return to_->out_count > 0; }
    Step take();
    Step pass_on();

    cm_net_state *const state_;
    cm_conn *const from_;
    cm_conn *const to_;
    const char *const word_;
    int32_t gone_ = 0;  // of the buffer
};

Step Direction::take() {
    int32_t count = static_cast<int32_t>(take_unread(from_, to_->out_buf, CM_NET_OUT_SIZE));
    if (count == 0) {
        switch (receive_now(state_, from_, to_->out_buf, CM_NET_OUT_SIZE, &count)) {
            case Now::kBytes:
                break;
            case Now::kNothing:
                return Step::kStuck;
            case Now::kEnd:
                return Step::kEnded;
            case Now::kFailed:
                return Step::kFailed;
        }
    }
    to_->out_count = count;
    if (packets_traced(state_)) trace(state_->ctx, "%s %s -> %s\n", word_, from_->peer_text, to_->peer_text);
    return Step::kMoved;
}

Step Direction::pass_on() {
    int32_t count = 0;
    if (!send_now(state_, to_, to_->out_buf + gone_, to_->out_count - gone_, &count)) return Step::kFailed;
    gone_ += count;
    if (gone_ == to_->out_count) to_->out_count = gone_ = 0;
    return count > 0 ? Step::kMoved : Step::kStuck;
}

// Until a side ends, or neither has moved for that long.
bool relay(cm_net_state *state, Direction (&directions)[2], int32_t idle_ms) {
    int64_t deadline = os.monotonic_ms() + idle_ms;
    for (;;) {
        WaitItem items[] = {directions[0].awaited(), directions[1].awaited(), {state->stop[0], false, false, false}};
        const int64_t left = directions[0].ready() || directions[1].ready() ? 0 : deadline - os.monotonic_ms();
        int32_t ready = 0;
        const Error error = os.socket_wait(items, 3, left > 0 ? static_cast<int32_t>(left) : 0, &ready);
        if (error != 0 || stopping(state)) return false;
        bool moved = false;
        for (int i = 0; i < 2; i++) {
            if (!items[i].ready && !directions[i].ready()) continue;
            const Step step = directions[i].step();
            if (step == Step::kEnded) return true;
            if (step == Step::kFailed) return false;
            moved = moved || step == Step::kMoved;
        }
        const int64_t now = os.monotonic_ms();
        if (!moved && now >= deadline) return false;
        if (moved) deadline = now + idle_ms;
    }
}

bool can_relay(const Call &call, const cm_conn *conn) {
    return call.open() && call.socket() != kNoSocket &&
           !has_flag(conn, CM_CONN_CLOSED | CM_CONN_FILE | CM_CONN_DATAGRAM | CM_CONN_GZIP | CM_CONN_CHUNKED);
}

}  // namespace
}  // namespace cm::net

using namespace cm::net;

int16_t CM_CALL cm_net_circuit(cm_net_state *state, cm_conn *client, cm_conn *server, int32_t timeout) {
    if (state == nullptr || client == nullptr || server == nullptr || client == server) return 0;
    const Call of_client(state, client), of_server(state, server);
    if (!can_relay(of_client, client) || !can_relay(of_server, server)) return 0;
    const NonBlocking client_goes_on(of_client), server_goes_on(of_server);
    if (!client_goes_on || !server_goes_on) return 0;
    Direction directions[] = {{state, client, server, "REQUEST"}, {state, server, client, "RESPONSE "}};
    return relay(state, directions, milliseconds(timeout)) ? 1 : 0;
}
