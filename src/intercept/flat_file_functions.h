// Replacements of the flat file functions hooked on systems older than major version 6.
#pragma once
#include <windows.h>

// The functions' exported entries, taken at set-up. A replacement calls its own function through
// this pointer; the hook's per-thread barrier sends that call to the original code.
extern decltype(&CopyFileW) g_CopyFileW;
extern decltype(&CopyFileExW) g_CopyFileExW;
extern decltype(&MoveFileWithProgressW) g_MoveFileWithProgressW;

BOOL WINAPI Hook_CopyFileW(LPCWSTR existing, LPCWSTR new_name, BOOL fail_if_exists);
BOOL WINAPI Hook_CopyFileExW(LPCWSTR existing, LPCWSTR new_name, LPPROGRESS_ROUTINE progress, LPVOID data,
                             LPBOOL cancel, DWORD flags);
BOOL WINAPI Hook_MoveFileWithProgressW(LPCWSTR existing, LPCWSTR new_name, LPPROGRESS_ROUTINE progress,
                                       LPVOID data, DWORD flags);
