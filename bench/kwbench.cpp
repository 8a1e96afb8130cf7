// kwbench MODE ...: the side-by-side benchmarks of the DLL, run under Wine by bench/*.sh. kwbench.exe
// loads kwindel-x64.dll, its 32-bit twin kwbench-x86.exe kwindel-x86.dll, and each starts the
// programs of its own bitness (kwbench-child, kwagent) from beside itself.
// Every mode measures the product and its reference in the same run, alternating them round by
// round, and prints the medians and their ratio (load: every round, for bench/dll_load.sh to
// pool with the other bitness's rounds).
//   load RUNS [shell]           start of kwbench-child to its first message, without and with
//                               the DLL injected by a global InstallHookProc hook; one line
//                               "plain_ms A hooked_ms B" per round
//   setup                       the DLL's set-up split into the platform's steps and the rest
//   copyfile DIR ROUNDS CALLS   CopyFileW and SHFileOperationW of a 1 MiB file: unhooked, DLL loaded
//                               with the policy off, and with copy and secret audit on (kwagent)
//   copyitems DIR ROUNDS CALLS  IFileOperation::CopyItems likewise (Wine's method is a stub)
//   walk TREE LISTING RUNS      get_filepaths_from_folder(TREE) against a bare FindFirstFileExW
//                               walk in this process and against cmd /c dir /s /b TREE
//   audit FILES RUNS PORT LOG   a FilesCopy record of FILES files sent to kwagent (chunked and
//                               acknowledged) against a minimal stop-and-wait sender of the same
//                               bytes to kwagent, and against the same bytes as plain datagrams
#include <winsock2.h>
#include <windows.h>
#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>
#include <shobjidl.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "agent/agent_channel.h"
#include "agent/agent_frame.h"
#include "agent/copy_audit.h"
#include "hookengine/inline_hook.h"
#include "host/owners.h"
#include "host/utf_conversion.h"
#include "kwindel.h"
#include "protect/folder_walk.h"
#include "timing.h"

namespace {

constexpr HRESULT kNotImplemented = static_cast<HRESULT>(0x80004001);
// Copy audit, secret audit, destinations on local drives: both messages go to the agent.
constexpr DWORD kAuditPolicy = KWINDEL_POLICY_COPY_AUDIT | KWINDEL_POLICY_SECRET_AUDIT | KWINDEL_POLICY_DEST_LOCAL;

template <typename Fn>
Fn function_of(const OwnedModule& module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module.get(), name)));
}

// Seconds per call of `call`, averaged over `calls` calls.
double per_call(int calls, const std::function<bool()>& call, bool* ok) {
  const double start = now_seconds();
  for (int i = 0; i < calls; ++i) {
    if (!call()) *ok = false;
  }
  return (now_seconds() - start) / calls;
}

std::wstring exe_dir() {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring s(path, n);
  return s.substr(0, s.rfind(L'\\') + 1);
}

std::wstring dll_path() { return exe_dir() + KWINDEL_DLL_NAME; }

// A program of this one's bitness beside it: kwagent.exe, or kwagent-x86.exe in 32-bit.
std::wstring program_path(const wchar_t* name) { return exe_dir() + name + L"" KWINDEL_TOOL_SUFFIX ".exe"; }

// `quiet`: the child gets no standard handles (kwagent's start and stop lines stay out of the table).
bool start_process(std::wstring command_line, PROCESS_INFORMATION* info, bool quiet = false) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  if (quiet) startup.dwFlags = STARTF_USESTDHANDLES;
  return CreateProcessW(nullptr, &command_line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, info) != 0;
}

bool write_file(const std::wstring& path, size_t size) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.ok()) return false;
  std::vector<char> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
  DWORD written = 0;
  return WriteFile(file.get(), bytes.data(), static_cast<DWORD>(size), &written, nullptr) && written == size;
}

