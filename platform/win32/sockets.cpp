// Winsock 2.2, IPv4.  Its error numbers are the contract's.
#include "entries.h"
#include "win32.h"

#include <mstcpip.h>

#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

namespace cm::platform::win32 {

namespace {

SOCKET native(cm_socket socket) {
    return static_cast<SOCKET>(socket);
}
Error net_error() {
    return static_cast<Error>(WSAGetLastError());
}

sockaddr_in make_address(uint32_t address, int32_t port) {
    sockaddr_in out = {};
    out.sin_family = AF_INET;
    out.sin_port = htons(static_cast<u_short>(port));
    out.sin_addr.s_addr = address;
    return out;
}

Error set_option(cm_socket socket, int level, int option, DWORD value) {
    return setsockopt(native(socket), level, option, reinterpret_cast<const char *>(&value), sizeof value) == 0
               ? 0
               : net_error();
}

int clipped(size_t size) {
    return size > INT32_MAX ? INT32_MAX : static_cast<int>(size);
}

bool is_readable_now(cm_socket socket) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(native(socket), &set);
    timeval now = {0, 0};
    return select(0, &set, nullptr, nullptr, &now) > 0;
}

// The three sets of one select over some items.
struct Sets {
    fd_set readable, writable, failed;

    void fill(const WaitItem *items, int32_t count, const Wake *wake) {
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_ZERO(&failed);
        for (int32_t i = 0; i < count; i++) {
            if (items[i].socket == kNoSocket) continue;
            FD_SET(native(items[i].socket), items[i].for_write ? &writable : &readable);
            FD_SET(native(items[i].socket), &failed);  // a refused connect shows here only
        }
        if (wake != nullptr) FD_SET(native(wake->read_end), &readable);
    }

    bool empty() const { return readable.fd_count + writable.fd_count == 0; }

    int32_t report(WaitItem *items, int32_t count) {
        int32_t ready = 0;
        for (int32_t i = 0; i < count; i++) {
            if (items[i].socket == kNoSocket) continue;
            const SOCKET socket = native(items[i].socket);
            items[i].failed = FD_ISSET(socket, &failed) != 0;
            items[i].ready = items[i].failed || FD_ISSET(socket, items[i].for_write ? &writable : &readable) != 0;
            ready += items[i].ready ? 1 : 0;
        }
        return ready;
    }
};

}  // namespace

Error network_start() {
    WSADATA data;
    return static_cast<Error>(WSAStartup(MAKEWORD(2, 2), &data));
}

Error network_stop() {
    return WSACleanup() == 0 ? 0 : net_error();
}

Error host_name(char *out, size_t size) {
    return gethostname(out, clipped(size)) == 0 ? 0 : net_error();
}

Error host_by_name(const char *name, uint32_t out_addresses[4], int32_t *out_count) {
    const hostent *entry = gethostbyname(name);  // the record is the thread's own
    if (entry == nullptr) return net_error();
    int32_t count = 0;
    if (entry->h_addrtype == AF_INET)
        for (; count < 4 && entry->h_addr_list[count] != nullptr; count++)
            memcpy(&out_addresses[count], entry->h_addr_list[count], 4);
    if (count == 0) return WSANO_DATA;
    *out_count = count;
    return 0;
}

Error host_by_address(uint32_t address, char *out_name, size_t size) {
    const hostent *entry = gethostbyaddr(reinterpret_cast<const char *>(&address), 4, AF_INET);
    if (entry == nullptr) return net_error();
    const size_t length = strlen(entry->h_name);
    if (length >= size) return CM_EMSGSIZE;
    memcpy(out_name, entry->h_name, length + 1);
    return 0;
}

