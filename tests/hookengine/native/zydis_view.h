// The reference side of the native checks: Zydis's reading of an instruction, the comparison
// with the decoder's, and an independent check of a built trampoline.
#pragma once
#include <Zydis/Zydis.h>

#include <cstdint>
#include <string>

#include "hookengine/relocator.h"
#include "hookengine/x64_decoder.h"

struct RefInsn {
  bool valid = false;
  ZydisDecodedInstruction insn{};
  ZydisDecodedOperand ops[ZYDIS_MAX_OPERAND_COUNT]{};
  int rip_operand = -1;  // index of the [rip+disp32] / [eip+disp32] memory operand
  int rel_operand = -1;  // index of the relative immediate
};

bool ref_decode(const uint8_t* code, size_t available, RefInsn* out);
uint64_t ref_address(const RefInsn& r, int operand, uint64_t runtime_address);
std::string hex(const uint8_t* p, size_t n);

// Empty when the decoder's result (ok = its return value) agrees with Zydis on validity,
// length, the RIP-relative operand (flag and disp32 position), the relative branch (kind,
// position, width) and the flow kind; otherwise a one-line description of the difference.
std::string compare(bool ok, const hookengine::Instruction& mine, const RefInsn& ref);

// Why the decoder's refusal (ok false) of what Zydis decodes is deliberate (see x64_decoder.h),
// or nullptr.
const char* expected_difference(bool ok, const RefInsn& ref);

// Empty when the trampoline `tramp` (at out_address), decoded by Zydis, reaches the same branch
// targets and RIP-relative addresses as the original instructions, keeps every other
// instruction byte for byte, and jumps back to target_address + copied_length.
std::string verify_trampoline(const uint8_t* target, size_t readable, uint64_t target_address,
                              size_t patch_size, const uint8_t* tramp,
                              const hookengine::Relocation& r, uint64_t out_address);
