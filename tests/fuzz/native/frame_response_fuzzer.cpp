// Response datagrams through ReceiveFrame and ParseSecretAuditResponse. Input: byte 0 the acknowledgement whose send fails (0xFF: none), then
// datagrams, each a 2-byte little-endian length and that many bytes (past the end: what is left;
// 0xFFFF: a failed receive); a receive after the last fails, as the socket's time-out would.
// Checked: a frame is exactly its announced size and holds the datagrams' bytes in order; every
// acknowledgement is 128 zero bytes to the first datagram's sender; other outcomes leave no frame;
// a verdict names no empty path and is false only when it names no file.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "agent/agent_frame.h"
#include "agent/secret_audit.h"
#undef NDEBUG  // the checks hold in every build: a failed one aborts, and libFuzzer keeps the input
#include <cassert>

namespace {

using Datagram = std::pair<const uint8_t*, size_t>;  // bytes and size; size kFails: a failed receive
constexpr size_t kFails = ~size_t{0};

// Datagram i comes from 127.0.0.1, port 0x10 + i.
struct ScriptedIo : agent::DatagramIo {
  ScriptedIo(const std::vector<Datagram>& s, unsigned failing) : script(s), failing_ack(failing) {}
  int SendTo(const char* data, int size, const agent::DatagramAddress& to) override {
    assert(size == agent::kAckSize && std::count(data, data + size, 0) == size);
    assert(to.length == 16 && to.bytes[2] == 0 && to.bytes[3] == 0x10);  // to the first datagram's sender
    return acks++ == failing_ack ? -1 : size;
  }
  int ReceiveFrom(char* buffer, int capacity, agent::DatagramAddress* from) override {
    if (next >= script.size()) return -1;
    if (script[next].second == kFails) return ++next, -1;
    *from = {{2, 0, static_cast<unsigned char>((0x10 + next) >> 8), static_cast<unsigned char>(0x10 + next), 127, 0, 0, 1},
             16};  // a sockaddr_in
    const size_t n = std::min(script[next].second, static_cast<size_t>(capacity));  // cut to the buffer, as recvfrom does
    std::memcpy(buffer, script[next++].first, n);
    return static_cast<int>(n);
  }
  const std::vector<Datagram>& script;
  size_t next = 0;
  unsigned acks = 0, failing_ack;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::vector<Datagram> script;
  for (size_t at = 1; at + 2 <= size;) {
    const size_t length = data[at] | data[at + 1] << 8;
    at += 2;
    script.emplace_back(data + at, length == 0xFFFF ? kFails : std::min(length, size - at));
    at += length == 0xFFFF ? 0 : script.back().second;
  }
  ScriptedIo io(script, data[0] == 0xFF ? ~0u : data[0]);
  agent::AgentFrame frame;
  const agent::ReceiveOutcome outcome = agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame);
  if (outcome == agent::ReceiveOutcome::kFrame) {
    const int32_t length = frame.length_field();
    assert(length > 0 && length != 2 && length <= agent::kMaxResponseLength);
    assert(frame.size() == agent::kHeaderSize + static_cast<size_t>(length));
    assert(io.acks + 1 == io.next);
    size_t filled = 0;
    for (size_t i = 0; i < io.next; ++i) {
      assert(script[i].second != kFails && script[i].second > 0);
      const size_t take = std::min({script[i].second, size_t{agent::kChunkSize}, frame.size() - filled});
      assert(std::memcmp(frame.data() + filled, script[i].first, take) == 0);
      filled += take;
    }
    assert(filled == frame.size());
    SecretAuditResult r;
    const bool verdict = ParseSecretAuditResponse(&frame, r);
    for (const auto* list : {&r.secret_files, &r.encrypted_files}) assert(std::count(list->begin(), list->end(), "") == 0);
    assert(verdict || (r.secret_files.empty() && r.encrypted_files.empty()));
  } else {
    assert(frame.size() == 0 && frame.data() == nullptr);
  }
  return 0;
}
