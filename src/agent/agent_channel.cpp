#include "agent/agent_channel.h"

#include <cstring>
#include <utility>

namespace agent {

WinsockSession::WinsockSession() {
  WSADATA data;
  ok_ = WSAStartup(MAKEWORD(2, 0), &data) == 0;
}

WinsockSession::~WinsockSession() { WSACleanup(); }

DatagramAddress agent_address(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  DatagramAddress result;
  static_assert(sizeof address == sizeof result.bytes, "sockaddr_in is 16 bytes");
  std::memcpy(result.bytes, &address, sizeof address);
  result.length = sizeof address;
  return result;
}

AgentChannel::AgentChannel() : destination_(agent_address()) {
  // Bound before the first send, so that the system never binds it to every address: only
  // datagrams sent to 127.0.0.1 can reach it.
  OwnedSocket s(socket(AF_INET, SOCK_DGRAM, 0));
  const DatagramAddress local = agent_address(0);
  if (s.ok() && bind(s.get(), reinterpret_cast<const sockaddr*>(local.bytes), local.length) == 0) socket_ = std::move(s);
}

void AgentChannel::SetReceiveTimeout(DWORD milliseconds) {
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&milliseconds),
             sizeof milliseconds);
}

int AgentChannel::SendTo(const char* data, int size, const DatagramAddress& to) {
  return sendto(socket_.get(), data, size, 0, reinterpret_cast<const sockaddr*>(to.bytes), to.length);
}

int AgentChannel::ReceiveFrom(char* buffer, int capacity, DatagramAddress* from) {
  int length = sizeof from->bytes;
  const int count =
      recvfrom(socket_.get(), buffer, capacity, 0, reinterpret_cast<sockaddr*>(from->bytes), &length);
  from->length = count >= 0 ? length : 0;  // an empty datagram has a sender too
  return count;
}

}  // namespace agent
