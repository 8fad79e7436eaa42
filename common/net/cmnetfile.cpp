// Files over connections: a file or a range of it as (part of) a reply body, and a connection whose sends go to a file.
//
// A plain reply is the same bytes however they are cut into sends, so it takes the shortest way: a cached file goes out
// of the cache together with the header that waits in the output buffer, a small file through that buffer, a large one
// by the system's file-to-socket call behind the header.  Encoded bodies, and all of them while packets are traced, are
// handed on in pieces of 4096 bytes, which decide where chunks and trace lines begin.
#include <algorithm>
#include <cstring>
#include <limits>

#include "core/relaxed.h"
#include "net/cmnetbody.h"

namespace cm::net {
namespace {

using platform::os;

constexpr size_t kPiece = 4096, kReadAhead = 8 * kPiece;
constexpr size_t kEndOfFile = 1024;  // a shorter read is the last one
constexpr int32_t kCached = 2;
constexpr char kStreamAlert[] = "stream";
constexpr uint64_t kToTheEnd = std::numeric_limits<uint64_t>::max();

class OpenFile {
public:
    // The cache tells files apart by the way they are opened.  Not sequential is the way under which it also keeps what
    // cm_stat says, so that the header of a reply and its body come from one entry.  Without the cache, a sequential
    // open is the one that leaves the cache alone.
    OpenFile(cm_context *ctx, const char *path, bool by_cache) {
        constexpr int32_t kRead = CM_O_RDONLY | CM_O_BINARY;
        const int16_t opened =
            by_cache ? cm_fopenc(ctx, path, kRead, &file_) : cm_fopen(ctx, path, kRead | CM_O_SEQ, &file_);
        if (opened == 0) file_ = nullptr;
    }
    ~OpenFile() {
        if (file_ != nullptr) cm_fclose(file_);
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;

    explicit operator bool() const { return file_ != nullptr; }
    const cm_file *operator->() const { return file_; }
    const cm_file *get() const { return file_; }

private:
    cm_file *file_ = nullptr;
};

struct Range {
    uint64_t offset;
    uint64_t length;
};

// `last` 0 means to the end, so the first byte alone cannot be asked for: that is how servers call it.
Range make_range(int32_t first, int32_t last) {
    const int64_t offset = std::max(first, 0);
    if (last <= 0) return {static_cast<uint64_t>(offset), kToTheEnd};
    return {static_cast<uint64_t>(offset), static_cast<uint64_t>(std::max<int64_t>(int64_t{last} - offset + 1, 0))};
}

std::string_view cached_range(const cm_file *file, const Range &range) {
    const auto total = static_cast<uint64_t>(std::max(file->total, 0));
    const uint64_t offset = std::min(range.offset, total);
    return {file->buffer + offset, static_cast<size_t>(std::min(range.length, total - offset))};
}

bool flush(cm_net_state *state, cm_conn *conn, bool more_follows = false) {
    Batch batch(state, conn);
    batch.buffered();
    return batch.send(more_follows);
}

bool put_pieces(cm_net_state *state, cm_conn *conn, std::string_view data) {
    while (!data.empty()) {
        const size_t count = std::min(data.size(), kPiece);
        if (!put_data(state, conn, {data.data(), count}, false)) return false;
        data.remove_prefix(count);
    }
    return true;
}

bool seek(int32_t descriptor, uint64_t offset) {
    int64_t position = 0;
    return offset == 0 || os.file_seek(descriptor, static_cast<int64_t>(offset), CM_SEEK_START, &position) == 0;
}

// Encoded, or with a trace line per piece.
bool put_file_pieces(cm_net_state *state, cm_conn *conn, int32_t descriptor, const Range &range) {
    char buffer[kReadAhead];
    if (!seek(descriptor, range.offset)) return false;
    for (uint64_t left = range.length; left > 0;) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, sizeof buffer));
        size_t got = 0;
        if (os.file_read(descriptor, buffer, wanted, &got) != 0) return false;
        if (!put_pieces(state, conn, {buffer, got})) return false;
        if (got < kEndOfFile) break;
        left -= got;
    }
    return true;
}

