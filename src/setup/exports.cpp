#include "setup/exports.h"

#include "host/policy_block.h"
#include "kwindel.h"

LRESULT CALLBACK CallNextHookProc(int code, WPARAM wparam, LPARAM lparam) {
  return CallNextHookEx(g_policy_block.g_hook, code, wparam, lparam);
}

extern "C" BOOLEAN WINAPI InstallHook(HMODULE module) {
  // The caller's module, not g_module: the service passes the handle it loaded.
  g_policy_block.g_hook = SetWindowsHookExW(WH_CALLWNDPROC, CallNextHookProc, module, 0);
  return g_policy_block.g_hook != nullptr;
}

extern "C" BOOLEAN WINAPI RemoveHook(void) {
  if (!UnhookWindowsHookEx(g_policy_block.g_hook)) return FALSE;  // keep the handle for a retry
  g_policy_block.g_hook = nullptr;
  return TRUE;
}

extern "C" int WINAPI InstallHookProc(BOOLEAN install) {
  if (install) {
    g_policy_block.g_hook = SetWindowsHookExW(WH_GETMESSAGE, CallNextHookProc, g_policy_block.g_module, 0);
    return g_policy_block.g_hook != nullptr ? 1 : 0;
  }
  UnhookWindowsHookEx(g_policy_block.g_hook);  // removal always reports success
  g_policy_block.g_hook = nullptr;
  return 1;
}

extern "C" BOOLEAN WINAPI SetPolicy(DWORD policy, DWORD /*reserved*/) {
  OutputDebugStringA("SetPolicy");
  g_policy_block.g_copy_audit = policy & 1;
  g_policy_block.g_secret_audit = (policy >> 1) & 1;
  g_policy_block.g_audit_dest_mask = (policy >> 2) & 7;
  g_policy_block.g_encrypt_audit = (policy >> 5) & 1;
  return TRUE;
}
