// Inline hooks: the start of a function is overwritten with a jump to a relay in the engine's
// own pages, which enters the replacement; the original stays callable through a trampoline.
// Patches are written with every other thread suspended and confirmed stopped; a thread stopped
// inside the overwritten bytes continues in the trampoline. Threads created during a freeze are
// frozen too when a further walk of the threads finds them; why a later one cannot reach a target
// being written is told in thread_freeze.h. Relays, trampolines and records are never freed.
#pragma once
#include <cstddef>
#include <cstdint>

namespace hookengine {

// Why a set-hook or unhook did what it did. One value per cause of failure.
enum class HookStatus : uint8_t {
  kOk,
  kInvalidArgument,    // null variable, null target or null replacement
  kAlreadyHooked,      // the target already carries an active hook of this engine
  kNotHooked,          // unhook: the variable is not one this engine hooked, or was unhooked
  kUnreadableTarget,   // the target's bytes are not committed, readable memory
  kUndecodable,        // an instruction at the target does not decode
  kFunctionTooShort,   // the function ends before the patch does (ret/jmp/int3, no padding)
  kBranchIntoPatch,    // a branch in the function's first bytes lands inside the patch
  kUnsupportedBranch,  // a relative branch form that cannot be moved into the trampoline
  kRipOutOfRange,      // a RIP-relative operand cannot be reached from the trampoline
  kTrampolineTooLong,  // the relocated instructions do not fit the trampoline space
  kNoCodeMemory,       // no memory for the relay and trampoline could be had
  kTooManyHooks,       // the table of per-thread barrier hooks is full
  kProtectFailed,      // the target's page could not be made writable
  kTargetChanged,      // the target's bytes changed between reading and patching; nothing written
  kPatchNotOurs,       // unhook: the target no longer holds this engine's patch; code left alone
  kCallReturnsIntoPatch,  // a call among the covered bytes would return into the middle of the
                          // patch (a thread blocked in that call would resume inside the jump)
  kCallIntoPatch,  // 32-bit: a call in the function's first bytes lands inside the moved bytes
                   // (a call of its own next instruction, call $+5; pop reg, is rebuilt instead)
};
const char* to_string(HookStatus status);

// In a 32-bit process the patch is always the 5-byte jmp rel32, which reaches every address; relays
// and trampolines keep the stack as the caller made it (stdcall callees pop their arguments).
struct HookOptions {
  // Always patch with the 14-byte absolute jump, even when a near relay could be had (64-bit only).
  bool force_absolute = false;
  // Per-thread, per-hook barrier: while a thread runs this hook's replacement, its further calls
  // of the hooked function go to the original; which threads are intercepted is set by
  // set_barrier_acl (none until then).
  bool barrier = false;
};

struct HookRecord;  // one per hooked target, kept for the process's life

// Patches the code at *variable so that calls reach `replacement`, then stores in *variable the
// trampoline through which the original behaviour stays callable. Nothing is written on failure.
HookStatus install_hook(void** variable, void* replacement, const HookOptions& options = HookOptions(),
                        HookRecord** record = nullptr);

struct HookRequest {
  void** variable;
  void* replacement;
};
// Installs up to 8 hooks in order, as install_hook each, with the other threads frozen once for
// all of them. Stops at the first failure: the hooks before it stay installed, the later ones
// are not attempted. Returns how many were installed; *failure (optional) says why the next one
// was not (kOk when all were); records[i] (optional) receives each installed hook's record.
size_t install_hooks(const HookRequest* requests, size_t count, HookStatus* failure,
                     const HookOptions& options = HookOptions(), HookRecord** records = nullptr);

// Restores the original bytes and *variable, provided the patch at the target is still ours.
HookStatus remove_hook(void** variable);

// The boolean contract the set-up uses; last_hook_status() tells why the last call failed.
bool set_hook(void** variable, void* replacement);
bool unhook(void** variable);
HookStatus last_hook_status();

// Barrier hooks: which threads reach the replacement. exclusive: every thread except those
// listed; otherwise only those listed. Thread id 0 means the calling thread. At most 128 ids.
HookStatus set_barrier_acl(HookRecord* record, const uint32_t* thread_ids, size_t count, bool exclusive);
// Removes every barrier hook still installed (results per hook ignored); returns how many.
size_t remove_all_barrier_hooks();
// The per-thread barrier state is never freed as a whole: its index stays allocated for the
// process's life and each thread's state is freed when that thread ends (by a destructor in the
// engine's own pages), so a thread entering or leaving a hooked function while the hooks go never
// reads freed state.
// True when the calling thread is inside the replacement of `record` (for tests).
bool barrier_active_on_this_thread(const HookRecord* record);

// Details of a hook, for tests and diagnostics.
struct HookInfo {
  uint64_t target = 0;
  uint64_t trampoline = 0;
  uint64_t relay = 0;
  size_t patch_size = 0;     // 5 (near relay, always in 32-bit) or 14 (absolute jump)
  size_t copied_length = 0;  // whole instructions moved into the trampoline
  bool active = false;
};
bool describe_hook(const HookRecord* record, HookInfo* info);
// The record of the active hook at `target`, or null.
HookRecord* find_hook(uint64_t target);

}  // namespace hookengine
