// What a name server on this library needs: replies from the records of the hosts files, forwarding, error replies.
//
// Records are kept in the state's buckets by name, in the order of the files, and made anew when a file has changed.
#include <string.h>

#include <atomic>

#include "core/cmerror.h"
#include "core/cmstring.h"
#include "core/cmthread.h"
#include "net/address.h"
#include "net/cmdns.h"
#include "net/cmnet.h"

using cm::platform::os;

namespace cm::dns {
namespace {

constexpr uint32_t kPoolBlockSize = 8192;
constexpr int64_t kCheckMs = 1000;  // between two looks at the files
constexpr size_t kBuckets = 500;
constexpr int32_t kErrorRepliesPerSecond = 10;
constexpr char kReverseZone[] = ".in-addr.arpa";

struct Record {
    Record *next;      // of the same bucket, or pattern
    uint32_t order;    // of its line among all
    uint32_t address;  // A
    uint16_t type, preference;
    std::string_view name, target;
};

}  // namespace

// Under the state's mutex, like the buckets.
struct Records {
    cm_mem_pool *pool;
    Record *patterns;  // names with wildcards
    Stamp hosts, exchangers;
    int64_t checked_ms;
};

namespace {

size_t bucket_of(std::string_view name) {
    uint32_t hash = 0;
    for (const char c : name) hash = hash * 31 + static_cast<uint8_t>(fold(c));
    return hash % kBuckets;
}

Record *first_of(const State *state, std::string_view name) {
    return static_cast<Record *>(state->bucket[bucket_of(name)]);
}

// ---- loading --------------------------------------------------------------------------------------------------------

class Loader {
public:
    Loader(State *state, cm_mem_pool *pool) : state_(state), pool_(pool) {}

    // A file that could not be read keeps no stamp, so that it is tried again.
    bool load(const Stamp &hosts, const Stamp &exchangers) {
        Records *records = state_->records;
        if (read_hosts(state_->hosts_path, {take_host, nullptr, this})) records->hosts = hosts;
        if (!failed_ && read_hosts(state_->mx_path, {nullptr, take_exchanger, this})) records->exchangers = exchangers;
        return !failed_;
    }

private:
    static bool take_host(void *self, uint32_t address, std::string_view name) {
        return static_cast<Loader *>(self)->add_host(address, name);
    }
    static bool take_exchanger(void *self, std::string_view domain, uint16_t preference, std::string_view name) {
        auto *loader = static_cast<Loader *>(self);
        Record *record = loader->add(kTypeMx, domain, name);
        if (record != nullptr) record->preference = preference;
        return record != nullptr;
    }

    bool add_host(uint32_t address, std::string_view name) {
        Record *record = add(kTypeA, name, {});
        if (record == nullptr) return false;
        record->address = address;
        if (!is_host_name(name)) return true;
        uint8_t bytes[4];
        memcpy(bytes, &address, sizeof bytes);
        char reverse[net::kDottedSize + sizeof kReverseZone];
        const int32_t length =
            cm_snprintf(reverse, sizeof reverse, "%d.%d.%d.%d%s", bytes[3], bytes[2], bytes[1], bytes[0], kReverseZone);
        return add_once(kTypePtr, {reverse, static_cast<size_t>(length)}, name);
    }
    bool add_once(uint16_t type, std::string_view name, std::string_view target) {
        for (const Record *record = first_of(state_, name); record != nullptr; record = record->next)
            if (record->type == type && equal_folded(record->name, name)) return true;
        return add(type, name, target) != nullptr;
    }
    Record *add(uint16_t type, std::string_view name, std::string_view target) {
        auto *record = static_cast<Record *>(cm_mem_alloc(pool_, sizeof(Record)));
        const char *name_copy = copy(name), *target_copy = copy(target);
        failed_ = record == nullptr || name_copy == nullptr || target_copy == nullptr;
        if (failed_) return nullptr;
        *record = {nullptr, order_++, 0, type, 0, {name_copy, name.size()}, {target_copy, target.size()}};
        append(record);
        return record;
    }
    const char *copy(std::string_view text) {
        if (text.empty()) return "";
        auto *out = static_cast<char *>(cm_mem_alloc(pool_, static_cast<uint32_t>(text.size())));
        if (out != nullptr) memcpy(out, text.data(), text.size());
        return out;
    }
    void append(Record *record) {
        const bool pattern =
            (state_->flags & CM_DNS_WILDCARDS) != 0 && record->name.find_first_of("*?") != record->name.npos;
        const size_t bucket = pattern ? kBuckets : bucket_of(record->name);
        if (last_[bucket] != nullptr)
            last_[bucket]->next = record;
        else if (pattern)
            state_->records->patterns = record;
        else
            state_->bucket[bucket] = record;
        last_[bucket] = record;
    }

