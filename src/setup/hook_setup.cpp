#include <winsock2.h>  // before windows.h, which hook_setup.h includes

#include "setup/hook_setup.h"

#include <windows.h>
#include <objbase.h>
#include <shellapi.h>
#include <shobjidl.h>

#include <cstdlib>

#include "hookengine/flat_hooks.h"
#include "hookengine/inline_hook.h"
#include "host/debug_trace.h"
#include "host/owners.h"
#include "host/system_version.h"
#include "intercept/file_operation_methods.h"
#include "intercept/flat_file_functions.h"
#include "intercept/shell_file_operation.h"
#include "protect/parked_originals.h"
#include "protect/pending_files.h"

namespace {

// 1 while the file-operation methods are patched: patching happens at most once.
volatile LONG g_com_methods_patched = 0;

// The file-operation object created at set-up. Deliberately never released: the method table it
// points to is shared by every object of the class, and the object is kept for the process's life.
IFileOperation* g_file_operation = nullptr;

// What the flat hooks are installed with: EasyHook64.dll when present on the pre-6 path,
// otherwise the engine's own equivalents (also what the tear-down calls on the COM path).
FlatHookApi g_flat_api = own_flat_hook_api();

// The eight hook handles, allocated and zeroed when the library is loaded: CopyFileW,
// CopyFileExW, SHFileOperationW, MoveFileWithProgressW, then four that are never used.
constexpr int kHandleCount = 8;
HookTraceInfo* allocate_handle() { return static_cast<HookTraceInfo*>(std::calloc(1, sizeof(HookTraceInfo))); }
HookTraceInfo* g_hook_handles[kHandleCount] = {allocate_handle(), allocate_handle(), allocate_handle(),
                                               allocate_handle(), allocate_handle(), allocate_handle(),
                                               allocate_handle(), allocate_handle()};
enum HandleIndex { kCopyFileW = 0, kCopyFileExW = 1, kSHFileOperationW = 2, kMoveFileWithProgressW = 3 };

// {3AD05575-8857-4850-9277-11B85BDB8E09} and {947AAB5F-0A5C-4C13-B4D6-4BF7836FC9F8}
const CLSID kClsidFileOperation = {0x3AD05575, 0x8857, 0x4850, {0x92, 0x77, 0x11, 0xB8, 0x5B, 0xDB, 0x8E, 0x09}};
const IID kIidFileOperation = {0x947AAB5F, 0x0A5C, 0x4C13, {0xB4, 0xD6, 0x4B, 0xF7, 0x83, 0x6F, 0xC9, 0xF8}};
constexpr int kSlotRelease = 2;
constexpr int kSlotMoveItem = 14;
constexpr int kSlotMoveItems = 15;
constexpr int kSlotCopyItem = 16;
constexpr int kSlotCopyItems = 17;
constexpr int kSlotPerformOperations = 21;

HMODULE own_module() {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCWSTR>(&HookApi), &module);
  return module;
}

// Once any code of the process jumps into this module, the module stays mapped until the process
// ends: a thread may be inside a replacement, or about to enter one, at any moment (waiting for
// the agent, running the real copy), and an unload would leave it to return into unmapped code
// (and into the unmapped image of Winsock, whose last reference the tear-down would drop). Later
// FreeLibrary calls, including the system's after the window hook is removed, change nothing.
void stay_loaded_for_process_life() {
  static volatile LONG pinned = 0;
  if (InterlockedExchange(&pinned, 1) != 0) return;
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                     reinterpret_cast<LPCWSTR>(&HookApi), &module);
}

// Recovery moves files that other programs may hold: never under the loader lock. A thread of
// its own runs it once the loader lets go, holding a reference to this module until it has left
// the module's code.
DWORD WINAPI recovery_thread(void* module) {
  try {
    recover_parked_originals();  // originals that processes which died left parked
  } catch (...) {
  }
  FreeLibraryAndExitThread(static_cast<HMODULE>(module), 0);
}