// Plain, through the output buffer, which is sent each time it is full.
bool put_file_buffered(cm_net_state *state, cm_conn *conn, int32_t descriptor, const Range &range) {
    if (!seek(descriptor, range.offset)) return false;
    for (uint64_t left = range.length; left > 0;) {
        if (conn->out_count >= CM_NET_OUT_SIZE && !flush(state, conn)) return false;
        const auto room = static_cast<size_t>(CM_NET_OUT_SIZE - conn->out_count);
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, room));
        size_t got = 0;
        if (os.file_read(descriptor, conn->out_buf + conn->out_count, wanted, &got) != 0) return false;
        conn->out_count += static_cast<int32_t>(got);
        if (got < std::min(wanted, kEndOfFile)) break;
        left -= got;
    }
    return true;
}

// Plain: through the buffer what fits into it together with the header, the rest by the system.
bool put_file_plain(cm_net_state *state, cm_conn *conn, int32_t descriptor, Range range) {
    const auto room = static_cast<uint64_t>(CM_NET_OUT_SIZE - conn->out_count);
    if (range.length <= room || has_flag(conn, CM_CONN_TLS | CM_CONN_FILE))
        return put_file_buffered(state, conn, descriptor, range);
    platform::FileStatus status;
    if (os.file_status(descriptor, &status) != 0) return false;
    const uint64_t there = status.size > range.offset ? status.size - range.offset : 0;
    // Some files of the system's own say 0 and still have something to read.
    if (status.size == 0 || there <= room) return put_file_buffered(state, conn, descriptor, range);
    const uint64_t length = std::min(range.length, there);
    return flush(state, conn, true) &&
           send_file(state, conn, descriptor, static_cast<int64_t>(range.offset), static_cast<int64_t>(length));
}

// Out of the cache: header and file leave together.
bool put_cached(cm_net_state *state, cm_conn *conn, std::string_view bytes, bool plain) {
    if (!plain) return put_pieces(state, conn, bytes);
    Batch batch(state, conn);
    batch.buffered();
    batch.body(bytes);
    return batch.send();
}

bool put_file(cm_net_state *state, cm_conn *conn, const char *path, const Range &range, bool by_cache) {
    {
        const OpenFile file(state->ctx, path, by_cache);
        if (!file) return false;
        const bool plain = !has_flag(conn, CM_CONN_CHUNKED | CM_CONN_GZIP) && !packets_traced(state);
        const bool sent = file->kind == kCached ? put_cached(state, conn, cached_range(file.get(), range), plain)
                          : plain               ? put_file_plain(state, conn, file->descriptor, range)
                                                : put_file_pieces(state, conn, file->descriptor, range);
        if (!sent) return false;
    }
    return put_data(state, conn, {}, true);
}

}  // namespace
}  // namespace cm::net

using namespace cm::net;

int16_t CM_CALL cm_net_putfile(cm_net_state *state, cm_conn *conn, const char *path, int32_t first, int32_t last,
                               int16_t by_cache) {
    if (state == nullptr || conn == nullptr || path == nullptr) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    return put_file(state, conn, path, make_range(first, last), by_cache != 0) ? 1 : 0;
}

int16_t CM_CALL cm_net_fopen(cm_net_state *state, const char *path, cm_conn **out_conn) {
    if (out_conn != nullptr) *out_conn = nullptr;
    if (state == nullptr || path == nullptr || out_conn == nullptr) return 0;
    PendingHandle conn(state, take_handle(state, cm::load_relaxed(state->read_timeout), false, kStreamAlert));
    if (!conn) return 0;
    conn->flags = CM_CONN_FILE;
    cm_strncpy(conn->peer_text, "127.0.0.1", sizeof conn->peer_text);
    conn->peer_host_len = cm_strncpy(conn->peer_host, "file-stream", sizeof conn->peer_host);
    if (cm_fopen(state->ctx, path, CM_O_RDWR | CM_O_CREAT | CM_O_TRUNC | CM_O_BINARY, &conn->file) == 0) return 0;
    *out_conn = conn.release();
    return 1;
}
