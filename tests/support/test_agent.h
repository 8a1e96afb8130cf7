// A scriptable stand-in for the local agent, for any test program: listens on a UDP port of
// 127.0.0.1 (7886 by default) on its own thread, records every datagram raw, acknowledges the
// chunks of each incoming frame (or withholds the acknowledgements) and answers secret-audit
// requests with scripted datagrams. The same agent runs as its own process through
// `kwtest-child agent ...` (see test_agent_main).
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kwtest {

struct AgentScript {
  bool acknowledge = true;  // 128 zero bytes after every chunk of a frame but the last
  // Sent to the requester after a complete "<FILECOPY_SECRETAUDIT_REQUEST>" frame, one datagram
  // after another; before each further datagram the agent waits (up to 5 s) for the requester's
  // acknowledgement. Empty: stay silent (answer later with send_to_requester).
  std::vector<std::string> reply;
  bool reply_from_other_port = false;  // send the reply from a second socket
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

  bool ok() const { return socket_ != INVALID_SOCKET; }  // false when the port was taken
  std::vector<AgentDatagram> datagrams() const;
  std::vector<std::string> frames() const;  // complete incoming frames, reassembled
  size_t acks_sent() const { return acks_sent_; }
  // Waits until `count` datagrams or frames were recorded; false at the time-out.
  bool wait_for_datagrams(size_t count, DWORD timeout_ms) const;
  bool wait_for_frames(size_t count, DWORD timeout_ms) const;
  // Sends one datagram to the sender of the last complete frame.
  bool send_to_requester(const std::string& bytes);

  // Wire bytes of a frame: tag, NUL, zeros to 32, `length` (default text size + 1), text, NUL.
  static std::string frame(const std::string& tag, const std::string& text);
  static std::string frame_with_length(const std::string& tag, int32_t length, const std::string& payload);

 private:
  void run();
  void answer(const sockaddr_in& to);

  AgentScript script_;
  WSADATA wsa_;
  SOCKET socket_ = INVALID_SOCKET;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> acks_sent_{0};
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
