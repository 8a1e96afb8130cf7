#include "hookengine/relocator.h"

#include <cstring>

#include "hookengine/code_emitter.h"
#include "hookengine/x64_decoder.h"

namespace hookengine {
namespace {

// How far the prologue is scanned for branches into the patched range.
constexpr size_t kScanLength = 64;

bool only_prefixes(const uint8_t* code, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (!is_legacy_prefix(code[i]) && (code[i] & 0xF0) != 0x40) return false;
  }
  return true;
}

bool is_padding(const Instruction& insn, const uint8_t* code) {
  if (insn.flow == FlowKind::kInt3) return true;
  const uint8_t op = code[insn.opcode_offset];
  if (insn.opcode_offset >= 1 && code[insn.opcode_offset - 1] == 0x0F && op == 0x1F &&
      only_prefixes(code, insn.opcode_offset - 1)) {
    // Multi-byte NOP 0F 1F /0, with any prefixes (GCC's 66 66 2E 0F 1F 84 00 ...).
    const uint8_t modrm = code[insn.opcode_offset + 1];
    return ((modrm >> 3) & 7) == 0;
  }
  // 90 (nop, also 66 90 / F3 90 pause), but not REX.B 90 which is xchg r8, rax.
  if (op == 0x90 && only_prefixes(code, insn.opcode_offset)) {
    for (size_t i = 0; i < insn.opcode_offset; ++i)
      if ((code[i] & 0xF0) == 0x40 && (code[i] & 1)) return false;
    return true;
  }
  return false;
}

// A call of the instruction right after it: 32-bit code's way of reading the instruction pointer.
bool calls_next(const Instruction& insn, const uint8_t* code, uint64_t address) {
  return insn.branch == BranchKind::kCallRel32 && branch_target(insn, code, address) == address + insn.length;
}

// Relative branches in the first bytes of the function that land strictly inside the patched
// range (a branch to the very start stays valid: the start holds the patch's jump). In 32-bit
// mode a call there has a status of its own, and a call of its next instruction is rebuilt.
RelocateStatus branches_into(const uint8_t* target, size_t readable, uint64_t target_address,
                             size_t copied_length, Mode mode) {
  size_t pos = 0;
  const size_t limit = readable < kScanLength ? readable : kScanLength;
  bool ended = false;  // a ret/jmp was seen: stop at the padding that marks the function's end
  while (pos < limit) {
    Instruction insn;
    if (!decode(target + pos, readable - pos, &insn, mode)) break;
    if (ended && is_padding(insn, target + pos)) break;
    if (insn.branch != BranchKind::kNone) {
      const uint64_t dest = branch_target(insn, target + pos, target_address + pos);
      const bool call = mode == Mode::k32 && insn.branch == BranchKind::kCallRel32;
      if (dest > target_address && dest < target_address + copied_length &&
          !(call && calls_next(insn, target + pos, target_address + pos)))
        return call ? RelocateStatus::kCallIntoPatch : RelocateStatus::kBranchIntoPatch;
    }
    if (insn.flow != FlowKind::kNormal) ended = true;
    pos += insn.length;
  }
  return RelocateStatus::kOk;
}

// Opcodes whose ModRM reg field extends the opcode (/digit) instead of naming a register.
bool reg_field_is_opcode(bool one_byte, bool two_byte, uint8_t op) {
  if (one_byte) {
    return op == 0x80 || op == 0x81 || op == 0x83 || op == 0xC0 || op == 0xC1 || op == 0xC6 ||
           op == 0xC7 || (op >= 0xD0 && op <= 0xD3) || op == 0xF6 || op == 0xF7 || op == 0xFE ||
           op == 0xFF;
  }
  return two_byte && (op == 0x00 || op == 0x01 || op == 0x0D || (op >= 0x18 && op <= 0x1F) ||
                      op == 0xAE || op == 0xBA || op == 0xC7);
}

// A RIP-relative operand the trampoline's disp32 cannot reach, for legacy-encoded instructions
// (no VEX/EVEX/XOP) that neither transfer control nor touch the stack:
//   lea r32/r64, [rip+x]  ->  mov r, imm (the address itself)
//   anything else         ->  push rsi; mov rsi, imm64; <the instruction on [rsi]>; pop rsi
// (rdi instead of rsi when the ModRM reg field names rsi). push/mov/pop leave the flags alone,
// and below rsp is free at this point on x64 Windows (no red zone to preserve).
RelocateStatus relocate_far_rip(const Instruction& insn, const uint8_t* code, uint64_t dest,
                                CodeEmitter* e) {
  size_t first = 0;  // first opcode byte
  while (first < insn.opcode_offset && is_legacy_prefix(code[first])) ++first;
  uint8_t rex = 0;
  if (first < insn.opcode_offset && (code[first] & 0xF0) == 0x40) rex = code[first++];
  const uint8_t op0 = code[first];
  if (op0 == 0xC4 || op0 == 0xC5 || op0 == 0x62 || op0 == 0x8F)
    return RelocateStatus::kRipOutOfRange;
  for (size_t i = first; i < insn.opcode_offset; ++i)  // only escape bytes between REX and opcode
    if (code[i] != 0x0F && code[i] != 0x38 && code[i] != 0x3A)
      return RelocateStatus::kRipOutOfRange;
  if (insn.flow != FlowKind::kNormal) return RelocateStatus::kRipOutOfRange;
  const uint8_t op = code[insn.opcode_offset];
  const bool one_byte = insn.opcode_offset == first;
  const uint8_t modrm_at = static_cast<uint8_t>(insn.opcode_offset + 1);
  if (modrm_at >= insn.length || insn.disp_offset != modrm_at + 1)
    return RelocateStatus::kRipOutOfRange;
  const uint8_t modrm = code[modrm_at];
  const unsigned reg = ((modrm >> 3) & 7) | ((rex & 0x04) ? 8 : 0);
  // call/push through memory and pop into memory move rsp; a reg field naming rsp might too.
  if (one_byte && op == 0xFF && (reg & 7) >= 2) return RelocateStatus::kRipOutOfRange;
  if (one_byte && op == 0x8F) return RelocateStatus::kRipOutOfRange;
  const bool two_byte = insn.opcode_offset == first + 1;  // 0F xx
  if (reg == 4 && !reg_field_is_opcode(one_byte, two_byte, op))
    return RelocateStatus::kRipOutOfRange;
  const bool opsize = std::memchr(code, 0x66, first) != nullptr;

  if (one_byte && op == 0x8D && !opsize) {
    if (rex & 0x08) {
      e->byte(static_cast<uint8_t>(0x48 | (reg >> 3)));
      e->byte(static_cast<uint8_t>(0xB8 | (reg & 7)));
      e->u64(dest);
    } else {
      if (reg >= 8) e->byte(0x41);
      e->byte(static_cast<uint8_t>(0xB8 | (reg & 7)));
      e->u32(static_cast<uint32_t>(dest));
    }
    return RelocateStatus::kOk;
  }
  const uint8_t scratch = reg == 6 ? 7 : 6;  // rsi, or rdi
  e->byte(static_cast<uint8_t>(0x50 | scratch));
  e->byte(0x48);
  e->byte(static_cast<uint8_t>(0xB8 | scratch));
  e->u64(dest);
  e->bytes(code, first - (rex ? 1 : 0));                // legacy prefixes
  if (rex) e->byte(static_cast<uint8_t>(rex & ~0x03));  // X and B meant nothing with RIP
  e->bytes(code + first, insn.opcode_offset + 1 - first);
  e->byte(static_cast<uint8_t>((modrm & 0x38) | scratch));  // mod 00, rm = scratch: [rsi]/[rdi]
  e->bytes(code + insn.disp_offset + 4, insn.length - (insn.disp_offset + 4));  // immediate
  e->byte(static_cast<uint8_t>(0x58 | scratch));
  return RelocateStatus::kOk;
}

// E8 rel32, or FF /2 and FF /3 (call through memory or a register): pushes a return address.
bool is_call(const Instruction& insn, const uint8_t* code) {
  if (insn.branch == BranchKind::kCallRel32) return true;
  const size_t op = insn.opcode_offset;
  if (code[op] != 0xFF || insn.flow == FlowKind::kUndefined || op + 1 >= insn.length) return false;
  const unsigned reg = (code[op + 1] >> 3) & 7;
  return reg == 2 || reg == 3;
}

// A RIP-relative operand keeps its address: a new disp32 when it reaches, else a rebuilt form.
RelocateStatus relocate_rip(const Instruction& insn, const uint8_t* code, uint64_t address, CodeEmitter* e) {
  if (insn.address_size_prefix) return RelocateStatus::kUnsupportedBranch;  // EIP-relative
  const uint64_t dest = rip_relative_target(insn, code, address);
  if (e->copy_retargeted(code, insn.length, insn.disp_offset, dest)) return RelocateStatus::kOk;
  return relocate_far_rip(insn, code, dest, e);
}

// A relative branch keeps its target: rel32 when it reaches, else an absolute form.
RelocateStatus relocate_branch(const Instruction& insn, const uint8_t* code, uint64_t address, CodeEmitter* e) {
  // A 66 prefix makes the branch width vendor-dependent: refuse rather than guess.
  if (insn.operand_size_prefix) return RelocateStatus::kUnsupportedBranch;
  const uint64_t dest = branch_target(insn, code, address);
  const uint8_t op = code[insn.opcode_offset];
  switch (insn.branch) {
    case BranchKind::kCallRel32:
      if (insn.mode == Mode::k32) {
        // push <the original return address>; jmp dest (none when that is the next instruction).
        // A call kept is the last copied instruction, so the callee returns straight to where the
        // jump back would lead, and code reading its return address (call $+5; pop reg, a call of
        // a pc thunk) gets the original one.
        const uint64_t next = (address + insn.length) & 0xFFFFFFFFu;
        e->byte(0x68).u32(static_cast<uint32_t>(next));
        if (dest != next) e->jmp(dest);
      } else if (e->reaches(e->here() + 5, dest)) {
        e->byte(0xE8).rel32_to(dest);
      } else {
        // call [rip+2]; jmp +8; dq dest  (the call returns to the short jmp over the address)
        e->bytes({0xFF, 0x15, 0x02, 0, 0, 0, 0xEB, 0x08}).u64(dest);
      }
      return RelocateStatus::kOk;
    case BranchKind::kJmpRel8:
    case BranchKind::kJmpRel32: e->jmp(dest); return RelocateStatus::kOk;
    case BranchKind::kJccRel8:
    case BranchKind::kJccRel32: {
      const uint8_t cc = op & 0x0F;
      if (e->reaches(e->here() + 6, dest)) {
        e->bytes({0x0F, static_cast<uint8_t>(0x80 | cc)}).rel32_to(dest);
      } else {
        // Inverted short Jcc over an absolute jmp.
        e->bytes({static_cast<uint8_t>(0x70 | (cc ^ 1)), 14}).jmp_absolute(dest);
      }
      return RelocateStatus::kOk;
    }
    case BranchKind::kLoop:
    case BranchKind::kJrcxz: {
      // loop/jrcxz +2 (taken: to the far jmp); jmp short over it (not taken); jmp dest.
      // Prefixes are kept: 67 selects ECX.
      e->bytes(code, insn.opcode_offset).bytes({op, 2});
      const size_t far_length = e->jmp_length(e->here() + 2, dest);
      e->bytes({0xEB, static_cast<uint8_t>(far_length)}).jmp(dest);
      return RelocateStatus::kOk;
    }
    case BranchKind::kXbegin:  // the abort target is a rel32 like any other
      return e->copy_retargeted(code, insn.length, insn.rel_offset, dest) ? RelocateStatus::kOk
                                                                         : RelocateStatus::kUnsupportedBranch;
    case BranchKind::kNone: break;
  }
  return RelocateStatus::kUnsupportedBranch;
}

RelocateStatus relocate_one(const Instruction& insn, const uint8_t* code, uint64_t address, CodeEmitter* e) {
  if (insn.rip_relative) return relocate_rip(insn, code, address, e);
  if (insn.branch != BranchKind::kNone) return relocate_branch(insn, code, address, e);
  e->bytes(code, insn.length);
  return RelocateStatus::kOk;
}

}  // namespace

