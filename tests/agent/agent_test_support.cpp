#include "agent_test_support.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

namespace agenttest {

int MemoryIo::SendTo(const char* data, int size, const agent::DatagramAddress& to) {
  sent.push_back({std::string(data, size), to});
  if (fail_send_from >= 0 && static_cast<int>(sent.size()) > fail_send_from) return -1;
  return size;
}

int MemoryIo::ReceiveFrom(char* buffer, int capacity, agent::DatagramAddress* from) {
  ++receives;
  if (incoming.empty()) return -1;
  Incoming next = incoming.front();
  incoming.pop_front();
  if (next.result <= 0) return next.result;
  const int count = static_cast<int>(next.bytes.size() < static_cast<size_t>(capacity) ? next.bytes.size() : capacity);
  std::memcpy(buffer, next.bytes.data(), count);
  *from = address_with_port(next.from_port);
  return count;
}

agent::DatagramAddress address_with_port(uint16_t port) {
  agent::DatagramAddress address;
  address.bytes[0] = 2;  // AF_INET
  address.bytes[2] = static_cast<unsigned char>(port >> 8);
  address.bytes[3] = static_cast<unsigned char>(port);
  address.length = 16;
  return address;
}

uint16_t port_of(const agent::DatagramAddress& address) {
  return static_cast<uint16_t>(address.bytes[2] << 8 | address.bytes[3]);
}

std::vector<std::string> chunks(const std::string& bytes, size_t size) {
  std::vector<std::string> out;
  for (size_t offset = 0; offset < bytes.size(); offset += size) out.push_back(bytes.substr(offset, size));
  return out;
}

namespace {
// The copy audit record relies on a Winsock start-up made by the library at set-up; here the
// test program makes it.
class WinsockEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(0, WSAStartup(MAKEWORD(2, 2), &data));
  }
  void TearDown() override { WSACleanup(); }
};
testing::Environment* const g_winsock = testing::AddGlobalTestEnvironment(new WinsockEnvironment);

// A secret-audit request waits for its answer without limit; a fault that loses the answer
// would hang the program until CTest's time-out. The watchdog ends it early with the test's name.
class Watchdog : public testing::EmptyTestEventListener {
 public:
  void OnTestStart(const testing::TestInfo& info) override {
    name_ = std::string(info.test_suite_name()) + "." + info.name();
    started_ = GetTickCount64();
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  }
  void OnTestEnd(const testing::TestInfo&) override { started_ = 0; }
  void OnTestProgramEnd(const testing::UnitTest&) override {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  void run() {
    while (!stop_) {
      const ULONGLONG started = started_;
      if (started != 0 && GetTickCount64() - started > 60000) {
        std::fprintf(stderr, "watchdog: %s still running after 60 s, giving up\n", name_.c_str());
        std::fflush(stderr);
        TerminateProcess(GetCurrentProcess(), 99);
      }
      Sleep(200);
    }
  }
  std::string name_;
  std::atomic<ULONGLONG> started_{0};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct WatchdogInstaller {
  WatchdogInstaller() { testing::UnitTest::GetInstance()->listeners().Append(new Watchdog); }
} g_watchdog;
}  // namespace

}  // namespace agenttest
