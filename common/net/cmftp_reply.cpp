// Replies (RFC 959, 4.2): three digits, then a blank, or "-" when more lines follow up to one with the same digits and
// a blank.
#include <string.h>

#include <algorithm>

#include "core/cmstring.h"
#include "net/cmftp.h"
#include "net/cmnet.h"

namespace cm::ftp {
namespace {

constexpr int32_t kLineSize = 1024;      // what is kept of a line
constexpr int32_t kMostLines = 10000;    // of one reply
constexpr int32_t kMostBytes = 1 << 20;  // likewise

// The reply under way, line by line.
class Reply {
public:
    explicit Reply(const cm_ftp_session *session) : net_(session->net), control_(session->control) {}

    // Reads the next line; a longer one is cut, as cm_net_getarg does it, but not even a line that never ends takes
    // more than the reply may have.  False: there is none, or the reply has become too long.
    bool next_line();

    const char *text() const { return text_; }
    int32_t length() const { return length_; }
    char *printable();

    bool has_status() const { return length_ >= 3 && is_digit(text_[0]) && is_digit(text_[1]) && is_digit(text_[2]); }
    int status() const { return (text_[0] - '0') * 100 + (text_[1] - '0') * 10 + (text_[2] - '0'); }
    bool goes_on() const { return has_status() && text_[3] == '-'; }

    // Reads on to the closing line; each line is told to `listener` when there is one.
    bool read_rest(const cm_ftp_session *listener);

private:
    bool take_buffered();

    cm_net_state *const net_;
    cm_conn *const control_;
    int32_t lines_left_ = kMostLines, bytes_left_ = kMostBytes;
    int32_t length_ = 0;
    char text_[kLineSize + 1];
};

// Takes what is buffered up to and with the line end; true when that was there.
bool Reply::take_buffered() {
    bool ended = false;
    while (!ended && control_->in_index < control_->in_count) {
        const char byte = static_cast<char>(control_->in_buf[control_->in_index++]);
        ended = byte == '\n';
        if (!ended && byte != '\r' && length_ < kLineSize) text_[length_++] = byte;
    }
    if (control_->in_index == control_->in_count) control_->in_index = control_->in_count = 0;
    return ended;
}

bool Reply::next_line() {
    length_ = 0;
    text_[0] = '\0';
    if (control_ == nullptr || lines_left_-- <= 0) return false;
    const net::Call call(net_, control_);
    if (!call.open() || net::has_flag(control_, CM_CONN_CLOSED)) return false;
    bool at_end = false;
    while (!at_end && !take_buffered()) {
        int32_t got = 0;
        if (bytes_left_ <= 0 || !net::receive(net_, control_, control_->in_buf, CM_NET_IN_SIZE, &got)) return false;
        bytes_left_ -= got;
        control_->in_count = got;
        at_end = got == 0;
    }
    text_[length_] = '\0';
    return !at_end || length_ > 0;
}

// Lines of a server end up in logs and on terminals.
char *Reply::printable() {
    for (int32_t i = 0; i < length_; i++)
        if (static_cast<unsigned char>(text_[i]) < ' ' || text_[i] == 0x7F) text_[i] = '?';
    return text_;
}

bool Reply::read_rest(const cm_ftp_session *listener) {
    const char closing[] = {text_[0], text_[1], text_[2], ' '};
    bool closed = false;
    while (!closed) {
        if (!next_line()) return false;
        closed = length_ >= 4 && memcmp(text_, closing, sizeof closing) == 0;
        if (listener != nullptr) tell(listener, printable());
    }
    return true;
}

// One "%d": blanks, a sign and digits; the value stops growing where it is too large for any use.
bool take_number(const char *&at, int32_t *out) {
    while (is_space(*at)) at++;
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+') at++;
    if (!is_digit(*at)) return false;
    int32_t value = 0;
    for (; is_digit(*at); at++) value = std::min(value * 10 + (*at - '0'), 100000);
    *out = negative ? -value : value;
    return true;
}

}  // namespace

bool read_reply(const cm_ftp_session *session, Codes accepted, bool quiet, int *out_status) {
    const auto fails = [&](const char *text) {
        if (!quiet) tell(session, text);
        return false;
    };
    Reply reply(session);
    if (!reply.next_line()) return fails("No response received from FTP server.");
    if (reply.length() < 4) return fails("Bad response received from FTP server.");
    if (!reply.has_status()) return fails("Invalid response received from FTP Proxy command.");
    const int status = reply.status();
    if (out_status != nullptr) *out_status = status;
    const bool expected = accepted.empty() || std::find(accepted.begin(), accepted.end(), status) != accepted.end();
    if (!expected) fails("Unexpected status received to FTP command...");
    if (reply.goes_on() && !reply.read_rest(expected || quiet ? nullptr : session))
        return fails("No response received from FTP request.");
    return expected;
}

bool parse_address(const char *text, Address *out) {
    const char *at = strchr(text, '(');
    if (at == nullptr) return false;
    int32_t numbers[6];
    for (int i = 0; i < 6; i++) {
        at++;  // "(" or ","
        if (!take_number(at, &numbers[i]) || numbers[i] < 0 || numbers[i] > 255) return false;
        if (i < 5 && *at != ',') return false;
    }
    for (int i = 0; i < 4; i++) out->host[i] = static_cast<unsigned char>(numbers[i]);
    out->port = numbers[4] * 256 + numbers[5];
    return true;
}

bool read_address(const cm_ftp_session *session, Address *out) {
    const auto fails = [&](const char *text) {
        tell(session, text);
        return false;
    };
    Reply reply(session);
    if (!reply.next_line()) return fails("PASV: No response received from FTP server.");
    const bool passive = reply.length() >= 4 && memcmp(reply.text(), "227 ", 4) == 0;
    if (!passive || strchr(reply.text(), '(') == nullptr) {
        // Read to its end, or the replies to come would be taken for those of one command earlier.
        if (reply.goes_on()) reply.read_rest(nullptr);
        return fails("PASV: Unexpected response received from FTP server.");
    }
    return parse_address(reply.text(), out) || fails("PASV: Invalid address received from FTP server.");
}

namespace {

// This host, private nets, the link itself (RFC 6890).
bool is_inner(const unsigned char (&host)[4]) {
    return host[0] == 0 || host[0] == 127 || host[0] == 10 || (host[0] == 172 && host[1] >= 16 && host[1] < 32) ||
           (host[0] == 192 && host[1] == 168) || (host[0] == 169 && host[1] == 254);
}

bool is_group(const unsigned char (&host)[4]) {
    return host[0] >= 224;  // multicast, and behind it what is reserved and broadcast
}

}  // namespace

bool may_name(uint32_t peer, const Address &address) {
    unsigned char from[4];
    memcpy(from, &peer, sizeof from);
    return is_inner(from) || is_group(from) || !(is_inner(address.host) || is_group(address.host));
}

}  // namespace cm::ftp
