#include "protect/transform.h"

#include <windows.h>

#include <cstring>
#include <locale>
#include <memory>
#include <new>

#include "host/caller_context.h"
#include "protect/block_cipher.h"
#include "protect/key_mask.h"
#include "protect/md5.h"

const uint8_t kEncryptedFileMagic[8] = {0x01, 0x02, 0x03, 0x04, 0x10, 0x20, 0x30, 0x40};

namespace {

class FileHandle {
 public:
  explicit FileHandle(HANDLE h) : h_(h) {}
  ~FileHandle() { close(); }
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;
  bool ok() const { return h_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return h_; }
  void close() {
    if (ok()) CloseHandle(h_);
    h_ = INVALID_HANDLE_VALUE;
  }
 private:
  HANDLE h_;
};

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

HANDLE open_for_reading(const std::wstring& path) {
  return CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                     FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
}

// Reads until `size` bytes or end of file; `failed` is set when a read failed before the end.
DWORD read_some(HANDLE file, uint8_t* buffer, DWORD size, bool* failed) {
  DWORD total = 0;
  while (total < size) {
    DWORD got = 0;
    if (!ReadFile(file, buffer + total, size - total, &got, nullptr)) {
      *failed = true;
      break;
    }
    if (got == 0) break;
    total += got;
  }
  return total;
}

// False when a byte could not be written.
bool write_all(HANDLE file, const uint8_t* data, DWORD size) {
  while (size > 0) {
    DWORD put = 0;
    if (!WriteFile(file, data, size, &put, nullptr) || put == 0) return false;
    data += put;
    size -= put;
  }
  return true;
}

struct Wipe {
  void* p;
  size_t n;
  ~Wipe() { SecureZeroMemory(p, n); }
};

}  // namespace

void BuildPasswordBuffer(const char* password, uint8_t buffer[32]) {
  std::memset(buffer, 0, 32);
  const size_t n = strnlen(password, 31);
  std::memcpy(buffer, password, n);
}

void BuildKeyMaterial(const uint8_t password_buffer[32], uint8_t key_material[32]) {
  uint8_t mask[32];
  Wipe wipe{mask, sizeof mask};
  KeyMask(mask);
  for (int i = 0; i < 32; ++i) key_material[i] = mask[i] | password_buffer[i];
}

std::string FileDigestHex(const std::wstring& path) {
  FileHandle file(open_for_reading(path));
  if (!file.ok()) return std::string();
  constexpr DWORD kBuffer = 1 << 20;
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kBuffer]);
  if (!buffer) return std::string();
  MD5 md5;
  for (;;) {
    bool failed = false;  // a digest of part of the file is no digest: the transformation checks it
    const DWORD got = read_some(file.get(), buffer.get(), kBuffer, &failed);
    if (failed) return std::string();
    if (got == 0) break;
    md5.update(buffer.get(), got);
  }
  md5.finalize();
  return md5.hex_digest();
}

bool TransformFile(const char* source, const char* destination, const uint8_t password_buffer[32], bool encrypt,
                   bool* complete) {
  bool whole = false;  // every byte read and written, and (in place) the source replaced
  struct Report {
    bool* out;
    const bool& value;
    ~Report() { if (out != nullptr) *out = value; }
  } report{complete, whole};
  if (source == nullptr || destination == nullptr || password_buffer == nullptr) return false;
  uint8_t digest_field[kDigestFieldSize] = {};
  const std::wstring wide_source = utf8_to_wide(source);
  const std::string digest = FileDigestHex(wide_source);
  std::memcpy(digest_field, digest.c_str(), std::min(digest.size(), kDigestFieldSize - 1));

  std::wstring wide_destination = utf8_to_wide(destination);
  const bool in_place = wide_source == wide_destination;
  if (in_place) wide_destination += L".tmp";

  bool result = false;
  {
    // Wide names go straight to CreateFileW, so no locale decides how they are read.
    FileHandle output(CreateFileW(wide_destination.c_str(), GENERIC_WRITE, kShareAll, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    uint8_t key[32];
    Wipe wipe_key{key, sizeof key};
    BuildKeyMaterial(password_buffer, key);

    FileHandle input(open_for_reading(wide_source));
    // Both chunk buffers are taken once per call (the caller's stack may be small).
    std::unique_ptr<uint8_t[]> buffers(input.ok() ? new (std::nothrow) uint8_t[2 * kTransformChunk] : nullptr);
    if (buffers) {
      uint8_t* in = buffers.get();
      uint8_t* out = in + kTransformChunk;
      BlockCipher cipher(0, key);
      uint8_t header[kEncryptedHeaderSize];
      std::memcpy(header, kEncryptedFileMagic, 8);
      std::memcpy(header + 8, digest_field, kDigestFieldSize);
      bool failed = !output.ok() || digest.size() != kDigestFieldSize - 1;
      failed |= !write_all(output.get(), header, sizeof header);
      for (;;) {
        const DWORD length = read_some(input.get(), in, kTransformChunk, &failed);
        if (length == 0) break;
        const DWORD r = length % 16;
        const DWORD head = length - r;
        if (encrypt) {
          size_t produced = 0;
          cipher.encipher_buffer(in, head, out, &produced);
        } else {
          cipher.decipher_buffer(in, out, head);
        }
        for (DWORD j = 0; j < r; ++j) out[head + j] = in[head + j] ^ key[r - j];
        failed |= !write_all(output.get(), out, length);
      }
      SecureZeroMemory(buffers.get(), 2 * kTransformChunk);
      result = true;
      whole = !failed && FlushFileBuffers(output.get());
    }
  }
  std::locale::global(std::locale::classic());
  if (in_place) {
    DeleteFileW(wide_source.c_str());
    whole = MoveFileW(wide_destination.c_str(), wide_source.c_str()) && whole;
  }
  return result;
}

bool TransformCopiedFile(const char* source, const char* destination, const char* password, bool* complete) {
  if (complete != nullptr) *complete = false;
  if (source == nullptr || destination == nullptr || password == nullptr) return false;
  uint8_t buffer[32];
  Wipe wipe{buffer, sizeof buffer};
  BuildPasswordBuffer(password, buffer);
  return TransformFile(source, destination, buffer, true, complete);
}
