// Helpers of the set-up tests: reading jumps, finding modules, filtering trace lines.
#pragma once
#include <windows.h>
#include <shellapi.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kwtest.h"

namespace kwtest::hooksetup {

using kwtest::jump_destination;

// The module an address belongs to, or null.
inline HMODULE module_of(uint64_t address) {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCWSTR>(address), &module);
  return module;
}

// The captured lines that start with `prefix`, in order.
inline std::vector<std::string> lines_from(const TraceCapture& trace, const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& line : trace.lines()) {
    if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
  }
  return out;
}

// The four flat functions' exported entries, as a process imports them.
struct FlatEntries {
  FlatEntries() {
    HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    HMODULE shell32 = LoadLibraryW(L"shell32.dll");
    entries[0] = reinterpret_cast<uint8_t*>(GetProcAddress(kernel32, "CopyFileW"));
    entries[1] = reinterpret_cast<uint8_t*>(GetProcAddress(kernel32, "CopyFileExW"));
    entries[2] = reinterpret_cast<uint8_t*>(GetProcAddress(shell32, "SHFileOperationW"));
    entries[3] = reinterpret_cast<uint8_t*>(GetProcAddress(kernel32, "MoveFileWithProgressW"));
  }
  std::vector<std::string> bytes() const {
    std::vector<std::string> out;
    for (const uint8_t* entry : entries) out.emplace_back(reinterpret_cast<const char*>(entry), 16);
    return out;
  }
  uint8_t* entries[4];
};

}  // namespace kwtest::hooksetup
