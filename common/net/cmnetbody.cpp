// Bodies of replies: the output buffer of a connection and the two encodings that HTTP lays over it.
//
// out_buf[0, out_count) waits to be sent.  With CM_CONN_CHUNKED whatever is sent at once is one chunk (RFC 9112, 7.1);
// one full buffer is one chunk of 16000 bytes.  With CM_CONN_GZIP (RFC 1952) the caller's bytes are staged until 15936
// are together, so that small writes do not each reach the compressor, and the compressor writes straight into out_buf:
// out_count is then what it has produced.  The checksum runs along, over the same 15936 bytes.
#include "net/cmnetbody.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "core/relaxed.h"

namespace cm::net {
namespace {

using platform::os;

constexpr std::string_view kLineEnd = "\r\n", kLastChunk = "0\r\n\r\n";
constexpr size_t kDirect = 15990;  // a longer piece passes the buffer by
constexpr size_t kSpare = 50;      // what a buffered piece leaves free

// RFC 1952, 2.3: magic, deflate, no flags, no time, no extra flags, operating system 11.
constexpr unsigned char kGzipHeader[10] = {0x1F, 0x8B, 8, 0, 0, 0, 0, 0, 0, 11};
constexpr int kRawWindow = -15, kMemoryLevel = 8;
constexpr char kZlibInterface[] = "1.1.4";  // the oldest one that will do

std::string_view as_text(const unsigned char *bytes, size_t length) {
    return {reinterpret_cast<const char *>(bytes), length};
}

void *allocate_items(void *, unsigned items, unsigned size) {
    return os.allocate(static_cast<size_t>(items) * size);
}

void release_block(void *, void *block) {
    os.release(block);
}

// A compressor and its staging buffer, either of which may be missing.
class Compressor {
public:
    // Takes them off the connection.
    explicit Compressor(cm_conn *conn) : stream_(static_cast<z_stream *>(conn->gz)), stage_(conn->gz_stage) {
        conn->gz = nullptr;
        conn->gz_stage = nullptr;
        conn->gz_staged = 0;
        conn->gz_crc = 0;
    }
    Compressor(const Compressor &) = delete;
    Compressor &operator=(const Compressor &) = delete;
    ~Compressor() { end(); }

    z_stream *operator->() const { return stream_; }
    z_stream *get() const { return stream_; }
    unsigned char *stage() const { return stage_; }

