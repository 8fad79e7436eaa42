#include <arpa/inet.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "posix.h"

namespace cm::platform::system {

using posix::Deadline;
using posix::error_number;
using posix::repeat;
using posix::result_error;

namespace {

constexpr size_t kMostAtOnce = 0x40000000;
constexpr int kMostSlices = 64;
constexpr int kMostItems = 64;  // of a wait without an allocation

int number(cm_socket socket) {
    return static_cast<int>(socket);
}

sockaddr_in address_of(uint32_t address, int32_t port) {
    sockaddr_in out = {};
    out.sin_family = AF_INET;
    out.sin_addr.s_addr = address;
    out.sin_port = htons(static_cast<uint16_t>(port));
    return out;
}

const sockaddr *generic(const sockaddr_in *address) {
    return reinterpret_cast<const sockaddr *>(address);
}
sockaddr *generic(sockaddr_in *address) {
    return reinterpret_cast<sockaddr *>(address);
}

void put_address(const sockaddr_in &from, uint32_t *out_address, int32_t *out_port) {
    *out_address = from.sin_addr.s_addr;
    *out_port = ntohs(from.sin_port);
}

bool is_blocking(cm_socket socket) {
    const int flags = fcntl(number(socket), F_GETFL);
    return flags != -1 && (flags & O_NONBLOCK) == 0;
}

timeval time_of(int32_t milliseconds) {
    timeval out = {};
    if (milliseconds > 0) {
        out.tv_sec = milliseconds / 1000;
        out.tv_usec = milliseconds % 1000 * 1000;
    }
    return out;
}

// Cheap enough to be read before every call; its few milliseconds of grain do not matter to a socket's time-out.
int64_t coarse_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * INT64_C(1000) + now.tv_nsec / 1000000;
}

// poll, interrupted calls continued.  CM_EINTR: the thread was asked to end.
Error poll_until(pollfd *entries, nfds_t count, const Deadline &limit, int *out_ready) {
    for (;;) {
        if (thread_asked()) return CM_EINTR;
        const int ready = poll(entries, count, limit.left_ms());
        if (ready >= 0) {
            *out_ready = ready;
            return 0;
        }
        if (errno != EINTR) return error_number(errno);
    }
}

// One call on a socket, as the entries for sending, receiving and accepting need it: interrupted calls go on with what
// is left of the socket's own time-out, and errors know whether the socket blocks.
class SocketCall {
public:
    // `may_wait`: the caller lets the call wait (when the socket blocks at all).
    SocketCall(cm_socket socket, bool for_write, bool may_wait)
        : socket_(socket), for_write_(for_write), may_wait_(may_wait), started_(may_wait ? coarse_ms() : 0) {}

    template <class Call>
    Error run(Call call, size_t *out_count) const {
        for (;;) {
            const ssize_t done = call(number(socket_));
            if (done >= 0) {
                *out_count = static_cast<size_t>(done);
                return 0;
            }
            const int error = errno;
            if (error != EINTR) return error_number(error, error == EAGAIN && may_wait_ && is_blocking(socket_));
            if (const Error stop = go_on()) return stop;
        }
    }

private:
    // After an interruption: 0 when the call may be made again.
    Error go_on() const {
        if (thread_asked()) return CM_EINTR;
        timeval limit = {};
        socklen_t size = sizeof limit;
        const int option = for_write_ ? SO_SNDTIMEO : SO_RCVTIMEO;
        if (!may_wait_ || getsockopt(number(socket_), SOL_SOCKET, option, &limit, &size) != 0) return 0;
        if (limit.tv_sec == 0 && limit.tv_usec == 0) return 0;
        const int64_t left = started_ + limit.tv_sec * INT64_C(1000) + limit.tv_usec / 1000 - coarse_ms();
        pollfd entry = {number(socket_), static_cast<short>(for_write_ ? POLLOUT : POLLIN), 0};
        int ready = 0;
        const Deadline deadline(static_cast<int32_t>(std::clamp<int64_t>(left, 0, INT32_MAX)));
        if (const Error error = poll_until(&entry, 1, deadline, &ready)) return error;
        return ready > 0 ? 0 : CM_ETIMEDOUT;
    }

    cm_socket socket_;
    bool for_write_;
    bool may_wait_;
    int64_t started_;
};

Error set_option(cm_socket socket, int level, int option, int value) {
    return result_error(setsockopt(number(socket), level, option, &value, sizeof value));
}

Error set_time_option(cm_socket socket, int option, int32_t milliseconds) {
    const timeval limit = time_of(milliseconds);
    return result_error(setsockopt(number(socket), SOL_SOCKET, option, &limit, sizeof limit));
}

}  // namespace

// ---- start and names ------------------------------------------------------------------------------------------------

