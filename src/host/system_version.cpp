#include "host/system_version.h"

#include <windows.h>

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
