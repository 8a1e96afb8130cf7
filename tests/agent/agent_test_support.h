// Shared pieces of the agent tests: an in-memory datagram transport and a few builders.
#pragma once
#include "test_agent.h"  // winsock2.h before windows.h

#include <deque>
#include <string>
#include <vector>

#include "agent/agent_frame.h"
#include "kwtest.h"

namespace agenttest {

// Datagrams from memory: each receive pops one scripted entry (bytes, or a result of 0 or
// less); an empty queue reads as a receive error. Sends are recorded and may be made to fail.
class MemoryIo : public agent::DatagramIo {
 public:
  struct Sent {
    std::string bytes;
    agent::DatagramAddress to;
  };
  struct Incoming {
    int result;  // > 0: deliver `bytes`
    std::string bytes;
    uint16_t from_port;
  };

  void push(const std::string& bytes, uint16_t from_port = 5000) { incoming.push_back({1, bytes, from_port}); }
  void push_result(int result) { incoming.push_back({result, std::string(), 0}); }

  int SendTo(const char* data, int size, const agent::DatagramAddress& to) override;
  int ReceiveFrom(char* buffer, int capacity, agent::DatagramAddress* from) override;

  std::vector<Sent> sent;
  std::deque<Incoming> incoming;
  int receives = 0;
  int fail_send_from = -1;  // sends with this index or later return -1
};

agent::DatagramAddress address_with_port(uint16_t port);
uint16_t port_of(const agent::DatagramAddress& address);

// Frame bytes as the agent sends them (see TestAgent::frame).
inline std::string response(const std::string& text) {
  return kwtest::TestAgent::frame("<FILECOPY_SECRETAUDIT_RESPONSE>", text);
}

// Splits `bytes` into datagrams of at most `size` bytes.
std::vector<std::string> chunks(const std::string& bytes, size_t size);

}  // namespace agenttest
