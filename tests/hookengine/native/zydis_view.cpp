#include "zydis_view.h"

#include <Zydis/Zydis.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "hookengine/x64_decoder.h"

using namespace hookengine;

namespace {

struct RefInsn {
  ZydisDecodedInstruction insn{};
  ZydisDecodedOperand ops[ZYDIS_MAX_OPERAND_COUNT]{};
  int rip_operand = -1;  // index of the [rip+disp32] / [eip+disp32] memory operand
  int rel_operand = -1;  // index of the relative immediate
  int abs_operand = -1;  // index of a memory operand with neither base nor index
};

Mode g_mode = Mode::k64;  // of the comparison under way: the oracle decodes in it

bool ref_decode(const uint8_t* code, size_t available, RefInsn* out) {
  static ZydisDecoder decoder64, decoder32;
  static const bool ready = ZYAN_SUCCESS(ZydisDecoderInit(&decoder64, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64)) &&
      ZYAN_SUCCESS(ZydisDecoderInit(&decoder32, ZYDIS_MACHINE_MODE_LEGACY_32, ZYDIS_STACK_WIDTH_32));
  const ZydisDecoder* decoder = g_mode == Mode::k64 ? &decoder64 : &decoder32;
  *out = RefInsn{};
  if (!ready || !ZYAN_SUCCESS(ZydisDecoderDecodeFull(decoder, code, available, &out->insn, out->ops))) return false;
  for (int i = 0; i < out->insn.operand_count; ++i) {
    const ZydisDecodedOperand& op = out->ops[i];
    if (op.type == ZYDIS_OPERAND_TYPE_MEMORY && (op.mem.base == ZYDIS_REGISTER_RIP || op.mem.base == ZYDIS_REGISTER_EIP))
      out->rip_operand = i;
    if (op.type == ZYDIS_OPERAND_TYPE_IMMEDIATE && op.imm.is_relative) out->rel_operand = i;
    if (op.type == ZYDIS_OPERAND_TYPE_MEMORY && op.mem.base == ZYDIS_REGISTER_NONE && op.mem.index == ZYDIS_REGISTER_NONE)
      out->abs_operand = i;
  }
  return true;
}

// Zydis leaves a 32-bit mode target unwrapped; the processor wraps it at 4 GB.
uint64_t ref_address(const RefInsn& r, int operand, uint64_t runtime_address) {
  ZyanU64 a = 0;
  ZydisCalcAbsoluteAddress(&r.insn, &r.ops[operand], runtime_address, &a);
  return g_mode == Mode::k32 ? a & 0xFFFFFFFFu : a;
}

FlowKind expected_flow(ZydisMnemonic m) {
  switch (m) {
    case ZYDIS_MNEMONIC_RET: case ZYDIS_MNEMONIC_IRET: case ZYDIS_MNEMONIC_IRETD: case ZYDIS_MNEMONIC_IRETQ:
      return FlowKind::kReturn;
    case ZYDIS_MNEMONIC_JMP: return FlowKind::kJumpAlways;
    case ZYDIS_MNEMONIC_INT3: return FlowKind::kInt3;
    case ZYDIS_MNEMONIC_UD0: case ZYDIS_MNEMONIC_UD1: case ZYDIS_MNEMONIC_UD2: return FlowKind::kUndefined;
    default: return FlowKind::kNormal;
  }
}

// Knights Corner, 3DNow! and XOP: decoded by Zydis, refused by the decoder on purpose.
bool deliberately_refused(const RefInsn& r) {
  const ZydisISAExt ext = r.insn.meta.isa_ext;
  return ext == ZYDIS_ISA_EXT_KNC || ext == ZYDIS_ISA_EXT_KNCE || ext == ZYDIS_ISA_EXT_KNCV ||
         r.insn.mnemonic == ZYDIS_MNEMONIC_FEMMS || r.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_3DNOW ||
         r.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_XOP;
}

// One trampoline instruction: its mnemonic, condition, where it transfers control (a relative
// target, or the qword literal of jmp/call [rip+disp32] inside the trampoline) and its span
// (length, plus a literal that directly follows).
struct Step {
  RefInsn r;
  uint64_t target = 0;
  size_t span = 0;
};

Step step_at(const uint8_t* tramp, size_t len, uint64_t base, size_t off) {
  Step s;
  if (off >= len || !ref_decode(tramp + off, len - off, &s.r)) return s;
  s.span = s.r.insn.length;
  if (s.r.rel_operand >= 0) {
    s.target = ref_address(s.r, s.r.rel_operand, base + off);
  } else if (s.r.rip_operand >= 0) {
    const uint64_t literal = ref_address(s.r, s.r.rip_operand, base + off);
    if (literal >= base && literal + 8 <= base + len) {
      std::memcpy(&s.target, tramp + (literal - base), 8);
      if (literal == base + off + s.span) s.span += 8;
    }
  }
  return s;
}

// (A target of 0, which no code has, stands for none.)
bool is(const Step& s, ZydisMnemonic m, uint64_t target) { return s.r.insn.mnemonic == m && s.target == target; }

ZydisRegister widest(ZydisRegister r) { return ZydisRegisterGetLargestEnclosing(ZYDIS_MACHINE_MODE_LONG_64, r); }

// A RIP-relative instruction at `ob` rebuilt beyond disp32 reach: lea -> mov reg, address; else
// push S; mov S, address; the same bytes without the displacement, ModRM's mod and rm naming [S]
// (REX.X and REX.B meant nothing with RIP); pop S, with S and rsp (moved by the push) used by no
// operand.
bool far_rip_ok(const RefInsn& o, const uint8_t* ob, uint64_t ea, const uint8_t* seg, size_t n) {
  RefInsn a, m, x, p;
  if (!ref_decode(seg, n, &a)) return false;
  if (o.insn.mnemonic == ZYDIS_MNEMONIC_LEA && a.insn.mnemonic == ZYDIS_MNEMONIC_MOV) {  // or the general form below
    if (o.ops[0].size == 16) return false;  // mov r16, imm would leave the upper bits: never this form
    const uint64_t mask = o.ops[0].size == 64 ? ~0ull : 0xFFFFFFFFull;
    return a.insn.length == n && a.ops[0].reg.value == o.ops[0].reg.value &&
           a.ops[1].type == ZYDIS_OPERAND_TYPE_IMMEDIATE && (a.ops[1].imm.value.u & mask) == (ea & mask);
  }
  const ZydisRegister s = a.ops[0].reg.value;
  const size_t xat = a.insn.length + (ref_decode(seg + a.insn.length, n - a.insn.length, &m) ? m.insn.length : n);
  if (a.insn.mnemonic != ZYDIS_MNEMONIC_PUSH || m.insn.mnemonic != ZYDIS_MNEMONIC_MOV || m.ops[0].reg.value != s ||
      m.ops[1].imm.value.u != ea || !ref_decode(seg + xat, n - xat, &x) || x.insn.length + 4 != o.insn.length ||
      !ref_decode(seg + xat + x.insn.length, n - xat - x.insn.length, &p) || p.insn.mnemonic != ZYDIS_MNEMONIC_POP ||
      p.ops[0].reg.value != s || xat + x.insn.length + p.insn.length != n || x.ops[o.rip_operand].mem.base != s)
    return false;
  const unsigned d = o.insn.raw.disp.offset, mo = o.insn.raw.modrm.offset;
  const unsigned rex = o.insn.attributes & ZYDIS_ATTRIB_HAS_REX ? o.insn.raw.rex.offset : ~0u;
  for (unsigned i = 0; i < x.insn.length; ++i) {
    const uint8_t mask = i == mo ? 0x38 : i == rex ? 0xFC : 0xFF;  // ModRM's reg, REX.W and REX.R kept
    if ((seg[xat + i] & mask) != (ob[i < d ? i : i + 4] & mask)) return false;
  }
  for (int i = 0; i < o.insn.operand_count; ++i) {
    const ZydisDecodedOperand& u = o.ops[i];
    const bool reg = u.type == ZYDIS_OPERAND_TYPE_REGISTER && o.insn.mnemonic != ZYDIS_MNEMONIC_NOP;  // hint NOPs touch none
    const ZydisRegister r = widest(reg ? u.reg.value : u.type == ZYDIS_OPERAND_TYPE_MEMORY ? u.mem.base : ZYDIS_REGISTER_NONE);
    if (r == ZYDIS_REGISTER_RSP || (reg && r == widest(s))) return false;
  }
  return true;
}

// The relocated form of a relative branch to `dest` occupying [seg, seg_end).
bool branch_ok(const RefInsn& o, uint64_t orig_next, uint64_t dest, const uint8_t* tramp, size_t len, uint64_t base,
               size_t seg, size_t seg_end) {
  const ZydisMnemonic m = o.insn.mnemonic;
  const uint64_t next = base + seg_end;
  const Step a = step_at(tramp, len, base, seg);
  const size_t after = seg + a.r.insn.length;
  if (m == ZYDIS_MNEMONIC_JMP || m == ZYDIS_MNEMONIC_XBEGIN) return is(a, m, dest) && seg + a.span == seg_end;
  if (m == ZYDIS_MNEMONIC_CALL && g_mode == Mode::k32) {  // push its original return address; jmp dest
    const bool pushed = a.r.insn.mnemonic == ZYDIS_MNEMONIC_PUSH && a.r.ops[0].type == ZYDIS_OPERAND_TYPE_IMMEDIATE &&
                        (a.r.ops[0].imm.value.u & 0xFFFFFFFFu) == orig_next;
    if (dest == orig_next) return pushed && after == seg_end;  // call $+5: nothing to jump to
    const Step j = step_at(tramp, len, base, after);
    return pushed && is(j, ZYDIS_MNEMONIC_JMP, dest) && after + j.span == seg_end;
  }
  if (m == ZYDIS_MNEMONIC_CALL) return is(a, m, dest) && (after == seg_end || is(step_at(tramp, len, base, after), ZYDIS_MNEMONIC_JMP, next));
  const bool loop = m == ZYDIS_MNEMONIC_LOOP || m == ZYDIS_MNEMONIC_LOOPE || m == ZYDIS_MNEMONIC_LOOPNE ||
                    m == ZYDIS_MNEMONIC_JRCXZ || m == ZYDIS_MNEMONIC_JECXZ || m == ZYDIS_MNEMONIC_JCXZ;
  if (!loop) {
    const uint8_t cc = o.insn.opcode & 0x0F;
    if (is(a, m, dest) && after == seg_end && (a.r.insn.opcode & 0x0F) == cc) return true;
    const Step f = step_at(tramp, len, base, after);  // inverted condition over an absolute jmp
    return (a.r.insn.opcode & 0x0F) == (cc ^ 1) && a.target == next && is(f, ZYDIS_MNEMONIC_JMP, dest) &&
           after + f.span == seg_end;
  }
  // loop/jrcxz: taken to a far jmp to dest, not taken over it to the next instruction.
  const Step s = step_at(tramp, len, base, after);
  const size_t far_at = after + s.r.insn.length;
  const Step f = step_at(tramp, len, base, far_at);
  return is(a, m, base + far_at) && a.r.insn.address_width == o.insn.address_width &&
         is(s, ZYDIS_MNEMONIC_JMP, next) && is(f, ZYDIS_MNEMONIC_JMP, dest) && far_at + f.span == seg_end;
}

std::string verify_trampoline(const uint8_t* target, size_t readable, uint64_t target_address, const uint8_t* tramp,
                              const Relocation& r, uint64_t out_address) {
  const size_t len = r.trampoline_length;
  const uint64_t wrap = g_mode == Mode::k32 ? 0xFFFFFFFFull : ~0ull;  // 32-bit addresses wrap at 4 GB
  const uint64_t end = (target_address + r.copied_length) & wrap;
  if (r.boundary_count == 0 || r.original_offsets[0] != 0 || r.trampoline_offsets[0] != 0) return "first boundary not (0, 0)";
  // The jump back, E9 rel32 or the 14-byte absolute form: copied bytes can look like either, so
  // the one that reaches the end of the copied bytes counts.
  size_t back = len >= 5 && is(step_at(tramp, len, out_address, len - 5), ZYDIS_MNEMONIC_JMP, end) ? len - 5 : len - 14;
  const Step jb = step_at(tramp, len, out_address, back);
  if (!is(jb, ZYDIS_MNEMONIC_JMP, end) || back + jb.span != len) return "jump back does not reach the copied bytes' end";
  size_t orig = 0;
  for (int k = 0; k < r.boundary_count; ++k) {
    RefInsn o;
    if (r.original_offsets[k] != orig || !ref_decode(target + orig, readable - orig, &o)) return "boundary " + std::to_string(k);
    const size_t seg = r.trampoline_offsets[k];
    const size_t seg_end = k + 1 < r.boundary_count ? r.trampoline_offsets[k + 1] : back;
    const uint64_t o_addr = target_address + orig;
    RefInsn t;
    bool ok = seg <= seg_end && seg_end <= len;
    if (ok && o.rel_operand >= 0) {
      ok = branch_ok(o, (o_addr + o.insn.length) & wrap, ref_address(o, o.rel_operand, o_addr), tramp, len, out_address,
                     seg, seg_end);
    } else if (ok && o.rip_operand >= 0) {
      const uint64_t ea = ref_address(o, o.rip_operand, o_addr);
      const unsigned d = o.insn.raw.disp.offset;
      ok = ref_decode(tramp + seg, len - seg, &t) &&
           (t.rip_operand < 0 ? far_rip_ok(o, target + orig, ea, tramp + seg, seg_end - seg)
                              : t.insn.length == o.insn.length && seg + t.insn.length == seg_end &&
                                    ref_address(t, t.rip_operand, out_address + seg) == ea &&
                                    std::memcmp(tramp + seg, target + orig, d) == 0 &&
                                    std::memcmp(tramp + seg + d + 4, target + orig + d + 4, o.insn.length - d - 4) == 0);
    } else if (ok) {
      ok = seg_end - seg == o.insn.length && std::memcmp(tramp + seg, target + orig, o.insn.length) == 0;
    }
    if (!ok) return "instruction at +" + std::to_string(orig) + " relocated wrongly";
    orig += o.insn.length;
  }
  return orig == r.copied_length ? "" : "copied length is not the sum of the instructions";
}

}  // namespace

