// Module entry: starts interception when the library is mapped into a process and stops it when
// the library is unmapped. Never fails a load.
#include <windows.h>

#include "setup/hook_setup.h"
#include "host/policy_block.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID /*reserved*/) {
  switch (reason) {
    case DLL_PROCESS_ATTACH:
      g_policy_block.g_module = module;  // this process's handle, used by InstallHookProc
      HookApi();
      break;
    case DLL_PROCESS_DETACH:
      UnHookApi();
      break;
    default:
      break;
  }
  return TRUE;
}
