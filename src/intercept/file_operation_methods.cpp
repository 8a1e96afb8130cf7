#include "intercept/file_operation_methods.h"

CopyItemsFn g_real_copy_items = nullptr;
MoveItemsFn g_real_move_items = nullptr;
PerformOperationsFn g_real_perform_operations = nullptr;

// Pass-throughs until the screening lands.
HRESULT STDMETHODCALLTYPE CopyItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination) {
  return g_real_copy_items(self, items, destination);
}

HRESULT STDMETHODCALLTYPE MoveItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination) {
  return g_real_move_items(self, items, destination);
}

HRESULT STDMETHODCALLTYPE PerformOperations_new(IFileOperation* self) {
  return g_real_perform_operations(self);
}

void clear_swapped_source_files() {}
