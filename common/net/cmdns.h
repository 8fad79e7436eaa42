// The resolver inside the library.
//
//   cmdns.cpp           settings, look-ups and the order of their sources
//   cmdns_hosts.cpp     the hosts file and the mail-exchanger file
//   cmdns_exchange.cpp  asking a server
//   cmdns_server.cpp    replies of the library's own server, and its records
//   dns_message.cpp     messages
#pragma once

#include <string_view>

#include "net/dns_message.h"
#include "platform/platform.h"
#include "tilvarcm.h"

namespace cm::dns {

// What tells a file from the file it was: equal stamps, equal content.
struct Stamp {
    bool exists = false;
    int32_t mtime_ns = 0;
    int64_t mtime = 0;
    uint64_t size = 0, index = 0;

    bool operator==(const Stamp &) const = default;
};
Stamp stamp_of(const platform::FileStatus &status);
Stamp stamp_of(const char *path);  // of a file that is not there: the default

struct Records;

// What every context's resolver state is; the fields of its own under its mutex.
struct State : cm_dns_state {
    Stamp empty_hosts, empty_exchangers;  // files that held no line when they were read
    Records *records;                     // what the buckets point into
};
inline State *state_of(cm_context *ctx) {
    return static_cast<State *>(ctx->dns);
}

// ---- files ----------------------------------------------------------------------------------------------------------

// Takes a line's fields; false ends the reading.
struct HostsVisitor {
    // One name of a line "address name name ...".
    bool (*host)(void *self, uint32_t address, std::string_view name);
    // A line "domain preference exchanger".
    bool (*exchanger)(void *self, std::string_view domain, uint16_t preference, std::string_view name);
    void *self;
};

// Where a file's bytes come from: `read` gives fewer than `size` at the end.
struct HostsSource {
    size_t (*read)(void *self, char *buffer, size_t size);
    void *self;
};

// Reads a file line by line: lines of blanks mean nothing, "#" begins a remark, an empty line ends it all.  True when
// there was no other line.
bool read_hosts(const HostsSource &source, const HostsVisitor &visitor);

// The same of the file of that path.  False when it could not be opened, or a read failed.
bool read_hosts(const char *path, const HostsVisitor &visitor);

// Whether the name of a file's line is the name that is looked for.
bool names_match(const cm_dns_state *state, std::string_view of_line, std::string_view name);

bool hosts_address(cm_context *ctx, std::string_view name, uint32_t *out_address);
bool hosts_name(cm_context *ctx, uint32_t address, char *out_name);
bool hosts_exchangers(cm_context *ctx, std::string_view domain, Answer *out);

// ---- asking a server ------------------------------------------------------------------------------------------------

// The port of name servers; tests run theirs elsewhere.
extern int32_t server_port;

uint16_t random_id();

// One exchange with the configured servers: the first message that answers the query, into `buffer`.  Gives its length,
// 0 when there was none within the six tries.
size_t exchange(const cm_dns_state *state, cm_net_state *net, const Message &query, size_t question_end,
                uint8_t *buffer, size_t size);

// Up to two exchanges; true with what the answer holds.
bool ask(cm_context *ctx, std::string_view name, uint16_t type, Answer *out);

// ---- own server -----------------------------------------------------------------------------------------------------

// Gives up the record table.
void forget_records(State *state);

}  // namespace cm::dns