// kwagent from beside this program, stopped when this process ends or the scope ends.
class Agent {
 public:
  // Starts kwagent with `options`; waits up to `wait_ms` for it to bind its port, retrying while
  // another process holds the port (other programs on this machine may use 7886 for a while).
  Agent(const std::wstring& options, DWORD wait_ms) {
    const std::wstring tag = std::to_wstring(GetCurrentProcessId());
    const std::wstring ready_name = L"kwbench-agent-ready-" + tag, stop_name = L"kwbench-agent-stop-" + tag;
    ready_.reset(CreateEventW(nullptr, TRUE, FALSE, ready_name.c_str()));
    stop_.reset(CreateEventW(nullptr, TRUE, FALSE, stop_name.c_str()));
    const ULONGLONG end = GetTickCount64() + wait_ms;
    do {
      PROCESS_INFORMATION info = {};
      const std::wstring command = L"\"" + program_path(L"kwagent") + L"\" " + options + L" --ready " + ready_name +
                                   L" --event " + stop_name + L" --parent " + tag;
      if (!start_process(command, &info, true)) return;
      CloseHandle(info.hThread);
      process_.reset(info.hProcess);
      HANDLE both[2] = {ready_.get(), process_.get()};
      if (WaitForMultipleObjects(2, both, FALSE, 10000) == WAIT_OBJECT_0) {
        ready = true;
        return;
      }
      process_.reset();  // it exited: the port is taken
      Sleep(1000);
    } while (GetTickCount64() < end);
  }
  ~Agent() {
    if (!process_.ok()) return;
    SetEvent(stop_.get());
    if (WaitForSingleObject(process_.get(), 5000) != WAIT_OBJECT_0) TerminateProcess(process_.get(), 1);
  }
  bool ready = false;

 private:
  OwnedHandle ready_, stop_, process_;
};

// ---- load ----

// Seconds from CreateProcess to the child's first message; negative on failure or when the DLL
// was (or was not) loaded against `expect_loaded`.
double time_child_start(const std::wstring& child, bool shell, bool expect_loaded, int serial) {
  const std::wstring event_name = L"kwbench-first-message-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                  std::to_wstring(serial);
  OwnedHandle event(CreateEventW(nullptr, TRUE, FALSE, event_name.c_str()));
  PROCESS_INFORMATION info = {};
  const double start = now_seconds();
  if (!start_process(L"\"" + child + L"\" " + event_name + (shell ? L" shell" : L""), &info)) return -1;
  OwnedHandle process(info.hProcess), thread(info.hThread);
  HANDLE both[2] = {event.get(), process.get()};
  const DWORD waited = WaitForMultipleObjects(2, both, FALSE, 60000);
  const double elapsed = now_seconds() - start;
  if (waited != WAIT_OBJECT_0) return -1;
  DWORD code = 2;
  if (WaitForSingleObject(process.get(), 60000) != WAIT_OBJECT_0 || !GetExitCodeProcess(process.get(), &code)) return -1;
  if (code != (expect_loaded ? 0u : 1u)) {
    std::fprintf(stderr, "kwbench load: the child reported exit code %lu (expected %d)\n", code, expect_loaded ? 0 : 1);
    return -1;
  }
  return elapsed;
}

// Prints every counted round rather than medians: bench/dll_load.sh alternates blocks of rounds of
// both bitnesses and takes the medians over the blocks.
int bench_load(int runs, bool shell) {
  OwnedModule dll(LoadLibraryW(dll_path().c_str()));
  auto install = function_of<KwInstallHookProcFn>(dll, "InstallHookProc");
  if (install == nullptr) {
    std::fprintf(stderr, "kwbench load: cannot load %ls or its InstallHookProc\n", dll_path().c_str());
    return 1;
  }
  const std::wstring child = program_path(L"kwbench-child");
  int serial = 0;
  for (int i = -1; i < runs; ++i) {  // round -1 warms the caches and is not counted
    const double p = time_child_start(child, shell, false, serial++);
    if (install(TRUE) != 1) {
      std::fprintf(stderr, "kwbench load: InstallHookProc(TRUE) failed (error %lu)\n", GetLastError());
      return 1;
    }
    const double h = time_child_start(child, shell, true, serial++);
    install(FALSE);
    if (p < 0 || h < 0) return 1;
    if (i >= 0) std::printf("plain_ms %.3f hooked_ms %.3f\n", p * 1e3, h * 1e3);
  }
  return 0;
}

// ---- setup ----

// Stand-ins for the three replacements: the patches are timed and removed, never entered.
HRESULT STDMETHODCALLTYPE stand_in(IFileOperation*, IUnknown*, IShellItem*) { return kNotImplemented; }
HRESULT STDMETHODCALLTYPE stand_in_perform(IFileOperation*) { return kNotImplemented; }

