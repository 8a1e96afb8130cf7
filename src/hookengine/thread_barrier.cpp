#include "hookengine/thread_barrier.h"

#include <windows.h>

#include <cstring>

#include "hookengine/code_emitter.h"
#include "hookengine/code_memory.h"

namespace hookengine {
namespace {

constexpr uint32_t kMaxDepth = 32;  // nested barrier entries per thread

struct BarrierFrame {
  uintptr_t return_address;
  uint32_t index;
};
struct ThreadBarrier {
  uint64_t inside;  // bit n: the thread is inside the replacement of barrier hook n
  uint32_t depth;
  BarrierFrame frames[kMaxDepth];
};
void* const kAllocating = reinterpret_cast<void*>(1);

// The absolute address of a literal in a stub (32-bit code reads it as [abs32]).
uintptr_t literal_address(const uint8_t* literal) { return reinterpret_cast<uintptr_t>(literal); }

DWORD g_fls = FLS_OUT_OF_INDEXES;
uint8_t* g_leave_stub = nullptr;
uint8_t* g_fls_callback = nullptr;

}  // namespace

extern "C" uintptr_t kwindel_barrier_leave();

namespace {

// Where a replacement entered through a barrier relay returns to: it asks
// kwindel_barrier_leave for the caller's real return address, keeping rax and xmm0 (32-bit: eax
// and edx, and the stack as the replacement left it: a stdcall replacement has popped its
// arguments).
uint8_t* make_leave_stub() {
  uint8_t* stub = allocate_code_anywhere(64);
  if (stub == nullptr) return nullptr;
  CodeWriteScope write(stub, 64);
  if (!write.writable()) return nullptr;
  uint8_t* data = stub + 48;
  const uintptr_t leave = reinterpret_cast<uintptr_t>(&kwindel_barrier_leave);
  std::memcpy(data, &leave, sizeof leave);
  if (kHostMode == Mode::k32) {
    CodeEmitter(stub, 48)
        .bytes({0x50, 0x50, 0x52})                             // push eax (slot), push eax, push edx
        .bytes({0xFF, 0x15}).u32(static_cast<uint32_t>(literal_address(data)))  // call [leave]
        .bytes({0x89, 0x44, 0x24, 0x08})                       // mov [esp+8], eax
        .bytes({0x5A, 0x58, 0xC3});                            // pop edx; pop eax; ret
    return stub;
  }
  CodeEmitter(stub, 48)
      .bytes({0x50, 0x50})                                     // push rax (slot), push rax
      .bytes({0x48, 0x83, 0xEC, 0x30})                         // sub rsp, 0x30
      .bytes({0xF3, 0x0F, 0x7F, 0x44, 0x24, 0x20})             // movdqu [rsp+0x20], xmm0
      .bytes({0xFF, 0x15}).rip_to(data)                        // call [leave]
      .bytes({0x48, 0x89, 0x44, 0x24, 0x38})                   // mov [rsp+0x38], rax
      .bytes({0xF3, 0x0F, 0x6F, 0x44, 0x24, 0x20})             // movdqu xmm0, [rsp+0x20]
      .bytes({0x48, 0x83, 0xC4, 0x30})                         // add rsp, 0x30
      .bytes({0x58, 0xC3});                                    // pop rax; ret
  return stub;
}

// The fiber-local-storage destructor, in the engine's pages: HeapFree(process heap, 0, data).
uint8_t* make_fls_callback() {
  uint8_t* stub = allocate_code_anywhere(48);
  if (stub == nullptr) return nullptr;
  CodeWriteScope write(stub, 48);
  if (!write.writable()) return nullptr;
  uint8_t* data = stub + 32;
  const uintptr_t heap = reinterpret_cast<uintptr_t>(GetProcessHeap());
  const uintptr_t heap_free =
      reinterpret_cast<uintptr_t>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "HeapFree"));
  std::memcpy(data, &heap, sizeof heap);
  std::memcpy(data + 8, &heap_free, sizeof heap_free);
  if (kHostMode == Mode::k32) {  // stdcall both: the callback pops its one argument
    CodeEmitter(stub, 32)
        .bytes({0xFF, 0x74, 0x24, 0x04})                       // push [esp+4] (data)
        .bytes({0x6A, 0x00})                                   // push 0
        .bytes({0xFF, 0x35}).u32(static_cast<uint32_t>(literal_address(data)))  // push [heap]
        .bytes({0xFF, 0x15}).u32(static_cast<uint32_t>(literal_address(data + 8)))  // call [HeapFree]
        .bytes({0xC2, 0x04, 0x00});                            // ret 4
    return stub;
  }
  CodeEmitter(stub, 32)
      .bytes({0x49, 0x89, 0xC8})                               // mov r8, rcx
      .bytes({0x31, 0xD2})                                     // xor edx, edx
      .bytes({0x48, 0x8B, 0x0D}).rip_to(data)                  // mov rcx, [heap]
      .bytes({0xFF, 0x25}).rip_to(data + 8);                   // jmp [HeapFree]
  return stub;
}

// The calling thread's state, allocated on first use; null while that allocation itself is
// under way (a hooked function called by HeapAlloc) or when it failed.
ThreadBarrier* thread_barrier() {
  void* value = FlsGetValue(g_fls);
  if (value == kAllocating) return nullptr;
  if (value != nullptr) return static_cast<ThreadBarrier*>(value);
  FlsSetValue(g_fls, kAllocating);
  value = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(ThreadBarrier));
  FlsSetValue(g_fls, value);
  return static_cast<ThreadBarrier*>(value);
}

}  // namespace

extern "C" uintptr_t kwindel_barrier_leave() {
  const DWORD error = GetLastError();
  ThreadBarrier* state = static_cast<ThreadBarrier*>(FlsGetValue(g_fls));
  // Only entries that recorded a frame return here, so the state and a frame exist.
  --state->depth;
  const BarrierFrame& frame = state->frames[state->depth];
  state->inside &= ~(uint64_t{1} << frame.index);
  SetLastError(error);
  return frame.return_address;
}

bool prepare_thread_barrier() {
  if (g_leave_stub == nullptr) g_leave_stub = make_leave_stub();
  if (g_fls_callback == nullptr) g_fls_callback = make_fls_callback();
  if (g_leave_stub == nullptr || g_fls_callback == nullptr) return false;
  if (g_fls == FLS_OUT_OF_INDEXES) g_fls = FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(g_fls_callback));
  return g_fls != FLS_OUT_OF_INDEXES;
}

bool enter_thread_barrier(uint32_t index, uintptr_t* return_slot) {
  if (g_fls == FLS_OUT_OF_INDEXES) return false;
  const DWORD error = GetLastError();
  ThreadBarrier* state = thread_barrier();
  const uint64_t bit = uint64_t{1} << index;
  const bool enter = state != nullptr && (state->inside & bit) == 0 && state->depth < kMaxDepth;
  if (enter) {
    state->inside |= bit;
    state->frames[state->depth].return_address = *return_slot;
    state->frames[state->depth].index = index;
    ++state->depth;
    *return_slot = reinterpret_cast<uintptr_t>(g_leave_stub);
  }
  SetLastError(error);
  return enter;
}

bool inside_thread_barrier(uint32_t index) {
  if (g_fls == FLS_OUT_OF_INDEXES) return false;
  void* value = FlsGetValue(g_fls);
  if (value == nullptr || value == kAllocating) return false;
  return (static_cast<ThreadBarrier*>(value)->inside & (uint64_t{1} << index)) != 0;
}

}  // namespace hookengine