    State *const state_;
    cm_mem_pool *const pool_;
    Record *last_[kBuckets + 1] = {};
    uint32_t order_ = 0;
    bool failed_ = false;
};

void clear(State *state) {
    Records *records = state->records;
    if (records->pool != nullptr) cm_mem_exit(records->pool);
    *records = {};
    memset(state->bucket, 0, sizeof state->bucket);
}

// Under the mutex: the records as the files are now.
bool refresh(cm_context *ctx) {
    State *state = state_of(ctx);
    if (state->records == nullptr) state->records = static_cast<Records *>(os.allocate_zeroed(sizeof(Records)));
    Records *records = state->records;
    if (records == nullptr) return false;
    const int64_t now = os.monotonic_ms();
    if (records->pool != nullptr && now - records->checked_ms < kCheckMs) return true;
    const Stamp hosts = stamp_of(state->hosts_path), exchangers = stamp_of(state->mx_path);
    if (records->pool == nullptr || hosts != records->hosts || exchangers != records->exchangers) {
        clear(state);
        if (cm_mem_init(ctx, &records->pool, kPoolBlockSize) == 0 ||
            !Loader(state, records->pool).load(hosts, exchangers)) {
            clear(state);
            return false;
        }
    }
    records->checked_ms = now;
    return true;
}

// ---- finding --------------------------------------------------------------------------------------------------------

// Walks the records of a type that match a name: first those of that very name, then patterns.
class Matches {
public:
    Matches(const State *state, uint16_t type, std::string_view name)
        : state_(state), type_(type), name_(name), at_(first_of(state, name)) {}

