// Focused checks of the decoder's special cases and the relocator's forms and refusals. Each
// decoder case states its expected reading and is also compared with Zydis; each built
// trampoline is also checked independently with Zydis (verify_trampoline).
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "zydis_view.h"

using namespace hookengine;

namespace {

std::vector<uint8_t> hexbytes(const char* s) {
  std::vector<uint8_t> v;
  while (*s) {
    if (*s == ' ') {
      ++s;
      continue;
    }
    v.push_back(static_cast<uint8_t>(std::stoi(std::string(s, 2), nullptr, 16)));
    s += 2;
  }
  return v;
}

struct Case {
  const char* bytes;
  int length;  // 0: invalid in 64-bit mode
  bool rip;
  BranchKind branch;
  FlowKind flow;
};

constexpr auto N = BranchKind::kNone;
constexpr auto F = FlowKind::kNormal;

// Bytes placed at the very end of a readable page followed by an inaccessible one, so reading
// one byte beyond `available` faults.
class PageEnd {
 public:
  PageEnd() {
    page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    mem_ = static_cast<uint8_t*>(
        mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(mem_ + page_, page_, PROT_NONE);
  }
  ~PageEnd() { munmap(mem_, 2 * page_); }
  const uint8_t* place(const std::vector<uint8_t>& b, size_t n) {
    uint8_t* at = mem_ + page_ - n;
    std::memcpy(at, b.data(), n);
    return at;
  }

 private:
  size_t page_ = 0;
  uint8_t* mem_ = nullptr;
};

void check_cases(const std::vector<Case>& cases) {
  PageEnd guard;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    const std::vector<uint8_t> b = hexbytes(c.bytes);
    Instruction insn;
    const bool ok = decode(b.data(), b.size(), &insn);
    ASSERT_EQ(ok, c.length != 0);
    RefInsn ref;
    ref_decode(b.data(), b.size(), &ref);
    if (!expected_difference(ok, ref)) {
      EXPECT_EQ(compare(ok, insn, ref), "");
    }
    if (!ok) continue;
    EXPECT_EQ(insn.length, c.length);
    EXPECT_EQ(insn.rip_relative, c.rip);
    EXPECT_EQ(insn.branch, c.branch);
    EXPECT_EQ(insn.flow, c.flow);
    // Exactly `length` bytes are needed and read: one fewer fails, without touching the next page.
    EXPECT_TRUE(decode(guard.place(b, insn.length), insn.length, &insn));
    EXPECT_FALSE(decode(guard.place(b, insn.length - 1), insn.length - 1, &insn));
    EXPECT_FALSE(insn.valid);
  }
}

// One case per decoding path (the every-offset and random differentials in corpus_check cover
// the opcode maps at large): its reading, Zydis's agreement, and that exactly `length` bytes
// are read.
TEST(Decoder, OneCasePerPath) {
  check_cases({
      {"48 8b 05 10 20 30 40", 7, true, N, F},      // mov rax, [rip+disp32]
      {"8b 04 25 10 20 30 40", 7, false, N, F},     // SIB without base: absolute disp32
      {"41 8b 45 00", 4, false, N, F},              // [r13+0]: r13 needs disp8
      {"f6 05 d0 d1 d2 d3 01", 7, true, N, F},      // F6 /0 has imm8
      {"66 48 b8 88 77 66 55 44 33 22 11", 11, false, N, F},  // REX.W wins over 66
      {"0f 0b", 2, false, N, FlowKind::kUndefined},
      {"f3 0f b8 c1", 4, false, N, F},              // popcnt: F3 0F B8 only
      {"66 0f 78 c0 04 08", 6, false, N, F},        // extrq xmm0, 4, 8 (two imm8)
      {"f0 48 0f b1 0d 00 00 00 00", 9, true, N, F},  // lock cmpxchg [rip], rcx
      {"c5 f8 77", 3, false, N, F},                 // vzeroupper: no ModRM
      {"c4 e3 79 0f c1 08", 6, false, N, F},        // VEX map 0F3A: imm8
      {"62 f1 7c 48 10 05 00 00 00 00", 10, true, N, F},  // vmovups zmm0, [rip]
      {"8f c0", 2, false, N, F},                    // pop rax, not XOP
      {"67 e3 10", 3, false, BranchKind::kJrcxz, F},  // jecxz
      {"66 48 c7 f8 00 01 00 00", 8, false, BranchKind::kXbegin, F},  // REX.W wins over 66
      {"f2 e9 00 00 00 00", 6, false, BranchKind::kJmpRel32, FlowKind::kJumpAlways},  // bnd
      // 66 on a near call/jmp/Jcc: Intel CPUs ignore it (rel32), AMD ones use rel16. We follow
      // Intel, as Zydis does.
      {"66 e8 00 00 00 00", 6, false, BranchKind::kCallRel32, F},
  });
  const std::vector<uint8_t> b = hexbytes("0f 85 f0 ff ff ff");  // jne -16
  Instruction insn;
  ASSERT_TRUE(decode(b.data(), b.size(), &insn));
  EXPECT_EQ(branch_target(insn, b.data(), 0x7ff000001000), 0x7ff000001006u - 16);
  const std::vector<uint8_t> m = hexbytes("48 8b 05 f9 ff ff ff");  // mov rax, [rip-7]
  ASSERT_TRUE(decode(m.data(), m.size(), &insn));
  EXPECT_EQ(rip_relative_target(insn, m.data(), 0x180001000), 0x180001000u);
}

// Reserved or #UD encodings, and those refused on purpose though Zydis decodes them (Knights
// Corner, XOP, 3DNow!).
TEST(Decoder, InvalidEncodingsAndLengthLimit) {
  for (const char* op :
       {"06", "60", "d6", "82 c0 01", "ea 00 00 00 00 00 00", "ff f8", "c6 c8 01",
        "d9 08",             // x87 D9 /1 with memory: reserved
        "df f8",             // x87 DF F8: reserved
        "0f d6 43 18",       // movq without its 66
        "8c f0", "8e c8",    // no segment register 6; no mov to cs
        "44 0f 20 c8",       // no cr9
        "0f 1a 05 00 00 00 00",  // bndldx takes no [rip]
        "f0 83 c0 01",       // lock on a register destination
        "66 c5 f8 77",       // 66 before VEX
        "c5 f8 00 c0",       // VEX 0F 00: undefined
        "c5 f8 84 e4 fe 2c ac", "62 b2 69 7e ba 32 f1 98 66 3c",  // Knights Corner
        "8f e9 78 e1 c0",    // XOP
        "0f 0f c1 9e"}) {    // 3DNow! pfadd
    check_cases({{op, 0, false, N, F}});
  }
  // Fourteen prefixes and a nop are 15 bytes: valid. One more prefix: too long.
  std::string s;
  for (int i = 0; i < 14; ++i) s += "66 ";
  check_cases({{(s + "90").c_str(), 15, false, N, F}, {(s + "66 90").c_str(), 0, false, N, F}});
  Instruction insn;
  EXPECT_FALSE(decode(nullptr, 10, &insn));
  const uint8_t nop = 0x90;
  EXPECT_FALSE(decode(&nop, 0, &insn));
}

// ---- Relocator ----------------------------------------------------------------------------

constexpr uint64_t kTarget = 0x180010000;
constexpr uint64_t kNear = kTarget - 0x10000000;     // rel32 reaches
constexpr uint64_t kFar = kTarget + 0x100000000ull;  // 4 GB away

struct Built {
  RelocateStatus status;
  Relocation r;
  std::vector<uint8_t> out;
};

Built build(const std::vector<uint8_t>& code, size_t patch, uint64_t out_address,
            size_t capacity = kMaxTrampolineLength) {
  Built b;
  b.out.assign(kMaxTrampolineLength + 16, 0xAB);
  b.status = build_trampoline(code.data(), code.size(), kTarget, patch, b.out.data(), capacity,
                              out_address, &b.r);
  if (b.status == RelocateStatus::kOk) {
    EXPECT_EQ(
        verify_trampoline(code.data(), code.size(), kTarget, patch, b.out.data(), b.r, out_address),
        "");
  }
  // Never a byte beyond the capacity, and nothing at all on failure.
  const size_t written = b.status == RelocateStatus::kOk ? b.r.trampoline_length : 0;
  for (size_t i = written; i < b.out.size(); ++i) EXPECT_EQ(b.out[i], 0xAB) << "byte " << i;
  b.out.resize(written);
  return b;
}

std::vector<uint8_t> with_tail(const char* head) {
  std::vector<uint8_t> v = hexbytes(head);
  v.resize(v.size() + 64, 0xCC);  // room for linear decoding after the function
  return v;
}

TEST(Relocator, CopiesPlainInstructionsAndJumpsBack) {
  const auto code = with_tail("55 48 89 e5 48 83 ec 20 89 c8 5d c3");
  Built b = build(code, 5, kNear);
  ASSERT_EQ(b.status, RelocateStatus::kOk);
  EXPECT_EQ(b.r.copied_length, 8u);  // push rbp; mov rbp,rsp; sub rsp,0x20
  EXPECT_EQ(hex(b.out.data(), 8), "55 48 89 e5 48 83 ec 20");
  EXPECT_EQ(b.out[8], 0xE9);
  EXPECT_EQ(b.r.trampoline_length, 13u);
  ASSERT_EQ(b.r.boundary_count, 3);
  uint64_t moved = 0;
  EXPECT_TRUE(map_to_trampoline(b.r, kTarget, kNear, kTarget + 4, &moved));
  EXPECT_EQ(moved, kNear + 4);
  EXPECT_FALSE(map_to_trampoline(b.r, kTarget, kNear, kTarget + 2, &moved));  // mid-instruction
  EXPECT_FALSE(map_to_trampoline(b.r, kTarget, kNear, kTarget + 8, &moved));  // not copied

  Built far = build(code, 5, kFar);
  ASSERT_EQ(far.status, RelocateStatus::kOk);
  EXPECT_EQ(hex(far.out.data() + 8, 6), "ff 25 00 00 00 00");
  EXPECT_EQ(far.r.trampoline_length, 22u);
}

TEST(Relocator, FileOperationStubPrologue) {
  // sub rsp,0x28; test byte [rip+x],1; jne +0x0c; mov eax,0x80004001: 14 bytes take 18.
  const auto code =
      with_tail("48 83 ec 28 f6 05 d0 d1 02 00 01 75 0c b8 01 40 00 80 48 83 c4 28 c3");
  Built b = build(code, 14, kNear);
  ASSERT_EQ(b.status, RelocateStatus::kOk);
  EXPECT_EQ(b.r.copied_length, 18u);
  EXPECT_EQ(b.r.boundary_count, 4);
  EXPECT_EQ(b.r.trampoline_length, 4u + 7 + 6 + 5 + 5);  // jne rel8 became 0F 85 rel32
  EXPECT_EQ(b.out[11], 0x0F);
  EXPECT_EQ(b.out[12], 0x85);
  // Far away the test reads its byte through rsi, saved around it.
  Built far = build(code, 14, kFar);
  ASSERT_EQ(far.status, RelocateStatus::kOk);
  EXPECT_EQ(hex(far.out.data() + 4, 3), "56 48 be");      // push rsi; mov rsi, imm64
  EXPECT_EQ(hex(far.out.data() + 15, 4), "f6 06 01 5e");  // test byte [rsi], 1; pop rsi
}

TEST(Relocator, RipRelativeOperandsOutOfReach) {
  // lea becomes mov of the address: 64-bit and 32-bit destinations.
  Built lea = build(with_tail("4c 8d 05 00 10 00 00 90"), 5, kFar);
  ASSERT_EQ(lea.status, RelocateStatus::kOk);
  EXPECT_EQ(hex(lea.out.data(), 2), "49 b8");  // mov r8, imm64
  uint64_t value = 0;
  std::memcpy(&value, lea.out.data() + 2, 8);
  EXPECT_EQ(value, kTarget + 7 + 0x1000);
  Built lea32 = build(with_tail("8d 0d 00 10 00 00 90"), 5, kFar);
  ASSERT_EQ(lea32.status, RelocateStatus::kOk);
  EXPECT_EQ(lea32.out[0], 0xB9);  // mov ecx, imm32
  // The instruction's own register is never the scratch one: mov rsi, [rip] goes through rdi.
  Built rsi = build(with_tail("48 8b 35 00 10 00 00"), 5, kFar);
  ASSERT_EQ(rsi.status, RelocateStatus::kOk);
  EXPECT_EQ(hex(rsi.out.data(), 3), "57 48 bf");
  EXPECT_EQ(hex(rsi.out.data() + 11, 4), "48 8b 37 5f");  // mov rsi, [rdi]; pop rdi
  // A /4 opcode extension is no rsp operand: and dword [rip+x], 1 is rebuilt.
  Built and4 = build(with_tail("83 25 00 10 00 00 01"), 5, kFar);
  ASSERT_EQ(and4.status, RelocateStatus::kOk);
  EXPECT_EQ(hex(and4.out.data() + 11, 4), "83 26 01 5e");
  // Stack-relative or control-transferring forms and VEX encodings stay refused.
  for (const char* f : {"ff 25 00 10 00 00", "ff 15 00 10 00 00 90", "ff 35 00 10 00 00",
                        "48 8b 25 00 10 00 00", "c5 f9 6f 05 00 10 00 00", "8f 05 00 10 00 00"}) {
    SCOPED_TRACE(f);
    EXPECT_EQ(build(with_tail(f), 5, kFar).status, RelocateStatus::kRipOutOfRange);
    EXPECT_EQ(build(with_tail(f), 5, kNear).status, RelocateStatus::kOk);
  }
}

TEST(Relocator, BranchesFarAwayBecomeAbsolute) {
  // jne +0x20; call rel32 (ending where the patch does; a jmp rel32 follows)
  const auto code = with_tail("75 20 e8 00 01 00 00 e9 00 02 00 00");
  Built b = build(code, 7, kFar);
  ASSERT_EQ(b.status, RelocateStatus::kOk);
  // Inverted short Jcc over an absolute jmp, then call [rip+2]; jmp +8; dq.
  EXPECT_EQ(hex(b.out.data(), 8), "74 0e ff 25 00 00 00 00");
  EXPECT_EQ(hex(b.out.data() + 16, 8), "ff 15 02 00 00 00 eb 08");
  EXPECT_EQ(hex(b.out.data() + 32, 6), "ff 25 00 00 00 00");
  Built n = build(code, 7, kNear);
  ASSERT_EQ(n.status, RelocateStatus::kOk);
  EXPECT_EQ(n.r.trampoline_length, 6u + 5 + 5);
  // A longer patch would leave the call's return address inside the jump written over it.
  EXPECT_EQ(build(code, 12, kNear).status, RelocateStatus::kCallReturnsIntoPatch);
}

TEST(Relocator, LoopAndJrcxzNearAndFar) {
  for (const char* f :
       {"e2 30 48 89 c8 90", "e3 30 48 89 c8 90", "67 e3 30 48 89 c8 90", "e0 30 48 89 c8 90"}) {
    SCOPED_TRACE(f);
    const auto code = with_tail(f);
    ASSERT_EQ(build(code, 5, kNear).status, RelocateStatus::kOk);
    ASSERT_EQ(build(code, 5, kFar).status, RelocateStatus::kOk);
  }
}

TEST(Relocator, PaddingAfterTheEndIsAccepted) {
  for (const char* f :
       {"c3 cc cc cc cc", "c3 90 90 0f 1f 00", "c3 66 66 2e 0f 1f 84 00 00 00 00 00",
        "eb 10 66 90 0f 1f 40 00", "c3 0f 1f 44 00 00", "e9 00 00 00 00"}) {
    SCOPED_TRACE(f);
    Built b = build(with_tail(f), 5, kNear);
    EXPECT_EQ(b.status, RelocateStatus::kOk);
    EXPECT_GE(b.r.copied_length, 5u);
  }
  // Code of the next function, or an xchg r8, rax that merely looks like a nop, is not padding.
  for (const char* f : {"c3 48 89 c8 90", "c3 41 90 90 90", "cc 55 48 89 e5", "0f 0b 55 48 89",
                        "c3 c5 0f 1f c0",  // VEX opcode 1F after a VEX byte of 0F: not a nop
                        "ff e0 55 48 89"}) {
    SCOPED_TRACE(f);
    EXPECT_EQ(build(with_tail(f), 5, kNear).status, RelocateStatus::kFunctionTooShort);
  }
}

TEST(Relocator, BranchesIntoThePatchAreRefused) {
  // push rbx; sub rsp,0x20 (the 5 copied bytes); mov eax,1; nop; nop; then a branch back
  // from +12 (next instruction at +14, or +18 for the rel32 form).
  const std::string base = "53 48 83 ec 20 b8 01 00 00 00 90 90 ";
  EXPECT_EQ(build(with_tail((base + "75 f3").c_str()), 5, kNear).status,
            RelocateStatus::kBranchIntoPatch);  // jne to +1
  EXPECT_EQ(build(with_tail((base + "0f 85 f1 ff ff ff").c_str()), 5, kNear).status,
            RelocateStatus::kBranchIntoPatch);  // jne rel32 to +3
  EXPECT_EQ(build(with_tail((base + "75 f2").c_str()), 5, kNear).status,
            RelocateStatus::kOk);  // to the start: reaches the patch's own jump, fine
  EXPECT_EQ(build(with_tail((base + "75 f7").c_str()), 5, kNear).status,
            RelocateStatus::kOk);  // to +5, the end of the copied bytes: intact code
  // A copied branch into its own copied range.
  EXPECT_EQ(build(with_tail("74 01 90 48 89 c8 c3"), 5, kNear).status,
            RelocateStatus::kBranchIntoPatch);
}

TEST(Relocator, OtherRefusals) {
  EXPECT_EQ(build(with_tail("06 90 90 90 90"), 5, kNear).status, RelocateStatus::kUndecodable);
  const std::vector<uint8_t> short_code = hexbytes("48 89 c8");
  EXPECT_EQ(build(short_code, 5, kNear).status, RelocateStatus::kUndecodable);  // not readable
  EXPECT_EQ(build(with_tail("66 e8 00 00 00 00"), 5, kNear).status,
            RelocateStatus::kUnsupportedBranch);  // vendor-dependent width
  EXPECT_EQ(build(with_tail("67 8b 05 00 00 00 00"), 5, kNear).status,
            RelocateStatus::kUnsupportedBranch);  // EIP-relative
  EXPECT_EQ(build(with_tail("c7 f8 00 01 00 00"), 5, kFar).status,
            RelocateStatus::kUnsupportedBranch);  // xbegin's abort target out of reach
  EXPECT_EQ(build(with_tail("c7 f8 00 01 00 00"), 5, kNear).status, RelocateStatus::kOk);
  // Capacity one short of what is needed: refused, nothing written.
  const auto code = with_tail("75 20 e8 00 01 00 00 e9 00 02 00 00");
  const size_t need = build(code, 7, kFar).r.trampoline_length;
  EXPECT_EQ(build(code, 7, kFar, need - 1).status, RelocateStatus::kBufferTooSmall);
  EXPECT_EQ(build(code, 7, kFar, need).status, RelocateStatus::kOk);
}

}  // namespace