// One fresh process's split of the set-up on the shell copy engine's path: the platform's steps
// as the set-up makes them (COM start-up and its end, the file-operation object, the three
// patches of its methods with the other threads frozen, Winsock), then the DLL loaded into the
// same process, whose entry then pays only what is the library's own (and the steps once more,
// warm). Prints "com_ms A object_ms B patch_ms C winsock_ms D entry_after_ms E".
int bench_setup() {
  double t = now_seconds();
  auto lap = [&t] {
    const double now = now_seconds(), ms = (now - t) * 1e3;
    t = now;
    return ms;
  };
  // {3AD05575-8857-4850-9277-11B85BDB8E09} and {947AAB5F-0A5C-4C13-B4D6-4BF7836FC9F8}, as the set-up asks.
  const CLSID file_operation = {0x3AD05575, 0x8857, 0x4850, {0x92, 0x77, 0x11, 0xB8, 0x5B, 0xDB, 0x8E, 0x09}};
  const IID file_operation_iid = {0x947AAB5F, 0x0A5C, 0x4C13, {0xB4, 0xD6, 0x4B, 0xF7, 0x83, 0x6F, 0xC9, 0xF8}};
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE))) return 1;
  double com = lap();
  ComRef<IFileOperation> operation;
  if (FAILED(CoCreateInstance(file_operation, nullptr, 0x15, file_operation_iid, operation.put_void()))) return 1;
  const double object = lap();
  void** methods = *reinterpret_cast<void***>(operation.get());
  void* targets[3] = {methods[17], methods[15], methods[21]};  // CopyItems, MoveItems, PerformOperations
  const hookengine::HookRequest requests[3] = {{&targets[0], reinterpret_cast<void*>(&stand_in)},
                                               {&targets[1], reinterpret_cast<void*>(&stand_in)},
                                               {&targets[2], reinterpret_cast<void*>(&stand_in_perform)}};
  if (hookengine::install_hooks(requests, 3, nullptr) != 3) return 1;
  const double patch = lap();
  for (void*& target : targets) hookengine::remove_hook(&target);
  operation.reset();
  lap();
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 1;
  const double winsock = lap();
  // COM stays initialised on this thread until the DLL is in, so that its entry finds the
  // apartment ready, as it finds it in a program that uses COM.
  OwnedModule dll(LoadLibraryW(dll_path().c_str()));
  if (!dll.ok()) return 1;
  const double entry = lap();
  CoUninitialize();
  com += lap();
  std::printf("com_ms %.2f object_ms %.2f patch_ms %.2f winsock_ms %.2f entry_after_ms %.2f\n", com, object, patch,
              winsock, entry);
  return 0;
}

// ---- copyfile (pre-6 path) ----

