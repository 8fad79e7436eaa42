// Bodies: what is written is what a client decodes, for every way to cut it and every encoding.
#include <cstdint>
#include <cstdlib>

#include "network/wire.h"

namespace {

using cm::test::Wire;

void check(const uint8_t *pieces, size_t count, uint32_t flags, bool noise) {
    Wire wire;
    wire.conn->flags |= flags;
    static const std::string plain = cm::test::sample(200000), noisy = cm::test::sample(200000, true);
    const std::string &source = noise ? noisy : plain;
    std::string input;
    for (size_t i = 0; i + 1 < count; i += 2) {
        // Lengths around the limits of the buffer and the stage, and others.
        const size_t length = pieces[i] < 128   ? 15900 + pieces[i]
                              : pieces[i] < 250 ? pieces[i + 1] * 7u
                                                : pieces[i + 1] * 777u;
        const std::string_view piece = std::string_view(source).substr(pieces[i + 1], length);
        if (wire.put(piece, pieces[i] & 1) != 1) abort();
        input += piece;
    }
    if (cm_net_enddata(wire, wire) != 1) abort();
    std::string body = wire.sent;
    if ((flags & CM_CONN_CHUNKED) != 0) body = cm::test::joined(cm::test::chunks_of(body));
    if ((flags & CM_CONN_GZIP) != 0) body = cm::test::gunzip(body);
    if (body != input || (wire.conn->flags & (CM_CONN_CHUNKED | CM_CONN_GZIP)) != 0) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1 || size > 80) return 0;
    const uint32_t flags = ((data[0] & 1) != 0 ? CM_CONN_CHUNKED : 0u) | ((data[0] & 2) != 0 ? CM_CONN_GZIP : 0u);
    check(data + 1, size - 1, flags, (data[0] & 4) != 0);
    return 0;
}
