// Drive classification: the whole decision table through a substituted provider, and real
// paths through the Windows provider.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protect/classify.h"

namespace {

HANDLE const kVolume = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x1234));

class FakeStorage final : public StorageProvider {
 public:
  UINT drive_type = DRIVE_FIXED;
  bool opens = true;
  BOOL query_ok = TRUE;
  STORAGE_BUS_TYPE bus = BusTypeSata;

  std::vector<std::wstring> calls;
  DWORD size_on_entry = 0;

  UINT DriveType(const wchar_t* drive) override {
    calls.push_back(L"type " + std::wstring(drive));
    return drive_type;
  }
  HANDLE OpenVolume(const wchar_t* name) override {
    calls.push_back(L"open " + std::wstring(name));
    return opens ? kVolume : INVALID_HANDLE_VALUE;
  }
  BOOL QueryDescriptor(HANDLE volume, STORAGE_DEVICE_DESCRIPTOR* d) override {
    calls.push_back(volume == kVolume ? L"query" : L"query ?");
    size_on_entry = d->Size;
    d->BusType = bus;
    return query_ok;
  }
  void CloseVolume(HANDLE volume) override { calls.push_back(volume == kVolume ? L"close" : L"close ?"); }
};

using Calls = std::vector<std::wstring>;

TEST(ClassifyDestination, DecisionTableThroughProvider) {
  {
    FakeStorage s;
    s.drive_type = DRIVE_REMOVABLE;  // card reader: no volume is opened
    EXPECT_EQ(ClassifyDestination(L"E:\\dir\\f.txt", s), 1);
    EXPECT_EQ(s.calls, (Calls{L"type E:"}));
  }
  {
    FakeStorage s;
    s.bus = BusTypeUsb;  // USB disk that reports itself as fixed
    EXPECT_EQ(ClassifyDestination(L"F:\\f.txt", s), 1);
    EXPECT_EQ(s.calls, (Calls{L"type F:", L"open \\\\?\\F:", L"query", L"close"}));
    EXPECT_EQ(s.size_on_entry, 551u);
  }
  {
    FakeStorage s;  // internal disk
    EXPECT_EQ(ClassifyDestination(L"C:\\f.txt", s), 0);
    EXPECT_EQ(s.calls.size(), 4u);
  }
  {
    FakeStorage s;
    s.opens = false;  // no right to open the volume
    s.bus = BusTypeUsb;
    EXPECT_EQ(ClassifyDestination(L"G:\\f.txt", s), 0);
    EXPECT_EQ(s.calls, (Calls{L"type G:", L"open \\\\?\\G:"}));
  }
  {
    FakeStorage s;
    s.query_ok = FALSE;  // the driver does not answer: USB in the buffer is not believed
    s.bus = BusTypeUsb;
    EXPECT_EQ(ClassifyDestination(L"H:\\f.txt", s), 0);
    EXPECT_EQ(s.calls.back(), L"close");
  }
  {
    FakeStorage s;
    s.drive_type = DRIVE_REMOTE;  // a mapped network drive letter is not a network path
    EXPECT_EQ(ClassifyDestination(L"N:\\share\\f.txt", s), 0);
  }
  {
    FakeStorage s;
    s.drive_type = DRIVE_NO_ROOT_DIR;
    s.opens = false;
    EXPECT_EQ(ClassifyDestination(L"f.txt", s), 0);  // relative: its first character is the drive
    EXPECT_EQ(s.calls, (Calls{L"type f.", L"open \\\\?\\f:"}));
  }
}

TEST(ClassifyDestination, DoubleBackslashIsNetworkWithoutAnyCall) {
  for (const wchar_t* path : {L"\\\\server\\share\\file.txt", L"\\\\?\\C:\\long\\path.txt", L"\\\\.\\PhysicalDrive0"}) {
    FakeStorage s;
    s.drive_type = DRIVE_REMOVABLE;
    EXPECT_EQ(ClassifyDestination(path, s), 2) << path;
    EXPECT_TRUE(s.calls.empty()) << path;
  }
  FakeStorage s;
  EXPECT_EQ(ClassifyDestination(L"C:\\\\server", s), 0);  // "\\" later in the path does not count
  EXPECT_EQ(ClassifyDestination(nullptr, s), 0);
}

TEST(ClassifyDestination, RealPathsThroughWindows) {
  EXPECT_EQ(ClassifyDestination(L"C:\\windows\\system32\\kernel32.dll"), 0);
  EXPECT_EQ(ClassifyDestination(L"\\\\server\\share\\x"), 2);
  // Drive C: opens and answers the query (Wine reports SCSI, never USB).
  HANDLE volume = CreateFileW(L"\\\\?\\C:", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              0, nullptr);
  ASSERT_NE(volume, INVALID_HANDLE_VALUE);
  alignas(8) unsigned char buffer[551] = {};
  auto* d = reinterpret_cast<STORAGE_DEVICE_DESCRIPTOR*>(buffer);
  d->Size = sizeof buffer;
  EXPECT_NE(QueryStorageDescriptor(volume, d), 0);
  EXPECT_NE(d->BusType, BusTypeUsb);
  CloseHandle(volume);
}

}  // namespace