const char* to_string(RelocateStatus status) {
  switch (status) {
    case RelocateStatus::kOk: return "ok";
    case RelocateStatus::kUndecodable: return "undecodable";
    case RelocateStatus::kFunctionTooShort: return "function too short";
    case RelocateStatus::kBranchIntoPatch: return "branch into patch";
    case RelocateStatus::kUnsupportedBranch: return "unsupported branch";
    case RelocateStatus::kRipOutOfRange: return "rip-relative out of range";
    case RelocateStatus::kBufferTooSmall: return "buffer too small";
    case RelocateStatus::kCallReturnsIntoPatch: return "call returns into patch";
    case RelocateStatus::kCallIntoPatch: return "call into patch";
  }
  return "unknown";
}

RelocateStatus build_trampoline(const uint8_t* target, size_t readable, uint64_t target_address,
                                size_t patch_size, uint8_t* out, size_t out_capacity,
                                uint64_t out_address, Relocation* result, Mode mode) {
  if (target == nullptr || out == nullptr || result == nullptr || patch_size == 0)
    return RelocateStatus::kUndecodable;
  Relocation r;
  uint8_t buffer[kMaxTrampolineLength];  // the caller's memory is written only once all fits
  CodeEmitter e(buffer, sizeof(buffer), out_address, mode);

  // Whole instructions covering the patch; past a ret/jmp/int3 only padding may follow.
  size_t pos = 0;
  bool ended = false;
  while (pos < patch_size) {
    Instruction insn;
    if (!decode(target + pos, readable > pos ? readable - pos : 0, &insn, mode))
      return ended ? RelocateStatus::kFunctionTooShort : RelocateStatus::kUndecodable;
    if (ended && !is_padding(insn, target + pos)) return RelocateStatus::kFunctionTooShort;
    if (r.boundary_count >= sizeof(r.original_offsets)) return RelocateStatus::kBufferTooSmall;
    // (A rebuilt call of the next instruction pushes its address and never returns there.)
    if (pos + insn.length < patch_size && is_call(insn, target + pos) &&
        !(mode == Mode::k32 && calls_next(insn, target + pos, target_address + pos)))
      return RelocateStatus::kCallReturnsIntoPatch;
    r.original_offsets[r.boundary_count] = static_cast<uint8_t>(pos);
    r.trampoline_offsets[r.boundary_count] = static_cast<uint8_t>(e.size());
    ++r.boundary_count;
    const RelocateStatus s = relocate_one(insn, target + pos, target_address + pos, &e);
    if (s != RelocateStatus::kOk) return s;
    if (insn.flow != FlowKind::kNormal) ended = true;
    pos += insn.length;
  }
  r.copied_length = pos;
  const RelocateStatus into = branches_into(target, readable, target_address, r.copied_length, mode);
  if (into != RelocateStatus::kOk) return into;
  e.jmp(target_address + r.copied_length);
  if (e.overflow() || e.size() > out_capacity) return RelocateStatus::kBufferTooSmall;
  std::memcpy(out, buffer, e.size());
  r.trampoline_length = e.size();
  *result = r;
  return RelocateStatus::kOk;
}

bool map_to_trampoline(const Relocation& relocation, uint64_t target_address, uint64_t out_address,
                       uint64_t ip, uint64_t* moved_ip) {
  if (ip < target_address || ip >= target_address + relocation.copied_length) return false;
  const uint64_t offset = ip - target_address;
  for (uint8_t i = 0; i < relocation.boundary_count; ++i) {
    if (relocation.original_offsets[i] == offset) {
      *moved_ip = out_address + relocation.trampoline_offsets[i];
      return true;
    }
  }
  return false;
}

}  // namespace hookengine
