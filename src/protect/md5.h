// MD5 message digest (RFC 1321).
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

class MD5 {
 public:
  MD5();
  // Feeds the stream's whole remaining content and finalises.
  explicit MD5(std::istream& stream);

  // Adds bytes; after finalize() writes "MD5::update:  Can't update a finalized digest!" to
  // standard error and ignores them.
  void update(const void* data, size_t length);
  // Pads and closes the digest; a second call only writes its complaint to standard error.
  void finalize();
  // The 16 digest bytes; before finalize() a complaint on standard error and 16 zero bytes.
  std::array<uint8_t, 16> raw_digest() const;
  // 32 lowercase hex digits; before finalize() a complaint on standard error and "".
  std::string hex_digest() const;

 private:
  void blocks(const uint8_t* data, size_t count);

  uint32_t state_[4];
  uint64_t length_ = 0;  // bytes fed so far
  uint8_t buffer_[64];
  size_t buffered_ = 0;
  bool finalized_ = false;
  uint8_t digest_[16] = {};
};
