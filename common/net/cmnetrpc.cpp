// Buffered input of a connection: tokens, raw bytes, and a look at what comes next.
//
// Everything comes in through `receive`, at most one buffer at a time, so that what has arrived together is read
// together whatever the calls in between.
#include <algorithm>
#include <cstring>
#include <span>

#include "core/cmstring.h"
#include "net/cmnetinput.h"

namespace cm::net {
namespace {

// A token being gathered.  A line ends at LF; CR is never part of a token, which also makes a CR LF that arrives in two
// pieces one line end.  The delimiter is looked at first and may be CR itself; 0 is none, and NUL then an ordinary
// byte.
class Token {
public:
    Token(char delimiter, bool truncate, char *text, int32_t maximum)
        : delimiter_(static_cast<unsigned char>(delimiter)), truncate_(truncate), text_(text), maximum_(maximum) {}

    enum class Result { kEnd, kMore, kTooLong };

    // Takes from `input` what belongs to the token; `*used` bytes of it are consumed.
    Result take(std::span<const unsigned char> input, size_t *used) {
        size_t at = 0;
        while (at < input.size()) {
            size_t run = at;
            while (run < input.size() && !special(input[run])) run++;
            if (!append(input.subspan(at, run - at))) return Result::kTooLong;
            *used = at = run;
            if (at == input.size()) break;
            *used = ++at;
            if (input[at - 1] == '\n' || ends(input[at - 1])) return Result::kEnd;
        }
        return Result::kMore;
    }

    int32_t length() const { return length_; }

private:
    bool ends(unsigned char byte) const { return delimiter_ != 0 && byte == delimiter_; }
    bool special(unsigned char byte) const { return byte == '\n' || byte == '\r' || ends(byte); }

    bool append(std::span<const unsigned char> run) {
        const size_t room = static_cast<size_t>(maximum_ - length_);
        if (run.size() > room && !truncate_) return false;
        const size_t kept = std::min(run.size(), room);
        if (kept > 0) memcpy(text_ + length_, run.data(), kept);
        length_ += static_cast<int32_t>(kept);
        return true;
    }

    const unsigned char delimiter_;
    const bool truncate_;
    char *const text_;
    const int32_t maximum_;
    int32_t length_ = 0;
};

bool read_token(cm_net_state *state, cm_conn *conn, Token &token) {
    for (;;) {
        size_t used = 0;
        const Token::Result result = token.take(unread(conn), &used);
        consume(conn, used);
        if (result != Token::Result::kMore) return result == Token::Result::kEnd;
        int32_t got = 0;
        if (!refill(state, conn, &got)) return false;
        if (got == 0) return true;  // the peer has closed: what came is the token
    }
}

int32_t take_buffered(cm_conn *conn, void *buffer, int32_t size) {
    return static_cast<int32_t>(take_unread(conn, buffer, static_cast<size_t>(size)));
}

bool read_bytes(cm_net_state *state, cm_conn *conn, bool fill, unsigned char *buffer, int32_t size, int32_t *count) {
    *count = take_buffered(conn, buffer, size);
    while (*count < size && (*count == 0 || fill)) {
        const int32_t wanted = size - *count;
        int32_t got = 0;
        if (wanted >= CM_NET_IN_SIZE) {  // what a whole buffer would bring fits: no need to pass through it
            // One receive is one line of the trace, so it is larger only where there is none.
            const int32_t most = fill && !packets_traced(state) ? wanted : CM_NET_IN_SIZE;
            if (!receive(state, conn, buffer + *count, most, &got)) return false;
            *count += got;
        } else {
            if (!refill(state, conn, &got)) return false;
            *count += take_buffered(conn, buffer + *count, wanted);
        }
        if (got == 0 || !fill) break;
    }
    return true;
}

// Receives behind what is unread until `wanted` bytes are there.  False: failed.  The peer may close before they are.
bool gather(cm_net_state *state, cm_conn *conn, size_t wanted) {
    if (wanted > unread(conn).size() && conn->in_index > 0) {  // what is behind may be too little
        memmove(conn->in_buf, conn->in_buf + conn->in_index, unread(conn).size());
        conn->in_count -= conn->in_index;
        conn->in_index = 0;
    }
    while (unread(conn).size() < wanted) {
        int32_t got = 0;
        if (!receive(state, conn, conn->in_buf + conn->in_count, CM_NET_IN_SIZE - conn->in_count, &got)) return false;
        if (got == 0) break;
        conn->in_count += got;
    }
    return true;
}

bool comes_next(const cm_conn *conn, std::string_view text) {
    const std::span<const unsigned char> bytes = unread(conn);
    return bytes.size() >= text.size() && (text.empty() || memcmp(bytes.data(), text.data(), text.size()) == 0);
}

}  // namespace
}  // namespace cm::net

using namespace cm::net;

int16_t CM_CALL cm_net_getarg(cm_net_state *state, cm_conn *conn, char delimiter, int16_t truncate, char *out_text,
                              int32_t maximum, int32_t *out_length) {
    if (out_length != nullptr) *out_length = 0;
    if (out_text == nullptr || maximum < 0) return 0;
    out_text[0] = '\0';
    if (state == nullptr || conn == nullptr) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    Token token(delimiter, truncate != 0, out_text, maximum);
    const bool done = read_token(state, conn, token);
    out_text[token.length()] = '\0';
    if (out_length != nullptr) *out_length = token.length();
    return done ? 1 : 0;
}

int16_t CM_CALL cm_net_read(cm_net_state *state, cm_conn *conn, int16_t fill, void *buffer, int32_t size,
                            int32_t *out_count) {
    if (out_count != nullptr) *out_count = 0;
    if (state == nullptr || conn == nullptr || buffer == nullptr) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    int32_t count = 0;
    const bool done =
        read_bytes(state, conn, fill != 0, static_cast<unsigned char *>(buffer), std::max(size, 0), &count);
    if (out_count != nullptr) *out_count = count;
    return done ? 1 : 0;
}

int16_t CM_CALL cm_net_peek(cm_net_state *state, cm_conn *conn, const char *text, int32_t length, int16_t *out_match) {
    if (out_match != nullptr) *out_match = 0;
    if (state == nullptr || conn == nullptr || (text == nullptr && (length > 0 || length == CM_LEN_TEXT))) return 0;
    const Call call(state, conn);
    if (!call.open() || has_flag(conn, CM_CONN_CLOSED)) return 0;
    const std::string_view wanted = cm::view(text, length);
    // Kept: together with what is unread, though that may be what is asked for.
    if (unread(conn).size() + wanted.size() > CM_NET_IN_SIZE || !gather(state, conn, wanted.size())) return 0;
    if (out_match != nullptr) *out_match = comes_next(conn, wanted) ? 1 : 0;
    return 1;
}
