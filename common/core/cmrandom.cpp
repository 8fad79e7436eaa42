// Random numbers from the system's generator.
#include <atomic>

#include "platform/platform.h"

using cm::platform::os;

namespace cm::random {

// What is left where the system's generator fails, which it does not on the systems of today: numbers that differ from
// call to call and from process to process.
static uint64_t stand_in() {
    static constinit std::atomic<uint64_t> calls = 0;
    uint64_t x = calls.fetch_add(1, std::memory_order_relaxed) * 0x9E3779B97F4A7C15u;
    x += static_cast<uint64_t>(os.monotonic_ms()) << 20;
    x += reinterpret_cast<uintptr_t>(&x);
    x = (x ^ x >> 30) * 0xBF58476D1CE4E5B9u;
    x = (x ^ x >> 27) * 0x94D049BB133111EBu;
    return x ^ x >> 31;
}

static uint64_t draw() {
    uint64_t bits = 0;
    return os.random_bytes(&bits, sizeof bits) ? bits : stand_in();
}

}  // namespace cm::random

CM_API int32_t CM_CALL cm_random(int32_t low, int32_t high) {
    const int64_t first = low < high ? low : high, last = low < high ? high : low;
    const auto count = static_cast<uint64_t>(last - first + 1);
    // Draws behind the last whole multiple of the count would favour small numbers.  They are so rare, at most one in
    // 2^32, that a third in a row means a broken generator, not bad luck.
    const uint64_t surplus = (UINT64_MAX % count + 1) % count;
    uint64_t bits = cm::random::draw();
    for (int tries = 0; tries < 2 && bits > UINT64_MAX - surplus; tries++) bits = cm::random::draw();
    return static_cast<int32_t>(first + static_cast<int64_t>(bits % count));
}
