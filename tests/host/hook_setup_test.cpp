// Interception set-up and tear-down through the real DLL, each test in a process of its own,
// built twice: hook_setup_tests (6.x: the three IFileOperation methods patched) and
// hook_setup_xp_tests (winxp64: the four flat functions hooked by the engine, or by an
// EasyHook64.dll found beside the DLL and only there). Once anything is patched the DLL stays for
// the process's life; a process that ends runs the tear-down.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "kwtest.h"

namespace {

using namespace kwtest;

const bool kFlat = LOBYTE(LOWORD(GetVersion())) < 6;
const std::vector<std::string> kAttachLines = {
    "[HookApi,1567] : easyhook:attach CopyFileW succeed", "[HookApi,1575] : easyhook:attach CopyFileExW succeed",
    "[HookApi,1583] : easyhook:attach SHFileOperationW succeed", "[HookApi,1591] : easyhook:attach MoveFileWithProgressW succeed"};
const std::string kComStart = "[HookApi,1462] : [ZELTRAP:KWINDEL] com initial finished\n[HookApi,1464] : get file opretation interface,result:0\n";

HMODULE module_of(uint64_t address) {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, reinterpret_cast<LPCWSTR>(address), &module);
  return module;
}
std::string joined(const std::vector<std::string>& lines) {
  std::string out;
  for (const std::string& line : lines) out += line + "\n";
  return out;
}

// IFileOperation's CopyItems, MoveItems, PerformOperations (Wine offers the class in either
// prefix), then the four flat functions' exported entries in the order they are hooked.
struct Entries {
  Entries() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    new_file_operation(&op);
    void** methods = *reinterpret_cast<void***>(op.get());
    HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll"), shell32 = LoadLibraryW(L"shell32.dll");
    code = {methods[17], methods[15], methods[21], fn<void*>(kernel32, "CopyFileW"), fn<void*>(kernel32, "CopyFileExW"),
            fn<void*>(shell32, "SHFileOperationW"), fn<void*>(kernel32, "MoveFileWithProgressW")};
  }
  std::vector<std::string> bytes() const {
    std::vector<std::string> out;
    for (const void* c : code) out.emplace_back(static_cast<const char*>(c), 16);
    return out;
  }
  ComRef<IFileOperation> op;
  std::vector<void*> code;
};

TEST(HookSetup, LoadPatchesWhatThisSystemHasAndTheDllOutlivesItsLastFreeLibrary) {
  Entries entries;
  const std::vector<std::string> before = entries.bytes();
  TraceCapture trace;
  {
    OwnedModule dll(LoadLibraryW(dll_path().c_str()));
    ASSERT_TRUE(dll.ok());
    EXPECT_EQ(joined(trace.lines_from("[HookApi,")), kFlat ? joined(kAttachLines) : kComStart + "[HookApi,1523] : [ZELTRAP:KWINDEL] hook com succeed\n");
    EXPECT_TRUE(trace.lines_from("easyhook:AttachFail").empty());
    for (size_t i = 0; i < entries.code.size(); ++i) {
      if (kFlat == (i < 3)) EXPECT_EQ(entries.bytes()[i], before[i]) << "entry " << i << " patched on the wrong system";
      if (kFlat == (i < 3)) continue;
      // A jump into the engine's pages, whose relay goes on to the replacement inside the DLL.
      const uint64_t relay = jump_destination(static_cast<const uint8_t*>(entries.code[i]));
      ASSERT_NE(relay, 0u) << "entry " << i << " not patched";
      EXPECT_EQ(module_of(relay), nullptr) << i;
      EXPECT_TRUE(kFlat || module_of(jump_destination(reinterpret_cast<const uint8_t*>(relay))) == dll.get()) << i;
    }
    trace.clear();
  }
  // A thread may be inside a replacement at any time: the FreeLibrary changed nothing.
  EXPECT_NE(GetModuleHandleW(L"kwindel-x64.dll"), nullptr);
  for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(entries.bytes()[i] != before[i], kFlat != (i < 3)) << i;
  EXPECT_TRUE(trace.lines_from("[UnHookApi,").empty());
  EXPECT_EQ(entries.op->CopyItems(nullptr, nullptr), E_NOTIMPL);
}

TEST(HookSetup, TheTearDownRunsWhenAProcessThatLoadedTheDllEnds) {
  const ChildResult r = run_child(child_path(), L"teardown", 30000);
  const size_t at = r.output.find("[UnHookApi,");
  EXPECT_EQ(at == std::string::npos ? r.output : r.output.substr(at), "[UnHookApi,1658] : easyhook:dettach kwindel succeed\n");
}

