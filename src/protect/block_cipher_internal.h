// Shared between the portable and the AES-NI halves of BlockCipher.
#pragma once
#include <cstddef>
#include <cstdint>

namespace block_cipher_detail {
// Enciphers/deciphers `count` 16-byte blocks with round keys laid out as bytes, (rounds + 1) * 16.
void aesni_encipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count);
void aesni_decipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count);
}  // namespace block_cipher_detail
