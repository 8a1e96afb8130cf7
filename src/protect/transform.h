// The encrypted-file format and its writer. Layout of a file written by TransformFile:
//   8 bytes magic 01 02 03 04 10 20 30 40,
//   33 bytes: MD5 of the plaintext as 32 lowercase hex digits and a zero (all zero when the
//             plaintext could not be read for the digest),
//   the body, as long as the plaintext: per 64 KiB chunk AES-128-ECB over the whole 16-byte
//   blocks; the r = length mod 16 bytes of a chunk's tail XOR key material bytes r down to 1.
// Key material byte i = KeyMask byte i OR password-buffer byte i; the AES key is bytes 0..15.
#pragma once
#include <cstdint>
#include <string>

constexpr size_t kTransformChunk = 65536;
constexpr size_t kDigestFieldSize = 33;
constexpr size_t kEncryptedHeaderSize = 8 + kDigestFieldSize;
extern const uint8_t kEncryptedFileMagic[8];

// The 32-byte password buffer: the first min(strlen, 31) bytes of the password, zero-filled.
void build_password_buffer(const char* password, uint8_t buffer[32]);
// Key material = KeyMask OR password buffer, byte by byte.
void build_key_material(const uint8_t password_buffer[32], uint8_t key_material[32]);

// MD5 of the whole file as 32 lowercase hex digits; "" when the file cannot be opened.
std::string FileDigestHex(const std::wstring& path);

// Writes the encrypted form of `source` (UTF-8 path) to `destination` (UTF-8) under the
// password buffer. When both name the same file exactly, works through destination + ".tmp"
// and then replaces the source with it in one step, only when that was written whole (otherwise
// the source stays as it was and the ".tmp" goes). The destination is created (empty) even when the
// source cannot be opened. True when the source could be opened. encrypt = false deciphers
// the blocks instead (still writing a fresh header); no caller uses it. Leaves the host's C and
// C++ locales as they were. `complete`, when given, is set true only when the output holds the
// whole encrypted form: every byte read and written and flushed (and, in place, moved over the
// source); callers that replace a file check it, never the result alone.
bool TransformFile(const char* source, const char* destination, const uint8_t password_buffer[32], bool encrypt,
                   bool* complete = nullptr);

// TransformFile(source, destination, password buffer of `password`, true, complete); false (and
// not complete) at once when any argument is null.
bool TransformCopiedFile(const char* source, const char* destination, const char* password,
                         bool* complete = nullptr);
