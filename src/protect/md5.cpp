#include "protect/md5.h"

#include <algorithm>
#include <cstring>
#include <iostream>

namespace {
inline uint32_t rotl(uint32_t x, int c) { return (x << c) | (x >> (32 - c)); }

// The round steps with the usual reductions of F and G (one operation fewer each).
#define MD5_F(x, y, z) ((z) ^ ((x) & ((y) ^ (z))))
#define MD5_G(x, y, z) ((y) ^ ((z) & ((x) ^ (y))))
#define MD5_H(x, y, z) ((x) ^ (y) ^ (z))
#define MD5_I(x, y, z) ((y) ^ ((x) | ~(z)))
#define MD5_STEP(f, a, b, c, d, x, t, s) \
  (a) += f((b), (c), (d)) + (x) + (t);   \
  (a) = rotl((a), (s)) + (b)

void compress(uint32_t state[4], const uint8_t* p) {
  uint32_t x[16];
  std::memcpy(x, p, 64);  // little-endian host: the words as RFC 1321 decodes them
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];

  MD5_STEP(MD5_F, a, b, c, d, x[0], 0xd76aa478, 7);
  MD5_STEP(MD5_F, d, a, b, c, x[1], 0xe8c7b756, 12);
  MD5_STEP(MD5_F, c, d, a, b, x[2], 0x242070db, 17);
  MD5_STEP(MD5_F, b, c, d, a, x[3], 0xc1bdceee, 22);
  MD5_STEP(MD5_F, a, b, c, d, x[4], 0xf57c0faf, 7);
  MD5_STEP(MD5_F, d, a, b, c, x[5], 0x4787c62a, 12);
  MD5_STEP(MD5_F, c, d, a, b, x[6], 0xa8304613, 17);
  MD5_STEP(MD5_F, b, c, d, a, x[7], 0xfd469501, 22);
  MD5_STEP(MD5_F, a, b, c, d, x[8], 0x698098d8, 7);
  MD5_STEP(MD5_F, d, a, b, c, x[9], 0x8b44f7af, 12);
  MD5_STEP(MD5_F, c, d, a, b, x[10], 0xffff5bb1, 17);
  MD5_STEP(MD5_F, b, c, d, a, x[11], 0x895cd7be, 22);
  MD5_STEP(MD5_F, a, b, c, d, x[12], 0x6b901122, 7);
  MD5_STEP(MD5_F, d, a, b, c, x[13], 0xfd987193, 12);
  MD5_STEP(MD5_F, c, d, a, b, x[14], 0xa679438e, 17);
  MD5_STEP(MD5_F, b, c, d, a, x[15], 0x49b40821, 22);

  MD5_STEP(MD5_G, a, b, c, d, x[1], 0xf61e2562, 5);
  MD5_STEP(MD5_G, d, a, b, c, x[6], 0xc040b340, 9);
  MD5_STEP(MD5_G, c, d, a, b, x[11], 0x265e5a51, 14);
  MD5_STEP(MD5_G, b, c, d, a, x[0], 0xe9b6c7aa, 20);
  MD5_STEP(MD5_G, a, b, c, d, x[5], 0xd62f105d, 5);
  MD5_STEP(MD5_G, d, a, b, c, x[10], 0x02441453, 9);
  MD5_STEP(MD5_G, c, d, a, b, x[15], 0xd8a1e681, 14);
  MD5_STEP(MD5_G, b, c, d, a, x[4], 0xe7d3fbc8, 20);
  MD5_STEP(MD5_G, a, b, c, d, x[9], 0x21e1cde6, 5);
  MD5_STEP(MD5_G, d, a, b, c, x[14], 0xc33707d6, 9);
  MD5_STEP(MD5_G, c, d, a, b, x[3], 0xf4d50d87, 14);
  MD5_STEP(MD5_G, b, c, d, a, x[8], 0x455a14ed, 20);
  MD5_STEP(MD5_G, a, b, c, d, x[13], 0xa9e3e905, 5);
  MD5_STEP(MD5_G, d, a, b, c, x[2], 0xfcefa3f8, 9);
  MD5_STEP(MD5_G, c, d, a, b, x[7], 0x676f02d9, 14);
  MD5_STEP(MD5_G, b, c, d, a, x[12], 0x8d2a4c8a, 20);

  MD5_STEP(MD5_H, a, b, c, d, x[5], 0xfffa3942, 4);
  MD5_STEP(MD5_H, d, a, b, c, x[8], 0x8771f681, 11);
  MD5_STEP(MD5_H, c, d, a, b, x[11], 0x6d9d6122, 16);
  MD5_STEP(MD5_H, b, c, d, a, x[14], 0xfde5380c, 23);
  MD5_STEP(MD5_H, a, b, c, d, x[1], 0xa4beea44, 4);
  MD5_STEP(MD5_H, d, a, b, c, x[4], 0x4bdecfa9, 11);
  MD5_STEP(MD5_H, c, d, a, b, x[7], 0xf6bb4b60, 16);
  MD5_STEP(MD5_H, b, c, d, a, x[10], 0xbebfbc70, 23);
  MD5_STEP(MD5_H, a, b, c, d, x[13], 0x289b7ec6, 4);
  MD5_STEP(MD5_H, d, a, b, c, x[0], 0xeaa127fa, 11);
  MD5_STEP(MD5_H, c, d, a, b, x[3], 0xd4ef3085, 16);
  MD5_STEP(MD5_H, b, c, d, a, x[6], 0x04881d05, 23);
  MD5_STEP(MD5_H, a, b, c, d, x[9], 0xd9d4d039, 4);
  MD5_STEP(MD5_H, d, a, b, c, x[12], 0xe6db99e5, 11);
  MD5_STEP(MD5_H, c, d, a, b, x[15], 0x1fa27cf8, 16);
  MD5_STEP(MD5_H, b, c, d, a, x[2], 0xc4ac5665, 23);

