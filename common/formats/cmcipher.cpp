// Texts made unreadable: the two-way cipher of configuration values and the
// one-way form of passwords.
//
// The two-way cipher makes the same text every time, so that a value that was
// not changed is not rewritten.  It is built from ChaCha20 alone:
//
//   hash(purpose, text)   a sponge over the ChaCha permutation (20 rounds,
//   without the final addition): the first
//                         32 bytes of the state take the input, the other 32
//                         are never shown.  The purpose is one of the words of
//                         the hidden half, so the two uses below are two
//                         different functions.
//   keys                  hash(1, phrase) gives 64 bytes: the key of the cipher
//   and the key of the tag. tag                   hash(2, tag key + text), 12
//   bytes; it serves as the nonce, so that two different texts never
//                         share a key stream, and as the check that the phrase
//                         is the right one.
//   text                  the format digit "1", then tag and cipher text in
//   capital hexadecimal digits.
//
// It hides a value from a glance at a file.  It protects nothing from somebody
// who has the program and its settings.
#include "formats/cmcipher.h"

#include <string.h>

#include <algorithm>
#include <bit>

#include "core/cmerror.h"
#include "core/cmmemory.h"
#include "core/cmstring.h"

namespace cm::cipher {
namespace {

constexpr char kFormat = '1';
constexpr size_t kOverhead = 1 + 2 * kNonceSize;

uint32_t load32(const uint8_t *from) {
  return static_cast<uint32_t>(from[0]) | static_cast<uint32_t>(from[1]) << 8 |
         static_cast<uint32_t>(from[2]) << 16 |
         static_cast<uint32_t>(from[3]) << 24;
}

void store32(uint8_t *to, uint32_t value) {
  for (int i = 0; i < 4; i++)
    to[i] = static_cast<uint8_t>(value >> 8 * i);
}

void quarter_round(uint32_t &a, uint32_t &b, uint32_t &c, uint32_t &d) {
  a += b, d = std::rotl(d ^ a, 16);
  c += d, b = std::rotl(b ^ c, 12);
  a += b, d = std::rotl(d ^ a, 8);
  c += d, b = std::rotl(b ^ c, 7);
}

void permute(uint32_t (&s)[16]) {
  for (int i = 0; i < 10; i++) {
    quarter_round(s[0], s[4], s[8], s[12]);
    quarter_round(s[1], s[5], s[9], s[13]);
    quarter_round(s[2], s[6], s[10], s[14]);
    quarter_round(s[3], s[7], s[11], s[15]);
    quarter_round(s[0], s[5], s[10], s[15]);
    quarter_round(s[1], s[6], s[11], s[12]);
    quarter_round(s[2], s[7], s[8], s[13]);
    quarter_round(s[3], s[4], s[9], s[14]);
  }
}

constexpr uint32_t kConstants[4] = {0x61707865, 0x3320646e, 0x79622d32,
                                    0x6b206574}; // "expand 32-byte k"

class Hash {
public:
  explicit Hash(uint32_t purpose) {
    std::copy_n(kConstants, 4, state_ + 8);
    state_[12] = purpose;
  }

  void add(std::span<const uint8_t> data) {
    for (const uint8_t byte : data) {
      mix(byte);
      if (++filled_ == kRate)
        next();
    }
  }

  // Ends the input and gives the first `out.size()` bytes of the result.
  void finish(std::span<uint8_t> out) {
    mix(0x01);
    filled_ = kRate - 1;
    mix(0x80);
    for (size_t at = 0; at < out.size(); at++) {
      if (at % kRate == 0)
        next();
      out[at] = static_cast<uint8_t>(state_[at % kRate / 4] >> 8 * (at % 4));
    }
  }

private:
  static constexpr size_t kRate = 32;

  void mix(uint8_t byte) {
    state_[filled_ / 4] ^= static_cast<uint32_t>(byte) << 8 * (filled_ % 4);
  }
  void next() {
    permute(state_);
    filled_ = 0;
  }

  uint32_t state_[16] = {};
  size_t filled_ = 0;
};

struct Keys { // what cm_context.cipher points to
  uint8_t cipher[kKeySize];
  uint8_t tag[kKeySize];
};

enum Purpose : uint32_t { kKeysOfPhrase = 1, kTagOfText = 2, kKeyOfData = 3 };

std::span<const uint8_t> bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

void make_tag(const Keys &keys, std::span<const uint8_t> text,
              uint8_t (&out)[kNonceSize]) {
  Hash hash(kTagOfText);
  hash.add(keys.tag);
  hash.add(text);
  hash.finish(out);
}

char *put_hex(char *at, std::span<const uint8_t> data) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (const uint8_t byte : data) {
    *at++ = kDigits[byte >> 4];
    *at++ = kDigits[byte & 15];
  }
  return at;
}

int hex_value(char c) {
  if (is_digit(c))
    return c - '0';
  const char folded = fold(c);
  return folded >= 'a' && folded <= 'f' ? folded - 'a' + 10 : -1;
}

bool take_hex(const char *text, std::span<uint8_t> out) {
  for (uint8_t &byte : out) {
    const int high = hex_value(*text++), low = hex_value(*text++);
    if (high < 0 || low < 0)
      return false;
    byte = static_cast<uint8_t>(high << 4 | low);
  }
  return true;
}

int16_t refuse(cm_context *ctx, const char *function, const char *why) {
  report(ctx, CM_ERROR, "%s() %s", function, why);
  return 0;
}

constexpr char kNotStarted[] = "The cipher is not initialized.";
constexpr char kTooSmall[] = "Buffer provided is too small.";
constexpr char kForeign[] = "The text was not encrypted under this phrase.";

int salt_value(char c) {
  const size_t at = kCryptLetters.find(c);
  return at == kCryptLetters.npos ? -1 : static_cast<int>(at);
}

} // namespace

