#include "host/hook_setup.h"

#include <winsock2.h>

#include "host/debug_trace.h"

CRITICAL_SECTION g_pending_cs;
volatile bool g_perform_operations_allowed = false;

bool is_nt6_or_later() {
  OSVERSIONINFOW basic = {};
  basic.dwOSVersionInfoSize = sizeof basic;  // 276 bytes
  if (!GetVersionExW(&basic) || basic.dwPlatformId != VER_PLATFORM_WIN32_NT) return false;
  OSVERSIONINFOEXW extended = {};
  extended.dwOSVersionInfoSize = sizeof extended;  // 284 bytes
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&extended))) return false;
  return extended.dwMajorVersion >= 6;
}

bool is_vista_or_later() {
  OSVERSIONINFOEXW extended = {};
  extended.dwOSVersionInfoSize = sizeof extended;
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&extended))) return false;
  return extended.dwMajorVersion >= 6;
}

void HookApi() {
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) {
    DebugTrace("HookApi", 1440, "[ZELTRAP:KWINDEL] init socket error");
    WSACleanup();
    return;
  }
  InitializeCriticalSection(&g_pending_cs);
}

void UnHookApi() {
  EnterCriticalSection(&g_pending_cs);
  LeaveCriticalSection(&g_pending_cs);
  WSACleanup();
  DeleteCriticalSection(&g_pending_cs);
  DebugTrace("UnHookApi", 1658, "easyhook:dettach kwindel succeed");
}