    const Record *next() {
        for (;;) {
            if (at_ == nullptr) {
                if (in_patterns_) return nullptr;
                in_patterns_ = true;
                at_ = state_->records->patterns;
                continue;
            }
            const Record *record = at_;
            at_ = record->next;
            if (record->type == type_ && names_match(state_, record->name, name_)) return record;
        }
    }

private:
    const State *const state_;
    const uint16_t type_;
    const std::string_view name_;
    const Record *at_;
    bool in_patterns_ = false;
};

// The name's first line decides; further addresses are those of lines with the same name.
void find_addresses(const State *state, std::string_view name, Answer *out) {
    const Record *first = nullptr;
    Matches candidates(state, kTypeA, name);
    while (const Record *record = candidates.next())
        if (first == nullptr || record->order < first->order) first = record;
    Matches matches(state, kTypeA, name);
    while (const Record *record = matches.next())
        if (out->count < kMostResults && equal_folded(record->name, first->name))
            out->addresses[out->count++] = record->address;
}

void find_name(const State *state, std::string_view name, Answer *out) {
    const Record *record = Matches(state, kTypePtr, name).next();
    if (record != nullptr) add_exchanger(out, 0, record->target);
}

void find_exchangers(const State *state, std::string_view name, Answer *out) {
    Matches matches(state, kTypeMx, name);
    while (const Record *record = matches.next()) add_exchanger(out, record->preference, record->target);
}

// Whether the question is one for the local records, with what they hold.  A name that has addresses here has no
// addresses of the longer kind anywhere: otherwise the two would come from different hosts.
bool find_local(cm_context *ctx, const Question &question, Answer *out) {
    const std::string_view name(question.name, question.name_length);
    const MutexGuard guard(state_of(ctx)->mutex);
    out->count = 0;
    if ((question.class_ != kClassIn && question.class_ != kClassAny) || !refresh(ctx)) return false;
    switch (question.type) {
        case kTypeA:
            find_addresses(state_of(ctx), name, out);
            return out->count > 0;
        case kTypePtr:
            find_name(state_of(ctx), name, out);
            return out->count > 0;
        case kTypeMx:
            find_exchangers(state_of(ctx), name, out);
            return out->count > 0;
        case kTypeAaaa:
            return Matches(state_of(ctx), kTypeA, name).next() != nullptr;
        default:
            return false;
    }
}

// ---- replies --------------------------------------------------------------------------------------------------------

bool put_record(Writer &out, uint8_t *buffer, const State *state, const Question &question, const Answer &answer,
                size_t i) {
    if (!out.name({question.name, question.name_length}) || !out.number(question.type) || !out.number(kClassIn) ||
        !out.number32(static_cast<uint32_t>(state->ttl)))
        return false;
    const size_t head = out.length();
    bool whole = out.zeros(2);  // the length of what follows
    if (question.type == kTypeA) whole = whole && out.bytes(&answer.addresses[i], sizeof answer.addresses[i]);
    if (question.type == kTypeMx) whole = whole && out.number(answer.preferences[i]);
    if (question.type != kTypeA) whole = whole && out.name(answer.names[i]);
    if (whole) put_number(buffer + head, static_cast<uint16_t>(out.length() - head - 2));
    return whole;
}

// Gives its length, 0 when not even the question fits.
size_t build_reply(const State *state, const Message &request, const Question &question, const Answer &answer,
                   uint8_t (&buffer)[CM_DNS_BUFFER]) {
    Writer out(buffer, sizeof buffer);
    out.zeros(kHeaderSize);
    if (!out.name({question.name, question.name_length}) || !out.number(question.type) || !out.number(question.class_))
        return 0;
    uint16_t count = 0;
    uint8_t flags = kFlagResponse | kFlagAuthoritative;
    for (size_t end = out.length(); count < answer.count; count++, end = out.length())
        if (!put_record(out, buffer, state, question, answer, count)) {
            out.cut(end);
            flags |= kFlagTruncated;
            break;
        }
    put_number(buffer, request.id());
    buffer[2] = static_cast<uint8_t>(flags | (request.bytes[2] & kFlagRecursionDesired));
    buffer[3] = state->primary != 0 ? kFlagRecursionAvailable : 0;
    put_number(buffer + 4, 1);
    put_number(buffer + 6, count);
    return out.length();
}

bool is_datagram(const cm_conn *listener) {
    return listener != nullptr && net::has_flag(listener, CM_CONN_DATAGRAM);
}

bool send_reply(cm_net_state *net, cm_conn *listener, cm_conn *request, const uint8_t *bytes, size_t length) {
    if (is_datagram(listener))
        return cm_net_sendto(net, listener, request->peer_addr, static_cast<int32_t>(request->peer_port), bytes,
                             static_cast<int32_t>(length)) != 0;
    // Over a stream the length comes first (RFC 1035, 4.2.2).
    uint8_t head[2];
    put_number(head, static_cast<uint16_t>(length));
    const net::Slice slices[] = {{head, sizeof head}, {bytes, length}};
    return net::send_slices(net, request, slices, 2, false);
}

// What has been received of the request, null bytes when that is no message.
Message message_of(const cm_conn *request) {
    if (request->in_count < static_cast<int32_t>(kHeaderSize)) return {nullptr, 0};
    return {request->in_buf, static_cast<size_t>(request->in_count)};
}

bool read_request(cm_context *ctx, cm_net_state *net, cm_conn *request, Message *out, Question *out_question) {
    if (ctx == nullptr || ctx->dns == nullptr || net == nullptr || request == nullptr) return false;
    *out = message_of(request);
    return out->bytes != nullptr && read_question(*out, out_question);
}

// Names come from anybody: nothing that a terminal or a reader of the log would take for more than text.
void make_printable(Question *question) {
    for (size_t i = 0; i < question->name_length; i++)
        if (question->name[i] <= ' ' || question->name[i] == 0x7F) question->name[i] = '?';
}

void trace_local(cm_context *ctx, Question *question, bool local, const Answer &answer) {
    make_printable(question);
    char dotted[net::kDottedSize];
    if (!local) return report(ctx, CM_TRACE, "%s not local", question->name);
    if (answer.count == 0) return report(ctx, CM_TRACE, "%s -> %s", question->name, "no data");
    if (question->type == kTypeA) net::format_dotted(answer.addresses[0], dotted);
    report(ctx, CM_TRACE, "%s -> %s", question->name, question->type == kTypeA ? dotted : answer.names[0]);
}

// An error reply looks like a query, so that two servers could go on answering each other for ever: what may be such a
// reply is answered only so many times a second.
bool admit_error_reply() {
    static constinit std::atomic<int64_t> window = 0;  // second << 8 | replies in it
    const int64_t second = os.monotonic_ms() / 1000;
    int64_t seen = window.load(std::memory_order_relaxed), next = 0;
    do {
        next = seen >> 8 == second ? seen + 1 : second << 8 | 1;
        if ((next & 0xFF) > kErrorRepliesPerSecond) return false;
    } while (!window.compare_exchange_weak(seen, next, std::memory_order_relaxed));
    return true;
}

}  // namespace

void forget_records(State *state) {
    if (state->records == nullptr) return;
    clear(state);
    os.release(state->records);
    state->records = nullptr;
}

}  // namespace cm::dns

