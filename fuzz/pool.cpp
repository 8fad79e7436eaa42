// Pools: sequences of operations on several pools against what their definition says about blocks and pieces.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "input.h"
#include "tilvarcm.h"

namespace {

using cm::fuzz::check;
using cm::fuzz::Input;

struct Piece {
    unsigned char *bytes;
    uint32_t size;
    unsigned char mark;
};

// A pool and its model: block size, room left in the current block, bookkeeping, and what every piece should contain.
struct Modelled {
    cm_mem_pool *pool = nullptr;
    uint32_t block_size = 0, used = 0, total = 0;
    std::vector<Piece> pieces;
};

uint32_t rounded(uint32_t size) {
    return (size + 35) / 32 * 32;
}

void open_pool(Modelled &m, uint32_t block_size) {
    check(cm_mem_init(nullptr, &m.pool, block_size) == 1);
    m = {m.pool, rounded(block_size), 0, 32, {}};
}

void allocate(Modelled &m, uint32_t size, unsigned char mark) {
    auto *bytes = static_cast<unsigned char *>(cm_mem_alloc(m.pool, size));
    check((bytes == nullptr) == (size == 0));
    if (size == 0) return;
    const uint32_t whole = rounded(size);
    const bool fits = whole <= m.block_size - m.used;
    if (!fits) {
        const bool drops = whole > m.block_size && m.used == 0;
        m.total += 32 - (drops ? m.block_size : 0);
        if (whole > m.block_size) m.block_size = whole;
        m.used = 0;
    }
    check(bytes == m.pool->payload + m.used);
    m.used += whole;
    for (uint32_t i = 0; i < size; i++) check(bytes[i] == 0);
    memset(bytes, mark, size);
    m.pieces.push_back({bytes, size, mark});
}

void save_text(Modelled &m, const std::string &text) {
    char *copy = nullptr;
    int32_t length = -1;
    const auto given = static_cast<int32_t>(text.size());
    check(cm_mem_savestr(m.pool, text.data(), given, &copy, &length) == 1 && length == given);
    check((copy == nullptr) == text.empty());
    if (copy == nullptr) return;
    check(memcmp(copy, text.c_str(), text.size() + 1) == 0);
    m.block_size = m.pool->block_size;
    m.used = m.pool->used;
    m.total = m.pool->total;
}

// The rules, character by character.
bool decode(const std::string &text, std::string *out) {
    int pending = -1;
    for (const char c : text) {
        const bool digit = c >= '0' && c <= '9', capital = c >= 'A' && c <= 'F';
        if (pending < 0 && !digit && !capital)
            *out += c;
        else if (pending < 0)
            pending = 16 * (digit ? c - '0' : c - 'A' + 10);
        else if (!digit && !capital)
            return false;
        else
            *out += static_cast<char>(digit ? pending + c - '0' : 2 * (c - 'A' + 10)), pending = -1;
    }
    return !text.empty();
}

void save_bytes(const std::string &text) {
    unsigned char *bytes = nullptr;
    int32_t length = -1;
    std::string expected;
    const bool decodes = decode(text, &expected);
    check(cm_mem_savebin(nullptr, text.data(), static_cast<int32_t>(text.size()), &bytes, &length) == decodes);
    if (decodes) check(std::string(bytes, bytes + length) == expected);
    cm_mem_free(nullptr, bytes);
}

void verify(const Modelled &m) {
    check(m.pool->block_size == m.block_size && m.pool->used == m.used && m.pool->total == m.total);
    for (const Piece &piece : m.pieces)
        check(piece.bytes[0] == piece.mark && piece.bytes[piece.size - 1] == piece.mark);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    Modelled pools[4];
    while (!input.empty()) {
        const uint32_t operation = input.byte();
        Modelled &m = pools[operation % 4];
        if (m.pool == nullptr) {
            open_pool(m, 1 + input.number(input.byte() % 4 == 0 ? 20000 : 300));
            continue;
        }
        switch (operation / 4 % 8) {
            case 0:
                verify(m);
                check(cm_mem_exit(m.pool) == 1);
                m = {};
                break;
            case 1:
                save_text(m, input.text(input.byte()));
                break;
            case 2:
                save_bytes(input.text(input.byte() % 32));
                break;
            case 3:
                allocate(m, input.number(40000), static_cast<unsigned char>(operation));
                break;
            default:
                allocate(m, input.number(200), static_cast<unsigned char>(operation));
                break;
        }
    }
    for (Modelled &m : pools)
        if (m.pool != nullptr) {
            verify(m);
            check(cm_mem_exit(m.pool) == 1);
        }
    return 0;
}
