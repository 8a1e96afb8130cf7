#include "intercept/replacement_boundary.h"

#include <cstring>
#include <stdexcept>

void test_fault_point(const char* replacement) {
#ifdef KWINDEL_TEST_FAULTS
  char named[64] = {};
  const DWORD length = GetEnvironmentVariableA("KWINDEL_TEST_THROW", named, sizeof named);
  if (length > 0 && length < sizeof named && std::strcmp(named, replacement) == 0) throw std::runtime_error(named);
#else
  (void)replacement;
#endif
}
