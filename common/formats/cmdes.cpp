// DES (FIPS 46-3) as the traditional crypt uses it.
//
// A round takes the 32-bit right half through the expansion E to 48 bits, here two words of 24 (boxes 1-4 and 5-8), so
// that the salt is a swap of equal bit places between the two words.  The eight boxes and the permutation P behind them
// are merged into tables at compile time.  The bit permutations at both ends are done bit by bit: they run once per
// call, while the 400 rounds between them touch the merged tables only.
#include <array>
#include <bit>

#include "formats/cmcipher.h"

namespace cm::cipher {
namespace {

// The tables of the standard; bit 1 is the first bit of the input, the most significant one.
constexpr uint8_t kBoxes[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8, 14, 6,  11, 3,  4, 9, 7, 2,  13, 12, 0, 5, 10, 3,  13, 4,  7, 15, 2,  8, 14, 12, 0, 1, 10, 6, 9, 11, 5,
     0,  14, 7, 11, 10, 4,  13, 1, 5, 8, 12, 6,  9,  3, 2, 15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6, 7, 12, 0, 5, 14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0, 8, 13, 3,  12, 9, 7, 5, 10, 6, 1, 13, 0,  11, 7, 4, 9, 1,  10, 14, 3, 5, 12, 2,  15, 8, 6,
     1, 4,  11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5,  9, 2, 6,  11, 13, 8, 1, 4, 10, 7,  9,  5, 0, 15, 14, 2,  3, 12},
    {13, 2,  8, 4, 6, 15, 11, 1, 10, 9, 3,  14, 5,  0, 12, 7, 1, 15, 13, 8, 10, 3,  7, 4,  12, 5,  6, 11, 0, 14, 9, 2,
     7,  11, 4, 1, 9, 12, 14, 2, 0,  6, 10, 13, 15, 3, 5,  8, 2, 1,  14, 7, 4,  10, 8, 13, 15, 12, 9, 0,  3, 5,  6, 11},
};
constexpr uint8_t kP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                            2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};
constexpr uint8_t kPc1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18, 10, 2,  59, 51, 43,
                              35, 27, 19, 11, 3,  60, 52, 44, 36, 63, 55, 47, 39, 31, 23, 15, 7,  62, 54,
                              46, 38, 30, 22, 14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};
constexpr uint8_t kPc2[48] = {14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,
                              26, 8,  16, 7,  27, 20, 13, 2,  41, 52, 31, 37, 47, 55, 30, 40,
                              51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
constexpr uint8_t kShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

// The final permutation: output bit n is input bit kFinal[n].
constexpr uint8_t kFinal[64] = {40, 8,  48, 16, 56, 24, 64, 32, 39, 7,  47, 15, 55, 23, 63, 31, 38, 6,  46, 14, 54, 22,
                                62, 30, 37, 5,  45, 13, 53, 21, 61, 29, 36, 4,  44, 12, 52, 20, 60, 28, 35, 3,  43, 11,
                                51, 19, 59, 27, 34, 2,  42, 10, 50, 18, 58, 26, 33, 1,  41, 9,  49, 17, 57, 25};

template <size_t Count>
constexpr uint64_t permute(uint64_t value, int width, const uint8_t (&table)[Count]) {
    uint64_t result = 0;
    for (const uint8_t from : table) result = result << 1 | (value >> (width - from) & 1);
    return result;
}

using MergedBoxes = std::array<std::array<uint32_t, 64>, 8>;

constexpr MergedBoxes merge_boxes() {
    MergedBoxes merged{};
    for (unsigned box = 0; box < 8; box++)
        for (unsigned in = 0; in < 64; in++) {
            const unsigned row = (in >> 4 & 2) | (in & 1), column = in >> 1 & 15;
            const uint32_t out = static_cast<uint32_t>(kBoxes[box][row * 16 + column]) << (28 - 4 * box);
            merged[box][in] = static_cast<uint32_t>(permute(out, 32, kP));
        }
    return merged;
}

constexpr MergedBoxes kMerged = merge_boxes();

struct RoundKey {
    uint32_t high, low;  // 24 bits each
};

void schedule(uint64_t key, RoundKey (&out)[16]) {
    constexpr uint32_t kHalf = 0xFFFFFFF;
    const uint64_t chosen = permute(key, 64, kPc1);
    uint32_t c = static_cast<uint32_t>(chosen >> 28), d = static_cast<uint32_t>(chosen) & kHalf;
    for (int round = 0; round < 16; round++) {
        const int shift = kShifts[round];
        c = (c << shift | c >> (28 - shift)) & kHalf;
        d = (d << shift | d >> (28 - shift)) & kHalf;
        const uint64_t subkey = permute(static_cast<uint64_t>(c) << 28 | d, 56, kPc2);
        out[round] = {static_cast<uint32_t>(subkey >> 24), static_cast<uint32_t>(subkey) & 0xFFFFFF};
    }
}

// Six bits of the expansion for box n (0 to 7): bits 4n to 4n + 5 of the half, counted round its end.
constexpr uint32_t expanded(uint32_t half, int box) {
    return std::rotl(half, 4 * box + 5) & 63;
}

uint32_t round_function(uint32_t half, const RoundKey &key, uint32_t salt) {
    uint32_t high = expanded(half, 0) << 18 | expanded(half, 1) << 12 | expanded(half, 2) << 6 | expanded(half, 3);
    uint32_t low = expanded(half, 4) << 18 | expanded(half, 5) << 12 | expanded(half, 6) << 6 | expanded(half, 7);
    const uint32_t swapped = (high ^ low) & salt;
    high ^= swapped ^ key.high;
    low ^= swapped ^ key.low;
    return kMerged[0][high >> 18] ^ kMerged[1][high >> 12 & 63] ^ kMerged[2][high >> 6 & 63] ^ kMerged[3][high & 63] ^
           kMerged[4][low >> 18] ^ kMerged[5][low >> 12 & 63] ^ kMerged[6][low >> 6 & 63] ^ kMerged[7][low & 63];
}

// Salt bit 0 stands for the first bit of the expansion.
uint32_t salt_mask(uint32_t salt) {
    uint32_t mask = 0;
    for (int bit = 0; bit < 12; bit++)
        if (salt >> bit & 1) mask |= 1u << (23 - bit);
    return mask;
}

}  // namespace

void des_crypt(std::string_view text, uint32_t salt, char (&out)[11]) {
    uint64_t key = 0;  // seven bits of each character; the parity bits are not used
    for (size_t i = 0; i < 8; i++)
        key = key << 8 | (i < text.size() ? static_cast<uint64_t>(static_cast<uint8_t>(text[i])) << 1 & 0xFE : 0);
    RoundKey keys[16];
    schedule(key, keys);

    // The initial and the final permutation cancel out between the 25 runs, and the first of all changes nothing in a
    // block of zeros, so only the last one is left to do.
    const uint32_t mask = salt_mask(salt);
    uint32_t left = 0, right = 0;
    for (int run = 0; run < 25; run++) {
        for (int round = 0; round < 16; round += 2) {
            left ^= round_function(right, keys[round], mask);
            right ^= round_function(left, keys[round + 1], mask);
        }
        const uint32_t swap = left;
        left = right;
        right = swap;
    }
    const uint64_t block = permute(static_cast<uint64_t>(left) << 32 | right, 64, kFinal);
    for (int i = 0; i < 10; i++) out[i] = kCryptLetters[block >> (58 - 6 * i) & 63];
    out[10] = kCryptLetters[block << 2 & 63];
}

}  // namespace cm::cipher