int bench_copyfile(const std::wstring& dir, int rounds, int calls) {
  const std::wstring source = dir + L"\\source-1mib.bin", target = dir + L"\\copy-1mib.bin",
                     shell_target = dir + L"\\shell-copy-1mib.bin";
  if (!write_file(source, 1 << 20)) {
    std::fprintf(stderr, "kwbench copyfile: cannot write %ls\n", source.c_str());
    return 1;
  }
  const std::wstring from = source + L'\0', to = shell_target + L'\0';  // double-NUL lists
  auto copy_file = [&] { return CopyFileW(source.c_str(), target.c_str(), FALSE) != 0; };
  auto shell_copy = [&] {
    SHFILEOPSTRUCTW op = {};
    op.wFunc = FO_COPY;
    op.pFrom = from.c_str();
    op.pTo = to.c_str();
    op.fFlags = FOF_NOCONFIRMATION | FOF_SILENT | FOF_NOERRORUI | FOF_NOCONFIRMMKDIR;
    return SHFileOperationW(&op) == 0;
  };
  // The DLL's hook rewrites the start of kernel32's CopyFileW: proof that the calls are intercepted.
  const auto* entry = reinterpret_cast<const unsigned char*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "CopyFileW"));
  unsigned char unpatched[14];
  std::memcpy(unpatched, entry, sizeof unpatched);
  Agent agent(L"--empty --log \"" + dir + L"\\agent.log\"", 60000);
  if (!agent.ready) std::fprintf(stderr, "kwbench copyfile: kwagent could not bind UDP 7886; no audit figures\n");
  std::vector<double> cf[3], sh[3];  // unhooked, policy off, audit on
  bool ok = true;
  for (int r = -1; r < rounds; ++r) {
    const double cf0 = per_call(calls, copy_file, &ok), sh0 = per_call(calls, shell_copy, &ok);
    OwnedModule dll(LoadLibraryW(dll_path().c_str()));
    auto set_policy = function_of<KwSetPolicyFn>(dll, "SetPolicy");
    if (set_policy == nullptr) {
      std::fprintf(stderr, "kwbench copyfile: cannot load %ls\n", dll_path().c_str());
      return 1;
    }
    if (std::memcmp(entry, unpatched, sizeof unpatched) == 0) {
      std::fprintf(stderr, "kwbench copyfile: CopyFileW is not hooked (is this a winxp64 prefix?)\n");
      return 1;
    }
    set_policy(0, 0);
    const double cf1 = per_call(calls, copy_file, &ok), sh1 = per_call(calls, shell_copy, &ok);
    double cf2 = 0, sh2 = 0;
    if (agent.ready) {
      set_policy(kAuditPolicy, 0);
      cf2 = per_call(calls, copy_file, &ok);
      sh2 = per_call(calls, shell_copy, &ok);
      set_policy(0, 0);
    }
    if (r < 0) continue;
    cf[0].push_back(cf0), cf[1].push_back(cf1), cf[2].push_back(cf2);
    sh[0].push_back(sh0), sh[1].push_back(sh1), sh[2].push_back(sh2);
  }
  if (!ok) {
    std::fprintf(stderr, "kwbench copyfile: a copy failed\n");
    return 1;
  }
  auto row = [&](const char* name, std::vector<double>* v) {
    const double u = median(v[0]), off = median(v[1]), on = median(v[2]);
    std::printf("  %s %-22s unhooked %8.1f us   policy off %8.1f us (ratio %.3f, target <= 1.05)", KWINDEL_ARCH, name, u * 1e6,
                off * 1e6, off / u);
    if (agent.ready) std::printf("   audit on %8.1f us (ratio %.3f)", on * 1e6, on / u);
    std::printf("\n");
  };
  row("CopyFileW 1 MiB", cf);
  row("SHFileOperationW 1 MiB", sh);
  std::printf("    (median of %d rounds of %d calls each, the three cases alternating within a round;\n"
              "     audit on = policy 0x%02lX with kwagent --empty answering on UDP 7886)\n",
              rounds, calls, kAuditPolicy);
  return 0;
}

// ---- copyitems (current path) ----

