#include "host/caller_context.h"

#include <sddl.h>

#include <boost/locale/encoding_utf.hpp>
#include <vector>

#include "host/owners.h"

namespace {
bool is_high_surrogate(wchar_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool is_low_surrogate(wchar_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// The UTF-16 decoder skips a high surrogate together with the unit after it; drop unpaired
// surrogates first so that only the invalid unit itself disappears.
std::wstring without_unpaired_surrogates(const wchar_t* begin, const wchar_t* end) {
  std::wstring out;
  out.reserve(end - begin);
  for (const wchar_t* p = begin; p != end; ++p) {
    if (is_high_surrogate(*p)) {
      if (p + 1 != end && is_low_surrogate(p[1])) {
        out.push_back(*p);
        out.push_back(*++p);
      }
    } else if (!is_low_surrogate(*p)) {
      out.push_back(*p);
    }
  }
  return out;
}

std::string utf16_to_utf8(const wchar_t* begin, const wchar_t* end) {
  for (const wchar_t* p = begin; p != end; ++p) {
    if (is_high_surrogate(*p) || is_low_surrogate(*p)) {
      const std::wstring clean = without_unpaired_surrogates(begin, end);
      return boost::locale::conv::utf_to_utf<char>(clean.data(), clean.data() + clean.size(),
                                                   boost::locale::conv::skip);
    }
  }
  return boost::locale::conv::utf_to_utf<char>(begin, end, boost::locale::conv::skip);
}
}  // namespace

std::string wide_to_utf8(const std::wstring& wide) {
  return utf16_to_utf8(wide.data(), wide.data() + wide.size());
}

std::string wide_to_utf8(const wchar_t* wide) {
  if (wide == nullptr) return std::string();
  return utf16_to_utf8(wide, wide + wcslen(wide));
}

std::wstring utf8_to_wide(const std::string& utf8) {
  return boost::locale::conv::utf_to_utf<wchar_t>(utf8, boost::locale::conv::skip);
}

char* wide_to_multibyte(char* dest, const wchar_t* source, int capacity, UINT code_page) {
  if (dest == nullptr || source == nullptr) return nullptr;
  dest[0] = '\0';
  if (WideCharToMultiByte(code_page, 0, source, -1, dest, capacity, nullptr, nullptr) == 0) return nullptr;
  return dest;
}

wchar_t* multibyte_to_wide(wchar_t* dest, const char* source, int capacity, UINT code_page) {
  if (dest == nullptr || source == nullptr) return nullptr;
  dest[0] = L'\0';
  if (MultiByteToWideChar(code_page, 0, source, -1, dest, capacity) == 0) return nullptr;
  return dest;
}

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
