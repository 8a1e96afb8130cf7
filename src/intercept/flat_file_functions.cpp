#include "intercept/flat_file_functions.h"

#include "host/debug_trace.h"
#include "intercept/replacement_boundary.h"
#include "protect/pending_files.h"

decltype(&CopyFileW) g_CopyFileW = nullptr;
decltype(&CopyFileExW) g_CopyFileExW = nullptr;
decltype(&MoveFileWithProgressW) g_MoveFileWithProgressW = nullptr;

// Each replacement lets the call through unchanged and, only after success, encrypts the copy of
// a source that the shell-operation screening registered. The result and the last error that the
// real call left are never changed.

namespace {

void protect_copy(const char* replacement, LPCWSTR existing, LPCWSTR new_name, bool moved) {
  const LastError real;
  at_boundary(replacement, 0, 0, [&] { return TakeAndTransform(existing, new_name, moved), 0; });
  real.put_back();
}

}  // namespace

BOOL WINAPI Hook_CopyFileW(LPCWSTR existing, LPCWSTR new_name, BOOL fail_if_exists) {
  const BOOL result = g_CopyFileW(existing, new_name, fail_if_exists);
  if (result) protect_copy("Hook_CopyFileW", existing, new_name, false);
  return result;
}

BOOL WINAPI Hook_CopyFileExW(LPCWSTR existing, LPCWSTR new_name, LPPROGRESS_ROUTINE progress, LPVOID data,
                             LPBOOL cancel, DWORD flags) {
  const BOOL result = g_CopyFileExW(existing, new_name, progress, data, cancel, flags);
  if (result) protect_copy("Hook_CopyFileExW", existing, new_name, false);
  return result;
}

BOOL WINAPI Hook_MoveFileWithProgressW(LPCWSTR existing, LPCWSTR new_name, LPPROGRESS_ROUTINE progress,
                                       LPVOID data, DWORD flags) {
  const LastError caller;
  DebugTrace("Hook_MoveFileWithProgressW", 963, "MoveFileWithProgressW");
  caller.put_back();
  const BOOL result = g_MoveFileWithProgressW(existing, new_name, progress, data, flags);
  // A null new name schedules a deletion at restart: there is no moved file to encrypt.
  if (result && new_name != nullptr) protect_copy("Hook_MoveFileWithProgressW", existing, new_name, true);
  return result;
}
