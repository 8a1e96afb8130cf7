// A fast stand-in for the agent for the long runs: answers every secret-audit request with a
// reply computed from the request's document, acknowledges chunks (or only the first few of each
// frame), and keeps counts instead of recordings so that it adds nothing to the memory that the
// leak checks measure.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kwtest {

class Responder {
 public:
  // Returns the datagram to send back (a whole frame of at most 8192 bytes), or "" to stay silent.
  using Answer = std::function<std::string(const std::string& request_document)>;
  // ack_limit: acknowledge at most this many chunks of each incoming frame (-1: all of them).
  explicit Responder(Answer answer, int ack_limit = -1, uint16_t port = 7886);
  ~Responder();
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  bool ok() const { return socket_ != INVALID_SOCKET; }
  size_t requests() const { return requests_; }
  size_t audits() const { return audits_; }
  size_t datagrams() const { return datagrams_; }
  size_t acks_sent() const { return acks_; }

 private:
  void run();

  Answer answer_;
  int ack_limit_;
  WSADATA wsa_;
  SOCKET socket_ = INVALID_SOCKET;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> requests_{0}, audits_{0}, datagrams_{0}, acks_{0};
  std::thread thread_;
};

// A response naming every File path of the request secret under `password`, action 1.
std::string all_secret_answer(const std::string& request_document, const std::string& password);

// Iteration counts: the long value when KWINDEL_STRESS=1 is in the environment (make stress).
bool stress_run();
int iterations(int short_run, int long_run);

}  // namespace kwtest
