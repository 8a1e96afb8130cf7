// The flat-function hooks of the pre-6 platforms, through EasyHook's four entry points: bound at
// run time to EasyHook64.dll (EasyHook32.dll in a 32-bit process) when it can be found, otherwise
// to the engine's own equivalents.
#pragma once
#include <windows.h>

// EasyHook's HOOK_TRACE_INFO: the handle of one hook, a pointer to the library's own record.
struct HookTraceInfo {
  void* link;
};

using LhInstallHookFn = LONG(WINAPI*)(void* entry_point, void* hook_proc, void* callback, HookTraceInfo* handle);
using LhSetExclusiveAclFn = LONG(WINAPI*)(ULONG* thread_ids, ULONG count, HookTraceInfo* handle);
using LhUninstallAllHooksFn = LONG(WINAPI*)();
using LhWaitForPendingRemovalsFn = LONG(WINAPI*)();

struct FlatHookApi {
  HMODULE easyhook = nullptr;  // null: the engine's own equivalents are bound
  LhInstallHookFn install_hook = nullptr;
  LhSetExclusiveAclFn set_exclusive_acl = nullptr;
  LhUninstallAllHooksFn uninstall_all_hooks = nullptr;
  LhWaitForPendingRemovalsFn wait_for_pending_removals = nullptr;
};

// The engine's own equivalents. Installs fill the caller's handle; negative results are
// NTSTATUS failures as EasyHook reports them.
FlatHookApi own_flat_hook_api();

// Loads EasyHook64.dll by absolute path from `own_module`'s folder (never through the usual
// search) and binds the four functions; when the library or any of the four is missing, the own
// equivalents are bound.
// The library, once loaded, stays loaded.
FlatHookApi bind_flat_hook_api(HMODULE own_module);

namespace hookengine { struct HookRecord; }
// The engine record behind a handle filled by the own LhInstallHook, or null.
hookengine::HookRecord* own_hook_record(const HookTraceInfo* handle);
