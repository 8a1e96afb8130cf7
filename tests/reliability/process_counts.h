// What the leak checks count in the running process. Under Wine 8 GetProcessHandleCount gives 0
// and GetProcessMemoryInfo leaves PrivateUsage at 0, so both are counted directly: open handles
// by probing every handle value, private bytes as the committed private pages (VirtualQuery).
#pragma once
#include <windows.h>

#include <cstdint>

namespace kwtest {

struct ProcessCounts {
  unsigned long handles = 0;
  unsigned long long private_bytes = 0;
};

ProcessCounts process_counts();

// Prints the counts and checks them against the tolerance: at most 4 more handles, and at most
// 256 KiB plus 8 bytes per operation more private bytes (a leak of any allocation, socket or
// handle per operation fails; allocator and system caches stay within the slack).
void report_and_check(const ProcessCounts& before, const ProcessCounts& after, int operations,
                      unsigned long long elapsed_ms);

}  // namespace kwtest