int bench_copyitems(const std::wstring& dir, int rounds, int calls) {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 1;
  const std::wstring source = dir + L"\\source-1mib.bin", out = dir + L"\\out", target = dir + L"\\copy-1mib.bin";
  CreateDirectoryW(out.c_str(), nullptr);
  if (!write_file(source, 1 << 20)) return 1;
  // The item set Explorer hands over: the folder's data object for the selected file.
  CoTaskMem<ITEMIDLIST> folder_id;
  ComRef<IShellFolder> desktop, folder;
  ComRef<IDataObject> items;
  ComRef<IShellItem> destination;
  ComRef<IFileOperation> operation;
  PIDLIST_RELATIVE child = nullptr;
  std::wstring name = L"source-1mib.bin";
  bool made = SUCCEEDED(SHParseDisplayName(dir.c_str(), nullptr, folder_id.put(), 0, nullptr)) &&
              SUCCEEDED(SHGetDesktopFolder(desktop.put())) &&
              SUCCEEDED(desktop.get()->BindToObject(folder_id.get(), nullptr, IID_IShellFolder, folder.put_void())) &&
              SUCCEEDED(folder.get()->ParseDisplayName(nullptr, nullptr, &name[0], nullptr, &child, nullptr));
  if (made) {
    PCUITEMID_CHILD children[1] = {reinterpret_cast<PCUITEMID_CHILD>(child)};
    made = SUCCEEDED(folder.get()->GetUIObjectOf(nullptr, 1, children, IID_IDataObject, nullptr, items.put_void()));
  }
  if (child != nullptr) CoTaskMemFree(child);
  made = made && SUCCEEDED(SHCreateItemFromParsingName(out.c_str(), nullptr, IID_IShellItem, destination.put_void())) &&
         SUCCEEDED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, operation.put_void()));
  if (!made) {
    std::fprintf(stderr, "kwbench copyitems: cannot build the shell items\n");
    return 1;
  }
  const unsigned char* method = reinterpret_cast<const unsigned char*>((*reinterpret_cast<void***>(operation.get()))[17]);
  const unsigned char unpatched = method[0];
  auto copy_items = [&] { return operation.get()->CopyItems(items.get(), destination.get()) == kNotImplemented; };
  auto copy_file = [&] { return CopyFileW(source.c_str(), target.c_str(), FALSE) != 0; };
  Agent agent(L"--empty --log \"" + dir + L"\\agent.log\"", 60000);
  if (!agent.ready) std::fprintf(stderr, "kwbench copyitems: kwagent could not bind UDP 7886; no audit figures\n");
  std::vector<double> ci[3], cf;
  bool ok = true;
  const int audit_calls = std::max(1, calls / 20);  // each makes a round trip to the agent
  for (int r = -1; r < rounds; ++r) {
    const double c0 = per_call(calls, copy_items, &ok), f = per_call(5, copy_file, &ok);
    OwnedModule dll(LoadLibraryW(dll_path().c_str()));
    auto set_policy = function_of<KwSetPolicyFn>(dll, "SetPolicy");
    if (set_policy == nullptr || method[0] == unpatched) {
      std::fprintf(stderr, "kwbench copyitems: the DLL did not patch CopyItems (is this a 6.x prefix?)\n");
      return 1;
    }
    set_policy(0, 0);
    const double c1 = per_call(calls, copy_items, &ok);
    double c2 = 0;
    if (agent.ready) {
      set_policy(kAuditPolicy, 0);
      c2 = per_call(audit_calls, copy_items, &ok);
      set_policy(0, 0);
    }
    if (r < 0) continue;
    ci[0].push_back(c0), ci[1].push_back(c1), ci[2].push_back(c2), cf.push_back(f);
  }
  if (!ok) {
    std::fprintf(stderr, "kwbench copyitems: CopyItems did not return E_NOTIMPL, or a copy failed\n");
    return 1;
  }
  const double u = median(ci[0]), off = median(ci[1]), on = median(ci[2]), file = median(cf);
  std::printf("  %s CopyItems (Wine stub)  unhooked %8.3f us   policy off %8.1f us (ratio %.1f, target <= 1.05)", KWINDEL_ARCH, u * 1e6,
              off * 1e6, off / u);
  if (agent.ready) std::printf("   audit on %8.1f us (ratio %.0f)", on * 1e6, on / u);
  std::printf("\n    added per call with the policy off: %.1f us = %.2f%% of one CopyFileW of 1 MiB (%.1f us, same run)\n",
              (off - u) * 1e6, 100 * (off - u) / file, file * 1e6);
  if (agent.ready) {
    std::printf("    added per call with the audit on:   %.1f us = %.1f%% of one CopyFileW of 1 MiB\n", (on - u) * 1e6,
                100 * (on - u) / file);
  }
  // Where the policy-off time goes: the steps CopyItems_new takes before it passes the call on.
  bool parts_ok = true;
  const double trace = per_call(calls, [] {
    OutputDebugStringA("[CopyItems_new,1150] : [ZELTRAP:KWINDEL] CopyItems_new g_secretcopy_audit=0");
    return true;
  }, &parts_ok);
  const double display_name = per_call(calls, [&] {
    wchar_t* text = nullptr;
    const bool got = SUCCEEDED(destination.get()->GetDisplayName(SIGDN_FILESYSPATH, &text));
    CoTaskMemFree(text);
    return got;
  }, &parts_ok);
  const double drop_list = per_call(calls, [&] {
    ComRef<IDataObject> data;
    FORMATETC format = {CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium = {};
    if (FAILED(items.get()->QueryInterface(IID_IDataObject, data.put_void())) || FAILED(data.get()->GetData(&format, &medium))) {
      return false;
    }
    auto drop = static_cast<HDROP>(GlobalLock(medium.hGlobal));
    wchar_t name[MAX_PATH];
    const bool got = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0) == 1 && DragQueryFileW(drop, 0, name, MAX_PATH) > 0;
    GlobalUnlock(medium.hGlobal);
    ReleaseStgMedium(&medium);
    return got;
  }, &parts_ok);
  if (parts_ok) {
    std::printf("    the same steps made directly: one trace line %.1f us, destination path %.1f us, drop list %.1f us\n",
                trace * 1e6, display_name * 1e6, drop_list * 1e6);
  }
  std::printf("    (median of %d rounds of %d calls (%d with the audit on), cases alternating within a round;\n"
              "     audit on = policy 0x%02lX with kwagent --empty answering on UDP 7886)\n",
              rounds, calls, audit_calls, kAuditPolicy);
  CoUninitialize();
  return 0;
}

