// Small, slow, independent AES and MD5 used to compute expected bytes in the tests. Written
// from FIPS-197 and RFC 1321 directly (state matrix, S-box by inversion, sine-derived MD5
// constants), deliberately unlike the product's table-driven code.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <string>
#include <vector>

namespace ref {

inline uint8_t xtime(uint8_t a) { return static_cast<uint8_t>((a << 1) ^ ((a >> 7) * 0x1b)); }
inline uint8_t mul(uint8_t a, uint8_t b) {
  uint8_t p = 0;
  for (int i = 0; i < 8; ++i) {
    if (b & (1 << i)) p ^= a;
    a = xtime(a);
  }
  return p;
}

inline uint8_t sbox(uint8_t x) {
  uint8_t inv = 0;
  for (int c = 1; c < 256 && x != 0; ++c)
    if (mul(x, static_cast<uint8_t>(c)) == 1) inv = static_cast<uint8_t>(c);
  uint8_t out = 0;
  for (int i = 0; i < 8; ++i) {
    const int bit = ((inv >> i) ^ (inv >> ((i + 4) % 8)) ^ (inv >> ((i + 5) % 8)) ^ (inv >> ((i + 6) % 8)) ^
                     (inv >> ((i + 7) % 8)) ^ (0x63 >> i)) & 1;
    out |= static_cast<uint8_t>(bit << i);
  }
  return out;
}

struct Aes {
  uint8_t s[256], si[256];
  std::vector<std::vector<uint8_t>> round_keys;  // (Nr + 1) keys of 16 bytes, FIPS-197 5.2

  Aes(const uint8_t* key, int key_bytes) {
    for (int i = 0; i < 256; ++i) {
      s[i] = sbox(static_cast<uint8_t>(i));
      si[s[i]] = static_cast<uint8_t>(i);
    }
    const int nk = key_bytes / 4, nr = nk + 6;
    std::vector<uint8_t> w(key, key + key_bytes);
    uint8_t rcon = 1;
    for (int i = nk; i < 4 * (nr + 1); ++i) {
      uint8_t t[4] = {w[4 * (i - 1)], w[4 * (i - 1) + 1], w[4 * (i - 1) + 2], w[4 * (i - 1) + 3]};
      if (i % nk == 0) {
        const uint8_t first = t[0];
        t[0] = static_cast<uint8_t>(s[t[1]] ^ rcon);
        t[1] = s[t[2]];
        t[2] = s[t[3]];
        t[3] = s[first];
        rcon = xtime(rcon);
      } else if (nk > 6 && i % nk == 4) {
        for (uint8_t& b : t) b = s[b];
      }
      for (int j = 0; j < 4; ++j) w.push_back(static_cast<uint8_t>(w[4 * (i - nk) + j] ^ t[j]));
    }
    for (int r = 0; r <= nr; ++r) round_keys.emplace_back(w.begin() + 16 * r, w.begin() + 16 * r + 16);
  }

  // state[r][c] = in[r + 4c]
  void encrypt(const uint8_t* in, uint8_t* out) const {
    uint8_t st[4][4];
    for (int c = 0; c < 4; ++c)
      for (int r = 0; r < 4; ++r) st[r][c] = in[r + 4 * c];
    const int nr = static_cast<int>(round_keys.size()) - 1;
    add(st, 0);
    for (int round = 1; round <= nr; ++round) {
      for (auto& row : st)
        for (uint8_t& b : row) b = s[b];
      shift_rows(st, false);
      if (round != nr) mix(st, 2, 3, 1, 1);
      add(st, round);
    }
    for (int c = 0; c < 4; ++c)
      for (int r = 0; r < 4; ++r) out[r + 4 * c] = st[r][c];
  }

  void decrypt(const uint8_t* in, uint8_t* out) const {
    uint8_t st[4][4];
    for (int c = 0; c < 4; ++c)
      for (int r = 0; r < 4; ++r) st[r][c] = in[r + 4 * c];
    const int nr = static_cast<int>(round_keys.size()) - 1;
    add(st, nr);
    for (int round = nr - 1; round >= 0; --round) {
      shift_rows(st, true);
      for (auto& row : st)
        for (uint8_t& b : row) b = si[b];
      add(st, round);
      if (round != 0) mix(st, 14, 11, 13, 9);
    }
    for (int c = 0; c < 4; ++c)
      for (int r = 0; r < 4; ++r) out[r + 4 * c] = st[r][c];
  }

