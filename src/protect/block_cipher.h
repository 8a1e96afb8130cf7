// AES block cipher (FIPS-197) with 128-, 192- and 256-bit keys, ECB over buffers.
#pragma once
#include <cstddef>
#include <cstdint>

class BlockCipher {
 public:
  enum class Engine { automatic, portable, aes_ni };
  // One key schedule: round-key words (big-endian loads of the key bytes) and the round count.
  struct Schedule {
    uint32_t words[60];
    int32_t rounds;
  };

  // key_size_code 0: 128-bit key (10 rounds), 1: 192-bit (12), anything else: 256-bit (14).
  // Expands the enciphering and deciphering schedules. `automatic` uses AES-NI when the CPU has
  // it; asking for aes_ni on a CPU without it falls back to the portable code.
  BlockCipher(int key_size_code, const uint8_t* key, Engine engine = Engine::automatic);
  ~BlockCipher();
  BlockCipher(const BlockCipher&) = delete;
  BlockCipher& operator=(const BlockCipher&) = delete;

  // Sets *out_length to length rounded up to 16 and enciphers that many bytes into out, the
  // last partial block taken as zero-padded. out must hold *out_length bytes.
  void encipher_buffer(const uint8_t* in, size_t length, uint8_t* out, size_t* out_length) const;
  // Called with each stretch of plaintext (at most 128 bytes, in order) just before it is enciphered.
  using Observer = void (*)(void* context, const uint8_t* bytes, size_t size);
  // Enciphers the whole blocks of `length` bytes in place (length rounded down to 16), showing
  // every stretch to `observe` first: a digest of the plaintext taken in the same pass, whose
  // serial work the AES-NI instructions of the stretch before overlap.
  void encipher_in_place_observed(uint8_t* data, size_t length, Observer observe, void* context) const;
  // Deciphers length bytes (rounded up to 16, the last partial block zero-padded) into out.
  void decipher_buffer(const uint8_t* in, uint8_t* out, size_t length) const;

  const Schedule& encipher_schedule() const { return enc_; }
  const Schedule& decipher_schedule() const { return dec_; }
  Engine engine() const { return engine_; }

  // CPUID leaf 1, ECX bit 25; asked once per process.
  static bool aes_ni_available();

 private:
  void blocks(bool encipher, const uint8_t* in, uint8_t* out, size_t count) const;

  Schedule enc_;
  Schedule dec_;
  Engine engine_;
  // The schedules as round-key bytes, in the order the AES-NI instructions take them.
  alignas(16) uint8_t ni_enc_[15 * 16];
  alignas(16) uint8_t ni_dec_[15 * 16];
};
