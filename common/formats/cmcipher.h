// Cores of the ciphers, apart from contexts and texts.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string_view>

namespace cm::cipher {

constexpr size_t kKeySize = 32;
constexpr size_t kNonceSize = 12;

// The ChaCha20 stream of RFC 8439, 2.4, from block `counter` on: the same call encrypts and decrypts, in place.
void chacha20(std::span<const uint8_t, kKeySize> key, std::span<const uint8_t, kNonceSize> nonce, uint32_t counter,
              std::span<uint8_t> data);

// The digits of salts and results, by value.
inline constexpr std::string_view kCryptLetters = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

// The traditional one-way transformation of a password: 25 rounds of DES over a block of zeros, keyed by the first
// eight characters and perturbed by a salt of 12 bits.  The result is 11 characters, not terminated.
void des_crypt(std::string_view text, uint32_t salt, char (&out)[11]);

}  // namespace cm::cipher
