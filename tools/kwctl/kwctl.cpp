// kwctl.exe: plays the controlling service, for both bitnesses. Windows maps a hook's DLL only into
// processes of the hooking process's bitness, so kwctl.exe (64-bit) loads kwindel-x64.dll, installs
// its global window hook and sets the policy, and starts its 32-bit twin kwctl-x86.exe from its own
// folder, which does the same with kwindel-x86.dll. Each keeps its hook until told to stop; each
// DLL keeps its own policy block (they are two images). The 64-bit hook is WH_CALLWNDPROC and the
// 32-bit one WH_GETMESSAGE (the other way round with --proc): Windows lets both bitnesses use one
// type, Wine 8 only different ones. kwctl-x86.exe alone serves a 32-bit Windows.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "host/owners.h"
#include "host/utf_conversion.h"
#include "kwindel.h"
#include "protect/parked_originals.h"

namespace {

enum Exit { kOk = 0, kUsage = 2, kDllMissing = 3, kExportMissing = 4, kHookRefused = 5, kHeld = 7 };

constexpr bool k64 = sizeof(void*) == 8;
const char* const kArch = KWINDEL_ARCH;
const char* const kArches[] = {"x64", "x86"};

HANDLE g_stop = nullptr;

BOOL WINAPI on_console_event(DWORD) {
  SetEvent(g_stop);
  return TRUE;
}

void usage() {
  std::fwprintf(stderr,
      L"usage: kwctl [options]\n"
      L"  --dll PATH           the DLL to load (default: %ls beside kwctl; with --dll no twin is\n"
      L"                       started)\n"
      L"  --proc               install with InstallHookProc (WH_GETMESSAGE) instead of InstallHook;\n"
      L"                       the 32-bit twin then takes InstallHook (WH_CALLWNDPROC)\n"
      L"  --policy N           policy word, decimal or 0x hex\n"
      L"  --copy-audit         send an audit record for every copy or move (bit 0)\n"
      L"  --secret-audit       ask the agent about secret sources (bit 1)\n"
      L"  --dest LIST          destinations that trigger the secret audit: local,removable,network\n"
      L"  --encrypt-audit      reserved switch (bit 5)\n"
      L"  --event NAME         stop when the named event is signalled\n"
      L"  --seconds N          stop after N seconds\n"
      L"  --stop NAME          signal the named event of a running kwctl (and its twin) and exit\n"
      L"  --set                give the running hooks of both bitnesses the policy above and exit\n"
      L"  --status             show which process holds each bitness's hook, with its policy\n"
      L"  --version            print the version and exit\n"
      L"  --recover            put back the originals that processes which ended left parked,\n"
      L"                       and list those that cannot go back\n"
      L"  --twin PID           (kwctl.exe starts kwctl-x86.exe so) also stop when process PID ends\n"
      L"Without --event or --seconds kwctl runs until Ctrl-C.\n", KWINDEL_DLL_NAME);
}

bool parse_dest(const std::wstring& list, DWORD* bits) {
  size_t start = 0;
  while (start <= list.size()) {
    size_t comma = list.find(L',', start);
    std::wstring item = list.substr(start, comma == std::wstring::npos ? std::wstring::npos : comma - start);
    if (item == L"local") *bits |= KWINDEL_POLICY_DEST_LOCAL;
    else if (item == L"removable") *bits |= KWINDEL_POLICY_DEST_REMOVABLE;
    else if (item == L"network") *bits |= KWINDEL_POLICY_DEST_NETWORK;
    else return false;
    if (comma == std::wstring::npos) break;
    start = comma + 1;
  }
  return true;
}

std::wstring own_folder() {  // ends with '\'
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  const std::wstring dir(path);
  return dir.substr(0, dir.rfind(L'\\') + 1);
}

std::string describe_policy(DWORD policy) {
  char text[160];
  std::snprintf(text, sizeof text, "policy 0x%02lx: copy audit %s, secret audit %s, destinations%s%s%s%s, encrypt audit %s",
                policy & 0x3F, (policy & 1) ? "on" : "off", (policy & 2) ? "on" : "off", (policy & 4) ? " local" : "",
                (policy & 8) ? " removable" : "", (policy & 16) ? " network" : "", (policy & 0x1C) ? "" : " none",
                (policy & 0x20) ? "on" : "off");
  return text;
}

// What the process holding a bitness's hook publishes for --status, in a named mapping that lives
// as long as that process: its id, the hook type and the policy it set.
struct HolderRecord {
  DWORD pid, hook_type, policy, has_policy;
};
std::wstring record_name(const char* arch) { return L"Local\\kwindel-kwctl-" + utf8_to_wide(arch); }

// The holder record of `arch` mapped with `access`; an empty view when no process holds that hook.
struct MappedRecord {
  OwnedHandle mapping;
  OwnedView view;
  HolderRecord* get() const { return static_cast<HolderRecord*>(view.get()); }
};
MappedRecord open_record(const char* arch, DWORD access) {
  MappedRecord r;
  r.mapping.reset(OpenFileMappingW(access, FALSE, record_name(arch).c_str()));
  if (r.mapping.ok()) r.view.reset(MapViewOfFile(r.mapping.get(), access, 0, 0, sizeof(HolderRecord)));
  return r;
}

// Puts back what ended processes left parked and lists what stays; exit 0, or 6 while another
// process is recovering.
int recover() {
  std::vector<ParkedOriginal> left;
  int restored = 0;
  if (!recover_and_list_parked_originals(&left, &restored)) {
    std::fwprintf(stderr, L"kwctl: another process is recovering parked originals; try again\n");
    return 6;
  }
  for (const ParkedOriginal& p : left) {
    if (GetFileAttributesW(p.parked.c_str()) == INVALID_FILE_ATTRIBUTES) {
      std::wprintf(L"kwctl: missing: %ls (its parked original %ls is gone; the record is kept)\n", p.source.c_str(),
                   p.parked.c_str());
    } else {
      std::wprintf(L"kwctl: left parked: %ls (its place holds another file; the original is %ls)\n", p.source.c_str(),
                   p.parked.c_str());
    }
  }
  std::wprintf(L"kwctl: recovery put back %d original(s); %d left parked\n", restored, static_cast<int>(left.size()));
  return kOk;
}

int status() {
  for (const char* arch : kArches) {
    const MappedRecord r = open_record(arch, FILE_MAP_READ);
    if (r.get() == nullptr) {
      std::printf("kwctl: %s: no hook installed\n", arch);
      continue;
    }
    const HolderRecord h = *r.get();
    if (h.hook_type == 0) {  // the holder has claimed the record and not yet installed
      std::printf("kwctl: %s: a kwctl is installing the hook\n", arch);
      continue;
    }
    std::printf("kwctl: %s: %s hook held by kwctl pid %lu, %s\n", arch, h.hook_type == WH_GETMESSAGE ? "WH_GETMESSAGE" : "WH_CALLWNDPROC",
                h.pid, h.has_policy ? describe_policy(h.policy).c_str() : "no policy set");
  }
  return kOk;
}

struct Options {
  std::wstring dll_path = own_folder() + KWINDEL_DLL_NAME, event_name;
  bool use_proc = false, have_policy = false, own_dll = true, set_only = false;
  DWORD policy = 0, seconds = 0, parent = 0;
};

// Reads the command line into *o. Returns -1 to go on, else the exit status (--version, --stop,
// --status, --recover done, or a bad option).
int parse_options(int argc, wchar_t** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    std::wstring a = argv[i];
    auto next = [&](std::wstring* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::wstring v;
    if (a == L"--dll" && next(&o->dll_path)) { o->own_dll = false; continue; }
    if (a == L"--proc") { o->use_proc = true; continue; }
    if (a == L"--version") { std::wprintf(L"kwctl %hs\n", KWINDEL_VERSION); return kOk; }
    if (a == L"--policy" && next(&v)) {
      wchar_t* end = nullptr;
      o->policy |= static_cast<DWORD>(std::wcstoul(v.c_str(), &end, 0));
      if (end == v.c_str() || *end != 0) { std::fwprintf(stderr, L"kwctl: bad policy '%ls'\n", v.c_str()); return kUsage; }
      o->have_policy = true;
      continue;
    }
    if (a == L"--copy-audit") { o->policy |= KWINDEL_POLICY_COPY_AUDIT; o->have_policy = true; continue; }
    if (a == L"--secret-audit") { o->policy |= KWINDEL_POLICY_SECRET_AUDIT; o->have_policy = true; continue; }
    if (a == L"--encrypt-audit") { o->policy |= KWINDEL_POLICY_ENCRYPT_AUDIT; o->have_policy = true; continue; }
    if (a == L"--dest" && next(&v)) {
      if (!parse_dest(v, &o->policy)) { std::fwprintf(stderr, L"kwctl: bad destination list '%ls'\n", v.c_str()); return kUsage; }
      o->have_policy = true;
      continue;
    }
    if (a == L"--event" && next(&o->event_name)) continue;
    if (a == L"--seconds" && next(&v)) { o->seconds = static_cast<DWORD>(_wtoi(v.c_str())); continue; }
    if (a == L"--twin" && next(&v)) { o->parent = static_cast<DWORD>(_wtoi(v.c_str())); continue; }
    if (a == L"--set") { o->set_only = true; continue; }
    if (a == L"--status") return status();
    if (a == L"--recover") return recover();
    if (a == L"--stop" && next(&v)) {
      const OwnedHandle ev(OpenEventW(EVENT_MODIFY_STATE, FALSE, v.c_str()));
      if (!ev.ok()) { std::fwprintf(stderr, L"kwctl: no running kwctl waits on event '%ls'\n", v.c_str()); return kUsage; }
      SetEvent(ev.get());
      return kOk;
    }
    usage();
    return kUsage;
  }
  if (o->set_only && !o->have_policy) {
    std::fwprintf(stderr, L"kwctl: --set needs a policy (--policy, --copy-audit, ...)\n");
    return kUsage;
  }
  return -1;
}

// The loaded DLL and the four exports kwctl calls.
struct Library {
  OwnedModule dll;
  KwInstallHookFn install_hook = nullptr;
  KwInstallHookProcFn install_hook_proc = nullptr;
  KwRemoveHookFn remove_hook = nullptr;
  KwSetPolicyFn set_policy = nullptr;
};

template <typename F>
F export_of(HMODULE dll, const char* name) {
  return reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(dll, name)));
}

