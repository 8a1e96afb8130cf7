#include "host/utf_conversion.h"

#include <boost/locale/encoding_utf.hpp>
#include <cwchar>

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
