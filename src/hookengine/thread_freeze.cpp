#include "hookengine/thread_freeze.h"

#include <tlhelp32.h>

namespace hookengine {

namespace {

using NtGetNextThreadFn = LONG(NTAPI*)(HANDLE process, HANDLE thread, ACCESS_MASK access, ULONG attributes,
                                       ULONG flags, HANDLE* next);
constexpr ACCESS_MASK kAccess = THREAD_SUSPEND_RESUME | THREAD_GET_CONTEXT | THREAD_SET_CONTEXT |
                                THREAD_QUERY_INFORMATION;
constexpr size_t kRoomForNewcomers = 16;
constexpr int kMaxWalks = 4;

NtGetNextThreadFn next_thread_function() {
  static NtGetNextThreadFn fn = reinterpret_cast<NtGetNextThreadFn>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtGetNextThread")));
  return fn;
}

// Returns once `thread` has really stopped: the context of a thread whose suspension is still
// under way can only be read after it took effect.
void wait_until_stopped(HANDLE thread) {
  alignas(16) CONTEXT ctx;
  ZeroMemory(&ctx, sizeof ctx);
  ctx.ContextFlags = CONTEXT_CONTROL;
  GetThreadContext(thread, &ctx);
}

}  // namespace

ThreadFreeze::ThreadFreeze() {
  if (NtGetNextThreadFn next = next_thread_function()) {
    freeze_by_walk(reinterpret_cast<void*>(next));
  } else {
    freeze_by_snapshot();
  }
  for (size_t i = 0; i < count_; ++i) wait_until_stopped(threads_[i]);
}

bool ThreadFreeze::known(DWORD id) const {
  for (size_t i = 0; i < count_; ++i) {
    if (ids_[i] == id) return true;
  }
  return false;
}

bool ThreadFreeze::suspend(HANDLE thread, DWORD id) {
  if (count_ == threads_.size() || SuspendThread(thread) == static_cast<DWORD>(-1)) return false;
  threads_[count_] = thread;
  ids_[count_] = id;
  ++count_;
  return true;
}

// Walks the process's threads with NtGetNextThread (no system-wide snapshot: much faster), again
// and again until a walk finds no thread that is not frozen yet.
void ThreadFreeze::freeze_by_walk(void* fn) {
  auto next = reinterpret_cast<NtGetNextThreadFn>(fn);
  const DWORD self = GetCurrentThreadId();
  size_t total = 0;
  HANDLE cursor = nullptr, following = nullptr;
  while (next(GetCurrentProcess(), cursor, kAccess, 0, 0, &following) >= 0) {
    if (cursor != nullptr) CloseHandle(cursor);
    cursor = following;
    ++total;
  }
  if (cursor != nullptr) CloseHandle(cursor);
  // From here on: no allocation until every thread is resumed.
  threads_.resize(total + kRoomForNewcomers, nullptr);
  ids_.resize(total + kRoomForNewcomers, 0);
  for (int walk = 0; walk < kMaxWalks; ++walk) {
    const size_t before = count_;
    cursor = nullptr;
    while (next(GetCurrentProcess(), cursor, kAccess, 0, 0, &following) >= 0) {
      // The cursor handle is closed unless it became a frozen thread's handle.
      if (cursor != nullptr && (count_ == 0 || threads_[count_ - 1] != cursor)) CloseHandle(cursor);
      cursor = following;
      const DWORD id = GetThreadId(cursor);
      if (id == self || known(id)) continue;
      suspend(cursor, id);
    }
    if (cursor != nullptr && (count_ == 0 || threads_[count_ - 1] != cursor)) CloseHandle(cursor);
    if (count_ == before || count_ == threads_.size()) break;
  }
}

// Systems without NtGetNextThread: a toolhelp snapshot of the threads.
void ThreadFreeze::freeze_by_snapshot() {
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
  // suspend() stores the id at count_ <= i, so the listed ids are read before being overwritten.
  const size_t listed = ids_.size();
  for (size_t i = 0; i < listed; ++i) {
    HANDLE thread = OpenThread(kAccess, FALSE, ids_[i]);
    if (thread == nullptr) continue;  // ended meanwhile
    if (!suspend(thread, ids_[i])) CloseHandle(thread);
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
#ifdef _WIN64
    DWORD64& ip = ctx.Rip;
#else
    DWORD& ip = ctx.Eip;
#endif
    const uint64_t to = map(ip, context);
    if (to == ip) continue;
    ip = static_cast<uintptr_t>(to);
    ctx.ContextFlags = CONTEXT_CONTROL;
    if (SetThreadContext(threads_[i], &ctx)) ++moved;
  }
  return moved;
}

}  // namespace hookengine