TEST(HookSetup, AFailureToPatchMoveItemsStopsTheSetUpAndLeavesCopyItemsPatched) {
  Entries entries;
  // "ret" followed by code, not padding: the engine must refuse MoveItems.
  const std::string move_items(static_cast<const char*>(entries.code[1]), 7);
  DWORD protect = 0;
  ASSERT_TRUE(VirtualProtect(entries.code[1], 7, PAGE_EXECUTE_READWRITE, &protect));
  std::memcpy(entries.code[1], "\xC3\x48\x89\xC8\x48\x89\xC8", 7);
  const std::vector<std::string> before = entries.bytes();
  TraceCapture trace;
  ASSERT_TRUE(OwnedModule(LoadLibraryW(dll_path().c_str())).ok());
  EXPECT_EQ(joined(trace.lines_from("[HookApi,")), kComStart + "[HookApi,1506] : [ZELTRAP:KWINDEL] hook moveitems error\n");
  // The patched flag stayed 0, yet CopyItems jumps into the DLL: so the DLL stays and the patched
  // method keeps working after the FreeLibrary.
  EXPECT_NE(GetModuleHandleW(L"kwindel-x64.dll"), nullptr);
  EXPECT_NE(jump_destination(static_cast<const uint8_t*>(entries.code[0])), 0u);
  EXPECT_EQ(entries.bytes()[2], before[2]) << "PerformOperations was patched after the failure";
  std::memcpy(entries.code[1], move_items.data(), 7);
  EXPECT_EQ(entries.op->CopyItems(nullptr, nullptr), E_NOTIMPL);
}

TEST(HookSetup, AnEasyHook64OutsideTheDllsFolderIsNeverLoaded) {
  // A planted EasyHook64.dll in the current folder and on PATH; none beside kwindel-x64.dll.
  const std::wstring planted = exe_dir() + L"easyhook-standin";
  ASSERT_TRUE(SetCurrentDirectoryW(planted.c_str()));
  wchar_t path[8192];
  GetEnvironmentVariableW(L"PATH", path, 8192);
  SetEnvironmentVariableW(L"PATH", (planted + L";" + path).c_str());
  Entries entries;
  ASSERT_TRUE(OwnedModule(LoadLibraryW(dll_path().c_str())).ok());
  EXPECT_EQ(GetModuleHandleW(L"EasyHook64.dll"), nullptr);
  for (int i = 3; i < 7; ++i) EXPECT_NE(jump_destination(static_cast<const uint8_t*>(entries.code[i])), 0u) << i;
}

// A stand-in EasyHook64.dll beside a copy of the DLL records every call with its arguments and
// hooks nothing; its LhInstallHook answers with the parameter.
class EasyHookBinding : public ::testing::TestWithParam<LONG> {};

TEST_P(EasyHookBinding, AnEasyHook64BesideTheDllIsCalledWithThePublishedArguments) {
  const LONG install_result = GetParam();
  const std::wstring folder = exe_dir() + L"easyhook-standin\\";
  OwnedModule standin(LoadLibraryW((folder + L"EasyHook64.dll").c_str()));
  auto log = fn<const char* (*)()>(standin.get(), "StandinLog");
  ASSERT_TRUE(log != nullptr && CopyFileW(dll_path().c_str(), (folder + L"kwindel-x64.dll").c_str(), FALSE));
  fn<void (*)(LONG)>(standin.get(), "StandinReset")(install_result);
  Entries entries;
  const std::vector<std::string> before = entries.bytes();
  TraceCapture trace;
  std::string at_load;
  {
    OwnedModule dll(LoadLibraryW((folder + L"kwindel-x64.dll").c_str()));
    ASSERT_TRUE(dll.ok());
    at_load = log();
    EXPECT_EQ(trace.lines_from("[HookApi,"), kAttachLines);  // written whether or not the install succeeded
    EXPECT_EQ(trace.lines_from("easyhook:AttachFail").size(), install_result < 0 ? 4u : 0u);
    EXPECT_EQ(entries.bytes(), before) << "the stand-in hooks nothing; the engine must not have either";
    std::istringstream calls(at_load);
    std::set<std::string> handles;
    for (int i = 0; i < 4; ++i) {
      std::string verb, entry, proc, callback, handle, acl;
      calls >> verb >> entry >> proc >> callback >> handle >> std::ws;
      std::getline(calls, acl);
      char expected_entry[32];
      std::snprintf(expected_entry, sizeof expected_entry, "%p", entries.code[3 + i]);
      EXPECT_EQ(verb + " " + entry, "LhInstallHook " + std::string(expected_entry)) << "hook " << i << " is not on the imported entry";
      EXPECT_EQ(module_of(std::stoull(proc, nullptr, 16)), dll.get()) << i;
      EXPECT_EQ(std::stoull(callback, nullptr, 16), 0u);
      // The exclusive list naming only 0xFFFFFFFF, on the same handle, even after a failed install.
      EXPECT_EQ(acl, "LhSetExclusiveACL ffffffff 1 " + handle);
      handles.insert(handle);
    }
    EXPECT_EQ(handles.size(), 4u);
    EXPECT_TRUE(calls.peek() == EOF) << at_load;
  }
  // Hooks in place keep the DLL for the process's life; with none, it unloads and tears down.
  EXPECT_EQ(log(), at_load + (install_result < 0 ? "LhUninstallAllHooks\nLhWaitForPendingRemovals\n" : ""));
}
INSTANTIATE_TEST_SUITE_P(InstallSucceedsOrFails, EasyHookBinding, ::testing::Values(0, static_cast<LONG>(0xC0000001)));

}  // namespace
