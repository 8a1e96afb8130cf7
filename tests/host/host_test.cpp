// The built DLL as shipped (exports, imports, the shared section), its exported control functions
// and policy block through the real DLL, and the string rules of the caller context.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "host/caller_context.h"
#include "kwindel.h"
#include "kwtest.h"

namespace {

using namespace kwtest;

TEST(Binary, ExportsFourNamesImportsOnlySystemDllsAndSharesAZeroedHookSection) {
  // Mapped as an image without running its entry: what is read is the file as shipped.
  OwnedModule image(LoadLibraryExW(dll_path().c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES));
  ASSERT_TRUE(image.ok());
  auto base = reinterpret_cast<const char*>(image.get());
  auto nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const auto& directories = nt->OptionalHeader.DataDirectory;
  auto exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + directories[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
  std::set<std::string> names;
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) names.insert(base + reinterpret_cast<const DWORD*>(base + exports->AddressOfNames)[i]);
  EXPECT_EQ(exports->NumberOfFunctions, 4u);
  EXPECT_EQ(names, (std::set<std::string>{"InstallHook", "InstallHookProc", "RemoveHook", "SetPolicy"}));
  EXPECT_STREQ(base + exports->Name, "kwindel-x64.dll");
  wchar_t system_dir[MAX_PATH];
  GetSystemDirectoryW(system_dir, MAX_PATH);
  int count = 0;
  for (auto d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directories[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
       d->Name != 0; ++d, ++count) {
    std::string name = base + d->Name;
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    EXPECT_EQ(name.find("lib"), std::string::npos) << name << " looks like a runtime library";
    EXPECT_TRUE(file_exists(std::wstring(system_dir) + L"\\" + widen(name))) << name;
  }
  EXPECT_GT(count, 0);
  const IMAGE_SECTION_HEADER* s = find_section(image.get(), ".hook");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->Characteristics & (IMAGE_SCN_MEM_SHARED | IMAGE_SCN_MEM_WRITE), IMAGE_SCN_MEM_SHARED | IMAGE_SCN_MEM_WRITE);
  EXPECT_TRUE(std::all_of(base + s->VirtualAddress, base + s->VirtualAddress + 32, [](char b) { return b == 0; }));
}

class Exports : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(block, nullptr);
    ASSERT_TRUE(set_policy && install_hook && remove_hook && install_hook_proc);
  }
  void TearDown() override { set_policy(0, 0); }
  OwnedModule dll{LoadLibraryW(dll_path().c_str())};
  KwSetPolicyFn set_policy = fn<KwSetPolicyFn>(dll.get(), "SetPolicy");
  KwInstallHookFn install_hook = fn<KwInstallHookFn>(dll.get(), "InstallHook");
  KwRemoveHookFn remove_hook = fn<KwRemoveHookFn>(dll.get(), "RemoveHook");
  KwInstallHookProcFn install_hook_proc = fn<KwInstallHookProcFn>(dll.get(), "InstallHookProc");
  volatile SharedBlockView* block = shared_block(dll.get());
};

TEST_F(Exports, SetPolicyMapsEachBitToItsWordInEveryProcess) {
  struct Row { DWORD word; const char* words; };  // as the other process prints them
  const Row rows[] = {
      {0x01, "copy=1 secret=0 mask=0 encrypt=0"}, {0x02, "copy=0 secret=1 mask=0 encrypt=0"},
      {0x04, "copy=0 secret=0 mask=1 encrypt=0"}, {0x08, "copy=0 secret=0 mask=2 encrypt=0"},
      {0x10, "copy=0 secret=0 mask=4 encrypt=0"}, {0x20, "copy=0 secret=0 mask=0 encrypt=1"},
      {0xFFFFFFC0, "copy=0 secret=0 mask=0 encrypt=0"}, {0xFFFFFFFF, "copy=1 secret=1 mask=7 encrypt=1"},
  };
  for (const Row& row : rows) {
    TraceCapture trace;
    EXPECT_TRUE(set_policy(row.word, 0xDEADBEEF));
    EXPECT_EQ(trace.lines(), std::vector<std::string>{"SetPolicy"});
    char words[64];
    std::snprintf(words, sizeof words, "copy=%u secret=%u mask=%u encrypt=%u", block->copy_audit, block->secret_audit,
                  block->audit_dest_mask, block->encrypt_audit);
    EXPECT_EQ(words, std::string(row.words)) << std::hex << row.word;
  }
  set_policy(0x2B, 0);
  EXPECT_EQ(run_child(child_path(), L"policy", 30000).output, "copy=1 secret=1 mask=2 encrypt=1\n");
  EXPECT_EQ(block->module, static_cast<void*>(dll.get()));
}

TEST_F(Exports, EachGlobalHookInjectsUntilRemoved) {
  EXPECT_EQ(install_hook_proc(FALSE), 1);  // removal without a hook still reports success
  EXPECT_FALSE(remove_hook());             // unhooking a null handle fails
  EXPECT_FALSE(install_hook(nullptr));     // a global hook needs a module
  EXPECT_EQ(block->hook, nullptr);
  for (const bool call_window : {false, true}) {
    SCOPED_TRACE(call_window ? "InstallHook" : "InstallHookProc");
    ASSERT_TRUE(call_window ? install_hook(dll.get()) : install_hook_proc(TRUE) == 1) << GetLastError();
    EXPECT_NE(block->hook, nullptr);
    const ChildResult injected = run_child(child_path(), L"pump 10000", 30000);
    EXPECT_EQ(injected.output, "loaded\n");
    EXPECT_TRUE(call_window ? remove_hook() : install_hook_proc(FALSE) == 1);
    EXPECT_EQ(block->hook, nullptr);
    const ChildResult after = run_child(child_path(), L"pump 1500", 30000);
    EXPECT_EQ(after.output, "not loaded\n");
  }
}

TEST(CallerContext, ConversionsAndProcessNames) {
  const std::wstring wide = L"C:\\\x0416\x20AC\\\x65E5\x672C.txt";
  const std::string utf8 = "C:\\\xD0\x96\xE2\x82\xAC\\\xE6\x97\xA5\xE6\x9C\xAC.txt";
  EXPECT_EQ(wide_to_utf8(wide), utf8);
  EXPECT_EQ(utf8_to_wide(utf8), wide);
  EXPECT_EQ(wide_to_utf8(std::wstring(L"a\xD800" L"b\xDC00")), "ab");  // lone surrogates dropped, not replaced
  EXPECT_EQ(utf8_to_wide(std::string("a\xFF" "b\xC0\xE2\x82")), L"ab");  // invalid or cut UTF-8 dropped
  EXPECT_EQ(wide_to_utf8(static_cast<const wchar_t*>(nullptr)), "");
  for (const char* no_name : {"explorer.exe", "\\explorer.exe", "C:\\dir\\"}) EXPECT_EQ(process_name_from_path(no_name), "") << no_name;
  EXPECT_EQ(process_name_from_path("C:\\\xD0\x96.exe"), "\xD0\x96.exe");
}

}  // namespace
