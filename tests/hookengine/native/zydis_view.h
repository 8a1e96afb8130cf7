// Zydis as the oracle of the native checks and the trampoline fuzzer: its reading of an
// instruction compared with the decoder's, and an independent check of a built trampoline.
#pragma once
#include <cstdint>
#include <string>

#include "hookengine/relocator.h"

// Empty when the decoder agrees with Zydis in `mode` at `code` (validity, length, RIP-relative
// and absolute operands and their displacement's position, relative branch position/width,
// flow), or when the decoder's refusal is one x64_decoder.h lists as deliberate (KNC, XOP,
// 3DNow!); else a one-line description of the difference.
std::string compare_with_zydis(const uint8_t* code, size_t available, hookengine::Mode mode = hookengine::Mode::k64);

struct Built {
  hookengine::RelocateStatus status;
  hookengine::Relocation r;
  uint8_t out[hookengine::kMaxTrampolineLength + 16];  // the last 16 bytes: beyond the capacity
};

// Builds the trampoline of a patch_size patch at `code` (n readable bytes at target) for
// out_address into *b and returns "" when it is right: a refusal writes nothing; a trampoline,
// read by Zydis, reaches the same branch targets (same conditions) and RIP-relative addresses as
// the original instructions, keeps every other byte, jumps back to the end of the copied bytes,
// maps exactly the copied instruction starts, and one byte less capacity is refused cleanly.
// 32-bit mode: a call must have become a push of its original return address and a jmp to its
// target (the push alone for a call of its next instruction).
std::string build_checked(const uint8_t* code, size_t n, uint64_t target, size_t patch_size, uint64_t out_address,
                          Built* b, hookengine::Mode mode = hookengine::Mode::k64);
