// Arbitrary bytes through the x86-64 decoder and the trampoline builder. Byte 0 picks the patch
// size (5..14, low nibble) and the placement (bits 4-5: near, far below, far above, or two
// user-mode addresses from the next 16 bytes); the rest is the code, readable to its last byte
// only (a heap copy of exactly that size, so AddressSanitizer sees any read beyond).
//
// Checked: the decoder agrees with Zydis on every instruction read linearly; a built trampoline
// is right as Zydis reads it (verify_trampoline) and maps every copied instruction start, and
// nothing inside an instruction; the builder writes nothing when it refuses or when the buffer is
// one byte short.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "zydis_view.h"

using hookengine::RelocateStatus;
using hookengine::Relocation;

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
  const size_t n = size - header;
  std::unique_ptr<uint8_t[]> code(new uint8_t[n ? n : 1]);
  std::memcpy(code.get(), data + header, n);
  for (size_t at = 0; at < n;) {
    const std::string diff = compare_with_zydis(code.get() + at, n - at);
    FUZZ_CHECK(diff.empty(), "decoder and Zydis differ at +%zu (%s): %s", at, hex(code.get() + at, n - at < 15 ? n - at : 15).c_str(),
               diff.c_str());
    hookengine::Instruction insn;
    if (!hookengine::decode(code.get() + at, n - at, &insn)) break;
    at += insn.length;
  }

  uint8_t out[hookengine::kMaxTrampolineLength];
  std::memset(out, 0xA5, sizeof out);
  Relocation r;
  r.copied_length = 0xBAD;
  const RelocateStatus status = hookengine::build_trampoline(code.get(), n, target, patch_size, out, sizeof out, out_address, &r);
  if (status != RelocateStatus::kOk) {
    for (uint8_t b : out) FUZZ_CHECK(b == 0xA5, "refusal (%s) wrote to the trampoline", hookengine::to_string(status));
    FUZZ_CHECK(r.copied_length == 0xBAD, "refusal (%s) wrote the result", hookengine::to_string(status));
    return 0;
  }
  FUZZ_CHECK(r.copied_length >= patch_size && r.copied_length <= n, "copied %zu of %zu", r.copied_length, n);
  const std::string wrong = verify_trampoline(code.get(), n, target, out, r, out_address);
  FUZZ_CHECK(wrong.empty(), "Zydis reads the trampoline differently: %s", wrong.c_str());
  for (size_t at = 0, k = 0; at < r.copied_length; ++at) {
    uint64_t moved = 0;
    const bool start = k < r.boundary_count && r.original_offsets[k] == at;
    FUZZ_CHECK(hookengine::map_to_trampoline(r, target, out_address, target + at, &moved) == start &&
                   (!start || moved == out_address + r.trampoline_offsets[k++]),
               "+%zu mapped wrongly", at);
  }
  uint8_t small[hookengine::kMaxTrampolineLength];
  std::memset(small, 0x5A, sizeof small);
  Relocation unused;
  FUZZ_CHECK(hookengine::build_trampoline(code.get(), n, target, patch_size, small, r.trampoline_length - 1, out_address,
                                          &unused) == RelocateStatus::kBufferTooSmall,
             "a buffer one byte short was not refused");
  for (uint8_t b : small) FUZZ_CHECK(b == 0x5A, "short buffer written");
  return 0;
}
