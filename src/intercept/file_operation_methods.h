// Replacements of the shell copy engine's IFileOperation methods: CopyItems (slot 17), MoveItems
// (slot 15), CopyItem (slot 16), MoveItem (slot 14), PerformOperations (slot 21) and Release
// (slot 2). What a queued copy or move left behind (swapped sources, an armed refusal) belongs to
// the object that queued it: its own PerformOperations or its last Release settles it.
#pragma once
#include <windows.h>
#include <shobjidl.h>

#include <cstdint>
#include <string>
#include <vector>

using CopyItemsFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*, IUnknown*, IShellItem*);
using MoveItemsFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*, IUnknown*, IShellItem*);
using CopyItemFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*, IShellItem*, IShellItem*, LPCWSTR,
                                               IFileOperationProgressSink*);
using MoveItemFn = CopyItemFn;
using PerformOperationsFn = HRESULT(STDMETHODCALLTYPE*)(IFileOperation*);
using ReleaseFn = ULONG(STDMETHODCALLTYPE*)(IFileOperation*);

// The real methods: read from the method table at set-up, then replaced by the trampolines
// through which the replacements reach the original code.
extern CopyItemsFn g_real_copy_items;
extern MoveItemsFn g_real_move_items;
extern CopyItemFn g_real_copy_item;
extern MoveItemFn g_real_move_item;
extern PerformOperationsFn g_real_perform_operations;
extern ReleaseFn g_real_release;

HRESULT STDMETHODCALLTYPE CopyItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination);
HRESULT STDMETHODCALLTYPE MoveItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination);
HRESULT STDMETHODCALLTYPE CopyItem_new(IFileOperation* self, IShellItem* item, IShellItem* destination,
                                       LPCWSTR new_name, IFileOperationProgressSink* sink);
HRESULT STDMETHODCALLTYPE MoveItem_new(IFileOperation* self, IShellItem* item, IShellItem* destination,
                                       LPCWSTR new_name, IFileOperationProgressSink* sink);
HRESULT STDMETHODCALLTYPE PerformOperations_new(IFileOperation* self);
ULONG STDMETHODCALLTYPE Release_new(IFileOperation* self);

// Appends the file-system paths of an item set (a data object with a drop list, or an ID-list
// item) to `out`, each read whole; returns the count the drop list reports, 0 on every failure
// (with a trace).
uint32_t get_filepaths_from_comobject(IUnknown* items, std::vector<std::string>& out);
