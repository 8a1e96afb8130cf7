#include "agent/agent_frame.h"

#include <climits>
#include <cstring>
#include <new>

namespace agent {

const char kSecretAuditRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>";
const char kSecretAuditResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";
const char kCopyAuditTag[] = "<FILECOPYAUDIT_DATA>";
const char kOperationResultTag[] = "<FILECOPY_OPERATION_RESULT>";

namespace {

// Only the local agent may answer: an IPv4 sender in 127.0.0.0/8. The bytes are a sockaddr_in:
// the family (2, little-endian) at 0, the address in network order from 4.
bool from_loopback(const DatagramAddress& from) {
  return from.length >= 8 && from.bytes[0] == 2 && from.bytes[1] == 0 && from.bytes[4] == 127;
}

// Receives the next datagram from loopback into the zero-filled `buffer`; a datagram from
// anywhere else (even an empty one) is dropped and the wait goes on, with the buffer zeroed again.
int receive_from_loopback(DatagramIo& io, char* buffer, int capacity, DatagramAddress* from) {
  for (;;) {
    *from = DatagramAddress();
    const int count = io.ReceiveFrom(buffer, capacity, from);
    if (count < 0 || from_loopback(*from)) return count;
    std::memset(buffer, 0, static_cast<size_t>(capacity));
  }
}

}  // namespace

bool AgentFrame::Allocate(size_t size) {
  Reset();
  if (size == 0) return true;
  data_.reset(new (std::nothrow) char[size]());  // value-initialised: zero-filled
  if (!data_) return false;
  size_ = size;
  return true;
}

int32_t AgentFrame::length_field() const {
  if (size_ < static_cast<size_t>(kHeaderSize)) return 0;
  int32_t length = 0;
  std::memcpy(&length, data_.get() + kTagFieldSize, sizeof length);
  return length;
}

bool AgentFrame::Build(const char* tag, const std::string& xml_text) {
  Reset();
  const size_t tag_size = std::strlen(tag) + 1;
  if (tag_size > static_cast<size_t>(kTagFieldSize)) return false;
  if (xml_text.size() >= static_cast<size_t>(INT32_MAX - kHeaderSize)) return false;
  const int32_t length = static_cast<int32_t>(xml_text.size() + 1);
  if (!Allocate(static_cast<size_t>(kHeaderSize) + length)) return false;
  std::memcpy(data_.get(), tag, tag_size);
  std::memcpy(data_.get() + kTagFieldSize, &length, sizeof length);
  std::memcpy(data_.get() + kHeaderSize, xml_text.c_str(), xml_text.size() + 1);
  return true;
}

SendStatus SendFrame(DatagramIo& io, const DatagramAddress& destination, const AgentFrame& frame) {
  if (frame.size() == 0) return SendStatus::kSendFailed;
  const char* data = frame.data();
  size_t offset = 0;
  while (offset < frame.size()) {
    const size_t remaining = frame.size() - offset;
    const int chunk = remaining > static_cast<size_t>(kChunkSize) ? kChunkSize : static_cast<int>(remaining);
    const int sent = io.SendTo(data + offset, chunk, destination);
    if (sent <= 0) return SendStatus::kSendFailed;
    offset += sent < chunk ? static_cast<size_t>(sent) : static_cast<size_t>(chunk);
    if (offset < frame.size()) {
      char ack[kAckSize] = {};  // content ignored
      DatagramAddress from;
      if (receive_from_loopback(io, ack, kAckSize, &from) <= 0) return SendStatus::kAckMissing;
    }
  }
  return SendStatus::kSent;
}

SendStatus SendFrame(DatagramIo& io, const DatagramAddress& destination, const char* tag,
                     const std::string& xml_text) {
  AgentFrame frame;
  if (!frame.Build(tag, xml_text)) return SendStatus::kSendFailed;
  return SendFrame(io, destination, frame);
}

ReceiveOutcome ReceiveFrame(DatagramIo& io, const char* expected_tag, AgentFrame* frame) {
  frame->Reset();
  // Heap, not stack: this runs on application threads with unknown stack reserves.
  std::unique_ptr<char[]> buffer(new (std::nothrow) char[kChunkSize]());
  if (!buffer) return ReceiveOutcome::kNoFrame;
  DatagramAddress sender;
  const int received = receive_from_loopback(io, buffer.get(), kChunkSize, &sender);
  if (received <= 0) return ReceiveOutcome::kNoFrame;
  const size_t first = received > kChunkSize ? kChunkSize : static_cast<size_t>(received);

  // The tag field must hold the expected tag and its NUL; bytes after the NUL are ignored. The
  // buffer was zeroed, so a datagram shorter than the tag compares against zeros.
  const size_t tag_size = std::strlen(expected_tag) + 1;
  if (tag_size > static_cast<size_t>(kTagFieldSize) || std::memcmp(buffer.get(), expected_tag, tag_size) != 0) {
    return ReceiveOutcome::kWrongTag;
  }
  if (first < static_cast<size_t>(kHeaderSize)) return ReceiveOutcome::kNoFrame;  // no length field

  int32_t length = 0;
  std::memcpy(&length, buffer.get() + kTagFieldSize, sizeof length);
  if (length == 2) return ReceiveOutcome::kEmptyAnswer;
  if (length <= 0 || length > kMaxResponseLength) return ReceiveOutcome::kNoFrame;

  const size_t total = static_cast<size_t>(kHeaderSize) + static_cast<size_t>(length);
  if (!frame->Allocate(total)) return ReceiveOutcome::kNoFrame;
  size_t filled = first < total ? first : total;  // more than announced: the excess is dropped
  std::memcpy(frame->data(), buffer.get(), filled);

  while (filled < total) {
    const char ack[kAckSize] = {};
    if (io.SendTo(ack, kAckSize, sender) <= 0) {
      frame->Reset();
      return ReceiveOutcome::kFailed;
    }
    std::memset(buffer.get(), 0, kChunkSize);
    DatagramAddress from;  // any loopback sender, like the acknowledgements of a send
    const int count = receive_from_loopback(io, buffer.get(), kChunkSize, &from);
    if (count <= 0) {
      frame->Reset();
      return ReceiveOutcome::kFailed;
    }
    size_t take = count > kChunkSize ? kChunkSize : static_cast<size_t>(count);
    if (take > total - filled) take = total - filled;
    std::memcpy(frame->data() + filled, buffer.get(), take);
    filled += take;
  }
  return ReceiveOutcome::kFrame;
}

}  // namespace agent
