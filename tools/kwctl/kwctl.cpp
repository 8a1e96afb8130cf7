// kwctl.exe: plays the controlling service. Loads kwindel-x64.dll, installs the global window
// hook, sets the policy, keeps the hook until told to stop, then removes it.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <string>

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
    std::wprintf(L"kwctl: left parked: %ls (its place holds another file; the original is %ls)\n", p.source.c_str(),
                 p.parked.c_str());
  }
  std::wprintf(L"kwctl: recovery put back %d original(s); %d left parked\n", restored, static_cast<int>(left.size()));
  return kOk;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  std::wstring dll_path = default_dll(), event_name;
  bool use_proc = false, have_policy = false;
  DWORD policy = 0, seconds = 0;
  for (int i = 1; i < argc; ++i) {
    std::wstring a = argv[i];
    auto next = [&](std::wstring* out) {
      if (i + 1 >= argc) return false;
      *out = argv[++i];
      return true;
    };
    std::wstring v;
    if (a == L"--dll" && next(&dll_path)) continue;
    if (a == L"--proc") { use_proc = true; continue; }
    if (a == L"--version") { std::wprintf(L"kwctl %hs\n", KWINDEL_VERSION); return kOk; }
    if (a == L"--policy" && next(&v)) {
      wchar_t* end = nullptr;
      policy |= static_cast<DWORD>(std::wcstoul(v.c_str(), &end, 0));
      if (end == v.c_str() || *end != 0) { std::fwprintf(stderr, L"kwctl: bad policy '%ls'\n", v.c_str()); return kUsage; }
      have_policy = true;
      continue;
    }
    if (a == L"--copy-audit") { policy |= KWINDEL_POLICY_COPY_AUDIT; have_policy = true; continue; }
    if (a == L"--secret-audit") { policy |= KWINDEL_POLICY_SECRET_AUDIT; have_policy = true; continue; }
    if (a == L"--encrypt-audit") { policy |= KWINDEL_POLICY_ENCRYPT_AUDIT; have_policy = true; continue; }
    if (a == L"--dest" && next(&v)) {
      if (!parse_dest(v, &policy)) { std::fwprintf(stderr, L"kwctl: bad destination list '%ls'\n", v.c_str()); return kUsage; }
      have_policy = true;
      continue;
    }
    if (a == L"--event" && next(&event_name)) continue;
    if (a == L"--seconds" && next(&v)) { seconds = static_cast<DWORD>(_wtoi(v.c_str())); continue; }
    if (a == L"--recover") return recover();
    if (a == L"--stop" && next(&v)) {
      HANDLE ev = OpenEventW(EVENT_MODIFY_STATE, FALSE, v.c_str());
      if (ev == nullptr) { std::fwprintf(stderr, L"kwctl: no running kwctl waits on event '%ls'\n", v.c_str()); return kUsage; }
      SetEvent(ev);
      CloseHandle(ev);
      return kOk;
    }
    usage();
    return kUsage;
  }

  HMODULE dll = LoadLibraryW(dll_path.c_str());
  if (dll == nullptr) {
    std::fwprintf(stderr, L"kwctl: cannot load %ls (error %lu)\n", dll_path.c_str(), GetLastError());
    return kDllMissing;
  }
  auto install_hook = reinterpret_cast<KwInstallHookFn>(reinterpret_cast<void*>(GetProcAddress(dll, "InstallHook")));
  auto install_hook_proc = reinterpret_cast<KwInstallHookProcFn>(reinterpret_cast<void*>(GetProcAddress(dll, "InstallHookProc")));
  auto remove_hook = reinterpret_cast<KwRemoveHookFn>(reinterpret_cast<void*>(GetProcAddress(dll, "RemoveHook")));
  auto set_policy = reinterpret_cast<KwSetPolicyFn>(reinterpret_cast<void*>(GetProcAddress(dll, "SetPolicy")));
  const char* missing = !install_hook ? "InstallHook" : !install_hook_proc ? "InstallHookProc"
                        : !remove_hook ? "RemoveHook" : !set_policy ? "SetPolicy" : nullptr;
  if (missing != nullptr) {
    std::fwprintf(stderr, L"kwctl: %ls does not export %hs\n", dll_path.c_str(), missing);
    return kExportMissing;
  }

  const bool hooked = use_proc ? install_hook_proc(TRUE) == 1 : install_hook(dll) != FALSE;
  if (!hooked) {
    std::fwprintf(stderr, L"kwctl: %hs refused the hook (error %lu)\n", use_proc ? "InstallHookProc" : "InstallHook", GetLastError());
    return kHookRefused;
  }
  std::wprintf(L"kwctl: global hook installed with %hs (%hs)\n", use_proc ? "InstallHookProc" : "InstallHook",
               use_proc ? "WH_GETMESSAGE" : "WH_CALLWNDPROC");
  if (have_policy) {
    set_policy(policy, 0);
    std::wprintf(L"kwctl: policy 0x%02lx: copy audit %hs, secret audit %hs, destinations%hs%hs%hs%hs, encrypt audit %hs\n",
                 policy & 0x3F, (policy & 1) ? "on" : "off", (policy & 2) ? "on" : "off",
                 (policy & 4) ? " local" : "", (policy & 8) ? " removable" : "", (policy & 16) ? " network" : "",
                 (policy & 0x1C) ? "" : " none", (policy & 0x20) ? "on" : "off");
  }
  std::fflush(stdout);

  g_stop = event_name.empty() ? CreateEventW(nullptr, TRUE, FALSE, nullptr)
                              : CreateEventW(nullptr, TRUE, FALSE, event_name.c_str());
  SetConsoleCtrlHandler(on_console_event, TRUE);
  // Pump messages while waiting: a process that owns a global hook must keep its queue alive.
  const ULONGLONG end = seconds ? GetTickCount64() + seconds * 1000ull : 0;
  for (;;) {
    DWORD wait = MsgWaitForMultipleObjects(1, &g_stop, FALSE, 100, QS_ALLINPUT);
    if (wait == WAIT_OBJECT_0) break;
    MSG msg;
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (end != 0 && GetTickCount64() >= end) break;
  }
  if (use_proc) install_hook_proc(FALSE);
  else if (!remove_hook()) std::fwprintf(stderr, L"kwctl: RemoveHook failed (error %lu)\n", GetLastError());
  std::wprintf(L"kwctl: global hook removed\n");
  CloseHandle(g_stop);
  FreeLibrary(dll);
  return kOk;
}
