// A stand-in EasyHook64.dll for the tests: records every call of the four functions the set-up
// binds, with its arguments, and hooks nothing. StandinLog() returns the record, one call a line.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {
std::string g_log;
LONG g_install_result = 0;
LONG record(const char* line) { return g_log += line, g_log += '\n', 0; }
}  // namespace

extern "C" {
__declspec(dllexport) LONG WINAPI LhInstallHook(void* entry, void* proc, void* callback, void* handle) {
  char line[128];
  std::snprintf(line, sizeof line, "LhInstallHook %p %p %p %p", entry, proc, callback, handle);
  return record(line), g_install_result;
}
__declspec(dllexport) LONG WINAPI LhSetExclusiveACL(ULONG* ids, ULONG count, void* handle) {
  char line[128];
  std::snprintf(line, sizeof line, "LhSetExclusiveACL %lx %lu %p", count > 0 && ids != nullptr ? ids[0] : 0ul, count, handle);
  return record(line);
}
__declspec(dllexport) LONG WINAPI LhUninstallAllHooks() { return record("LhUninstallAllHooks"); }
__declspec(dllexport) LONG WINAPI LhWaitForPendingRemovals() { return record("LhWaitForPendingRemovals"); }
__declspec(dllexport) const char* StandinLog() { return g_log.c_str(); }
__declspec(dllexport) void StandinReset(LONG install_result) { g_log.clear(), g_install_result = install_result; }
}  // extern "C"
