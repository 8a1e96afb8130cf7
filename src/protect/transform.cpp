#include "protect/transform.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "host/owners.h"
#include "host/utf_conversion.h"
#include "protect/block_cipher.h"
#include "protect/key_mask.h"
#include "protect/md5.h"

const uint8_t kEncryptedFileMagic[8] = {0x01, 0x02, 0x03, 0x04, 0x10, 0x20, 0x30, 0x40};

namespace {

constexpr DWORD kIoSize = 16 * kTransformChunk;  // bytes per read and per write
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

void digest_stretch(void* md5, const uint8_t* bytes, size_t size) { static_cast<MD5*>(md5)->update(bytes, size); }

struct Wipe {
  void* p;
  size_t n;
  ~Wipe() { SecureZeroMemory(p, n); }
};

}  // namespace

void build_password_buffer(const char* password, uint8_t buffer[32]) {
  std::memset(buffer, 0, 32);
  const size_t n = strnlen(password, 31);
  std::memcpy(buffer, password, n);
}

void build_key_material(const uint8_t password_buffer[32], uint8_t key_material[32]) {
  uint8_t mask[32];
  Wipe wipe{mask, sizeof mask};
  KeyMask(mask);
  for (int i = 0; i < 32; ++i) key_material[i] = mask[i] | password_buffer[i];
}

std::string FileDigestHex(const std::wstring& path) {
  OwnedHandle file(open_for_reading(path));
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

namespace {

// One read piece in place: the layout's 64 KiB chunks, each digested and enciphered (or
// deciphered and digested); only a chunk that ends the file can be short, and only its tail
// (length mod 16) is masked instead of enciphered.
void transform_piece(uint8_t* data, DWORD length, const uint8_t key[32], bool encrypt, BlockCipher& cipher, MD5& md5) {
  for (DWORD offset = 0; offset < length; offset += kTransformChunk) {
    uint8_t* chunk = data + offset;
    const DWORD size = std::min<DWORD>(kTransformChunk, length - offset);
    const DWORD r = size % 16;
    const DWORD head = size - r;
    if (encrypt) {
      cipher.encipher_in_place_observed(chunk, head, &digest_stretch, &md5);  // digest and cipher interleaved
      md5.update(chunk + head, r);
    } else {
      md5.update(chunk, size);
      cipher.decipher_buffer(chunk, chunk, head);
    }
    for (DWORD j = 0; j < r; ++j) chunk[head + j] ^= key[r - j];
  }
}

// One pass over `input`: each piece read is digested, enciphered in place and written after the
// header; the digest field stays zero until the whole plaintext has been read, then it is written
// in place, so the file's bytes are those of the layout whatever the order of the writes. True
// when every byte was read and written. `data` holds kIoSize bytes.
bool transform_stream(HANDLE input, HANDLE output, const uint8_t key[32], bool encrypt, uint8_t* data) {
  BlockCipher cipher(0, key);
  MD5 md5;
  uint8_t header[kEncryptedHeaderSize] = {};
  std::memcpy(header, kEncryptedFileMagic, 8);
  bool failed = !write_all(output, header, sizeof header);
  bool read_failed = false;
  for (;;) {
    const DWORD length = read_some(input, data, kIoSize, &read_failed);
    if (length == 0) break;
    transform_piece(data, length, key, encrypt, cipher, md5);
    failed |= !write_all(output, data, length);
    if (length < kIoSize && !read_failed) break;  // the end of the file
  }
  if (read_failed) return false;
  md5.finalize();
  const std::string digest = md5.hex_digest();
  LARGE_INTEGER field;
  field.QuadPart = 8;
  failed |= !SetFilePointerEx(output, field, nullptr, FILE_BEGIN) ||
            !write_all(output, reinterpret_cast<const uint8_t*>(digest.data()), static_cast<DWORD>(digest.size()));
  return !failed;
}

}  // namespace

bool TransformFile(const char* source, const char* destination, const uint8_t password_buffer[32], bool encrypt,
                   bool* complete) {
  bool whole = false;  // every byte read and written, and (in place) the source replaced
  struct Report {
    bool* out;
    const bool& value;
    ~Report() { if (out != nullptr) *out = value; }
  } report{complete, whole};
  if (source == nullptr || destination == nullptr || password_buffer == nullptr) return false;
  const std::wstring wide_source = utf8_to_wide(source);
  std::wstring wide_destination = utf8_to_wide(destination);
  const bool in_place = wide_source == wide_destination;
  if (in_place) wide_destination += L".tmp";

  bool result = false;
  {
    // Wide names go straight to CreateFileW, so no locale decides how they are read.
    OwnedHandle output(CreateFileW(wide_destination.c_str(), GENERIC_WRITE, kShareAll, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    uint8_t key[32];
    Wipe wipe_key{key, sizeof key};
    build_key_material(password_buffer, key);

    OwnedHandle input(open_for_reading(wide_source));
    // The buffer is taken once per call (the caller's stack may be small); reads and writes of
    // 1 MiB keep the calls into the system few.
    std::unique_ptr<uint8_t[]> buffer(input.ok() ? new (std::nothrow) uint8_t[kIoSize] : nullptr);
    if (buffer) {
      const bool written = output.ok() && transform_stream(input.get(), output.get(), key, encrypt, buffer.get());
      SecureZeroMemory(buffer.get(), kIoSize);
      result = true;
      whole = written && FlushFileBuffers(output.get());
    }
  }
  if (in_place) {
    // The source is replaced in one step, and only by a whole encrypted form.
    whole = whole && MoveFileExW(wide_destination.c_str(), wide_source.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
    if (!whole) DeleteFileW(wide_destination.c_str());
  }
  return result;
}

bool TransformCopiedFile(const char* source, const char* destination, const char* password, bool* complete) {
  if (complete != nullptr) *complete = false;
  if (source == nullptr || destination == nullptr || password == nullptr) return false;
  uint8_t buffer[32];
  Wipe wipe{buffer, sizeof buffer};
  build_password_buffer(password, buffer);
  return TransformFile(source, destination, buffer, true, complete);
}
