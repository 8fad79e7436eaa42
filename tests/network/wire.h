// A connection without a network: what arrives is scripted, what is sent is kept, send by send.
#pragma once

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/cmnetbody.h"
#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::test {

class Wire {
public:
    Wire() : saved_(platform::os) {
        current_ = this;
        state->read_timeout = 5;
        state->wake[0] = state->wake[1] = state->stop[0] = state->stop[1] = platform::kNoSocket;
        conn->sock = &cell_;
        conn->phase = net::kOpenPhase;
        conn->read_timeout = 5;
        strcpy(conn->peer_text, "127.0.0.9");
        platform::os.socket_send = send;
        platform::os.socket_send_file = send_file;
        platform::os.socket_receive = receive;
        platform::os.socket_wait = wait;
    }
    ~Wire() {
        net::release_body(conn.get());
        // Its own entries only: the scheduler's thread of a started library reads the others meanwhile.
        platform::os.socket_send = saved_.socket_send;
        platform::os.socket_send_file = saved_.socket_send_file;
        platform::os.socket_receive = saved_.socket_receive;
        platform::os.socket_wait = saved_.socket_wait;
        current_ = nullptr;
    }
    Wire(const Wire &) = delete;
    Wire &operator=(const Wire &) = delete;

    operator cm_net_state *() const { return state.get(); }
    operator cm_conn *() const { return conn.get(); }

    bool closed() const { return (conn->flags & CM_CONN_CLOSED) != 0; }
    int16_t put(std::string_view data, int16_t final_piece = 0) {
        return cm_net_putdata(*this, *this, data.data(), static_cast<int32_t>(data.size()), final_piece);
    }

    std::unique_ptr<cm_net_state> state = std::make_unique<cm_net_state>();
    std::unique_ptr<cm_conn> conn = std::make_unique<cm_conn>();

    std::deque<std::string> arriving;  // one receive each; afterwards the peer has closed
    bool reset = false;                // ... or has reset the connection
    std::string sent;
    std::vector<size_t> sends;   // bytes of each send
    std::vector<bool> more;      // whether it said that more follows
    int file_sends = 0;          // of `sends`, by the file-to-socket call
    bool no_file_sends = false;  // there is no such call
    size_t room = SIZE_MAX;      // what can be sent until the peer is gone

private:
    static constexpr cm_socket kSocket = 123456;

    platform::Error keep(std::string_view bytes, bool more_follows) {
        if (bytes.size() > room) return CM_ECONNRESET;
        room -= bytes.size();
        sent += bytes;
        sends.push_back(bytes.size());
        more.push_back(more_follows);
        return 0;
    }

    static platform::Error send(cm_socket, const platform::Slice *slices, int32_t count, bool more, size_t *out_count) {
        std::string bytes;
        for (int32_t i = 0; i < count; i++) bytes.append(static_cast<const char *>(slices[i].data), slices[i].length);
        *out_count = bytes.size();
        return current_->keep(bytes, more);
    }

    static platform::Error send_file(cm_socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count) {
        if (current_->no_file_sends) return CM_EINVAL;
        std::string bytes(std::min<size_t>(count, 70000), '\0');  // less than asked, as the system's call may
        int64_t position = 0;
        size_t got = 0;
        platform::kSystem.file_seek(descriptor, offset, CM_SEEK_START, &position);
        platform::kSystem.file_read(descriptor, bytes.data(), bytes.size(), &got);
        bytes.resize(got);
        current_->file_sends++;
        *out_count = got;
        return current_->keep(bytes, false);
    }

    static platform::Error receive(cm_socket, void *buffer, size_t size, bool, size_t *out_count) {
        Wire &wire = *current_;
        *out_count = 0;
        if (wire.arriving.empty()) return wire.reset ? CM_ECONNRESET : 0;
        std::string &piece = wire.arriving.front();
        *out_count = std::min(size, piece.size());
        memcpy(buffer, piece.data(), *out_count);
        piece.erase(0, *out_count);
        if (piece.empty()) wire.arriving.pop_front();
        return 0;
    }

    static platform::Error wait(platform::WaitItem *items, int32_t count, int32_t, int32_t *out_ready) {
        *out_ready = 0;
        for (int32_t i = 0; i < count; i++) {
            items[i].ready = items[i].socket == kSocket;
            items[i].failed = false;
            *out_ready += items[i].ready;
        }
        return 0;
    }

    inline static Wire *current_ = nullptr;
    platform::Table saved_;
    cm_socket cell_ = kSocket;
};

// The chunks of a body, the last one's absence or anything after it included as "?".
inline std::vector<std::string> chunks_of(std::string_view wire) {
    std::vector<std::string> chunks;
    for (;;) {
        const size_t end = wire.find("\r\n");
        if (end == std::string_view::npos || end == 0) break;
        size_t size = 0;
        for (const char c : wire.substr(0, end)) {
            const size_t digit = std::string_view("0123456789abcdef").find(c);
            if (digit == std::string_view::npos) return {"?"};
            size = size * 16 + digit;
        }
        wire.remove_prefix(end + 2);
        if (wire.size() < size + 2 || wire.substr(size, 2) != "\r\n") break;
        if (size > 0) chunks.emplace_back(wire.substr(0, size));
        wire.remove_prefix(size + 2);
        if (size == 0 && wire.empty()) return chunks;
        if (size == 0) break;
    }
    chunks.push_back("?");
    return chunks;
}

inline std::string joined(const std::vector<std::string> &parts) {
    std::string text;
    for (const std::string &part : parts) text += part;
    return text;
}

// What a gzip stream holds, checksum and length checked; "?" when it is not one whole stream.
inline std::string gunzip(std::string_view bytes) {
    z_stream stream = {};
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) return "?";
    std::string text, buffer(65536, '\0');
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    int result = Z_OK;
    while (result == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef *>(buffer.data());
        stream.avail_out = static_cast<uInt>(buffer.size());
        result = inflate(&stream, Z_NO_FLUSH);
        text.append(buffer.data(), buffer.size() - stream.avail_out);
    }
    const bool whole = result == Z_STREAM_END && stream.avail_in == 0;
    inflateEnd(&stream);
    return whole ? text : "?";
}

// Bytes that do not repeat (`noise`: and cannot be compressed).
inline std::string sample(size_t size, bool noise = false) {
    std::string text(size, '\0');
    uint32_t seed = 12345;
    for (size_t i = 0; i < size; i++) {
        seed = seed * 1664525 + 1013904223;
        text[i] = static_cast<char>(noise ? seed >> 24 : "etaoin shrdlu\n"[(seed >> 24) % 14]);
    }
    return text;
}

}  // namespace cm::test
