// The DLL's exported control functions and shared policy block, and the interception set-up and
// tear-down, through the real DLL. Each test runs in a process of its own (once anything is
// patched the DLL stays for the process's life; a process that ends runs the tear-down), in
// host_tests (6.x: the three IFileOperation methods patched) and host_xp_tests (winxp64: the four
// flat functions hooked by the engine; an EasyHook64.dll is used only from beside the DLL). A
// crash inside the DLL is named the way a debugger does it, through dbghelp and the PDB.
#include "kwtest.h"

#include <dbghelp.h>

#include <memory>

namespace {

using namespace kwtest;

const std::vector<std::string> kAttachLines = {
    "[HookApi,1567] : easyhook:attach CopyFileW succeed", "[HookApi,1575] : easyhook:attach CopyFileExW succeed",
    "[HookApi,1583] : easyhook:attach SHFileOperationW succeed", "[HookApi,1591] : easyhook:attach MoveFileWithProgressW succeed"};
const std::vector<std::string> kComStart = {"[HookApi,1462] : [ZELTRAP:KWINDEL] com initial finished",
                                            "[HookApi,1464] : get file opretation interface,result:0"};

HMODULE module_of(uint64_t address) {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, reinterpret_cast<LPCWSTR>(address), &module);
  return module;
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
  std::vector<std::string> expected = kFlat ? kAttachLines : kComStart;
  if (!kFlat) expected.push_back("[HookApi,1523] : [ZELTRAP:KWINDEL] hook com succeed");
  TraceCapture trace;
  {
    OwnedModule dll(LoadLibraryW(dll_path().c_str()));
    ASSERT_TRUE(dll.ok());
    EXPECT_EQ(trace.lines("[HookApi,"), expected);
    for (size_t i = kFlat ? 3 : 0; i < (kFlat ? 7 : 3); ++i) {
      // A jump into the engine's pages, whose relay goes on to the replacement inside the DLL.
      const uint64_t relay = jump_destination(static_cast<const uint8_t*>(entries.code[i]));
      ASSERT_NE(relay, 0u) << "entry " << i << " not patched";
      EXPECT_EQ(module_of(relay), nullptr) << i;
      EXPECT_TRUE(kFlat || module_of(jump_destination(reinterpret_cast<const uint8_t*>(relay))) == dll.get()) << i;
    }
  }
  // A thread may be inside a replacement at any time: the FreeLibrary changed nothing.
  EXPECT_NE(GetModuleHandleW(KWINDEL_DLL_NAME), nullptr);
  for (size_t i = 0; i < before.size(); ++i) EXPECT_EQ(entries.bytes()[i] != before[i], kFlat != (i < 3)) << i;
  EXPECT_TRUE(trace.lines("[UnHookApi,").empty());
  EXPECT_EQ(entries.op->CopyItems(nullptr, nullptr), E_NOTIMPL);
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
  EXPECT_EQ(trace.lines("[HookApi,"),
            (std::vector<std::string>{kComStart[0], kComStart[1], "[HookApi,1506] : [ZELTRAP:KWINDEL] hook moveitems error"}));
  // The patched flag stayed 0, yet CopyItems jumps into the DLL: so the DLL stays and the patched
  // method keeps working after the FreeLibrary.
  EXPECT_NE(GetModuleHandleW(KWINDEL_DLL_NAME), nullptr);
  EXPECT_NE(jump_destination(static_cast<const uint8_t*>(entries.code[0])), 0u);
  EXPECT_EQ(entries.bytes()[2], before[2]) << "PerformOperations was patched after the failure";
  std::memcpy(entries.code[1], move_items.data(), 7);
  EXPECT_EQ(entries.op->CopyItems(nullptr, nullptr), E_NOTIMPL);
}

TEST(HookSetup, AnEasyHookOutsideTheDllsFolderIsNeverLoaded) {
  // A planted EasyHook64.dll (EasyHook32.dll in 32-bit; any DLL) in the current folder and on PATH;
  // none beside the DLL.
  const wchar_t* easyhook = sizeof(void*) == 8 ? L"EasyHook64.dll" : L"EasyHook32.dll";
  ScratchDir dir;
  ASSERT_TRUE(CopyFileW(L"C:\\windows\\system32\\version.dll", dir.file(easyhook).c_str(), FALSE));
  ASSERT_TRUE(SetCurrentDirectoryW(dir.path().c_str()));
  wchar_t path[8192];
  GetEnvironmentVariableW(L"PATH", path, 8192);
  SetEnvironmentVariableW(L"PATH", (dir.path() + L";" + path).c_str());
  Entries entries;
  ASSERT_TRUE(OwnedModule(LoadLibraryW(dll_path().c_str())).ok());
  EXPECT_EQ(GetModuleHandleW(easyhook), nullptr);
  for (int i = 3; i < 7; ++i) EXPECT_NE(jump_destination(static_cast<const uint8_t*>(entries.code[i])), 0u) << i;
}

