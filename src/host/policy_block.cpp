#include "host/policy_block.h"

// The DLL's link marks ".hook" shared (src/CMakeLists.txt): the loader maps it once for all
// processes of the desktop.
__attribute__((section(".hook"))) PolicyBlock g_policy_block = {0, 0, 0, 0, nullptr, nullptr};

bool destination_class_watched(uint32_t mask, int dest_class) {
  if ((mask & 1) && dest_class == 0) return true;
  if ((mask & 2) && dest_class == 1) return true;
  if ((mask & 4) && dest_class == 2) return true;
  return false;
}