    int end() {
        const int result = stream_ != nullptr ? deflateEnd(stream_) : Z_OK;
        os.release(stream_);
        os.release(stage_);
        stream_ = nullptr;
        stage_ = nullptr;
        return result;
    }

private:
    z_stream *stream_;
    unsigned char *stage_;
};

void give_room(z_stream *stream, cm_conn *conn) {
    stream->next_out = conn->out_buf + conn->out_count;
    stream->avail_out = static_cast<uInt>(CM_NET_OUT_SIZE - conn->out_count);
}

bool make_stream(cm_conn *conn) {
    conn->gz_stage = static_cast<unsigned char *>(os.allocate(CM_NET_STAGE_ALLOC));
    auto *stream = static_cast<z_stream *>(os.allocate_zeroed(sizeof(z_stream)));
    if (stream == nullptr) return false;
    stream->zalloc = allocate_items;
    stream->zfree = release_block;
    if (conn->gz_stage == nullptr ||
        deflateInit2_(stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, kRawWindow, kMemoryLevel, Z_DEFAULT_STRATEGY,
                      kZlibInterface, static_cast<int>(sizeof(z_stream))) != Z_OK) {
        os.release(stream);
        return false;
    }
    conn->gz = stream;
    return true;
}

bool start_gzip(cm_net_state *state, cm_conn *conn) {
    if (conn->out_count > 0) {  // a reply header that was not flushed: it is neither compressed nor in a chunk
        Batch batch(state, conn);
        batch.piece(as_text(conn->out_buf, static_cast<size_t>(conn->out_count)));
        conn->out_count = 0;
        if (!batch.send(true)) return false;
    }
    if (!make_stream(conn)) {
        release_body(conn);
        mark_closed(conn);
        report(state->ctx, CM_ERROR, "ZLIB deflateInit2() failure.");
        return false;
    }
    conn->gz_staged = 0;
    conn->gz_crc = static_cast<uint32_t>(crc32(0, Z_NULL, 0));
    memcpy(conn->out_buf, kGzipHeader, sizeof kGzipHeader);
    conn->out_count = sizeof kGzipHeader;
    give_room(static_cast<z_stream *>(conn->gz), conn);
    return true;
}

// One step of the compressor into the output buffer, which is sent when it is full.
bool deflate_step(cm_net_state *state, cm_conn *conn, z_stream *stream, int flush, int *result) {
    *result = deflate(stream, flush);
    conn->out_count = CM_NET_OUT_SIZE - static_cast<int32_t>(stream->avail_out);
    if (stream->avail_out > 0) return true;
    Batch batch(state, conn);
    batch.buffered();
    give_room(stream, conn);
    return batch.send();
}

bool compress(cm_net_state *state, cm_conn *conn, std::string_view bytes) {
    auto *stream = static_cast<z_stream *>(conn->gz);
    const auto *data = reinterpret_cast<const Bytef *>(bytes.data());
    const uInt size = static_cast<uInt>(bytes.size());
    conn->gz_crc = static_cast<uint32_t>(crc32(conn->gz_crc, data, size));
    stream->next_in = const_cast<Bytef *>(data);
    stream->avail_in = size;
    while (stream->avail_in > 0) {
        int result = Z_OK;
        if (!deflate_step(state, conn, stream, Z_NO_FLUSH, &result)) return false;
        if (result != Z_OK) {
            mark_closed(conn);
            report(state->ctx, CM_ERROR, "ZLIB deflate error on stream: %ld", static_cast<long>(result));
            return false;
        }
    }
    return true;
}

bool put_gzip(cm_net_state *state, cm_conn *conn, std::string_view data) {
    if (conn->gz == nullptr && !start_gzip(state, conn)) return false;
    while (!data.empty()) {
        // A whole stage in the caller's memory need not be staged: the compressor copies it into its window anyway.
        if (conn->gz_staged == 0 && data.size() >= CM_NET_STAGE_USED) {
            if (!compress(state, conn, {data.data(), CM_NET_STAGE_USED})) return false;
            data.remove_prefix(CM_NET_STAGE_USED);
            continue;
        }
        const size_t count = std::min(data.size(), static_cast<size_t>(CM_NET_STAGE_USED - conn->gz_staged));
        memcpy(conn->gz_stage + conn->gz_staged, data.data(), count);
        conn->gz_staged += static_cast<int32_t>(count);
        data.remove_prefix(count);
        if (conn->gz_staged < CM_NET_STAGE_USED) break;
        conn->gz_staged = 0;
        if (!compress(state, conn, as_text(conn->gz_stage, CM_NET_STAGE_USED))) return false;
    }
    return true;
}

bool put_buffered(cm_net_state *state, cm_conn *conn, std::string_view data, bool final_piece) {
    if (data.size() > kDirect) {
        Batch batch(state, conn);
        batch.buffered();
        batch.body(data);
        return batch.send();
    }
    const auto fits = [&] { return data.size() + kSpare + static_cast<size_t>(conn->out_count) <= CM_NET_OUT_SIZE; };
    const auto flush = [&] {
        Batch batch(state, conn);
        batch.buffered();
        return batch.send();
    };
    if (!fits() && !flush()) return false;
    if (!data.empty()) memcpy(conn->out_buf + conn->out_count, data.data(), data.size());
    conn->out_count += static_cast<int32_t>(data.size());
    return !final_piece || flush();
}

// What is staged and all that the compressor still holds; the last of it stays in the output buffer.
bool finish_gzip(cm_net_state *state, cm_conn *conn, Compressor &compressor, uInt staged) {
    compressor->next_in = compressor.stage();
    compressor->avail_in = staged;
    int result = Z_OK;
    while (result == Z_OK)
        if (!deflate_step(state, conn, compressor.get(), Z_FINISH, &result)) return false;
    if (result == Z_STREAM_END) return true;
    mark_closed(conn);
    report(state->ctx, CM_ERROR, "ZLIB deflate error (%ld)", static_cast<long>(result));
    return false;
}

void store_little_endian(unsigned char *out, uint32_t value) {
    for (int i = 0; i < 4; i++) out[i] = static_cast<unsigned char>(value >> (8 * i));
}

// RFC 1952, 2.3.1: checksum and length modulo 2^32.
using Trailer = std::array<unsigned char, 8>;

bool end_gzip(cm_net_state *state, cm_conn *conn, Batch &batch, Trailer &trailer) {
    if (conn->gz == nullptr && !start_gzip(state, conn)) return false;
    const auto staged = static_cast<uInt>(conn->gz_staged);
    store_little_endian(trailer.data(), static_cast<uint32_t>(crc32(conn->gz_crc, conn->gz_stage, staged)));
    Compressor compressor(conn);
    clear_bits_relaxed(conn->flags, uint32_t{CM_CONN_GZIP});
    if (!finish_gzip(state, conn, compressor, staged)) return false;
    store_little_endian(trailer.data() + 4, static_cast<uint32_t>(compressor->total_in));
    batch.buffered();
    const int result = compressor.end();
    if (result != Z_OK) report(state->ctx, CM_ERROR, "ZLIB deflateEnd error (%ld)", static_cast<long>(result));
    batch.body(as_text(trailer.data(), trailer.size()));
    return true;
}

bool end_data(cm_net_state *state, cm_conn *conn) {
    Batch batch(state, conn);
    Trailer trailer;
    if (has_flag(conn, CM_CONN_GZIP)) {
        if (!end_gzip(state, conn, batch, trailer)) return false;
    } else {
        batch.buffered();
    }
    if (has_flag(conn, CM_CONN_CHUNKED)) {
        clear_bits_relaxed(conn->flags, uint32_t{CM_CONN_CHUNKED});
        batch.piece(kLastChunk);
    }
    return batch.send();
}

}  // namespace

void release_body(cm_conn *conn) {
    Compressor(conn).end();
}

std::string_view ChunkHead::set(size_t size) {
    size_t start = text_.size();
    text_[--start] = '\n';
    text_[--start] = '\r';
    do {
        text_[--start] = "0123456789abcdef"[size % 16];
        size /= 16;
    } while (size > 0);
    return {text_.data() + start, text_.size() - start};
}

Batch::Batch(cm_net_state *state, cm_conn *conn) : state_(state), conn_(conn), apart_(packets_traced(state)) {}

void Batch::piece(std::string_view bytes, std::string_view tail) {
    slices_[static_cast<size_t>(count_++)] = {bytes.data(), bytes.size()};
    if (!tail.empty()) slices_[static_cast<size_t>(count_++)] = {tail.data(), tail.size()};
    if (apart_) send();
}

void Batch::body(std::string_view bytes) {
    if (bytes.empty()) return;  // an empty chunk would end the body
    const bool chunked = has_flag(conn_, CM_CONN_CHUNKED);
    if (chunked) piece(heads_[static_cast<size_t>(heads_used_++)].set(bytes.size()));
    piece(bytes, chunked ? kLineEnd : std::string_view());
}

void Batch::buffered() {
    body(as_text(conn_->out_buf, static_cast<size_t>(conn_->out_count)));
    conn_->out_count = 0;
}

bool Batch::send(bool more_follows) {
    if (count_ > 0 && !failed_) failed_ = !send_slices(state_, conn_, slices_.data(), count_, more_follows);
    count_ = 0;
    return !failed_;
}

bool put_data(cm_net_state *state, cm_conn *conn, std::string_view data, bool final_piece) {
    // Compressed input is staged until the end of the body, whatever the caller calls final.
    if (has_flag(conn, CM_CONN_GZIP)) return put_gzip(state, conn, data);
    return put_buffered(state, conn, data, final_piece);
}

}  // namespace cm::net

using namespace cm::net;

int16_t CM_CALL cm_net_putdata(cm_net_state *state, cm_conn *conn, const void *data, int32_t length,
                               int16_t final_piece) {
    if (state == nullptr || conn == nullptr) return 0;
    if (data == nullptr && (length > 0 || length == CM_LEN_TEXT)) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    return put_data(state, conn, cm::view(static_cast<const char *>(data), length), final_piece != 0) ? 1 : 0;
}

int16_t CM_CALL cm_net_enddata(cm_net_state *state, cm_conn *conn) {
    if (state == nullptr || conn == nullptr) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    return end_data(state, conn) ? 1 : 0;
}
