// Interception set-up and tear-down through the real DLL on a 6.x system: the three
// IFileOperation methods patched at load (also in a process reached by the window hook), the
// flat functions left alone, the DLL kept for the process's life once it patched anything and
// its tear-down run when the process ends. Each test runs in a process of its own.
#include <gtest/gtest.h>
#include <windows.h>
#include <shobjidl.h>

#include <cstring>
#include <string>
#include <vector>

#include "hook_setup_test_util.h"
#include "kwindel.h"
#include "kwtest.h"

namespace {

using kwtest::hooksetup::FlatEntries;
using kwtest::hooksetup::jump_destination;
using kwtest::hooksetup::lines_from;
using kwtest::hooksetup::module_of;

struct ComScope {
  ComScope() { CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  ~ComScope() { CoUninitialize(); }
};

template <typename T> struct ComPtr {
  T* p = nullptr;
  ~ComPtr() { if (p != nullptr) p->Release(); }
  T* operator->() const { return p; }
  void** out() { return reinterpret_cast<void**>(&p); }
};

constexpr int kSlots[3] = {17, 15, 21};  // CopyItems, MoveItems, PerformOperations
constexpr HRESULT kNotImplemented = static_cast<HRESULT>(0x80004001);

TEST(HookSetup, LoadPatchesTheThreeMethodsOnlyAndTheDllOutlivesItsLastFreeLibrary) {
  ComScope com;
  ComPtr<IFileOperation> first;
  ASSERT_EQ(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, first.out()), S_OK);
  void** methods = *reinterpret_cast<void***>(first.p);
  std::string before[3];
  for (int i = 0; i < 3; ++i) before[i].assign(static_cast<const char*>(methods[kSlots[i]]), 32);
  FlatEntries flat;
  const std::vector<std::string> flat_before = flat.bytes();

  kwtest::ScratchDir dir;
  ASSERT_TRUE(kwtest::write_file(dir.file(L"a.txt"), "a"));
  kwtest::TraceCapture trace;
  {
    kwtest::Library dll(kwtest::dll_path());
    ASSERT_NE(dll.get(), nullptr);
    EXPECT_EQ(lines_from(trace, "[HookApi,"),
              (std::vector<std::string>{"[HookApi,1462] : [ZELTRAP:KWINDEL] com initial finished",
                                        "[HookApi,1464] : get file opretation interface,result:0",
                                        "[HookApi,1523] : [ZELTRAP:KWINDEL] hook com succeed"}));
    EXPECT_EQ(flat.bytes(), flat_before) << "a flat function was hooked on a 6.x system";

    // A fresh object: its (shared) methods jump into the engine's pages, whose relay goes on to
    // the replacement inside the DLL; the call still returns what Wine's method returns.
    ComPtr<IFileOperation> fresh;
    ASSERT_EQ(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, fresh.out()), S_OK);
    void** fresh_methods = *reinterpret_cast<void***>(fresh.p);
    for (int slot : kSlots) {
      const auto code = static_cast<const uint8_t*>(fresh_methods[slot]);
      const uint64_t relay = jump_destination(code);
      ASSERT_NE(relay, 0u) << "slot " << slot << " is not patched";
      EXPECT_EQ(module_of(relay), nullptr) << "slot " << slot;
      const uint64_t replacement = jump_destination(reinterpret_cast<const uint8_t*>(relay));
      EXPECT_EQ(module_of(replacement), dll.get()) << "slot " << slot;
    }
    ComPtr<IShellItem> destination, source;
    ASSERT_EQ(SHCreateItemFromParsingName(dir.path().c_str(), nullptr, IID_IShellItem, destination.out()), S_OK);
    ASSERT_EQ(SHCreateItemFromParsingName(dir.file(L"a.txt").c_str(), nullptr, IID_IShellItem, source.out()), S_OK);
    ComPtr<IShellItemArray> items;
    ASSERT_EQ(SHCreateShellItemArrayFromShellItem(source.p, IID_IShellItemArray, items.out()), S_OK);
    EXPECT_EQ(fresh->CopyItems(items.p, destination.p), kNotImplemented);
    EXPECT_EQ(fresh->MoveItems(items.p, destination.p), kNotImplemented);
    EXPECT_EQ(fresh->PerformOperations(), kNotImplemented);
    trace.clear();
  }
  // A thread may be inside a replacement at any time: the FreeLibrary changed nothing.
  EXPECT_NE(GetModuleHandleW(L"kwindel-x64.dll"), nullptr);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NE(std::string(static_cast<const char*>(methods[kSlots[i]]), 32), before[i]) << "slot " << kSlots[i];
  }
  EXPECT_EQ(flat.bytes(), flat_before);
  EXPECT_TRUE(lines_from(trace, "[UnHookApi,").empty());
  EXPECT_EQ(first->CopyItems(nullptr, nullptr), kNotImplemented);
}