class Exports : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(block && set_policy && install_hook && remove_hook && install_hook_proc); }
  void TearDown() override { set_policy(0, 0); }
  OwnedModule dll{LoadLibraryW(dll_path().c_str())};
  KwSetPolicyFn set_policy = fn<KwSetPolicyFn>(dll.get(), "SetPolicy");
  KwInstallHookFn install_hook = fn<KwInstallHookFn>(dll.get(), "InstallHook");
  KwRemoveHookFn remove_hook = fn<KwRemoveHookFn>(dll.get(), "RemoveHook");
  KwInstallHookProcFn install_hook_proc = fn<KwInstallHookProcFn>(dll.get(), "InstallHookProc");
  volatile SharedBlockView* block = shared_block(dll.get());
};

// Each bit to its word, here and (the section is shared) in another process, which prints its
// policy words between the set-up's and the tear-down's trace lines.
TEST_F(Exports, SetPolicyMapsEachBitToItsWordInEveryProcess) {
  // (Words above 0x3F ignored.)
  const std::pair<DWORD, std::vector<uint32_t>> rows[] = {{0x15, {1, 0, 5, 0}}, {0xFFFFFFEA, {0, 1, 2, 1}}};
  for (const auto& [word, words] : rows) {  // copy audit, secret audit, destination mask, encrypt audit
    TraceCapture trace;
    EXPECT_TRUE(set_policy(word, 0xDEADBEEF));
    EXPECT_EQ(trace.lines(), std::vector<std::string>{"SetPolicy"});
    EXPECT_EQ(std::vector<uint32_t>({block->copy_audit, block->secret_audit, block->audit_dest_mask, block->encrypt_audit}), words)
        << std::hex << word;
  }
  set_policy(0x2B, 0);
  EXPECT_EQ(run_child(child_path(), L"load", 30000).output,
            "[HookApi,1462] : [ZELTRAP:KWINDEL] com initial finished\n[HookApi,1464] : get file opretation interface,result:0\n"
            "[HookApi,1523] : [ZELTRAP:KWINDEL] hook com succeed\ncopy=1 secret=1 mask=2 encrypt=1\n"
            "[UnHookApi,1658] : easyhook:dettach kwindel succeed\n");
  EXPECT_EQ(block->module, static_cast<void*>(dll.get()));
}

// Either global hook brings the DLL into another process, which screens its copies under the
// shared policy: a secret copy goes ahead (its swapped source back after PerformOperations; on the
// pre-6 path the copy arrives encrypted), a forbidden one is refused; once removed, no process gets
// the DLL.
TEST_F(Exports, EachGlobalHookInjectsAndScreensUntilRemoved) {
  EXPECT_EQ(install_hook_proc(FALSE), 1);  // removal without a hook still reports success
  EXPECT_FALSE(remove_hook());             // unhooking a null handle fails
  EXPECT_FALSE(install_hook(nullptr));     // a global hook needs a module
  ScratchDir dir;
  const std::wstring a = dir.file(L"a.txt"), out = dir.file(L"out");
  ASSERT_TRUE(write_file(a, "alpha") && CreateDirectoryW(out.c_str(), nullptr));
  int asked = 0;  // the first copy's source is secret, the second's forbidden
  TestAgent agent(AgentScript{true, {}, false, [&](const std::string&) { return secret_answer({narrow(a)}, "pw", asked++ == 0); }});
  ASSERT_TRUE(agent.ok());
  set_policy(kScreen, 0);
  for (const bool call_window : {false, true}) {
    SCOPED_TRACE(call_window ? "InstallHook" : "InstallHookProc");
    ASSERT_TRUE(call_window ? install_hook(dll.get()) : install_hook_proc(TRUE) == 1) << GetLastError();
    EXPECT_NE(block->hook, nullptr);
    // The shell copy engine only queues under Wine; the pre-6 path copies, in encrypted form.
    EXPECT_EQ(run_child(child_path(), L"copy hook perform \"" + out + L"\" \"" + a + L"\"", 30000).output,
              kFlat ? (call_window ? "loaded ffffffff\n" : "loaded 00000000\n")
                    : (call_window ? "loaded 80004001 ffffffff\n" : "loaded 80004001 80004001\n"));
    EXPECT_EQ(kFlat && !call_window && decrypts_to(out + L"\\a.txt", "pw", "alpha"), kFlat && !call_window);
    DeleteFileW((out + L"\\a.txt").c_str());
    EXPECT_TRUE(call_window ? remove_hook() : install_hook_proc(FALSE) == 1);
    EXPECT_EQ(block->hook, nullptr);
    EXPECT_EQ(run_child(child_path(), L"pump 1500", 30000).output, "not loaded\n");
  }
  ASSERT_TRUE(agent.flush());
  EXPECT_EQ(agent.documents(kRequestTag), std::vector<std::string>(2, request_document({a}, out, "kwtest-child.exe")));
  const auto audits = agent.documents(kAuditTag);  // the refused copy has none
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(audits[0].find("<FilesCopy processname=\"kwtest-child.exe\" operation=\"6\""), 0u);
  EXPECT_EQ(content(a), "alpha");
  EXPECT_TRUE(parked_records().empty());
}

