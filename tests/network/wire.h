// A connection without a network: what arrives is scripted, what is sent is kept, send by send.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "net/cmnetbody.h"
#include "support/data.h"
#include "support/failures.h"
#include "support/replace.h"

namespace cm::test {

using platform::Error;
using platform::Table;

class Wire {
public:
    explicit Wire(uint32_t flags = 0) {
        state->wake[0] = state->wake[1] = state->stop[0] = state->stop[1] = platform::kNoSocket;
        state->read_timeout = conn->read_timeout = 5;
        conn->sock = &cell_;
        conn->phase = net::kOpenPhase;
        conn->flags = flags;
        strcpy(conn->peer_text, "127.0.0.9");
    }
    ~Wire() { net::release_body(conn.get()); }

    operator cm_net_state *() const { return state.get(); }
    operator cm_conn *() const { return conn.get(); }

    bool closed() const { return (conn->flags & CM_CONN_CLOSED) != 0; }
    int16_t put(std::string_view data, int16_t final_piece = 0) {
        return cm_net_putdata(*this, *this, data.data(), static_cast<int32_t>(data.size()), final_piece);
    }
    int16_t end() { return cm_net_enddata(*this, *this); }

    std::unique_ptr<cm_net_state> state = std::make_unique<cm_net_state>();
    std::unique_ptr<cm_conn> conn = std::make_unique<cm_conn>();

    std::deque<std::string> arriving;  // one receive each; afterwards the peer has closed
    bool reset = false;                // ... or has reset the connection
    std::string sent;
    std::vector<size_t> sends;   // bytes of each send
    std::vector<bool> more;      // whether it said that more follows
    bool no_file_sends = false;  // there is no such call
    size_t room = SIZE_MAX;      // what can be sent until the peer is gone

private:
    Error keep(std::string_view bytes, bool more_follows) {
        if (bytes.size() > room) return CM_ECONNRESET;
        room -= bytes.size();
        sent += bytes;
        sends.push_back(bytes.size());
        more.push_back(more_follows);
        return 0;
    }

    cm_socket cell_ = 123456;
    Replace<&Table::socket_send> send_{
        [this](cm_socket, const platform::Slice *slices, int32_t count, bool more_follows, size_t *out_count) {
            std::string bytes;
            for (int32_t i = 0; i < count; i++)
                bytes.append(static_cast<const char *>(slices[i].data), slices[i].length);
            *out_count = bytes.size();
            return keep(bytes, more_follows);
        }};
    Replace<&Table::socket_send_file> send_file_{
        [this](cm_socket, int32_t descriptor, int64_t offset, size_t count, size_t *out_count) -> Error {
            if (no_file_sends) return CM_EINVAL;
            std::string bytes(std::min<size_t>(count, 70000), '\0');  // less than asked, as the system's call may
            int64_t position = 0;
            platform::kSystem.file_seek(descriptor, offset, CM_SEEK_START, &position);
            platform::kSystem.file_read(descriptor, bytes.data(), bytes.size(), out_count);
            return keep({bytes.data(), *out_count}, false);
        }};
    Replace<&Table::socket_receive> receive_{
        [this](cm_socket, void *buffer, size_t size, bool, size_t *out_count) -> Error {
            *out_count = 0;
            if (arriving.empty()) return reset ? CM_ECONNRESET : 0;
            std::string &piece = arriving.front();
            *out_count = std::min(size, piece.size());
            memcpy(buffer, piece.data(), *out_count);
            piece.erase(0, *out_count);
            if (piece.empty()) arriving.pop_front();
            return 0;
        }};
    Replace<&Table::socket_wait> wait_{
        [this](platform::WaitItem *items, int32_t count, int32_t, int32_t *out_ready) -> Error {
            *out_ready = 0;
            for (int32_t i = 0; i < count; i++) *out_ready += items[i].ready = items[i].socket == cell_;
            return 0;
        }};
};

inline std::string chunk(std::string_view bytes) {
    char head[20];
    return std::string(head, static_cast<size_t>(snprintf(head, sizeof head, "%zx\r\n", bytes.size()))) +
           std::string(bytes) + "\r\n";
}

// The chunks of a body; the last one's absence or anything after it is "?".
inline std::vector<std::string> chunks_of(std::string_view wire) {
    std::vector<std::string> chunks;
    while (const size_t size = strtoul(std::string(wire.substr(0, 8)).c_str(), nullptr, 16)) {
        const std::string_view bytes = wire.substr(wire.find('\n') + 1, size);
        const std::string whole = chunk(bytes);
        if (!wire.starts_with(whole)) break;
        chunks.emplace_back(bytes);
        wire.remove_prefix(whole.size());
    }
    if (wire != "0\r\n\r\n") chunks.push_back("?");
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
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    if (inflateInit2(&stream, 16 + MAX_WBITS) != Z_OK) return "?";
    std::string text;
    char piece[16384];
    int result = Z_OK;
    while (result == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef *>(piece);
        stream.avail_out = sizeof piece;
        result = inflate(&stream, Z_NO_FLUSH);
        text.append(piece, sizeof piece - stream.avail_out);
    }
    inflateEnd(&stream);
    return result == Z_STREAM_END && stream.avail_in == 0 ? text : "?";
}

// Bytes that do not repeat (`noise`: and cannot be compressed).
inline std::string sample(size_t size, bool noise = false) {
    std::string text(size, '\0');
    uint32_t seed = 12345;
    for (char &c : text) {
        seed = seed * 1664525 + 1013904223;
        c = static_cast<char>(noise ? seed >> 24 : "etaoin shrdlu\n"[(seed >> 24) % 14]);
    }
    return text;
}

}  // namespace cm::test
