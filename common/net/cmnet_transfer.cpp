// Bytes over connections: waiting for them, receiving, sending.
//
// A receive asks for what is there first and waits only when nothing is, which saves a system call for every request
// that has already arrived.
#include <string.h>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "net/cmnet.h"
#include "net/transport.h"

namespace cm::net {
namespace {

using platform::kForever;
using platform::os;
using platform::WaitItem;

constexpr int32_t kMostSlices = 8;        // of one system call
constexpr size_t kFilePiece = 16 * 1024;  // of a file that does not go out by itself

// Shows in the handle's flags that it waits for data.
class BusyMark {
public:
    explicit BusyMark(cm_conn *conn) : conn_(conn) { set_bits_relaxed(conn_->flags, uint32_t{CM_CONN_BUSY}); }
    ~BusyMark() { clear_bits_relaxed(conn_->flags, uint32_t{CM_CONN_BUSY}); }
    BusyMark(const BusyMark &) = delete;
    BusyMark &operator=(const BusyMark &) = delete;

private:
    cm_conn *const conn_;
};

// The read time-out of a handle, begun when it is first asked for: most receives never wait.
class TimeLeft {
public:
    explicit TimeLeft(uint32_t seconds) : limit_ms_(milliseconds(seconds)) {}

    int32_t get() {
        if (end_ < 0) {
            end_ = os.monotonic_ms() + limit_ms_;
            return limit_ms_;
        }
        const int64_t left = end_ - os.monotonic_ms();
        return left > 0 ? static_cast<int32_t>(left) : 0;
    }

private:
    const int32_t limit_ms_;
    int64_t end_ = -1;
};

// ---- receive --------------------------------------------------------------------------------------------------------

enum class Got { kData, kNothingYet, kFailed };

// A datagram handle takes the datagrams of its peer only, a UDP listener those of everybody.
bool from_peer(const cm_conn *conn, uint32_t address, int32_t port) {
    if ((conn->marks & kListener) != 0 || conn->peer_port == 0) return true;
    return address == conn->peer_addr && static_cast<uint32_t>(port) == conn->peer_port;
}

Got read_plain(const Call &call, const cm_conn *conn, void *buffer, size_t size, bool may_block, size_t *out_count) {
    Error error = 0;
    if (has_flag(conn, CM_CONN_DATAGRAM)) {
        uint32_t address = 0;
        int32_t port = 0;
        do {
            error = os.socket_receive_from(call.socket(), buffer, size, !may_block, out_count, &address, &port);
        } while (error == 0 && !from_peer(conn, address, port));
    } else {
        error = os.socket_receive(call.socket(), buffer, size, !may_block, out_count);
    }
    if (error == CM_EWOULDBLOCK) return Got::kNothingYet;
    return error == 0 ? Got::kData : Got::kFailed;
}

// What the first try tells is final: a second one could no longer see the error that the first one took.
bool receive_plain(cm_net_state *state, cm_conn *conn, const Call &call, void *buffer, size_t size, size_t *out_count) {
    const BusyMark busy(conn);
    TimeLeft time(conn->read_timeout);
    Got got = read_plain(call, conn, buffer, size, has_flag(conn, CM_CONN_KTIMEOUT), out_count);
    while (got == Got::kNothingYet) {
        if (wait_for(state, call, false, time.get()) != Wait::kReady) return false;
        got = read_plain(call, conn, buffer, size, false, out_count);
    }
    return got == Got::kData;
}

Got read_tls(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count) {
    const TlsRead read = transport->read(state, conn, buffer, size, out_count);
    if (read != TlsRead::kData) *out_count = 0;
    if (read == TlsRead::kWait) return Got::kNothingYet;
    return read == TlsRead::kFailed ? Got::kFailed : Got::kData;
}

bool receive_tls(cm_net_state *state, cm_conn *conn, const Call &call, void *buffer, int32_t size, int32_t *out_count) {
    if (transport == nullptr) return false;
    TimeLeft time(conn->read_timeout);
    bool wait = !transport->pending(state, conn) && !has_flag(conn, CM_CONN_KTIMEOUT);
    for (;; wait = true) {
        if (wait) {
            const BusyMark busy(conn);
            if (wait_for(state, call, false, time.get()) != Wait::kReady) return false;
        }
        const Got got = read_tls(state, conn, buffer, size, out_count);
        if (got != Got::kNothingYet) return got == Got::kData;
    }
}

void trace_received(cm_net_state *state, const cm_conn *conn, const void *data, int32_t length) {
    const Slice slice = {data, static_cast<size_t>(length)};
    const auto local = static_cast<long>(conn->local_port), bytes = static_cast<long>(length);
    if (has_flag(conn, CM_CONN_DATAGRAM))
        trace_packet(state->ctx, &slice, 1, "UDP READ [%ld] -> %s [%ld bytes]\n", local, conn->peer_text, bytes);
    else
        trace_packet(state->ctx, &slice, 1, "TCP READ [%ld] -> %s:%ld [%ld bytes]\n", local, conn->peer_text,
                     static_cast<long>(conn->peer_port), bytes);
}

// What a receive leaves behind.  `whole`: it has not failed.
bool received(cm_net_state *state, cm_conn *conn, bool whole, const void *buffer, int32_t length) {
    const bool at_end = length == 0 && !has_flag(conn, CM_CONN_DATAGRAM);
    if (!whole || at_end) {
        const bool ours = has_flag(conn, CM_CONN_CLOSED);  // closed by force: not the peer's end of the stream
        mark_closed(conn);
        return whole && !ours;
    }
    if (packets_traced(state)) trace_received(state, conn, buffer, length);
    count(state, 1, length);
    return true;
}

// ---- send -----------------------------------------------------------------------------------------------------------

// The bytes of some slices that are still to be sent.
class Rest {
public:
    Rest(const Slice *slices, int32_t count) : slices_(slices), count_(count) { skip(0); }

