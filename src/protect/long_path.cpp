#include "protect/long_path.h"

#include <windows.h>

std::wstring long_path(const std::wstring& path) {
  // 248: the longest folder name the plain form takes; files get 260. Both fit below this.
  constexpr size_t kPlainLimit = 248;
  if (path.size() < kPlainLimit || path.compare(0, 4, L"\\\\?\\") == 0) return path;
  const bool drive = path.size() > 2 && path[1] == L':' && path[2] == L'\\';
  const bool network = path.compare(0, 2, L"\\\\") == 0;
  if (drive) return L"\\\\?\\" + path;
  if (network) return L"\\\\?\\UNC\\" + path.substr(2);
  return path;
}
