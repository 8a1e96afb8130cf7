// Conversions between the platform's UTF-16 and the UTF-8 that the library keeps, compares and
// sends, and between UTF-16 and a code page.
#pragma once
#include <windows.h>

#include <string>

// UTF-16 to UTF-8 and back over the whole string; invalid sequences (a lone surrogate, bad
// UTF-8) are dropped silently.
std::string wide_to_utf8(const std::wstring& wide);
std::string wide_to_utf8(const wchar_t* wide);  // null gives ""
std::wstring utf8_to_wide(const std::string& utf8);

// WideCharToMultiByte(code_page) of a NUL-terminated source into dest (capacity in bytes).
// Returns dest, or null when a pointer is null or the conversion fails.
char* wide_to_multibyte(char* dest, const wchar_t* source, int capacity, UINT code_page);
// MultiByteToWideChar(code_page) into dest (capacity in wide characters); mirror of the above.
wchar_t* multibyte_to_wide(wchar_t* dest, const char* source, int capacity, UINT code_page);
