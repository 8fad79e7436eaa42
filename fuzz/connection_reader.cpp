// Buffered input: the same bytes give the same tokens, however they arrive.
#include <cstdint>
#include <cstdlib>

#include "network/wire.h"

namespace {

using cm::test::Wire;

struct Plan {
    char delimiter;
    int16_t truncate;
    int32_t maximum;
    std::string_view bytes;
};

// Tokens, then with `fill` the rest of the bytes.
std::vector<std::string> read_all(const Plan &plan, size_t step, bool rest_as_bytes) {
    Wire wire;
    for (size_t at = 0; at < plan.bytes.size(); at += step) wire.arriving.emplace_back(plan.bytes.substr(at, step));
    std::vector<std::string> tokens;
    std::string text(static_cast<size_t>(plan.maximum) + 1, '\0');
    while (!rest_as_bytes || tokens.size() < 3) {
        int32_t length = 0;
        if (cm_net_getarg(wire, wire, plan.delimiter, plan.truncate, text.data(), plan.maximum, &length) == 0)
            return tokens;
        if (length < 0 || length > plan.maximum || text[static_cast<size_t>(length)] != '\0') abort();
        tokens.emplace_back(text, 0, static_cast<size_t>(length));
    }
    std::string bytes(plan.bytes.size() + 1, '\0');
    int32_t count = 0;
    if (cm_net_read(wire, wire, 1, bytes.data(), static_cast<int32_t>(bytes.size()), &count) != 0)
        tokens.emplace_back(bytes, 0, static_cast<size_t>(count));
    return tokens;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4 || size > 20000) return 0;
    Plan plan = {static_cast<char>(data[0]), static_cast<int16_t>(data[1] & 1), data[2] * 16 + data[1] / 16, {}};
    plan.bytes = {reinterpret_cast<const char *>(data + 4), size - 4};
    for (const bool rest_as_bytes : {false, true}) {
        const std::vector<std::string> whole = read_all(plan, SIZE_MAX / 2, rest_as_bytes);
        if (whole != read_all(plan, size < 500 ? 1 : 97, rest_as_bytes)) abort();
        if (whole != read_all(plan, data[3] + 2u, rest_as_bytes)) abort();
    }
    return 0;
}
