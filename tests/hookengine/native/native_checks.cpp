// The decoder and the relocator against Zydis: a table of the relocator's special cases, then
// every offset of the exported functions of Wine's x86-64 DLLs and random encodings of every
// opcode, and the trampoline of every export near and far (> 2 GB), each with build_checked.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "hookengine/x64_decoder.h"
#include "zydis_view.h"

using namespace hookengine;

namespace {

constexpr uint64_t kTarget = 0x180010000;
constexpr uint64_t kNear = kTarget - 0x10000000;     // rel32 reaches
constexpr uint64_t kFar = kTarget + 0x100000000ull;  // 4 GB away
// 32-bit mode: a trampoline below the target, and one 3.5 GB above it (its rel32 wraps at 4 GB).
constexpr uint64_t kTarget32 = 0x10010000, kNear32 = 0x08000000, kWrap32 = 0xF0000000;

struct RelocatorCase {
  std::string code;  // hex bytes, followed by int3 padding
  size_t patch;
  uint64_t out;
  RelocateStatus status;
  Mode mode = Mode::k64;
};

// Statuses; each trampoline (or refusal) also passes build_checked, which reads
// the form chosen (rel32 or absolute, a register saved around a RIP operand, ...) for what it does.
TEST(Relocator, FormsAndRefusals) {
  using S = RelocateStatus;
  const std::string fop = "48 83 ec 28 f6 05 d0 d1 02 00 01 75 0c b8 01 40 00 80 48 83 c4 28 c3";  // jne in the 14
  const std::string jcc = "75 20 e8 00 01 00 00 e9 00 02 00 00", into = "53 48 83 ec 20 b8 01 00 00 00 90 90 ";
  const RelocatorCase cases[] = {
      {"55 48 89 e5 48 83 ec 20 89 c8 5d c3", 5, kNear, S::kOk}, {"55 48 89 e5 48 83 ec 20 89 c8 5d c3", 5, kFar, S::kOk},
      {fop, 14, kNear, S::kOk}, {fop, 14, kFar, S::kOk}, {jcc, 7, kFar, S::kOk}, {jcc, 7, kNear, S::kOk},
      {"4c 8d 05 00 10 00 00 90", 5, kFar, S::kOk}, {"8d 0d 00 10 00 00 90", 5, kFar, S::kOk},  // lea -> mov imm64, imm32
      {"48 8b 35 00 10 00 00", 5, kFar, S::kOk}, {"49 8b 05 00 10 00 00", 5, kFar, S::kOk},  // rsi used; REX.B
      {"83 25 00 10 00 00 01", 5, kFar, S::kOk}, {jcc, 12, kNear, S::kCallReturnsIntoPatch},  // a /4 is no rsp
      {"90 90 ff d0 90 90", 5, kNear, S::kCallReturnsIntoPatch}, {"90 90 90 ff d0 90", 5, kNear, S::kOk},
      {"e2 30 48 89 c8 90", 5, kNear, S::kOk}, {"e3 30 48 89 c8 90", 5, kFar, S::kOk},
      {"67 e3 30 48 89 c8 90", 5, kFar, S::kOk}, {"e0 30 48 89 c8 90", 5, kNear, S::kOk},
      {"c7 f8 00 01 00 00", 5, kNear, S::kOk}, {"c7 f8 00 01 00 00", 5, kFar, S::kUnsupportedBranch},
      {"c3 66 66 2e 0f 1f 84 00 00 00 00 00", 5, kNear, S::kOk}, {"eb 10 66 90 0f 1f 40 00", 5, kNear, S::kOk},
      {"c3 90 90 0f 1f 00", 5, kNear, S::kOk}, {"c3 48 89 c8 90", 5, kNear, S::kFunctionTooShort},
      {"c3 41 90 90 90", 5, kNear, S::kFunctionTooShort}, {"c3 c5 0f 1f c0", 5, kNear, S::kFunctionTooShort},
      {"ff e0 55 48 89", 5, kNear, S::kFunctionTooShort}, {into + "75 f3", 5, kNear, S::kBranchIntoPatch},
      {into + "0f 85 f1 ff ff ff", 5, kNear, S::kBranchIntoPatch}, {"74 01 90 48 89 c8 c3", 5, kNear, S::kBranchIntoPatch},
      {into + "75 f2", 5, kNear, S::kOk}, {into + "75 f7", 5, kNear, S::kOk},  // to the start, to the end
      {"06 90 90 90 90", 5, kNear, S::kUndecodable}, {"66 e8 00 00 00 00", 5, kNear, S::kUnsupportedBranch},
      {"67 8b 05 00 00 00 00", 5, kNear, S::kUnsupportedBranch}, {"ff 25 00 10 00 00", 5, kNear, S::kOk},  // EIP-relative
      {"ff 25 00 10 00 00", 5, kFar, S::kRipOutOfRange}, {"ff 15 00 10 00 00 90", 5, kFar, S::kRipOutOfRange},
      {"ff 35 00 10 00 00", 5, kFar, S::kRipOutOfRange}, {"48 8b 25 00 10 00 00", 5, kFar, S::kRipOutOfRange},
      {"c5 f9 6f 05 00 10 00 00", 5, kFar, S::kRipOutOfRange}, {"8f 05 00 10 00 00", 5, kFar, S::kRipOutOfRange},
      // 32-bit mode: hot-patch and stack re-aligning prologues, absolute operands copied as they are,
      // short branches widened (also across the 4 GB wrap), calls rebuilt as a push of their
      // original return address and a jmp (call $+5: the push alone, also when the patch covers the
      // pop), other calls into the copied bytes refused.
      {"8b ff 55 8b ec 5d ff 25 00 10 00 10", 5, kWrap32, S::kOk, Mode::k32},
      {"8d 4c 24 04 83 e4 f0 ff 71 fc", 5, kNear32, S::kOk, Mode::k32},
      {"f6 05 00 10 00 10 01 75 0c b8 01 40 00 80 c3", 5, kWrap32, S::kOk, Mode::k32},
      {"74 05 8b c1 c2 04 00", 5, kWrap32, S::kOk, Mode::k32}, {"e3 10 40 48 90 c3", 5, kWrap32, S::kOk, Mode::k32},
      {"67 e3 10 40 48 90 c3", 5, kNear32, S::kOk, Mode::k32}, {"e8 00 01 00 00 c3", 5, kWrap32, S::kOk, Mode::k32},
      {"e8 00 00 00 00 58 2d 05 00 00 00", 5, kWrap32, S::kOk, Mode::k32},
      {"e8 00 00 00 00 59 90 90 c3", 7, kNear32, S::kOk, Mode::k32},
      {"90 e8 ff ff ff ff c3", 5, kNear32, S::kCallIntoPatch, Mode::k32},
      {"90 90 ff d0 90 90", 5, kNear32, S::kCallReturnsIntoPatch, Mode::k32},
      {"66 e9 00 01 90 90", 5, kNear32, S::kUnsupportedBranch, Mode::k32},
      {"a1 00 10 00 10 c3", 5, kWrap32, S::kOk, Mode::k32}, {"ea 00 00 00 10 08 00", 5, kNear32, S::kOk, Mode::k32},
      {"40 48 c3 90 90", 5, kNear32, S::kOk, Mode::k32}, {"06 1f 60 61 27 c3", 5, kNear32, S::kOk, Mode::k32},
  };
  for (const RelocatorCase& c : cases) {
    SCOPED_TRACE(c.code + (c.out == kFar || c.out == kWrap32 ? " far" : " near"));
    std::vector<uint8_t> code;
    unsigned byte = 0;
    for (std::istringstream in(c.code); in >> std::hex >> byte;) code.push_back(static_cast<uint8_t>(byte));
    code.resize(code.size() + 64, 0xCC);
    Built b;
    EXPECT_EQ(build_checked(code.data(), code.size(), c.mode == Mode::k64 ? kTarget : kTarget32, c.patch, c.out, &b, c.mode), "");
    EXPECT_EQ(b.status, c.status);
  }
}

template <typename T>
T get(const std::vector<uint8_t>& f, size_t off) {
  T v{};
  if (off <= f.size() && sizeof(T) <= f.size() - off) std::memcpy(&v, f.data() + off, sizeof(T));
  return v;
}

// File offsets of the exported code of an x86-64 (PE32+) or x86 (PE32) image, each with its RVA;
// forwarders skipped.
std::set<std::pair<size_t, uint32_t>> exported_code(const std::vector<uint8_t>& f) {
  std::set<std::pair<size_t, uint32_t>> out;
  const uint32_t pe = get<uint32_t>(f, 0x3C);
  const size_t opt = pe + 24, sections = opt + get<uint16_t>(f, pe + 20);
  auto to_file = [&](uint32_t rva, uint32_t flags) -> size_t {  // 0: in no section with these flags
    for (size_t s = sections; s < sections + 40 * get<uint16_t>(f, pe + 6); s += 40) {
      const uint32_t va = get<uint32_t>(f, s + 12), size = get<uint32_t>(f, s + 16), raw = get<uint32_t>(f, s + 20);
      if (rva - va < size && (get<uint32_t>(f, s + 36) & flags) == flags && raw + size <= f.size()) return raw + (rva - va);
    }
    return 0;
  };
  const uint16_t magic = get<uint16_t>(f, opt);
  const size_t directories = opt + (magic == 0x20B ? 112 : 96);
  const uint32_t exp_rva = get<uint32_t>(f, directories), exp_size = get<uint32_t>(f, directories + 4);
  const size_t dir = magic == 0x20B || magic == 0x10B ? to_file(exp_rva, 0) : 0;
  const size_t functions = dir ? to_file(get<uint32_t>(f, dir + 28), 0) : 0;
  for (uint32_t i = 0; functions && i < get<uint32_t>(f, dir + 20); ++i) {
    const uint32_t rva = get<uint32_t>(f, functions + 4 * i);
    const size_t at = rva - exp_rva < exp_size ? 0 : to_file(rva, 0x20000000);  // executable
    if (at != 0 && at + 64 <= f.size()) out.emplace(at, rva);
  }
  return out;
}

// Real code nobody here wrote, in each mode: every byte offset of each export's first 256 bytes
// reads as Zydis reads it (and so every instruction start), and each export's trampoline is
// right: both patch sizes near and far (> 2 GB) in 64-bit mode; in 32-bit mode the 5-byte patch
// with the trampoline below and beyond 2 GB away (the rel32 then wraps at 4 GB).
struct CorpusMode {
  const char* folder;
  Mode mode;
  uint64_t base;                  // where each image is taken to be loaded
  std::vector<size_t> patches;
  std::vector<int64_t> out_from;  // trampoline addresses, from the export's address
  std::vector<uint8_t> prefixes;  // for the random encodings
  bool grid;                      // also every opcode x mandatory prefix x ModRM of every map (below)
};
const CorpusMode kCorpusModes[] = {
    {"/usr/lib/x86_64-linux-gnu/wine/x86_64-windows", Mode::k64, 0x180000000ull, {5, 14}, {-(1ll << 30), 3ll << 30},
     {0x66, 0x67, 0xF2, 0xF3, 0xF0, 0x2E, 0x3E, 0x64, 0x65, 0x40, 0x41, 0x48, 0x4C, 0x44}, false},
    {"/usr/lib/i386-linux-gnu/wine/i386-windows", Mode::k32, 0x10000000ull, {5}, {0x30000000, -0x50000000},
     {0x66, 0x67, 0xF2, 0xF3, 0xF0, 0x2E, 0x3E, 0x64, 0x65, 0x26, 0x36}, true},
};

void PrintTo(const CorpusMode& m, std::ostream* os) { *os << m.folder; }
class Corpus : public ::testing::TestWithParam<CorpusMode> {};

TEST_P(Corpus, WineDllsAndRandomEncodingsAgreeWithZydis) {
  const CorpusMode& m = GetParam();
  const uint64_t wrap = m.mode == Mode::k32 ? 0xFFFFFFFFull : ~0ull;
  const std::set<std::string> hooked = {"kernel32.dll", "kernelbase.dll", "shell32.dll", "ole32.dll", "ntdll.dll"};
  std::set<std::string> found;  // of the DLLs the product hooks
  size_t offsets = 0, built = 0, tries = 0, faults = 0;
  auto fault = [&](const std::string& where, const std::string& what) {  // the first 20 differences fail the test
    if (!what.empty() && ++faults <= 20) ADD_FAILURE() << where << ": " << what;
  };
  for (const auto& dll : std::filesystem::directory_iterator(m.folder)) {
    if (dll.path().extension() != ".dll") continue;
    std::ifstream in(dll.path(), std::ios::binary);
    const std::vector<uint8_t> f((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string name = dll.path().filename();
    for (const auto& [at, rva] : exported_code(f)) {
      const size_t readable = f.size() - at;
      const uint64_t address = m.base + rva;
      if (hooked.count(name) != 0) found.insert(name);
      for (size_t pos = 0; pos < 256 && pos < readable; ++pos, ++offsets)
        fault(name + "+" + std::to_string(rva + pos), compare_with_zydis(&f[at + pos], readable - pos, m.mode));
      for (size_t patch : m.patches) {
        for (int64_t from : m.out_from) {
          Built b;
          std::string err = build_checked(&f[at], readable, address, patch, (address + from) & wrap, &b, m.mode);
          ++tries;
          built += b.status == RelocateStatus::kOk;
          if (b.status == RelocateStatus::kRipOutOfRange && from < 0) err = "rip out of range near";
          fault(name + "+" + std::to_string(rva) + " patch " + std::to_string(patch), err);
        }
      }
    }
  }
  std::mt19937_64 rng(20261123);  // every opcode of every map in turn, the bytes around it random
  for (size_t it = 0; it < 2000000; ++it) {
    uint8_t b[15];
    for (auto& x : b) x = static_cast<uint8_t>(rng());
    size_t k = 0;
    for (int n = static_cast<int>(rng() % 4); n > 0; --n) b[k++] = m.prefixes[rng() % m.prefixes.size()];
    static const uint8_t lead[7][2] = {{}, {0x0F}, {0x0F, 0x38}, {0x0F, 0x3A}, {0xC5}, {0xC4}, {0x62}};
    static const size_t lead_length[7] = {0, 1, 2, 2, 1, 1, 1}, opcode_at[7] = {0, 1, 2, 2, 2, 3, 4};
    const size_t map = it % 7;
    std::memcpy(b + k, lead[map], lead_length[map]);
    if (map == 5) b[k + 1] = static_cast<uint8_t>((b[k + 1] & 0xE0) | (1 + rng() % 3));  // VEX3 map 1-3
    if (m.mode == Mode::k32 && map >= 4 && (it / 7) % 4 != 0) b[k + 1] |= 0xC0;  // mostly VEX, not les/lds/bound
    b[k + opcode_at[map]] = static_cast<uint8_t>(it / 7);
    fault("random " + ::testing::PrintToString(std::vector<uint8_t>(b, b + 15)), compare_with_zydis(b, sizeof b, m.mode));
  }
  // Where 32-bit mode differs from 64-bit mode the rules are few and scattered (forms that exist in
  // 64-bit mode only, EVEX W1 conversions): every ModRM of every opcode of the 0F maps under each
  // mandatory prefix, of the VEX maps under each pp, L and W, and of the EVEX maps under each pp, W
  // and a few L'L/b/masking choices.
  auto sweep = [&](const std::vector<uint8_t>& lead) {  // lead, then every opcode and ModRM
    for (int op = 0; op < 256; ++op) {
      for (int modrm = 0; modrm < 256; ++modrm) {
        uint8_t b[15];
        std::memset(b, 0x11, sizeof b);
        std::copy(lead.begin(), lead.end(), b);
        b[lead.size()] = static_cast<uint8_t>(op);
        b[lead.size() + 1] = static_cast<uint8_t>(modrm);
        const std::string diff = compare_with_zydis(b, sizeof b, m.mode);  // (the place named only for a difference)
        if (!diff.empty()) fault("grid " + ::testing::PrintToString(std::vector<uint8_t>(b, b + 8)), diff);
      }
    }
  };
  const uint8_t mandatory[] = {0x66, 0xF3, 0xF2}, evex_p2[] = {0x08, 0x28, 0x48, 0x18, 0x38, 0x58, 0x09, 0x89};
  for (uint8_t map = 1; m.grid && map <= 6; ++map) {
    for (uint8_t pp = 0; pp < 4; ++pp) {
      if (map <= 3) {
        std::vector<uint8_t> legacy = {0x0F};
        if (map > 1) legacy.push_back(map == 2 ? 0x38 : 0x3A);
        if (pp > 0) legacy.insert(legacy.begin(), mandatory[pp - 1]);
        sweep(legacy);
        for (uint8_t lw = 0; lw < 4; ++lw)  // C4, RXB and map, W vvvv=1111 L pp
          sweep({0xC4, static_cast<uint8_t>(0xE0 | map), static_cast<uint8_t>((lw >> 1) << 7 | 0x78 | (lw & 1) << 2 | pp)});
      }
      for (uint8_t w = 0; map != 4 && w < 2; ++w)  // 62, P0 (RXBR' and map), P1 (W vvvv=1111 1 pp), P2
        for (uint8_t p2 : evex_p2) sweep({0x62, static_cast<uint8_t>(0xF0 | map), static_cast<uint8_t>(w << 7 | 0x7C | pp), p2});
    }
  }
  EXPECT_EQ(found, hooked) << "a DLL the product hooks was not found";
  EXPECT_GT(offsets, 1000000u);
  EXPECT_GT(built * 10, tries * 8) << "fewer than 80% of the exports' trampolines built";
}
INSTANTIATE_TEST_SUITE_P(Modes, Corpus, ::testing::ValuesIn(kCorpusModes),
                         [](const auto& info) { return info.param.mode == Mode::k64 ? "x64" : "x86"; });

}  // namespace
