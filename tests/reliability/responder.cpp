#include "responder.h"

#include <cstdlib>
#include <cstring>
#include <map>

#include "intercept_support.h"

namespace kwtest {

namespace {
constexpr int kMaxDatagram = 65536;
}

Responder::Responder(Answer answer, int ack_limit, uint16_t port) : answer_(std::move(answer)), ack_limit_(ack_limit) {
  WSAStartup(MAKEWORD(2, 2), &wsa_);
  SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  if (s != INVALID_SOCKET && bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    closesocket(s);
    s = INVALID_SOCKET;
  }
  if (s == INVALID_SOCKET) return;
  DWORD timeout = 50;  // lets the thread notice the stop request
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
  int buffer = 1 << 20;  // eight requesters at once must not overrun the queue
  setsockopt(s, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&buffer), sizeof buffer);
  socket_ = s;
  thread_ = std::thread([this] { run(); });
}

Responder::~Responder() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (socket_ != INVALID_SOCKET) closesocket(socket_);
  WSACleanup();
}

void Responder::run() {
  struct Pending {
    std::string bytes;
    size_t expected = 0;
    int acks = 0;
  };
  std::map<uint16_t, Pending> pending;  // by the sender's port: each message has its own socket
  std::vector<char> buffer(kMaxDatagram);
  while (!stop_) {
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(socket_, buffer.data(), kMaxDatagram, 0, reinterpret_cast<sockaddr*>(&from), &from_length);
    if (n < 0) continue;
    ++datagrams_;
    Pending& p = pending[ntohs(from.sin_port)];
    if (p.expected == 0) {
      int32_t length = 0;
      if (n >= 36) std::memcpy(&length, buffer.data() + 32, 4);
      p.expected = length > 0 ? 36 + static_cast<size_t>(length) : static_cast<size_t>(n);
      p.bytes.clear();
      p.acks = 0;
    }
    p.bytes.append(buffer.data(), n);
    if (p.bytes.size() < p.expected) {
      if (ack_limit_ < 0 || p.acks < ack_limit_) {
        const char ack[128] = {};
        sendto(socket_, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
        ++p.acks;
        ++acks_;
      }
      continue;
    }
    const DecodedFrame frame = decode_frame(p.bytes);
    pending.erase(ntohs(from.sin_port));
    if (frame.tag == kRequestTag) {
      ++requests_;
      const std::string reply = answer_ ? answer_(frame.document) : std::string();
      if (!reply.empty()) {
        sendto(socket_, reply.data(), static_cast<int>(reply.size()), 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
      }
    } else if (frame.tag == kAuditTag) {
      ++audits_;
    }
  }
}

std::string all_secret_answer(const std::string& request_document, const std::string& password) {
  // File elements carry "path"; so do the DstFolder elements, which come after them.
  std::vector<std::string> files;
  const std::string key = "<File path=\"";
  for (size_t at = request_document.find(key); at != std::string::npos; at = request_document.find(key, at)) {
    at += key.size();
    const size_t end = request_document.find('"', at);
    if (end == std::string::npos) break;
    files.push_back(request_document.substr(at, end - at));
  }
  return secret_answer(files, password, 1);
}

bool stress_run() {
  const char* value = std::getenv("KWINDEL_STRESS");
  return value != nullptr && std::strcmp(value, "1") == 0;
}

int iterations(int short_run, int long_run) { return stress_run() ? long_run : short_run; }

}  // namespace kwtest
