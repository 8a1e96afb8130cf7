// Arbitrary bytes through the x86-64 decoder and the trampoline builder. Input: byte 0 picks the
// patch size (5..14, low nibble) and the placement (bits 4-5: near, far above, far below, or
// two user-mode addresses from the next 16 bytes); the rest is the code, readable to its last byte only
// (a heap copy of exactly that size, so AddressSanitizer sees any read beyond).
//
// Checked: the decoder agrees with Zydis on every instruction read linearly (validity, length,
// RIP-relative operand, relative branch, flow); a built trampoline reaches the same
// branch targets and RIP-relative addresses as the original, copies everything else byte for
// byte and jumps back to the end of the copied bytes, both as Zydis reads it and as our decoder
// reads it; the builder writes nothing when it refuses or the buffer is one byte short; the
// boundary map moves every copied instruction start and nothing else.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "hookengine/relocator.h"
#include "hookengine/x64_decoder.h"
#include "zydis_view.h"

namespace {

using hookengine::BranchKind;
using hookengine::Instruction;
using hookengine::RelocateStatus;
using hookengine::Relocation;

struct Placement {
  uint64_t target = 0;
  uint64_t out = 0;
};

uint64_t read_u64(const uint8_t* p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}

// Linear decode of the input, compared with Zydis, up to the first byte either cannot decode.
// Validity must agree except where x64_decoder.h lists a deliberate refusal (the builder then
// refuses too). Any other difference is a finding. Returns where Zydis first rejected an
// instruction our decoder accepts (SIZE_MAX: nowhere; any other value is already a finding).
size_t check_decoder(const uint8_t* code, size_t size) {
  size_t at = 0;
  while (at < size) {
    Instruction mine;
    const bool ok = hookengine::decode(code + at, size - at, &mine);
    RefInsn ref;
    ref_decode(code + at, size - at, &ref);
    const std::string diff = compare(ok, mine, ref);
    FUZZ_CHECK(diff.empty() || expected_difference(ok, ref),
               "decoder and Zydis differ at +%zu (%s): %s", at,
               hex(code + at, size - at < 15 ? size - at : 15).c_str(), diff.c_str());
    if (ok && !ref.valid) return at;
    if (!ok) break;
    at += mine.length;
  }
  return SIZE_MAX;
}

// Where control can go from the trampoline bytes [from, to), as our decoder reads them: relative
// branch targets and the qword literals of jmp/call [rip+disp32] inside the trampoline. True
// only when every instruction there decodes; the literals are skipped, not decoded.
bool transfers(const uint8_t* tramp, size_t len, uint64_t base, size_t from, size_t to, uint64_t* targets,
               size_t* count) {
  *count = 0;
  size_t literals[8];
  size_t literal_count = 0;
  size_t at = from;
  while (at < to) {
    bool skipped = false;
    for (size_t i = 0; i < literal_count && !skipped; ++i) skipped = literals[i] == at;
    if (skipped) {
      at += 8;
      continue;
    }
    Instruction t;
    if (!hookengine::decode(tramp + at, len - at, &t)) return false;
    const uint64_t address = base + at;
    if (t.branch != BranchKind::kNone && *count < 8) {
      targets[(*count)++] = hookengine::branch_target(t, tramp + at, address);
    }
    const uint8_t op = tramp[at + t.opcode_offset];
    const uint8_t reg = (tramp[at + t.opcode_offset + 1] >> 3) & 7;
    if (t.rip_relative && op == 0xFF && (reg == 2 || reg == 4)) {
      const uint64_t literal = hookengine::rip_relative_target(t, tramp + at, address);
      if (literal >= base && literal - base + 8 <= len && *count < 8 && literal_count < 8) {
        targets[(*count)++] = read_u64(tramp + (literal - base));
        literals[literal_count++] = literal - base;
      }
    }
    at += t.length;
  }
  return at == to;
}

// The Zydis check refuses a far RIP-relative rebuild whose instruction names rsp. The hint NOPs
// (0F 19-1F) name a register in their reg field that they never use, so rebuilding them on a
// pushed scratch register is harmless: that refusal alone is let pass.
bool is_hint_nop_register(const uint8_t* code, size_t size, const std::string& zydis) {
  size_t offset = 0;
  if (std::sscanf(zydis.c_str(), "rip-relative at +%zu: instruction uses the scratch register or rsp", &offset) != 1 ||
      zydis.find("uses the scratch register or rsp") == std::string::npos || offset >= size)
    return false;
  RefInsn ref;
  return ref_decode(code + offset, size - offset, &ref) && ref.insn.mnemonic == ZYDIS_MNEMONIC_NOP;
}

bool contains(const uint64_t* targets, size_t count, uint64_t value) {
  for (size_t i = 0; i < count; ++i) {
    if (targets[i] == value) return true;
  }
  return false;
}

// The trampoline as our own decoder reads it, segment by segment.
void check_with_decoder(const uint8_t* code, size_t size, const Placement& at, size_t patch_size,
                        const uint8_t* tramp, const Relocation& r) {
  FUZZ_CHECK(r.copied_length >= patch_size && r.copied_length <= size, "copied %zu of %zu for a %zu-byte patch",
             r.copied_length, size, patch_size);
  FUZZ_CHECK(r.trampoline_length <= hookengine::kMaxTrampolineLength, "trampoline of %zu bytes",
             r.trampoline_length);
  FUZZ_CHECK(r.boundary_count >= 1 && r.boundary_count <= 16, "%u boundaries", r.boundary_count);
  uint64_t targets[8];
  size_t count = 0;
  // The jump back ends the trampoline: E9 rel32, or jmp [rip+0] with its literal. Copied bytes
  // can look like either, so the form that reaches the end of the copied bytes counts.
  const size_t len = r.trampoline_length;
  const uint64_t end = at.target + r.copied_length;
  size_t back = len - 5;
  if (!(len >= 5 && tramp[len - 5] == 0xE9 && transfers(tramp, len, at.out, back, len, targets, &count) &&
        count == 1 && targets[0] == end)) {
    FUZZ_CHECK(len >= 14, "no jump back in %zu bytes", len);
    back = len - 14;
    FUZZ_CHECK(transfers(tramp, len, at.out, back, len, targets, &count) && count == 1 && targets[0] == end,
               "no jump back to the end of the copied bytes");
  }
  for (int k = 0; k < r.boundary_count; ++k) {
    const size_t orig = r.original_offsets[k];
    const size_t seg = r.trampoline_offsets[k];
    Instruction o;
    FUZZ_CHECK(hookengine::decode(code + orig, size - orig, &o), "copied instruction at +%zu undecodable", orig);
    const size_t orig_end = orig + o.length;
    FUZZ_CHECK(k + 1 < r.boundary_count ? r.original_offsets[k + 1] == orig_end : orig_end == r.copied_length,
               "boundary after +%zu is not the next instruction", orig);
    const size_t seg_end = k + 1 < r.boundary_count ? r.trampoline_offsets[k + 1] : back;
    FUZZ_CHECK(seg <= seg_end && seg_end <= len, "segment %d out of order", k);
    const uint64_t o_address = at.target + orig;
    if (o.branch != BranchKind::kNone) {
      const uint64_t dest = hookengine::branch_target(o, code + orig, o_address);
      FUZZ_CHECK(transfers(tramp, len, at.out, seg, seg_end, targets, &count) &&
                     contains(targets, count, dest),
                 "branch at +%zu to %llx not reached by the trampoline", orig, static_cast<unsigned long long>(dest));
    } else if (o.rip_relative) {
      const uint64_t ea = hookengine::rip_relative_target(o, code + orig, o_address);
      Instruction t;
      FUZZ_CHECK(hookengine::decode(tramp + seg, len - seg, &t), "rip-relative at +%zu undecodable",
                 orig);
      if (t.rip_relative) {
        FUZZ_CHECK(hookengine::rip_relative_target(t, tramp + seg, at.out + seg) == ea && seg + t.length == seg_end,
                   "rip-relative at +%zu: address differs", orig);
      } else {
        // Rebuilt beyond disp32 reach: the address is loaded as an immediate somewhere in the
        // segment (the full 8 bytes, or the low 4 for a 32-bit lea).
        bool found = false;
        for (size_t i = seg; i + 4 <= seg_end && !found; ++i) {
          found = (i + 8 <= seg_end && read_u64(tramp + i) == ea) || std::memcmp(tramp + i, &ea, 4) == 0;
        }
        FUZZ_CHECK(found, "rip-relative at +%zu: address %llx not loaded", orig, static_cast<unsigned long long>(ea));
      }
    } else {
      FUZZ_CHECK(seg_end - seg == o.length && std::memcmp(tramp + seg, code + orig, o.length) == 0,
                 "instruction at +%zu not copied verbatim", orig);
    }
    uint64_t moved = 0;
    FUZZ_CHECK(hookengine::map_to_trampoline(r, at.target, at.out, o_address, &moved) && moved == at.out + seg,
               "boundary +%zu not mapped to its segment", orig);
    for (size_t inner = orig + 1; inner < orig_end; ++inner) {
      FUZZ_CHECK(!hookengine::map_to_trampoline(r, at.target, at.out, at.target + inner, &moved),
                 "inside an instruction (+%zu) mapped", inner);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t patch_size = 5 + (data[0] & 0x0F) % 10;
  Placement at;
  size_t header = 1;
  switch ((data[0] >> 4) & 3) {
    case 0: at = {0x00007FF812345670ull, 0x00007FF812345670ull - 0x40000000ull}; break;  // 1 GB below
    case 1: at = {0x00007FF812345670ull, 0x0000000010000000ull}; break;               // far below
    case 2: at = {0x0000000000401000ull, 0x00007FFF00000000ull}; break;               // far above
    default:
      if (size < 17) return 0;
      // Any two user-mode addresses (47 bits): code and trampolines live nowhere else.
      at = {read_u64(data + 1) & 0x00007FFFFFFFFFFFull, read_u64(data + 9) & 0x00007FFFFFFFFFFFull};
      header = 17;
  }
  const size_t code_size = size - header;
  std::unique_ptr<uint8_t[]> code(new uint8_t[code_size ? code_size : 1]);
  std::memcpy(code.get(), data + header, code_size);

  const size_t first_undefined = check_decoder(code.get(), code_size);

  std::unique_ptr<uint8_t[]> out(new uint8_t[hookengine::kMaxTrampolineLength]);
  std::memset(out.get(), 0xA5, hookengine::kMaxTrampolineLength);
  Relocation r;
  r.copied_length = 0xBAD;
  const RelocateStatus status = hookengine::build_trampoline(code.get(), code_size, at.target, patch_size, out.get(),
                                                             hookengine::kMaxTrampolineLength, at.out, &r);
  if (status != RelocateStatus::kOk) {
    for (size_t i = 0; i < hookengine::kMaxTrampolineLength; ++i)
      FUZZ_CHECK(out[i] == 0xA5, "refusal (%s) wrote to the trampoline", hookengine::to_string(status));
    FUZZ_CHECK(r.copied_length == 0xBAD, "refusal (%s) wrote the result", hookengine::to_string(status));
    return 0;
  }

  if (r.copied_length <= first_undefined) {
    const std::string zydis = verify_trampoline(code.get(), code_size, at.target, patch_size, out.get(), r, at.out);
    FUZZ_CHECK(zydis.empty() || is_hint_nop_register(code.get(), code_size, zydis),
               "Zydis reads the trampoline differently: %s", zydis.c_str());
  }
  check_with_decoder(code.get(), code_size, at, patch_size, out.get(), r);

  // One byte short: refused, nothing written.
  std::unique_ptr<uint8_t[]> small(new uint8_t[r.trampoline_length - 1 ? r.trampoline_length - 1 : 1]);
  std::memset(small.get(), 0x5A, r.trampoline_length - 1);
  Relocation unused;
  FUZZ_CHECK(hookengine::build_trampoline(code.get(), code_size, at.target, patch_size, small.get(),
                                          r.trampoline_length - 1, at.out, &unused) == RelocateStatus::kBufferTooSmall,
             "a buffer one byte short was not refused");
  for (size_t i = 0; i + 1 < r.trampoline_length; ++i) FUZZ_CHECK(small[i] == 0x5A, "short buffer written");
  return 0;
}
