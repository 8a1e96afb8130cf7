#include "hookengine/inline_hook.h"

#include <windows.h>

#include <cstring>

#include "hookengine/code_emitter.h"
#include "hookengine/code_memory.h"
#include "hookengine/relocator.h"
#include "hookengine/thread_barrier.h"
#include "hookengine/thread_freeze.h"

namespace hookengine {

namespace {

constexpr size_t kNearPatch = 5;       // E9 rel32: in a 32-bit process it reaches every address
constexpr size_t kAbsolutePatch = 14;  // FF 25 00000000 + 64-bit address (64-bit only)
constexpr size_t kRelaySpace = 128;
constexpr size_t kChunkSize = kRelaySpace + kMaxTrampolineLength;
constexpr size_t kMaxRead = 64;
constexpr size_t kMaxAcl = 128;        // as EasyHook's MAX_ACE_COUNT

}  // namespace

struct HookRecord {
  uint64_t target;
  void** variable;
  void* volatile replacement;
  uint8_t* relay;
  uint8_t* trampoline;
  Relocation relocation;
  uint8_t original[32];  // the copied instructions as they were (copied_length <= 28)
  uint8_t patch[kAbsolutePatch];
  uint8_t patch_size;
  bool barrier;
  bool force_absolute;
  volatile bool active;
  uint32_t barrier_index;
  volatile bool acl_exclusive;
  volatile uint32_t acl_count;
  uint32_t acl[kMaxAcl];
  HookRecord* next;
};

namespace {

// ---- engine lock: a spin lock, since the set-up may run before anything can be initialised
// and two callers at once is not expected (set-up and tear-down run on the loader's thread).
volatile LONG g_lock = 0;
struct EngineLock {
  EngineLock() { while (InterlockedCompareExchange(&g_lock, 1, 0) != 0) Sleep(0); }
  ~EngineLock() { InterlockedExchange(&g_lock, 0); }
};

HookRecord* g_records = nullptr;  // never freed: relays and trampolines may still be running
volatile HookStatus g_last_status = HookStatus::kOk;

uint32_t g_barrier_count = 0;

extern "C" uintptr_t kwindel_barrier_enter(HookRecord* record, uintptr_t* return_slot);

uint32_t address32(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

// A relay that jumps straight to the replacement: jmp [rip+2] (32-bit: jmp [relay+8]); int3 x2;
// the replacement's address. It sits 8-aligned (the relay is 16-aligned), so a later re-hook with
// another replacement changes it in one store while a thread may be passing through.
void emit_plain_relay(uint8_t* relay, void* replacement) {
  if (kHostMode == Mode::k32) {
    CodeEmitter(relay, 8).bytes({0xFF, 0x25}).u32(address32(relay + 8)).bytes({0xCC, 0xCC});
  } else {
    CodeEmitter(relay, 8).bytes({0xFF, 0x25, 2, 0, 0, 0, 0xCC, 0xCC});
  }
  InterlockedExchangePointer(reinterpret_cast<void* volatile*>(relay + 8), replacement);
}

// The 32-bit barrier relay: the stack is left exactly as the caller made it (the original and the
// replacement are stdcall, cdecl or thiscall alike), and eax, ecx and edx are kept.
void emit_barrier_relay_32(uint8_t* relay, HookRecord* record) {
  uint8_t* data = relay + 96;  // [enter function]
  const uintptr_t enter = reinterpret_cast<uintptr_t>(&kwindel_barrier_enter);
  std::memcpy(data, &enter, sizeof enter);
  CodeEmitter(relay, 96)
      .bytes({0x50, 0x50, 0x51, 0x52})                         // push eax (slot), eax, ecx, edx
      .bytes({0x8D, 0x44, 0x24, 0x10})                         // lea eax, [esp+16] (return slot)
      .bytes({0x50})                                           // push eax
      .byte(0x68).u32(address32(record))                       // push record
      .bytes({0xFF, 0x15}).u32(address32(data))                // call [enter] (cdecl)
      .bytes({0x83, 0xC4, 0x08})                               // add esp, 8
      .bytes({0x89, 0x44, 0x24, 0x0C})                         // mov [esp+12], eax (the slot)
      .bytes({0x5A, 0x59, 0x58, 0xC3});                        // pop edx, ecx, eax; ret (to it)
}

// A relay that asks kwindel_barrier_enter where to go (replacement or trampoline), keeping the
// argument registers: rcx, rdx, r8, r9 and xmm0-xmm3.
void emit_barrier_relay(uint8_t* relay, HookRecord* record) {
  if (kHostMode == Mode::k32) return emit_barrier_relay_32(relay, record);
  uint8_t* data = relay + 96;  // [record][enter function]
  std::memcpy(data, &record, sizeof record);
  const uintptr_t enter = reinterpret_cast<uintptr_t>(&kwindel_barrier_enter);
  std::memcpy(data + 8, &enter, sizeof enter);
  CodeEmitter(relay, 96)
      .bytes({0x51, 0x52, 0x41, 0x50, 0x41, 0x51})             // push rcx, rdx, r8, r9
      .bytes({0x48, 0x83, 0xEC, 0x68})                         // sub rsp, 0x68 (aligned again)
      .bytes({0xF3, 0x0F, 0x7F, 0x44, 0x24, 0x20})             // movdqu [rsp+0x20], xmm0
      .bytes({0xF3, 0x0F, 0x7F, 0x4C, 0x24, 0x30})             // movdqu [rsp+0x30], xmm1
      .bytes({0xF3, 0x0F, 0x7F, 0x54, 0x24, 0x40})             // movdqu [rsp+0x40], xmm2
      .bytes({0xF3, 0x0F, 0x7F, 0x5C, 0x24, 0x50})             // movdqu [rsp+0x50], xmm3
      .bytes({0x48, 0x8D, 0x94, 0x24, 0x88, 0, 0, 0})          // lea rdx, [rsp+0x88] (return slot)
      .bytes({0x48, 0x8B, 0x0D}).rip_to(data)                  // mov rcx, [record]
      .bytes({0xFF, 0x15}).rip_to(data + 8)                    // call [enter]
      .bytes({0xF3, 0x0F, 0x6F, 0x44, 0x24, 0x20})             // movdqu xmm0, [rsp+0x20]
      .bytes({0xF3, 0x0F, 0x6F, 0x4C, 0x24, 0x30})
      .bytes({0xF3, 0x0F, 0x6F, 0x54, 0x24, 0x40})
      .bytes({0xF3, 0x0F, 0x6F, 0x5C, 0x24, 0x50})
      .bytes({0x48, 0x83, 0xC4, 0x68})                         // add rsp, 0x68
      .bytes({0x41, 0x59, 0x41, 0x58, 0x5A, 0x59})             // pop r9, r8, rdx, rcx
      .bytes({0xFF, 0xE0});                                    // jmp rax
}

bool thread_listed(const HookRecord* record, DWORD thread) {
  const uint32_t count = record->acl_count;
  for (uint32_t i = 0; i < count && i < kMaxAcl; ++i) {
    if (record->acl[i] == thread) return true;
  }
  return false;
}

}  // namespace

extern "C" uintptr_t kwindel_barrier_enter(HookRecord* record, uintptr_t* return_slot) {
  const bool listed = thread_listed(record, GetCurrentThreadId());
  if (record->active && listed != record->acl_exclusive && enter_thread_barrier(record->barrier_index, return_slot)) {
    return reinterpret_cast<uintptr_t>(record->replacement);
  }
  return reinterpret_cast<uintptr_t>(record->trampoline);
}

namespace {

// Each relocation refusal and the hook status it becomes; the names are the relocator's except
// for a trampoline that does not fit.
constexpr struct {
  RelocateStatus relocate;
  HookStatus hook;
} kRelocateStatuses[] = {
    {RelocateStatus::kOk, HookStatus::kOk},
    {RelocateStatus::kUndecodable, HookStatus::kUndecodable},
    {RelocateStatus::kFunctionTooShort, HookStatus::kFunctionTooShort},
    {RelocateStatus::kBranchIntoPatch, HookStatus::kBranchIntoPatch},
    {RelocateStatus::kUnsupportedBranch, HookStatus::kUnsupportedBranch},
    {RelocateStatus::kRipOutOfRange, HookStatus::kRipOutOfRange},
    {RelocateStatus::kBufferTooSmall, HookStatus::kTrampolineTooLong},
    {RelocateStatus::kCallReturnsIntoPatch, HookStatus::kCallReturnsIntoPatch},
    {RelocateStatus::kCallIntoPatch, HookStatus::kCallIntoPatch},
};

HookStatus from_relocate(RelocateStatus status) {
  for (const auto& pair : kRelocateStatuses) {
    if (pair.relocate == status) return pair.hook;
  }
  return HookStatus::kUndecodable;
}

bool readable_protection(DWORD protect) {
  if (protect & (PAGE_GUARD | PAGE_NOACCESS)) return false;
  return (protect & (PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                     PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY)) != 0;
}

// How many bytes from `address` on can be read (at most kMaxRead), crossing into the next
// region when that one is readable too.
size_t readable_bytes(uint64_t address) {
  size_t total = 0;
  uint64_t at = address;
  while (total < kMaxRead) {
    MEMORY_BASIC_INFORMATION mbi;
    if (VirtualQuery(reinterpret_cast<void*>(at), &mbi, sizeof mbi) == 0) break;
    if (mbi.State != MEM_COMMIT || !readable_protection(mbi.Protect)) break;
    const uint64_t end = reinterpret_cast<uint64_t>(mbi.BaseAddress) + mbi.RegionSize;
    total += static_cast<size_t>(end - at);
    at = end;
  }
  return total < kMaxRead ? total : kMaxRead;
}

HookRecord* find_active(uint64_t target) {
  for (HookRecord* r = g_records; r != nullptr; r = r->next) {
    if (r->active && r->target == target) return r;
  }
  return nullptr;
}

// An unused record for the same target and kind whose trampoline still matches the code.
HookRecord* find_reusable(uint64_t target, const HookOptions& options, size_t readable) {
  for (HookRecord* r = g_records; r != nullptr; r = r->next) {
    if (r->active || r->target != target || r->barrier != options.barrier ||
        r->force_absolute != options.force_absolute || r->relocation.copied_length > readable) {
      continue;
    }
    if (std::memcmp(r->original, reinterpret_cast<const void*>(target), r->relocation.copied_length) == 0) return r;
  }
  return nullptr;
}

constexpr size_t kMaxBatch = 8;

struct MoveContext {
  const HookRecord* const* records;
  size_t count;
};

// A thread stopped inside the bytes about to be overwritten continues at the same instruction
// in the trampoline. One stopped at the very start may stay: it will take the new jump.
uint64_t move_out_of_patch(uint64_t rip, const void* context) {
  const MoveContext* moving = static_cast<const MoveContext*>(context);
  for (size_t i = 0; i < moving->count; ++i) {
    const HookRecord* record = moving->records[i];
    if (rip <= record->target || rip >= record->target + record->patch_size) continue;
    uint64_t moved = rip;
    const uint64_t trampoline = reinterpret_cast<uint64_t>(record->trampoline);
    return map_to_trampoline(record->relocation, record->target, trampoline, rip, &moved) ? moved : rip;
  }
  return rip;
}

// One change of code: `bytes` over the `size` bytes at `target`, provided they still hold
// `expected`. With `moved_for`, threads inside the overwritten range go to its trampoline.
struct CodeChange {
  uint64_t target;
  const uint8_t* expected;
  const uint8_t* bytes;
  size_t size;
  const HookRecord* moved_for;
};

// Makes `count` changes in order with every other thread frozen once, stopping at the first
// that cannot be made. Returns how many were made; *failure says why the next one was not.
size_t write_code(const CodeChange* changes, size_t count, HookStatus* failure) {
  *failure = HookStatus::kOk;
  DWORD old_protect[kMaxBatch];
  size_t writable = 0;
  // Made writable before freezing: changing protection may take locks other threads hold.
  for (; writable < count && writable < kMaxBatch; ++writable) {
    if (!VirtualProtect(reinterpret_cast<void*>(changes[writable].target), changes[writable].size,
                        PAGE_EXECUTE_READWRITE, &old_protect[writable])) {
      *failure = HookStatus::kProtectFailed;
      break;
    }
  }
  size_t written = 0;
  if (writable > 0) {
    ThreadFreeze freeze;
    const HookRecord* moved[kMaxBatch];
    size_t moved_count = 0;
    for (; written < writable; ++written) {
      const CodeChange& change = changes[written];
      void* at = reinterpret_cast<void*>(change.target);
      if (std::memcmp(at, change.expected, change.size) != 0) {
        *failure = HookStatus::kTargetChanged;
        break;
      }
      std::memcpy(at, change.bytes, change.size);
      FlushInstructionCache(GetCurrentProcess(), at, change.size);
      if (change.moved_for != nullptr) moved[moved_count++] = change.moved_for;
    }
    if (moved_count > 0) {
      const MoveContext context{moved, moved_count};
      freeze.move_instruction_pointers(&move_out_of_patch, &context);
    }
  }
  // In reverse, so that two changes on one page leave it as it was before the first.
  for (size_t i = writable; i-- > 0;) {
    DWORD ignored = 0;
    VirtualProtect(reinterpret_cast<void*>(changes[i].target), changes[i].size, old_protect[i], &ignored);
  }
  return written;
}

// A new record for `target`: relay and trampoline space (near the target when it can be had),
// the trampoline built, the patch bytes made; the record is not yet active. In a 32-bit process
// the space can be anywhere and the patch is always the near jump.
HookStatus new_record_locked(uint64_t target, size_t readable, const HookOptions& options, HookRecord** out) {
  constexpr bool k32 = kHostMode == Mode::k32;
  uint8_t* chunk = k32 ? nullptr : allocate_code_near(target, kChunkSize);
  const bool near_chunk = chunk != nullptr && rel32_reaches(target, kNearPatch, reinterpret_cast<uint64_t>(chunk));
  if (!near_chunk) chunk = allocate_code_anywhere(kChunkSize);
  if (chunk == nullptr) return HookStatus::kNoCodeMemory;
  const size_t patch_size = k32 || (near_chunk && !options.force_absolute) ? kNearPatch : kAbsolutePatch;
  if (readable < patch_size) return HookStatus::kUnreadableTarget;

  CodeWriteScope write(chunk, kChunkSize);
  if (!write.writable()) return HookStatus::kProtectFailed;
  uint8_t* trampoline = chunk + kRelaySpace;
  Relocation relocation;
  const RelocateStatus relocated =
      build_trampoline(reinterpret_cast<const uint8_t*>(target), readable, target, patch_size, trampoline,
                       kMaxTrampolineLength, reinterpret_cast<uintptr_t>(trampoline), &relocation, kHostMode);
  if (relocated != RelocateStatus::kOk) return from_relocate(relocated);  // the chunk stays for later hooks
  if (relocation.copied_length > sizeof(HookRecord::original)) return HookStatus::kTrampolineTooLong;
  if (options.barrier && g_barrier_count == kMaxBarrierHooks) return HookStatus::kTooManyHooks;

  HookRecord* record = static_cast<HookRecord*>(allocate_engine_data(sizeof(HookRecord)));
  if (record == nullptr) return HookStatus::kNoCodeMemory;
  record->target = target;
  record->relay = chunk;
  record->trampoline = trampoline;
  record->relocation = relocation;
  std::memcpy(record->original, reinterpret_cast<const void*>(target), relocation.copied_length);
  record->patch_size = static_cast<uint8_t>(patch_size);
  record->barrier = options.barrier;
  record->force_absolute = options.force_absolute;
  record->barrier_index = options.barrier ? g_barrier_count++ : 0;
  CodeEmitter patch(record->patch, sizeof(record->patch), target, kHostMode);
  if (patch_size == kNearPatch) {
    patch.byte(0xE9).rel32_to(reinterpret_cast<uint64_t>(chunk));
  } else {
    patch.jmp_absolute(reinterpret_cast<uint64_t>(chunk));
  }
  if (options.barrier) emit_barrier_relay(chunk, record);
  record->next = g_records;
  g_records = record;
  *out = record;
  return HookStatus::kOk;
}

// Everything of a hook but the patch itself: record, trampoline and relay written, the
// trampoline published in *variable and the record marked active.
HookStatus prepare_locked(void** variable, void* replacement, const HookOptions& options, HookRecord** out) {
  if (variable == nullptr || *variable == nullptr || replacement == nullptr) return HookStatus::kInvalidArgument;
  const uint64_t target = reinterpret_cast<uint64_t>(*variable);
  if (find_active(target) != nullptr) return HookStatus::kAlreadyHooked;
  // Fewer bytes than an absolute patch may still do for a near one: new_record_locked decides.
  const size_t readable = readable_bytes(target);
  if (readable < kNearPatch) return HookStatus::kUnreadableTarget;
  if (options.barrier && !prepare_thread_barrier()) return HookStatus::kNoCodeMemory;

  HookRecord* record = find_reusable(target, options, readable);
  if (record == nullptr) {
    const HookStatus made = new_record_locked(target, readable, options, &record);
    if (made != HookStatus::kOk) return made;
  }
  record->variable = variable;
  record->replacement = replacement;
  if (options.barrier) {
    record->acl_count = 0;  // as EasyHook: no thread is intercepted until an ACL is set
    record->acl_exclusive = false;
  } else {
    CodeWriteScope write(record->relay, kRelaySpace);
    if (!write.writable()) return HookStatus::kProtectFailed;
    emit_plain_relay(record->relay, replacement);
  }
  // The trampoline is published before the jump exists, so a replacement entered the moment the
  // patch lands already finds the way to the original.
  *variable = record->trampoline;
  record->active = true;
  *out = record;
  return HookStatus::kOk;
}

void unprepare(HookRecord* record) {
  record->active = false;
  *record->variable = reinterpret_cast<void*>(record->target);
}

size_t install_locked(const HookRequest* requests, size_t count, const HookOptions& options, HookRecord** records,
                      HookStatus* failure) {
  *failure = HookStatus::kOk;
  if (count > kMaxBatch) {
    *failure = HookStatus::kInvalidArgument;
    return 0;
  }
  HookRecord* prepared[kMaxBatch] = {};
  CodeChange changes[kMaxBatch] = {};
  size_t ready = 0;
  for (; ready < count; ++ready) {
    HookRecord* record = nullptr;
    const HookStatus status = prepare_locked(requests[ready].variable, requests[ready].replacement, options, &record);
    if (status != HookStatus::kOk) {
      *failure = status;
      break;
    }
    prepared[ready] = record;
    changes[ready] = CodeChange{record->target, record->original, record->patch, record->patch_size, record};
  }
  HookStatus write_failure = HookStatus::kOk;
  const size_t written = write_code(changes, ready, &write_failure);
  for (size_t i = written; i < ready; ++i) unprepare(prepared[i]);
  if (written < ready) *failure = write_failure;
  for (size_t i = 0; records != nullptr && i < written; ++i) records[i] = prepared[i];
  return written;
}

HookStatus remove_record_locked(HookRecord* record) {
  const CodeChange restore{record->target, record->patch, record->original, record->patch_size, nullptr};
  HookStatus failure = HookStatus::kOk;
  if (write_code(&restore, 1, &failure) != 1) {
    return failure == HookStatus::kTargetChanged ? HookStatus::kPatchNotOurs : failure;
  }
  // Threads still in the relay or trampoline finish there: both stay valid for ever, and a
  // barrier relay of an inactive hook sends every call to the original.
  record->active = false;
  *record->variable = reinterpret_cast<void*>(record->target);
  return HookStatus::kOk;
}

HookStatus remove_locked(void** variable) {
  if (variable == nullptr) return HookStatus::kInvalidArgument;
  for (HookRecord* r = g_records; r != nullptr; r = r->next) {
    if (r->active && r->variable == variable) return remove_record_locked(r);
  }
  return HookStatus::kNotHooked;
}

}  // namespace

const char* to_string(HookStatus status) {
  switch (status) {
    case HookStatus::kInvalidArgument: return "invalid argument";
    case HookStatus::kAlreadyHooked: return "already hooked";
    case HookStatus::kNotHooked: return "not hooked";
    case HookStatus::kUnreadableTarget: return "unreadable target";
    case HookStatus::kTrampolineTooLong: return "trampoline too long";
    case HookStatus::kNoCodeMemory: return "no code memory";
    case HookStatus::kTooManyHooks: return "too many hooks";
    case HookStatus::kProtectFailed: return "protect failed";
    case HookStatus::kTargetChanged: return "target changed";
    case HookStatus::kPatchNotOurs: return "patch not ours";
    default: break;
  }
  for (const auto& pair : kRelocateStatuses) {
    if (pair.hook == status) return to_string(pair.relocate);
  }
  return "?";
}

HookStatus install_hook(void** variable, void* replacement, const HookOptions& options, HookRecord** record) {
  const HookRequest request{variable, replacement};
  HookStatus status = HookStatus::kOk;
  install_hooks(&request, 1, &status, options, record);
  return status;
}

size_t install_hooks(const HookRequest* requests, size_t count, HookStatus* failure, const HookOptions& options,
                     HookRecord** records) {
  EngineLock lock;
  HookStatus status = HookStatus::kOk;
  const size_t installed = requests == nullptr ? 0 : install_locked(requests, count, options, records, &status);
  if (requests == nullptr && count > 0) status = HookStatus::kInvalidArgument;
  g_last_status = status;
  if (failure != nullptr) *failure = status;
  return installed;
}

HookStatus remove_hook(void** variable) {
  EngineLock lock;
  const HookStatus status = remove_locked(variable);
  g_last_status = status;
  return status;
}

bool set_hook(void** variable, void* replacement) { return install_hook(variable, replacement) == HookStatus::kOk; }
bool unhook(void** variable) { return remove_hook(variable) == HookStatus::kOk; }
HookStatus last_hook_status() { return g_last_status; }

HookStatus set_barrier_acl(HookRecord* record, const uint32_t* thread_ids, size_t count, bool exclusive) {
  if (record == nullptr || !record->barrier || count > kMaxAcl || (count > 0 && thread_ids == nullptr)) {
    return HookStatus::kInvalidArgument;
  }
  EngineLock lock;
  record->acl_count = 0;  // readers see an empty list while it changes
  for (size_t i = 0; i < count; ++i) record->acl[i] = thread_ids[i] == 0 ? GetCurrentThreadId() : thread_ids[i];
  record->acl_exclusive = exclusive;
  record->acl_count = static_cast<uint32_t>(count);
  return HookStatus::kOk;
}

size_t remove_all_barrier_hooks() {
  EngineLock lock;
  size_t removed = 0;
  for (HookRecord* r = g_records; r != nullptr; r = r->next) {
    if (r->active && r->barrier && remove_record_locked(r) == HookStatus::kOk) ++removed;
  }
  return removed;
}

bool barrier_active_on_this_thread(const HookRecord* record) {
  return record != nullptr && record->barrier && inside_thread_barrier(record->barrier_index);
}

bool describe_hook(const HookRecord* record, HookInfo* info) {
  if (record == nullptr || info == nullptr) return false;
  info->target = record->target;
  info->trampoline = reinterpret_cast<uint64_t>(record->trampoline);
  info->relay = reinterpret_cast<uint64_t>(record->relay);
  info->patch_size = record->patch_size;
  info->copied_length = record->relocation.copied_length;
  info->active = record->active;
  return true;
}

HookRecord* find_hook(uint64_t target) {
  EngineLock lock;
  return find_active(target);
}

}  // namespace hookengine
