// Interception set-up and tear-down through the real DLL on a 5.2 (winxp64) system: the four
// flat functions hooked with the engine's own EasyHook equivalents, or with an EasyHook64.dll
// found beside the DLL (and only there); no file-operation object; the DLL kept for the process's
// life once a hook is in place. Each test runs in a process of its own.
#include <gtest/gtest.h>
#include <windows.h>
#include <shellapi.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "hook_setup_test_util.h"
#include "kwtest.h"

namespace {

using kwtest::hooksetup::FlatEntries;
using kwtest::hooksetup::jump_destination;
using kwtest::hooksetup::lines_from;
using kwtest::hooksetup::module_of;

const std::vector<std::string> kAttachLines = {
    "[HookApi,1567] : easyhook:attach CopyFileW succeed",
    "[HookApi,1575] : easyhook:attach CopyFileExW succeed",
    "[HookApi,1583] : easyhook:attach SHFileOperationW succeed",
    "[HookApi,1591] : easyhook:attach MoveFileWithProgressW succeed",
};

// "easyhook:AttachFail" is written wide; Wine hands it to the debugger as a narrow line.
int attach_failures(const kwtest::TraceCapture& trace) {
  int wide = 0, narrow = 0;
  for (const std::wstring& line : trace.wide_lines()) wide += line == L"easyhook:AttachFail";
  for (const std::string& line : trace.lines()) narrow += line == "easyhook:AttachFail";
  return wide > narrow ? wide : narrow;
}

TEST(HookSetupXp, TheFourFlatFunctionsAreHookedInOrderAndCallThroughToTheOriginals) {
  FlatEntries flat;
  const std::vector<std::string> before = flat.bytes();
  kwtest::ScratchDir dir;
  ASSERT_TRUE(kwtest::write_file(dir.file(L"a.txt"), "payload"));
  kwtest::TraceCapture trace;
  {
    kwtest::Library dll(kwtest::dll_path());
    ASSERT_NE(dll.get(), nullptr);
    EXPECT_EQ(lines_from(trace, "[HookApi,"), kAttachLines);  // and no COM line: no object was created
    EXPECT_EQ(attach_failures(trace), 0);
    for (int i = 0; i < 4; ++i) {
      const uint64_t relay = jump_destination(flat.entries[i]);
      EXPECT_NE(relay, 0u) << "entry " << i << " not hooked";
      EXPECT_EQ(module_of(relay), nullptr) << "entry " << i;
    }
    // Each replacement calls its function through the exported entry; the per-thread barrier
    // must send that call to the original, or these would recurse until the stack overflows.
    EXPECT_TRUE(CopyFileW(dir.file(L"a.txt").c_str(), dir.file(L"b.txt").c_str(), TRUE));
    EXPECT_FALSE(CopyFileW(dir.file(L"a.txt").c_str(), dir.file(L"b.txt").c_str(), TRUE));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_EXISTS));
    EXPECT_TRUE(CopyFileExW(dir.file(L"a.txt").c_str(), dir.file(L"c.txt").c_str(), nullptr, nullptr, nullptr, 0));
    EXPECT_TRUE(MoveFileWithProgressW(dir.file(L"c.txt").c_str(), dir.file(L"d.txt").c_str(), nullptr, nullptr, 0));
    std::wstring from = dir.file(L"a.txt") + L'\0';
    std::wstring to = dir.file(L"e.txt") + L'\0';
    SHFILEOPSTRUCTW op = {};
    op.wFunc = FO_COPY;
    op.pFrom = from.c_str();
    op.pTo = to.c_str();
    op.fFlags = FOF_NO_UI;
    EXPECT_EQ(SHFileOperationW(&op), 0);
    for (const wchar_t* name : {L"b.txt", L"d.txt", L"e.txt"}) {
      std::string content;
      EXPECT_TRUE(kwtest::read_file(dir.file(name), &content)) << kwtest::narrow(name);
      EXPECT_EQ(content, "payload") << kwtest::narrow(name);
    }
    EXPECT_FALSE(kwtest::file_exists(dir.file(L"c.txt")));
    trace.clear();
  }
  // The hooks lead into the DLL, so its FreeLibrary changed nothing and the hooks still work.
  EXPECT_NE(GetModuleHandleW(L"kwindel-x64.dll"), nullptr);
  EXPECT_NE(flat.bytes(), before);
  EXPECT_TRUE(lines_from(trace, "[UnHookApi,").empty());
  EXPECT_TRUE(CopyFileW(dir.file(L"a.txt").c_str(), dir.file(L"f.txt").c_str(), TRUE));
}

