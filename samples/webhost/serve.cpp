// One connection: requests are read from it one after the other and answered in their order.
#include <algorithm>
#include <cstring>

#include "host.h"
#include "reply.h"

namespace webhost {
namespace {

constexpr uint32_t kIdleSeconds = 15;  // between two requests
constexpr uint32_t kHeadSeconds = 20;  // from a head's first byte to its last, however slowly they drip
constexpr uint32_t kBodySeconds = 20;
constexpr uint64_t kMaxBody = 65536;        // of a body that is read and dropped
constexpr uint64_t kMaxBodyBytes = 131072;  // the same with what chunks add
constexpr int kMaxRequests = 100000;        // on one connection

uint32_t now() {
    uint32_t seconds = 0;
    return cm_cursec(&seconds);
}

// Bytes received and not used yet: a client may send its next requests before it has the answer to this one.
class Input {
public:
    Input(cm_net_state *net, cm_conn *conn) : net_(net), conn_(conn) {}

    std::string_view bytes() const { return {buffer_ + begin_, end_ - begin_}; }
    void use(size_t count) { begin_ += count; }

    // Receives more, at most until `deadline` (seconds).  False: time is up, or the connection has ended.
    bool more(uint32_t deadline) {
        if (begin_ > 0) memmove(buffer_, buffer_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        const uint32_t time = now();
        if (end_ == sizeof buffer_ || time >= deadline) return false;
        conn_->read_timeout = deadline - time;
        int32_t got = 0;
        if (cm_net_read(net_, conn_, 0, buffer_ + end_, static_cast<int32_t>(sizeof buffer_ - end_), &got) == 0 ||
            got == 0)
            return false;
        end_ += static_cast<size_t>(got);
        return true;
    }

private:
    cm_net_state *const net_;
    cm_conn *const conn_;
    char buffer_[kMaxHead];
    size_t begin_ = 0, end_ = 0;
};

// Result: 200, the status to refuse with, or 0 when the client went away or took too long.
int read_head(Input &input, Request *request, size_t *length) {
    uint32_t deadline = now() + kIdleSeconds;
    size_t looked_at = 0;
    if (!input.bytes().empty()) deadline = now() + kHeadSeconds;
    for (;;) {
        const std::string_view bytes = input.bytes();
        // A head is complete with a line end, so nothing else is worth a look.
        if (bytes.find('\n', looked_at) != std::string_view::npos || bytes.size() >= kMaxHead) {
            const int status = parse_head(bytes, request, length);
            if (status != 0) return status;
        }
        looked_at = bytes.size();
        if (!input.more(deadline)) return 0;
        if (looked_at == 0) deadline = now() + kHeadSeconds;
    }
}

int drop_sized_body(Input &input, uint64_t length) {
    const uint32_t deadline = now() + kBodySeconds;
    for (;;) {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(length, input.bytes().size()));
        input.use(count);
        length -= count;
        if (length == 0) return 200;
        if (!input.more(deadline)) return 0;
    }
}

int drop_chunked_body(Input &input) {
    const uint32_t deadline = now() + kBodySeconds;
    ChunkReader reader;
    for (uint64_t bytes = 0;;) {
        size_t used = 0;
        const ChunkReader::State state = reader.take(input.bytes(), &used);
        input.use(used);
        bytes += used;
        if (state == ChunkReader::State::kBad) return 400;
        if (reader.data_bytes() > kMaxBody || bytes > kMaxBodyBytes) return 413;
        if (state == ChunkReader::State::kDone) return 200;
        if (!input.more(deadline)) return 0;
    }
}

// No request of this host needs its body.  Result: as read_head.
int drop_body(cm_net_state *net, cm_conn *conn, Input &input, const Request &request) {
    if (!request.chunked && request.content_length == 0) return 200;
    if (request.content_length > kMaxBody) return 413;
    constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
    if (request.expects_continue &&
        cm_net_putdata(net, conn, kContinue.data(), static_cast<int32_t>(kContinue.size()), 1) == 0)
        return 0;
    return request.chunked ? drop_chunked_body(input) : drop_sized_body(input, request.content_length);
}

// Closing a connection with unread input resets it, and the client might never see why it was refused: what is on its
// way is read first, within limits.
void let_go(Input &input) {
    const uint32_t deadline = now() + 2;
    for (int i = 0; i < 64; i++) {
        input.use(input.bytes().size());
        if (!input.more(deadline)) return;
    }
}

// One request and its answer.  Result: whether the connection goes on.
bool serve_request(Host &host, cm_conn *conn, Input &input) {
    Request request;
    size_t length = 0;
    int status = read_head(input, &request, &length);
    if (status == 0) return false;
    if (status == 200 && !request.chunked && request.content_length == 0) {
        const bool keep = answer(host, conn, request, request.keep_alive);
        input.use(length);
        return keep;
    }
    char head[kMaxHead];
    if (status == 200) {  // the request's texts lie in the input buffer, which the body needs
        memcpy(head, input.bytes().data(), length);
        parse_head({head, length}, &request, &length);
        input.use(length);
        status = drop_body(host.net, conn, input, request);
        if (status == 0) return false;
        if (status == 200) return answer(host, conn, request, request.keep_alive);
    }
    refuse(host, conn, request, status, false);
    let_go(input);
    return false;
}

}  // namespace

int16_t CM_CALL serve_connection(cm_context *, cm_conn *conn, cm_thread *, cm_value argument) {
    Host &host = *reinterpret_cast<Host *>(argument);
    host.connections++;
    Input input(host.net, conn);
    for (int i = 0; i < kMaxRequests && serve_request(host, conn, input); i++) continue;
    host.connections--;
    return 1;
}

}  // namespace webhost