// Loads the DLL and its exports; kOk or the exit status, reported on stderr.
int load_library(const std::wstring& path, Library* l) {
  l->dll.reset(LoadLibraryW(path.c_str()));
  if (!l->dll.ok()) {
    std::fwprintf(stderr, L"kwctl: %hs: cannot load %ls (error %lu)\n", kArch, path.c_str(), GetLastError());
    return kDllMissing;
  }
  l->install_hook = export_of<KwInstallHookFn>(l->dll.get(), "InstallHook");
  l->install_hook_proc = export_of<KwInstallHookProcFn>(l->dll.get(), "InstallHookProc");
  l->remove_hook = export_of<KwRemoveHookFn>(l->dll.get(), "RemoveHook");
  l->set_policy = export_of<KwSetPolicyFn>(l->dll.get(), "SetPolicy");
  const char* missing = !l->install_hook ? "InstallHook" : !l->install_hook_proc ? "InstallHookProc"
                        : !l->remove_hook ? "RemoveHook" : !l->set_policy ? "SetPolicy" : nullptr;
  if (missing != nullptr) {
    std::fwprintf(stderr, L"kwctl: %hs: %ls does not export %hs\n", kArch, path.c_str(), missing);
    return kExportMissing;
  }
  return kOk;
}

void print_policy(DWORD policy) { std::printf("kwctl: %s: %s\n", kArch, describe_policy(policy).c_str()); }

