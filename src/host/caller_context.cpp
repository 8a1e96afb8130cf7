#include "host/caller_context.h"

#include <windows.h>
#include <sddl.h>

#include <vector>

#include "host/owners.h"
#include "host/utf_conversion.h"

std::string process_name_from_path(const std::string& utf8_path) {
  const size_t slash = utf8_path.rfind('\\');
  if (slash == std::string::npos || slash == 0) return std::string();
  return utf8_path.substr(slash + 1);
}

std::string get_process_name() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(GetModuleHandleW(nullptr), path, MAX_PATH);
  std::vector<char> utf8((wcslen(path) + 1) * 6);
  if (wide_to_multibyte(utf8.data(), path, static_cast<int>(utf8.size()), CP_UTF8) == nullptr) {
    return std::string();
  }
  return process_name_from_path(utf8.data());
}

std::string get_user_sid_string() {
  OwnedHandle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put())) return std::string();
  DWORD size = 0;
  if (GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size) ||
      GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
    return std::string();
  }
  OwnedGlobal buffer(GlobalAlloc(GPTR, size));
  if (!buffer.ok()) return std::string();
  std::string result;
  if (GetTokenInformation(token.get(), TokenUser, buffer.get(), size, &size)) {
    wchar_t* text = nullptr;
    if (ConvertSidToStringSidW(static_cast<TOKEN_USER*>(buffer.get())->User.Sid, &text)) {
      result = wide_to_utf8(text);
      LocalFree(text);
    }
  }
  return result;
}
