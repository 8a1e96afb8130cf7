// The AES-NI half of BlockCipher; built with -maes and only called after CPUID says so.
#include <wmmintrin.h>

#include "protect/block_cipher_internal.h"

namespace block_cipher_detail {
namespace {
constexpr size_t kLanes = 8;  // blocks in flight, enough to cover the instructions' latency

template <bool Encipher>
void run(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count) {
  __m128i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = _mm_load_si128(reinterpret_cast<const __m128i*>(round_keys + 16 * r));
  size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    __m128i b[kLanes];
    for (size_t l = 0; l < kLanes; ++l)
      b[l] = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 16 * (i + l))), k[0]);
    for (int r = 1; r < rounds; ++r)
      for (size_t l = 0; l < kLanes; ++l) b[l] = Encipher ? _mm_aesenc_si128(b[l], k[r]) : _mm_aesdec_si128(b[l], k[r]);
    for (size_t l = 0; l < kLanes; ++l) {
      b[l] = Encipher ? _mm_aesenclast_si128(b[l], k[rounds]) : _mm_aesdeclast_si128(b[l], k[rounds]);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * (i + l)), b[l]);
    }
  }
  for (; i < count; ++i) {
    __m128i b = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 16 * i)), k[0]);
    for (int r = 1; r < rounds; ++r) b = Encipher ? _mm_aesenc_si128(b, k[r]) : _mm_aesdec_si128(b, k[r]);
    b = Encipher ? _mm_aesenclast_si128(b, k[rounds]) : _mm_aesdeclast_si128(b, k[rounds]);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * i), b);
  }
}
}  // namespace

void aesni_encipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count) {
  run<true>(round_keys, rounds, in, out, count);
}
void aesni_decipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count) {
  run<false>(round_keys, rounds, in, out, count);
}
}  // namespace block_cipher_detail
