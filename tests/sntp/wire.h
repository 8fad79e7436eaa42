// A time server over real loopback sockets that answers within the send of the request, so that nothing waits: what is
// there is there, and a wait for more only moves the frozen clock.
#pragma once

#include "network/net.h"

namespace cm::test {

class TestSocket {
public:
    explicit TestSocket(const char *address = "127.0.0.1") {
        os.network_start();
        EXPECT_EQ(os.socket_open(platform::SocketKind::kDatagram, &socket_), 0);
        EXPECT_EQ(os.socket_bind(socket_, address_of(address), 0), 0);
    }
    ~TestSocket() { os.socket_close(socket_); }
    TestSocket(const TestSocket &) = delete;
    TestSocket &operator=(const TestSocket &) = delete;

    int32_t port() const {
        uint32_t address = 0;
        int32_t port = 0;
        EXPECT_EQ(os.socket_local(socket_, &address, &port), 0);
        return port;
    }
    void send(uint32_t address, int32_t port, const std::string &bytes) const {
        EXPECT_EQ(platform::kSystem.socket_send_to(socket_, address, port, bytes.data(), bytes.size()), 0);
    }
    std::string receive(uint32_t *out_address, int32_t *out_port, int32_t timeout_ms = 20000) const {
        char bytes[2048];
        size_t count = 0;
        platform::WaitItem item = {socket_, false, false, false};
        int32_t ready = 0;
        if (platform::kSystem.socket_wait(&item, 1, timeout_ms, &ready) != 0 || ready != 1) return "";
        if (platform::kSystem.socket_receive_from(socket_, bytes, sizeof bytes, true, &count, out_address, out_port))
            return "";
        return {bytes, count};
    }

private:
    cm_socket socket_ = platform::kNoSocket;
};

// Leads what goes to one port (below 1024, where tests cannot listen) to another one, and back.
class Redirect {
public:
    Redirect(int32_t from, int32_t to) : saved_(os), from_(from), to_(to) {
        self = this;
        os.socket_send_to = [](cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
            self->sends++;
            const bool ours = port == self->from_;
            if (ours && address == 0xFFFFFFFFu) address = address_of("127.0.0.1");
            const auto error = platform::kSystem.socket_send_to(socket, address, ours ? self->to_ : port, data, length);
            if (ours && self->after_send) self->after_send();
            return error;
        };
        os.socket_receive_from = [](cm_socket socket, void *buffer, size_t size, bool now, size_t *out_count,
                                    uint32_t *out_address, int32_t *out_port) {
            const auto error =
                platform::kSystem.socket_receive_from(socket, buffer, size, now, out_count, out_address, out_port);
            if (error == 0 && *out_port == self->to_) *out_port = self->from_;
            return error;
        };
    }
    ~Redirect() {
        os.socket_send_to = saved_.socket_send_to;
        os.socket_receive_from = saved_.socket_receive_from;
    }
    Redirect(const Redirect &) = delete;
    Redirect &operator=(const Redirect &) = delete;

    std::function<void()> after_send;
    int sends = 0;

private:
    static inline Redirect *self = nullptr;
    const platform::Table saved_;
    const int32_t from_, to_;
};

// Waits for sockets end at once: what is not there yet never comes, and the frozen clock goes on to the end of the
// wait.
class NoWaiting {
public:
    explicit NoWaiting(FrozenClock &clock) : saved_(os.socket_wait) {
        frozen = &clock;
        os.socket_wait = [](platform::WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
            const auto error = platform::kSystem.socket_wait(items, count, 0, out_ready);
            if (error == 0 && *out_ready == 0) frozen->advance_ms(timeout_ms);
            return error;
        };
    }
    ~NoWaiting() { os.socket_wait = saved_; }
    NoWaiting(const NoWaiting &) = delete;
    NoWaiting &operator=(const NoWaiting &) = delete;

private:
    static inline FrozenClock *frozen = nullptr;
    decltype(platform::Table::socket_wait) saved_;
};

}  // namespace cm::test
