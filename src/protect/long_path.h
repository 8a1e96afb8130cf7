// Paths of any length the system allows for the file functions the library calls itself.
#pragma once
#include <string>

// `path` in the extended-length form ("\\?\C:\..." or "\\?\UNC\server\...") when it is a full
// drive or network path too long for the plain form; otherwise `path` unchanged.
std::wstring long_path(const std::wstring& path);
