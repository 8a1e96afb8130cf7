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
// never waits for a lock: threads are suspended, not asked to stop. A thread created after the
// threads were counted is not frozen.
class ThreadFreeze {
 public:
  ThreadFreeze();
  ~ThreadFreeze();
  ThreadFreeze(const ThreadFreeze&) = delete;
  ThreadFreeze& operator=(const ThreadFreeze&) = delete;

  size_t frozen_count() const { return count_; }
  // For every frozen thread, passes its instruction pointer to `map`; when `map` returns a
  // different address, the thread continues there. Returns how many threads were moved.
  size_t move_instruction_pointers(uint64_t (*map)(uint64_t rip, const void* context), const void* context);

 private:
  void freeze_by_walk(void* next_thread);
  void freeze_by_snapshot();
  std::vector<DWORD> ids_;       // kept until after the thaw: freeing is an allocator call
  std::vector<HANDLE> threads_;  // sized before suspending
  size_t count_ = 0;
};

}  // namespace hookengine
