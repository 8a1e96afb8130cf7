// Caller context and string conversions shared by every interceptor.
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

// The part of a UTF-8 path after its last backslash; "" when there is no backslash or the only
// one is the first character.
std::string process_name_from_path(const std::string& utf8_path);

// Name of the main executable (last path component, UTF-8, case as the file system gives it).
std::string get_process_name();

// The calling user's SID in its S-1-5-... string form, UTF-8; "" when anything fails.
std::string get_user_sid_string();