TEST(HookSetup, TheTearDownRunsWhenAProcessThatLoadedTheDllEnds) {
  kwtest::DbwinMonitor monitor;
  ASSERT_TRUE(monitor.ok());
  kwtest::ChildResult r = kwtest::run_child(kwtest::child_path(), L"policy", 30000);
  EXPECT_EQ(r.exit_code, 0u) << r.output;
  EXPECT_TRUE(monitor.wait_for("[UnHookApi,1658] : easyhook:dettach kwindel succeed", 10000));
}

// Writes `bytes` over code, returning what was there.
std::string overwrite_code(void* code, const std::string& bytes) {
  std::string old(static_cast<const char*>(code), bytes.size());
  DWORD protect = 0;
  VirtualProtect(code, bytes.size(), PAGE_EXECUTE_READWRITE, &protect);
  std::memcpy(code, bytes.data(), bytes.size());
  VirtualProtect(code, bytes.size(), protect, &protect);
  FlushInstructionCache(GetCurrentProcess(), code, bytes.size());
  return old;
}

TEST(HookSetup, AFailureToPatchMoveItemsStopsTheSetUpAndLeavesCopyItemsPatched) {
  ComScope com;
  ComPtr<IFileOperation> operation;
  ASSERT_EQ(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, operation.out()), S_OK);
  void** methods = *reinterpret_cast<void***>(operation.p);
  // "ret" followed by code, not padding: the engine must refuse MoveItems.
  const std::string move_items = overwrite_code(methods[15], std::string("\xC3\x48\x89\xC8\x48\x89\xC8", 7));
  const std::string copy_items(static_cast<const char*>(methods[17]), 16);
  const std::string perform(static_cast<const char*>(methods[21]), 16);
  kwtest::TraceCapture trace;
  {
    kwtest::Library dll(kwtest::dll_path());
    ASSERT_NE(dll.get(), nullptr);
    EXPECT_EQ(lines_from(trace, "[HookApi,"),
              (std::vector<std::string>{"[HookApi,1462] : [ZELTRAP:KWINDEL] com initial finished",
                                        "[HookApi,1464] : get file opretation interface,result:0",
                                        "[HookApi,1506] : [ZELTRAP:KWINDEL] hook moveitems error"}));
    EXPECT_NE(jump_destination(static_cast<const uint8_t*>(methods[17])), 0u);
    EXPECT_EQ(std::string(static_cast<const char*>(methods[21]), 16), perform);
  }
  // The patched flag stayed 0, yet CopyItems jumps into the DLL: so the DLL stays, and the
  // patched method keeps working after the FreeLibrary.
  EXPECT_NE(GetModuleHandleW(L"kwindel-x64.dll"), nullptr);
  EXPECT_NE(std::string(static_cast<const char*>(methods[17]), 16), copy_items);
  overwrite_code(methods[15], move_items);
  EXPECT_EQ(operation->CopyItems(nullptr, nullptr), kNotImplemented);
}

TEST(HookSetup, AProcessReachedByTheWindowHookHasItsMethodsPatched) {
  kwtest::Library dll(kwtest::dll_path());
  auto install_hook_proc = dll.fn<KwInstallHookProcFn>("InstallHookProc");
  ASSERT_NE(install_hook_proc, nullptr);
  ASSERT_EQ(install_hook_proc(TRUE), 1);
  kwtest::ChildResult r = kwtest::run_child(kwtest::child_path(), L"methods 10000", 30000);
  EXPECT_EQ(install_hook_proc(FALSE), 1);
  EXPECT_EQ(r.output, "loaded\npatched 3 result 80004001\n");
  EXPECT_EQ(r.exit_code, 0u);
}

}  // namespace
