#include "zydis_view.h"

#include <cstdio>
#include <cstring>
#include <vector>

using hookengine::BranchKind;
using hookengine::FlowKind;
using hookengine::Instruction;

namespace {

const ZydisDecoder& decoder() {
  static ZydisDecoder d = [] {
    ZydisDecoder x;
    ZydisDecoderInit(&x, ZYDIS_MACHINE_MODE_LONG_64, ZYDIS_STACK_WIDTH_64);
    return x;
  }();
  return d;
}

BranchKind expected_branch(const RefInsn& r) {
  if (r.rel_operand < 0) return BranchKind::kNone;
  const unsigned size = r.ops[r.rel_operand].size;
  switch (r.insn.mnemonic) {
    case ZYDIS_MNEMONIC_CALL: return BranchKind::kCallRel32;
    case ZYDIS_MNEMONIC_JMP: return size == 8 ? BranchKind::kJmpRel8 : BranchKind::kJmpRel32;
    case ZYDIS_MNEMONIC_LOOP:
    case ZYDIS_MNEMONIC_LOOPE:
    case ZYDIS_MNEMONIC_LOOPNE: return BranchKind::kLoop;
    case ZYDIS_MNEMONIC_JRCXZ:
    case ZYDIS_MNEMONIC_JECXZ: return BranchKind::kJrcxz;
    case ZYDIS_MNEMONIC_XBEGIN: return BranchKind::kXbegin;
    default: break;
  }
  if (r.insn.meta.category == ZYDIS_CATEGORY_COND_BR)
    return r.insn.raw.imm[0].size == 8 ? BranchKind::kJccRel8 : BranchKind::kJccRel32;
  return static_cast<BranchKind>(0xFF);  // a relative form the decoder has no kind for
}

FlowKind expected_flow(const RefInsn& r) {
  switch (r.insn.mnemonic) {
    case ZYDIS_MNEMONIC_RET:
    case ZYDIS_MNEMONIC_IRET:
    case ZYDIS_MNEMONIC_IRETD:
    case ZYDIS_MNEMONIC_IRETQ: return FlowKind::kReturn;
    case ZYDIS_MNEMONIC_JMP: return FlowKind::kJumpAlways;
    case ZYDIS_MNEMONIC_INT3: return FlowKind::kInt3;
    case ZYDIS_MNEMONIC_UD0:
    case ZYDIS_MNEMONIC_UD1:
    case ZYDIS_MNEMONIC_UD2: return FlowKind::kUndefined;
    default: return FlowKind::kNormal;
  }
}

// One step of trampoline control flow: where an instruction transfers control to.
struct Transfer {
  bool ok = false;
  ZydisMnemonic mnemonic = ZYDIS_MNEMONIC_INVALID;
  uint64_t target = 0;
  size_t length = 0;
  size_t span = 0;  // length, plus the 8-byte literal when it directly follows (jmp [rip+0])
  uint8_t opcode = 0;
  uint8_t address_width = 0;
};

// Decodes the trampoline instruction at `off` and resolves its target: a relative immediate, or
// an absolute jmp/call through a qword literal inside the trampoline.
Transfer transfer_at(const uint8_t* tramp, size_t len, uint64_t base, size_t off) {
  Transfer t;
  RefInsn r;
  if (off >= len || !ref_decode(tramp + off, len - off, &r)) return t;
  t.mnemonic = r.insn.mnemonic;
  t.length = r.insn.length;
  t.span = r.insn.length;
  t.opcode = r.insn.opcode;
  t.address_width = r.insn.address_width;
  if (r.rel_operand >= 0) {
    t.target = ref_address(r, r.rel_operand, base + off);
    t.ok = true;
  } else if (r.rip_operand >= 0 &&
             (r.insn.mnemonic == ZYDIS_MNEMONIC_JMP || r.insn.mnemonic == ZYDIS_MNEMONIC_CALL)) {
    const uint64_t literal = ref_address(r, r.rip_operand, base + off);
    if (literal >= base && literal + 8 <= base + len) {
      std::memcpy(&t.target, tramp + (literal - base), 8);
      if (literal == base + off + t.length) t.span += 8;
      t.ok = true;
    }
  }
  return t;
}

uint8_t condition(const Transfer& t) { return t.opcode & 0x0F; }

char g_buf[512];
template <typename... A>
std::string fmt(const char* f, A... a) {
  std::snprintf(g_buf, sizeof(g_buf), f, a...);
  return g_buf;
}

ZydisRegister widest(ZydisRegister r) {
  return ZydisRegisterGetLargestEnclosing(ZYDIS_MACHINE_MODE_LONG_64, r);
}

// A RIP-relative instruction rebuilt for a trampoline its disp32 cannot reach: either
// `mov reg, imm` of the address (for lea), or push S; mov S, imm64; <same instruction on [S]>;
// pop S, with S a register the instruction does not use and the stack untouched by it.
std::string check_far_rip(const RefInsn& o, uint64_t ea, const uint8_t* seg, size_t n) {
  RefInsn a;
  if (!ref_decode(seg, n, &a)) return "undecodable";
  if (o.insn.mnemonic == ZYDIS_MNEMONIC_LEA && a.insn.mnemonic == ZYDIS_MNEMONIC_MOV) {
    const uint64_t mask = o.ops[0].size == 64 ? ~0ull : 0xFFFFFFFFull;
    if (a.insn.length != n || a.ops[0].reg.value != o.ops[0].reg.value ||
        a.ops[1].type != ZYDIS_OPERAND_TYPE_IMMEDIATE ||
        (a.ops[1].imm.value.u & mask) != (ea & mask) ||
        (o.ops[0].size != 64 && o.ops[0].size != 32))
      return "lea not turned into mov of its address";
    return {};
  }
  if (a.insn.mnemonic != ZYDIS_MNEMONIC_PUSH || a.ops[0].type != ZYDIS_OPERAND_TYPE_REGISTER)
    return "neither mov nor push first";
  const ZydisRegister s = a.ops[0].reg.value;
  size_t at = a.insn.length;
  RefInsn m, x, p;
  if (!ref_decode(seg + at, n - at, &m) || m.insn.mnemonic != ZYDIS_MNEMONIC_MOV ||
      m.ops[0].reg.value != s || m.ops[1].type != ZYDIS_OPERAND_TYPE_IMMEDIATE ||
      m.ops[1].imm.value.u != ea)
    return "scratch not loaded with the address";
  at += m.insn.length;
  if (!ref_decode(seg + at, n - at, &x)) return "rebuilt instruction undecodable";
  at += x.insn.length;
  if (!ref_decode(seg + at, n - at, &p) || p.insn.mnemonic != ZYDIS_MNEMONIC_POP ||
      p.ops[0].reg.value != s || at + p.insn.length != n)
    return "scratch not restored at the end";
  if (x.insn.mnemonic != o.insn.mnemonic || x.insn.operand_count != o.insn.operand_count ||
      x.insn.operand_width != o.insn.operand_width ||
      (x.insn.attributes | ZYDIS_ATTRIB_IS_RELATIVE) !=
          (o.insn.attributes | ZYDIS_ATTRIB_IS_RELATIVE))
    return "rebuilt instruction differs";
  for (int i = 0; i < o.insn.operand_count; ++i) {
    const ZydisDecodedOperand &u = o.ops[i], &v = x.ops[i];
    if (u.type != v.type || u.size != v.size || u.actions != v.actions) return "operand differs";
    if (u.type == ZYDIS_OPERAND_TYPE_REGISTER) {
      if (u.reg.value != v.reg.value) return "register operand differs";
      if (widest(u.reg.value) == widest(s) || widest(u.reg.value) == ZYDIS_REGISTER_RSP)
        return "instruction uses the scratch register or rsp";
    } else if (u.type == ZYDIS_OPERAND_TYPE_IMMEDIATE) {
      if (u.imm.value.u != v.imm.value.u) return "immediate differs";
    } else if (u.type == ZYDIS_OPERAND_TYPE_MEMORY) {
      if (i == o.rip_operand) {
        if (v.mem.base != s || v.mem.index != ZYDIS_REGISTER_NONE || v.mem.disp.has_displacement)
          return "memory operand not [scratch]";
      } else if (u.mem.base != v.mem.base || u.mem.index != v.mem.index) {
        return "other memory operand differs";
      }
      if (u.mem.segment != v.mem.segment) return "segment differs";
      if (widest(u.mem.base) == ZYDIS_REGISTER_RSP) return "instruction uses the stack";
    }
  }
  return {};
}

}  // namespace

