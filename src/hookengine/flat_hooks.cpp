#include "hookengine/flat_hooks.h"

#include <string>

#include "hookengine/inline_hook.h"

namespace {

constexpr LONG kStatusInvalidParameter = static_cast<LONG>(0xC000000D);
constexpr LONG kStatusNotSupported = static_cast<LONG>(0xC00000BB);
constexpr LONG kStatusNoMemory = static_cast<LONG>(0xC0000017);
constexpr LONG kStatusInternalError = static_cast<LONG>(0xC00000E5);

// The variables the engine keeps each hooked entry's trampoline in; a slot is used for good.
constexpr size_t kSlots = 64;
void* g_slots[kSlots];
volatile LONG g_slots_used = 0;

LONG WINAPI own_install_hook(void* entry_point, void* hook_proc, void* /*callback*/, HookTraceInfo* handle) {
  if (entry_point == nullptr || hook_proc == nullptr || handle == nullptr) return kStatusInvalidParameter;
  const LONG slot = InterlockedIncrement(&g_slots_used) - 1;
  if (slot >= static_cast<LONG>(kSlots)) return kStatusNoMemory;
  g_slots[slot] = entry_point;
  hookengine::HookOptions options;
  options.barrier = true;
  hookengine::HookRecord* record = nullptr;
  switch (hookengine::install_hook(&g_slots[slot], hook_proc, options, &record)) {
    case hookengine::HookStatus::kOk: handle->link = record; return 0;
    case hookengine::HookStatus::kNoCodeMemory:
    case hookengine::HookStatus::kTooManyHooks: return kStatusNoMemory;
    case hookengine::HookStatus::kProtectFailed:
    case hookengine::HookStatus::kTargetChanged: return kStatusInternalError;
    default: return kStatusNotSupported;
  }
}

LONG WINAPI own_set_exclusive_acl(ULONG* thread_ids, ULONG count, HookTraceInfo* handle) {
  if (handle == nullptr || handle->link == nullptr) return kStatusInvalidParameter;
  static_assert(sizeof(ULONG) == sizeof(uint32_t), "thread ids are 32-bit");
  const auto status = hookengine::set_barrier_acl(static_cast<hookengine::HookRecord*>(handle->link),
                                                  reinterpret_cast<const uint32_t*>(thread_ids), count, true);
  return status == hookengine::HookStatus::kOk ? 0 : kStatusInvalidParameter;
}

LONG WINAPI own_uninstall_all_hooks() {
  hookengine::remove_all_barrier_hooks();
  return 0;
}

// Relays, trampolines and the per-thread state outlive every removal, so a removal is complete
// as soon as it is made: nothing to wait for.
LONG WINAPI own_wait_for_pending_removals() { return 0; }

}  // namespace

FlatHookApi own_flat_hook_api() {
  FlatHookApi api;
  api.install_hook = &own_install_hook;
  api.set_exclusive_acl = &own_set_exclusive_acl;
  api.uninstall_all_hooks = &own_uninstall_all_hooks;
  api.wait_for_pending_removals = &own_wait_for_pending_removals;
  return api;
}

FlatHookApi bind_flat_hook_api(HMODULE own_module) {
  HMODULE library = nullptr;
  // Only by absolute path: a module of that name planted in the program's folder, the current
  // folder or PATH must never be loaded into every process.
  std::wstring path(32768, L'\0');
  const DWORD n = GetModuleFileNameW(own_module, &path[0], static_cast<DWORD>(path.size()));
  const size_t slash = n > 0 && n < path.size() ? path.rfind(L'\\', n) : std::wstring::npos;
  if (slash != std::wstring::npos) {
    path.resize(slash + 1);
    path += sizeof(void*) == 8 ? L"EasyHook64.dll" : L"EasyHook32.dll";
    library = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  }
  if (library == nullptr) return own_flat_hook_api();
  FlatHookApi api;
  api.easyhook = library;
  api.install_hook = reinterpret_cast<LhInstallHookFn>(reinterpret_cast<void*>(GetProcAddress(library, "LhInstallHook")));
  api.set_exclusive_acl =
      reinterpret_cast<LhSetExclusiveAclFn>(reinterpret_cast<void*>(GetProcAddress(library, "LhSetExclusiveACL")));
  api.uninstall_all_hooks = reinterpret_cast<LhUninstallAllHooksFn>(
      reinterpret_cast<void*>(GetProcAddress(library, "LhUninstallAllHooks")));
  api.wait_for_pending_removals = reinterpret_cast<LhWaitForPendingRemovalsFn>(
      reinterpret_cast<void*>(GetProcAddress(library, "LhWaitForPendingRemovals")));
  if (api.install_hook == nullptr || api.set_exclusive_acl == nullptr || api.uninstall_all_hooks == nullptr ||
      api.wait_for_pending_removals == nullptr) {
    return own_flat_hook_api();  // not the library we know; the loaded module stays unused
  }
  return api;
}

hookengine::HookRecord* own_hook_record(const HookTraceInfo* handle) {
  return handle == nullptr ? nullptr : static_cast<hookengine::HookRecord*>(handle->link);
}