Error socket_open(SocketKind kind, cm_socket *out_socket) {
    const bool stream = kind == SocketKind::kStream;
    const SOCKET made = WSASocketW(AF_INET, stream ? SOCK_STREAM : SOCK_DGRAM, stream ? IPPROTO_TCP : IPPROTO_UDP,
                                   nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (made == INVALID_SOCKET) return net_error();
    *out_socket = static_cast<cm_socket>(made);
    return 0;
}

Error socket_close(cm_socket socket) {
    return closesocket(native(socket)) == 0 ? 0 : net_error();
}
Error socket_shutdown(cm_socket socket) {
    return shutdown(native(socket), SD_BOTH) == 0 ? 0 : net_error();
}

Error socket_bind(cm_socket socket, uint32_t address, int32_t port) {
    const sockaddr_in local = make_address(address, port);
    return bind(native(socket), reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0 ? 0 : net_error();
}

Error socket_listen(cm_socket socket, int32_t backlog) {
    return listen(native(socket), backlog) == 0 ? 0 : net_error();
}

Error socket_accept(cm_socket listener, cm_socket *out_socket, uint32_t *out_address, int32_t *out_port) {
    sockaddr_in peer = {};
    int length = sizeof peer;
    const SOCKET made = accept(native(listener), reinterpret_cast<sockaddr *>(&peer), &length);
    if (made == INVALID_SOCKET) return net_error();
    u_long blocking = 0;  // inherited from the listener
    ioctlsocket(made, FIONBIO, &blocking);
    SetHandleInformation(reinterpret_cast<HANDLE>(made), HANDLE_FLAG_INHERIT, 0);
    *out_socket = static_cast<cm_socket>(made);
    *out_address = peer.sin_addr.s_addr;
    *out_port = ntohs(peer.sin_port);
    return 0;
}

Error socket_connect(cm_socket socket, uint32_t address, int32_t port) {
    const sockaddr_in peer = make_address(address, port);
    return connect(native(socket), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0 ? 0 : net_error();
}

Error socket_connect_result(cm_socket socket) {
    int result = 0, length = sizeof result;
    if (getsockopt(native(socket), SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&result), &length) != 0)
        return net_error();
    return static_cast<Error>(result);
}

Error socket_local(cm_socket socket, uint32_t *out_address, int32_t *out_port) {
    sockaddr_in name = {};
    int length = sizeof name;
    if (getsockname(native(socket), reinterpret_cast<sockaddr *>(&name), &length) != 0) return net_error();
    *out_address = name.sin_addr.s_addr;
    *out_port = ntohs(name.sin_port);
    return 0;
}

Error socket_peer(cm_socket socket, uint32_t *out_address, int32_t *out_port) {
    sockaddr_in name = {};
    int length = sizeof name;
    if (getpeername(native(socket), reinterpret_cast<sockaddr *>(&name), &length) != 0) return net_error();
    *out_address = name.sin_addr.s_addr;
    *out_port = ntohs(name.sin_port);
    return 0;
}

Error socket_set_blocking(cm_socket socket, bool blocking) {
    u_long non_blocking = blocking ? 0 : 1;
    return ioctlsocket(native(socket), FIONBIO, &non_blocking) == 0 ? 0 : net_error();
}

Error socket_option(cm_socket socket, SocketOption option, int32_t value) {
    switch (option) {
        case SocketOption::kKeepAlive:
            return set_option(socket, SOL_SOCKET, SO_KEEPALIVE, value != 0);
        // On this system the option lets a second server steal the port, and a restarted one needs it not.
        case SocketOption::kListenerReuse:
            return set_option(socket, SOL_SOCKET, SO_REUSEADDR, 0);
        case SocketOption::kReuseAddress:
            return set_option(socket, SOL_SOCKET, SO_REUSEADDR, value != 0);
        case SocketOption::kLinger: {
            const linger setting = {static_cast<u_short>(value >= 0), static_cast<u_short>(value >= 0 ? value : 0)};
            return setsockopt(native(socket), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&setting),
                              sizeof setting) == 0
                       ? 0
                       : net_error();
        }
        case SocketOption::kNoDelay:
            return set_option(socket, IPPROTO_TCP, TCP_NODELAY, value != 0);
        case SocketOption::kBroadcast:
            return set_option(socket, SOL_SOCKET, SO_BROADCAST, value != 0);
        case SocketOption::kSendTimeout:
            return set_option(socket, SOL_SOCKET, SO_SNDTIMEO, static_cast<DWORD>(value));
        case SocketOption::kReceiveTimeout:
            return set_option(socket, SOL_SOCKET, SO_RCVTIMEO, static_cast<DWORD>(value));
        case SocketOption::kUnackedTimeout:
            return 0;
        case SocketOption::kIgnorePortUnreachable: {
            BOOL report = value == 0;
            DWORD returned = 0;
            return WSAIoctl(native(socket), SIO_UDP_CONNRESET, &report, sizeof report, nullptr, 0, &returned, nullptr,
                            nullptr) == 0
                       ? 0
                       : net_error();
        }
    }
    return CM_EINVAL;
}

// Nothing on this system tells it for a socket alone.
bool socket_all_confirmed(cm_socket) {
    return false;
}

Error socket_raw_option(cm_socket socket, int32_t level, int32_t option, const void *value, int32_t length) {
    return setsockopt(native(socket), level, option, static_cast<const char *>(value), length) == 0 ? 0 : net_error();
}

Error socket_send(cm_socket socket, const Slice *slices, int32_t count, bool more_follows, size_t *out_count) {
    constexpr int32_t kMost = 16;
    WSABUF buffers[kMost];
    const DWORD used = static_cast<DWORD>(count > kMost ? kMost : count);
    for (DWORD i = 0; i < used; i++) {
        buffers[i].buf = static_cast<char *>(const_cast<void *>(slices[i].data));
        buffers[i].len = static_cast<ULONG>(clipped(slices[i].length));
    }
    DWORD sent = 0;
    if (WSASend(native(socket), buffers, used, &sent, 0, nullptr, nullptr) != 0) return net_error();
    *out_count = sent;
    return 0;
}

// The system's own call needs a wait of its own that could not be ended; the caller sends pieces.
Error socket_send_file(cm_socket socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count) {
    return CM_EINVAL;
}

Error socket_receive(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count) {
    if (only_what_is_there && !is_readable_now(socket)) return CM_EWOULDBLOCK;
    const int got = recv(native(socket), static_cast<char *>(buffer), clipped(size), 0);
    if (got < 0) return net_error();
    *out_count = static_cast<size_t>(got);
    return 0;
}

Error socket_send_to(cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
    const sockaddr_in peer = make_address(address, port);
    const int sent = sendto(native(socket), static_cast<const char *>(data), clipped(length), 0,
                            reinterpret_cast<const sockaddr *>(&peer), sizeof peer);
    if (sent < 0) return net_error();
    return static_cast<size_t>(sent) == length ? 0 : CM_EMSGSIZE;
}

Error socket_receive_from(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count,
                          uint32_t *out_address, int32_t *out_port) {
    if (only_what_is_there && !is_readable_now(socket)) return CM_EWOULDBLOCK;
    sockaddr_in peer = {};
    int length = sizeof peer;
    const int got = recvfrom(native(socket), static_cast<char *>(buffer), clipped(size), 0,
                             reinterpret_cast<sockaddr *>(&peer), &length);
    if (got < 0) return net_error();
    *out_count = static_cast<size_t>(got);
    if (out_address != nullptr) *out_address = peer.sin_addr.s_addr;
    if (out_port != nullptr) *out_port = ntohs(peer.sin_port);
    return 0;
}

Error socket_wait(WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
    const Wake *wake = wake_of_self();
    const int64_t end = monotonic_ms() + (timeout_ms < 0 ? 0 : timeout_ms);
    for (int32_t i = 0; i < count; i++) items[i].ready = items[i].failed = false;
    if (count > FD_SETSIZE - 1) return CM_EINVAL;
    for (;;) {
        if (thread_asked()) return CM_EINTR;
        Sets sets;
        sets.fill(items, count, wake);
        const int64_t left = timeout_ms < 0 ? 0 : end - monotonic_ms();
        timeval limit = {static_cast<long>(left > 0 ? left / 1000 : 0),
                         static_cast<long>(left > 0 ? left % 1000 * 1000 : 0)};
        if (sets.empty()) {  // a select of nothing is an error here
            if (!sleep(timeout_ms < 0 ? INT32_MAX : static_cast<int32_t>(left > 0 ? left : 0))) return CM_EINTR;
            *out_ready = 0;
            return 0;
        }
        const int result = select(0, &sets.readable, &sets.writable, &sets.failed, timeout_ms < 0 ? nullptr : &limit);
        if (thread_asked()) return CM_EINTR;
        if (result < 0 && net_error() != CM_EINTR) return net_error();
        if (result > 0) {
            const int32_t ready = sets.report(items, count);
            if (ready > 0) {
                *out_ready = ready;
                return 0;
            }
            if (wake != nullptr) wake_clear(wake);
        }
        if (timeout_ms >= 0 && monotonic_ms() >= end) {
            *out_ready = 0;
            return 0;
        }
    }
}

// One datagram socket that is connected to itself.
Error wake_create(Wake *out_wake) {
    cm_socket socket = kNoSocket;
    uint32_t address = 0;
    int32_t port = 0;
    Error error = socket_open(SocketKind::kDatagram, &socket);
    if (error != 0) return error;
    error = socket_bind(socket, htonl(INADDR_LOOPBACK), 0);
    if (error == 0) error = socket_local(socket, &address, &port);
    if (error == 0) error = socket_connect(socket, address, port);
    if (error == 0) error = socket_set_blocking(socket, false);
    if (error != 0) {
        socket_close(socket);
        return error;
    }
    out_wake->read_end = socket;
    __atomic_store_n(&out_wake->write_end, socket, __ATOMIC_SEQ_CST);
    return 0;
}

void wake_set(const Wake *wake) {
    const char mark = 1;
    if (wake->write_end != kNoSocket) send(native(wake->write_end), &mark, 1, 0);
}

void wake_clear(const Wake *wake) {
    char mark[16];
    while (recv(native(wake->read_end), mark, sizeof mark, 0) > 0) {
    }
}

void wake_destroy(Wake *wake) {
    if (wake->read_end != kNoSocket) socket_close(wake->read_end);
    *wake = Wake{};
}

}  // namespace cm::platform::win32
