// The agent's own frame code, written independently of the library's so that each checks the
// other: a 32-byte tag field (tag, NUL, zeros), a signed 32-bit little-endian length (text +
// NUL), then the UTF-8 XML text and its NUL. Chunks are at most 8192 bytes; the receiver sends
// a 128-byte datagram after every chunk but the last.
#pragma once
#include <winsock2.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

constexpr int kTagField = 32;
constexpr int kHeader = 36;
constexpr int kChunk = 8192;
constexpr int kAck = 128;
constexpr int32_t kMaxLength = 16 * 1024 * 1024;

// The frame for `tag` carrying `payload_with_nul` (its length is the frame's length field).
std::string build_frame(const char* tag, const std::string& payload_with_nul);

// Sends `frame` to `to` in chunks, awaiting an acknowledgement (up to 2 s) between them; gives
// up on a send error, a missing acknowledgement or `stop`.
void send_frame(SOCKET s, const sockaddr_in& to, const std::string& frame, const std::atomic<bool>& stop);

// Frames in reassembly, one per sender.
class Reassembly {
 public:
  enum Result { kIncomplete, kComplete, kNotAFrame };
  // Adds a datagram of `n` bytes from `from`. kComplete: the whole frame is in *frame.
  // kIncomplete: the sender expects an acknowledgement. kNotAFrame: dropped (a sender's first
  // datagram must carry a length of 1..16 MB).
  Result add(const sockaddr_in& from, const char* data, int n, std::string* frame);

 private:
  struct Partial {
    std::string bytes;
    size_t expected = 0;
  };
  std::map<std::pair<ULONG, USHORT>, Partial> partials_;
};
