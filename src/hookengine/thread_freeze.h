// Stops every other thread of the process while code bytes change.
#pragma once
#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace hookengine {

// Suspends the process's other threads on construction and resumes them on destruction. All
// memory it needs is taken before the first thread is suspended, so nothing between freeze and
// thaw touches the process heap (another thread may have been stopped holding its lock). It
// never waits for a lock: threads are suspended, not asked to stop.
//
// SuspendThread only requests a suspension; reading each thread's context afterwards returns
// only once that thread has really stopped, so no byte is written while a thread still runs.
//
// Threads created while the freeze is being set up: the threads are walked again until a walk
// finds no new one, and each newcomer is suspended too (up to 16 beyond the first count). A
// thread created after the last walk begins in the system's thread start-up, which enters the
// loader lock for the thread-attach notifications before it runs any code of the process; the
// set-up patches while holding that lock, so such a thread cannot reach a target being written.
// Outside the loader lock (the engine used on its own) the patch write is the only window, as
// with every inline hooking engine.
class ThreadFreeze {
 public:
  ThreadFreeze();
  ~ThreadFreeze();
  ThreadFreeze(const ThreadFreeze&) = delete;
  ThreadFreeze& operator=(const ThreadFreeze&) = delete;

  size_t frozen_count() const { return count_; }
  // For every frozen thread, passes its instruction pointer (Rip, or Eip in a 32-bit process) to
  // `map`; when `map` returns a different address, the thread continues there. Returns how many
  // threads were moved.
  size_t move_instruction_pointers(uint64_t (*map)(uint64_t rip, const void* context), const void* context);

 private:
  void freeze_by_walk(void* next_thread);
  void freeze_by_snapshot();
  bool suspend(HANDLE thread, DWORD id);
  bool known(DWORD id) const;
  std::vector<DWORD> ids_;       // sized before suspending; kept until after the thaw
  std::vector<HANDLE> threads_;  // sized before suspending
  size_t count_ = 0;
};

}  // namespace hookengine
