// Builds the trampoline of an inline hook: the whole instructions covered by the patch, relocated
// to run at another address, followed by a jump back to the rest of the original function.
// Plain portable C++ (no Windows headers), so it also builds natively for reference checks.
#pragma once
#include <cstddef>
#include <cstdint>

#include "hookengine/x64_decoder.h"

namespace hookengine {

enum class RelocateStatus : uint8_t {
  kOk,
  kUndecodable,  // an instruction in the copied range (or the scanned prologue) does not decode
  kFunctionTooShort,   // ret/jmp/int3 ends the function before the patch does, and no padding
                       // follows
  kBranchIntoPatch,    // a relative branch in the function's first bytes lands inside the patch
  kUnsupportedBranch,  // a relative branch form that cannot be relocated
  kRipOutOfRange,      // a RIP-relative operand out of disp32 reach, in a form with no rebuild
                       // (jmp/call/push/pop through memory, an rsp operand, VEX/EVEX/XOP)
  kBufferTooSmall,     // the trampoline does not fit in out_capacity
  kCallReturnsIntoPatch,  // a call ends inside the patch: its return address would point into
                          // the middle of the jump written over it
  kCallIntoPatch,  // 32-bit: a call among the function's first bytes lands inside the copied
                   // bytes (other than its own next instruction, which is rebuilt)
};
const char* to_string(RelocateStatus status);

struct Relocation {
  size_t copied_length = 0;  // bytes of whole instructions taken from the target (>= patch_size)
  size_t trampoline_length = 0;  // bytes written to the trampoline, jump back included
  uint8_t boundary_count = 0;    // instruction boundaries, for moving frozen threads
  // original_offsets[i] (in the target) corresponds to trampoline_offsets[i]; the first pair is
  // (0, 0), and every copied instruction's start has one entry.
  uint8_t original_offsets[16] = {};
  uint8_t trampoline_offsets[16] = {};
};

// Longest trampoline build_trampoline can produce for a patch of at most 14 bytes (worst case:
// every copied instruction a Jcc/call needing the absolute form, plus the 14-byte jump back).
constexpr size_t kMaxTrampolineLength = 256;

// Builds in `out` (runtime address out_address, out_capacity bytes) the trampoline for a patch of
// patch_size bytes at `target` (runtime address target_address; `readable` bytes may be read):
// the covered instructions relocated, then a jump back to target_address + copied_length.
// Relative branches keep their targets (rel32 when it reaches, else absolute forms); RIP-relative
// operands keep their addresses (new disp32, or beyond its reach lea -> mov imm and other
// instructions rebuilt on [rsi]/[rdi] loaded with the address, that register saved around them).
// In 32-bit mode every rel32 reaches, and a call becomes push <its original return address>; jmp
// <its target> (no jmp for a call of its own next instruction): the callee returns into the
// original code, and code that reads its return address (call $+5; pop reg, a call of a pc thunk)
// gets the original one.
// Writes nothing to `out` or `result` unless it succeeds, and never past out_capacity.
RelocateStatus build_trampoline(const uint8_t* target, size_t readable, uint64_t target_address,
                                size_t patch_size, uint8_t* out, size_t out_capacity,
                                uint64_t out_address, Relocation* result, Mode mode = Mode::k64);

// Maps an instruction pointer inside the copied original bytes to the matching trampoline
// address (threads frozen at an instruction boundary are moved there). Returns false when `ip`
// is not at a copied instruction's boundary.
bool map_to_trampoline(const Relocation& relocation, uint64_t target_address, uint64_t out_address,
                       uint64_t ip, uint64_t* moved_ip);

}  // namespace hookengine
