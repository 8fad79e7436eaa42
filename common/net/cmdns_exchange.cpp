// Asking a name server.
//
// Whoever knows the identifier and the port of a query can answer it, so both are hard to know: the identifier is drawn
// anew for each look-up, and each exchange has a socket of its own whose port the system chose.  What comes from
// another address or port, to another identifier or to another question is dropped, and nothing of it moves the end of
// a try.
#include "core/cmerror.h"
#include "net/cmdns.h"
#include "net/cmnet_datagram.h"

using cm::platform::os;

namespace cm::dns {

int32_t server_port = 53;

namespace {

constexpr int kExchanges = 2, kTries = 6;
constexpr int32_t kLastId = 65530;

int64_t try_ms(const cm_dns_state *state, int number) {
    if (number < 2) return 1000;
    return number < 4 ? 4000 : net::milliseconds(state->timeout);
}

// The datagram socket of one exchange.
class Line {
public:
    explicit Line(cm_net_state *net) : net_(net) {}
    ~Line() { cm_net_close(net_, conn_, 0); }
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;

    bool send(uint32_t server, const Message &query) {
        return cm_net_dnssendto(net_, server, server_port, query.bytes, static_cast<int32_t>(query.length), &conn_) !=
               0;
    }
    bool receive(uint8_t *buffer, size_t size, int64_t deadline_ms, size_t *out_length) {
        return net::receive_datagram(net_, conn_, buffer, size, deadline_ms, out_length);
    }

private:
    cm_net_state *const net_;
    cm_conn *conn_ = nullptr;
};

}  // namespace

uint16_t random_id() {
    return static_cast<uint16_t>(cm_random(1, kLastId));
}

size_t exchange(const cm_dns_state *state, cm_net_state *net, const Message &query, size_t question_end,
                uint8_t *buffer, size_t size) {
    Line line(net);
    for (int number = 0; number < kTries; number++) {
        const uint32_t server = number % 2 == 0 ? state->primary : state->alternate;
        if (server == 0 || !line.send(server, query)) continue;
        const int64_t deadline_ms = os.monotonic_ms() + try_ms(state, number);
        size_t length = 0;
        while (os.monotonic_ms() < deadline_ms && line.receive(buffer, size, deadline_ms, &length)) {
            const Message answer = {buffer, length};
            if (length >= kHeaderSize && answers_query(answer, query, question_end)) return length;
        }
    }
    return 0;
}

bool ask(cm_context *ctx, std::string_view name, uint16_t type, Answer *out) {
    uint8_t query[CM_DNS_BUFFER], buffer[CM_DNS_BUFFER];
    if (ctx->dns == nullptr || ctx->net_table == nullptr) return false;
    const size_t length = build_query(query, sizeof query, random_id(), name, type);
    for (int left = kExchanges; length > 0 && left > 0; left--) {
        const Message answer = {buffer,
                                exchange(ctx->dns, ctx->net_table, {query, length}, length, buffer, sizeof buffer)};
        if (answer.length == 0 || answer.rcode() == kRcodeServerFailure) continue;
        if (answer.rcode() != 0) return false;
        if (answer.answers() > 0 && parse_answer(answer, type, out)) return true;
    }
    return false;
}

}  // namespace cm::dns
