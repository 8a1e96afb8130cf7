// kwbench MODE ...: the side-by-side benchmarks of kwindel-x64.dll, run under Wine by bench/*.sh.
// Every mode measures the product and its reference in the same run, alternating them round by
// round, and prints the medians and their ratio.
//   load RUNS [shell]           start of kwbench-child.exe to its first message, without and with
//                               the DLL injected by a global InstallHookProc hook
//   copyfile DIR ROUNDS CALLS   CopyFileW and SHFileOperationW of a 1 MiB file: unhooked, DLL loaded
//                               with the policy off, and with copy and secret audit on (kwagent)
//   copyitems DIR ROUNDS CALLS  IFileOperation::CopyItems likewise (Wine's method is a stub)
//   walk TREE LISTING RUNS      get_filepaths_from_folder(TREE) against cmd /c dir /s /b TREE
//   audit FILES RUNS PORT LOG   a FilesCopy record of FILES files sent to kwagent (chunked and
//                               acknowledged) against the same bytes as plain datagrams
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
#include "host/caller_context.h"
#include "kwindel.h"
#include "protect/folder_walk.h"

namespace {

constexpr HRESULT kNotImplemented = static_cast<HRESULT>(0x80004001);
// Copy audit, secret audit, destinations on local drives: both messages go to the agent.
constexpr DWORD kAuditPolicy = KWINDEL_POLICY_COPY_AUDIT | KWINDEL_POLICY_SECRET_AUDIT | KWINDEL_POLICY_DEST_LOCAL;

struct Handle {
  HANDLE h = nullptr;
  explicit Handle(HANDLE handle = nullptr) : h(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
  ~Handle() { if (h != nullptr) CloseHandle(h); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
};

struct Module {
  HMODULE h = nullptr;
  explicit Module(const std::wstring& path) : h(LoadLibraryW(path.c_str())) {}
  ~Module() { if (h != nullptr) FreeLibrary(h); }
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;
  template <typename T> T fn(const char* name) const { return reinterpret_cast<T>(reinterpret_cast<void*>(GetProcAddress(h, name))); }
};

template <typename T>
struct Com {
  T* p = nullptr;
  ~Com() { if (p != nullptr) p->Release(); }
  void** put() { return reinterpret_cast<void**>(&p); }
};

struct Pidl {
  PIDLIST_ABSOLUTE p = nullptr;
  ~Pidl() { if (p != nullptr) CoTaskMemFree(p); }
};

struct Socket {
  SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
  ~Socket() { if (s != INVALID_SOCKET) closesocket(s); }
};

double now_seconds() {
  LARGE_INTEGER counter, frequency;
  QueryPerformanceCounter(&counter);
  QueryPerformanceFrequency(&frequency);
  return double(counter.QuadPart) / double(frequency.QuadPart);
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
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

std::wstring dll_path() { return exe_dir() + L"kwindel-x64.dll"; }

// `quiet`: the child gets no standard handles (kwagent's start and stop lines stay out of the table).
bool start_process(std::wstring command_line, PROCESS_INFORMATION* info, bool quiet = false) {
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  if (quiet) startup.dwFlags = STARTF_USESTDHANDLES;
  return CreateProcessW(nullptr, &command_line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, info) != 0;
}

bool write_file(const std::wstring& path, size_t size) {
  Handle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (file.h == nullptr) return false;
  std::vector<char> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
  DWORD written = 0;
  return WriteFile(file.h, bytes.data(), static_cast<DWORD>(size), &written, nullptr) && written == size;
}

// kwagent.exe from beside this program, stopped when this process ends or the scope ends.
class Agent {
 public:
  // Starts kwagent with `options`; waits up to `wait_ms` for it to bind its port, retrying while
  // another process holds the port (other programs on this machine may use 7886 for a while).
  Agent(const std::wstring& options, DWORD wait_ms) {
    const std::wstring tag = std::to_wstring(GetCurrentProcessId());
    const std::wstring ready_name = L"kwbench-agent-ready-" + tag, stop_name = L"kwbench-agent-stop-" + tag;
    ready_.h = CreateEventW(nullptr, TRUE, FALSE, ready_name.c_str());
    stop_.h = CreateEventW(nullptr, TRUE, FALSE, stop_name.c_str());
    const ULONGLONG end = GetTickCount64() + wait_ms;
    do {
      PROCESS_INFORMATION info = {};
      const std::wstring command = L"\"" + exe_dir() + L"kwagent.exe\" " + options + L" --ready " + ready_name +
                                   L" --event " + stop_name + L" --parent " + tag;
      if (!start_process(command, &info, true)) return;
      CloseHandle(info.hThread);
      process_.h = info.hProcess;
      HANDLE both[2] = {ready_.h, process_.h};
      if (WaitForMultipleObjects(2, both, FALSE, 10000) == WAIT_OBJECT_0) {
        ready = true;
        return;
      }
      CloseHandle(process_.h);  // it exited: the port is taken
      process_.h = nullptr;
      Sleep(1000);
    } while (GetTickCount64() < end);
  }
  ~Agent() {
    if (process_.h == nullptr) return;
    SetEvent(stop_.h);
    if (WaitForSingleObject(process_.h, 5000) != WAIT_OBJECT_0) TerminateProcess(process_.h, 1);
  }
  bool ready = false;

 private:
  Handle ready_, stop_, process_;
};

// ---- load ----

// Seconds from CreateProcess to the child's first message; negative on failure or when the DLL
// was (or was not) loaded against `expect_loaded`.
double time_child_start(const std::wstring& child, bool shell, bool expect_loaded, int serial) {
  const std::wstring event_name = L"kwbench-first-message-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                                  std::to_wstring(serial);
  Handle event(CreateEventW(nullptr, TRUE, FALSE, event_name.c_str()));
  PROCESS_INFORMATION info = {};
  const double start = now_seconds();
  if (!start_process(L"\"" + child + L"\" " + event_name + (shell ? L" shell" : L""), &info)) return -1;
  Handle process(info.hProcess), thread(info.hThread);
  HANDLE both[2] = {event.h, process.h};
  const DWORD waited = WaitForMultipleObjects(2, both, FALSE, 60000);
  const double elapsed = now_seconds() - start;
  if (waited != WAIT_OBJECT_0) return -1;
  DWORD code = 2;
  if (WaitForSingleObject(process.h, 60000) != WAIT_OBJECT_0 || !GetExitCodeProcess(process.h, &code)) return -1;
  if (code != (expect_loaded ? 0u : 1u)) {
    std::fprintf(stderr, "kwbench load: the child reported exit code %lu (expected %d)\n", code, expect_loaded ? 0 : 1);
    return -1;
  }
  return elapsed;
}

int bench_load(int runs, bool shell) {
  Module dll(dll_path());
  auto install = dll.fn<KwInstallHookProcFn>("InstallHookProc");
  if (install == nullptr) {
    std::fprintf(stderr, "kwbench load: cannot load %ls or its InstallHookProc\n", dll_path().c_str());
    return 1;
  }
  const std::wstring child = exe_dir() + L"kwbench-child.exe";
  std::vector<double> plain, hooked;
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
    if (i >= 0) {
      plain.push_back(p);
      hooked.push_back(h);
    }
  }
  const double mp = median(plain), mh = median(hooked);
  std::printf("  child %-26s plain %7.1f ms   DLL injected %7.1f ms   ratio %.2f (target <= 1.20)\n",
              shell ? "loading ole32 and shell32" : "importing user32 only", mp * 1e3, mh * 1e3, mh / mp);
  std::printf("    (median of %d alternating starts each; DLL adds %.1f ms)\n", runs, (mh - mp) * 1e3);
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
    Module dll(dll_path());
    auto set_policy = dll.fn<KwSetPolicyFn>("SetPolicy");
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
    std::printf("  %-22s unhooked %8.1f us   policy off %8.1f us (ratio %.3f, target <= 1.05)", name, u * 1e6,
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
  Pidl folder_id;
  Com<IShellFolder> desktop, folder;
  Com<IDataObject> items;
  Com<IShellItem> destination;
  Com<IFileOperation> operation;
  PIDLIST_RELATIVE child = nullptr;
  std::wstring name = L"source-1mib.bin";
  bool made = SUCCEEDED(SHParseDisplayName(dir.c_str(), nullptr, &folder_id.p, 0, nullptr)) &&
              SUCCEEDED(SHGetDesktopFolder(&desktop.p)) &&
              SUCCEEDED(desktop.p->BindToObject(folder_id.p, nullptr, IID_IShellFolder, folder.put())) &&
              SUCCEEDED(folder.p->ParseDisplayName(nullptr, nullptr, &name[0], nullptr, &child, nullptr));
  if (made) {
    PCUITEMID_CHILD children[1] = {reinterpret_cast<PCUITEMID_CHILD>(child)};
    made = SUCCEEDED(folder.p->GetUIObjectOf(nullptr, 1, children, IID_IDataObject, nullptr, items.put()));
  }
  if (child != nullptr) CoTaskMemFree(child);
  made = made && SUCCEEDED(SHCreateItemFromParsingName(out.c_str(), nullptr, IID_IShellItem, destination.put())) &&
         SUCCEEDED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, operation.put()));
  if (!made) {
    std::fprintf(stderr, "kwbench copyitems: cannot build the shell items\n");
    return 1;
  }
  const unsigned char* method = reinterpret_cast<const unsigned char*>((*reinterpret_cast<void***>(operation.p))[17]);
  const unsigned char unpatched = method[0];
  auto copy_items = [&] { return operation.p->CopyItems(items.p, destination.p) == kNotImplemented; };
  auto copy_file = [&] { return CopyFileW(source.c_str(), target.c_str(), FALSE) != 0; };
  Agent agent(L"--empty --log \"" + dir + L"\\agent.log\"", 60000);
  if (!agent.ready) std::fprintf(stderr, "kwbench copyitems: kwagent could not bind UDP 7886; no audit figures\n");
  std::vector<double> ci[3], cf;
  bool ok = true;
  const int audit_calls = std::max(1, calls / 20);  // each makes a round trip to the agent
  for (int r = -1; r < rounds; ++r) {
    const double c0 = per_call(calls, copy_items, &ok), f = per_call(5, copy_file, &ok);
    Module dll(dll_path());
    auto set_policy = dll.fn<KwSetPolicyFn>("SetPolicy");
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
  std::printf("  CopyItems (Wine stub)  unhooked %8.3f us   policy off %8.1f us (ratio %.1f, target <= 1.05)", u * 1e6,
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
    const bool got = SUCCEEDED(destination.p->GetDisplayName(SIGDN_FILESYSPATH, &text));
    CoTaskMemFree(text);
    return got;
  }, &parts_ok);
  const double drop_list = per_call(calls, [&] {
    Com<IDataObject> data;
    FORMATETC format = {CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
    STGMEDIUM medium = {};
    if (FAILED(items.p->QueryInterface(IID_IDataObject, data.put())) || FAILED(data.p->GetData(&format, &medium))) {
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
  Handle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  if (file.h == nullptr) return -1;
  std::vector<char> buffer(1 << 16);
  long lines = 0;
  DWORD n = 0;
  while (ReadFile(file.h, buffer.data(), static_cast<DWORD>(buffer.size()), &n, nullptr) && n > 0) {
    lines += static_cast<long>(std::count(buffer.begin(), buffer.begin() + n, '\n'));
  }
  return lines;
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
    Handle process(info.hProcess), thread(info.hThread);
    WaitForSingleObject(process.h, INFINITE);
    return now_seconds() - start;
  };
  const std::string tree_utf8 = wide_to_utf8(tree.c_str());
  std::vector<double> walk, dir_file, dir_nul;
  size_t files = 0;
  for (int r = -1; r < runs; ++r) {  // round -1 warms the caches and is not counted
    std::vector<std::string> out;
    const double start = now_seconds();
    const int32_t count = get_filepaths_from_folder(tree_utf8, out);
    const double w = now_seconds() - start;
    if (count <= 0) {
      std::fprintf(stderr, "kwbench walk: get_filepaths_from_folder returned %d\n", count);
      return 1;
    }
    files = out.size();
    const double f = run_dir(to_file), n = run_dir(to_nul);
    if (f < 0 || n < 0) return 1;
    if (r >= 0) walk.push_back(w), dir_file.push_back(f), dir_nul.push_back(n);
  }
  const long lines = count_lines(listing);
  const double mw = median(walk), mf = median(dir_file), mn = median(dir_nul);
  std::printf("  get_filepaths_from_folder        %7.0f ms (%zu files in a list)\n", mw * 1e3, files);
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
  const std::string document = BuildCopyAuditDocument(kCopyAuditCopy, "E:\\backup", sources, GetTickCount());
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
  Socket receiver;
  int buffer_size = 32 << 20;
  setsockopt(receiver.s, SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&buffer_size), sizeof buffer_size);
  DWORD poll_ms = 200;
  setsockopt(receiver.s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&poll_ms), sizeof poll_ms);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  int length = sizeof address;
  if (bind(receiver.s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(receiver.s, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return 1;
  }
  std::vector<double> acked, plain;
  std::vector<double> delivered;
  for (int r = -1; r < runs; ++r) {
    // Chunked and acknowledged, as the library sends a record (SendCopyAudit with the agent's port).
    const long long before = file_size(log);
    double start = now_seconds();
    agent::AgentChannel channel;
    channel.SetReceiveTimeout(agent::kReceiveTimeoutMs);
    const int sent = SendCopyAuditOver(channel, agent::AgentAddress(static_cast<uint16_t>(port)), document);
    const double a = now_seconds() - start;
    if (sent != 1) {
      std::fprintf(stderr, "kwbench audit: the record was not acknowledged throughout\n");
      return 1;
    }
    // The agent has the whole record once it logs it; wait so that its parsing does not overlap.
    const ULONGLONG end = GetTickCount64() + 60000;
    while (file_size(log) <= before && GetTickCount64() < end) Sleep(20);
    if (file_size(log) <= before) {
      std::fprintf(stderr, "kwbench audit: kwagent did not log the record\n");
      return 1;
    }
    // The same bytes as plain datagrams of the same size, without acknowledgements.
    std::atomic<long long> received{0};
    std::atomic<double> last{0};
    std::thread counter([&] {
      std::vector<char> buffer(agent::kChunkSize);
      while (received < static_cast<long long>(bytes)) {
        const int n = recv(receiver.s, buffer.data(), static_cast<int>(buffer.size()), 0);
        if (n <= 0) break;  // 200 ms of silence: the rest was lost
        received += n;
        last = now_seconds();
      }
    });
    Socket sender;
    start = now_seconds();
    for (size_t offset = 0; offset < bytes; offset += agent::kChunkSize) {
      const int n = static_cast<int>(std::min<size_t>(agent::kChunkSize, bytes - offset));
      sendto(sender.s, frame.data() + offset, n, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    const double sent_at = now_seconds();
    counter.join();
    const double p = std::max(sent_at, last.load()) - start;
    if (r >= 0) acked.push_back(a), plain.push_back(p), delivered.push_back(double(received) / double(bytes));
  }
  const double ma = median(acked), mp = median(plain), mib = double(bytes) / 1048576.0;
  std::printf("  record of %d files: %.2f MiB in %zu datagrams of at most %d bytes\n", files, mib, chunks,
              agent::kChunkSize);
  std::printf("  chunked, acknowledged (kwagent)  %7.1f ms  %7.1f MiB/s\n", ma * 1e3, mib / ma);
  std::printf("  plain datagrams, no acks         %7.1f ms  %7.1f MiB/s  (%.0f%% delivered, median)\n", mp * 1e3, mib / mp,
              100 * median(delivered));
  std::printf("  ratio acknowledged / plain rate  %.2f (target >= 0.50)   (median of %d alternating runs)\n", mp / ma,
              runs);
  WSACleanup();
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"load" && argc >= 3) return bench_load(_wtoi(argv[2]), argc > 3 && std::wcscmp(argv[3], L"shell") == 0);
  if (mode == L"copyfile" && argc >= 5) return bench_copyfile(argv[2], _wtoi(argv[3]), _wtoi(argv[4]));
  if (mode == L"copyitems" && argc >= 5) return bench_copyitems(argv[2], _wtoi(argv[3]), _wtoi(argv[4]));
  if (mode == L"walk" && argc >= 5) return bench_walk(argv[2], argv[3], _wtoi(argv[4]));
  if (mode == L"audit" && argc >= 6) return bench_audit(_wtoi(argv[2]), _wtoi(argv[3]), _wtoi(argv[4]), argv[5]);
  std::fputs("usage: kwbench load RUNS [shell] | copyfile DIR ROUNDS CALLS | copyitems DIR ROUNDS CALLS |\n"
             "       walk TREE LISTING RUNS | audit FILES RUNS PORT LOG\n",
             stderr);
  return 2;
}
