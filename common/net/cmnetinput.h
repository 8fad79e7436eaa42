// The input buffer of a connection: in_buf[in_index, in_count) is what has been received and not yet read; both indices
// go back to 0 whenever they meet.
#pragma once

#include <stddef.h>
#include <string.h>

#include <span>

#include "net/cmnet.h"

namespace cm::net {

inline std::span<const unsigned char> unread(const cm_conn *conn) {
    return {conn->in_buf + conn->in_index, static_cast<size_t>(conn->in_count - conn->in_index)};
}

inline void consume(cm_conn *conn, size_t count) {
    conn->in_index += static_cast<int32_t>(count);
    if (conn->in_index == conn->in_count) conn->in_index = conn->in_count = 0;
}

// Takes what is unread, up to `size` bytes; a null buffer drops them.
inline size_t take_unread(cm_conn *conn, void *buffer, size_t size) {
    const std::span<const unsigned char> bytes = unread(conn);
    const size_t count = size < bytes.size() ? size : bytes.size();
    if (count > 0 && buffer != nullptr) memcpy(buffer, bytes.data(), count);
    consume(conn, count);
    return count;
}

// Receives into the empty buffer.  False: failed.  Nothing received: the peer has closed.
inline bool refill(cm_net_state *state, cm_conn *conn, int32_t *got) {
    conn->in_index = conn->in_count = 0;
    if (!receive(state, conn, conn->in_buf, CM_NET_IN_SIZE, got)) return false;
    conn->in_count = *got;
    return true;
}

}  // namespace cm::net
