#include "hookengine/x64_decoder.h"

#include <cstring>

namespace hookengine {
namespace {

constexpr size_t kMaxLength = 15;

// Operand shapes of an opcode after its ModRM (if any).
enum Imm : uint8_t {
  kI0,     // no immediate
  kIb,     // imm8
  kIw,     // imm16
  kIz,     // imm16 with 66, else imm32
  kIv,     // imm64 with REX.W, imm16 with 66, else imm32 (B8-BF)
  kIwb,    // imm16 + imm8 (ENTER)
  kMoffs,  // address-sized offset: 8 bytes, 4 with 67 (A0-A3)
  kRel8,
  kRelz,  // rel32 (66 ignored on near branches in 64-bit mode, as Intel CPUs do)
};

struct OpInfo {
  bool valid;
  bool modrm;
  Imm imm;
};

constexpr OpInfo X{false, false, kI0};  // invalid in 64-bit mode / undefined
constexpr OpInfo N{true, false, kI0};   // no operands in the encoding
constexpr OpInfo M{true, true, kI0};    // ModRM only
constexpr OpInfo MB{true, true, kIb};   // ModRM + imm8
constexpr OpInfo MZ{true, true, kIz};   // ModRM + imm16/32
constexpr OpInfo B{true, false, kIb};
constexpr OpInfo W{true, false, kIw};
constexpr OpInfo Z{true, false, kIz};
constexpr OpInfo R8{true, false, kRel8};
constexpr OpInfo RZ{true, false, kRelz};
constexpr OpInfo P = X;  // prefixes and escapes: handled before the table is consulted

// clang-format off
const OpInfo kOneByte[256] = {
  // 00-0F
  M, M, M, M, B, Z, X, X,   M, M, M, M, B, Z, X, P,
  // 10-1F
  M, M, M, M, B, Z, X, X,   M, M, M, M, B, Z, X, X,
  // 20-2F
  M, M, M, M, B, Z, P, X,   M, M, M, M, B, Z, P, X,
  // 30-3F
  M, M, M, M, B, Z, P, X,   M, M, M, M, B, Z, P, X,
  // 40-4F REX (handled as prefixes)
  P, P, P, P, P, P, P, P,   P, P, P, P, P, P, P, P,
  // 50-5F push/pop
  N, N, N, N, N, N, N, N,   N, N, N, N, N, N, N, N,
  // 60-6F: 60/61 invalid, 62 EVEX, 63 movsxd, 64-67 prefixes, push imm, imul, ins/outs
  X, X, P, M, P, P, P, P,   Z, MZ, B, MB, N, N, N, N,
  // 70-7F Jcc rel8
  R8, R8, R8, R8, R8, R8, R8, R8,   R8, R8, R8, R8, R8, R8, R8, R8,
  // 80-8F: 82 invalid; 8F is pop /0 or XOP
  MB, MZ, X, MB, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 90-9F: 9A (far call) invalid
  N, N, N, N, N, N, N, N,   N, N, X, N, N, N, N, N,
  // A0-AF: A0-A3 moffs (special-cased), A8 test al, A9 test eax
  N, N, N, N, N, N, N, N,   B, Z, N, N, N, N, N, N,
  // B0-BF: mov r8, imm8; mov r, imm (special-cased)
  B, B, B, B, B, B, B, B,   N, N, N, N, N, N, N, N,
  // C0-CF: C4/C5 VEX; C8 ENTER (special-cased); CE INTO invalid
  MB, MB, W, N, P, P, MB, MZ,   N, N, W, N, N, B, X, N,
  // D0-DF: D4/D5/D6 invalid; D8-DF x87
  M, M, M, M, X, X, X, N,   M, M, M, M, M, M, M, M,
  // E0-EF: loop/jrcxz, in/out imm8, call/jmp rel32, EA invalid, jmp rel8
  R8, R8, R8, R8, B, B, B, B,   RZ, RZ, X, R8, N, N, N, N,
  // F0-FF: F6/F7 immediates depend on /reg (special-cased)
  P, N, P, P, N, N, M, M,   N, N, N, N, N, N, M, M,
};

const OpInfo kTwoByte[256] = {
  // 0F 00-0F: 0D prefetch, 0E femms, 0F 3DNow! (special-cased)
  M, M, M, M, X, N, N, N,   N, N, X, N, X, M, N, P,
  // 10-1F
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 20-2F: 20-23 mov cr/dr (ModRM always a register form), 24-27 invalid
  M, M, M, M, X, X, X, X,   M, M, M, M, M, M, M, M,
  // 30-3F: 38/3A escapes
  N, N, N, N, N, N, X, N,   P, X, P, X, X, X, X, X,
  // 40-4F cmov
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 50-5F
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 60-6F
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // 70-7F: 70-73 imm8, 77 emms, 78/79 vmread/vmwrite or SSE4a (special-cased)
  MB, MB, MB, MB, M, M, M, N,   M, M, X, X, M, M, M, M,
  // 80-8F Jcc rel32
  RZ, RZ, RZ, RZ, RZ, RZ, RZ, RZ,   RZ, RZ, RZ, RZ, RZ, RZ, RZ, RZ,
  // 90-9F setcc
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // A0-AF: A6/A7 VIA PadLock (montmul/xsha, xstore/xcrypt: register-form ModRM)
  N, N, N, M, MB, M, M, M,   N, N, N, M, MB, M, M, M,
  // B0-BF: B8 popcnt (with F3), B9 ud1, BA group 8 imm8
  M, M, M, M, M, M, M, M,   M, M, MB, M, M, M, M, M,
  // C0-CF: C8-CF bswap
  M, M, MB, M, MB, MB, MB, M,   N, N, N, N, N, N, N, N,
  // D0-DF
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // E0-EF
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
  // F0-FF: FF ud0
  M, M, M, M, M, M, M, M,   M, M, M, M, M, M, M, M,
};
// clang-format on

bool is_legacy_prefix(uint8_t b) {
  switch (b) {
    case 0xF0:
    case 0xF2:
    case 0xF3:
    case 0x2E:
    case 0x36:
    case 0x3E:
    case 0x26:
    case 0x64:
    case 0x65:
    case 0x66:
    case 0x67: return true;
    default: return false;
  }
}

// Immediate size after ModRM for VEX/EVEX/legacy maps 0F, 0F38 and 0F3A when the map is known.
size_t vex_imm_size(unsigned map, uint8_t op) {
  if (map == 3) return 1;
  if (map == 1) {
    if ((op >= 0x70 && op <= 0x73) || op == 0xC2 || (op >= 0xC4 && op <= 0xC6)) return 1;
  }
  return 0;
}

// LOCK is legal only on the read-modify-write forms with a memory destination; anything else
// raises #UD, so such bytes are not an instruction.
bool lock_allowed(unsigned map, uint8_t op, uint8_t modrm, bool has_modrm) {
  if (!has_modrm || (modrm >> 6) == 3) return false;
  const uint8_t reg = (modrm >> 3) & 7;
  if (map == 0) {
    if (op < 0x40 && (op & 7) < 2 && (op & 0x38) != 0x38) return true;  // add..xor r/m, r (not cmp)
    if (op == 0x80 || op == 0x81 || op == 0x83) return reg != 7;
    if (op == 0x86 || op == 0x87) return true;
    if (op == 0xF6 || op == 0xF7) return reg == 2 || reg == 3;
    if (op == 0xFE || op == 0xFF) return reg < 2;
    return false;
  }
  if (map == 1) {
    if (op == 0xAB || op == 0xB3 || op == 0xBB || op == 0xB0 || op == 0xB1 || op == 0xC0 ||
        op == 0xC1)
      return true;
    if (op == 0xBA) return reg >= 5;
    if (op == 0xC7) return reg == 1;
  }
  return false;
}

struct Cursor {
  const uint8_t* code;
  size_t limit;  // min(available, 15)
  size_t pos = 0;
  bool take(uint8_t* b) {
    if (pos >= limit) return false;
    *b = code[pos++];
    return true;
  }
  bool skip(size_t n) {
    if (n > limit - pos) return false;
    pos += n;
    return true;
  }
  bool peek(uint8_t* b) const {
    if (pos >= limit) return false;
    *b = code[pos];
    return true;
  }
};

bool fail(Instruction* out) {
  *out = Instruction{};
  return false;
}

}  // namespace

bool decode(const uint8_t* code, size_t available, Instruction* out) {
  Instruction insn;
  Cursor c{code, available < kMaxLength ? available : kMaxLength};
  if (code == nullptr) return fail(out);

  bool opsize = false, addrsize = false, rep = false, lock = false;
  uint8_t rex = 0;
  uint8_t b = 0;
  // Legacy prefixes and REX. A REX prefix counts only right before the opcode.
  for (;;) {
    if (!c.take(&b)) return fail(out);
    if (is_legacy_prefix(b)) {
      rex = 0;
      if (b == 0x66)
        opsize = true;
      else if (b == 0x67)
        addrsize = true;
      else if (b == 0xF2 || b == 0xF3)
        rep = true;
      else if (b == 0xF0)
        lock = true;
      continue;
    }
    if ((b & 0xF0) == 0x40) {
      rex = b;
      continue;
    }
    break;
  }
  insn.operand_size_prefix = opsize;
  insn.address_size_prefix = addrsize;
  const bool rex_w = (rex & 0x08) != 0;

  // Opcode: determine map, table entry, ModRM presence and immediate size.
  unsigned map = 0;  // 0 one-byte, 1 0F, 2 0F38, 3 0F3A, 8/9/10 XOP
  bool has_modrm = false;
  size_t imm_size = 0;
  bool force_reg_modrm = false;  // mov cr/dr: mod field ignored
  bool vex_like = false;
  uint8_t op = b;

  if (b == 0xC4 || b == 0xC5 || b == 0x62 || b == 0x8F) {
    // VEX (C4/C5) and EVEX (62) are always such in 64-bit mode; 8F is XOP when the next byte's
    // map field is 8 or more, otherwise pop r/m.
    uint8_t p0 = 0;
    if (!c.peek(&p0)) return fail(out);
    if (b == 0x8F && (p0 & 0x1F) < 8) {
      // pop r/m64: handled as a plain one-byte opcode below.
    } else {
      if (rex != 0 || opsize || rep || lock)
        return fail(out);  // REX/66/F2/F3/F0 before VEX/EVEX/XOP: #UD
      vex_like = true;
      if (b == 0xC5) {
        if (!c.skip(1)) return fail(out);
        map = 1;
      } else if (b == 0xC4) {
        if (!c.skip(2)) return fail(out);
        map = p0 & 0x1F;
        if (map < 1 || map > 3) return fail(out);
      } else if (b == 0x62) {
        uint8_t p[3];
        for (auto& x : p)
          if (!c.take(&x)) return fail(out);
        // P1 bit 2 clear would be Knights Corner's MVEX: #UD on every other CPU.
        if ((p[0] & 0x08) != 0 || (p[1] & 0x04) == 0) return fail(out);
        map = p[0] & 0x07;
        if (map == 0 || map == 4 || map == 7) return fail(out);
      } else {  // XOP
        if (!c.skip(2)) return fail(out);
        map = p0 & 0x1F;
        if (map < 8 || map > 10) return fail(out);
      }
      if (!c.take(&op)) return fail(out);
      insn.opcode_offset = static_cast<uint8_t>(c.pos - 1);
      has_modrm = true;
      if (map == 8)
        imm_size = 1;
      else if (map == 10)
        imm_size = 4;
      else if (map <= 3)
        imm_size = vex_imm_size(map, op);
      if (b == 0xC4 || b == 0xC5) {
        if (map == 1 && op == 0x77) has_modrm = false;  // vzeroupper / vzeroall
        // VEX 0F 84/85 exist only on Knights Corner (jkzd/jknzd); #UD everywhere else.
        if (map == 1 && (op == 0x84 || op == 0x85)) return fail(out);
      }
    }
  }

  if (!vex_like) {
    op = b;
    insn.opcode_offset = static_cast<uint8_t>(c.pos - 1);
    OpInfo info;
    if (b == 0x0F) {
      if (!c.take(&op)) return fail(out);
      if (op == 0x38 || op == 0x3A) {
        map = op == 0x38 ? 2 : 3;
        if (!c.take(&op)) return fail(out);
        info = map == 2 ? M : MB;
      } else {
        map = 1;
        info = kTwoByte[op];
        if (op == 0x0F) info = MB;  // 3DNow!: ModRM, then the opcode as an imm8 suffix
        if (op >= 0x20 && op <= 0x23) force_reg_modrm = true;
        if (op == 0x78 && (opsize || rep)) {
          // SSE4a EXTRQ (66) / INSERTQ (F2): two imm8 after a register-form ModRM.
          info = M;
          imm_size = 2;
        }
      }
      insn.opcode_offset = static_cast<uint8_t>(c.pos - 1);
    } else {
      info = kOneByte[b];
      if (b == 0xC8)
        info = OpInfo{true, false, kIwb};
      else if (b >= 0xA0 && b <= 0xA3)
        info = OpInfo{true, false, kMoffs};
      else if (b >= 0xB8 && b <= 0xBF)
        info = OpInfo{true, false, kIv};
      else if (b == 0x8F)
        info = M;
    }
    if (!info.valid) return fail(out);
    has_modrm = info.modrm;
    switch (info.imm) {
      case kI0: break;
      case kIb: imm_size = 1; break;
      case kIw: imm_size = 2; break;
      case kIz: imm_size = opsize && !rex_w ? 2 : 4; break;  // REX.W overrides 66
      case kIv: imm_size = rex_w ? 8 : (opsize ? 2 : 4); break;
      case kIwb: imm_size = 3; break;
      case kMoffs: imm_size = addrsize ? 4 : 8; break;
      case kRel8: imm_size = 1; break;
      case kRelz: imm_size = 4; break;
    }
  }

  // ModRM, SIB, displacement.
  uint8_t modrm = 0;
  if (has_modrm) {
    if (!c.take(&modrm)) return fail(out);
    const uint8_t mod = modrm >> 6, reg = (modrm >> 3) & 7, rm = modrm & 7;
    if (!vex_like && map == 0) {
      // Opcode extensions that change the immediate or validity.
      if ((b == 0xF6 || b == 0xF7) && reg < 2)
        imm_size = b == 0xF6 ? 1 : (opsize && !rex_w ? 2 : 4);
      if (b == 0xFE && reg > 1) return fail(out);
      if (b == 0xFF && (reg == 7 || ((reg == 3 || reg == 5) && mod == 3))) return fail(out);
      if (b == 0x8F && reg != 0) return fail(out);
      if (b == 0xC6 || b == 0xC7) {
        if (reg == 7) {
          if (modrm != 0xF8) return fail(out);
          if (b == 0xC7) {  // XBEGIN rel32 (rel16 with 66, unless REX.W overrides it)
            imm_size = opsize && !rex_w ? 2 : 4;
            insn.branch = BranchKind::kXbegin;
          }
        } else if (reg != 0) {
          return fail(out);
        }
      }
      if (b == 0x8D && mod == 3) return fail(out);  // lea needs memory
    }
    if (mod != 3 && !force_reg_modrm) {
      if (rm == 4) {
        uint8_t sib = 0;
        if (!c.take(&sib)) return fail(out);
        if (mod == 0 && (sib & 7) == 5) {
          insn.disp_offset = static_cast<uint8_t>(c.pos);
          if (!c.skip(4)) return fail(out);
        }
      } else if (mod == 0 && rm == 5) {
        insn.rip_relative = true;
        insn.disp_offset = static_cast<uint8_t>(c.pos);
        if (!c.skip(4)) return fail(out);
      }
      if (mod == 1) {
        insn.disp_offset = static_cast<uint8_t>(c.pos);
        if (!c.skip(1)) return fail(out);
      } else if (mod == 2) {
        insn.disp_offset = static_cast<uint8_t>(c.pos);
        if (!c.skip(4)) return fail(out);
      }
    }
  }

  if (lock && !vex_like && !lock_allowed(map, op, modrm, has_modrm)) return fail(out);

  // Immediate / relative displacement.
  const size_t imm_offset = c.pos;
  if (!c.skip(imm_size)) return fail(out);

  // Classification.
  if (!vex_like) {
    if (map == 0) {
      if (b >= 0x70 && b <= 0x7F)
        insn.branch = BranchKind::kJccRel8;
      else if (b == 0xE0 || b == 0xE1 || b == 0xE2)
        insn.branch = BranchKind::kLoop;
      else if (b == 0xE3)
        insn.branch = BranchKind::kJrcxz;
      else if (b == 0xE8)
        insn.branch = BranchKind::kCallRel32;
      else if (b == 0xE9)
        insn.branch = BranchKind::kJmpRel32;
      else if (b == 0xEB)
        insn.branch = BranchKind::kJmpRel8;

      const uint8_t reg = (modrm >> 3) & 7;
      if (b == 0xC2 || b == 0xC3 || b == 0xCA || b == 0xCB || b == 0xCF)
        insn.flow = FlowKind::kReturn;
      else if (b == 0xE9 || b == 0xEB || (b == 0xFF && (reg == 4 || reg == 5)))
        insn.flow = FlowKind::kJumpAlways;
      else if (b == 0xCC)
        insn.flow = FlowKind::kInt3;
    } else if (map == 1) {
      if (op >= 0x80 && op <= 0x8F) insn.branch = BranchKind::kJccRel32;
      if (op == 0x0B || op == 0xB9 || op == 0xFF) insn.flow = FlowKind::kUndefined;
    }
  }
  if (insn.branch != BranchKind::kNone) {
    insn.rel_offset = static_cast<uint8_t>(imm_offset);
    insn.rel_size = static_cast<uint8_t>(imm_size);
  }
  insn.length = static_cast<uint8_t>(c.pos);
  insn.valid = true;
  *out = insn;
  return true;
}

namespace {
int64_t read_signed(const uint8_t* p, size_t size) {
  switch (size) {
    case 1: return static_cast<int8_t>(p[0]);
    case 2: {
      int16_t v;
      std::memcpy(&v, p, 2);
      return v;
    }
    case 4: {
      int32_t v;
      std::memcpy(&v, p, 4);
      return v;
    }
    default: return 0;
  }
}
}  // namespace

uint64_t branch_target(const Instruction& insn, const uint8_t* code, uint64_t address) {
  const uint64_t next = address + insn.length;
  const uint64_t target =
      next + static_cast<uint64_t>(read_signed(code + insn.rel_offset, insn.rel_size));
  if (insn.rel_size == 2) return target & 0xFFFF;  // xbegin with 66
  return target;
}

uint64_t rip_relative_target(const Instruction& insn, const uint8_t* code, uint64_t address) {
  const uint64_t target =
      address + insn.length + static_cast<uint64_t>(read_signed(code + insn.disp_offset, 4));
  return insn.address_size_prefix ? (target & 0xFFFFFFFFu) : target;
}

}  // namespace hookengine