  MD5_STEP(MD5_I, a, b, c, d, x[0], 0xf4292244, 6);
  MD5_STEP(MD5_I, d, a, b, c, x[7], 0x432aff97, 10);
  MD5_STEP(MD5_I, c, d, a, b, x[14], 0xab9423a7, 15);
  MD5_STEP(MD5_I, b, c, d, a, x[5], 0xfc93a039, 21);
  MD5_STEP(MD5_I, a, b, c, d, x[12], 0x655b59c3, 6);
  MD5_STEP(MD5_I, d, a, b, c, x[3], 0x8f0ccc92, 10);
  MD5_STEP(MD5_I, c, d, a, b, x[10], 0xffeff47d, 15);
  MD5_STEP(MD5_I, b, c, d, a, x[1], 0x85845dd1, 21);
  MD5_STEP(MD5_I, a, b, c, d, x[8], 0x6fa87e4f, 6);
  MD5_STEP(MD5_I, d, a, b, c, x[15], 0xfe2ce6e0, 10);
  MD5_STEP(MD5_I, c, d, a, b, x[6], 0xa3014314, 15);
  MD5_STEP(MD5_I, b, c, d, a, x[13], 0x4e0811a1, 21);
  MD5_STEP(MD5_I, a, b, c, d, x[4], 0xf7537e82, 6);
  MD5_STEP(MD5_I, d, a, b, c, x[11], 0xbd3af235, 10);
  MD5_STEP(MD5_I, c, d, a, b, x[2], 0x2ad7d2bb, 15);
  MD5_STEP(MD5_I, b, c, d, a, x[9], 0xeb86d391, 21);

  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
}
}  // namespace

MD5::MD5() : state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476} {}

MD5::MD5(std::istream& stream) : MD5() {
  char chunk[16384];
  while (stream) {
    stream.read(chunk, sizeof chunk);
    const std::streamsize got = stream.gcount();
    if (got <= 0) break;
    update(chunk, static_cast<size_t>(got));
  }
  finalize();
}

void MD5::blocks(const uint8_t* data, size_t count) {
  for (size_t i = 0; i < count; ++i) compress(state_, data + 64 * i);
}

void MD5::update(const void* data, size_t length) {
  if (finalized_) {
    std::cerr << "MD5::update:  Can't update a finalized digest!" << std::endl;
    return;
  }
  const uint8_t* p = static_cast<const uint8_t*>(data);
  length_ += length;
  if (buffered_ > 0) {
    const size_t take = std::min(length, 64 - buffered_);
    std::memcpy(buffer_ + buffered_, p, take);
    buffered_ += take;
    p += take;
    length -= take;
    if (buffered_ < 64) return;
    blocks(buffer_, 1);
    buffered_ = 0;
  }
  blocks(p, length / 64);  // whole blocks straight from the caller's memory
  p += length / 64 * 64;
  length %= 64;
  std::memcpy(buffer_, p, length);
  buffered_ = length;
}

void MD5::finalize() {
  if (finalized_) {
    std::cerr << "MD5::finalize:  Already finalized this digest!" << std::endl;
    return;
  }
  const uint64_t bits = length_ * 8;
  uint8_t pad[72] = {0x80};
  const size_t pad_len = (buffered_ < 56 ? 56 : 120) - buffered_;
  for (int i = 0; i < 8; ++i) pad[pad_len + i] = static_cast<uint8_t>(bits >> (8 * i));
  update(pad, pad_len + 8);
  std::memcpy(digest_, state_, 16);  // little-endian words, as RFC 1321 encodes them
  finalized_ = true;
}

std::array<uint8_t, 16> MD5::raw_digest() const {
  std::array<uint8_t, 16> out{};
  if (!finalized_) {
    std::cerr << "MD5::raw_digest:  Can't get digest if you haven't finalized the digest!" << std::endl;
    return out;
  }
  std::memcpy(out.data(), digest_, 16);
  return out;
}

std::string MD5::hex_digest() const {
  if (!finalized_) {
    std::cerr << "MD5::hex_digest:  Can't get digest if you haven't finalized the digest!" << std::endl;
    return std::string();
  }
  static const char kHex[] = "0123456789abcdef";
  std::string out(32, '0');
  for (int i = 0; i < 16; ++i) {
    out[2 * i] = kHex[digest_[i] >> 4];
    out[2 * i + 1] = kHex[digest_[i] & 15];
  }
  return out;
}