void start_recovery() {
  HMODULE module = nullptr;
  if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&HookApi), &module)) return;
  OwnedHandle thread(CreateThread(nullptr, 0, recovery_thread, module, 0, nullptr));
  if (!thread.ok()) FreeLibrary(module);
}

template <typename Fn> void** as_variable(Fn* variable) { return reinterpret_cast<void**>(variable); }

constexpr size_t kComPatches = 6;

void hook_com_methods() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE))) {
    DebugTrace("HookApi", 1457, "[ZELTRAP:KWINDEL] initialize com error");
    return;
  }
  DebugTrace("HookApi", 1462, "[ZELTRAP:KWINDEL] com initial finished");
  struct ComScope {  // the loading thread is the host's: it leaves as COM found it, on every path
    ~ComScope() { CoUninitialize(); }
  } com_scope;
  IFileOperation* operation = nullptr;
  const HRESULT created = CoCreateInstance(kClsidFileOperation, nullptr, 0x15, kIidFileOperation,
                                           reinterpret_cast<void**>(&operation));
  DebugTrace("HookApi", 1464, "get file opretation interface,result:%x", static_cast<unsigned>(created));
  if (SUCCEEDED(created)) {
    g_file_operation = operation;
    if (g_com_methods_patched == 0) {
      void** methods = *reinterpret_cast<void***>(operation);
      g_real_copy_items = reinterpret_cast<CopyItemsFn>(methods[kSlotCopyItems]);
      g_real_move_items = reinterpret_cast<MoveItemsFn>(methods[kSlotMoveItems]);
      g_real_perform_operations = reinterpret_cast<PerformOperationsFn>(methods[kSlotPerformOperations]);
      g_real_copy_item = reinterpret_cast<CopyItemFn>(methods[kSlotCopyItem]);
      g_real_move_item = reinterpret_cast<MoveItemFn>(methods[kSlotMoveItem]);
      g_real_release = reinterpret_cast<ReleaseFn>(methods[kSlotRelease]);
      // The patches are written with the other threads frozen once; the first one that fails
      // stops the rest, and those before it stay. Release comes last: it settles what the others
      // left when an operation goes without running.
      const hookengine::HookRequest requests[kComPatches] = {
          {as_variable(&g_real_copy_items), reinterpret_cast<void*>(&CopyItems_new)},
          {as_variable(&g_real_move_items), reinterpret_cast<void*>(&MoveItems_new)},
          {as_variable(&g_real_perform_operations), reinterpret_cast<void*>(&PerformOperations_new)},
          {as_variable(&g_real_copy_item), reinterpret_cast<void*>(&CopyItem_new)},
          {as_variable(&g_real_move_item), reinterpret_cast<void*>(&MoveItem_new)},
          {as_variable(&g_real_release), reinterpret_cast<void*>(&Release_new)}};
      const size_t patched = hookengine::install_hooks(requests, kComPatches, nullptr);
      if (patched > 0) stay_loaded_for_process_life();
      if (patched < 1) {
        DebugTrace("HookApi", 1500, "[ZELTRAP:KWINDEL] hook copyitems error");
        return;
      }
      if (patched < 2) {
        DebugTrace("HookApi", 1506, "[ZELTRAP:KWINDEL] hook moveitems error");
        return;
      }
      if (patched < 3) {
        DebugTrace("HookApi", 1511, "[ZELTRAP:KWINDEL] hook performoperations error");
        return;
      }
      if (patched < kComPatches) {
        DebugTrace("HookApi", 1515, "[ZELTRAP:KWINDEL] hook %s error",
                   patched == 3 ? "copyitem" : patched == 4 ? "moveitem" : "release");
        return;
      }
      GetLastError();  // read and discarded
      g_com_methods_patched = 1;
      DebugTrace("HookApi", 1523, "[ZELTRAP:KWINDEL] hook com succeed");
    }
  }
}

