#include "hookengine/thread_freeze.h"

#include <tlhelp32.h>

namespace hookengine {

ThreadFreeze::ThreadFreeze() {
  const DWORD self_process = GetCurrentProcessId();
  const DWORD self_thread = GetCurrentThreadId();
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return;
  THREADENTRY32 entry;
  entry.dwSize = sizeof entry;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == self_process && entry.th32ThreadID != self_thread) {
      ids_.push_back(entry.th32ThreadID);
    }
    entry.dwSize = sizeof entry;
  }
  CloseHandle(snapshot);
  threads_.resize(ids_.size(), nullptr);  // from here on: no allocation until every thread is resumed
  for (DWORD id : ids_) {
    HANDLE thread = OpenThread(THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_SET_CONTEXT |
                                   THREAD_QUERY_INFORMATION, FALSE, id);
    if (thread == nullptr) continue;  // ended meanwhile
    if (SuspendThread(thread) == static_cast<DWORD>(-1)) {
      CloseHandle(thread);
      continue;
    }
    threads_[count_++] = thread;
  }
}

ThreadFreeze::~ThreadFreeze() {
  for (size_t i = 0; i < count_; ++i) {
    ResumeThread(threads_[i]);
    CloseHandle(threads_[i]);
  }
}

size_t ThreadFreeze::move_instruction_pointers(uint64_t (*map)(uint64_t, const void*), const void* context) {
  size_t moved = 0;
  for (size_t i = 0; i < count_; ++i) {
    alignas(16) CONTEXT ctx;
    ZeroMemory(&ctx, sizeof ctx);
    ctx.ContextFlags = CONTEXT_CONTROL;
    if (!GetThreadContext(threads_[i], &ctx)) continue;
    const uint64_t to = map(ctx.Rip, context);
    if (to == ctx.Rip) continue;
    ctx.Rip = to;
    ctx.ContextFlags = CONTEXT_CONTROL;
    if (SetThreadContext(threads_[i], &ctx)) ++moved;
  }
  return moved;
}

}  // namespace hookengine
