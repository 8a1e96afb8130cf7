// The decoder and the relocator against Zydis: tables of the special cases, then every offset of
// the exported functions of Wine's x86-64 DLLs and random encodings of every opcode, and the
// trampoline of every export near and far (> 2 GB), each checked with verify_trampoline.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "zydis_view.h"

using namespace hookengine;

namespace {

std::vector<uint8_t> bytes_of(const std::string& s) {
  std::vector<uint8_t> v;
  for (size_t i = 0; i + 1 < s.size(); i += s[i] == ' ' ? 1 : 2)
    if (s[i] != ' ') v.push_back(static_cast<uint8_t>(std::stoi(s.substr(i, 2), nullptr, 16)));
  return v;
}

// One encoding per decoding path, valid or not: each agrees with Zydis and needs exactly its
// length in readable bytes (placed before an inaccessible page, so a read beyond faults).
TEST(Decoder, CasesAgreeWithZydisAndReadExactlyTheirLength) {
  const char* const cases[] = {
      "48 8b 05 10 20 30 40", "8b 04 25 10 20 30 40", "41 8b 45 00", "f6 05 d0 d1 d2 d3 01",  // [rip], SIB, r13, F6 /0
      "66 48 b8 88 77 66 55 44 33 22 11", "0f 0b", "f3 0f b8 c1", "66 0f 78 c0 04 08",    // REX.W over 66, ud2, popcnt
      "f0 48 0f b1 0d 00 00 00 00", "c5 f8 77", "c4 e3 79 0f c1 08", "62 f1 7c 48 10 05 00 00 00 00", "8f c0",
      "67 e3 10", "66 48 c7 f8 00 01 00 00", "f2 e9 00 00 00 00", "66 e8 00 00 00 00",  // 66 read as Intel runs it
      "66 66 66 66 66 66 66 66 66 66 66 66 66 66 90", "66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 90",  // 15, 16 bytes
      "06", "82 c0 01", "ff f8", "d9 08", "0f d6 43 18", "8c f0", "44 0f 20 c8", "0f 1a 05 00 00 00 00", "f0 83 c0 01",
      "f0 90", "f0 0f 1f 00", "66 c5 f8 77", "c5 f8 00 c0", "c5 f8 84 e4 fe 2c ac", "8f e9 78 e1 c0", "0f 0f c1 9e",
  };
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  auto* mem = static_cast<uint8_t*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(mem + page, page, PROT_NONE);
  size_t valid = 0;
  for (const char* c : cases) {
    SCOPED_TRACE(c);
    const std::vector<uint8_t> b = bytes_of(c);
    EXPECT_EQ(compare_with_zydis(b.data(), b.size()), "");
    Instruction insn;
    if (!decode(b.data(), b.size(), &insn)) continue;
    ++valid;
    for (size_t n : {size_t{insn.length}, size_t{insn.length} - 1u}) {
      std::memcpy(mem + page - n, b.data(), n);
      EXPECT_EQ(decode(mem + page - n, n, &insn), n == b.size());
    }
  }
  munmap(mem, 2 * page);
  EXPECT_EQ(valid, 18u);
  const std::vector<uint8_t> jne = bytes_of("0f 85 f0 ff ff ff"), mov = bytes_of("48 8b 05 f9 ff ff ff");
  Instruction insn;
  ASSERT_TRUE(decode(jne.data(), jne.size(), &insn));
  EXPECT_EQ(branch_target(insn, jne.data(), 0x7ff000001000), 0x7ff000001006u - 16);
  ASSERT_TRUE(decode(mov.data(), mov.size(), &insn));
  EXPECT_EQ(rip_relative_target(insn, mov.data(), 0x180001000), 0x180001000u);
}

constexpr uint64_t kTarget = 0x180010000;
constexpr uint64_t kNear = kTarget - 0x10000000;     // rel32 reaches
constexpr uint64_t kFar = kTarget + 0x100000000ull;  // 4 GB away

struct RelocatorCase {
  std::string code;  // followed by int3 padding
  size_t patch;
  uint64_t out;
  RelocateStatus status;
  std::string expect;  // the trampoline starts with these bytes ("" to skip)
  size_t copied = 0;   // 0 to skip
};

// Every built trampoline is also read by Zydis (verify_trampoline); nothing is written on a
// refusal, never a byte beyond the capacity, and one byte short is refused.
TEST(Relocator, FormsAndRefusals) {
  using S = RelocateStatus;
  const std::string fop = "48 83 ec 28 f6 05 d0 d1 02 00 01 75 0c b8 01 40 00 80 48 83 c4 28 c3";
  const std::string into = "53 48 83 ec 20 b8 01 00 00 00 90 90 ";
  const RelocatorCase cases[] = {
      {"55 48 89 e5 48 83 ec 20 89 c8 5d c3", 5, kNear, S::kOk, "55 48 89 e5 48 83 ec 20 e9", 8},
      {"55 48 89 e5 48 83 ec 20 89 c8 5d c3", 5, kFar, S::kOk, "55 48 89 e5 48 83 ec 20 ff 25 00 00 00 00"},
      {fop, 14, kNear, S::kOk, "48 83 ec 28 f6 05", 18},  // jne rel8 becomes 0F 85 rel32
      {fop, 14, kFar, S::kOk, "48 83 ec 28 56 48 be"},    // test byte [rip] through rsi, saved around it
      {"4c 8d 05 00 10 00 00 90", 5, kFar, S::kOk, "49 b8 07 10 01 80 01 00 00 00"},  // lea -> mov r8, imm64
      {"8d 0d 00 10 00 00 90", 5, kFar, S::kOk, "b9 06 10 01 80"},                     // lea -> mov ecx, imm32
      {"48 8b 35 00 10 00 00", 5, kFar, S::kOk, "57 48 bf"},  // mov rsi, [rip]: through rdi
      {"49 8b 05 00 10 00 00", 5, kFar, S::kOk, "56 48 be"},  // REX.B meant nothing with RIP: dropped
      {"83 25 00 10 00 00 01", 5, kFar, S::kOk, "56 48 be"},  // a /4 extension is no rsp operand
      {"75 20 e8 00 01 00 00 e9 00 02 00 00", 7, kFar, S::kOk, "74 0e ff 25 00 00 00 00"},  // inverted jcc
      {"75 20 e8 00 01 00 00 e9 00 02 00 00", 7, kNear, S::kOk, "0f 85"},
      {"75 20 e8 00 01 00 00 e9 00 02 00 00", 12, kNear, S::kCallReturnsIntoPatch, ""},
      {"90 90 ff d0 90 90", 5, kNear, S::kCallReturnsIntoPatch, ""}, {"90 90 90 ff d0 90", 5, kNear, S::kOk, ""},
      {"e2 30 48 89 c8 90", 5, kNear, S::kOk, "e2 02 eb 05"}, {"e3 30 48 89 c8 90", 5, kFar, S::kOk, "e3 02 eb 0e"},
      {"67 e3 30 48 89 c8 90", 5, kFar, S::kOk, "67 e3 02"},  {"e0 30 48 89 c8 90", 5, kNear, S::kOk, "e0 02"},
      {"c7 f8 00 01 00 00", 5, kNear, S::kOk, "c7 f8"},       {"c7 f8 00 01 00 00", 5, kFar, S::kUnsupportedBranch, ""},
      {"c3 66 66 2e 0f 1f 84 00 00 00 00 00", 5, kNear, S::kOk, "c3 66 66 2e 0f 1f 84"},  // padding after the end
      {"eb 10 66 90 0f 1f 40 00", 5, kNear, S::kOk, ""}, {"c3 90 90 0f 1f 00", 5, kNear, S::kOk, ""},
      {"c3 48 89 c8 90", 5, kNear, S::kFunctionTooShort, ""}, {"c3 41 90 90 90", 5, kNear, S::kFunctionTooShort, ""},
      {"c3 c5 0f 1f c0", 5, kNear, S::kFunctionTooShort, ""}, {"ff e0 55 48 89", 5, kNear, S::kFunctionTooShort, ""},
      {into + "75 f3", 5, kNear, S::kBranchIntoPatch, ""}, {into + "0f 85 f1 ff ff ff", 5, kNear, S::kBranchIntoPatch, ""},
      {into + "75 f2", 5, kNear, S::kOk, ""}, {into + "75 f7", 5, kNear, S::kOk, ""},  // to the start, to the end
      {"74 01 90 48 89 c8 c3", 5, kNear, S::kBranchIntoPatch, ""},
      {"06 90 90 90 90", 5, kNear, S::kUndecodable, ""}, {"66 e8 00 00 00 00", 5, kNear, S::kUnsupportedBranch, ""},
      {"67 8b 05 00 00 00 00", 5, kNear, S::kUnsupportedBranch, ""},  // EIP-relative
      {"ff 25 00 10 00 00", 5, kFar, S::kRipOutOfRange, ""}, {"ff 25 00 10 00 00", 5, kNear, S::kOk, "ff 25"},
      {"ff 15 00 10 00 00 90", 5, kFar, S::kRipOutOfRange, ""}, {"ff 35 00 10 00 00", 5, kFar, S::kRipOutOfRange, ""},
      {"48 8b 25 00 10 00 00", 5, kFar, S::kRipOutOfRange, ""}, {"c5 f9 6f 05 00 10 00 00", 5, kFar, S::kRipOutOfRange, ""},
      {"8f 05 00 10 00 00", 5, kFar, S::kRipOutOfRange, ""},
  };
  for (const RelocatorCase& c : cases) {
    SCOPED_TRACE(c.code + (c.out == kFar ? " far" : " near"));
    std::vector<uint8_t> code = bytes_of(c.code);
    code.resize(code.size() + 64, 0xCC);
    std::vector<uint8_t> out(kMaxTrampolineLength + 16, 0xAB);
    Relocation r;
    ASSERT_EQ(build_trampoline(code.data(), code.size(), kTarget, c.patch, out.data(), kMaxTrampolineLength, c.out, &r),
              c.status);
    const size_t written = c.status == RelocateStatus::kOk ? r.trampoline_length : 0;
    EXPECT_EQ(std::count(out.begin() + written, out.end(), 0xAB), static_cast<long>(out.size() - written));
    if (written == 0) continue;
    EXPECT_EQ(verify_trampoline(code.data(), code.size(), kTarget, out.data(), r, c.out), "");
    EXPECT_GE(r.copied_length, c.patch);
    EXPECT_EQ(r.copied_length, c.copied != 0 ? c.copied : r.copied_length);
    EXPECT_EQ(hex(out.data(), bytes_of(c.expect).size()), hex(bytes_of(c.expect).data(), bytes_of(c.expect).size()));
    EXPECT_EQ(build_trampoline(code.data(), code.size(), kTarget, c.patch, out.data(), written - 1, c.out, &r),
              RelocateStatus::kBufferTooSmall);
  }
  uint64_t moved = 0;  // the boundary map of push rbp; mov rbp,rsp; sub rsp,0x20
  std::vector<uint8_t> code = bytes_of("55 48 89 e5 48 83 ec 20 c3 cc cc cc cc cc cc cc");
  uint8_t out[kMaxTrampolineLength];
  Relocation r;
  ASSERT_EQ(build_trampoline(code.data(), code.size(), kTarget, 5, out, sizeof out, kNear, &r), RelocateStatus::kOk);
  EXPECT_TRUE(map_to_trampoline(r, kTarget, kNear, kTarget + 4, &moved) && moved == kNear + 4);
  EXPECT_FALSE(map_to_trampoline(r, kTarget, kNear, kTarget + 2, &moved));  // mid-instruction
  EXPECT_FALSE(map_to_trampoline(r, kTarget, kNear, kTarget + 8, &moved));  // not copied
}

template <typename T>
T get(const std::vector<uint8_t>& f, size_t off) {
  T v{};
  if (off <= f.size() && sizeof(T) <= f.size() - off) std::memcpy(&v, f.data() + off, sizeof(T));
  return v;
}

// File offsets of the exported code of an x86-64 PE image, each with its RVA; forwarders skipped.
std::vector<std::pair<size_t, uint32_t>> exported_code(const std::vector<uint8_t>& f) {
  std::vector<std::pair<size_t, uint32_t>> out;
  const uint32_t pe = get<uint32_t>(f, 0x3C);
  const size_t opt = pe + 24, sections = opt + get<uint16_t>(f, pe + 20);
  if (get<uint32_t>(f, pe) != 0x4550 || get<uint16_t>(f, opt) != 0x20B) return out;
  auto to_file = [&](uint32_t rva, bool code) -> size_t {
    for (size_t s = sections; s < sections + 40 * get<uint16_t>(f, pe + 6); s += 40) {
      const uint32_t va = get<uint32_t>(f, s + 12), size = get<uint32_t>(f, s + 16), raw = get<uint32_t>(f, s + 20);
      if (rva >= va && rva < va + size && (!code || (get<uint32_t>(f, s + 36) & 0x20000000)) && raw + size <= f.size())
        return raw + (rva - va);
    }
    return 0;
  };
  const uint32_t exp_rva = get<uint32_t>(f, opt + 112), exp_size = get<uint32_t>(f, opt + 116);
  const size_t dir = exp_rva ? to_file(exp_rva, false) : 0;
  const size_t functions = dir ? to_file(get<uint32_t>(f, dir + 28), false) : 0;
  for (uint32_t i = 0; functions && i < get<uint32_t>(f, dir + 20); ++i) {
    const uint32_t rva = get<uint32_t>(f, functions + 4 * i);
    const size_t at = rva >= exp_rva && rva < exp_rva + exp_size ? 0 : to_file(rva, true);
    if (at != 0 && at + 64 <= f.size()) out.emplace_back(at, rva);
  }
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

// Real code nobody here wrote: every byte offset of each export's first 256 bytes reads as Zydis
// reads it, and each export's trampoline is right for both patch sizes, near and far.
TEST(Corpus, WineDllsAndRandomEncodingsAgreeWithZydis) {
  const std::string dir = "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows";
  DIR* d = opendir(dir.c_str());
  ASSERT_NE(d, nullptr) << "is wine64 installed?";
  size_t exports = 0, offsets = 0, disagreements = 0, built = 0, wrong = 0, tries = 0;
  while (dirent* ent = readdir(d)) {
    const std::string name = ent->d_name;
    if (name.size() < 5 || name.compare(name.size() - 4, 4, ".dll") != 0) continue;
    std::ifstream in(dir + "/" + name, std::ios::binary);
    const std::vector<uint8_t> f((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (const auto& [at, rva] : exported_code(f)) {
      ++exports;
      const size_t readable = f.size() - at;
      for (size_t pos = 0; pos < 256 && pos < readable; ++pos, ++offsets) {
        const std::string diff = compare_with_zydis(&f[at + pos], readable - pos);
        if (!diff.empty() && ++disagreements <= 20) ADD_FAILURE() << name << "+" << rva + pos << ": " << diff;
      }
      for (size_t patch : {5, 14}) {
        for (uint64_t out_address : {0x180000000ull + rva - (1ull << 30), 0x180000000ull + rva + (3ull << 30)}) {
          uint8_t out[kMaxTrampolineLength];
          Relocation r;
          const RelocateStatus s = build_trampoline(&f[at], readable, 0x180000000ull + rva, patch, out, sizeof out,
                                                    out_address, &r);
          ++tries;
          std::string err = s == RelocateStatus::kRipOutOfRange && out_address < 0x180000000ull ? "rip out of range near" : "";
          if (s == RelocateStatus::kOk) {
            ++built;
            err = verify_trampoline(&f[at], readable, 0x180000000ull + rva, out, r, out_address);
          }
          if (!err.empty() && ++wrong <= 20) ADD_FAILURE() << name << "+" << rva << " patch " << patch << ": " << err;
        }
      }
    }
  }
  closedir(d);
  std::mt19937_64 rng(20261123);  // every opcode of every map in turn, the bytes around it random
  const uint8_t prefixes[] = {0x66, 0x67, 0xF2, 0xF3, 0xF0, 0x2E, 0x3E, 0x64, 0x65, 0x40, 0x41, 0x48, 0x4C, 0x44};
  size_t random_disagreements = 0;
  for (size_t it = 0; it < 2000000; ++it) {
    uint8_t b[15];
    for (auto& x : b) x = static_cast<uint8_t>(rng());
    size_t k = 0;
    for (int n = static_cast<int>(rng() % 4); n > 0; --n) b[k++] = prefixes[rng() % sizeof(prefixes)];
    static const uint8_t lead[7][2] = {{}, {0x0F}, {0x0F, 0x38}, {0x0F, 0x3A}, {0xC5}, {0xC4}, {0x62}};
    static const size_t lead_length[7] = {0, 1, 2, 2, 1, 1, 1}, opcode_at[7] = {0, 1, 2, 2, 2, 3, 4};
    const size_t map = it % 7;
    std::memcpy(b + k, lead[map], lead_length[map]);
    if (map == 5) b[k + 1] = static_cast<uint8_t>((b[k + 1] & 0xE0) | (1 + rng() % 3));  // VEX3 map 1-3
    b[k + opcode_at[map]] = static_cast<uint8_t>(it / 7);
    const std::string diff = compare_with_zydis(b, sizeof b);
    if (!diff.empty() && ++random_disagreements <= 20) ADD_FAILURE() << "random [" << hex(b, 15) << "]: " << diff;
  }
  std::printf("%zu exports, %zu offsets: %zu disagreements; %zu of %zu trampolines built, %zu wrong; random: %zu\n",
              exports, offsets, disagreements, built, tries, wrong, random_disagreements);
  EXPECT_GT(offsets, 1000000u);
  EXPECT_GT(built * 10, tries * 8) << "fewer than 80% of the exports' trampolines built";
}

}  // namespace
