// Replacements of the shell copy engine's IFileOperation methods CopyItems (slot 17),
// MoveItems (slot 15) and PerformOperations (slot 21).
#pragma once
#include <windows.h>
#include <shobjidl.h>

#include <string>
#include <vector>

using CopyItemsFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*, IUnknown*, IShellItem*);
using MoveItemsFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*, IUnknown*, IShellItem*);
using PerformOperationsFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*);

// The real methods: read from the method table at set-up, then replaced by the trampolines
// through which the replacements reach the original code.
extern CopyItemsFn g_real_copy_items;
extern MoveItemsFn g_real_move_items;
extern PerformOperationsFn g_real_perform_operations;

HRESULT STDMETHODCALLTYPE CopyItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination);
HRESULT STDMETHODCALLTYPE MoveItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination);
HRESULT STDMETHODCALLTYPE PerformOperations_new(IFileOperation* self);

// Empties the swapped-source table without restoring anything (interception tear-down).
void clear_swapped_source_files();
