// Arbitrary bytes through the x86 decoder and the trampoline builder, in both modes. Byte 0 picks
// the patch size (5..14, low nibble), the placement (bits 4-5: near, far below, far above, or two
// user-mode addresses from the next 16 bytes) and the mode (bit 6: 32-bit, the addresses then
// brought below 4 GB); the rest is the code, readable to its last byte only (a heap copy of exactly
// that size, so AddressSanitizer sees any read beyond).
// Checked: the decoder agrees with Zydis on every instruction read linearly, and the trampoline
// (or refusal) passes build_checked.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "hookengine/x64_decoder.h"
#include "zydis_view.h"
#undef NDEBUG  // the checks hold in every build: a failed one aborts, and libFuzzer keeps the input
#include <cassert>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t patch_size = 5 + (data[0] & 0x0F) % 10;
  uint64_t target = 0x00007FF812345670ull, out_address = target - 0x40000000ull;  // 1 GB below
  size_t header = 1;
  switch ((data[0] >> 4) & 3) {
    case 1: out_address = 0x10000000ull; break;                                 // far below
    case 2: target = 0x401000ull, out_address = 0x00007FFF00000000ull; break;  // far above
    case 3:  // any two user-mode addresses (47 bits): code and trampolines live nowhere else
      if (size < 17) return 0;
      std::memcpy(&target, data + 1, 8);
      std::memcpy(&out_address, data + 9, 8);
      target &= 0x00007FFFFFFFFFFFull, out_address &= 0x00007FFFFFFFFFFFull, header = 17;
  }
  const hookengine::Mode mode = (data[0] & 0x40) ? hookengine::Mode::k32 : hookengine::Mode::k64;
  // A 32-bit process's user-mode addresses end below 0xFFFF0000 (4 GB large-address-aware under WoW64).
  if (mode == hookengine::Mode::k32) target %= 0xFFFE0000ull, out_address %= 0xFFFE0000ull;
  const std::vector<uint8_t> code(data + header, data + size);  // exactly its size: ASan sees a read beyond
  const size_t n = code.size();
  hookengine::Instruction insn;
  for (size_t at = 0; at < n; at += insn.length) {
    const std::string diff = compare_with_zydis(code.data() + at, n - at, mode);
    if (!diff.empty()) std::fprintf(stderr, "decoder and Zydis differ at +%zu: %s\n", at, diff.c_str());
    assert(diff.empty());
    if (!hookengine::decode(code.data() + at, n - at, &insn, mode)) break;
  }
  Built b;
  const std::string wrong = build_checked(code.data(), n, target, patch_size, out_address, &b, mode);
  if (!wrong.empty()) std::fprintf(stderr, "trampoline (%s): %s\n", hookengine::to_string(b.status), wrong.c_str());
  assert(wrong.empty());
  return 0;
}