// Sends ask for no signal, but a TLS library and sendfile do not.
Error network_start() {
    struct sigaction action = {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0) return error_number(errno);
    if ((action.sa_flags & SA_SIGINFO) != 0 || action.sa_handler != SIG_DFL) return 0;
    action.sa_handler = SIG_IGN;
    return result_error(sigaction(SIGPIPE, &action, nullptr));
}

Error network_stop() {
    return 0;
}

Error host_name(char *out, size_t size) {
    char name[HOST_NAME_MAX + 1];
    if (gethostname(name, sizeof name) != 0) return error_number(errno);
    name[sizeof name - 1] = '\0';
    const size_t length = strlen(name);
    if (length >= size) return ENAMETOOLONG;
    memcpy(out, name, length + 1);
    return 0;
}

namespace {

Error resolver_error(int code) {
    switch (code) {
        case HOST_NOT_FOUND:
            return 11001;
        case TRY_AGAIN:
            return 11002;
        case NO_RECOVERY:
            return 11003;
        default:
            return 11004;  // a known name without the data
    }
}

// Runs a look-up with a larger buffer until the answer fits.  `look_up` is call(buffer, size, &record, &code) with the
// result of the gethostby calls, `use` takes the record.
template <class LookUp, class Use>
Error resolve(LookUp look_up, Use use) {
    char on_stack[2048];
    char *buffer = on_stack;
    for (size_t size = sizeof on_stack;; size *= 4) {
        hostent *record = nullptr;
        int code = 0;
        const int result = look_up(buffer, size, &record, &code);
        Error error = ENOBUFS;
        if (result != ERANGE) error = record == nullptr ? resolver_error(code) : use(*record);
        if (buffer != on_stack) os.release(buffer);
        if (result != ERANGE || size > 65536) return error;
        buffer = static_cast<char *>(os.allocate(size * 4));
        if (buffer == nullptr) return ENOMEM;
    }
}

}  // namespace

Error host_by_name(const char *name, uint32_t out_addresses[4], int32_t *out_count) {
    hostent storage;
    return resolve([&](char *buffer, size_t size, hostent **record,
                       int *code) { return gethostbyname2_r(name, AF_INET, &storage, buffer, size, record, code); },
                   [&](const hostent &record) -> Error {
                       int32_t count = 0;
                       while (count < 4 && record.h_addr_list[count] != nullptr) {
                           memcpy(&out_addresses[count], record.h_addr_list[count], sizeof out_addresses[0]);
                           count++;
                       }
                       if (count == 0) return resolver_error(NO_DATA);
                       *out_count = count;
                       return 0;
                   });
}

Error host_by_address(uint32_t address, char *out_name, size_t size) {
    hostent storage;
    return resolve(
        [&](char *buffer, size_t room, hostent **record, int *code) {
            return gethostbyaddr_r(&address, sizeof address, AF_INET, &storage, buffer, room, record, code);
        },
        [&](const hostent &record) -> Error {
            const size_t length = record.h_name != nullptr ? strlen(record.h_name) : 0;
            if (length == 0) return resolver_error(NO_DATA);
            if (length >= size) return ENAMETOOLONG;
            memcpy(out_name, record.h_name, length + 1);
            return 0;
        });
}

// ---- making and ending ----------------------------------------------------------------------------------------------

Error socket_open(SocketKind kind, cm_socket *out_socket) {
    const int type = kind == SocketKind::kStream ? SOCK_STREAM : SOCK_DGRAM;
    const int protocol = kind == SocketKind::kEcho ? IPPROTO_ICMP : 0;
    int opened = ::socket(AF_INET, type | SOCK_CLOEXEC, protocol);
    if (opened == -1 && kind == SocketKind::kEcho) opened = ::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (opened == -1) return error_number(errno);
    *out_socket = opened;
    return 0;
}

// Never repeated, as with files.
Error socket_close(cm_socket socket) {
    return close(number(socket)) == 0 || errno == EINTR ? 0 : error_number(errno);
}

Error socket_shutdown(cm_socket socket) {
    return result_error(shutdown(number(socket), SHUT_RDWR));
}

Error socket_bind(cm_socket socket, uint32_t address, int32_t port) {
    const sockaddr_in to = address_of(address, port);
    return result_error(bind(number(socket), generic(&to), sizeof to));
}

Error socket_listen(cm_socket socket, int32_t backlog) {
    return result_error(listen(number(socket), backlog));
}

Error socket_accept(cm_socket listener, cm_socket *out_socket, uint32_t *out_address, int32_t *out_port) {
    if (thread_asked()) return CM_EINTR;
    sockaddr_in peer = {};
    size_t accepted = 0;
    const Error error = SocketCall(listener, false, true)
                            .run(
                                [&](int from) {
                                    socklen_t size = sizeof peer;
                                    return accept4(from, generic(&peer), &size, SOCK_CLOEXEC);
                                },
                                &accepted);
    if (error != 0) return error;
    *out_socket = static_cast<cm_socket>(accepted);
    put_address(peer, out_address, out_port);
    return 0;
}

