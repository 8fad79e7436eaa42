// Winsock 2.2, IPv4.  Its error numbers are the contract's.
//
// The system tells neither whether a socket blocks nor whether it was shut down from here, and a shutdown wakes nobody,
// so each socket has some marks of ours.  A call on a blocking socket that may take long is carried on by the system
// while we wait, so that an asked thread and a shutdown end the wait.
#include "win32.h"

#include <mstcpip.h>

#ifndef SIO_UDP_CONNRESET
#define SIO_UDP_CONNRESET _WSAIOW(IOC_VENDOR, 12)
#endif

namespace cm::platform::system {

using namespace win32;

namespace {

SOCKET native(cm_socket socket) {
    return static_cast<SOCKET>(socket);
}
Error net_error() {
    return static_cast<Error>(WSAGetLastError());
}

// ---- marks ----------------------------------------------------------------------------------------------------------

// By number; sockets are small multiples of four.  One beyond the table has no marks: it blocks, and a wait for it
// notes a shutdown when its slice is over.
enum Mark : uint8_t { kNonBlocking = 1, kConnecting = 2, kShut = 4, kDatagram = 8, kFailed = 16 };
constexpr size_t kMarked = 1 << 16;
uint8_t marks[kMarked];

uint8_t *marks_of(cm_socket socket) {
    const size_t number = static_cast<size_t>(socket) / 4;
    return number < kMarked ? &marks[number] : nullptr;
}

bool has_mark(cm_socket socket, Mark mark) {
    const uint8_t *own = marks_of(socket);
    return own != nullptr && (__atomic_load_n(own, __ATOMIC_SEQ_CST) & mark) != 0;
}

void set_mark(cm_socket socket, Mark mark, bool on) {
    uint8_t *own = marks_of(socket);
    if (own == nullptr) return;
    if (on)
        __atomic_fetch_or(own, mark, __ATOMIC_SEQ_CST);
    else
        __atomic_fetch_and(own, static_cast<uint8_t>(~mark), __ATOMIC_SEQ_CST);
}

void clear_marks(cm_socket socket) {
    if (uint8_t *own = marks_of(socket)) __atomic_store_n(own, 0, __ATOMIC_SEQ_CST);
}

// Some implementations tell a stream's error only once, here to the wait: the next receive looks like an orderly end.
void note_failure(cm_socket socket) {
    if (!has_mark(socket, kDatagram)) set_mark(socket, kFailed, true);
}

// ---- small things ---------------------------------------------------------------------------------------------------

// Winsock starts with the first call that needs it, as sockets are just there elsewhere; network_start only counts on.
bool start_after(Error error) {
    return error == WSANOTINITIALISED && network_start() == 0;
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

// ---- waiting --------------------------------------------------------------------------------------------------------

// One round of a wait: a poll, or a select where a connect is under way, since polls of older systems do not tell a
// refused one.
class Round {
public:
    Round(WaitItem *items, int32_t count, const Wake *wake) : items_(items), count_(count), wake_(wake) {}
    ~Round() { os.release(more_); }
    Round(const Round &) = delete;
    Round &operator=(const Round &) = delete;

    // Waits and sets the items; `*out_ready` of them are.
    Error wait(int32_t timeout_ms, int32_t *out_ready) {
        for (int32_t i = 0; i < count_; i++)
            if (has_mark(items_[i].socket, kConnecting)) return wait_by_select(timeout_ms, out_ready);
        return wait_by_poll(timeout_ms, out_ready);
    }

private:
    static constexpr int32_t kRoom = 32;

    Error wait_by_poll(int32_t timeout_ms, int32_t *out_ready) {
        if (count_ >= kRoom && more_ == nullptr)
            more_ = static_cast<WSAPOLLFD *>(os.allocate((static_cast<size_t>(count_) + 1) * sizeof(WSAPOLLFD)));
        if (count_ >= kRoom && more_ == nullptr) return kNoMemory;
        WSAPOLLFD *list = more_ != nullptr ? more_ : room_;
        ULONG used = 0;
        for (int32_t i = 0; i < count_; i++)
            if (items_[i].socket != kNoSocket)
                list[used++] = {native(items_[i].socket),
                                static_cast<short>(items_[i].for_write ? POLLWRNORM : POLLRDNORM), 0};
        if (wake_ != nullptr) list[used++] = {native(wake_->read_end), POLLRDNORM, 0};
        if (WSAPoll(list, used, timeout_ms) < 0) return net_error();
        const WSAPOLLFD *next = list;
        for (int32_t i = 0; i < count_; i++) {
            if (items_[i].socket == kNoSocket) continue;
            const short found = (next++)->revents;
            if ((found & POLLNVAL) != 0) return CM_ENOTSOCK;
            items_[i].ready = found != 0;
            items_[i].failed = (found & POLLERR) != 0;
            if (items_[i].failed) note_failure(items_[i].socket);
            *out_ready += items_[i].ready ? 1 : 0;
        }
        return 0;
    }

    Error wait_by_select(int32_t timeout_ms, int32_t *out_ready) {
        if (count_ >= FD_SETSIZE) return CM_EINVAL;
        fd_set readable, writable, failed;
        readable.fd_count = writable.fd_count = failed.fd_count = 0;
        for (int32_t i = 0; i < count_; i++) {
            if (items_[i].socket == kNoSocket) continue;
            add(items_[i].for_write ? &writable : &readable, items_[i].socket);
            add(&failed, items_[i].socket);
        }
        if (wake_ != nullptr) add(&readable, wake_->read_end);
        timeval limit = {timeout_ms / 1000, timeout_ms % 1000 * 1000};
        if (select(0, &readable, &writable, &failed, &limit) < 0) return net_error();
        for (int32_t i = 0; i < count_; i++) {
            if (items_[i].socket == kNoSocket) continue;
            const SOCKET socket = native(items_[i].socket);
            items_[i].failed = FD_ISSET(socket, &failed) != 0;
            items_[i].ready = items_[i].failed || FD_ISSET(socket, items_[i].for_write ? &writable : &readable) != 0;
            *out_ready += items_[i].ready ? 1 : 0;
        }
        return 0;
    }

    static void add(fd_set *set, cm_socket socket) { set->fd_array[set->fd_count++] = native(socket); }

    WaitItem *const items_;
    const int32_t count_;
    const Wake *const wake_;
    WSAPOLLFD room_[kRoom];
    WSAPOLLFD *more_ = nullptr;
};

// A shutdown breaks the wait off, but may come just before it; so a wait looks again from time to time.
constexpr int64_t kSliceMs = 500;

int32_t count_shut(WaitItem *items, int32_t count) {
    int32_t shut = 0;
    for (int32_t i = 0; i < count; i++) {
        if (items[i].socket == kNoSocket || !has_mark(items[i].socket, kShut)) continue;
        items[i].ready = items[i].failed = true;
        shut++;
    }
    return shut;
}

Error timeout_of(cm_socket socket, int option, int32_t *out_ms) {
    DWORD limit = 0;
    int length = sizeof limit;
    if (getsockopt(native(socket), SOL_SOCKET, option, reinterpret_cast<char *>(&limit), &length) != 0)
        return net_error();
    *out_ms = limit == 0 || limit > INT32_MAX ? kForever : static_cast<int32_t>(limit);
    return 0;
}

// ---- calls that may take long ---------------------------------------------------------------------------------------

// Events of ended calls, for the next ones.
HANDLE spare_events[16];

HANDLE take_event() {
    for (HANDLE &spare : spare_events)
        if (const HANDLE event = __atomic_exchange_n(&spare, nullptr, __ATOMIC_SEQ_CST)) return event;
    return CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

void give_event(HANDLE event) {
    for (HANDLE &spare : spare_events) {
        HANDLE none = nullptr;
        if (__atomic_compare_exchange_n(&spare, &none, event, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) return;
    }
    CloseHandle(event);
}

// A call that the system carries on by itself, so that waiting for its end can be broken off: by a time-out, by an
// asked thread, and by a shutdown, which cancels it.
class Carried {
public:
    Carried(cm_socket socket, int timeout_option, bool may_wait)
        : socket_(socket), timeout_option_(timeout_option), may_wait_(may_wait) {
        if (!has_mark(socket, kNonBlocking)) overlapped_.hEvent = take_event();
    }
    ~Carried() {
        if (overlapped_.hEvent != nullptr) give_event(overlapped_.hEvent);
    }
    Carried(const Carried &) = delete;
    Carried &operator=(const Carried &) = delete;

    // Null for a socket that does not block.
    OVERLAPPED *record() { return overlapped_.hEvent != nullptr ? &overlapped_ : nullptr; }

    // `result` is what the call gave and `*count` what it moved.
    Error finish(int result, DWORD *count) {
        if (result == 0) return 0;
        if (const Error error = net_error(); error != WSA_IO_PENDING) return error;
        const Error why = may_wait_ ? wait() : CM_EWOULDBLOCK;
        if (why != 0) CancelIoEx(reinterpret_cast<HANDLE>(socket_), &overlapped_);
        DWORD flags = 0;
        if (WSAGetOverlappedResult(native(socket_), &overlapped_, count, TRUE, &flags)) return 0;
        const Error error = net_error();
        if (error != WSA_OPERATION_ABORTED) return error;
        return why != 0 ? why : CM_ESHUTDOWN;
    }

private:
    // Why the call is to be cancelled, or nothing when it has ended.
    Error wait() {
        int32_t limit_ms = kForever;
        if (const Error error = timeout_of(socket_, timeout_option_, &limit_ms); error != 0) return error;
        const Thread *thread = self();
        const HANDLE handles[] = {overlapped_.hEvent, thread != nullptr ? thread->ask : nullptr};
        const DWORD limit = limit_ms < 0 ? INFINITE : static_cast<DWORD>(limit_ms);
        switch (WaitForMultipleObjects(thread != nullptr ? 2 : 1, handles, FALSE, limit)) {
            case WAIT_OBJECT_0:
                return 0;
            case WAIT_OBJECT_0 + 1:
                return CM_EINTR;
            case WAIT_TIMEOUT:
                return CM_ETIMEDOUT;
            default:
                return last_error();
        }
    }

    const cm_socket socket_;
    const int timeout_option_;
    const bool may_wait_;
    OVERLAPPED overlapped_ = {};
};

Error wait_to_accept(cm_socket listener) {
    if (has_mark(listener, kNonBlocking)) return 0;
    WaitItem item = {listener, false, false, false};
    int32_t timeout_ms = kForever, ready = 0;
    if (const Error error = timeout_of(listener, SO_RCVTIMEO, &timeout_ms); error != 0) return error;
    if (const Error error = socket_wait(&item, 1, timeout_ms, &ready); error != 0) return error;
    return ready == 0 ? CM_ETIMEDOUT : 0;
}

}  // namespace

Error network_start() {
    WSADATA data;
    return static_cast<Error>(WSAStartup(MAKEWORD(2, 2), &data));
}

Error network_stop() {
    return WSACleanup() == 0 ? 0 : net_error();
}

Error host_name(char *out, size_t size) {
    int result = gethostname(out, clipped(size));
    if (result != 0 && start_after(net_error())) result = gethostname(out, clipped(size));
    return result == 0 ? 0 : net_error();
}

Error host_by_name(const char *name, uint32_t out_addresses[4], int32_t *out_count) {
    const hostent *entry = gethostbyname(name);  // the record is the thread's own
    if (entry == nullptr && start_after(net_error())) entry = gethostbyname(name);
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
    const char *bytes = reinterpret_cast<const char *>(&address);
    const hostent *entry = gethostbyaddr(bytes, 4, AF_INET);
    if (entry == nullptr && start_after(net_error())) entry = gethostbyaddr(bytes, 4, AF_INET);
    if (entry == nullptr) return net_error();
    const size_t length = strlen(entry->h_name);
    if (length >= size) return CM_EMSGSIZE;
    memcpy(out_name, entry->h_name, length + 1);
    return 0;
}

Error socket_open(SocketKind kind, cm_socket *out_socket) {
    const bool stream = kind == SocketKind::kStream, datagram = kind == SocketKind::kDatagram;
    const int type = stream ? SOCK_STREAM : datagram ? SOCK_DGRAM : SOCK_RAW;
    const int protocol = stream ? IPPROTO_TCP : datagram ? IPPROTO_UDP : IPPROTO_ICMP;
    constexpr DWORD kFlags = WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT;
    SOCKET made = WSASocketW(AF_INET, type, protocol, nullptr, 0, kFlags);
    if (made == INVALID_SOCKET && start_after(net_error()))
        made = WSASocketW(AF_INET, type, protocol, nullptr, 0, kFlags);
    if (made == INVALID_SOCKET) return net_error();
    *out_socket = static_cast<cm_socket>(made);
    clear_marks(*out_socket);
    set_mark(*out_socket, kDatagram, !stream);
    return 0;
}

Error socket_close(cm_socket socket) {
    clear_marks(socket);  // before the number can be another's
    return closesocket(native(socket)) == 0 ? 0 : net_error();
}

Error socket_shutdown(cm_socket socket) {
    set_mark(socket, kShut, true);
    const Error error = shutdown(native(socket), SD_BOTH) == 0 ? 0 : net_error();
    CancelIoEx(reinterpret_cast<HANDLE>(socket), nullptr);
    return error;
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
    if (const Error error = wait_to_accept(listener); error != 0) return error;
    const SOCKET made = accept(native(listener), reinterpret_cast<sockaddr *>(&peer), &length);
    if (made == INVALID_SOCKET) return net_error();
    u_long blocking = 0;  // inherited from the listener
    ioctlsocket(made, FIONBIO, &blocking);
    SetHandleInformation(reinterpret_cast<HANDLE>(made), HANDLE_FLAG_INHERIT, 0);
    *out_socket = static_cast<cm_socket>(made);
    clear_marks(*out_socket);
    *out_address = peer.sin_addr.s_addr;
    *out_port = ntohs(peer.sin_port);
    return 0;
}

Error socket_connect(cm_socket socket, uint32_t address, int32_t port) {
    const sockaddr_in peer = make_address(address, port);
    if (connect(native(socket), reinterpret_cast<const sockaddr *>(&peer), sizeof peer) == 0) return 0;
    const Error error = net_error();
    if (error == CM_EWOULDBLOCK) set_mark(socket, kConnecting, true);
    return error;
}

Error socket_connect_result(cm_socket socket) {
    int result = 0, length = sizeof result;
    if (getsockopt(native(socket), SOL_SOCKET, SO_ERROR, reinterpret_cast<char *>(&result), &length) != 0)
        return net_error();
    set_mark(socket, kConnecting, false);
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
    if (ioctlsocket(native(socket), FIONBIO, &non_blocking) != 0) return net_error();
    set_mark(socket, kNonBlocking, !blocking);
    return 0;
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
        case SocketOption::kUnackedTimeout:  // the nearest there is: unacknowledged data ends in no room for more
        case SocketOption::kSendTimeout:
            return set_option(socket, SOL_SOCKET, SO_SNDTIMEO, static_cast<DWORD>(value));
        case SocketOption::kReceiveTimeout:
            return set_option(socket, SOL_SOCKET, SO_RCVTIMEO, static_cast<DWORD>(value));
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
    if (length < 0) return CM_EINVAL;  // not all implementations look at it
    return setsockopt(native(socket), level, option, static_cast<const char *>(value), length) == 0 ? 0 : net_error();
}

// Not more at a time than a peer that reads at all takes within the time-out.
Error socket_send(cm_socket socket, const Slice *slices, int32_t count, bool more_follows, size_t *out_count) {
    constexpr int32_t kMost = 16;
    WSABUF buffers[kMost];
    size_t room = 64 << 10;
    DWORD used = 0;
    for (int32_t i = 0; i < count && i < kMost && room > 0; i++) {
        const size_t length = slices[i].length < room ? slices[i].length : room;
        buffers[used++] = {static_cast<ULONG>(length), static_cast<char *>(const_cast<void *>(slices[i].data))};
        room -= length;
    }
    DWORD sent = 0;
    Carried call(socket, SO_SNDTIMEO, true);
    const Error error = call.finish(WSASend(native(socket), buffers, used, &sent, 0, call.record(), nullptr), &sent);
    if (error == 0) *out_count = sent;
    return error;
}

// The system's own call needs a wait of its own that could not be ended; the caller sends pieces.
Error socket_send_file(cm_socket socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count) {
    return CM_EINVAL;
}

Error socket_receive(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count) {
    WSABUF room = {static_cast<ULONG>(clipped(size)), static_cast<char *>(buffer)};
    DWORD got = 0, flags = 0;
    Carried call(socket, SO_RCVTIMEO, !only_what_is_there);
    const Error error = call.finish(WSARecv(native(socket), &room, 1, &got, &flags, call.record(), nullptr), &got);
    if (error != 0) return error;
    if (got == 0 && size > 0 && has_mark(socket, kFailed)) return CM_ECONNRESET;
    *out_count = got;
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
    sockaddr_in peer = {};
    int length = sizeof peer;
    WSABUF room = {static_cast<ULONG>(clipped(size)), static_cast<char *>(buffer)};
    DWORD got = 0, flags = 0;
    Carried call(socket, SO_RCVTIMEO, !only_what_is_there);
    const int result = WSARecvFrom(native(socket), &room, 1, &got, &flags, reinterpret_cast<sockaddr *>(&peer), &length,
                                   call.record(), nullptr);
    if (const Error error = call.finish(result, &got); error != 0) return error;
    *out_count = got;
    if (out_address != nullptr) *out_address = peer.sin_addr.s_addr;
    if (out_port != nullptr) *out_port = ntohs(peer.sin_port);
    return 0;
}

Error socket_wait(WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
    const Wake *wake = wake_of_self();
    const int64_t end = monotonic_ms() + timeout_ms;
    bool any = false;
    for (int32_t i = 0; i < count; i++) {
        items[i].ready = items[i].failed = false;
        any = any || items[i].socket != kNoSocket;
    }
    *out_ready = 0;
    if (!any) return sleep(timeout_ms < 0 ? INT32_MAX : timeout_ms) ? 0 : CM_EINTR;  // the system waits for some only
    Round round(items, count, wake);
    for (;;) {
        if (thread_asked()) return CM_EINTR;
        int32_t ready = count_shut(items, count);
        const int64_t left = timeout_ms < 0 ? kSliceMs : end - monotonic_ms();
        const int64_t slice = left > kSliceMs ? kSliceMs : left;
        const Error error = ready > 0 ? 0 : round.wait(slice > 0 ? static_cast<int32_t>(slice) : 0, &ready);
        if (thread_asked()) return CM_EINTR;
        const bool broken_off = error == CM_EINTR || error == WSA_OPERATION_ABORTED;
        if (error != 0 && !broken_off) return error;
        if (ready > 0) {
            *out_ready = ready;
            return 0;
        }
        if (!broken_off && timeout_ms >= 0 && left <= slice && monotonic_ms() >= end) return 0;
        if (wake != nullptr && !broken_off) wake_clear(wake);
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

}  // namespace cm::platform::system
