#include "test_agent.h"

#include <cstdio>
#include <cstring>
#include <cwchar>

namespace kwtest {

namespace {
constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>";
constexpr int kMaxDatagram = 65536;
}  // namespace

TestAgent::TestAgent(AgentScript script, uint16_t port) : script_(std::move(script)) {
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
  socket_ = s;
  thread_ = std::thread([this] { run(); });
}

TestAgent::~TestAgent() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (socket_ != INVALID_SOCKET) closesocket(socket_);
  WSACleanup();
}

void TestAgent::run() {
  std::vector<char> buffer(kMaxDatagram);
  std::string pending;   // the frame being reassembled
  size_t expected = 0;   // its announced size; 0 when no frame is in progress
  while (!stop_) {
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(socket_, buffer.data(), kMaxDatagram, 0, reinterpret_cast<sockaddr*>(&from), &from_length);
    if (n < 0) continue;  // time-out (or a reset): poll the stop flag
    std::string bytes(buffer.data(), n);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      datagrams_.push_back({bytes, ntohs(from.sin_port), false});
    }
    changed_.notify_all();
    if (expected == 0) {
      int32_t length = 0;
      if (n >= 36) std::memcpy(&length, bytes.data() + 32, 4);
      expected = length > 0 ? 36 + static_cast<size_t>(length) : static_cast<size_t>(n);
      pending.clear();
    }
    pending += bytes;
    if (pending.size() < expected) {
      if (script_.acknowledge) {
        const char ack[128] = {};
        sendto(socket_, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
        ++acks_sent_;
      }
      continue;
    }
    expected = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(pending);
      requester_ = from;
      has_requester_ = true;
    }
    changed_.notify_all();
    if (pending.compare(0, sizeof kRequestTag, kRequestTag, sizeof kRequestTag) == 0 && !script_.reply.empty()) {
      answer(from);
    }
  }
}

void TestAgent::answer(const sockaddr_in& to) {
  SOCKET out = socket_;
  SOCKET other = INVALID_SOCKET;
  if (script_.reply_from_other_port) {
    other = socket(AF_INET, SOCK_DGRAM, 0);
    out = other;
  }
  std::vector<char> buffer(kMaxDatagram);
  for (size_t i = 0; i < script_.reply.size(); ++i) {
    const std::string& datagram = script_.reply[i];
    sendto(out, datagram.data(), static_cast<int>(datagram.size()), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (i + 1 == script_.reply.size()) break;
    // The requester acknowledges to the address the reply came from.
    DWORD timeout = 5000;
    setsockopt(out, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(out, buffer.data(), kMaxDatagram, 0, reinterpret_cast<sockaddr*>(&from), &from_length);
    timeout = 50;
    setsockopt(out, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
    if (n < 0) break;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      datagrams_.push_back({std::string(buffer.data(), n), ntohs(from.sin_port), true});
    }
    changed_.notify_all();
  }
  if (other != INVALID_SOCKET) closesocket(other);
}

std::vector<AgentDatagram> TestAgent::datagrams() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return datagrams_;
}

std::vector<std::string> TestAgent::frames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

bool TestAgent::wait_for_datagrams(size_t count, DWORD timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return datagrams_.size() >= count; });
}

bool TestAgent::wait_for_frames(size_t count, DWORD timeout_ms) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return frames_.size() >= count; });
}

bool TestAgent::send_to_requester(const std::string& bytes) {
  sockaddr_in to;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!has_requester_) return false;
    to = requester_;
  }
  return sendto(socket_, bytes.data(), static_cast<int>(bytes.size()), 0, reinterpret_cast<sockaddr*>(&to),
                sizeof to) == static_cast<int>(bytes.size());
}

std::string TestAgent::frame_with_length(const std::string& tag, int32_t length, const std::string& payload) {
  std::string out(36, '\0');
  std::memcpy(&out[0], tag.data(), tag.size() < 32 ? tag.size() : 32);
  std::memcpy(&out[32], &length, 4);
  return out + payload;
}

std::string TestAgent::frame(const std::string& tag, const std::string& text) {
  return frame_with_length(tag, static_cast<int32_t>(text.size() + 1), text + std::string(1, '\0'));
}

std::string to_hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

std::string from_hex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

int test_agent_main(int argc, wchar_t** argv) {
  if (argc < 1) return 100;
  const DWORD ms = static_cast<DWORD>(_wtoi(argv[0]));
  AgentScript script;
  std::wstring ready_name;
  for (int i = 1; i < argc; ++i) {
    if (std::wcscmp(argv[i], L"--no-ack") == 0) script.acknowledge = false;
    else if (std::wcscmp(argv[i], L"--other-port") == 0) script.reply_from_other_port = true;
    else if (std::wcscmp(argv[i], L"--ready") == 0 && i + 1 < argc) ready_name = argv[++i];
    else if (std::wcscmp(argv[i], L"--reply") == 0 && i + 1 < argc) {
      std::wstring wide(argv[++i]);
      script.reply.push_back(from_hex(std::string(wide.begin(), wide.end())));
    }
  }
  std::vector<AgentDatagram> recorded;
  {
    TestAgent agent(script);
    if (!agent.ok()) return 3;
    if (!ready_name.empty()) {
      HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, ready_name.c_str());
      if (ready != nullptr) {
        SetEvent(ready);
        CloseHandle(ready);
      }
    }
    Sleep(ms);
    recorded = agent.datagrams();
  }
  for (const AgentDatagram& d : recorded) std::printf("%u %s\n", d.from_port, to_hex(d.bytes).c_str());
  return 0;
}

}  // namespace kwtest