// ---- walk ----

// Lines in a file (the listing dir /s /b wrote).
long count_lines(const std::wstring& path) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!file.ok()) return -1;
  std::vector<char> buffer(1 << 16);
  long lines = 0;
  DWORD n = 0;
  while (ReadFile(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &n, nullptr) && n > 0) {
    lines += static_cast<long>(std::count(buffer.begin(), buffer.begin() + n, '\n'));
  }
  return lines;
}

// The limit of a folder expansion: a bare recursive FindFirstFileExW walk (basic information,
// large fetch) that produces the same list (UTF-8 paths of the regular files, depth first).
void bare_walk(const std::wstring& folder, std::vector<std::string>& out) {
  WIN32_FIND_DATAW data;
  OwnedFind find(FindFirstFileExW((folder + L"\\*").c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr,
                                  FIND_FIRST_EX_LARGE_FETCH));
  if (!find.ok()) return;
  do {
    const wchar_t* name = data.cFileName;
    if (name[0] == L'.' && (name[1] == 0 || (name[1] == L'.' && name[2] == 0))) continue;
    const std::wstring path = folder + L"\\" + name;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
      bare_walk(path, out);
    } else {
      out.push_back(wide_to_utf8(path));
    }
  } while (FindNextFileW(find.get(), &data));
}

int bench_walk(const std::wstring& tree, const std::wstring& listing, int runs) {
  wchar_t system[MAX_PATH];
  GetSystemDirectoryW(system, MAX_PATH);
  const std::wstring dir = L"\"" + std::wstring(system) + L"\\cmd.exe\" /c dir /s /b \"" + tree + L"\" > ";
  const std::wstring to_file = dir + L"\"" + listing + L"\"", to_nul = dir + L"NUL";
  auto run_dir = [](const std::wstring& command) {
    PROCESS_INFORMATION info = {};
    const double start = now_seconds();
    if (!start_process(command, &info)) return -1.0;
    OwnedHandle process(info.hProcess), thread(info.hThread);
    WaitForSingleObject(process.get(), INFINITE);
    return now_seconds() - start;
  };
  const std::string tree_utf8 = wide_to_utf8(tree.c_str());
  std::vector<double> walk, bare, dir_file, dir_nul;
  size_t files = 0, bare_files = 0;
  for (int r = -1; r < runs; ++r) {  // round -1 warms the caches and is not counted
    std::vector<std::string> out, bare_out;
    double start = now_seconds();
    const int32_t count = get_filepaths_from_folder(tree_utf8, out);
    const double w = now_seconds() - start;
    if (count <= 0) {
      std::fprintf(stderr, "kwbench walk: get_filepaths_from_folder returned %d\n", count);
      return 1;
    }
    files = out.size();
    start = now_seconds();
    bare_walk(tree, bare_out);
    const double b = now_seconds() - start;
    bare_files = bare_out.size();
    const double f = run_dir(to_file), n = run_dir(to_nul);
    if (f < 0 || n < 0) return 1;
    if (r >= 0) walk.push_back(w), bare.push_back(b), dir_file.push_back(f), dir_nul.push_back(n);
  }
  if (bare_files != files) {
    std::fprintf(stderr, "kwbench walk: the bare walk listed %zu files, the library %zu\n", bare_files, files);
    return 1;
  }
  const long lines = count_lines(listing);
  const double mw = median(walk), mb = median(bare), mf = median(dir_file), mn = median(dir_nul);
  std::printf("  get_filepaths_from_folder        %7.0f ms (%zu files in a list)\n", mw * 1e3, files);
  std::printf("  limit: bare FindFirstFileExW     %7.0f ms (basic information, large fetch; same list)\n", mb * 1e3);
  std::printf("  ratio limit / walk time          %7.2f (target >= 0.80)\n", mb / mw);
  std::printf("  cmd /c dir /s /b > listing file  %7.0f ms (%ld lines: files and folders)   ratio dir / walk %.2f\n",
              mf * 1e3, lines, mf / mw);
  std::printf("  cmd /c dir /s /b > NUL           %7.0f ms                                    ratio dir / walk %.2f\n",
              mn * 1e3, mn / mw);
  std::printf("  target: ratio >= 1.00 (the walk no slower than dir)   (median of %d alternating runs after one\n"
              "    warm-up run of each; dir's times include starting cmd.exe)\n",
              runs);
  return 0;
}