// One kwctl install protects a 64-bit and a 32-bit program of one prefix: each DLL arrives by its
// own hook type and screens the same copy with the same wire bytes to the agent and the same
// encrypted bytes in the swapped source; --status names both holders, --stop removes both hooks.
TEST_F(Exports, OneKwctlInstallProtectsBothBitnesses) {
  if (sizeof(void*) == 4) GTEST_SKIP() << "the 64-bit kwctl is the one that starts its 32-bit twin";
  ScratchDir install, dir;
  for (const std::wstring& from : {exe_dir() + L"kwctl.exe", exe_dir() + L"kwindel-x64.dll", x86_folder() + L"kwctl-x86.exe",
                                   x86_folder() + L"kwindel-x86.dll"}) {
    ASSERT_TRUE(CopyFileW(from.c_str(), install.file(from.substr(from.rfind(L'\\') + 1)).c_str(), FALSE)) << narrow(from);
  }
  const std::wstring a = dir.file(L"a.txt"), kwctl = install.file(L"kwctl.exe");
  TestAgent agent(all_secret());
  ASSERT_TRUE(write_file(a, "alpha") && agent.ok());
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  OwnedHandle log(CreateFileW(install.file(L"kwctl.txt").c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                              CREATE_ALWAYS, 0, nullptr));
  const OwnedHandle holder(start_process(kwctl, L"--copy-audit --secret-audit --dest local --event kwtest-kwctl", log.get()));
  const std::unique_ptr<void, void (*)(void*)> stop_at_end(holder.get(), [](void* process) {  // also after a failed ASSERT
    const OwnedHandle stop(OpenEventW(EVENT_MODIFY_STATE, FALSE, L"kwtest-kwctl"));
    if (stop.ok()) SetEvent(stop.get());
    if (WaitForSingleObject(process, 30000) != WAIT_OBJECT_0) TerminateProcess(process, 9);
  });
  auto status = [&] {
    return std::regex_replace(std::regex_replace(run_child(kwctl, L"--status", 30000).output, std::regex("\r"), ""),
                              std::regex("pid [0-9]+"), "pid N");
  };
  std::string held;
  for (const ULONGLONG end = GetTickCount64() + 30000; GetTickCount64() < end && held.find("x86: WH") == std::string::npos;) held = status();
  const std::string policy = ", policy 0x07: copy audit on, secret audit on, destinations local, encrypt audit off\n";
  EXPECT_EQ(held, "kwctl: x64: WH_CALLWNDPROC hook held by kwctl pid N" + policy + "kwctl: x86: WH_GETMESSAGE hook held by kwctl pid N" + policy);

  const std::wstring show = L"copy hook show \"" + dir.path() + L"\" \"" + a + L"\"";
  const std::string shown = run_child(child_path(), show, 30000).output;
  EXPECT_EQ(shown.substr(0, 32), "loaded 80004001 0102030410203040");  // the encrypted form's magic
  EXPECT_EQ(run_child(x86_folder() + L"kwtest-child.exe", show, 30000).output, shown);
  ASSERT_TRUE(agent.flush());
  const std::vector<std::string> frames = agent.frames();
  ASSERT_EQ(frames.size(), 4u);  // per bitness a request, then an audit record
  EXPECT_EQ(frames[0], frames[2]);
  EXPECT_EQ(without_time(frames[1]), without_time(frames[3]));
  EXPECT_EQ(agent.documents(kRequestTag)[0], request_document({a}, dir.path(), "kwtest-child.exe"));

  EXPECT_EQ(run_child(kwctl, L"--stop kwtest-kwctl", 30000).exit_code, 0u);
  EXPECT_EQ(WaitForSingleObject(holder.get(), 30000), WAIT_OBJECT_0);
  log.reset();
  EXPECT_EQ(std::regex_replace(content(install.file(L"kwctl.txt")), std::regex("\r"), ""),
            "kwctl: x64: global hook installed with InstallHook (WH_CALLWNDPROC)\nkwctl: x64:" + policy.substr(1) +
            "kwctl: x86: global hook installed with InstallHookProc (WH_GETMESSAGE)\nkwctl: x86:" + policy.substr(1) +
            "kwctl: x86: global hook removed\nkwctl: x64: global hook removed\n");
  EXPECT_EQ(status(), "kwctl: x64: no hook installed\nkwctl: x86: no hook installed\n");
  for (const std::wstring& child : {child_path(), x86_folder() + L"kwtest-child.exe"}) {
    EXPECT_EQ(run_child(child, L"pump 1500", 30000).output, "not loaded\n");
  }
  EXPECT_EQ(content(a), "alpha");
  EXPECT_TRUE(parked_records().empty());
}

