// A stand-in EasyHook64.dll for the tests: records every call of the four functions the set-up
// binds, with its arguments, and hooks nothing. StandinLog() returns the record, one call a line.
#include <windows.h>

#include <cstdio>
#include <string>

namespace {
std::string g_log;
LONG g_install_result = 0;

void record(const char* format, ...) __attribute__((format(printf, 1, 2)));
void record(const char* format, ...) {
  char line[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  g_log += line;
  g_log += '\n';
}
}  // namespace

extern "C" {

__declspec(dllexport) LONG WINAPI LhInstallHook(void* entry, void* proc, void* callback, void* handle) {
  record("LhInstallHook %p %p %p %p", entry, proc, callback, handle);
  return g_install_result;
}

__declspec(dllexport) LONG WINAPI LhSetExclusiveACL(ULONG* ids, ULONG count, void* handle) {
  record("LhSetExclusiveACL %lx %lu %p", count > 0 && ids != nullptr ? ids[0] : 0ul, count, handle);
  return 0;
}

__declspec(dllexport) LONG WINAPI LhUninstallAllHooks() {
  record("LhUninstallAllHooks");
  return 0;
}

__declspec(dllexport) LONG WINAPI LhWaitForPendingRemovals() {
  record("LhWaitForPendingRemovals");
  return 0;
}

__declspec(dllexport) const char* StandinLog() { return g_log.c_str(); }
__declspec(dllexport) void StandinReset(LONG install_result) {
  g_log.clear();
  g_install_result = install_result;
}

}  // extern "C"