// The 32-bit twin, started by the 64-bit kwctl with this process's output handles.
struct Twin {
  OwnedHandle process;
  std::wstring path = own_folder() + L"kwctl-x86.exe";
};

// Starts kwctl-x86.exe with `args` and waits up to `ms` for it to end (0: do not wait). False,
// with a message, when it is missing or does not start.
bool start_twin(Twin* twin, const std::wstring& args) {
  if (GetFileAttributesW(twin->path.c_str()) == INVALID_FILE_ATTRIBUTES) {
    std::fwprintf(stderr, L"kwctl: x86: %ls is missing: 32-bit processes are not protected\n", twin->path.c_str());
    return false;
  }
  STARTUPINFOW si = {sizeof si};
  si.dwFlags = STARTF_USESTDHANDLES;
  for (HANDLE h : {si.hStdOutput = GetStdHandle(STD_OUTPUT_HANDLE), si.hStdError = GetStdHandle(STD_ERROR_HANDLE)}) {
    SetHandleInformation(h, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  }
  std::wstring cmd = L"\"" + twin->path + L"\" " + args;
  PROCESS_INFORMATION pi = {};
  std::fflush(stdout);
  if (!CreateProcessW(twin->path.c_str(), &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
    std::fwprintf(stderr, L"kwctl: x86: cannot start %ls (error %lu): 32-bit processes are not protected\n",
                  twin->path.c_str(), GetLastError());
    return false;
  }
  CloseHandle(pi.hThread);
  twin->process.reset(pi.hProcess);
  return true;
}

// Whether the twin's hook stands: its record appears, or it ends first (then false, reported).
bool twin_ready(const Twin& twin) {
  for (const ULONGLONG end = GetTickCount64() + 30000; GetTickCount64() < end;) {
    const MappedRecord r = open_record("x86", FILE_MAP_READ);
    if (r.get() != nullptr && r.get()->pid == GetProcessId(twin.process.get()) && r.get()->hook_type != 0) return true;
    if (WaitForSingleObject(twin.process.get(), 20) == WAIT_OBJECT_0) break;
  }
  DWORD code = 0;
  GetExitCodeProcess(twin.process.get(), &code);
  std::fwprintf(stderr, L"kwctl: x86: the 32-bit twin did not install its hook (exit %lu): 32-bit processes are not protected\n",
                code);
  return false;
}

// --set: the policy for the running hooks of this bitness and, from the 64-bit kwctl, the twin's.
int set_policy_only(const Options& o) {
  Library l;
  const int loaded = load_library(o.dll_path, &l);
  if (loaded != kOk) return loaded;
  l.set_policy(o.policy, 0);
  const MappedRecord r = open_record(kArch, FILE_MAP_READ | FILE_MAP_WRITE);
  if (r.get() != nullptr) r.get()->policy = o.policy, r.get()->has_policy = 1;
  print_policy(o.policy);
  Twin twin;
  if (!k64 || !o.own_dll) return kOk;
  wchar_t args[32];
  std::swprintf(args, 32, L"--set --policy 0x%02lx", o.policy);
  if (!start_twin(&twin, args)) return kOk;
  WaitForSingleObject(twin.process.get(), 30000);
  return kOk;
}

// Pumps messages until the stop event, Ctrl-C, `seconds` (0: no limit) or the end of `parent`
// (the twin's 64-bit kwctl); notes the end of `twin`. A process that owns a global hook must keep
// its queue alive.
void wait_for_stop(HANDLE stop, DWORD seconds, HANDLE parent, HANDLE twin) {
  g_stop = stop;
  SetConsoleCtrlHandler(on_console_event, TRUE);
  const ULONGLONG end = seconds ? GetTickCount64() + seconds * 1000ull : 0;
  for (;;) {
    HANDLE handles[2] = {stop, parent != nullptr ? parent : twin};
    const DWORD count = handles[1] != nullptr ? 2 : 1;
    const DWORD wait = MsgWaitForMultipleObjects(count, handles, FALSE, 100, QS_ALLINPUT);
    if (wait == WAIT_OBJECT_0 || (wait == WAIT_OBJECT_0 + 1 && parent != nullptr)) break;
    if (wait == WAIT_OBJECT_0 + 1) {
      DWORD code = 0;
      GetExitCodeProcess(twin, &code);
      std::fwprintf(stderr, L"kwctl: x86: the 32-bit twin ended (exit %lu): 32-bit processes are no longer protected\n", code);
      twin = nullptr;
    }
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (end != 0 && GetTickCount64() >= end) break;
  }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  Options o;
  const int parsed = parse_options(argc, argv, &o);
  if (parsed >= 0) return parsed;
  if (o.set_only) return set_policy_only(o);

  // One holder per bitness: the DLL keeps one hook handle for all processes, which a second
  // installer would overwrite.
  const OwnedHandle record_mapping(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(HolderRecord),
                                                      record_name(kArch).c_str()));
  if (record_mapping.ok() && GetLastError() == ERROR_ALREADY_EXISTS) {
    const MappedRecord held = open_record(kArch, FILE_MAP_READ);
    std::fwprintf(stderr, L"kwctl: %hs: kwctl pid %lu already holds the hook; stop it first\n", kArch,
                  held.get() != nullptr ? held.get()->pid : 0ul);
    return kHeld;
  }
  const OwnedView record_view(record_mapping.ok() ? MapViewOfFile(record_mapping.get(), FILE_MAP_WRITE, 0, 0, 0) : nullptr);
  Library l;
  const int loaded = load_library(o.dll_path, &l);
  if (loaded != kOk) return loaded;

  const char* how = o.use_proc ? "InstallHookProc" : "InstallHook";
  const bool hooked = o.use_proc ? l.install_hook_proc(TRUE) == 1 : l.install_hook(l.dll.get()) != FALSE;
  if (!hooked) {
    std::fwprintf(stderr, L"kwctl: %hs: %hs refused the hook (error %lu)\n", kArch, how, GetLastError());
    return kHookRefused;
  }
  std::printf("kwctl: %s: global hook installed with %s (%s)\n", kArch, how, o.use_proc ? "WH_GETMESSAGE" : "WH_CALLWNDPROC");
  if (o.have_policy) {
    l.set_policy(o.policy, 0);
    print_policy(o.policy);
  }
  if (auto* record = static_cast<HolderRecord*>(record_view.get())) {
    *record = {GetCurrentProcessId(), static_cast<DWORD>(o.use_proc ? WH_GETMESSAGE : WH_CALLWNDPROC), o.policy, o.have_policy};
  }
  std::fflush(stdout);

  // The stop event, named so that the twin and `kwctl --stop` reach it.
  const std::wstring event_name = !o.event_name.empty() ? o.event_name : L"kwctl-" + std::to_wstring(GetCurrentProcessId()) + L"-stop";
  const OwnedHandle stop(CreateEventW(nullptr, TRUE, FALSE, event_name.c_str()));
  const OwnedHandle parent(o.parent != 0 ? OpenProcess(SYNCHRONIZE, FALSE, o.parent) : nullptr);
  Twin twin;
  if (k64 && o.own_dll) {
    wchar_t policy[24] = {};
    if (o.have_policy) std::swprintf(policy, 24, L" --policy 0x%02lx", o.policy);
    const std::wstring args = L"--twin " + std::to_wstring(GetCurrentProcessId()) + L" --event \"" + event_name + L"\"" +
                              (o.use_proc ? L"" : L" --proc") + policy;
    if (start_twin(&twin, args) && !twin_ready(twin)) twin.process.reset();
  }

  wait_for_stop(stop.get(), o.seconds, parent.get(), twin.process.get());
  SetEvent(stop.get());
  if (twin.process.ok()) WaitForSingleObject(twin.process.get(), 30000);  // its lines come first
  if (o.use_proc) l.install_hook_proc(FALSE);
  else if (!l.remove_hook()) std::fwprintf(stderr, L"kwctl: %hs: RemoveHook failed (error %lu)\n", kArch, GetLastError());
  std::printf("kwctl: %s: global hook removed\n", kArch);
  return kOk;
}
