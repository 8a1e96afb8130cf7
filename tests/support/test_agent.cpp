#include "test_agent.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

#include "agent/agent_frame.h"

namespace kwtest {

namespace {
constexpr int kMaxDatagram = 65536;
const std::string kFlushMarker = "<KWTEST_FLUSH>";

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  return address;
}

void set_timeout(SOCKET s, DWORD ms) {
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
}

bool starts_with(const std::string& bytes, const char* tag) { return bytes.compare(0, strlen(tag) + 1, tag, strlen(tag) + 1) == 0; }
}  // namespace

TestAgent::TestAgent(AgentScript script, uint16_t port) : script_(std::move(script)) {
  WSAStartup(MAKEWORD(2, 2), &wsa_);
  socket_.reset(socket(AF_INET, SOCK_DGRAM, 0));
  const sockaddr_in address = loopback(port);
  if (socket_.ok() && bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) socket_.reset();
  if (!socket_.ok()) return;
  set_timeout(socket_.get(), 50);  // lets the thread notice the stop request
  thread_ = std::thread([this] { run(); });
}

TestAgent::~TestAgent() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  socket_.reset();
  WSACleanup();
}

void TestAgent::record(const std::string& bytes, uint16_t port, bool during_reply) {
  if (script_.record) {
    std::lock_guard<std::mutex> lock(mutex_);
    datagrams_.push_back({bytes, port, during_reply});
  }
  changed_.notify_all();
}

void TestAgent::run() {
  std::vector<char> buffer(kMaxDatagram);
  std::string pending;   // the frame being reassembled
  size_t expected = 0;   // its announced size; 0 when no frame is in progress
  int acked = 0;         // acknowledgements sent for it
  uint16_t sender = 0;   // its sender's port: a datagram from another port starts a new frame
  while (!stop_) {
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(socket_.get(), buffer.data(), kMaxDatagram, 0, reinterpret_cast<sockaddr*>(&from), &from_length);
    if (n < 0) continue;  // time-out (or a reset): poll the stop flag
    const std::string bytes(buffer.data(), n);
    if (bytes == kFlushMarker) {
      ++flushes_;
      changed_.notify_all();
      continue;
    }
    record(bytes, ntohs(from.sin_port), false);
    if (expected == 0 || ntohs(from.sin_port) != sender) {
      sender = ntohs(from.sin_port);
      int32_t length = 0;
      if (n >= agent::kHeaderSize) std::memcpy(&length, bytes.data() + agent::kTagFieldSize, 4);
      expected = length > 0 ? agent::kHeaderSize + static_cast<size_t>(length) : static_cast<size_t>(n);
      pending.clear();
      acked = 0;
    }
    pending += bytes;
    if (pending.size() < expected) {
      if (script_.acknowledge && (script_.ack_limit < 0 || acked < script_.ack_limit)) {
        const char ack[agent::kAckSize] = {};
        sendto(socket_.get(), ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
        ++acks_sent_;
        ++acked;
      }
      continue;
    }
    expected = 0;
    const bool request = starts_with(pending, agent::kSecretAuditRequestTag);
    requests_ += request ? 1 : 0;
    audits_ += starts_with(pending, agent::kCopyAuditTag) ? 1 : 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (script_.record) frames_.push_back(pending);
      requester_ = from;
      has_requester_ = true;
    }
    changed_.notify_all();
    if (request) answer(from, pending);
  }
}

