// The edge between a replacement and its host: nothing of the library's own failures crosses it.
#pragma once
#include <windows.h>

#include "host/policy_block.h"

// True when the policy's secret check is on: a replacement that fails inside must then refuse,
// never let the operation run unscreened.
inline bool secret_check_needed() { return g_policy_block.g_secret_audit == 1; }

// Test builds only: throws when the environment names `replacement` in KWINDEL_TEST_THROW, so that
// the tests can show what a failure inside a replacement does. Does nothing in a release build.
void test_fault_point(const char* replacement);

// Runs a replacement's own part `work` (which returns an Outcome) and catches everything:
// a failure gives `refuse` while the secret check is on, otherwise `pass_on`.
template <typename Outcome, typename Work>
Outcome at_boundary(const char* replacement, Outcome pass_on, Outcome refuse, Work work) noexcept {
  try {
    test_fault_point(replacement);
    return work();
  } catch (...) {
    return secret_check_needed() ? refuse : pass_on;
  }
}

// The thread's last-error value when made; put_back() sets it again. A replacement puts the
// caller's value back before it calls the real function or refuses, and the real function's value
// back after its own work that follows the call: the host sees the value it would see unhooked.
class LastError {
 public:
  LastError() : value_(GetLastError()) {}
  void put_back() const { SetLastError(value_); }

 private:
  DWORD value_;
};
