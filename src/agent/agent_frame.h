// The frame that carries every message between the library and the agent, and the chunked
// exchange of frames over any datagram transport. Free of Winsock so that the framing and the
// reassembly can be driven from memory (agent_channel.h supplies the socket transport).
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace agent {

constexpr uint16_t kAgentPort = 7886;
constexpr int kTagFieldSize = 32;
constexpr int kHeaderSize = 36;   // tag field + signed 32-bit length
constexpr int kChunkSize = 8192;  // largest datagram sent or received
constexpr int kAckSize = 128;
constexpr int kReceiveTimeoutMs = 1000;
// Largest response length field accepted; anything above is read as "no frame".
constexpr int32_t kMaxResponseLength = 16 * 1024 * 1024;

extern const char kSecretAuditRequestTag[];   // "<FILECOPY_SECRETAUDIT_REQUEST>"
extern const char kSecretAuditResponseTag[];  // "<FILECOPY_SECRETAUDIT_RESPONSE>"
extern const char kCopyAuditTag[];            // "<FILECOPYAUDIT_DATA>"
extern const char kOperationResultTag[];      // "<FILECOPY_OPERATION_RESULT>"

// A datagram address laid out as a sockaddr_in (family, port, IPv4 address); the exchange reads
// only whether it is a loopback sender.
struct DatagramAddress {
  unsigned char bytes[16] = {};
  int32_t length = 0;
};

// One datagram transport. Both calls return the byte count, or 0 or less on failure, like
// sendto/recvfrom.
class DatagramIo {
 public:
  virtual ~DatagramIo() = default;
  virtual int SendTo(const char* data, int size, const DatagramAddress& to) = 0;
  // Receives one datagram of at most `capacity` bytes; `from` gets the sender's address (also for
  // an empty datagram, whose result is 0).
  virtual int ReceiveFrom(char* buffer, int capacity, DatagramAddress* from) = 0;
};

// A frame held in one zero-filled heap buffer: 32-byte tag field, signed 32-bit length (text
// length + 1), the text and its NUL. Also holds a reassembled response.
class AgentFrame {
 public:
  // Builds the frame for `tag` (shorter than 32 characters) and `xml_text`; false when the
  // tag is too long, the text too large for the length field, or memory is short.
  bool Build(const char* tag, const std::string& xml_text);
  // Replaces the buffer with `size` zero bytes; false (and empty) when memory is short.
  bool Allocate(size_t size);
  void Reset() { data_.reset(); size_ = 0; }

  char* data() { return data_.get(); }
  const char* data() const { return data_.get(); }
  size_t size() const { return size_; }
  // The length field as stored at offset 32; 0 when the frame is shorter than a header.
  int32_t length_field() const;
  // The document text from offset 36, at most `payload_size()` bytes, not necessarily
  // NUL-terminated when it came from a peer.
  const char* payload() const { return size_ > kHeaderSize ? data_.get() + kHeaderSize : nullptr; }
  size_t payload_size() const { return size_ > kHeaderSize ? size_ - kHeaderSize : 0; }

 private:
  std::unique_ptr<char[]> data_;
  size_t size_ = 0;
};

enum class SendStatus {
  kSent,        // every chunk sent, every acknowledgement awaited received
  kSendFailed,  // a chunk's send returned 0 or less; nothing more was sent
  kAckMissing,  // an acknowledgement receive returned 0 or less; the rest was not sent
};

// Sends `frame` to `destination` in chunks of at most 8192 bytes, in place, receiving one
// acknowledgement of up to 128 bytes (from any loopback sender) after every chunk but the last.
// In every receive of the exchange, a datagram from outside 127.0.0.0/8 is dropped unread and
// the wait goes on. An empty frame counts as a failed send.
SendStatus SendFrame(DatagramIo& io, const DatagramAddress& destination, const AgentFrame& frame);
// Builds the frame for `tag` and `xml_text`, then sends it as above; a frame that cannot be
// built counts as a failed send.
SendStatus SendFrame(DatagramIo& io, const DatagramAddress& destination, const char* tag,
                     const std::string& xml_text);

enum class ReceiveOutcome {
  kNoFrame,      // receive error, nothing received, truncated header, or a length field that is
                 // not positive or above 16 MiB (or cannot be allocated)
  kWrongTag,     // the tag field does not hold exactly the expected tag and its NUL
  kEmptyAnswer,  // the length field is exactly 2; nothing more was read
  kFrame,        // `frame` holds the reassembled frame, header at offset 0
  kFailed,       // during reassembly an acknowledgement could not be sent or a receive
                 // returned 0 or less; `frame` is emptied
};

// Receives one frame tagged `expected_tag`: the first datagram from loopback decides the outcome;
// a longer frame is reassembled from the following loopback datagrams, each preceded by an
// all-zero 128-byte acknowledgement to the first datagram's sender. Bytes beyond the announced
// length are dropped.
ReceiveOutcome ReceiveFrame(DatagramIo& io, const char* expected_tag, AgentFrame* frame);

}  // namespace agent