Error socket_connect(cm_socket socket, uint32_t address, int32_t port) {
    const sockaddr_in to = address_of(address, port);
    if (connect(number(socket), generic(&to), sizeof to) == 0) return 0;
    if (errno != EINTR) {
        const int error = errno;
        return error_number(error, error == EINPROGRESS && is_blocking(socket));
    }
    // An interrupted connect goes on by itself; only its end is waited for.
    timeval limit = {};
    socklen_t size = sizeof limit;
    getsockopt(number(socket), SOL_SOCKET, SO_SNDTIMEO, &limit, &size);
    const int64_t ms = limit.tv_sec * INT64_C(1000) + limit.tv_usec / 1000;
    pollfd entry = {number(socket), POLLOUT, 0};
    int ready = 0;
    const Deadline deadline(ms > 0 ? static_cast<int32_t>(std::min<int64_t>(ms, INT32_MAX)) : kForever);
    if (const Error error = poll_until(&entry, 1, deadline, &ready)) return error;
    return ready > 0 ? socket_connect_result(socket) : CM_ETIMEDOUT;
}

Error socket_connect_result(cm_socket socket) {
    int result = 0;
    socklen_t size = sizeof result;
    if (getsockopt(number(socket), SOL_SOCKET, SO_ERROR, &result, &size) != 0) return error_number(errno);
    return result == 0 ? 0 : error_number(result);
}

Error socket_local(cm_socket socket, uint32_t *out_address, int32_t *out_port) {
    sockaddr_in local = {};
    socklen_t size = sizeof local;
    if (getsockname(number(socket), generic(&local), &size) != 0) return error_number(errno);
    put_address(local, out_address, out_port);
    return 0;
}

Error socket_peer(cm_socket socket, uint32_t *out_address, int32_t *out_port) {
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    if (getpeername(number(socket), generic(&peer), &size) != 0) return error_number(errno);
    put_address(peer, out_address, out_port);
    return 0;
}

// ---- options --------------------------------------------------------------------------------------------------------

Error socket_set_blocking(cm_socket socket, bool blocking) {
    const int flags = fcntl(number(socket), F_GETFL);
    if (flags == -1) return error_number(errno);
    const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
    return wanted == flags ? 0 : result_error(fcntl(number(socket), F_SETFL, wanted));
}

Error socket_option(cm_socket socket, SocketOption option, int32_t value) {
    switch (option) {
        case SocketOption::kKeepAlive:
            return set_option(socket, SOL_SOCKET, SO_KEEPALIVE, value);
        case SocketOption::kListenerReuse:
        case SocketOption::kReuseAddress:
            return set_option(socket, SOL_SOCKET, SO_REUSEADDR, value);
        case SocketOption::kLinger: {
            const linger rule = {value >= 0, std::max(value, 0)};
            return result_error(setsockopt(number(socket), SOL_SOCKET, SO_LINGER, &rule, sizeof rule));
        }
        case SocketOption::kNoDelay:
            return set_option(socket, IPPROTO_TCP, TCP_NODELAY, value);
        case SocketOption::kBroadcast:
            return set_option(socket, SOL_SOCKET, SO_BROADCAST, value);
        case SocketOption::kSendTimeout:
            return set_time_option(socket, SO_SNDTIMEO, value);
        case SocketOption::kReceiveTimeout:
            return set_time_option(socket, SO_RCVTIMEO, value);
        case SocketOption::kUnackedTimeout:
            return set_option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, value);
        case SocketOption::kIgnorePortUnreachable:
            return 0;  // a socket without a fixed peer never hears of it
    }
    return CM_EINVAL;
}

bool socket_all_confirmed(cm_socket socket) {
    int unconfirmed = 0;
    return ioctl(number(socket), SIOCOUTQ, &unconfirmed) == 0 && unconfirmed == 0;
}

// Time-outs are 32 bits of milliseconds for every caller.
Error socket_raw_option(cm_socket socket, int32_t level, int32_t option, const void *value, int32_t length) {
    if (length < 0) return CM_EINVAL;
    if (level == SOL_SOCKET && (option == SO_RCVTIMEO || option == SO_SNDTIMEO) && length == sizeof(int32_t)) {
        int32_t milliseconds = 0;
        memcpy(&milliseconds, value, sizeof milliseconds);
        return set_time_option(socket, option, milliseconds);
    }
    return result_error(setsockopt(number(socket), level, option, value, static_cast<socklen_t>(length)));
}

// ---- sending and receiving ------------------------------------------------------------------------------------------