    // The next slices for one system call; gives their number, 0 at the end.
    int32_t next(Slice (&out)[kMostSlices], bool *out_more) const {
        int32_t taken = 0;
        for (int32_t i = index_; i < count_ && taken < kMostSlices; i++) out[taken++] = slices_[i];
        if (taken > 0) {
            out[0].data = static_cast<const char *>(out[0].data) + offset_;
            out[0].length -= offset_;
        }
        *out_more = index_ + taken < count_;
        return taken;
    }
    void skip(size_t sent) {
        offset_ += sent;
        while (index_ < count_ && offset_ >= slices_[index_].length) offset_ -= slices_[index_++].length;
    }

private:
    const Slice *const slices_;
    const int32_t count_;
    int32_t index_ = 0;
    size_t offset_ = 0;
};

// Whether a send that moved nothing is worth another try, after it waited for room where the socket does not block.
bool try_again(cm_net_state *state, const Call &call, Error error) {
    return error == CM_EWOULDBLOCK && wait_for(state, call, true, kForever) == Wait::kReady;
}

bool send_plain(cm_net_state *state, const Call &call, const Slice *slices, int32_t count, bool more_follows) {
    Rest rest(slices, count);
    Slice now[kMostSlices];
    bool more = false;
    while (const int32_t taken = rest.next(now, &more)) {
        size_t sent = 0;
        const Error error = os.socket_send(call.socket(), now, taken, more || more_follows, &sent);
        if (error == 0)
            rest.skip(sent);
        else if (!try_again(state, call, error))
            return false;
    }
    return true;
}

bool send_tls(cm_net_state *state, cm_conn *conn, const Slice *slices, int32_t count) {
    if (transport == nullptr) return false;
    for (int32_t i = 0; i < count; i++)
        if (slices[i].length > 0 &&
            !transport->write(state, conn, slices[i].data, static_cast<int32_t>(slices[i].length)))
            return false;
    return true;
}

bool write_file(cm_conn *conn, const Slice *slices, int32_t count) {
    for (int32_t i = 0; i < count; i++) {
        const auto length = static_cast<int32_t>(slices[i].length);
        int32_t written = 0;
        if (length > 0 && (cm_fwrite(conn->file, slices[i].data, length, &written) == 0 || written != length))
            return false;
    }
    return true;
}

void trace_sent(cm_net_state *state, const cm_conn *conn, const Slice *slices, int32_t count, int64_t total) {
    trace_packet(state->ctx, slices, count, "TCP WRITE [%ld] -> %s:%ld [%ld bytes]\n",
                 static_cast<long>(conn->local_port), conn->peer_text, static_cast<long>(conn->peer_port),
                 static_cast<long>(total));
}

bool may_send(cm_net_state *state, cm_conn *conn, const Call &call) {
    if (stopping(state) || has_flag(conn, CM_CONN_CLOSED)) return false;
    if (call.socket() != kNoSocket) return true;
    mark_closed(conn);
    return false;
}

bool sent(cm_conn *conn, bool whole, int64_t total) {
    if (whole)
        add_relaxed(conn->bytes_sent, static_cast<uint32_t>(total));
    else
        mark_closed(conn);
    return whole;
}

bool send_file_directly(cm_net_state *state, const Call &call, int32_t descriptor, int64_t offset, int64_t length,
                        bool *out_possible) {
    while (length > 0) {
        size_t count = 0;
        const auto wanted = static_cast<size_t>(length < INT32_MAX ? length : INT32_MAX);
        const Error error = os.socket_send_file(call.socket(), descriptor, offset, wanted, &count);
        *out_possible = *out_possible || error != CM_EINVAL;
        if (error == 0 && count > 0) {
            offset += static_cast<int64_t>(count);
            length -= static_cast<int64_t>(count);
        } else if (error == 0 || !try_again(state, call, error)) {
            return false;
        }
    }
    return true;
}

bool send_file_by_pieces(cm_net_state *state, cm_conn *conn, int32_t descriptor, int64_t offset, int64_t length) {
    char piece[kFilePiece];
    int64_t position = 0;
    if (os.file_seek(descriptor, offset, CM_SEEK_START, &position) != 0) return false;
    while (length > 0) {
        size_t got = 0;
        const size_t wanted = length < static_cast<int64_t>(kFilePiece) ? static_cast<size_t>(length) : kFilePiece;
        if (os.file_read(descriptor, piece, wanted, &got) != 0 || got == 0) return false;
        length -= static_cast<int64_t>(got);
        const Slice slice = {piece, got};
        if (!send_slices(state, conn, &slice, 1, length > 0)) return false;
    }
    return true;
}

}  // namespace

Wait wait_for(cm_net_state *state, const Call &call, bool for_write, int32_t timeout_ms) {
    const cm_socket socket = call.socket();
    if (stopping(state)) return Wait::kStopped;
    if (socket == kNoSocket) return Wait::kFailed;
    WaitItem items[] = {{socket, for_write, false, false}, {state->stop[0], false, false, false}};
    int32_t ready = 0;
    const Error error = os.socket_wait(items, 2, timeout_ms, &ready);
    if (stopping(state) || error == CM_EINTR) return Wait::kStopped;
    if (error != 0 || call.socket() == kNoSocket) return Wait::kFailed;
    return items[0].ready ? Wait::kReady : Wait::kTimeUp;
}

bool receive(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count) {
    *out_count = 0;
    if (stopping(state) || has_flag(conn, CM_CONN_FILE | CM_CONN_CLOSED) || size < 1) return false;
    const Call call(state, conn);
    bool whole = call.socket() != kNoSocket;
    if (whole && has_flag(conn, CM_CONN_TLS)) {
        whole = receive_tls(state, conn, call, buffer, size, out_count);
    } else if (whole) {
        size_t got = 0;
        whole = receive_plain(state, conn, call, buffer, static_cast<size_t>(size), &got);
        if (whole) *out_count = static_cast<int32_t>(got);
    }
    return received(state, conn, whole, buffer, *out_count);
}

Now receive_now(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size, int32_t *out_count) {
    *out_count = 0;
    if (stopping(state) || has_flag(conn, CM_CONN_FILE | CM_CONN_CLOSED)) return Now::kFailed;
    const Call call(state, conn);
    Got got = Got::kFailed;
    if (call.socket() != kNoSocket && has_flag(conn, CM_CONN_TLS)) {
        if (transport != nullptr) got = read_tls(state, conn, buffer, size, out_count);
    } else if (call.socket() != kNoSocket) {
        size_t bytes = 0;
        got = read_plain(call, conn, buffer, static_cast<size_t>(size), false, &bytes);
        if (got == Got::kData) *out_count = static_cast<int32_t>(bytes);
    }
    if (got == Got::kNothingYet) return Now::kNothing;
    if (!received(state, conn, got == Got::kData, buffer, *out_count)) return Now::kFailed;
    return *out_count > 0 ? Now::kBytes : Now::kEnd;
}

bool send_slices(cm_net_state *state, cm_conn *conn, const Slice *slices, int32_t slice_count, bool more_follows) {
    int64_t total = 0;
    for (int32_t i = 0; i < slice_count; i++) total += static_cast<int64_t>(slices[i].length);
    const Call call(state, conn);
    if (has_flag(conn, CM_CONN_FILE))
        return !stopping(state) && call.open() && conn->file != nullptr &&
               sent(conn, write_file(conn, slices, slice_count), total);
    if (!may_send(state, conn, call)) return false;
    if (total == 0) return true;
    count(state, 2, total);
    if (has_flag(conn, CM_CONN_TLS)) return sent(conn, send_tls(state, conn, slices, slice_count), total);
    if (!sent(conn, send_plain(state, call, slices, slice_count, more_follows), total)) return false;
    if (packets_traced(state)) trace_sent(state, conn, slices, slice_count, total);
    return true;
}

bool send_now(cm_net_state *state, cm_conn *conn, const void *data, int32_t length, int32_t *out_count) {
    *out_count = 0;
    const Slice slice = {data, static_cast<size_t>(length)};
    if (has_flag(conn, CM_CONN_TLS | CM_CONN_FILE)) {
        *out_count = length;
        return send_slices(state, conn, &slice, 1, false);
    }
    const Call call(state, conn);
    if (!may_send(state, conn, call)) return false;
    size_t bytes = 0;
    const Error error = os.socket_send(call.socket(), &slice, 1, false, &bytes);
    if (error == CM_EWOULDBLOCK) return true;
    if (!sent(conn, error == 0, static_cast<int64_t>(bytes))) return false;
    *out_count = static_cast<int32_t>(bytes);
    count(state, 2, *out_count);
    const Slice gone = {data, bytes};
    if (packets_traced(state)) trace_sent(state, conn, &gone, 1, *out_count);
    return true;
}

bool send_file(cm_net_state *state, cm_conn *conn, int32_t descriptor, int64_t offset, int64_t length) {
    const Call call(state, conn);
    bool possible = false;
    if (!has_flag(conn, CM_CONN_FILE | CM_CONN_TLS) && !packets_traced(state)) {
        if (!may_send(state, conn, call)) return false;
        const bool whole = send_file_directly(state, call, descriptor, offset, length, &possible);
        if (whole || possible) {
            count(state, 2, length);
            return sent(conn, whole, length);
        }
    }
    return send_file_by_pieces(state, conn, descriptor, offset, length);
}

}  // namespace cm::net