void chacha20(std::span<const uint8_t, kKeySize> key,
              std::span<const uint8_t, kNonceSize> nonce, uint32_t counter,
              std::span<uint8_t> data) {
  uint32_t start[16];
  std::copy_n(kConstants, 4, start);
  for (size_t i = 0; i < 8; i++)
    start[4 + i] = load32(&key[4 * i]);
  for (size_t i = 0; i < 3; i++)
    start[13 + i] = load32(&nonce[4 * i]);
  while (!data.empty()) {
    start[12] = counter++;
    uint32_t state[16];
    std::copy_n(start, 16, state);
    permute(state);
    uint8_t stream[64];
    for (size_t i = 0; i < 16; i++)
      store32(stream + 4 * i, state[i] + start[i]);
    const size_t count = std::min(data.size(), sizeof stream);
    for (size_t i = 0; i < count; i++)
      data[i] ^= stream[i];
    data = data.subspan(count);
  }
}

} // namespace cm::cipher

using namespace cm::cipher;

int16_t cm_twowayinit(cm_context *ctx, const char *phrase) {
  if (ctx == nullptr)
    return 0;
  if (ctx->cipher == nullptr)
    ctx->cipher = cm::shared_allocate(ctx, sizeof(Keys));
  if (ctx->cipher == nullptr)
    return 0;
  Hash hash(kKeysOfPhrase);
  hash.add(bytes(cm::view(phrase, CM_LEN_TEXT)));
  hash.finish({static_cast<uint8_t *>(ctx->cipher), sizeof(Keys)});
  return 1;
}

int16_t cm_twowayencrypt(cm_context *ctx, const char *text, int32_t length,
                         char *out, int32_t size, int32_t *out_length) {
  if (out_length != nullptr)
    *out_length = 0;
  if (ctx == nullptr || out == nullptr)
    return 0;
  if (ctx->cipher == nullptr)
    return refuse(ctx, "cm_twowayencrypt", kNotStarted);
  const std::span<const uint8_t> plain = bytes(cm::view(text, length));
  const int64_t needed = static_cast<int64_t>(kOverhead + 2 * uint64_t{plain.size()});
  if (needed >= size)
    return refuse(ctx, "cm_twowayencrypt", kTooSmall);

  const Keys &keys = *static_cast<const Keys *>(ctx->cipher);
  uint8_t tag[kNonceSize];
  make_tag(keys, plain, tag);
  *out = kFormat;
  char *const body = put_hex(out + 1, tag);
  // The cipher text is made in the second half of its place and spread out from
  // there, front to back: the writing end meets the reading end only at the
  // last byte.
  uint8_t *const packed = reinterpret_cast<uint8_t *>(body) + plain.size();
  if (!plain.empty())
    memcpy(packed, plain.data(), plain.size());
  chacha20(keys.cipher, tag, 1, {packed, plain.size()});
  *put_hex(body, {packed, plain.size()}) = 0;
  if (out_length != nullptr)
    *out_length = static_cast<int32_t>(needed);
  return 1;
}

int16_t cm_twowaydecrypt(cm_context *ctx, const char *text, int32_t length,
                         char *out, int32_t size, int32_t *out_length) {
  if (out_length != nullptr)
    *out_length = 0;
  if (ctx == nullptr || out == nullptr)
    return 0;
  if (ctx->cipher == nullptr)
    return refuse(ctx, "cm_twowaydecrypt", kNotStarted);
  const std::string_view sealed = cm::view(text, length);
  if (sealed.size() < kOverhead || sealed.front() != kFormat ||
      (sealed.size() - kOverhead) % 2 != 0)
    return refuse(ctx, "cm_twowaydecrypt", kForeign);
  const size_t count = (sealed.size() - kOverhead) / 2;
  if (static_cast<int64_t>(count) >= size)
    return refuse(ctx, "cm_twowaydecrypt", kTooSmall);

  const Keys &keys = *static_cast<const Keys *>(ctx->cipher);
  const std::span<uint8_t> plain{reinterpret_cast<uint8_t *>(out), count};
  uint8_t tag[kNonceSize], expected[kNonceSize];
  bool ours = take_hex(sealed.data() + 1, tag) &&
              take_hex(sealed.data() + kOverhead, plain);
  if (ours) {
    chacha20(keys.cipher, tag, 1, plain);
    make_tag(keys, plain, expected);
    ours = memcmp(tag, expected, sizeof tag) == 0;
  }
  out[ours ? count : 0] = 0;
  if (!ours)
    return refuse(ctx, "cm_twowaydecrypt", kForeign);
  if (out_length != nullptr)
    *out_length = static_cast<int32_t>(count);
  return 1;
}

int16_t cm_crypt(const char *text, const char *salt, char *out, int32_t size) {
  constexpr int32_t kResultSize = 2 + 11 + 1;
  if (text == nullptr || out == nullptr || size < kResultSize)
    return 0;
  char head[2]; // a copy, since the stored text that is checked may stand in
                // `out`
  if (salt == nullptr || *salt == 0) {
    for (char &letter : head)
      letter = kCryptLetters[cm_random(0, 63) & 63];
  } else {
    head[0] = salt[0];
    head[1] = salt[1];
  }
  const int first = salt_value(head[0]), second = salt_value(head[1]);
  *out = 0;
  if (first < 0 || second < 0)
    return 0;
  char result[11];
  des_crypt(text, static_cast<uint32_t>(first | second << 6), result);
  memcpy(out, head, sizeof head);
  memcpy(out + sizeof head, result, sizeof result);
  out[kResultSize - 1] = 0;
  return 1;
}
