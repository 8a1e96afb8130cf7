#include "intercept/flat_file_functions.h"

decltype(&CopyFileW) g_CopyFileW = nullptr;
decltype(&CopyFileExW) g_CopyFileExW = nullptr;
decltype(&MoveFileWithProgressW) g_MoveFileWithProgressW = nullptr;

// Pass-throughs until the post-copy step lands.
BOOL WINAPI Hook_CopyFileW(LPCWSTR existing, LPCWSTR new_name, BOOL fail_if_exists) {
  return g_CopyFileW(existing, new_name, fail_if_exists);
}

BOOL WINAPI Hook_CopyFileExW(LPCWSTR existing, LPCWSTR new_name, LPPROGRESS_ROUTINE progress, LPVOID data,
                             LPBOOL cancel, DWORD flags) {
  return g_CopyFileExW(existing, new_name, progress, data, cancel, flags);
}

BOOL WINAPI Hook_MoveFileWithProgressW(LPCWSTR existing, LPCWSTR new_name, LPPROGRESS_ROUTINE progress,
                                       LPVOID data, DWORD flags) {
  return g_MoveFileWithProgressW(existing, new_name, progress, data, flags);
}
