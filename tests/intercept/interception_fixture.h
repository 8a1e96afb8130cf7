// The fixture of the end-to-end interception tests: COM and Winsock started once, the real DLL
// loaded into this very process (its entry installed the interceptions), a scratch folder per
// test, and the policy off before and after each test.
#pragma once
#include <gtest/gtest.h>

#include <objbase.h>
#include <shellapi.h>

#include <cstdio>
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

// Runs `count` fresh processes of `exe args` one after another; each must finish within a minute
// and print `expected` (and exit with 0 when `exit_zero`). Prints how long they took under `label`.
inline void run_processes(int count, const std::wstring& exe, const std::wstring& args, const std::string& expected,
                          const char* label, bool exit_zero = true) {
  const ULONGLONG start = GetTickCount64();
  for (int i = 0; i < count; ++i) {
    ChildResult r = run_child(exe, args, 60000);
    ASSERT_TRUE(r.finished) << "process " << i << " hung";
    if (exit_zero) ASSERT_EQ(r.exit_code, 0u) << "process " << i << ": " << r.output;
    ASSERT_EQ(r.output, expected) << "process " << i << " (exit " << r.exit_code << ")";
  }
  std::printf("[ measured ] %d %s in %llu ms\n", count, label, static_cast<unsigned long long>(GetTickCount64() - start));
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
  // With the global hook installed from this process, runs `count` processes that wait to be
  // injected, release the DLL and print `expected`.
  void run_injected_processes(int count, const std::wstring& exe, const std::wstring& args,
                              const std::string& expected) {
    auto install_hook_proc = reinterpret_cast<KwInstallHookProcFn>(
        reinterpret_cast<void*>(GetProcAddress(dll().module(), "InstallHookProc")));
    ASSERT_NE(install_hook_proc, nullptr);
    ASSERT_EQ(install_hook_proc(TRUE), 1);
    run_processes(count, exe, args, expected, "injected processes", false);
    install_hook_proc(FALSE);
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