CM_API int16_t CM_CALL cm_net_receive(cm_net_state *state, cm_conn *conn, void *buffer, int32_t size,
                                      int32_t *out_count) {
    int32_t unwanted = 0;
    if (out_count == nullptr) out_count = &unwanted;
    *out_count = 0;
    if (state == nullptr || conn == nullptr || buffer == nullptr) return 0;
    return cm::net::receive(state, conn, buffer, size, out_count) ? 1 : 0;
}

CM_API int16_t CM_CALL cm_net_send(cm_net_state *state, cm_conn *conn, const void *data, int32_t length) {
    if (state == nullptr || conn == nullptr || (data == nullptr && (length > 0 || length == CM_LEN_TEXT))) return 0;
    const std::string_view text = cm::view(static_cast<const char *>(data), length);
    const cm::net::Slice slice = {text.data(), text.size()};
    return cm::net::send_slices(state, conn, &slice, 1, false) ? 1 : 0;
}

// The error of the socket stays where it is, for the next read to find.
CM_API int16_t CM_CALL cm_net_isalive(cm_net_state *state, cm_conn *conn) {
    using namespace cm::net;
    if (state == nullptr || conn == nullptr || stopping(state) || has_flag(conn, CM_CONN_CLOSED)) return 0;
    const Call call(state, conn);
    cm::platform::WaitItem item = {call.socket(), false, false, false};
    int32_t ready = 0;
    const Error error = cm::platform::os.socket_wait(&item, 1, 0, &ready);
    if (error == CM_ECONNRESET || error == CM_ENOTCONN || error == CM_ESHUTDOWN) return 0;
    return error == 0 && item.failed ? 0 : 1;
}
