// The AES-NI half of BlockCipher; built with -maes and only called after CPUID says so.
#include <wmmintrin.h>

#include "protect/block_cipher_internal.h"

namespace block_cipher_detail {
namespace {
constexpr size_t kLanes = 8;  // blocks in flight, enough to cover the instructions' latency

// Eight blocks enciphered from `in` to `out` (which may be the same memory).
inline void encipher_lanes(const __m128i* k, int rounds, const uint8_t* in, uint8_t* out) {
  __m128i b[kLanes];
  for (size_t l = 0; l < kLanes; ++l) b[l] = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 16 * l)), k[0]);
  for (int r = 1; r < rounds; ++r)
    for (size_t l = 0; l < kLanes; ++l) b[l] = _mm_aesenc_si128(b[l], k[r]);
  for (size_t l = 0; l < kLanes; ++l)
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * l), _mm_aesenclast_si128(b[l], k[rounds]));
}

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
void aesni_encipher_observed(const uint8_t* round_keys, int rounds, uint8_t* data, size_t count,
                             void (*observe)(void*, const uint8_t*, size_t), void* context) {
  __m128i k[15];
  for (int r = 0; r <= rounds; ++r) k[r] = _mm_load_si128(reinterpret_cast<const __m128i*>(round_keys + 16 * r));
  // The observer (a digest) is a serial chain of scalar work; the cipher's instructions for the
  // stretch just observed are independent of it, so the processor runs the two side by side.
  size_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    uint8_t* stretch = data + 16 * i;
    observe(context, stretch, 16 * kLanes);
    encipher_lanes(k, rounds, stretch, stretch);
  }
  if (i < count) {
    observe(context, data + 16 * i, 16 * (count - i));
    run<true>(round_keys, rounds, data + 16 * i, data + 16 * i, count - i);
  }
}
void aesni_decipher(const uint8_t* round_keys, int rounds, const uint8_t* in, uint8_t* out, size_t count) {
  run<false>(round_keys, rounds, in, out, count);
}
}  // namespace block_cipher_detail
