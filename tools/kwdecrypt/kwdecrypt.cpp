// kwdecrypt: restores the plaintext of a file in the encrypted-file format and proves it is the
// original: the MD5 of the decrypted body must equal the digest stored in the header.
//
//   kwdecrypt [--verify] ENCRYPTED PASSWORD [OUTPUT]
//
// Exit status: 0 the digest matches (and OUTPUT was written), 1 the digest does not match,
// 2 usage error, 3 the input is not in the format or a file cannot be read or written.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "host/caller_context.h"
#include "protect/block_cipher.h"
#include "protect/md5.h"
#include "protect/transform.h"

namespace {

constexpr int kMatch = 0, kMismatch = 1, kUsage = 2, kBadInput = 3;

class File {
 public:
  explicit File(HANDLE h) : h_(h) {}
  ~File() { close(); }
  void close() {
    if (ok()) CloseHandle(h_);
    h_ = INVALID_HANDLE_VALUE;
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  bool ok() const { return h_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return h_; }
 private:
  HANDLE h_;
};

int usage() {
  std::fputs("usage: kwdecrypt [--verify] ENCRYPTED PASSWORD [OUTPUT]\n"
             "  Decrypts ENCRYPTED with PASSWORD into OUTPUT and checks the stored MD5 digest.\n"
             "  --verify  check the digest only; no plaintext is written.\n"
             "  exit 0: digest matches; 1: digest differs; 2: usage; 3: not readable or not in the format\n",
             stderr);
  return kUsage;
}

bool read_exact(HANDLE file, uint8_t* buffer, DWORD size, DWORD* got_total) {
  DWORD total = 0;
  while (total < size) {
    DWORD got = 0;
    if (!ReadFile(file, buffer + total, size - total, &got, nullptr)) return false;
    if (got == 0) break;
    total += got;
  }
  *got_total = total;
  return true;
}

bool write_all(HANDLE file, const uint8_t* data, DWORD size) {
  while (size > 0) {
    DWORD put = 0;
    if (!WriteFile(file, data, size, &put, nullptr) || put == 0) return false;
    data += put;
    size -= put;
  }
  return true;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  bool verify_only = false;
  std::wstring args[3];
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::wcscmp(argv[i], L"--verify") == 0) {
      verify_only = true;
    } else if (std::wcscmp(argv[i], L"--help") == 0 || std::wcscmp(argv[i], L"-h") == 0) {
      return usage();
    } else if (count < 3) {
      args[count++] = argv[i];
    } else {
      return usage();
    }
  }
  if (count < 2 || (!verify_only && count != 3) || (verify_only && count != 2)) return usage();
  const std::wstring& input_path = args[0];
  const std::string password = wide_to_utf8(args[1]);
  const std::wstring& output_path = args[2];

  File input(CreateFileW(input_path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                         OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!input.ok()) {
    std::fprintf(stderr, "kwdecrypt: cannot open %s (error %lu)\n", wide_to_utf8(input_path).c_str(), GetLastError());
    return kBadInput;
  }
  uint8_t header[kEncryptedHeaderSize];
  DWORD got = 0;
  if (!read_exact(input.get(), header, sizeof header, &got) || got != sizeof header ||
      std::memcmp(header, kEncryptedFileMagic, 8) != 0) {
    std::fputs("kwdecrypt: not an encrypted file (no magic 01 02 03 04 10 20 30 40 at its start)\n", stderr);
    return kBadInput;
  }
  const char* stored = reinterpret_cast<const char*>(header + 8);
  if (stored[kDigestFieldSize - 1] != '\0' || std::strlen(stored) != 32) {
    std::fputs("kwdecrypt: the file records no digest (its source could not be read when it was written)\n", stderr);
    return kBadInput;
  }

  File output(verify_only ? INVALID_HANDLE_VALUE
                          : CreateFileW(output_path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!verify_only && !output.ok()) {
    std::fprintf(stderr, "kwdecrypt: cannot create %s (error %lu)\n", wide_to_utf8(output_path).c_str(), GetLastError());
    return kBadInput;
  }

  uint8_t password_buffer[32], key[32];
  BuildPasswordBuffer(password.c_str(), password_buffer);
  BuildKeyMaterial(password_buffer, key);
  BlockCipher cipher(0, key);
  std::unique_ptr<uint8_t[]> buffers(new uint8_t[2 * kTransformChunk]);
  uint8_t* in = buffers.get();
  uint8_t* out = in + kTransformChunk;
  MD5 md5;
  bool io_ok = true;
  // The writer enciphered 64 KiB chunks; only the last one can end in a partial block.
  for (;;) {
    if (!read_exact(input.get(), in, kTransformChunk, &got)) {
      io_ok = false;
      break;
    }
    if (got == 0) break;
    const DWORD r = got % 16;
    const DWORD head = got - r;
    cipher.decipher_buffer(in, out, head);
    for (DWORD j = 0; j < r; ++j) out[head + j] = in[head + j] ^ key[r - j];
    md5.update(out, got);
    if (!verify_only && !write_all(output.get(), out, got)) io_ok = false;
    if (!io_ok || got < kTransformChunk) break;
  }
  SecureZeroMemory(key, sizeof key);
  if (!io_ok) {
    std::fputs("kwdecrypt: read or write error\n", stderr);
    return kBadInput;
  }
  md5.finalize();
  const std::string computed = md5.hex_digest();
  if (computed != stored) {
    std::fprintf(stderr, "kwdecrypt: digest mismatch: stored %s, decrypted %s (wrong password or key mask?)\n",
                 stored, computed.c_str());
    if (!verify_only) {
      output.close();  // a plaintext that is not the original is of no use
      DeleteFileW(output_path.c_str());
    }
    return kMismatch;
  }
  std::printf("OK %s\n", computed.c_str());
  return kMatch;
}
