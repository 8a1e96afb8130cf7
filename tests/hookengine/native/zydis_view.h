// Zydis as the oracle of the native checks and the trampoline fuzzer: its reading of an
// instruction compared with the decoder's, and an independent check of a built trampoline.
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
std::string hex(const uint8_t* p, size_t n);

// Empty when the decoder agrees with Zydis at `code` (validity, length, RIP-relative operand and
// its disp32 position, relative branch kind/position/width, flow), or when the decoder's refusal
// is one x64_decoder.h lists as deliberate; else a one-line description of the difference.
std::string compare_with_zydis(const uint8_t* code, size_t available);

// Empty when the trampoline `tramp` (at out_address), read by Zydis, reaches the same branch
// targets (same conditions) and RIP-relative addresses as the original instructions, keeps every
// other instruction byte for byte, and jumps back to target_address + copied_length.
std::string verify_trampoline(const uint8_t* target, size_t readable, uint64_t target_address,
                              const uint8_t* tramp, const hookengine::Relocation& r, uint64_t out_address);