using namespace cm::dns;

int16_t cm_dns_failure(cm_context *, cm_net_state *net, cm_conn *listener, cm_conn *request, int16_t name_error) {
    if (net == nullptr || request == nullptr) return 0;
    const Message message = message_of(request);
    if (message.bytes == nullptr) return 0;
    if ((message.length == kHeaderSize || message.is_response()) && !admit_error_reply()) return 0;
    // Kept: the reply has no response bit, and no length before it on a stream; its readers know.
    uint8_t reply[kHeaderSize] = {};
    memcpy(reply, message.bytes, 2);
    reply[2] = kFlagRecursionDesired;
    reply[3] = static_cast<uint8_t>((message.bytes[3] & kFlagsChecking) |
                                    (name_error != 0 ? kRcodeNameError : kRcodeServerFailure));
    if (!is_datagram(listener)) return cm_net_send(net, request, reply, sizeof reply);
    return cm_net_sendto(net, listener, request->peer_addr, static_cast<int32_t>(request->peer_port), reply,
                         sizeof reply);
}

int16_t cm_dns_localrecord(cm_context *ctx, cm_net_state *net, cm_conn *listener, cm_conn *request) {
    Message message;
    Question question;
    if (!read_request(ctx, net, request, &message, &question)) return 0;
    Answer answer;
    uint8_t reply[CM_DNS_BUFFER];
    const bool local = find_local(ctx, question, &answer);
    const size_t length = local ? build_reply(state_of(ctx), message, question, answer, reply) : 0;
    if (cm::admits(ctx, CM_TRACE)) trace_local(ctx, &question, local, answer);
    return length > 0 && send_reply(net, listener, request, reply, length) ? 1 : 0;
}

int16_t cm_dns_forward(cm_context *ctx, cm_net_state *net, cm_conn *listener, cm_conn *request) {
    Message message;
    Question question;
    if (!read_request(ctx, net, request, &message, &question)) return 0;
    // The client's identifier is its own affair; ours is what the server's answer has to know.
    uint8_t query[CM_NET_IN_SIZE], answer[CM_NET_IN_SIZE];
    memcpy(query, message.bytes, message.length);
    put_number(query, random_id());
    const size_t length = exchange(state_of(ctx), net, {query, message.length}, question.end, answer, sizeof answer);
    if (length == 0) return 0;
    put_number(answer, message.id());
    answer[2] |= kFlagResponse;
    make_printable(&question);
    char server[cm::net::kDottedSize];
    cm::net::format_dotted(state_of(ctx)->primary, server);
    cm::report(ctx, CM_TRACE, "%s -> %s", question.name, server);
    return send_reply(net, listener, request, answer, length) ? 1 : 0;
}
