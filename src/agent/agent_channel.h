// The socket transport to the local agent: one IPv4 UDP socket per message, bound to 127.0.0.1
// and sending to 127.0.0.1 port 7886, plus the Winsock start-up pair that some message kinds make
// themselves.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include "agent/agent_frame.h"
#include "host/owners.h"

namespace agent {

// WSAStartup(2.0) for the length of a scope; WSACleanup at its end, also after a failed start-up.
class WinsockSession {
 public:
  WinsockSession();
  ~WinsockSession();
  WinsockSession(const WinsockSession&) = delete;
  WinsockSession& operator=(const WinsockSession&) = delete;
  bool ok() const { return ok_; }

 private:
  bool ok_ = false;
};

// The agent's address: AF_INET, htons(port), inet_addr("127.0.0.1"), length 16.
DatagramAddress agent_address(uint16_t port = kAgentPort);

// One message's socket (socket(AF_INET, SOCK_DGRAM, 0)) bound to 127.0.0.1, port 0, before
// anything is sent; not ok() when either step fails. Closed at the end of the scope.
class AgentChannel : public DatagramIo {
 public:
  AgentChannel();
  AgentChannel(const AgentChannel&) = delete;
  AgentChannel& operator=(const AgentChannel&) = delete;

  bool ok() const { return socket_.ok(); }
  const DatagramAddress& destination() const { return destination_; }
  // SO_RCVTIMEO in milliseconds (a 4-byte value); the result is not needed by any caller.
  void SetReceiveTimeout(DWORD milliseconds);

  int SendTo(const char* data, int size, const DatagramAddress& to) override;
  int ReceiveFrom(char* buffer, int capacity, DatagramAddress* from) override;

 private:
  OwnedSocket socket_;
  DatagramAddress destination_;
};

}  // namespace agent