std::string compare_with_zydis(const uint8_t* code, size_t available, Mode mode) {
  g_mode = mode;
  Instruction mine;
  const bool ok = decode(code, available, &mine, mode);
  RefInsn ref;
  const bool ref_ok = ref_decode(code, available, &ref);
  if (ok != mine.valid || (ok && mine.mode != mode)) return "return value and valid flag differ";
  if (ok != ref_ok) {
    if (!ok && deliberately_refused(ref)) return {};
    return ok ? "validity differs (decoded, Zydis refuses)" : "validity differs (refused, Zydis decodes)";
  }
  if (!ok) return {};
  const auto& raw = ref.insn.raw;  // raw.imm[0]: the relative immediate, when there is one (its kind: by the trampolines)
  if (mine.length != ref.insn.length) return "length differs";
  if (mine.rip_relative != (ref.rip_operand >= 0) || (mine.rip_relative && mine.disp_offset != raw.disp.offset))
    return "rip-relative operand differs";
  // (Zydis names r13d the base of a 67-prefixed SIB form whose REX.B extends "no base": [disp32].)
  const bool r13d_quirk = mode == Mode::k64 && raw.rex.B && !raw.rex.X && raw.modrm.mod == 0 && raw.modrm.rm == 4 &&
                          raw.sib.base == 5 && raw.sib.index == 4 && ref.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_LEGACY;
  if (mine.absolute_address != (ref.abs_operand >= 0 || r13d_quirk) || (mine.absolute_address && mine.disp_offset != raw.disp.offset))
    return "absolute operand differs";
  const bool branch = mine.branch != BranchKind::kNone;
  if (branch != (ref.rel_operand >= 0) || (branch && (mine.rel_offset != raw.imm[0].offset || mine.rel_size * 8 != raw.imm[0].size)))
    return "relative branch differs";
  if (mine.flow != expected_flow(ref.insn.mnemonic)) return "flow differs";
  return {};
}

