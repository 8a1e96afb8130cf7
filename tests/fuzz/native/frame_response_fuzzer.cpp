// Response datagrams through ReceiveFrame and ParseSecretAuditResponse, and through the whole
// exchange_secret_audit. Input: byte 0 the acknowledgement whose send fails (0xFF: none), then
// datagrams, each a 2-byte little-endian length and that many bytes (past the end: what is left;
// 0xFFFF: a failed receive); a receive after the last fails, as the socket's time-out would.
// Checked: a frame is exactly its announced size and holds the datagrams' bytes in order; every
// acknowledgement is 128 zero bytes to the first datagram's sender; other outcomes leave no frame;
// a verdict names no empty path and is true exactly when it names a file (or nothing parsed); the
// exchange gives the same verdict as the parts.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "agent/agent_frame.h"
#include "agent/secret_audit.h"
#undef NDEBUG  // the checks hold in every build: a failed one aborts, and libFuzzer keeps the input
#include <cassert>

namespace {

struct Datagram {
  const uint8_t* data;
  size_t size;
  bool fails;
};

// Datagram i comes from sender 0x10 + i; with `request`, the first send is the exchange's request.
struct ScriptedIo : agent::DatagramIo {
  ScriptedIo(const std::vector<Datagram>& s, unsigned failing, bool request)
      : script(s), failing_ack(failing), request_pending(request) {}
  int SendTo(const char* data, int size, const agent::DatagramAddress& to) override {
    if (request_pending) return request_pending = false, size;
    assert(size == agent::kAckSize && std::count(data, data + size, 0) == size);
    assert(to.length == 16 && to.bytes[0] == 0x10 && to.bytes[1] == 0);  // to the first datagram's sender
    return acks++ == failing_ack ? -1 : size;
  }
  int ReceiveFrom(char* buffer, int capacity, agent::DatagramAddress* from) override {
    if (next >= script.size()) return -1;
    if (script[next].fails) return ++next, -1;
    *from = agent::DatagramAddress{};
    from->bytes[0] = static_cast<unsigned char>(0x10 + next), from->bytes[1] = static_cast<unsigned char>(next >> 8);
    from->length = 16;
    const size_t n = std::min(script[next].size, static_cast<size_t>(capacity));  // cut to the buffer, as recvfrom does
    std::memcpy(buffer, script[next++].data, n);
    return static_cast<int>(n);
  }
  const std::vector<Datagram>& script;
  size_t next = 0;
  unsigned acks = 0, failing_ack;
  bool request_pending;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  std::vector<Datagram> script;
  for (size_t at = 1; at + 2 <= size;) {
    const size_t length = data[at] | data[at + 1] << 8;
    at += 2;
    const size_t taken = length == 0xFFFF ? 0 : std::min(length, size - at);
    script.push_back({data + at, taken, length == 0xFFFF});
    at += taken;
  }
  const unsigned failing_ack = data[0] == 0xFF ? ~0u : data[0];
  ScriptedIo io(script, failing_ack, false);
  agent::AgentFrame frame;
  const agent::ReceiveOutcome outcome = agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame);
  bool expected = outcome != agent::ReceiveOutcome::kEmptyAnswer;  // any other failure refuses
  SecretAuditResult direct, via_exchange;
  if (outcome == agent::ReceiveOutcome::kFrame) {
    const int32_t length = frame.length_field();
    assert(length > 0 && length != 2 && length <= agent::kMaxResponseLength);
    assert(frame.size() == agent::kHeaderSize + static_cast<size_t>(length));
    assert(io.acks + 1 == io.next);
    size_t filled = 0;
    for (size_t i = 0; i < io.next; ++i) {
      assert(!script[i].fails && script[i].size > 0);
      const size_t take = std::min({script[i].size, size_t{agent::kChunkSize}, frame.size() - filled});
      assert(std::memcmp(frame.data() + filled, script[i].data, take) == 0);
      filled += take;
    }
    assert(filled == frame.size());
    expected = ParseSecretAuditResponse(&frame, direct);
    for (const auto* list : {&direct.secret_files, &direct.encrypted_files})
      assert(std::count(list->begin(), list->end(), "") == 0);
    assert(expected || (direct.secret_files.empty() && direct.encrypted_files.empty()));
  } else {
    assert(frame.size() == 0 && frame.data() == nullptr);
  }
  ScriptedIo exchange_io(script, failing_ack, true);
  assert(exchange_secret_audit(exchange_io, agent::DatagramAddress{}, "<CopyFiles/>", via_exchange) == expected);
  assert(via_exchange.secret_files == direct.secret_files && via_exchange.encrypted_files == direct.encrypted_files &&
         via_exchange.encrypted_pwd == direct.encrypted_pwd && via_exchange.action == direct.action);
  return 0;
}
