// kwdecrypt: restores the plaintext of a file in the encrypted-file format and proves it is the
// original: the MD5 of the decrypted body must equal the digest stored in the header.
//
//   kwdecrypt [--verify] ENCRYPTED PASSWORD [OUTPUT]
//
// Exit status: 0 the digest matches (and OUTPUT was written), 1 the digest does not match,
// 2 usage error, 3 the input is not in the format or a file cannot be read or written.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "host/owners.h"
#include "host/utf_conversion.h"
#include "protect/block_cipher.h"
#include "protect/md5.h"
#include "protect/transform.h"

namespace {

constexpr int kMatch = 0, kMismatch = 1, kUsage = 2, kBadInput = 3;

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

struct Arguments {
  bool verify_only = false;
  std::wstring input_path, output_path;
  std::string password;
};

// Reads the command line; false when it is not a valid one (or asks for help).
bool parse_arguments(int argc, wchar_t** argv, Arguments* a) {
  std::wstring args[3];
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::wcscmp(argv[i], L"--verify") == 0) {
      a->verify_only = true;
    } else if (std::wcscmp(argv[i], L"--help") == 0 || std::wcscmp(argv[i], L"-h") == 0 || count == 3) {
      return false;
    } else {
      args[count++] = argv[i];
    }
  }
  if (count != (a->verify_only ? 2 : 3)) return false;
  a->input_path = args[0];
  a->password = wide_to_utf8(args[1]);
  a->output_path = args[2];
  return true;
}

// Opens the input and reads its header, leaving the file at the body; the stored digest (32 hex
// digits) goes to *stored. kMatch (all well) or kBadInput, reported on stderr.
int open_input(const std::wstring& path, OwnedHandle* input, std::string* stored) {
  input->reset(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                           FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!input->ok()) {
    std::fprintf(stderr, "kwdecrypt: cannot open %s (error %lu)\n", wide_to_utf8(path).c_str(), GetLastError());
    return kBadInput;
  }
  uint8_t header[kEncryptedHeaderSize];
  DWORD got = 0;
  if (!read_exact(input->get(), header, sizeof header, &got) || got != sizeof header ||
      std::memcmp(header, kEncryptedFileMagic, 8) != 0) {
    std::fputs("kwdecrypt: not an encrypted file (no magic 01 02 03 04 10 20 30 40 at its start)\n", stderr);
    return kBadInput;
  }
  const char* digest = reinterpret_cast<const char*>(header + 8);
  if (digest[kDigestFieldSize - 1] != '\0' || std::strlen(digest) != 32) {
    std::fputs("kwdecrypt: the file records no digest (its source could not be read when it was written)\n", stderr);
    return kBadInput;
  }
  *stored = digest;
  return kMatch;
}

// Deciphers the body of `input` (the writer enciphered 64 KiB chunks; only the last one can end
// in a partial block) into `output` (when valid) and its MD5; false on a read or write error.
bool decipher_body(HANDLE input, HANDLE output, const std::string& password, MD5* md5) {
  uint8_t password_buffer[32], key[32];
  build_password_buffer(password.c_str(), password_buffer);
  build_key_material(password_buffer, key);
  BlockCipher cipher(0, key);
  std::unique_ptr<uint8_t[]> buffers(new uint8_t[2 * kTransformChunk]);
  uint8_t* in = buffers.get();
  uint8_t* out = in + kTransformChunk;
  bool io_ok = true;
  for (;;) {
    DWORD got = 0;
    if (!read_exact(input, in, kTransformChunk, &got)) {
      io_ok = false;
      break;
    }
    if (got == 0) break;
    const DWORD r = got % 16;
    const DWORD head = got - r;
    cipher.decipher_buffer(in, out, head);
    for (DWORD j = 0; j < r; ++j) out[head + j] = in[head + j] ^ key[r - j];
    md5->update(out, got);
    if (output != INVALID_HANDLE_VALUE && !write_all(output, out, got)) io_ok = false;
    if (!io_ok || got < kTransformChunk) break;
  }
  SecureZeroMemory(key, sizeof key);
  return io_ok;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  Arguments a;
  if (!parse_arguments(argc, argv, &a)) return usage();
  OwnedHandle input;
  std::string stored;
  const int opened = open_input(a.input_path, &input, &stored);
  if (opened != kMatch) return opened;
  OwnedHandle output;
  if (!a.verify_only) {
    output.reset(CreateFileW(a.output_path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                             nullptr));
    if (!output.ok()) {
      std::fprintf(stderr, "kwdecrypt: cannot create %s (error %lu)\n", wide_to_utf8(a.output_path).c_str(),
                   GetLastError());
      return kBadInput;
    }
  }
  MD5 md5;
  if (!decipher_body(input.get(), output.ok() ? output.get() : INVALID_HANDLE_VALUE, a.password, &md5)) {
    std::fputs("kwdecrypt: read or write error\n", stderr);
    return kBadInput;
  }
  md5.finalize();
  const std::string computed = md5.hex_digest();
  if (computed != stored) {
    std::fprintf(stderr, "kwdecrypt: digest mismatch: stored %s, decrypted %s (wrong password or key mask?)\n",
                 stored.c_str(), computed.c_str());
    if (!a.verify_only) {
      output.reset();  // a plaintext that is not the original is of no use
      DeleteFileW(a.output_path.c_str());
    }
    return kMismatch;
  }
  std::printf("OK %s\n", computed.c_str());
  return kMatch;
}
