#include "protect/block_cipher.h"

#include <cpuid.h>
#include <windows.h>

#include <atomic>
#include <cstring>

#include "protect/block_cipher_internal.h"

namespace {

// Tables of the table-driven cipher, computed at compile time from GF(2^8) arithmetic.
constexpr uint8_t gmul(uint8_t a, uint8_t b) {
  uint8_t r = 0;
  while (b) {
    if (b & 1) r ^= a;
    a = static_cast<uint8_t>((a << 1) ^ ((a & 0x80) ? 0x1b : 0));
    b >>= 1;
  }
  return r;
}

struct Tables {
  uint8_t s[256] = {};
  uint8_t si[256] = {};
  uint32_t te[4][256] = {};
  uint32_t td[4][256] = {};
};

constexpr uint32_t ror8(uint32_t w) { return (w >> 8) | (w << 24); }

constexpr Tables make_tables() {
  Tables t;
  // Powers of the generator 3 give the multiplicative inverses.
  uint8_t exp[256] = {}, log[256] = {};
  uint8_t x = 1;
  for (int i = 0; i < 255; ++i) {
    exp[i] = x;
    log[x] = static_cast<uint8_t>(i);
    x = gmul(x, 3);
  }
  for (int i = 0; i < 256; ++i) {
    const uint8_t inv = i == 0 ? 0 : exp[(255 - log[i]) % 255];
    uint8_t b = inv, s = inv;
    for (int k = 0; k < 4; ++k) {
      b = static_cast<uint8_t>((b << 1) | (b >> 7));
      s ^= b;
    }
    s ^= 0x63;
    t.s[i] = s;
    t.si[s] = static_cast<uint8_t>(i);
  }
  for (int i = 0; i < 256; ++i) {
    const uint8_t s = t.s[i];
    const uint32_t e = (uint32_t(gmul(s, 2)) << 24) | (uint32_t(s) << 16) | (uint32_t(s) << 8) | gmul(s, 3);
    const uint8_t v = t.si[i];
    const uint32_t d = (uint32_t(gmul(v, 14)) << 24) | (uint32_t(gmul(v, 9)) << 16) |
                       (uint32_t(gmul(v, 13)) << 8) | gmul(v, 11);
    t.te[0][i] = e;
    t.te[1][i] = ror8(e);
    t.te[2][i] = ror8(ror8(e));
    t.te[3][i] = ror8(ror8(ror8(e)));
    t.td[0][i] = d;
    t.td[1][i] = ror8(d);
    t.td[2][i] = ror8(ror8(d));
    t.td[3][i] = ror8(ror8(ror8(d)));
  }
  return t;
}

constexpr Tables T = make_tables();

inline uint32_t load_be(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline void store_be(uint8_t* p, uint32_t w) {
  p[0] = uint8_t(w >> 24);
  p[1] = uint8_t(w >> 16);
  p[2] = uint8_t(w >> 8);
  p[3] = uint8_t(w);
}
inline uint32_t sub_word(uint32_t w) {
  return (uint32_t(T.s[w >> 24]) << 24) | (uint32_t(T.s[(w >> 16) & 0xff]) << 16) |
         (uint32_t(T.s[(w >> 8) & 0xff]) << 8) | T.s[w & 0xff];
}

void expand_enciphering(const uint8_t* key, int nk, BlockCipher::Schedule* s) {
  s->rounds = nk + 6;
  const int total = 4 * (s->rounds + 1);
  for (int i = 0; i < nk; ++i) s->words[i] = load_be(key + 4 * i);
  uint8_t rcon = 1;
  for (int i = nk; i < total; ++i) {
    uint32_t temp = s->words[i - 1];
    if (i % nk == 0) {
      temp = sub_word((temp << 8) | (temp >> 24)) ^ (uint32_t(rcon) << 24);
      rcon = gmul(rcon, 2);
    } else if (nk > 6 && i % nk == 4) {
      temp = sub_word(temp);
    }
    s->words[i] = s->words[i - nk] ^ temp;
  }
  for (int i = total; i < 60; ++i) s->words[i] = 0;
}

// Equivalent inverse cipher: round keys in reverse order, InvMixColumns on the inner ones.
void expand_deciphering(const BlockCipher::Schedule& enc, BlockCipher::Schedule* dec) {
  const int nr = enc.rounds;
  dec->rounds = nr;
  for (int r = 0; r <= nr; ++r)
    for (int c = 0; c < 4; ++c) dec->words[4 * r + c] = enc.words[4 * (nr - r) + c];
  for (int i = 4; i < 4 * nr; ++i) {
    const uint32_t w = dec->words[i];
    dec->words[i] = T.td[0][T.s[w >> 24]] ^ T.td[1][T.s[(w >> 16) & 0xff]] ^
                    T.td[2][T.s[(w >> 8) & 0xff]] ^ T.td[3][T.s[w & 0xff]];
  }
  for (int i = 4 * (nr + 1); i < 60; ++i) dec->words[i] = 0;
}

void portable_encipher(const BlockCipher::Schedule& k, const uint8_t* in, uint8_t* out) {
  const uint32_t* rk = k.words;
  uint32_t s0 = load_be(in) ^ rk[0], s1 = load_be(in + 4) ^ rk[1];
  uint32_t s2 = load_be(in + 8) ^ rk[2], s3 = load_be(in + 12) ^ rk[3];
  const auto& te = T.te;
  for (int r = 1; r < k.rounds; ++r) {
    rk += 4;
    const uint32_t t0 = te[0][s0 >> 24] ^ te[1][(s1 >> 16) & 0xff] ^ te[2][(s2 >> 8) & 0xff] ^ te[3][s3 & 0xff] ^ rk[0];
    const uint32_t t1 = te[0][s1 >> 24] ^ te[1][(s2 >> 16) & 0xff] ^ te[2][(s3 >> 8) & 0xff] ^ te[3][s0 & 0xff] ^ rk[1];
    const uint32_t t2 = te[0][s2 >> 24] ^ te[1][(s3 >> 16) & 0xff] ^ te[2][(s0 >> 8) & 0xff] ^ te[3][s1 & 0xff] ^ rk[2];
    const uint32_t t3 = te[0][s3 >> 24] ^ te[1][(s0 >> 16) & 0xff] ^ te[2][(s1 >> 8) & 0xff] ^ te[3][s2 & 0xff] ^ rk[3];
    s0 = t0; s1 = t1; s2 = t2; s3 = t3;
  }
  rk += 4;
  const uint8_t* s = T.s;
  auto last = [s](uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t key) {
    return ((uint32_t(s[a >> 24]) << 24) | (uint32_t(s[(b >> 16) & 0xff]) << 16) |
            (uint32_t(s[(c >> 8) & 0xff]) << 8) | s[d & 0xff]) ^ key;
  };
  store_be(out, last(s0, s1, s2, s3, rk[0]));
  store_be(out + 4, last(s1, s2, s3, s0, rk[1]));
  store_be(out + 8, last(s2, s3, s0, s1, rk[2]));
  store_be(out + 12, last(s3, s0, s1, s2, rk[3]));
}

void portable_decipher(const BlockCipher::Schedule& k, const uint8_t* in, uint8_t* out) {
  const uint32_t* rk = k.words;
  uint32_t s0 = load_be(in) ^ rk[0], s1 = load_be(in + 4) ^ rk[1];
  uint32_t s2 = load_be(in + 8) ^ rk[2], s3 = load_be(in + 12) ^ rk[3];
  const auto& td = T.td;
  for (int r = 1; r < k.rounds; ++r) {
    rk += 4;
    const uint32_t t0 = td[0][s0 >> 24] ^ td[1][(s3 >> 16) & 0xff] ^ td[2][(s2 >> 8) & 0xff] ^ td[3][s1 & 0xff] ^ rk[0];
    const uint32_t t1 = td[0][s1 >> 24] ^ td[1][(s0 >> 16) & 0xff] ^ td[2][(s3 >> 8) & 0xff] ^ td[3][s2 & 0xff] ^ rk[1];
    const uint32_t t2 = td[0][s2 >> 24] ^ td[1][(s1 >> 16) & 0xff] ^ td[2][(s0 >> 8) & 0xff] ^ td[3][s3 & 0xff] ^ rk[2];
    const uint32_t t3 = td[0][s3 >> 24] ^ td[1][(s2 >> 16) & 0xff] ^ td[2][(s1 >> 8) & 0xff] ^ td[3][s0 & 0xff] ^ rk[3];
    s0 = t0; s1 = t1; s2 = t2; s3 = t3;
  }
  rk += 4;
  const uint8_t* si = T.si;
  auto last = [si](uint32_t a, uint32_t b, uint32_t c, uint32_t d, uint32_t key) {
    return ((uint32_t(si[a >> 24]) << 24) | (uint32_t(si[(b >> 16) & 0xff]) << 16) |
            (uint32_t(si[(c >> 8) & 0xff]) << 8) | si[d & 0xff]) ^ key;
  };
  store_be(out, last(s0, s3, s2, s1, rk[0]));
  store_be(out + 4, last(s1, s0, s3, s2, rk[1]));
  store_be(out + 8, last(s2, s1, s0, s3, rk[2]));
  store_be(out + 12, last(s3, s2, s1, s0, rk[3]));
}

void schedule_bytes(const BlockCipher::Schedule& s, uint8_t* bytes) {
  for (int i = 0; i < 4 * (s.rounds + 1); ++i) store_be(bytes + 4 * i, s.words[i]);
}

}  // namespace

bool BlockCipher::aes_ni_available() {
  static std::atomic<int> known{-1};
  int v = known.load(std::memory_order_relaxed);
  if (v < 0) {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    v = (__get_cpuid(1, &eax, &ebx, &ecx, &edx) && (ecx & bit_AES)) ? 1 : 0;
    known.store(v, std::memory_order_relaxed);
  }
  return v == 1;
}

BlockCipher::BlockCipher(int key_size_code, const uint8_t* key, Engine engine) {
  const int nk = key_size_code == 0 ? 4 : key_size_code == 1 ? 6 : 8;
  expand_enciphering(key, nk, &enc_);
  expand_deciphering(enc_, &dec_);
  const bool ni = aes_ni_available() && engine != Engine::portable;
  engine_ = ni ? Engine::aes_ni : Engine::portable;
  std::memset(ni_enc_, 0, sizeof ni_enc_);
  std::memset(ni_dec_, 0, sizeof ni_dec_);
  if (ni) {
    schedule_bytes(enc_, ni_enc_);
    schedule_bytes(dec_, ni_dec_);
  }
}

BlockCipher::~BlockCipher() {
  SecureZeroMemory(&enc_, sizeof enc_);
  SecureZeroMemory(&dec_, sizeof dec_);
  SecureZeroMemory(ni_enc_, sizeof ni_enc_);
  SecureZeroMemory(ni_dec_, sizeof ni_dec_);
}

void BlockCipher::blocks(bool encipher, const uint8_t* in, uint8_t* out, size_t count) const {
  if (engine_ == Engine::aes_ni) {
    if (encipher)
      block_cipher_detail::aesni_encipher(ni_enc_, enc_.rounds, in, out, count);
    else
      block_cipher_detail::aesni_decipher(ni_dec_, dec_.rounds, in, out, count);
    return;
  }
  for (size_t i = 0; i < count; ++i) {
    if (encipher)
      portable_encipher(enc_, in + 16 * i, out + 16 * i);
    else
      portable_decipher(dec_, in + 16 * i, out + 16 * i);
  }
}

// The whole blocks go straight from input to output; only a trailing partial block passes
// through a zero-padded block on the stack, so nothing is allocated.
void BlockCipher::encipher_buffer(const uint8_t* in, size_t length, uint8_t* out, size_t* out_length) const {
  const size_t whole = length / 16;
  const size_t rest = length % 16;
  *out_length = (whole + (rest ? 1 : 0)) * 16;
  blocks(true, in, out, whole);
  if (rest) {
    uint8_t block[16] = {};
    std::memcpy(block, in + 16 * whole, rest);
    blocks(true, block, out + 16 * whole, 1);
  }
}

void BlockCipher::encipher_in_place_observed(uint8_t* data, size_t length, Observer observe, void* context) const {
  const size_t count = length / 16;
  if (engine_ == Engine::aes_ni) {
    block_cipher_detail::aesni_encipher_observed(ni_enc_, enc_.rounds, data, count, observe, context);
    return;
  }
  for (size_t i = 0; i < count; i += 8) {
    const size_t n = count - i < 8 ? count - i : 8;
    observe(context, data + 16 * i, 16 * n);
    blocks(true, data + 16 * i, data + 16 * i, n);
  }
}

void BlockCipher::decipher_buffer(const uint8_t* in, uint8_t* out, size_t length) const {
  const size_t whole = length / 16;
  const size_t rest = length % 16;
  blocks(false, in, out, whole);
  if (rest) {
    uint8_t block[16] = {};
    std::memcpy(block, in + 16 * whole, rest);
    blocks(false, block, out + 16 * whole, 1);
  }
}
