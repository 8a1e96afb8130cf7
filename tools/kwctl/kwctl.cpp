// kwctl.exe: plays the controlling service. Loads kwindel-x64.dll, installs the global window
// hook, sets the policy, keeps the hook until told to stop, then removes it.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "host/owners.h"
#include "kwindel.h"
#include "protect/parked_originals.h"

namespace {

enum Exit { kOk = 0, kUsage = 2, kDllMissing = 3, kExportMissing = 4, kHookRefused = 5 };

HANDLE g_stop = nullptr;

BOOL WINAPI on_console_event(DWORD) {
  SetEvent(g_stop);
  return TRUE;
}

void usage() {
  std::fwprintf(stderr,
      L"usage: kwctl [options]\n"
      L"  --dll PATH           the DLL to load (default: kwindel-x64.dll beside kwctl.exe)\n"
      L"  --proc               install with InstallHookProc (WH_GETMESSAGE) instead of InstallHook\n"
      L"  --policy N           policy word, decimal or 0x hex\n"
      L"  --copy-audit         send an audit record for every copy or move (bit 0)\n"
      L"  --secret-audit       ask the agent about secret sources (bit 1)\n"
      L"  --dest LIST          destinations that trigger the secret audit: local,removable,network\n"
      L"  --encrypt-audit      reserved switch (bit 5)\n"
      L"  --event NAME         stop when the named event is signalled\n"
      L"  --seconds N          stop after N seconds\n"
      L"  --stop NAME          signal the named event of a running kwctl and exit\n"
      L"  --version            print the version and exit\n"
      L"  --recover            put back the originals that processes which ended left parked,\n"
      L"                       and list those that cannot go back\n"
      L"Without --event or --seconds kwctl runs until Ctrl-C.\n");
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

std::wstring default_dll() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring dir(path);
  return dir.substr(0, dir.rfind(L'\\') + 1) + L"kwindel-x64.dll";
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

struct Options {
  std::wstring dll_path = default_dll(), event_name;
  bool use_proc = false, have_policy = false;
  DWORD policy = 0, seconds = 0;
};

// Reads the command line into *o. Returns -1 to go on, else the exit status (--version, --stop,
// --recover done, or a bad option).
int parse_options(int argc, wchar_t** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    std::wstring a = argv[i];
    auto next = [&](std::wstring* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::wstring v;
    if (a == L"--dll" && next(&o->dll_path)) continue;
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
    std::fwprintf(stderr, L"kwctl: cannot load %ls (error %lu)\n", path.c_str(), GetLastError());
    return kDllMissing;
  }
  l->install_hook = export_of<KwInstallHookFn>(l->dll.get(), "InstallHook");
  l->install_hook_proc = export_of<KwInstallHookProcFn>(l->dll.get(), "InstallHookProc");
  l->remove_hook = export_of<KwRemoveHookFn>(l->dll.get(), "RemoveHook");
  l->set_policy = export_of<KwSetPolicyFn>(l->dll.get(), "SetPolicy");
  const char* missing = !l->install_hook ? "InstallHook" : !l->install_hook_proc ? "InstallHookProc"
                        : !l->remove_hook ? "RemoveHook" : !l->set_policy ? "SetPolicy" : nullptr;
  if (missing != nullptr) {
    std::fwprintf(stderr, L"kwctl: %ls does not export %hs\n", path.c_str(), missing);
    return kExportMissing;
  }
  return kOk;
}

void print_policy(DWORD policy) {
  std::wprintf(L"kwctl: policy 0x%02lx: copy audit %hs, secret audit %hs, destinations%hs%hs%hs%hs, encrypt audit %hs\n",
               policy & 0x3F, (policy & 1) ? "on" : "off", (policy & 2) ? "on" : "off",
               (policy & 4) ? " local" : "", (policy & 8) ? " removable" : "", (policy & 16) ? " network" : "",
               (policy & 0x1C) ? "" : " none", (policy & 0x20) ? "on" : "off");
}

// Pumps messages until the stop event, Ctrl-C or `seconds` (0: no limit): a process that owns a
// global hook must keep its queue alive.
void wait_for_stop(const std::wstring& event_name, DWORD seconds) {
  const OwnedHandle stop(CreateEventW(nullptr, TRUE, FALSE, event_name.empty() ? nullptr : event_name.c_str()));
  g_stop = stop.get();
  SetConsoleCtrlHandler(on_console_event, TRUE);
  const ULONGLONG end = seconds ? GetTickCount64() + seconds * 1000ull : 0;
  for (;;) {
    DWORD wait = MsgWaitForMultipleObjects(1, &g_stop, FALSE, 100, QS_ALLINPUT);
    if (wait == WAIT_OBJECT_0) break;
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
  Library l;
  const int loaded = load_library(o.dll_path, &l);
  if (loaded != kOk) return loaded;

  const char* how = o.use_proc ? "InstallHookProc" : "InstallHook";
  const bool hooked = o.use_proc ? l.install_hook_proc(TRUE) == 1 : l.install_hook(l.dll.get()) != FALSE;
  if (!hooked) {
    std::fwprintf(stderr, L"kwctl: %hs refused the hook (error %lu)\n", how, GetLastError());
    return kHookRefused;
  }
  std::wprintf(L"kwctl: global hook installed with %hs (%hs)\n", how, o.use_proc ? "WH_GETMESSAGE" : "WH_CALLWNDPROC");
  if (o.have_policy) {
    l.set_policy(o.policy, 0);
    print_policy(o.policy);
  }
  std::fflush(stdout);

  wait_for_stop(o.event_name, o.seconds);
  if (o.use_proc) l.install_hook_proc(FALSE);
  else if (!l.remove_hook()) std::fwprintf(stderr, L"kwctl: RemoveHook failed (error %lu)\n", GetLastError());
  std::wprintf(L"kwctl: global hook removed\n");
  return kOk;
}
