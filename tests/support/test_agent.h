// A scriptable stand-in for the local agent: listens on a UDP port of 127.0.0.1 (7886 by default)
// on its own thread, records (or only counts) every datagram, acknowledges the chunks of each
// incoming frame (all, none or the first few) and answers secret-audit requests with scripted
// datagrams or with a reply computed from the request. flush() tells when everything sent to it
// so far has been seen. The same agent runs as its own process through `kwtest-child agent`.
#pragma once
#include "kwtest.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <thread>

namespace kwtest {

struct AgentScript {
  bool acknowledge = true;  // 128 zero bytes after every chunk of a frame but the last
  // Sent to the requester after a complete request frame, one datagram after another, each
  // further one after the requester's acknowledgement (up to 5 s). Empty: silent (see
  // send_to_requester) unless `answer` is set.
  std::vector<std::string> reply;
  bool reply_from_other_port = false;  // send the reply from a second socket
  // The reply datagram computed from the request's document; "" stays silent.
  std::function<std::string(const std::string& request_document)> answer;
  int ack_limit = -1;   // acknowledge at most this many chunks of each frame (-1: all)
  bool record = true;   // false: count only, so that long runs keep no recordings
};

struct AgentDatagram {
  std::string bytes;
  uint16_t from_port = 0;
  bool during_reply = false;  // arrived while the agent was sending its reply (acknowledgements)
};

class TestAgent {
 public:
  explicit TestAgent(AgentScript script = AgentScript(), uint16_t port = 7886);
  ~TestAgent();
  TestAgent(const TestAgent&) = delete;
  TestAgent& operator=(const TestAgent&) = delete;

  bool ok() const { return socket_.ok(); }  // false when the port was taken
  std::vector<AgentDatagram> datagrams() const;
  std::vector<std::string> frames() const;  // complete incoming frames, reassembled
  // The documents (payload without its NUL) of the recorded frames tagged `tag`.
  std::vector<std::string> documents(const std::string& tag) const;
  size_t acks_sent() const { return acks_sent_; }
  size_t requests() const { return requests_; }  // complete secret-audit requests
  size_t audits() const { return audits_; }      // complete copy audit records
  bool wait_for_datagrams(size_t count, DWORD timeout_ms) const;
  bool wait_for_frames(size_t count, DWORD timeout_ms) const;
  // Sends a marker datagram to the agent and waits until it was received: every datagram sent
  // to the agent before the call has been seen by then. False at a 10 s time-out.
  bool flush();
  // Sends one datagram to the sender of the last complete frame, or to `port` of 127.0.0.1.
  bool send_to_requester(const std::string& bytes, uint16_t port = 0);
  uint16_t requester_port() const;  // 0 before the first complete frame

  // Wire bytes of a frame made by the library's encoder: tag, NUL, zeros to 32, length (text
  // size + 1), text, NUL; frame_with_length then writes `length` over the length field and
  // puts `payload` in place of the text.
  static std::string frame(const std::string& tag, const std::string& text);
  static std::string frame_with_length(const std::string& tag, int32_t length, const std::string& payload);

 private:
  void run();
  void answer(const sockaddr_in& to, const std::string& request);
  void record(const std::string& bytes, uint16_t port, bool during_reply);

  AgentScript script_;
  WSADATA wsa_;
  OwnedSocket socket_;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> acks_sent_{0}, requests_{0}, audits_{0}, flushes_{0};
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<AgentDatagram> datagrams_;
  std::vector<std::string> frames_;
  sockaddr_in requester_ = {};
  bool has_requester_ = false;
  std::thread thread_;
};

// kwtest-child agent MS [--no-ack] [--other-port] [--ready EVENT] [--reply HEX]...: runs a
// TestAgent for MS milliseconds (signalling the existing named EVENT once the port is bound),
// then prints each recorded datagram as "PORT HEX" on one line. Exit 3 when the port was taken.
int test_agent_main(int argc, wchar_t** argv);

std::string to_hex(const std::string& bytes);
std::string from_hex(const std::string& hex);

}  // namespace kwtest