void hook_flat_function(void* entry, void* replacement, HookTraceInfo* handle, const char* name, int message_number) {
  if (g_flat_api.install_hook(entry, replacement, nullptr, handle) < 0) {
    OutputDebugStringW(L"easyhook:AttachFail");
  } else {
    stay_loaded_for_process_life();
  }
  // Written whether or not the installation succeeded: it marks that the step was passed.
  DebugTrace("HookApi", message_number, "easyhook:attach %s succeed", name);
  ULONG all_threads[1] = {0xFFFFFFFF};  // an exclusive list naming no real thread: every thread
  if (g_flat_api.set_exclusive_acl(all_threads, 1, handle) < 0) OutputDebugStringW(L"easyhook:AttachFail");
}

void hook_flat_functions() {
  g_flat_api = bind_flat_hook_api(own_module());
  // The entries as this module imports them (kernel32's and shell32's exports); the replacements
  // call through these, and the hooks' per-thread barrier sends those calls to the original code.
  g_CopyFileW = &CopyFileW;
  g_CopyFileExW = &CopyFileExW;
  g_SHFileOperationW = &SHFileOperationW;
  g_MoveFileWithProgressW = &MoveFileWithProgressW;
  hook_flat_function(reinterpret_cast<void*>(g_CopyFileW), reinterpret_cast<void*>(&Hook_CopyFileW),
                     g_hook_handles[kCopyFileW], "CopyFileW", 1567);
  hook_flat_function(reinterpret_cast<void*>(g_CopyFileExW), reinterpret_cast<void*>(&Hook_CopyFileExW),
                     g_hook_handles[kCopyFileExW], "CopyFileExW", 1575);
  hook_flat_function(reinterpret_cast<void*>(g_SHFileOperationW), reinterpret_cast<void*>(&Hook_SHFileOperationW),
                     g_hook_handles[kSHFileOperationW], "SHFileOperationW", 1583);
  hook_flat_function(reinterpret_cast<void*>(g_MoveFileWithProgressW),
                     reinterpret_cast<void*>(&Hook_MoveFileWithProgressW), g_hook_handles[kMoveFileWithProgressW],
                     "MoveFileWithProgressW", 1591);
}

void free_handle(int index) {
  std::free(g_hook_handles[index]);
  g_hook_handles[index] = nullptr;
}

}  // namespace

void HookApi() {
  start_recovery();
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) {
    DebugTrace("HookApi", 1440, "[ZELTRAP:KWINDEL] init socket error");
    WSACleanup();
    return;
  }
  if (is_nt6_or_later()) {
    hook_com_methods();
  } else {
    hook_flat_functions();
  }
}

void UnHookApi() {
  // Each table takes its own lock only if free: at process exit a thread that ended inside may
  // still own it.
  restore_all_parked();  // puts back what is still parked before the tables go
  clear_pending_encrypted_files();
  if (is_nt6_or_later() && g_com_methods_patched != 0) {
    hookengine::unhook(as_variable(&g_real_copy_items));
    hookengine::unhook(as_variable(&g_real_move_items));
    hookengine::unhook(as_variable(&g_real_perform_operations));
    hookengine::unhook(as_variable(&g_real_copy_item));
    hookengine::unhook(as_variable(&g_real_move_item));
    hookengine::unhook(as_variable(&g_real_release));
    GetLastError();  // read and discarded
    g_com_methods_patched = 0;
  }
  WSACleanup();
  g_flat_api.uninstall_all_hooks();
  free_handle(kSHFileOperationW);
  free_handle(kCopyFileW);
  free_handle(kCopyFileExW);
  free_handle(kMoveFileWithProgressW);
  for (int i = 4; i < kHandleCount; ++i) free_handle(i);
  g_flat_api.wait_for_pending_removals();
  DebugTrace("UnHookApi", 1658, "easyhook:dettach kwindel succeed");
}