TEST(HookSetupXp, AnEasyHook64OutsideTheDllsFolderIsNeverLoaded) {
  // A planted EasyHook64.dll in the current folder and on PATH; none beside kwindel-x64.dll.
  const std::wstring planted = kwtest::exe_dir() + L"easyhook-standin";
  ASSERT_TRUE(SetCurrentDirectoryW(planted.c_str()));
  wchar_t path[8192];
  GetEnvironmentVariableW(L"PATH", path, 8192);
  SetEnvironmentVariableW(L"PATH", (planted + L";" + path).c_str());
  FlatEntries flat;
  kwtest::Library dll(kwtest::dll_path());
  ASSERT_NE(dll.get(), nullptr);
  EXPECT_EQ(GetModuleHandleW(L"EasyHook64.dll"), nullptr);
  for (int i = 0; i < 4; ++i) EXPECT_NE(jump_destination(flat.entries[i]), 0u) << "entry " << i << " not hooked";
}

struct Standin {
  std::wstring folder = kwtest::exe_dir() + L"easyhook-standin\\";
  kwtest::Library library{folder + L"EasyHook64.dll"};
  const char* (*log)() = library.fn<const char* (*)()>("StandinLog");
  void (*reset)(LONG) = library.fn<void (*)(LONG)>("StandinReset");
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    std::istringstream in(log());
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
};

std::string pointer_text(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

class EasyHookBinding : public ::testing::TestWithParam<LONG> {};

TEST_P(EasyHookBinding, AnEasyHook64BesideTheDllIsCalledWithThePublishedArguments) {
  const LONG install_result = GetParam();
  Standin standin;
  ASSERT_NE(standin.library.get(), nullptr);
  ASSERT_TRUE(standin.log && standin.reset);
  ASSERT_TRUE(CopyFileW(kwtest::dll_path().c_str(), (standin.folder + L"kwindel-x64.dll").c_str(), FALSE));
  standin.reset(install_result);
  FlatEntries flat;
  const std::vector<std::string> before = flat.bytes();
  kwtest::TraceCapture trace;
  std::vector<std::string> at_load;
  {
    kwtest::Library dll(standin.folder + L"kwindel-x64.dll");
    ASSERT_NE(dll.get(), nullptr);
    at_load = standin.lines();
    EXPECT_EQ(lines_from(trace, "[HookApi,"), kAttachLines);  // written whether or not the install succeeded
    EXPECT_EQ(attach_failures(trace), install_result < 0 ? 4 : 0);
    EXPECT_EQ(flat.bytes(), before) << "the stand-in hooks nothing; the engine must not have either";

    ASSERT_EQ(at_load.size(), 8u);
    std::vector<std::string> handles;
    for (int i = 0; i < 4; ++i) {
      std::istringstream install(at_load[2 * i]);
      std::string verb, entry, proc, callback, handle;
      install >> verb >> entry >> proc >> callback >> handle;
      EXPECT_EQ(verb, "LhInstallHook");
      EXPECT_EQ(entry, pointer_text(flat.entries[i])) << "hook " << i << " is not on the imported entry";
      EXPECT_EQ(module_of(std::stoull(proc, nullptr, 16)), dll.get()) << "hook " << i;
      EXPECT_EQ(std::stoull(callback, nullptr, 16), 0u);
      EXPECT_NE(std::stoull(handle, nullptr, 16), 0u);
      // The exclusive list naming only 0xFFFFFFFF, on the same handle, even after a failed install.
      EXPECT_EQ(at_load[2 * i + 1], "LhSetExclusiveACL ffffffff 1 " + handle);
      handles.push_back(handle);
    }
    for (int i = 0; i < 4; ++i) {
      for (int j = i + 1; j < 4; ++j) EXPECT_NE(handles[i], handles[j]);
    }
  }
  // Hooks in place keep the DLL for the process's life; with none, it unloads and tears down.
  std::vector<std::string> all = standin.lines();
  if (install_result < 0) {
    ASSERT_EQ(all.size(), at_load.size() + 2);
    EXPECT_EQ(all[8], "LhUninstallAllHooks");
    EXPECT_EQ(all[9], "LhWaitForPendingRemovals");
  } else {
    EXPECT_EQ(all.size(), at_load.size());
  }
}
INSTANTIATE_TEST_SUITE_P(InstallSucceedsOrFails, EasyHookBinding, ::testing::Values(0, static_cast<LONG>(0xC0000001)));

}  // namespace
