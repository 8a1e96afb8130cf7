// The per-thread barrier of barrier hooks: while a thread runs the replacement of barrier hook n,
// its further calls of that hooked function go to the original. Each thread keeps which hooks it
// is inside and, per entry, the caller's return address; the replacement returns through a stub
// that pops the entry. The state lives in fiber-local storage whose index is never freed; each
// thread's state is freed when the thread ends, by a destructor in the engine's own pages, so a
// thread ending after the module was unloaded still finds it.
#pragma once
#include <cstddef>
#include <cstdint>

namespace hookengine {

constexpr uint32_t kMaxBarrierHooks = 64;  // barrier indexes 0..63

// Makes the return stub, the destructor and the storage index; false when any cannot be had.
// Idempotent; call under the engine lock before the first barrier hook.
bool prepare_thread_barrier();

// For a listed thread entering barrier hook `index` through its relay: unless the thread is
// already inside it, records the entry, points *return_slot at the return stub and returns true
// (go to the replacement); false: go to the original. Keeps the thread's last error.
bool enter_thread_barrier(uint32_t index, uintptr_t* return_slot);

// True when the calling thread is inside the replacement of barrier hook `index`.
bool inside_thread_barrier(uint32_t index);

}  // namespace hookengine