void TestAgent::answer(const sockaddr_in& to, const std::string& request) {
  if (script_.answer) {
    const std::string reply = script_.answer(request.size() > 37 ? request.substr(36, request.size() - 37) : "");
    if (!reply.empty()) sendto(socket_.get(), reply.data(), static_cast<int>(reply.size()), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return;
  }
  OwnedSocket other(script_.reply_from_other_port ? socket(AF_INET, SOCK_DGRAM, 0) : INVALID_SOCKET);
  const SOCKET out = other.ok() ? other.get() : socket_.get();
  std::vector<char> buffer(kMaxDatagram);
  for (size_t i = 0; i < script_.reply.size(); ++i) {
    const std::string& datagram = script_.reply[i];
    sendto(out, datagram.data(), static_cast<int>(datagram.size()), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (i + 1 == script_.reply.size()) break;
    set_timeout(out, 5000);  // the requester acknowledges to the address the reply came from
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(out, buffer.data(), kMaxDatagram, 0, reinterpret_cast<sockaddr*>(&from), &from_length);
    set_timeout(out, 50);
    if (n < 0) break;
    record(std::string(buffer.data(), n), ntohs(from.sin_port), true);
  }
}

std::vector<AgentDatagram> TestAgent::datagrams() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return datagrams_;
}

std::vector<std::string> TestAgent::frames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

std::vector<std::string> TestAgent::documents(const std::string& tag) const {
  std::vector<std::string> out;
  for (const std::string& wire : frames()) {
    if (wire.size() > agent::kHeaderSize && starts_with(wire, tag.c_str())) {
      out.push_back(wire.substr(agent::kHeaderSize, wire.back() == '\0' ? wire.size() - agent::kHeaderSize - 1 : std::string::npos));
    }
  }
  return out;
}

bool TestAgent::wait_for_datagrams(size_t count, DWORD timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return datagrams_.size() >= count; });
}

bool TestAgent::wait_for_frames(size_t count, DWORD timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return frames_.size() >= count; });
}

bool TestAgent::flush() {
  sockaddr_in self = {};
  int length = sizeof self;
  getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&self), &length);
  OwnedSocket s(socket(AF_INET, SOCK_DGRAM, 0));
  const size_t target = flushes_ + 1;
  sendto(s.get(), kFlushMarker.data(), static_cast<int>(kFlushMarker.size()), 0, reinterpret_cast<sockaddr*>(&self), sizeof self);
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return flushes_ >= target; });
}

uint16_t TestAgent::requester_port() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return has_requester_ ? ntohs(requester_.sin_port) : 0;
}

bool TestAgent::send_to_requester(const std::string& bytes, uint16_t port) {
  const sockaddr_in to = loopback(port != 0 ? port : requester_port());
  if (to.sin_port == 0) return false;
  return sendto(socket_.get(), bytes.data(), static_cast<int>(bytes.size()), 0, reinterpret_cast<const sockaddr*>(&to),
                sizeof to) == static_cast<int>(bytes.size());
}

std::string TestAgent::frame(const std::string& tag, const std::string& text) {
  agent::AgentFrame f;
  return f.Build(tag.c_str(), text) ? std::string(f.data(), f.size()) : std::string();
}

std::string TestAgent::frame_with_length(const std::string& tag, int32_t length, const std::string& payload) {
  std::string out = frame(tag, "").substr(0, agent::kHeaderSize);
  if (out.empty()) return out;
  std::memcpy(&out[agent::kTagFieldSize], &length, 4);
  return out + payload;
}

std::string to_hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) out += {digits[c >> 4], digits[c & 15]};
  return out;
}

std::string from_hex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

int test_agent_main(int argc, wchar_t** argv) {
  if (argc < 1) return 100;
  AgentScript script;
  std::wstring ready_name;
  for (int i = 1; i < argc; ++i) {
    const std::wstring arg = argv[i];
    if (arg == L"--no-ack") script.acknowledge = false;
    else if (arg == L"--other-port") script.reply_from_other_port = true;
    else if (arg == L"--ready" && i + 1 < argc) ready_name = argv[++i];
    else if (arg == L"--reply" && i + 1 < argc) script.reply.push_back(from_hex(narrow(argv[++i])));
  }
  std::vector<AgentDatagram> recorded;
  {
    TestAgent agent(script);
    if (!agent.ok()) return 3;
    OwnedHandle ready(ready_name.empty() ? nullptr : OpenEventW(EVENT_MODIFY_STATE, FALSE, ready_name.c_str()));
    if (ready.ok()) SetEvent(ready.get());
    Sleep(static_cast<DWORD>(_wtoi(argv[0])));
    recorded = agent.datagrams();
  }
  for (const AgentDatagram& d : recorded) std::printf("%u %s\n", d.from_port, to_hex(d.bytes).c_str());
  return 0;
}

}  // namespace kwtest
