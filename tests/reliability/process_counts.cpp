#include "process_counts.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace kwtest {

ProcessCounts process_counts() {
  ProcessCounts c;
  // Handle values are multiples of 4; Wine hands out the lowest free ones.
  for (uintptr_t value = 4; value < 0x40000; value += 4) {
    DWORD flags = 0;
    if (GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags)) ++c.handles;
  }
  MEMORY_BASIC_INFORMATION info;
  for (const char* at = nullptr; VirtualQuery(at, &info, sizeof info) == sizeof info;
       at = static_cast<const char*>(info.BaseAddress) + info.RegionSize) {
    if (info.State == MEM_COMMIT && info.Type == MEM_PRIVATE) c.private_bytes += info.RegionSize;
    if (static_cast<const char*>(info.BaseAddress) + info.RegionSize < at) break;  // wrapped
  }
  return c;
}

void report_and_check(const ProcessCounts& before, const ProcessCounts& after, int operations,
                      unsigned long long elapsed_ms) {
  const long handle_delta = static_cast<long>(after.handles) - static_cast<long>(before.handles);
  const long long byte_delta = static_cast<long long>(after.private_bytes) - static_cast<long long>(before.private_bytes);
  std::printf("[ measured ] %d operations in %llu ms: handles %lu -> %lu (%+ld), private bytes %llu -> %llu (%+lld)\n",
              operations, elapsed_ms, before.handles, after.handles, handle_delta, before.private_bytes,
              after.private_bytes, byte_delta);
  EXPECT_LE(handle_delta, 4);
  EXPECT_LE(byte_delta, 256 * 1024 + 8LL * operations);
}

}  // namespace kwtest