bool ref_decode(const uint8_t* code, size_t available, RefInsn* out) {
  *out = RefInsn{};
  if (!ZYAN_SUCCESS(ZydisDecoderDecodeFull(&decoder(), code, available, &out->insn, out->ops)))
    return false;
  out->valid = true;
  for (int i = 0; i < out->insn.operand_count; ++i) {
    const ZydisDecodedOperand& op = out->ops[i];
    if (op.type == ZYDIS_OPERAND_TYPE_MEMORY &&
        (op.mem.base == ZYDIS_REGISTER_RIP || op.mem.base == ZYDIS_REGISTER_EIP))
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

std::string hex(const uint8_t* p, size_t n) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(b, sizeof(b), "%02x", p[i]);
    if (i) s += ' ';
    s += b;
  }
  return s;
}

std::string compare(bool ok, const Instruction& mine, const RefInsn& ref) {
  if (ok != ref.valid) return fmt("validity: mine %d zydis %d", ok, ref.valid);
  if (ok != mine.valid) return "return value and valid flag differ";
  if (!ok) return {};
  if (mine.length != ref.insn.length)
    return fmt("length: mine %u zydis %u", mine.length, ref.insn.length);
  const bool rip = ref.rip_operand >= 0;
  if (mine.rip_relative != rip)
    return fmt("rip-relative: mine %d zydis %d", mine.rip_relative, rip);
  if (rip && mine.disp_offset != ref.insn.raw.disp.offset)
    return fmt("disp offset: mine %u zydis %u", mine.disp_offset, ref.insn.raw.disp.offset);
  const BranchKind kind = expected_branch(ref);
  if (mine.branch != kind)
    return fmt("branch kind: mine %d zydis %d", static_cast<int>(mine.branch),
               static_cast<int>(kind));
  if (kind != BranchKind::kNone) {
    const auto& imm = ref.insn.raw.imm[0];
    if (mine.rel_offset != imm.offset || mine.rel_size * 8 != imm.size)
      return fmt("branch operand: mine @%u/%u zydis @%u/%u bits", mine.rel_offset, mine.rel_size,
                 imm.offset, imm.size);
  }
  const FlowKind flow = expected_flow(ref);
  if (mine.flow != flow)
    return fmt("flow: mine %d zydis %d", static_cast<int>(mine.flow), static_cast<int>(flow));
  return {};
}

