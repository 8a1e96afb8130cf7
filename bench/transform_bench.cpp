// kwbench-transform FILE OUTPUT [ROUNDS]: TransformCopiedFile(FILE, OUTPUT) against its serial
// floor, the same process reading FILE and computing only its MD5 with the library's own digest,
// alternating round by round (default 5 rounds after one warm-up of each); prints the medians
// and their ratio, then where the time goes: each step on its own over the same number of bytes
// (reading the file, the digest and the cipher over a buffer in memory, the two interleaved as
// the transformation runs them, writing OUTPUT.split).
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>
#include <vector>

#include "host/owners.h"
#include "host/utf_conversion.h"
#include "protect/block_cipher.h"
#include "protect/md5.h"
#include "protect/transform.h"
#include "timing.h"

namespace {
constexpr DWORD kBuffer = 1 << 20;

// Reads the whole file in 1 MiB reads, handing each piece to `use`; the bytes read, or -1.
template <typename Use>
long long read_file(const wchar_t* path, uint8_t* buffer, Use use) {
  OwnedHandle file(CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                               FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file.ok()) return -1;
  long long total = 0;
  DWORD got = 0;
  while (ReadFile(file.get(), buffer, kBuffer, &got, nullptr) && got > 0) {
    use(buffer, got);
    total += got;
  }
  return total;
}

// The floor: read and MD5 only; the digest's hex form, which the caller checks against the header.
std::string read_and_digest(const wchar_t* path, uint8_t* buffer) {
  MD5 md5;
  if (read_file(path, buffer, [&](const uint8_t* p, DWORD n) { md5.update(p, n); }) < 0) return std::string();
  md5.finalize();
  return md5.hex_digest();
}
}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 3) {
    std::fputs("usage: kwbench-transform FILE OUTPUT [ROUNDS]\n", stderr);
    return 2;
  }
  const std::string source = wide_to_utf8(argv[1]), output = wide_to_utf8(argv[2]);
  const int rounds = argc > 3 ? std::max(1, _wtoi(argv[3])) : 5;
  WIN32_FILE_ATTRIBUTE_DATA attributes;
  if (!GetFileAttributesExW(argv[1], GetFileExInfoStandard, &attributes)) {
    std::fprintf(stderr, "kwbench-transform: cannot read %s\n", source.c_str());
    return 1;
  }
  const long long size = (static_cast<long long>(attributes.nFileSizeHigh) << 32) | attributes.nFileSizeLow;
  const double mib = double(size) / 1048576.0;
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[kBuffer]), other(new uint8_t[kBuffer]);
  std::vector<double> transform, floor;
  for (int r = -1; r < rounds; ++r) {  // round -1 warms the caches and is not counted
    double start = now_seconds();
    const std::string digest = read_and_digest(argv[1], buffer.get());
    const double f = now_seconds() - start;
    start = now_seconds();
    bool complete = false;
    if (!TransformCopiedFile(source.c_str(), output.c_str(), "bench-password", &complete) || !complete) {
      std::fputs("kwbench-transform: transformation failed\n", stderr);
      return 1;
    }
    const double t = now_seconds() - start;
    // The header's digest field must be the floor's digest: both did the same digest.
    char field[32] = {};
    DWORD got = 0;
    OwnedHandle written(CreateFileW(argv[2], GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    if (digest.size() != 32 || SetFilePointer(written.get(), 8, nullptr, FILE_BEGIN) != 8 ||
        !ReadFile(written.get(), field, 32, &got, nullptr) || got != 32 || digest.compare(0, 32, field, 32) != 0) {
      std::fputs("kwbench-transform: the header's digest differs from the file's MD5\n", stderr);
      return 1;
    }
    if (r >= 0) floor.push_back(f), transform.push_back(t);
  }
  const double mt = median(transform), mf = median(floor);
  std::printf("transform_mib_s %.1f\nfloor_mib_s %.1f\nratio %.3f\n", mib / mt, mib / mf, mf / mt);

  // The split: each step alone over `size` bytes, in 1 MiB pieces.
  for (DWORD i = 0; i < kBuffer; ++i) other[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
  const long long pieces = (size + kBuffer - 1) / kBuffer;
  double start = now_seconds();
  if (read_file(argv[1], buffer.get(), [](const uint8_t*, DWORD) {}) != size) return 1;
  const double read = now_seconds() - start;
  start = now_seconds();
  MD5 md5;
  for (long long i = 0; i < pieces; ++i) md5.update(other.get(), kBuffer);
  md5.finalize();
  const double digest = now_seconds() - start;
  const uint8_t key[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  BlockCipher cipher(0, key);
  start = now_seconds();
  size_t produced = 0;
  for (long long i = 0; i < pieces; ++i) cipher.encipher_buffer(other.get(), kBuffer, buffer.get(), &produced);
  const double enciphered = now_seconds() - start;
  // The digest and the cipher interleaved over the same bytes, as the transformation runs them.
  start = now_seconds();
  MD5 both;
  for (long long i = 0; i < pieces; ++i) {
    cipher.encipher_in_place_observed(buffer.get(), kBuffer, [](void* md5, const uint8_t* p, size_t n) {
      static_cast<MD5*>(md5)->update(p, n);
    }, &both);
  }
  both.finalize();
  const double interleaved = now_seconds() - start;
  const std::wstring split = std::wstring(argv[2]) + L".split";
  start = now_seconds();
  {
    OwnedHandle file(CreateFileW(split.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD put = 0;
    for (long long i = 0; i < pieces && file.ok(); ++i) WriteFile(file.get(), buffer.get(), kBuffer, &put, nullptr);
    FlushFileBuffers(file.get());
  }
  const double write = now_seconds() - start;
  DeleteFileW(split.c_str());
  std::printf("split_read_ms %.1f\nsplit_digest_ms %.1f\nsplit_cipher_ms %.1f\nsplit_write_ms %.1f\ntransform_ms %.1f\n"
              "floor_ms %.1f\ncipher_engine %s\nsplit_interleaved_ms %.1f\n",
              read * 1e3, digest * 1e3, enciphered * 1e3, write * 1e3, mt * 1e3, mf * 1e3,
              cipher.engine() == BlockCipher::Engine::aes_ni ? "aes-ni" : "portable", interleaved * 1e3);
  return 0;
}
