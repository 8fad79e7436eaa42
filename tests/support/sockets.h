// Bare sockets of the platform's table on the loopback network: peers of what is tested, so that nothing of it stands
// on both ends.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "net/address.h"
#include "platform/platform.h"

namespace cm::test {

using platform::os;
using platform::SocketKind;
using Strings = std::vector<std::string>;

inline uint32_t address_of(const char *dotted) {
    uint32_t address = 0;
    EXPECT_TRUE(net::parse_dotted(dotted, &address)) << dotted;
    return address;
}

inline std::string dotted(uint32_t address) {
    char text[net::kDottedSize];
    net::format_dotted(address, text);
    return text;
}

// Waits (really) until something that another thread does has come true.
inline bool eventually(const std::function<bool()> &come_true, int seconds = 20) {
    for (int round = 0; round < seconds * 200; round++) {
        if (come_true()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

// Bound to an address of the loopback network and a port of it, 0 for a free one; without a listen, nobody can connect
// there.
class BareSocket {
public:
    explicit BareSocket(SocketKind kind = SocketKind::kStream, const char *from = "127.0.0.1", int32_t port = 0) {
        uint32_t address = 0;
        EXPECT_EQ(os.socket_open(kind, &socket_), 0);
        EXPECT_EQ(os.socket_bind(socket_, address_of(from), port), 0);
        EXPECT_EQ(os.socket_local(socket_, &address, &port_), 0);
    }
    ~BareSocket() { close(); }
    BareSocket(const BareSocket &) = delete;
    BareSocket &operator=(const BareSocket &) = delete;

    cm_socket socket() const { return socket_; }
    int32_t port() const { return port_; }
    void close() {
        if (socket_ != platform::kNoSocket) os.socket_close(socket_);
        socket_ = platform::kNoSocket;
    }
    bool readable(int32_t timeout_ms = 0) const {
        platform::WaitItem item = {socket_, false, false, false};
        int32_t ready = 0;
        return platform::kSystem.socket_wait(&item, 1, timeout_ms, &ready) == 0 && ready > 0;
    }

private:
    cm_socket socket_ = platform::kNoSocket;
    int32_t port_ = 0;
};

// The other end of a connection.
class Peer : public BareSocket {
public:
    explicit Peer(int64_t port, const char *from = "127.0.0.1") : BareSocket(SocketKind::kStream, from) {
        EXPECT_EQ(os.socket_option(socket(), platform::SocketOption::kReceiveTimeout, 20000), 0);
        error_ = os.socket_connect(socket(), address_of("127.0.0.1"), static_cast<int32_t>(port));
    }

    platform::Error error() const { return error_; }
    void reset() {  // a close that the other side sees as a reset
        os.socket_option(socket(), platform::SocketOption::kLinger, 0);
        close();
    }
    bool send(std::string_view text) {
        for (size_t count = 0; !text.empty(); text.remove_prefix(count)) {
            const platform::Slice slice = {text.data(), text.size()};
            if (os.socket_send(socket(), &slice, 1, false, &count) != 0) return false;
        }
        return true;
    }
    // Up to `most` bytes; ends early at the end of the stream or with a failure, which leaves its number in error().
    std::string receive(size_t most = SIZE_MAX) {
        std::string text;
        std::vector<char> piece(std::min<size_t>(most, 65536));
        for (size_t got = 1; got > 0 && text.size() < most; text.append(piece.data(), got)) {
            got = 0;
            error_ = os.socket_receive(socket(), piece.data(), std::min(piece.size(), most - text.size()), false, &got);
            if (error_ != 0) break;
        }
        return text;
    }

private:
    platform::Error error_ = 0;
};

// Sends and receives datagrams behind the back of replaced entries.
class Udp : public BareSocket {
public:
    explicit Udp(const char *from = "127.0.0.1", int32_t port = 0) : BareSocket(SocketKind::kDatagram, from, port) {
        EXPECT_EQ(os.socket_option(socket(), platform::SocketOption::kIgnorePortUnreachable, 1), 0);
    }

    void send(std::string_view data, int64_t port, uint32_t address = address_of("127.0.0.1")) {
        const auto to = static_cast<int32_t>(port);
        EXPECT_EQ(platform::kSystem.socket_send_to(socket(), address, to, data.data(), data.size()), 0);
    }
    // "(none)" when nothing comes.
    std::string receive() {
        char data[4096];
        size_t count = 0;
        if (!readable(20000) || platform::kSystem.socket_receive_from(socket(), data, sizeof data, true, &count,
                                                                      &from_address, &from_port) != 0)
            return "(none)";
        return {data, count};
    }

    uint32_t from_address = 0;  // of what was received last
    int32_t from_port = 0;
};

}  // namespace cm::test