const char* expected_difference(bool ok, const RefInsn& ref) {
  if (ok || !ref.valid) return nullptr;
  const ZydisISAExt ext = ref.insn.meta.isa_ext;
  if (ext == ZYDIS_ISA_EXT_KNC || ext == ZYDIS_ISA_EXT_KNCE || ext == ZYDIS_ISA_EXT_KNCV)
    return "Knights Corner";
  if (ref.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_3DNOW ||
      ref.insn.mnemonic == ZYDIS_MNEMONIC_FEMMS)
    return "3DNow!";
  if (ref.insn.encoding == ZYDIS_INSTRUCTION_ENCODING_XOP) return "XOP";
  return nullptr;
}

std::string verify_trampoline(const uint8_t* target, size_t readable, uint64_t target_address,
                              size_t patch_size, const uint8_t* tramp,
                              const hookengine::Relocation& r, uint64_t out_address) {
  const size_t len = r.trampoline_length;
  if (r.copied_length < patch_size) return "copied fewer bytes than the patch";
  if (r.boundary_count == 0 || r.original_offsets[0] != 0 || r.trampoline_offsets[0] != 0)
    return "first boundary is not (0, 0)";
  // The jump back: E9 rel32 or the 14-byte absolute form at the end. Copied bytes can look like
  // either (e.g. 8B FF 25 00 00 00 00 holds FF 25 00 00 00 00), so the one that reaches counts.
  const uint64_t end = target_address + r.copied_length;
  const size_t back =
      len >= 5 && tramp[len - 5] == 0xE9 && transfer_at(tramp, len, out_address, len - 5).target == end
          ? len - 5
          : len - 14;
  if (len < 14 && back == len - 14) return "no jump back";
  const Transfer jb = transfer_at(tramp, len, out_address, back);
  if (!jb.ok || jb.mnemonic != ZYDIS_MNEMONIC_JMP || back + jb.span != len ||
      jb.target != end)
    return "jump back does not reach the end of the copied bytes";

  size_t orig = 0;
  for (int k = 0; k < r.boundary_count; ++k) {
    if (r.original_offsets[k] != orig) return fmt("boundary %d not at instruction start", k);
    RefInsn o;
    if (!ref_decode(target + orig, readable - orig, &o)) return "original undecodable";
    const size_t seg = r.trampoline_offsets[k];
    const size_t seg_end = k + 1 < r.boundary_count ? r.trampoline_offsets[k + 1] : back;
    if (seg_end < seg || seg_end > len) return "boundaries out of order";
    const uint64_t o_addr = target_address + orig;
    const uint64_t seg_end_addr = out_address + seg_end;
    if (o.rel_operand >= 0) {
      const uint64_t dest = ref_address(o, o.rel_operand, o_addr);
      const ZydisMnemonic m = o.insn.mnemonic;
      const Transfer a = transfer_at(tramp, len, out_address, seg);
      if (!a.ok) return fmt("branch at +%zu: relocated form undecodable", orig);
      if (m == ZYDIS_MNEMONIC_JMP || m == ZYDIS_MNEMONIC_XBEGIN) {
        if (a.mnemonic != m || a.target != dest || seg + a.span != seg_end)
          return fmt("%s at +%zu: target differs", m == ZYDIS_MNEMONIC_JMP ? "jmp" : "xbegin",
                     orig);
      } else if (m == ZYDIS_MNEMONIC_CALL) {
        if (a.mnemonic != m || a.target != dest) return fmt("call at +%zu: target differs", orig);
        if (seg + a.length != seg_end) {  // returns onto a jmp over the literal
          const Transfer s = transfer_at(tramp, len, out_address, seg + a.length);
          if (!s.ok || s.mnemonic != ZYDIS_MNEMONIC_JMP || s.target != seg_end_addr)
            return fmt("call at +%zu: return path does not reach the next instruction", orig);
        }
      } else if (m == ZYDIS_MNEMONIC_LOOP || m == ZYDIS_MNEMONIC_LOOPE ||
                 m == ZYDIS_MNEMONIC_LOOPNE || m == ZYDIS_MNEMONIC_JRCXZ ||
                 m == ZYDIS_MNEMONIC_JECXZ) {
        const Transfer s = transfer_at(tramp, len, out_address, seg + a.length);
        const size_t far_at = seg + a.length + s.length;
        const Transfer f = transfer_at(tramp, len, out_address, far_at);
        if (a.mnemonic != m || a.address_width != o.insn.address_width ||
            a.target != out_address + far_at || !s.ok || s.mnemonic != ZYDIS_MNEMONIC_JMP ||
            s.target != seg_end_addr || !f.ok || f.mnemonic != ZYDIS_MNEMONIC_JMP ||
            f.target != dest || far_at + f.span != seg_end)
          return fmt("loop/jrcxz at +%zu: relocated form wrong", orig);
      } else if (o.insn.meta.category == ZYDIS_CATEGORY_COND_BR) {
        const uint8_t cc = o.insn.opcode & 0x0F;
        if (a.mnemonic == m && a.target == dest && seg + a.length == seg_end &&
            condition(a) == cc) {
          // direct Jcc rel32
        } else {
          const Transfer f = transfer_at(tramp, len, out_address, seg + a.length);
          if (condition(a) != (cc ^ 1) || a.target != seg_end_addr || !f.ok ||
              f.mnemonic != ZYDIS_MNEMONIC_JMP || f.target != dest ||
              seg + a.length + f.span != seg_end)
            return fmt("jcc at +%zu: relocated form wrong", orig);
        }
      } else {
        return fmt("unexpected relative instruction at +%zu", orig);
      }
    } else if (o.rip_operand >= 0) {
      RefInsn t;
      if (!ref_decode(tramp + seg, len - seg, &t))
        return fmt("rip-relative at +%zu: undecodable", orig);
      if (t.rip_operand < 0) {
        const std::string err =
            check_far_rip(o, ref_address(o, o.rip_operand, o_addr), tramp + seg, seg_end - seg);
        if (!err.empty()) return fmt("rip-relative at +%zu: %s", orig, err.c_str());
        orig += o.insn.length;
        continue;
      }
      if (t.insn.length != o.insn.length || seg + t.insn.length != seg_end)
        return fmt("rip-relative at +%zu: relocated form wrong", orig);
      if (ref_address(t, t.rip_operand, out_address + seg) != ref_address(o, o.rip_operand, o_addr))
        return fmt("rip-relative at +%zu: effective address differs", orig);
      const unsigned d = o.insn.raw.disp.offset;
      if (std::memcmp(tramp + seg, target + orig, d) != 0 ||
          std::memcmp(tramp + seg + d + 4, target + orig + d + 4, o.insn.length - d - 4) != 0)
        return fmt("rip-relative at +%zu: bytes other than disp32 changed", orig);
    } else {
      if (seg_end - seg != o.insn.length ||
          std::memcmp(tramp + seg, target + orig, o.insn.length) != 0)
        return fmt("instruction at +%zu not copied verbatim", orig);
    }
    orig += o.insn.length;
  }
  if (orig != r.copied_length) return "copied length is not the sum of the instructions";
  return {};
}
