// A scriptable stand-in for the local agent: listens on a UDP port of 127.0.0.1 (7886 by default)
// on its own thread, records (or only counts) what arrives, acknowledges the chunks of each
// incoming frame (all, none or the first few) and answers secret-audit requests with scripted
// datagrams or with a reply computed from the request. flush() tells when everything sent to it
// so far has been seen, so that "nothing more arrived" needs no sleep.
#pragma once
#include "kwtest.h"

#include <condition_variable>
#include <functional>
#include <thread>

#include "agent/agent_frame.h"

namespace kwtest {

struct AgentScript {
  bool acknowledge = true;  // 128 zero bytes after every chunk of a frame but the last
  // Sent to the requester after a complete request, each datagram after the first once the
  // requester acknowledged the one before (5 s at most). Empty: silent unless `answer` is set.
  std::vector<std::string> reply;
  bool reply_from_other_port = false;  // send the reply from a second socket
  std::function<std::string(const std::string& request_document)> answer;  // one datagram; "": silent
  int ack_limit = -1;  // acknowledge at most this many chunks of each frame (-1: all)
  bool record = true;  // false: count only, so that long runs keep no recordings
};

struct AgentDatagram {
  std::string bytes;
  uint16_t from_port = 0;
  bool during_reply = false;  // an acknowledgement of the reply
};

class TestAgent {
 public:
  explicit TestAgent(AgentScript script = AgentScript(), uint16_t port = 7886) : script_(std::move(script)) {
    WSAStartup(MAKEWORD(2, 2), &wsa_);
    socket_.reset(socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in address = loopback(port);
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) socket_.reset();
    set_timeout(socket_.get(), 50);  // lets the thread notice the stop request
    if (socket_.ok()) thread_ = std::thread([this] { run(); });
  }
  ~TestAgent() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    socket_.reset();
    WSACleanup();
  }
  bool ok() const { return socket_.ok(); }  // false when the port was taken
  std::vector<AgentDatagram> datagrams() const { return locked([&] { return datagrams_; }); }
  std::vector<std::string> frames() const { return locked([&] { return frames_; }); }  // complete, reassembled
  // The documents (text without its NUL) of the frames tagged `tag`.
  std::vector<std::string> documents(const std::string& tag) const {
    std::vector<std::string> out;
    for (const std::string& f : frames()) if (tagged(f, tag.c_str())) out.push_back(f.substr(agent::kHeaderSize, f.size() - agent::kHeaderSize - 1));
    return out;
  }
  size_t acks_sent() const { return acks_sent_; }
  size_t requests() const { return requests_; }  // complete secret-audit requests
  size_t audits() const { return audits_; }      // complete copy audit records
  bool wait_for_datagrams(size_t count, DWORD ms) const { return wait(ms, [&] { return datagrams_.size() >= count; }); }
  bool wait_for_frames(size_t count, DWORD ms) const { return wait(ms, [&] { return frames_.size() >= count; }); }
  // Sends a marker to the agent and waits (10 s at most) until it arrived, after everything sent
  // to the agent before the call.
  bool flush() {
    sockaddr_in self = {};
    int length = sizeof self;
    getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&self), &length);
    const size_t target = flushes_ + 1;
    OwnedSocket s(socket(AF_INET, SOCK_DGRAM, 0));
    sendto(s.get(), kFlush, sizeof kFlush, 0, reinterpret_cast<const sockaddr*>(&self), sizeof self);
    return wait(10000, [&] { return flushes_ >= target; });
  }
  uint16_t requester_port() const { return locked([&] { return requester_port_; }); }  // 0 before any frame
  // Sends one datagram to the sender of the last complete frame, or to `port` of 127.0.0.1.
  bool send_to_requester(const std::string& bytes, uint16_t port = 0) {
    const sockaddr_in to = loopback(port != 0 ? port : requester_port());
    return to.sin_port != 0 && sendto(socket_.get(), bytes.data(), static_cast<int>(bytes.size()), 0,
                                      reinterpret_cast<const sockaddr*>(&to), sizeof to) == static_cast<int>(bytes.size());
  }
  // Wire bytes of a frame from the library's encoder; frame_with_length writes `length` over the
  // length field and puts `payload` in place of the text and its NUL.
  static std::string frame(const std::string& tag, const std::string& text) {
    agent::AgentFrame f;
    return f.Build(tag.c_str(), text) ? std::string(f.data(), f.size()) : std::string();
  }
  static std::string frame_with_length(const std::string& tag, int32_t length, const std::string& payload) {
    std::string header = frame(tag, "").substr(0, agent::kHeaderSize);
    if (!header.empty()) std::memcpy(&header[agent::kTagFieldSize], &length, 4);
    return header + payload;
  }

 private:
  static constexpr char kFlush[] = "<KWTEST_FLUSH>";
  static sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {AF_INET, htons(port)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static void set_timeout(SOCKET s, DWORD ms) { setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms); }
  static bool tagged(const std::string& bytes, const char* tag) { return bytes.size() > agent::kHeaderSize && bytes.compare(0, strlen(tag) + 1, tag, strlen(tag) + 1) == 0; }
  template <typename F> auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  template <typename F> bool wait(DWORD ms, F done) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(ms), done);
  }
  void record(std::string bytes, uint16_t port, bool during_reply) {
    locked([&] { if (script_.record) datagrams_.push_back({std::move(bytes), port, during_reply}); });
    changed_.notify_all();
  }
  void run() {
    std::vector<char> buffer(65536);
    std::string pending;  // the frame being reassembled
    size_t expected = 0;  // its announced size; 0 when no frame is in progress
    int acked = 0;        // acknowledgements sent for it
    uint16_t sender = 0;  // its sender's port: a datagram from another port starts a new frame
    while (!stop_) {
      sockaddr_in from = {};
      int from_length = sizeof from;
      const int n = recvfrom(socket_.get(), buffer.data(), static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&from), &from_length);
      if (n < 0) continue;  // time-out (or a reset): poll the stop flag
      const std::string bytes(buffer.data(), n);
      if (bytes == std::string(kFlush, sizeof kFlush)) {
        locked([&] { return ++flushes_; });
        changed_.notify_all();
        continue;
      }
      record(bytes, ntohs(from.sin_port), false);
      if (expected == 0 || ntohs(from.sin_port) != sender) {
        int32_t length = 0;
        if (n >= agent::kHeaderSize) std::memcpy(&length, bytes.data() + agent::kTagFieldSize, 4);
        expected = length > 0 ? agent::kHeaderSize + static_cast<size_t>(length) : static_cast<size_t>(n);
        pending.clear();
        acked = 0;
        sender = ntohs(from.sin_port);
      }
      pending += bytes;
      if (pending.size() < expected) {
        if (script_.acknowledge && (script_.ack_limit < 0 || acked++ < script_.ack_limit)) {
          const char ack[agent::kAckSize] = {};
          sendto(socket_.get(), ack, sizeof ack, 0, reinterpret_cast<const sockaddr*>(&from), sizeof from);
          ++acks_sent_;
        }
        continue;
      }
      expected = 0;
      const bool request = tagged(pending, agent::kSecretAuditRequestTag);
      requests_ += request ? 1 : 0;
      audits_ += tagged(pending, agent::kCopyAuditTag) ? 1 : 0;
      locked([&] {
        if (script_.record) frames_.push_back(pending);
        requester_port_ = sender;
      });
      changed_.notify_all();
      if (request) answer(from, pending.substr(agent::kHeaderSize, pending.size() - agent::kHeaderSize - 1));
    }
  }
  void answer(const sockaddr_in& to, const std::string& request) {
    OwnedSocket other(script_.reply_from_other_port ? socket(AF_INET, SOCK_DGRAM, 0) : INVALID_SOCKET);
    const SOCKET out = other.ok() ? other.get() : socket_.get();
    std::vector<std::string> reply = script_.answer ? std::vector<std::string>{script_.answer(request)} : script_.reply;
    std::vector<char> buffer(65536);
    for (size_t i = 0; i < reply.size() && !(script_.answer && reply[i].empty()); ++i) {
      sendto(out, reply[i].data(), static_cast<int>(reply[i].size()), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
      if (i + 1 == reply.size()) break;
      set_timeout(out, 5000);  // the requester acknowledges to the address the reply came from
      sockaddr_in from = {};
      int from_length = sizeof from;
      const int n = recvfrom(out, buffer.data(), static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&from), &from_length);
      set_timeout(out, 50);
      if (n < 0) break;
      record(std::string(buffer.data(), n), ntohs(from.sin_port), true);
    }
  }

  AgentScript script_;
  WSADATA wsa_;
  OwnedSocket socket_;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> acks_sent_{0}, requests_{0}, audits_{0};
  size_t flushes_ = 0;
  uint16_t requester_port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<AgentDatagram> datagrams_;
  std::vector<std::string> frames_;
  std::thread thread_;
};

}  // namespace kwtest
