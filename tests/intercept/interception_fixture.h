// The fixture of the end-to-end interception tests: COM and Winsock started once, the real DLL
// loaded into this very process (its entry installed the interceptions), a scratch folder per
// test, and the policy off before and after each test.
#pragma once
#include <gtest/gtest.h>

#include <objbase.h>
#include <shellapi.h>

#include <string>
#include <vector>

#include "intercept_support.h"

namespace kwtest {

// A file's bytes, or "<missing>".
inline std::string content(const std::wstring& path) {
  std::string bytes;
  return read_file(path, &bytes) ? bytes : std::string("<missing>");
}

// SHFileOperationW with the given function on double-NUL lists, silently.
inline int shell_operation(UINT function, const std::vector<std::wstring>& from, const std::wstring& to) {
  std::wstring f, t = to;
  for (const auto& p : from) f += p + L'\0';
  t += L'\0';  // c_str() adds each list's final NUL
  SHFILEOPSTRUCTW op = {};
  op.wFunc = function;
  op.pFrom = f.c_str();
  op.pTo = t.c_str();
  op.fFlags = FOF_NOCONFIRMATION | FOF_SILENT | FOF_NOERRORUI | FOF_NOCONFIRMMKDIR;
  return SHFileOperationW(&op);
}

class InterceptionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
    LoadedDll::get();
  }
  void SetUp() override {
    ASSERT_NE(dll().module(), nullptr) << "kwindel-x64.dll did not load";
    dll().set_policy(0);
  }
  void TearDown() override { dll().set_policy(0); }

  static LoadedDll& dll() { return LoadedDll::get(); }
  std::wstring make(const std::wstring& name, const std::string& bytes) {
    const std::wstring path = dir.file(name);
    EXPECT_TRUE(write_file(path, bytes));
    return path;
  }
  std::wstring folder(const std::wstring& name) {
    const std::wstring path = dir.file(name);
    CreateDirectoryW(path.c_str(), nullptr);
    return path;
  }
  ScratchDir dir;
};

// The pre-6 path: only meaningful in a winxp64 prefix.
class PreSixInterceptionTest : public InterceptionTest {
 protected:
  void SetUp() override {
    InterceptionTest::SetUp();
    OSVERSIONINFOW version = {sizeof version};
    GetVersionExW(&version);
    ASSERT_EQ(version.dwMajorVersion, 5u) << "these tests need the winxp64 prefix";
  }
};

}  // namespace kwtest
