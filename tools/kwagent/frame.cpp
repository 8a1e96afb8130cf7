#include "frame.h"

#include <windows.h>

#include <algorithm>
#include <cstring>

std::string build_frame(const char* tag, const std::string& payload_with_nul) {
  std::string frame(kHeader, '\0');
  std::memcpy(&frame[0], tag, std::strlen(tag) + 1);
  const int32_t length = static_cast<int32_t>(payload_with_nul.size());
  std::memcpy(&frame[kTagField], &length, 4);
  return frame + payload_with_nul;
}

void send_frame(SOCKET s, const sockaddr_in& to, const std::string& frame, const std::atomic<bool>& stop) {
  for (size_t offset = 0; offset < frame.size();) {
    const int chunk = static_cast<int>(frame.size() - offset > static_cast<size_t>(kChunk) ? kChunk : frame.size() - offset);
    if (sendto(s, frame.data() + offset, chunk, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) <= 0) return;
    offset += chunk;
    if (offset < frame.size()) {
      char ack[kAck];
      const ULONGLONG give_up = GetTickCount64() + 2000;
      for (;;) {  // the socket's short time-out only lets Ctrl-C through
        sockaddr_in from = {};
        int from_length = sizeof from;
        if (recvfrom(s, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), &from_length) > 0) break;
        if (stop || GetTickCount64() > give_up) return;
      }
    }
  }
}

Reassembly::Result Reassembly::add(const sockaddr_in& from, const char* data, int n, std::string* frame) {
  const std::pair<ULONG, USHORT> sender{from.sin_addr.s_addr, from.sin_port};
  Partial& partial = partials_[sender];
  if (partial.expected == 0) {
    int32_t length = 0;
    if (n >= kHeader) std::memcpy(&length, data + kTagField, 4);
    if (length <= 0 || length > kMaxLength) {
      partials_.erase(sender);
      return kNotAFrame;
    }
    partial.expected = kHeader + static_cast<size_t>(length);
    partial.bytes.clear();
  }
  partial.bytes.append(data, std::min<size_t>(n, partial.expected - partial.bytes.size()));
  if (partial.bytes.size() < partial.expected) return kIncomplete;
  *frame = std::move(partial.bytes);
  partials_.erase(sender);
  return kComplete;
}
