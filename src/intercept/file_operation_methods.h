// Replacements of the shell copy engine's IFileOperation methods CopyItems (slot 17),
// MoveItems (slot 15) and PerformOperations (slot 21).
#pragma once
#include <windows.h>
#include <shobjidl.h>

#include <cstdint>
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

// Lets the next PerformOperations run (set-up, once the method table is known). A forbidding
// verdict clears this so that the next PerformOperations refuses once.
void allow_perform_operations();

// Appends the file-system paths of an item set (a data object with a drop list, or an ID-list
// item) to `out`; returns the count the drop list reports, 0 on every failure (with a trace).
uint32_t get_filepaths_from_comobject(IUnknown* items, std::vector<std::string>& out);