 private:
  void add(uint8_t st[4][4], int round) const {
    for (int c = 0; c < 4; ++c)
      for (int r = 0; r < 4; ++r) st[r][c] ^= round_keys[round][4 * c + r];
  }
  static void shift_rows(uint8_t st[4][4], bool inverse) {
    for (int r = 1; r < 4; ++r) {
      uint8_t row[4];
      for (int c = 0; c < 4; ++c) row[c] = st[r][inverse ? (c + 4 - r) % 4 : (c + r) % 4];
      for (int c = 0; c < 4; ++c) st[r][c] = row[c];
    }
  }
  // Column times the circulant matrix (a b c d).
  static void mix(uint8_t st[4][4], uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t m[4] = {a, b, c, d};
    for (int col = 0; col < 4; ++col) {
      uint8_t v[4];
      for (int r = 0; r < 4; ++r) v[r] = st[r][col];
      for (int r = 0; r < 4; ++r) {
        uint8_t x = 0;
        for (int k = 0; k < 4; ++k) x ^= mul(v[k], m[(k - r + 4) % 4]);
        st[r][col] = x;
      }
    }
  }
};

inline std::string md5_hex(const std::string& message) {
  uint32_t k[64];
  for (int i = 0; i < 64; ++i) k[i] = static_cast<uint32_t>(std::floor(std::fabs(std::sin(i + 1.0)) * 4294967296.0));
  static const int shifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  std::string m = message;
  const uint64_t bits = static_cast<uint64_t>(message.size()) * 8;
  m.push_back(static_cast<char>(0x80));
  while (m.size() % 64 != 56) m.push_back('\0');
  for (int i = 0; i < 8; ++i) m.push_back(static_cast<char>((bits >> (8 * i)) & 0xff));
  uint32_t h[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  for (size_t off = 0; off < m.size(); off += 64) {
    uint32_t x[16];
    for (int i = 0; i < 16; ++i) {
      x[i] = 0;
      for (int j = 3; j >= 0; --j) x[i] = (x[i] << 8) | static_cast<uint8_t>(m[off + 4 * i + j]);
    }
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
    for (int i = 0; i < 64; ++i) {
      uint32_t f;
      int g;
      switch (i / 16) {
        case 0: f = (b & c) | (~b & d); g = i; break;
        case 1: f = (d & b) | (~d & c); g = (5 * i + 1) % 16; break;
        case 2: f = b ^ c ^ d; g = (3 * i + 5) % 16; break;
        default: f = c ^ (b | ~d); g = (7 * i) % 16; break;
      }
      const uint32_t sum = a + f + k[i] + x[g];
      const int sh = shifts[i / 16][i % 4];
      a = d;
      d = c;
      c = b;
      b = b + ((sum << sh) | (sum >> (32 - sh)));
    }
    h[0] += a; h[1] += b; h[2] += c; h[3] += d;
  }
  std::string hex;
  char buf[3];
  for (uint32_t word : h)
    for (int j = 0; j < 4; ++j) {
      std::snprintf(buf, sizeof buf, "%02x", (word >> (8 * j)) & 0xff);
      hex += buf;
    }
  return hex;
}

inline std::vector<uint8_t> from_hex(const std::string& hex) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return out;
}

// The whole encrypted file for `plain` under `key_material` (32 bytes), as the format says.
inline std::string encrypted_file(const std::string& plain, const uint8_t* key_material) {
  std::string out("\x01\x02\x03\x04\x10\x20\x30\x40", 8);
  out += md5_hex(plain);
  out.push_back('\0');
  const Aes aes(key_material, 16);
  for (size_t chunk = 0; chunk < plain.size() || (plain.empty() && false); chunk += 65536) {
    const size_t len = std::min<size_t>(65536, plain.size() - chunk);
    const size_t r = len % 16;
    for (size_t b = 0; b + 16 <= len; b += 16) {
      uint8_t block[16];
      aes.encrypt(reinterpret_cast<const uint8_t*>(plain.data() + chunk + b), block);
      out.append(reinterpret_cast<const char*>(block), 16);
    }
    for (size_t j = 0; j < r; ++j) out.push_back(static_cast<char>(plain[chunk + len - r + j] ^ key_material[r - j]));
  }
  return out;
}

}  // namespace ref
