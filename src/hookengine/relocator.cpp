#include "hookengine/relocator.h"

#include <cstring>

#include "hookengine/x64_decoder.h"

namespace hookengine {
namespace {

// How far the prologue is scanned for branches into the patched range.
constexpr size_t kScanLength = 64;

bool fits_rel32(int64_t delta) { return delta >= INT32_MIN && delta <= INT32_MAX; }

// Trampoline under construction in a local buffer: the caller's memory is written only once the
// whole trampoline is known to be valid and to fit.
struct Emitter {
  uint8_t buf[kMaxTrampolineLength];
  size_t len = 0;
  uint64_t base = 0;  // runtime address of buf[0]
  bool overflow = false;

  uint64_t here() const { return base + len; }
  void bytes(const uint8_t* p, size_t n) {
    if (overflow || n > sizeof(buf) - len) {
      overflow = true;
      return;
    }
    std::memcpy(buf + len, p, n);
    len += n;
  }
  void byte(uint8_t b) { bytes(&b, 1); }
  void u32(uint32_t v) {
    uint8_t p[4];
    std::memcpy(p, &v, 4);
    bytes(p, 4);
  }
  void u64(uint64_t v) {
    uint8_t p[8];
    std::memcpy(p, &v, 8);
    bytes(p, 8);
  }
  // jmp to `target`: E9 rel32 when it reaches, else jmp [rip+0] followed by the address.
  void jmp(uint64_t target) {
    const int64_t delta = static_cast<int64_t>(target - (here() + 5));
    if (fits_rel32(delta)) {
      byte(0xE9);
      u32(static_cast<uint32_t>(delta));
    } else {
      jmp_absolute(target);
    }
  }
  void jmp_absolute(uint64_t target) {
    const uint8_t op[] = {0xFF, 0x25, 0, 0, 0, 0};
    bytes(op, sizeof(op));
    u64(target);
  }
  static size_t jmp_length(int64_t delta_from_end_of_rel32) {
    return fits_rel32(delta_from_end_of_rel32) ? 5 : 14;
  }
};

bool only_prefixes(const uint8_t* code, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    const uint8_t b = code[i];
    const bool legacy = b == 0x66 || b == 0x67 || b == 0xF2 || b == 0xF3 || b == 0x2E ||
                        b == 0x3E || b == 0x26 || b == 0x36 || b == 0x64 || b == 0x65;
    if (!legacy && (b & 0xF0) != 0x40) return false;
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

// Relative branches in the first bytes of the function that land strictly inside the patched
// range (a branch to the very start stays valid: the start holds the patch's jump).
bool branches_into(const uint8_t* target, size_t readable, uint64_t target_address,
                   size_t copied_length) {
  size_t pos = 0;
  const size_t limit = readable < kScanLength ? readable : kScanLength;
  bool ended = false;  // a ret/jmp was seen: stop at the padding that marks the function's end
  while (pos < limit) {
    Instruction insn;
    if (!decode(target + pos, readable - pos, &insn)) break;
    if (ended && is_padding(insn, target + pos)) break;
    if (insn.branch != BranchKind::kNone) {
      const uint64_t dest = branch_target(insn, target + pos, target_address + pos);
      if (dest > target_address && dest < target_address + copied_length) return true;
    }
    if (insn.flow != FlowKind::kNormal) ended = true;
    pos += insn.length;
  }
  return false;
}

bool is_legacy_prefix(uint8_t b) {
  return b == 0x66 || b == 0x67 || b == 0xF2 || b == 0xF3 || b == 0xF0 || b == 0x2E || b == 0x3E ||
         b == 0x26 || b == 0x36 || b == 0x64 || b == 0x65;
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
                                Emitter* e) {
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

RelocateStatus relocate_one(const Instruction& insn, const uint8_t* code, uint64_t address,
                            Emitter* e) {
  if (insn.rip_relative) {
    if (insn.address_size_prefix) return RelocateStatus::kUnsupportedBranch;  // EIP-relative
    const uint64_t dest = rip_relative_target(insn, code, address);
    const int64_t disp = static_cast<int64_t>(dest - (e->here() + insn.length));
    if (!fits_rel32(disp)) return relocate_far_rip(insn, code, dest, e);
    uint8_t copy[16];
    std::memcpy(copy, code, insn.length);
    const uint32_t d32 = static_cast<uint32_t>(disp);
    std::memcpy(copy + insn.disp_offset, &d32, 4);
    e->bytes(copy, insn.length);
    return RelocateStatus::kOk;
  }
  if (insn.branch == BranchKind::kNone) {
    e->bytes(code, insn.length);
    return RelocateStatus::kOk;
  }
  // A 66 prefix makes the branch width vendor-dependent: refuse rather than guess.
  if (insn.operand_size_prefix) return RelocateStatus::kUnsupportedBranch;
  const uint64_t dest = branch_target(insn, code, address);
  const uint8_t op = code[insn.opcode_offset];
  switch (insn.branch) {
    case BranchKind::kCallRel32: {
      const int64_t delta = static_cast<int64_t>(dest - (e->here() + 5));
      if (fits_rel32(delta)) {
        e->byte(0xE8);
        e->u32(static_cast<uint32_t>(delta));
      } else {
        // call [rip+2]; jmp +8; dq dest  (the call returns to the short jmp over the address)
        const uint8_t seq[] = {0xFF, 0x15, 0x02, 0, 0, 0, 0xEB, 0x08};
        e->bytes(seq, sizeof(seq));
        e->u64(dest);
      }
      return RelocateStatus::kOk;
    }
    case BranchKind::kJmpRel8:
    case BranchKind::kJmpRel32: e->jmp(dest); return RelocateStatus::kOk;
    case BranchKind::kJccRel8:
    case BranchKind::kJccRel32: {
      const uint8_t cc = op & 0x0F;
      const int64_t delta = static_cast<int64_t>(dest - (e->here() + 6));
      if (fits_rel32(delta)) {
        e->byte(0x0F);
        e->byte(static_cast<uint8_t>(0x80 | cc));
        e->u32(static_cast<uint32_t>(delta));
      } else {
        // Inverted short Jcc over an absolute jmp.
        e->byte(static_cast<uint8_t>(0x70 | (cc ^ 1)));
        e->byte(14);
        e->jmp_absolute(dest);
      }
      return RelocateStatus::kOk;
    }
    case BranchKind::kLoop:
    case BranchKind::kJrcxz: {
      // loop/jrcxz +2 (taken: to the far jmp); jmp short over it (not taken); jmp dest.
      // Prefixes are kept: 67 selects ECX.
      e->bytes(code, insn.opcode_offset);
      e->byte(op);
      e->byte(2);
      const uint64_t far_jmp_at = e->here() + 2;
      const size_t far_len = Emitter::jmp_length(static_cast<int64_t>(dest - (far_jmp_at + 5)));
      e->byte(0xEB);
      e->byte(static_cast<uint8_t>(far_len));
      e->jmp(dest);
      return RelocateStatus::kOk;
    }
    case BranchKind::kXbegin: {
      // The abort target is a rel32 like any other: re-target it when it reaches.
      const int64_t disp = static_cast<int64_t>(dest - (e->here() + insn.length));
      if (!fits_rel32(disp)) return RelocateStatus::kUnsupportedBranch;
      uint8_t copy[16];
      std::memcpy(copy, code, insn.length);
      const uint32_t d32 = static_cast<uint32_t>(disp);
      std::memcpy(copy + insn.rel_offset, &d32, 4);
      e->bytes(copy, insn.length);
      return RelocateStatus::kOk;
    }
    case BranchKind::kNone: break;
  }
  return RelocateStatus::kUnsupportedBranch;
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
  }
  return "unknown";
}

RelocateStatus build_trampoline(const uint8_t* target, size_t readable, uint64_t target_address,
                                size_t patch_size, uint8_t* out, size_t out_capacity,
                                uint64_t out_address, Relocation* result) {
  if (target == nullptr || out == nullptr || result == nullptr || patch_size == 0)
    return RelocateStatus::kUndecodable;
  Relocation r;
  Emitter e;
  e.base = out_address;

  // Whole instructions covering the patch; past a ret/jmp/int3 only padding may follow.
  size_t pos = 0;
  bool ended = false;
  while (pos < patch_size) {
    Instruction insn;
    if (!decode(target + pos, readable > pos ? readable - pos : 0, &insn))
      return ended ? RelocateStatus::kFunctionTooShort : RelocateStatus::kUndecodable;
    if (ended && !is_padding(insn, target + pos)) return RelocateStatus::kFunctionTooShort;
    if (r.boundary_count >= sizeof(r.original_offsets)) return RelocateStatus::kBufferTooSmall;
    if (pos + insn.length < patch_size && is_call(insn, target + pos)) return RelocateStatus::kCallReturnsIntoPatch;
    r.original_offsets[r.boundary_count] = static_cast<uint8_t>(pos);
    r.trampoline_offsets[r.boundary_count] = static_cast<uint8_t>(e.len);
    ++r.boundary_count;
    const RelocateStatus s = relocate_one(insn, target + pos, target_address + pos, &e);
    if (s != RelocateStatus::kOk) return s;
    if (insn.flow != FlowKind::kNormal) ended = true;
    pos += insn.length;
  }
  r.copied_length = pos;
  if (branches_into(target, readable, target_address, r.copied_length))
    return RelocateStatus::kBranchIntoPatch;
  e.jmp(target_address + r.copied_length);
  if (e.overflow || e.len > out_capacity) return RelocateStatus::kBufferTooSmall;
  std::memcpy(out, e.buf, e.len);
  r.trampoline_length = e.len;
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
