#include "zydis_view.h"

#include <Zydis/Zydis.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "hookengine/x64_decoder.h"

using namespace hookengine;

namespace {

template <typename... A>
std::string fmt(const char* f, A... a) {
  char buf[256];
  std::snprintf(buf, sizeof(buf), f, a...);
  return buf;
}

struct RefInsn {
  ZydisDecodedInstruction insn{};
  ZydisDecodedOperand ops[ZYDIS_MAX_OPERAND_COUNT]{};
  int rip_operand = -1;  // index of the [rip+disp32] / [eip+disp32] memory operand
  int rel_operand = -1;  // index of the relative immediate
};

bool ref_decode(const uint8_t* code, size_t available, RefInsn* out) {
  static ZydisDecoder decoder = [] {
    ZydisDecoder d;
    ZydisDecoderInit(&d, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    return d;
  }();
  *out = RefInsn{};
  if (!ZYAN_SUCCESS(ZydisDecoderDecodeFull(&decoder, code, available, &out->insn, out->ops))) return false;
  for (int i = 0; i < out->insn.operand_count; ++i) {
    const ZydisDecodedOperand& op = out->ops[i];
    if (op.type == ZYDIS_OPERAND_TYPE_MEMORY && (op.mem.base == ZYDIS_REGISTER_RIP || op.mem.base == ZYDIS_REGISTER_EIP))
      out->rip_operand = i;
    if (op.type == ZYDIS_OPERAND_TYPE_IMMEDIATE && op.imm.is_relative) out->rel_operand = i;
  }
  return true;
}

uint64_t ref_address(const RefInsn& r, int operand, uint64_t runtime_address) {
  ZyanU64 a = 0;
  ZydisCalcAbsoluteAddress(&r.insn, &r.ops[operand], runtime_address, &a);
  return a;
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
bool deliberate_refusal(const RefInsn& r) {
  const ZydisISAExt ext = r.insn.meta.isa_ext;
  return ext == ZYDIS_ISA_EXT_KNC || ext == ZYDIS_ISA_EXT_KNCE || ext == ZYDIS_ISA_EXT_KNCV ||
         r.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_3DNOW || r.insn.mnemonic == ZYDIS_MNEMONIC_FEMMS ||
         r.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_XOP;
}

// One trampoline instruction: its mnemonic, condition, where it transfers control (a relative
// target, or the qword literal of jmp/call [rip+disp32] inside the trampoline) and its span
// (length, plus a literal that directly follows).
struct Step {
  bool ok = false;
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
    s.ok = true;
  } else if (s.r.rip_operand >= 0) {
    const uint64_t literal = ref_address(s.r, s.r.rip_operand, base + off);
    if (literal >= base && literal + 8 <= base + len) {
      std::memcpy(&s.target, tramp + (literal - base), 8);
      if (literal == base + off + s.span) s.span += 8;
      s.ok = true;
    }
  }
  return s;
}

bool is(const Step& s, ZydisMnemonic m, uint64_t target) { return s.ok && s.r.insn.mnemonic == m && s.target == target; }

ZydisRegister widest(ZydisRegister r) { return ZydisRegisterGetLargestEnclosing(ZYDIS_MACHINE_MODE_LONG_64, r); }

// A RIP-relative instruction rebuilt beyond disp32 reach: lea -> mov reg, address; else push S;
// mov S, address; the same instruction on [S]; pop S, with S and rsp not used by it.
bool far_rip_ok(const RefInsn& o, uint64_t ea, const uint8_t* seg, size_t n) {
  RefInsn a, m, x, p;
  if (!ref_decode(seg, n, &a)) return false;
  if (o.insn.mnemonic == ZYDIS_MNEMONIC_LEA && a.insn.mnemonic == ZYDIS_MNEMONIC_MOV) {  // or the general form below
    if (o.ops[0].size == 16) return false;  // mov r16, imm would leave the upper bits: never this form
    const uint64_t mask = o.ops[0].size == 64 ? ~0ull : 0xFFFFFFFFull;
    return a.insn.mnemonic == ZYDIS_MNEMONIC_MOV && a.insn.length == n && a.ops[0].reg.value == o.ops[0].reg.value &&
           a.ops[1].type == ZYDIS_OPERAND_TYPE_IMMEDIATE && (a.ops[1].imm.value.u & mask) == (ea & mask);
  }
  const ZydisRegister s = a.ops[0].reg.value;
  size_t at = a.insn.length;
  if (a.insn.mnemonic != ZYDIS_MNEMONIC_PUSH || !ref_decode(seg + at, n - at, &m) ||
      m.insn.mnemonic != ZYDIS_MNEMONIC_MOV || m.ops[0].reg.value != s || m.ops[1].imm.value.u != ea)
    return false;
  at += m.insn.length;
  if (!ref_decode(seg + at, n - at, &x)) return false;
  at += x.insn.length;
  if (!ref_decode(seg + at, n - at, &p) || p.insn.mnemonic != ZYDIS_MNEMONIC_POP || p.ops[0].reg.value != s ||
      at + p.insn.length != n || x.insn.mnemonic != o.insn.mnemonic || x.insn.operand_count != o.insn.operand_count)
    return false;
  for (int i = 0; i < o.insn.operand_count; ++i) {
    const ZydisDecodedOperand &u = o.ops[i], &v = x.ops[i];
    if (u.type != v.type || u.size != v.size || u.actions != v.actions) return false;
    if (u.type == ZYDIS_OPERAND_TYPE_IMMEDIATE && u.imm.value.u != v.imm.value.u) return false;
    if (u.type == ZYDIS_OPERAND_TYPE_MEMORY && i == o.rip_operand &&
        (v.mem.base != s || v.mem.index != ZYDIS_REGISTER_NONE || v.mem.disp.has_displacement))
      return false;
    if (u.type == ZYDIS_OPERAND_TYPE_MEMORY &&
        ((i != o.rip_operand && u.mem.base != v.mem.base) || u.mem.segment != v.mem.segment || widest(u.mem.base) == ZYDIS_REGISTER_RSP))
      return false;
    if (u.type != ZYDIS_OPERAND_TYPE_REGISTER) continue;
    // Hint NOPs name a register they never touch: any is fine there.
    const bool used = o.insn.mnemonic != ZYDIS_MNEMONIC_NOP;
    if (u.reg.value != v.reg.value || (used && (widest(u.reg.value) == widest(s) || widest(u.reg.value) == ZYDIS_REGISTER_RSP)))
      return false;
  }
  return true;
}

// The relocated form of a relative branch to `dest` occupying [seg, seg_end).
bool branch_ok(const RefInsn& o, uint64_t dest, const uint8_t* tramp, size_t len, uint64_t base, size_t seg,
               size_t seg_end) {
  const ZydisMnemonic m = o.insn.mnemonic;
  const uint64_t next = base + seg_end;
  const Step a = step_at(tramp, len, base, seg);
  const size_t after = seg + a.r.insn.length;
  if (m == ZYDIS_MNEMONIC_JMP || m == ZYDIS_MNEMONIC_XBEGIN) return is(a, m, dest) && seg + a.span == seg_end;
  if (m == ZYDIS_MNEMONIC_CALL) return is(a, m, dest) && (after == seg_end || is(step_at(tramp, len, base, after), ZYDIS_MNEMONIC_JMP, next));
  const bool loop = m == ZYDIS_MNEMONIC_LOOP || m == ZYDIS_MNEMONIC_LOOPE || m == ZYDIS_MNEMONIC_LOOPNE ||
                    m == ZYDIS_MNEMONIC_JRCXZ || m == ZYDIS_MNEMONIC_JECXZ;
  if (!loop) {
    const uint8_t cc = o.insn.opcode & 0x0F;
    if (is(a, m, dest) && after == seg_end && (a.r.insn.opcode & 0x0F) == cc) return true;
    const Step f = step_at(tramp, len, base, after);  // inverted condition over an absolute jmp
    return a.ok && (a.r.insn.opcode & 0x0F) == (cc ^ 1) && a.target == next && is(f, ZYDIS_MNEMONIC_JMP, dest) &&
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
  const uint64_t end = target_address + r.copied_length;
  if (r.boundary_count == 0 || r.original_offsets[0] != 0 || r.trampoline_offsets[0] != 0) return "first boundary not (0, 0)";
  // The jump back, E9 rel32 or the 14-byte absolute form: copied bytes can look like either, so
  // the one that reaches the end of the copied bytes counts.
  size_t back = len >= 5 && is(step_at(tramp, len, out_address, len - 5), ZYDIS_MNEMONIC_JMP, end) ? len - 5 : len - 14;
  if (len < 14 && back == len - 14) return "no jump back";
  const Step jb = step_at(tramp, len, out_address, back);
  if (!is(jb, ZYDIS_MNEMONIC_JMP, end) || back + jb.span != len) return "jump back does not reach the copied bytes' end";
  size_t orig = 0;
  for (int k = 0; k < r.boundary_count; ++k) {
    RefInsn o;
    if (r.original_offsets[k] != orig || !ref_decode(target + orig, readable - orig, &o)) return fmt("boundary %d", k);
    const size_t seg = r.trampoline_offsets[k];
    const size_t seg_end = k + 1 < r.boundary_count ? r.trampoline_offsets[k + 1] : back;
    const uint64_t o_addr = target_address + orig;
    RefInsn t;
    bool ok = seg <= seg_end && seg_end <= len;
    if (ok && o.rel_operand >= 0) {
      ok = branch_ok(o, ref_address(o, o.rel_operand, o_addr), tramp, len, out_address, seg, seg_end);
    } else if (ok && o.rip_operand >= 0) {
      const uint64_t ea = ref_address(o, o.rip_operand, o_addr);
      const unsigned d = o.insn.raw.disp.offset;
      ok = ref_decode(tramp + seg, len - seg, &t) &&
           (t.rip_operand < 0 ? far_rip_ok(o, ea, tramp + seg, seg_end - seg)
                              : t.insn.length == o.insn.length && seg + t.insn.length == seg_end &&
                                    ref_address(t, t.rip_operand, out_address + seg) == ea &&
                                    std::memcmp(tramp + seg, target + orig, d) == 0 &&
                                    std::memcmp(tramp + seg + d + 4, target + orig + d + 4, o.insn.length - d - 4) == 0);
    } else if (ok) {
      ok = seg_end - seg == o.insn.length && std::memcmp(tramp + seg, target + orig, o.insn.length) == 0;
    }
    if (!ok) return fmt("instruction at +%zu relocated wrongly", orig);
    orig += o.insn.length;
  }
  return orig == r.copied_length ? "" : "copied length is not the sum of the instructions";
}

}  // namespace

std::string hex(const uint8_t* p, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += fmt(i ? " %02x" : "%02x", p[i]);
  return s;
}

std::string compare_with_zydis(const uint8_t* code, size_t available) {
  Instruction mine;
  const bool ok = decode(code, available, &mine);
  RefInsn ref;
  const bool ref_ok = ref_decode(code, available, &ref);
  if (ok != mine.valid) return "return value and valid flag differ";
  if (ok != ref_ok) return !ok && deliberate_refusal(ref) ? "" : fmt("validity: mine %d zydis %d", ok, ref_ok);
  if (!ok) return {};
  const auto& imm = ref.insn.raw.imm[0];  // the relative one, when there is one (its kind: by the trampolines)
  if (mine.length != ref.insn.length) return fmt("length: mine %u zydis %u", mine.length, ref.insn.length);
  if (mine.rip_relative != (ref.rip_operand >= 0) || (mine.rip_relative && mine.disp_offset != ref.insn.raw.disp.offset))
    return fmt("rip-relative: mine %d @%u", mine.rip_relative, mine.disp_offset);
  const bool branch = mine.branch != BranchKind::kNone;
  if (branch != (ref.rel_operand >= 0) || (branch && (mine.rel_offset != imm.offset || mine.rel_size * 8 != imm.size)))
    return fmt("relative branch: mine %d @%u/%u", branch, mine.rel_offset, mine.rel_size);
  if (mine.flow != expected_flow(ref.insn.mnemonic)) return fmt("flow: mine %d", static_cast<int>(mine.flow));
  return {};
}

std::string build_checked(const uint8_t* code, size_t n, uint64_t target, size_t patch_size, uint64_t out_address,
                          Built* b) {
  std::memset(b->out, 0xA5, sizeof b->out);
  b->r = Relocation{};
  b->r.copied_length = 0xBAD;
  b->status = build_trampoline(code, n, target, patch_size, b->out, kMaxTrampolineLength, out_address, &b->r);
  const size_t len = b->status == RelocateStatus::kOk ? b->r.trampoline_length : 0;
  if (std::count(b->out + len, std::end(b->out), 0xA5) != std::end(b->out) - (b->out + len))
    return fmt("written beyond the trampoline (%s)", to_string(b->status));
  if (len == 0) return b->r.copied_length == 0xBAD ? "" : "a refusal wrote the result";
  if (b->r.copied_length < patch_size || b->r.copied_length > n) return fmt("copied %zu of %zu", b->r.copied_length, n);
  const std::string wrong = verify_trampoline(code, n, target, b->out, b->r, out_address);
  if (!wrong.empty()) return wrong;
  for (size_t at = 0, k = 0; at < b->r.copied_length; ++at) {
    uint64_t moved = 0;
    const bool start = k < b->r.boundary_count && b->r.original_offsets[k] == at;
    if (map_to_trampoline(b->r, target, out_address, target + at, &moved) != start ||
        (start && moved != out_address + b->r.trampoline_offsets[k++]))
      return fmt("+%zu mapped wrongly", at);
  }
  uint8_t small[kMaxTrampolineLength];
  std::memset(small, 0x5A, sizeof small);
  Relocation unused;
  if (build_trampoline(code, n, target, patch_size, small, len - 1, out_address, &unused) != RelocateStatus::kBufferTooSmall ||
      std::count(small, std::end(small), 0x5A) != sizeof small)
    return "a buffer one byte short was not refused cleanly";
  return "";
}
