// Response datagrams through ReceiveFrame and ParseSecretAuditResponse, and through the whole
// ExchangeSecretAudit. Input: byte 0 picks the acknowledgement whose send fails (0xFF: none);
// then datagrams, each a 2-byte little-endian length and that many bytes (a length past the end
// takes what is left; 0xFFFF is a failed receive). A receive after the last datagram fails, as
// the socket's time-out would.
//
// Checked: the reassembled frame is exactly the announced size and holds the datagrams' bytes
// in order; every acknowledgement is 128 zero bytes to the first datagram's sender; outcomes
// other than a frame leave it empty; a parsed verdict names no empty path and is true exactly
// when it names a file; the exchange gives the same verdict as the parts.
#include <cstdint>
#include <cstring>
#include <vector>

#include "agent/agent_frame.h"
#include "agent/secret_audit.h"
#include "fuzz_check.h"

namespace {

using agent::AgentFrame;
using agent::DatagramAddress;
using agent::ReceiveOutcome;

struct Datagram {
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool fails = false;
};

class ScriptedIo : public agent::DatagramIo {
 public:
  ScriptedIo(const std::vector<Datagram>& script, unsigned failing_ack, bool first_send_is_request)
      : script_(script), failing_ack_(failing_ack), request_pending_(first_send_is_request) {}

  int SendTo(const char* data, int size, const DatagramAddress& to) override {
    if (request_pending_) {  // the request of an exchange: one chunk, to the agent
      request_pending_ = false;
      FUZZ_CHECK(size > 0 && size <= agent::kChunkSize, "request chunk of %d bytes", size);
      return size;
    }
    FUZZ_CHECK(size == agent::kAckSize, "acknowledgement of %d bytes", size);
    for (int i = 0; i < size; ++i) FUZZ_CHECK(data[i] == 0, "acknowledgement byte %d not zero", i);
    FUZZ_CHECK(to.length == 16 && to.bytes[0] == 0x10 && to.bytes[1] == 0,
               "acknowledgement not sent to the first datagram's sender");
    return acks_sent_++ == failing_ack_ ? -1 : size;
  }

  int ReceiveFrom(char* buffer, int capacity, DatagramAddress* from) override {
    if (next_ >= script_.size()) return -1;
    const size_t index = next_++;
    const Datagram& d = script_[index];
    if (d.fails) return -1;
    // Each datagram has its own sender: 0x10 + index in the first byte.
    *from = DatagramAddress{};
    from->bytes[0] = static_cast<unsigned char>(0x10 + index);
    from->bytes[1] = static_cast<unsigned char>(index >> 8);
    from->length = 16;
    const size_t n = d.size < static_cast<size_t>(capacity) ? d.size : static_cast<size_t>(capacity);
    std::memcpy(buffer, d.data, n);  // a longer datagram is cut to the buffer, as recvfrom does
    return static_cast<int>(n);
  }

  size_t received() const { return next_; }
  unsigned acks_sent() const { return acks_sent_; }

 private:
  const std::vector<Datagram>& script_;
  size_t next_ = 0;
  unsigned acks_sent_ = 0;
  unsigned failing_ack_;
  bool request_pending_;
};

std::vector<Datagram> split(const uint8_t* data, size_t size) {
  std::vector<Datagram> out;
  size_t at = 0;
  while (at + 2 <= size) {
    const unsigned length = data[at] | (data[at + 1] << 8);
    at += 2;
    Datagram d;
    if (length == 0xFFFF) {
      d.fails = true;
    } else {
      d.data = data + at;
      d.size = length < size - at ? length : size - at;
      at += d.size;
    }
    out.push_back(d);
  }
  return out;
}

// The frame the datagrams should reassemble to, given how many were consumed.
void check_reassembly(const AgentFrame& frame, const std::vector<Datagram>& script, size_t consumed) {
  const int32_t length = frame.length_field();
  FUZZ_CHECK(length > 0 && length != 2 && length <= agent::kMaxResponseLength, "length field %d", length);
  FUZZ_CHECK(frame.size() == static_cast<size_t>(agent::kHeaderSize) + static_cast<size_t>(length),
             "frame of %zu bytes for length %d", frame.size(), length);
  FUZZ_CHECK(std::strcmp(frame.data(), agent::kSecretAuditResponseTag) == 0, "tag field changed");
  size_t filled = 0;
  for (size_t i = 0; i < consumed; ++i) {
    FUZZ_CHECK(!script[i].fails && script[i].size > 0, "datagram %zu failed but was used", i);
    size_t take = script[i].size < static_cast<size_t>(agent::kChunkSize) ? script[i].size : agent::kChunkSize;
    if (take > frame.size() - filled) take = frame.size() - filled;
    FUZZ_CHECK(std::memcmp(frame.data() + filled, script[i].data, take) == 0, "datagram %zu misplaced", i);
    filled += take;
  }
  FUZZ_CHECK(filled == frame.size(), "%zu of %zu bytes came from datagrams", filled, frame.size());
}

void check_verdict(bool verdict, const SecretAuditResult& result) {
  for (const std::string& p : result.secret_files) FUZZ_CHECK(!p.empty(), "empty SecretFile path");
  for (const std::string& p : result.encrypted_files) FUZZ_CHECK(!p.empty(), "empty EncryptedFile path");
  // A verdict with no file is a document that did not parse (refused); files without one, never.
  FUZZ_CHECK(verdict || (result.secret_files.empty() && result.encrypted_files.empty()),
             "verdict %d with %zu secret and %zu encrypted files", verdict, result.secret_files.size(),
             result.encrypted_files.size());
}

bool same(const SecretAuditResult& a, const SecretAuditResult& b) {
  return a.secret_files == b.secret_files && a.encrypted_files == b.encrypted_files &&
         a.encrypted_pwd == b.encrypted_pwd && a.action == b.action;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const unsigned failing_ack = data[0] == 0xFF ? ~0u : data[0];
  const std::vector<Datagram> script = split(data + 1, size - 1);

  ScriptedIo io(script, failing_ack, false);
  AgentFrame frame;
  const ReceiveOutcome outcome = agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame);
  bool expected_exchange = true;  // fails closed
  SecretAuditResult direct;
  if (outcome == ReceiveOutcome::kFrame) {
    FUZZ_CHECK(io.acks_sent() + 1 == io.received(), "%u acknowledgements for %zu datagrams", io.acks_sent(),
               io.received());
    check_reassembly(frame, script, io.received());
    expected_exchange = ParseSecretAuditResponse(&frame, direct);
    check_verdict(expected_exchange, direct);
  } else {
    FUZZ_CHECK(frame.size() == 0 && frame.data() == nullptr, "outcome %d left a frame of %zu bytes",
               static_cast<int>(outcome), frame.size());
    if (outcome == ReceiveOutcome::kEmptyAnswer) expected_exchange = false;
  }

  ScriptedIo exchange_io(script, failing_ack, true);
  SecretAuditResult via_exchange;
  const bool verdict = ExchangeSecretAudit(exchange_io, DatagramAddress{}, "<CopyFiles/>", via_exchange);
  FUZZ_CHECK(verdict == expected_exchange, "exchange gave %d, the parts %d", verdict, expected_exchange);
  FUZZ_CHECK(same(via_exchange, direct), "exchange and parts parsed differently");
  return 0;
}