std::string build_checked(const uint8_t* code, size_t n, uint64_t target, size_t patch_size, uint64_t out_address,
                          Built* b, Mode mode) {
  g_mode = mode;
  std::memset(b->out, 0xA5, sizeof b->out);
  b->r = Relocation{};
  b->r.copied_length = 0xBAD;
  b->status = build_trampoline(code, n, target, patch_size, b->out, kMaxTrampolineLength, out_address, &b->r, mode);
  const size_t len = b->status == RelocateStatus::kOk ? b->r.trampoline_length : 0;
  if (std::count(b->out + len, std::end(b->out), 0xA5) != std::end(b->out) - (b->out + len))
    return std::string("written beyond the trampoline: ") + to_string(b->status);
  if (len == 0) return b->r.copied_length == 0xBAD ? "" : "a refusal wrote the result";
  if (b->r.copied_length < patch_size || b->r.copied_length > n) return "copied " + std::to_string(b->r.copied_length);
  for (size_t at = 0, k = 0; at < b->r.copied_length; ++at) {
    uint64_t moved = 0;
    const bool start = k < b->r.boundary_count && b->r.original_offsets[k] == at;
    if (map_to_trampoline(b->r, target, out_address, target + at, &moved) != start ||
        (start && moved != out_address + b->r.trampoline_offsets[k++]))
      return "+" + std::to_string(at) + " mapped wrongly";
  }
  uint8_t small[kMaxTrampolineLength];
  std::memset(small, 0x5A, sizeof small);
  Relocation unused;
  if (build_trampoline(code, n, target, patch_size, small, len - 1, out_address, &unused, mode) != RelocateStatus::kBufferTooSmall ||
      std::count(small, std::end(small), 0x5A) != sizeof small)
    return "a buffer one byte short was not refused cleanly";
  return verify_trampoline(code, n, target, b->out, b->r, out_address);
}