// A crash inside the DLL, seen as its debugger sees it: dbghelp names the faulting function, one
// the export table does not name, and its source from the PDB beside the DLL that matches by GUID
// and age (without it dbghelp names nothing here, or at best the export KwindelTestFault).
TEST(Symbols, ACrashInsideTheLibraryIsNamedFromItsPdb) {
  const OwnedHandle process(start_process(child_path(), L"fault", nullptr, DEBUG_ONLY_THIS_PROCESS));
  ASSERT_TRUE(process.ok());
  DWORD64 fault = 0;
  DEBUG_EVENT event = {};
  while (fault == 0 && WaitForDebugEvent(&event, 30000) && event.dwDebugEventCode != EXIT_PROCESS_DEBUG_EVENT) {
    const EXCEPTION_RECORD& record = event.u.Exception.ExceptionRecord;
    if (event.dwDebugEventCode == LOAD_DLL_DEBUG_EVENT) CloseHandle(event.u.LoadDll.hFile);
    if (event.dwDebugEventCode == CREATE_PROCESS_DEBUG_EVENT) CloseHandle(event.u.CreateProcessInfo.hFile);
    if (event.dwDebugEventCode == EXCEPTION_DEBUG_EVENT && record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION)
      fault = reinterpret_cast<DWORD64>(record.ExceptionAddress);
    else
      ContinueDebugEvent(event.dwProcessId, event.dwThreadId, DBG_CONTINUE);
  }
  ASSERT_NE(fault, 0u) << "the child did not fault";
  SymSetOptions(SYMOPT_UNDNAME | SYMOPT_LOAD_LINES | SYMOPT_FAIL_CRITICAL_ERRORS);
  ASSERT_TRUE(SymInitializeW(process.get(), exe_dir().c_str(), TRUE)) << GetLastError();
  IMAGEHLP_MODULEW64 module = {sizeof module};
  ASSERT_TRUE(SymGetModuleInfoW64(process.get(), fault, &module)) << GetLastError();
  std::vector<char> buffer(sizeof(SYMBOL_INFOW) + 256 * sizeof(wchar_t));
  auto* symbol = reinterpret_cast<SYMBOL_INFOW*>(buffer.data());
  *symbol = {sizeof(SYMBOL_INFOW)};
  symbol->MaxNameLen = 256;
  ASSERT_TRUE(SymFromAddrW(process.get(), fault, nullptr, symbol)) << GetLastError();
  IMAGEHLP_LINEW64 line = {sizeof line};
  DWORD column = 0;
  EXPECT_EQ(std::wstring(module.ModuleName) + L".dll", KWINDEL_DLL_NAME);
  EXPECT_EQ(module.SymType, SymPdb);
  EXPECT_EQ(std::wstring(symbol->Name), L"test_fault_write");
  ASSERT_TRUE(SymGetLineFromAddrW64(process.get(), fault, &column, &line));
  std::wstring file = line.FileName;  // as the objects name it; Wine puts it on drive Z:
  std::replace(file.begin(), file.end(), L'\\', L'/');
  EXPECT_EQ(file.substr(file.find(L"/kwindel/")), L"/kwindel/src/host/test_fault.cpp");
  SymCleanup(process.get());
  TerminateProcess(process.get(), 9);
  ContinueDebugEvent(event.dwProcessId, event.dwThreadId, DBG_CONTINUE);
  WaitForSingleObject(process.get(), 30000);
}

}  // namespace
