// Bodies of replies: what cmnetfile.cpp and the closing of a connection need of the output buffer.
#pragma once

#include <stddef.h>

#include <array>
#include <string_view>

#include "net/cmnet.h"

namespace cm::net {

// Frees the compressor of a body that was never ended, if there is one.
void release_body(cm_conn *conn);

// The size line in front of a chunk: hexadecimal, CR LF.
class ChunkHead {
public:
    std::string_view set(size_t size);

private:
    std::array<char, 20> text_;
};

// The sends of one step of a body.  Each piece is a send of its own while packets are traced, since the trace has a
// line per send; otherwise everything that was added leaves together when the step is done, the same bytes in one
// system call. The bytes added must stay where they are until then.
class Batch {
public:
    Batch(cm_net_state *state, cm_conn *conn);

    void piece(std::string_view bytes, std::string_view tail = {});
    void body(std::string_view bytes);     // one chunk when the connection writes chunks, else as it is
    void buffered();                       // what the output buffer holds, as body; it counts as gone
    bool send(bool more_follows = false);  // false: one of the sends failed

private:
    cm_net_state *const state_;
    cm_conn *const conn_;
    const bool apart_;
    bool failed_ = false;
    int32_t count_ = 0, heads_used_ = 0;
    std::array<platform::Slice, 8> slices_;  // at most the rest, the trailer and the last chunk of a compressed body
    std::array<ChunkHead, 2> heads_;
};

// cm_net_putdata without its checks.
bool put_data(cm_net_state *state, cm_conn *conn, std::string_view data, bool final_piece);

}  // namespace cm::net
