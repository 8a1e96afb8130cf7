// x86 instruction-length decoder for 64-bit and 32-bit code: plain portable C++ (no Windows
// headers), so it also builds natively for checks against reference disassemblers. One set of
// opcode tables serves both modes; the mode decides what differs (32-bit mode: 40-4F are inc/dec,
// the opcodes 64-bit mode dropped are instructions, C4/C5/62 are VEX/EVEX only when the next byte
// could not be a ModRM memory operand of les/lds/bound, [disp32] is absolute, 67 selects 16-bit
// addressing, moffs is 4 bytes, 66 makes a relative branch 16-bit).
//
// Validity follows Zydis 4.0 in each mode (checked at every byte offset of Wine's exported functions and on
// random encodings of every opcode by tests/hookengine/native): reserved x87 forms, SSE opcodes
// without their mandatory prefix (the last F2/F3 wins over 66), missing segment or control
// registers, MPX misuse, undefined entries of every opcode map, and VEX/EVEX fields an opcode
// does not allow (L, L'L, W, vvvv, b, z, masking, high registers, VSIB, operands that must
// differ) are not instructions. The opcode-map tables in x64_decoder.cpp were read off Zydis
// and are held to it by those checks. Deliberate differences, all refusals of bytes Zydis
// decodes (the hook engine then declines to hook):
//  - Knights Corner (MVEX and its VEX forms: jkzd, kconcath, ...): #UD on other processors.
//  - XOP (8F with map 8-10) and 3DNow! (0F 0F, femms 0F 0E): AMD family 15h and older only,
//    #UD on current processors. 8F with map 0-7 stays pop r/m.
// In 64-bit mode a 66 prefix on E8/E9/0F 8x is read as Intel CPUs run it (rel32); see
// operand_size_prefix. In 32-bit mode it makes the branch rel16 on every CPU.
#pragma once
#include <cstddef>
#include <cstdint>

namespace hookengine {

// The mode the code runs in: a 64-bit process, or a 32-bit one (also under WoW64).
enum class Mode : uint8_t { k64, k32 };

enum class BranchKind : uint8_t {
  kNone,         // not a control transfer with a relative target
  kCallRel32,    // E8
  kJmpRel32,     // E9
  kJmpRel8,      // EB
  kJccRel8,      // 70-7F
  kJccRel32,     // 0F 80-8F
  kLoop,         // E0-E2 (LOOPNE, LOOPE, LOOP), rel8
  kJrcxz,        // E3, rel8 (jecxz in 32-bit mode)
  kXbegin,       // C7 F8, rel32 (rel16 with 66): the transaction's abort target
};

enum class FlowKind : uint8_t {
  kNormal,
  kReturn,          // C2, C3, CA, CB, CF (iret)
  kJumpAlways,      // E9, EB, EA (32-bit), FF /4, FF /5 (ends the fall-through path)
  kInt3,            // CC
  kUndefined,       // UD2 (0F 0B), UD1 (0F B9), UD0 (0F FF): raise #UD, never fall through
};

struct Instruction {
  bool valid = false;         // false: undecodable, or invalid in the mode
  Mode mode = Mode::k64;      // the mode it was decoded in
  uint8_t length = 0;         // 1..15 when valid
  // RIP-relative memory operand ([rip+disp32], 64-bit mode only): where its disp32 sits.
  bool rip_relative = false;
  // A memory operand at a fixed address (no base, no index: [disp32], [disp16] with 67 in 32-bit
  // mode, the moffs of A0-A3): its address sits at disp_offset. Moving the code leaves it right.
  bool absolute_address = false;
  uint8_t disp_offset = 0;    // offset of the displacement from the instruction start
  // Relative branch: where its displacement sits and how wide it is (1, 2 or 4 bytes).
  BranchKind branch = BranchKind::kNone;
  uint8_t rel_offset = 0;
  uint8_t rel_size = 0;
  FlowKind flow = FlowKind::kNormal;
  uint8_t opcode_offset = 0;  // offset of the (last) opcode byte, after prefixes/REX/VEX/EVEX
  // 66 present. 64-bit mode: a relative branch's width then depends on the CPU vendor (Intel
  // ignores it on near call/jmp/Jcc, AMD truncates the target to 16 bits); the decoder follows
  // Intel. 32-bit mode: the branch is 16-bit (rel16 for the rel32 forms), its target truncated.
  bool operand_size_prefix = false;
  // 67 present: a RIP-relative operand is then EIP-relative (address truncated to 32 bits) and
  // LOOP/JRCXZ test ECX (32-bit mode: 16-bit addressing, and they test CX).
  bool address_size_prefix = false;
};

// Decodes one instruction at `code` with at most `available` bytes readable (never reads
// beyond). Returns false (and out->valid == false) when the bytes do not form a valid
// instruction of `mode` within `available` bytes or 15 bytes.
bool decode(const uint8_t* code, size_t available, Instruction* out, Mode mode = Mode::k64);

// True for the legacy prefixes: 66, 67, F0, F2, F3 and the segment overrides 26, 2E, 36, 3E, 64, 65.
bool is_legacy_prefix(uint8_t b);

// Target of a relative branch or the address a RIP-relative operand refers to, given the
// instruction's runtime address (32-bit mode: wrapped to 32 bits, or 16 with 66).
uint64_t branch_target(const Instruction& insn, const uint8_t* code, uint64_t address);
uint64_t rip_relative_target(const Instruction& insn, const uint8_t* code, uint64_t address);

}  // namespace hookengine
