// AES: the FIPS-197 example vectors and key expansions, both engines, and the buffer contract.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "protect/block_cipher.h"
#include "reference_crypto.h"

namespace {

std::vector<uint8_t> counting(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i);
  return v;
}

std::string hex(const uint8_t* p, size_t n) {
  std::string s;
  char b[3];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(b, sizeof b, "%02x", p[i]);
    s += b;
  }
  return s;
}

std::vector<BlockCipher::Engine> engines() {
  std::vector<BlockCipher::Engine> e = {BlockCipher::Engine::portable};
  if (BlockCipher::aes_ni_available()) e.push_back(BlockCipher::Engine::aes_ni);
  return e;
}

struct Vector {
  int code;
  size_t key_bytes;
  const char* cipher;
};
// FIPS-197 appendix C: key 00 01 02 ..., plaintext 00 11 22 ... ff.
const Vector kAppendixC[] = {{0, 16, "69c4e0d86a7b0430d8cdb78070b4c55a"},
                             {1, 24, "dda97ca4864cdfe06eaf70a0ec0d7191"},
                             {2, 32, "8ea2b7ca516745bfeafc49904b496089"}};

TEST(BlockCipher, Fips197ExampleVectorsWithEveryEngine) {
  const auto plain = ref::from_hex("00112233445566778899aabbccddeeff");
  for (BlockCipher::Engine engine : engines()) {
    for (const Vector& v : kAppendixC) {
      const auto key = counting(v.key_bytes);
      BlockCipher cipher(v.code, key.data(), engine);
      EXPECT_EQ(cipher.engine(), engine);
      uint8_t out[16], back[16];
      size_t out_length = 0;
      cipher.encipher_buffer(plain.data(), 16, out, &out_length);
      EXPECT_EQ(out_length, 16u);
      EXPECT_EQ(hex(out, 16), v.cipher) << "code " << v.code << " engine " << int(engine);
      cipher.decipher_buffer(out, back, 16);
      EXPECT_EQ(hex(back, 16), "00112233445566778899aabbccddeeff") << "code " << v.code;
    }
  }
  if (!BlockCipher::aes_ni_available()) std::printf("note: this CPU has no AES-NI; only the portable engine ran\n");
}

TEST(BlockCipher, KeyScheduleMatchesFips197AppendixA) {
  // Appendix A.1-A.3: the last expanded word of each example key; any code other than 0 or 1
  // means a 256-bit key.
  const auto k128 = ref::from_hex("2b7e151628aed2a6abf7158809cf4f3c");
  const auto k192 = ref::from_hex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b");
  const auto k256 = ref::from_hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
  BlockCipher a(0, k128.data()), b(1, k192.data()), c(7, k256.data());
  EXPECT_EQ(a.encipher_schedule().rounds, 10);
  EXPECT_EQ(a.encipher_schedule().words[4], 0xa0fafe17u);
  EXPECT_EQ(a.encipher_schedule().words[43], 0xb6630ca6u);
  EXPECT_EQ(b.encipher_schedule().rounds, 12);
  EXPECT_EQ(b.encipher_schedule().words[51], 0x01002202u);
  EXPECT_EQ(c.encipher_schedule().rounds, 14);
  EXPECT_EQ(c.encipher_schedule().words[59], 0x706c631eu);
  // The deciphering schedule starts with the last enciphering round key.
  EXPECT_EQ(a.decipher_schedule().rounds, 10);
  EXPECT_EQ(a.decipher_schedule().words[0], 0xd014f9a8u);
  EXPECT_EQ(a.decipher_schedule().words[40], 0x2b7e1516u);
}

TEST(BlockCipher, EnginesAgreeWithReferenceOnManyBlocks) {
  std::mt19937 rng(1234);
  std::vector<uint8_t> data(16 * 1000 + 16);
  for (auto& b : data) b = static_cast<uint8_t>(rng());
  for (const Vector& v : kAppendixC) {
    std::vector<uint8_t> key(v.key_bytes);
    for (auto& b : key) b = static_cast<uint8_t>(rng());
    const ref::Aes reference(key.data(), static_cast<int>(v.key_bytes));
    std::vector<uint8_t> expected(data.size());
    for (size_t i = 0; i < data.size(); i += 16) reference.encrypt(&data[i], &expected[i]);
    for (BlockCipher::Engine engine : engines()) {
      BlockCipher cipher(v.code, key.data(), engine);
      std::vector<uint8_t> out(data.size()), back(data.size());
      size_t out_length = 0;
      cipher.encipher_buffer(data.data(), data.size(), out.data(), &out_length);
      ASSERT_EQ(out_length, data.size());
      EXPECT_EQ(out, expected) << "code " << v.code << " engine " << int(engine);
      cipher.decipher_buffer(out.data(), back.data(), out.size());
      EXPECT_EQ(back, data);
    }
  }
}

TEST(BlockCipher, PartialLastBlockIsZeroPadded) {
  const auto key = counting(16);
  const ref::Aes reference(key.data(), 16);
  uint8_t plain[40];
  for (int i = 0; i < 40; ++i) plain[i] = static_cast<uint8_t>(0xa0 + i);
  for (BlockCipher::Engine engine : engines()) {
    BlockCipher cipher(0, key.data(), engine);
    uint8_t out[48 + 16];
    std::memset(out, 0xee, sizeof out);
    size_t out_length = 0;
    cipher.encipher_buffer(plain, 40, out, &out_length);
    EXPECT_EQ(out_length, 48u);
    uint8_t padded[16] = {}, expected[16];
    std::memcpy(padded, plain + 32, 8);
    reference.encrypt(padded, expected);
    EXPECT_EQ(hex(out + 32, 16), hex(expected, 16));
    EXPECT_EQ(out[48], 0xee) << "wrote past the rounded length";

    // Deciphering 40 bytes takes the input zero-padded too: the last block is bytes 32..39 of
    // the ciphertext followed by eight zeros, not the whole enciphered block.
    uint8_t back[48 + 16];
    std::memset(back, 0xee, sizeof back);
    cipher.decipher_buffer(out, back, 40);
    EXPECT_EQ(hex(back, 32), hex(plain, 32));
    uint8_t cut[16] = {}, expected_back[16];
    std::memcpy(cut, out + 32, 8);
    reference.decrypt(cut, expected_back);
    EXPECT_EQ(hex(back + 32, 16), hex(expected_back, 16));
    EXPECT_EQ(back[48], 0xee);
  }
}

}  // namespace