Error socket_send(cm_socket socket, const Slice *slices, int32_t count, bool more_follows, size_t *out_count) {
    iovec pieces[kMostSlices];
    const int used = std::clamp(count, 0, kMostSlices);
    for (int i = 0; i < used; i++) pieces[i] = {const_cast<void *>(slices[i].data), slices[i].length};
    const int flags = MSG_NOSIGNAL | (more_follows || used < count ? MSG_MORE : 0);
    msghdr message = {};
    message.msg_iov = pieces;
    message.msg_iovlen = static_cast<size_t>(used);
    return SocketCall(socket, true, true).run([&](int to) { return sendmsg(to, &message, flags); }, out_count);
}

Error socket_send_file(cm_socket socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count) {
    off_t position = offset;
    const Error error =
        SocketCall(socket, true, true)
            .run([&](int to) { return sendfile(to, descriptor, &position, std::min(count, kMostAtOnce)); }, out_count);
    return error == ENOSYS ? CM_EINVAL : error;
}

Error socket_receive(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count) {
    if (!only_what_is_there && thread_asked()) return CM_EINTR;
    const int flags = only_what_is_there ? MSG_DONTWAIT : 0;
    return SocketCall(socket, false, !only_what_is_there)
        .run([&](int from) { return recv(from, buffer, size, flags); }, out_count);
}

Error socket_send_to(cm_socket socket, uint32_t address, int32_t port, const void *data, size_t length) {
    const sockaddr_in to = address_of(address, port);
    size_t sent = 0;
    return SocketCall(socket, true, true)
        .run([&](int from) { return sendto(from, data, length, MSG_NOSIGNAL, generic(&to), sizeof to); }, &sent);
}

Error socket_receive_from(cm_socket socket, void *buffer, size_t size, bool only_what_is_there, size_t *out_count,
                          uint32_t *out_address, int32_t *out_port) {
    if (!only_what_is_there && thread_asked()) return CM_EINTR;
    sockaddr_in peer = {};
    iovec piece = {buffer, size};
    msghdr message = {};
    const int flags = only_what_is_there ? MSG_DONTWAIT : 0;
    size_t got = 0;
    const Error error = SocketCall(socket, false, !only_what_is_there)
                            .run(
                                [&](int from) {
                                    message = {};
                                    message.msg_name = &peer;
                                    message.msg_namelen = sizeof peer;
                                    message.msg_iov = &piece;
                                    message.msg_iovlen = 1;
                                    return recvmsg(from, &message, flags);
                                },
                                &got);
    if (error != 0) return error;
    if ((message.msg_flags & MSG_TRUNC) != 0) return CM_EMSGSIZE;
    *out_count = got;
    put_address(peer, out_address, out_port);
    return 0;
}

// ---- waiting --------------------------------------------------------------------------------------------------------

namespace {

Error wait_with(pollfd *entries, WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
    for (int32_t i = 0; i < count; i++) {
        const short events = items[i].for_write ? POLLOUT : POLLIN;
        entries[i] = {number(items[i].socket), events, 0};  // a number of -1 is passed over
    }
    int polled = 0;
    if (const Error error = poll_until(entries, static_cast<nfds_t>(count), Deadline(timeout_ms), &polled))
        return error;
    int32_t ready = 0;
    for (int32_t i = 0; i < count; i++) {
        const short found = entries[i].revents;
        if ((found & POLLNVAL) != 0) return CM_ENOTSOCK;
        items[i].failed = (found & (POLLERR | POLLHUP)) != 0;
        items[i].ready = items[i].failed || (found & entries[i].events) != 0;
        ready += items[i].ready;
    }
    *out_ready = ready;
    return 0;
}

}  // namespace

Error socket_wait(WaitItem *items, int32_t count, int32_t timeout_ms, int32_t *out_ready) {
    if (count < 0) return CM_EINVAL;
    if (count <= kMostItems) {
        pollfd entries[kMostItems];
        return wait_with(entries, items, count, timeout_ms, out_ready);
    }
    pollfd *entries = static_cast<pollfd *>(os.allocate(static_cast<size_t>(count) * sizeof(pollfd)));
    if (entries == nullptr) return ENOMEM;
    const Error error = wait_with(entries, items, count, timeout_ms, out_ready);
    os.release(entries);
    return error;
}

Error wake_create(Wake *out_wake) {
    const int made = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made == -1) return error_number(errno);
    out_wake->read_end = out_wake->write_end = made;
    return 0;
}

void wake_set(const Wake *wake) {
    const uint64_t one = 1;
    // It can only fail when it is set already.
    [[maybe_unused]] const ssize_t ignored = write(number(wake->write_end), &one, sizeof one);
}

void wake_clear(const Wake *wake) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = read(number(wake->read_end), &count, sizeof count);
}

void wake_destroy(Wake *wake) {
    if (wake->read_end != kNoSocket) close(number(wake->read_end));
    wake->read_end = wake->write_end = kNoSocket;
}

}  // namespace cm::platform::system
