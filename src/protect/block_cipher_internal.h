// Shared between the portable and the AES-NI halves of BlockCipher.
#pragma once
#include <cstddef>
#include <cstdint>

namespace block_cipher_detail {
// Enciphers/deciphers `count` 16-byte blocks with round keys laid out as bytes, (rounds + 1) * 16.
void aesni_encipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count);
void aesni_decipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count);
// Enciphers `count` blocks in place, eight at a time, calling observe(context, stretch, size) on
// each stretch of up to 128 bytes before its blocks are enciphered.
void aesni_encipher_observed(const uint8_t* round_keys, int rounds, uint8_t* data, size_t count,
                             void (*observe)(void*, const uint8_t*, size_t), void* context);
}  // namespace block_cipher_detail
