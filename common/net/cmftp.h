// The FTP client inside the library (RFC 959), on connections and their buffered I/O.
//
//   cmftp.cpp           sessions: log-in, directories, the commands
//   cmftp_reply.cpp     what a server says
//   cmftp_transfer.cpp  data connections, store and retrieve
//
// A server is not trusted: a reply has an end, an address it names is looked at before it is used, and what its lines
// hand to the caller is printable.  Texts of failures go to the session's callback, several of them where the reader of
// a reply and the step that waited for it both have something to say.
#pragma once

#include <stdint.h>

#include <span>

#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::ftp {

constexpr int32_t kPort = 21;
extern int32_t server_port;  // of control connections; tests run their servers on ports of their own

// Hands a text to the caller.
void tell(const cm_ftp_session *session, const char *text);

// ---- commands -------------------------------------------------------------------------------------------------------

using Codes = std::span<const int16_t>;

struct Step {
    const char *command;
    Codes accepted;
    const char *disconnected;  // told when the command cannot be sent
    const char *refused;       // told when the reply is not one of those accepted
};

// Whether command and argument make one line that a server takes for one.
bool fits(const char *command, const char *argument);

// Sends a command, without a blank when it has no argument, and does not read its reply.
bool send(const cm_ftp_session *session, const char *command, const char *argument = nullptr);

// One command and its reply.  `quiet`: nothing is told.
bool run(const cm_ftp_session *session, const Step &step, const char *argument, bool quiet = false,
         int *out_status = nullptr);

// ---- replies --------------------------------------------------------------------------------------------------------

// Reads one reply to its last line.  Gives whether the status is one of `accepted`.
bool read_reply(const cm_ftp_session *session, Codes accepted, bool quiet = false, int *out_status = nullptr);

struct Address {
    unsigned char host[4];
    int32_t port;
};

// The six numbers behind the first "(" of a reply to PASV, read as scanf's "%d,%d,..." reads them.
bool parse_address(const char *text, Address *out);

// Reads the reply to PASV.
bool read_address(const cm_ftp_session *session, Address *out);

// Whether a server at `peer` (network order) may send us to `address`: one on the public net gets no connection from us
// to a host that only we can reach.
bool may_name(uint32_t peer, const Address &address);

}  // namespace cm::ftp
