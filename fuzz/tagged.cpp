// Tagged messages: random bytes never reach beyond a buffer, and what is put comes out again.
#include <cstdint>
#include <cstdlib>

#include "network/wire.h"

namespace {

using cm::test::Wire;

bool known(int32_t tag) {
    return (tag >= CM_TAG_INTEGER && tag <= CM_TAG_RAW) || tag == CM_TAG_NULL || tag == CM_TAG_END1 ||
           tag == CM_TAG_END2 || tag == CM_TAG_END3;
}

void CM_CALL hear(cm_net_state *, cm_conn *, const cm_net_notice *notice) {
    if (notice->length < 0 || notice->text[notice->length] != '\0') abort();
}

// Reads until a failure or the end of the input; `plan` chooses the room for each value, 0 looks, and 255 flushes.
void decode(std::string_view plan, size_t step, std::string_view bytes) {
    Wire wire;
    wire.state->notice = hear;
    for (size_t at = 0; at < bytes.size(); at += step) wire.arriving.emplace_back(bytes.substr(at, step));
    int32_t looked = 0;
    for (size_t i = 0;; i++) {
        const auto byte = static_cast<unsigned char>(plan[i % plan.size()]);
        if (byte == 255) {
            if (cm_net_flush(wire, wire) == 0) return;
            looked = 0;
        }
        const int32_t maximum = i % plan.size() == plan.size() - 1 ? 9000 : byte < 64 ? byte : (byte - 63) * 64;
        const std::unique_ptr<char[]> value(new char[static_cast<size_t>(maximum)]);
        int32_t tag = -1, length = -2;
        if (cm_net_get(wire, wire, &tag, value.get(), maximum, &length) == 0) return;
        if (length > maximum || length < -1 || (length == -1) != (tag == CM_TAG_NULL && maximum > 0)) abort();
        if (wire.closed()) {
            if (tag != 0) abort();
            return;
        }
        if (maximum > 0 && !known(tag)) abort();
        if (looked != 0 && tag != looked) abort();
        looked = maximum == 0 && tag != CM_TAG_END1 && tag != CM_TAG_END2 && tag != CM_TAG_END3 ? tag : 0;
    }
}

// Two bytes an item: its tag and the length of its bytes.
void round_trip(std::string_view plan) {
    static const std::string source = cm::test::sample(20000, true);
    for (Wire wire; plan.size() >= 2; plan.remove_prefix(2)) {
        static constexpr int32_t kTags[] = {2, 3, 4, 5, 6, 9};
        const int32_t tag = kTags[static_cast<unsigned char>(plan[0]) % 6];
        const int32_t length = static_cast<unsigned char>(plan[1]) * (plan[0] < 0 ? 31 : 1);
        const char *value = source.data() + length;
        if (cm_net_put(wire, wire, tag, value, length) != 1 || wire.conn->out_count > CM_NET_STAGE_ALLOC) abort();
        if (cm_net_put(wire, wire, CM_TAG_END1, nullptr, 0) != 1) abort();
        // In two pieces, as a peer's sends may arrive.
        const size_t half = std::min<size_t>(wire.sent.size(), 4096);
        wire.arriving = {wire.sent.substr(0, half), wire.sent.substr(half)};
        if (wire.arriving.back().empty()) wire.arriving.pop_back();
        wire.sent.clear();
        char out[8192] = "";
        int32_t got_tag = 0, got = 0;
        if (cm_net_get(wire, wire, &got_tag, out, sizeof out, &got) != 1 || got_tag != tag) abort();
        if (tag == 3 || tag == 4) {
            if (got != length || memcmp(out, value, static_cast<size_t>(got)) != 0) abort();
        } else if ((tag == 2 || tag == 6) && (got != 4 || memcmp(out, value, 4) != 0)) {
            abort();
        }
        if (cm_net_get(wire, wire, &got_tag, nullptr, 0, &got) != 1 || got_tag != CM_TAG_END1) abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 8 || size > 20000) return 0;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    cm::platform::os.write_standard_error = [](const char *, size_t) {};
    if (data[0] % 8 == 0)
        round_trip(input.substr(1));
    else
        decode(input.substr(1, 5), data[6] == 0 ? 4096 : data[6] * 16u + data[7] % 16, input.substr(8));
    return 0;
}