// ---- audit ----

long long file_size(const std::wstring& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return -1;
  return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

int bench_audit(int files, int runs, int port, const std::wstring& log) {
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return 1;
  std::vector<std::string> sources;
  sources.reserve(files);
  char path[128];
  for (int i = 0; i < files; ++i) {
    std::snprintf(path, sizeof path, "C:\\users\\bench\\Documents\\project\\d%03d\\report-%06d.docx", i / 100, i);
    sources.push_back(path);
  }
  const std::string document = build_copy_audit_document(kCopyAuditCopy, "E:\\backup", sources, GetTickCount());
  agent::AgentFrame frame;
  if (!frame.Build(agent::kCopyAuditTag, document)) return 1;
  const size_t bytes = frame.size(), chunks = (bytes + agent::kChunkSize - 1) / agent::kChunkSize;
  DeleteFileW(log.c_str());
  Agent kwagent(L"--port " + std::to_wstring(port) + L" --log \"" + log + L"\"", 30000);
  if (!kwagent.ready) {
    std::fprintf(stderr, "kwbench audit: kwagent could not bind UDP 127.0.0.1:%d\n", port);
    return 1;
  }
  // The plain receiver: a socket of this process that only counts what arrives.
  OwnedSocket receiver(socket(AF_INET, SOCK_DGRAM, 0));
  int buffer_size = 32 << 20;
  setsockopt(receiver.get(), SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&buffer_size), sizeof buffer_size);
  DWORD poll_ms = 200;
  setsockopt(receiver.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&poll_ms), sizeof poll_ms);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  int length = sizeof address;
  if (bind(receiver.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(receiver.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 1;
  }
  // The agent has the whole record once it logs it; each sender waits for that, so that the
  // agent's parsing never overlaps the next sender's chunks.
  auto logged = [&](long long before) {
    const ULONGLONG end = GetTickCount64() + 60000;
    while (file_size(log) <= before && GetTickCount64() < end) Sleep(20);
    // The agent writes its line in pieces: done when the log has stopped growing for 250 ms.
    for (long long size = file_size(log), last = -1; size != last && GetTickCount64() < end; size = file_size(log)) {
      last = size;
      Sleep(250);
    }
    return file_size(log) > before;
  };
  const sockaddr_in agent_address = [&] {
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<u_short>(port));
    a.sin_addr.s_addr = inet_addr("127.0.0.1");
    return a;
  }();
  std::vector<double> acked, minimal, plain;
  std::vector<double> delivered;
  for (int r = -1; r < runs; ++r) {
    // Chunked and acknowledged, as the library sends a record (SendCopyAudit with the agent's port).
    long long before = file_size(log);
    double start = now_seconds();
    agent::AgentChannel channel;
    channel.SetReceiveTimeout(agent::kReceiveTimeoutMs);
    const int sent = send_copy_audit_over(channel, agent::agent_address(static_cast<uint16_t>(port)), document);
    const double a = now_seconds() - start;
    if (sent != 1) {
      std::fprintf(stderr, "kwbench audit: the record was not acknowledged throughout\n");
      return 1;
    }
    if (!logged(before)) {
      std::fprintf(stderr, "kwbench audit: kwagent did not log the record\n");
      return 1;
    }
    // The limit: the least a stop-and-wait sender can do with the same frame bytes, to the same
    // agent program: send 8192 bytes, wait for the 128-byte answer, repeat.
    before = file_size(log);
    start = now_seconds();
    {
      OwnedSocket sender(socket(AF_INET, SOCK_DGRAM, 0));
      DWORD timeout_ms = agent::kReceiveTimeoutMs;
      setsockopt(sender.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout_ms), sizeof timeout_ms);
      char answer[agent::kAckSize];
      for (size_t offset = 0; offset < bytes; offset += agent::kChunkSize) {
        const int n = static_cast<int>(std::min<size_t>(agent::kChunkSize, bytes - offset));
        if (sendto(sender.get(), frame.data() + offset, n, 0, reinterpret_cast<const sockaddr*>(&agent_address),
                   sizeof agent_address) != n ||
            (offset + n < bytes && recv(sender.get(), answer, sizeof answer, 0) <= 0)) {
          std::fprintf(stderr, "kwbench audit: the minimal sender lost an answer at byte %zu (error %d)\n", offset,
                       WSAGetLastError());
          return 1;
        }
      }
    }
    const double m = now_seconds() - start;
    if (!logged(before)) {
      std::fprintf(stderr, "kwbench audit: kwagent did not log the minimal sender's record\n");
      return 1;
    }
    // The same bytes as plain datagrams of the same size, without acknowledgements.
    std::atomic<long long> received{0};
    std::atomic<double> last{0};
    std::thread counter([&] {
      std::vector<char> buffer(agent::kChunkSize);
      while (received < static_cast<long long>(bytes)) {
        const int n = recv(receiver.get(), buffer.data(), static_cast<int>(buffer.size()), 0);
        if (n <= 0) break;  // 200 ms of silence: the rest was lost
        received += n;
        last = now_seconds();
      }
    });
    OwnedSocket sender(socket(AF_INET, SOCK_DGRAM, 0));
    start = now_seconds();
    for (size_t offset = 0; offset < bytes; offset += agent::kChunkSize) {
      const int n = static_cast<int>(std::min<size_t>(agent::kChunkSize, bytes - offset));
      sendto(sender.get(), frame.data() + offset, n, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    const double sent_at = now_seconds();
    counter.join();
    const double p = std::max(sent_at, last.load()) - start;
    if (r >= 0) acked.push_back(a), minimal.push_back(m), plain.push_back(p), delivered.push_back(double(received) / double(bytes));
  }
  const double ma = median(acked), mm = median(minimal), mp = median(plain), mib = double(bytes) / 1048576.0;
  std::printf("  %s programs: record of %d files, %.2f MiB in %zu datagrams of at most %d bytes\n", KWINDEL_ARCH, files, mib, chunks,
              agent::kChunkSize);
  std::printf("  kwindel sender (kwagent)             %7.1f ms  %7.1f MiB/s  %6.1f us per chunk\n", ma * 1e3, mib / ma,
              ma * 1e6 / double(chunks));
  std::printf("  limit: minimal stop-and-wait sender  %7.1f ms  %7.1f MiB/s  %6.1f us per chunk\n", mm * 1e3, mib / mm,
              mm * 1e6 / double(chunks));
  std::printf("  ratio kwindel / limit rate           %.2f (target >= 0.90)\n", mm / ma);
  std::printf("  peer: plain datagrams, no answers    %7.1f ms  %7.1f MiB/s  (%.0f%% delivered, median)\n", mp * 1e3,
              mib / mp, 100 * median(delivered));
  std::printf("  ratio kwindel / plain rate           %.2f (target >= 0.50)   (median of %d alternating runs)\n", mp / ma,
              runs);
  WSACleanup();
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"load" && argc >= 3) return bench_load(_wtoi(argv[2]), argc > 3 && std::wcscmp(argv[3], L"shell") == 0);
  if (mode == L"setup") return bench_setup();
  if (mode == L"copyfile" && argc >= 5) return bench_copyfile(argv[2], _wtoi(argv[3]), _wtoi(argv[4]));
  if (mode == L"copyitems" && argc >= 5) return bench_copyitems(argv[2], _wtoi(argv[3]), _wtoi(argv[4]));
  if (mode == L"walk" && argc >= 5) return bench_walk(argv[2], argv[3], _wtoi(argv[4]));
  if (mode == L"audit" && argc >= 6) return bench_audit(_wtoi(argv[2]), _wtoi(argv[3]), _wtoi(argv[4]), argv[5]);
  std::fputs("usage: kwbench load RUNS [shell] | setup | copyfile DIR ROUNDS CALLS | copyitems DIR ROUNDS CALLS |\n"
             "       walk TREE LISTING RUNS | audit FILES RUNS PORT LOG\n",
             stderr);
  return 2;
}
