// Compares the decoder with Zydis on real code nobody here wrote: from every exported function of
// every x86-64 PE DLL in a folder (default: Wine's x86_64-windows), the first 64 bytes decoded
// linearly (counting separately those up to the first ret/jmp/int3/ud). Then builds each export's
// trampoline at a near and a far (> 2 GB) address for the 5- and 14-byte patches and checks it with
// Zydis. Exit status 0 only with zero disagreements and zero bad trampolines.
#include <capstone/capstone.h>
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "zydis_view.h"

namespace {

using hookengine::FlowKind;
using hookengine::Instruction;
using hookengine::RelocateStatus;

constexpr size_t kPrologue = 64;

struct Export {
  uint64_t address;     // image base + RVA
  const uint8_t* code;  // in the file image
  size_t readable;      // up to the end of the section's raw data
  size_t extent;        // the function's bytes: to its unwind entry's end or the next function
};

template <typename T>
bool get(const std::vector<uint8_t>& f, size_t off, T* v) {
  if (off > f.size() || sizeof(T) > f.size() - off) return false;
  std::memcpy(v, f.data() + off, sizeof(T));
  return true;
}

struct Section {
  uint32_t va, vsize, raw_size, raw_ptr, flags;
};

// Exported code entries of an x86-64 PE file (forwarders and data exports skipped).
bool parse_exports(const std::vector<uint8_t>& f, std::vector<Export>* out) {
  uint32_t pe = 0, sig = 0;
  uint16_t machine = 0, nsec = 0, optsize = 0, magic = 0;
  if (!get(f, 0x3C, &pe) || !get(f, pe, &sig) || sig != 0x4550) return false;
  if (!get(f, pe + 4, &machine) || machine != 0x8664) return false;
  get(f, pe + 6, &nsec);
  get(f, pe + 20, &optsize);
  const size_t opt = pe + 24;
  if (!get(f, opt, &magic) || magic != 0x20B) return false;
  uint64_t image_base = 0;
  uint32_t exp_rva = 0, exp_size = 0;
  get(f, opt + 24, &image_base);
  get(f, opt + 112, &exp_rva);
  get(f, opt + 116, &exp_size);
  std::vector<Section> secs;
  for (size_t i = 0; i < nsec; ++i) {
    const size_t s = opt + optsize + i * 40;
    Section x{};
    if (!get(f, s + 8, &x.vsize) || !get(f, s + 12, &x.va) || !get(f, s + 16, &x.raw_size) ||
        !get(f, s + 20, &x.raw_ptr) || !get(f, s + 36, &x.flags))
      return false;
    secs.push_back(x);
  }
  auto to_file = [&](uint32_t rva, size_t* avail, bool* exec) -> long {
    for (const Section& s : secs) {
      const uint32_t size = std::min(s.vsize ? s.vsize : s.raw_size, s.raw_size);
      if (rva >= s.va && rva < s.va + size && s.raw_ptr + size <= f.size()) {
        *avail = size - (rva - s.va);
        *exec = (s.flags & 0x20000000) != 0;
        return static_cast<long>(s.raw_ptr + (rva - s.va));
      }
    }
    return -1;
  };
  if (exp_rva == 0) return true;
  size_t avail = 0;
  bool exec = false;
  const long ed = to_file(exp_rva, &avail, &exec);
  if (ed < 0) return true;
  uint32_t nfunc = 0, funcs_rva = 0, pdata_rva = 0, pdata_size = 0;
  get(f, ed + 20, &nfunc);
  get(f, ed + 28, &funcs_rva);
  get(f, opt + 136, &pdata_rva);
  get(f, opt + 140, &pdata_size);
  const long funcs = to_file(funcs_rva, &avail, &exec);
  if (funcs < 0) return true;
  std::vector<uint32_t> rvas;
  for (uint32_t i = 0; i < nfunc && i < avail / 4; ++i) {
    uint32_t rva = 0;
    get(f, funcs + 4 * i, &rva);
    if (rva != 0 && (rva < exp_rva || rva >= exp_rva + exp_size)) rvas.push_back(rva);  // forwarder
  }
  // Function extents: an unwind entry (begin, end) holding the export; else up to the next
  // function start (an unwind entry's begin or another export).
  std::map<uint32_t, uint32_t> unwind;
  const long pd = pdata_rva ? to_file(pdata_rva, &avail, &exec) : -1;
  for (uint32_t i = 0; pd >= 0 && i < pdata_size / 12 && i < avail / 12; ++i) {
    uint32_t b = 0, e = 0;
    if (get(f, pd + 12 * i, &b) && get(f, pd + 12 * i + 4, &e) && e > b) unwind[b] = e;
  }
  std::vector<uint32_t> starts(rvas);
  for (const auto& u : unwind) starts.push_back(u.first);
  std::sort(starts.begin(), starts.end());
  std::sort(rvas.begin(), rvas.end());
  rvas.erase(std::unique(rvas.begin(), rvas.end()), rvas.end());
  for (const uint32_t rva : rvas) {
    size_t readable = 0;
    bool x = false;
    const long at = to_file(rva, &readable, &x);
    if (at < 0 || !x) continue;
    uint32_t end = rva + 0x10000;
    auto u = unwind.upper_bound(rva);
    if (u != unwind.begin() && std::prev(u)->second > rva) {
      end = std::prev(u)->second;
    } else {
      auto next = std::upper_bound(starts.begin(), starts.end(), rva);
      if (next != starts.end()) end = std::min(end, *next);
    }
    out->push_back(Export{image_base + rva, f.data() + at, readable,
                          std::min<size_t>(readable, end - rva)});
  }
  return true;
}

struct Counts {
  size_t instructions = 0;  // over the whole first 64 bytes
  size_t before_end = 0;    // of which up to the first ret/jmp/int3/ud
  size_t disagreements = 0;
  size_t both_invalid = 0;     // both decoders reject the bytes (the scan stops there)
  size_t opsize_branches = 0;  // 66 E8/E9/0F 8x: Intel (Zydis, us) length, AMD would differ
  size_t rip_relative = 0;
  size_t relative_branches = 0;
  size_t capstone_compared = 0;
  size_t capstone_disagreements = 0;
};

// Capstone as a second opinion on length and RIP-relative operands. Its one known split from
// Zydis: 66 on a near call/jmp/Jcc, which Capstone reads as AMD CPUs run it (rel16, two bytes
// shorter). The decoder follows Intel, so there Capstone's length must be exactly ours - 2.
class Capstone {
 public:
  Capstone() {
    ok_ = cs_open(CS_ARCH_X86, CS_MODE_64, &h_) == CS_ERR_OK;
    if (ok_) cs_option(h_, CS_OPT_DETAIL, CS_OPT_ON);
    insn_ = ok_ ? cs_malloc(h_) : nullptr;
  }
  ~Capstone() {
    if (insn_) cs_free(insn_, 1);
    if (ok_) cs_close(&h_);
  }
  bool ok() const { return ok_ && insn_; }
  // Empty when Capstone agrees with the decoder's (already Zydis-checked) reading.
  std::string compare(const uint8_t* code, size_t available, uint64_t address,
                      const Instruction& mine) {
    const uint8_t* p = code;
    size_t size = std::min<size_t>(available, 15);
    uint64_t a = address;
    if (!cs_disasm_iter(h_, &p, &size, &a, insn_)) return "capstone: undecodable";
    const bool near_branch_66 =
        mine.operand_size_prefix && (mine.branch == hookengine::BranchKind::kCallRel32 ||
                                     mine.branch == hookengine::BranchKind::kJmpRel32 ||
                                     mine.branch == hookengine::BranchKind::kJccRel32);
    const unsigned expected = near_branch_66 ? mine.length - 2u : mine.length;
    if (insn_->size != expected)
      return "capstone length " + std::to_string(insn_->size) + " expected " +
             std::to_string(expected);
    bool rip = false;
    const cs_x86& x = insn_->detail->x86;
    for (int i = 0; i < x.op_count; ++i)
      if (x.operands[i].type == X86_OP_MEM &&
          (x.operands[i].mem.base == X86_REG_RIP || x.operands[i].mem.base == X86_REG_EIP))
        rip = true;
    if (rip != mine.rip_relative) return "capstone rip-relative " + std::to_string(rip);
    return {};
  }

 private:
  bool ok_ = false;
  csh h_ = 0;
  cs_insn* insn_ = nullptr;
};

void compare_prologue(const Export& e, const std::string& dll, Capstone* cs, Counts* c) {
  size_t pos = 0;
  bool ended = false;  // past the first ret/jmp/int3/ud: still real code (padding, next function)
  while (pos < kPrologue && pos < e.readable) {
    Instruction mine;
    const bool ok = hookengine::decode(e.code + pos, e.readable - pos, &mine);
    RefInsn ref;
    ref_decode(e.code + pos, e.readable - pos, &ref);
    if (!ok && !ref.valid) {
      ++c->both_invalid;
      return;
    }
    ++c->instructions;
    const std::string diff = compare(ok, mine, ref);
    if (!diff.empty()) {
      if (++c->disagreements <= 40)
        std::printf("DISAGREE %s @%llx+%zu: %s  [%s]\n", dll.c_str(),
                    static_cast<unsigned long long>(e.address), pos, diff.c_str(),
                    hex(e.code + pos, std::min<size_t>(15, e.readable - pos)).c_str());
      return;
    }
    const std::string cdiff = cs->compare(e.code + pos, e.readable - pos, e.address + pos, mine);
    ++c->capstone_compared;
    if (!cdiff.empty() && ++c->capstone_disagreements <= 40)
      std::printf("CAPSTONE DISAGREES %s @%llx+%zu: %s  [%s]\n", dll.c_str(),
                  static_cast<unsigned long long>(e.address), pos, cdiff.c_str(),
                  hex(e.code + pos, mine.length).c_str());
    if (mine.rip_relative) ++c->rip_relative;
    if (mine.branch != hookengine::BranchKind::kNone) {
      ++c->relative_branches;
      // The one documented oracle split: 66 on a near branch. Zydis reads it as Intel CPUs run
      // it (66 ignored, rel32), Capstone as AMD (rel16). The decoder follows Intel.
      if (mine.operand_size_prefix) ++c->opsize_branches;
    }
    if (!ended) ++c->before_end;
    if (mine.flow != FlowKind::kNormal) ended = true;
    pos += mine.length;
  }
}

// Disagreements by kind (the text of compare() up to its first figure), with a few examples.
struct Disagreements {
  std::map<std::string, size_t> by_kind;
  std::map<std::string, size_t> expected;  // by expected_difference()
  size_t total = 0;
  void add(const std::string& diff, const uint8_t* code, size_t available, const RefInsn& ref,
           const char* where) {
    ++total;
    const std::string kind =
        diff.compare(0, 8, "validity") == 0 ? diff + " " : diff.substr(0, diff.find_first_of("0123456789@"));
    if (++by_kind[kind] <= 3)
      std::printf("DISAGREE %s: %s (zydis: %s)  [%s]\n", where, diff.c_str(),
                  ref.valid ? ZydisMnemonicGetString(ref.insn.mnemonic) : "invalid",
                  hex(code, std::min<size_t>(15, available)).c_str());
  }
  void print(const char* what) const {
    std::printf("%s: %zu disagreements", what, total);
    for (const auto& kv : by_kind) std::printf("; %s%zu", kv.first.c_str(), kv.second);
    for (const auto& kv : expected) std::printf("; expected (%s) %zu", kv.first.c_str(), kv.second);
    std::printf("\n");
  }
};

// Every byte offset of an exported function's bytes, not only its instruction starts: whatever
// the hook engine might be pointed at must read as Zydis reads it.
struct OffsetCounts {
  size_t offsets = 0, both_valid = 0, both_invalid = 0;
  Disagreements d;
};

void compare_every_offset(const Export& e, const std::string& dll, OffsetCounts* c) {
  for (size_t pos = 0; pos < e.extent; ++pos) {
    const uint8_t* p = e.code + pos;
    const size_t n = e.readable - pos;
    Instruction mine;
    const bool ok = hookengine::decode(p, n, &mine);
    RefInsn ref;
    ref_decode(p, n, &ref);
    ++c->offsets;
    c->both_valid += ok && ref.valid;
    c->both_invalid += !ok && !ref.valid;
    if (const char* why = expected_difference(ok, ref)) {
      ++c->d.expected[why];
      continue;
    }
    const std::string diff = compare(ok, mine, ref);
    if (!diff.empty()) {
      char where[256];
      std::snprintf(where, sizeof(where), "%s @%llx+%zu", dll.c_str(),
                    static_cast<unsigned long long>(e.address), pos);
      c->d.add(diff, p, n, ref, where);
    }
  }
}

struct RelocCounts {
  std::map<RelocateStatus, size_t> by_status;
  size_t bad = 0;
};

// Zydis's view of the reasons for a refusal (and of their absence when the builder succeeded).
struct RefFacts {
  bool branch_into = false;  // a relative branch before the first ret/jmp lands in (0, copied)
  bool ends_early = false;   // a ret/jmp/int3/ud ends before patch, followed by non-padding
  bool rip_in_copy = false;  // a RIP-relative operand among the copied instructions
};

bool ref_padding(const RefInsn& r) {
  return r.insn.mnemonic == ZYDIS_MNEMONIC_INT3 || r.insn.mnemonic == ZYDIS_MNEMONIC_NOP ||
         (r.insn.mnemonic == ZYDIS_MNEMONIC_PAUSE);
}

RefFacts ref_facts(const Export& e, size_t patch, size_t copied) {
  RefFacts f;
  size_t pos = 0;
  bool ended = false;
  while (pos < kPrologue && pos < e.readable) {
    RefInsn r;
    if (!ref_decode(e.code + pos, e.readable - pos, &r)) break;
    if (!ended && r.rel_operand >= 0) {
      const uint64_t t = ref_address(r, r.rel_operand, e.address + pos);
      if (t > e.address && t < e.address + copied) f.branch_into = true;
    }
    if (pos < copied && r.rip_operand >= 0) f.rip_in_copy = true;
    if (ended && pos < patch && !ref_padding(r)) f.ends_early = true;
    const ZydisMnemonic m = r.insn.mnemonic;
    if (m == ZYDIS_MNEMONIC_RET || m == ZYDIS_MNEMONIC_JMP || m == ZYDIS_MNEMONIC_INT3 ||
        m == ZYDIS_MNEMONIC_UD2 || m == ZYDIS_MNEMONIC_IRETQ)
      ended = true;
    pos += r.insn.length;
  }
  return f;
}

void check_relocation(const Export& e, const std::string& dll, size_t patch, int64_t distance,
                      RelocCounts* rc) {
  uint8_t out[hookengine::kMaxTrampolineLength];
  hookengine::Relocation r;
  const uint64_t out_address = e.address + static_cast<uint64_t>(distance);
  const RelocateStatus s = hookengine::build_trampoline(e.code, e.readable, e.address, patch, out,
                                                        sizeof(out), out_address, &r);
  ++rc->by_status[s];
  std::string err;
  if (s == RelocateStatus::kOk) {
    err = verify_trampoline(e.code, e.readable, e.address, patch, out, r, out_address);
    const RefFacts f = ref_facts(e, patch, r.copied_length);
    if (err.empty() && f.branch_into) err = "hooked although a branch lands inside the patch";
    if (err.empty() && f.ends_early) err = "hooked although the function ends before the patch";
  } else if (s == RelocateStatus::kBranchIntoPatch) {
    // The copied length on success would be the same: the instructions covering the patch.
    size_t copied = 0;
    while (copied < patch) {
      RefInsn x;
      if (!ref_decode(e.code + copied, e.readable - copied, &x)) break;
      copied += x.insn.length;
    }
    size_t pos = 0;
    bool found = false;
    while (pos < kPrologue && pos < e.readable && !found) {
      RefInsn x;
      if (!ref_decode(e.code + pos, e.readable - pos, &x)) break;
      if (x.rel_operand >= 0) {
        const uint64_t t = ref_address(x, x.rel_operand, e.address + pos);
        found = t > e.address && t < e.address + copied;
      }
      pos += x.insn.length;
    }
    if (!found) err = "refused for a branch into the patch that Zydis does not see";
  } else if (s == RelocateStatus::kCallReturnsIntoPatch) {
    bool found = false;
    for (size_t pos = 0; pos < patch && !found;) {
      RefInsn x;
      if (!ref_decode(e.code + pos, e.readable - pos, &x)) break;
      pos += x.insn.length;
      found = x.insn.mnemonic == ZYDIS_MNEMONIC_CALL && pos < patch;
    }
    if (!found) err = "refused for a call returning into the patch that Zydis does not see";
  } else if (s == RelocateStatus::kFunctionTooShort) {
    if (!ref_facts(e, patch, patch).ends_early)
      err = "refused as too short, Zydis sees no early end";
  } else if (s == RelocateStatus::kRipOutOfRange) {
    if (distance == 0 || (distance > -(int64_t{1} << 31) && distance < (int64_t{1} << 31)))
      err = "rip-relative out of range although the trampoline is near";
  } else {
    err = "unexpected refusal";
  }
  if (!err.empty() && ++rc->bad <= 40)
    std::printf(
        "BAD TRAMPOLINE %s @%llx patch %zu distance %lld: %s\n  original [%s]\n  trampoline [%s]\n",
        dll.c_str(), static_cast<unsigned long long>(e.address), patch,
        static_cast<long long>(distance), err.c_str(),
        hex(e.code, std::min<size_t>(r.copied_length, e.readable)).c_str(),
        s == RelocateStatus::kOk ? hex(out, r.trampoline_length).c_str() : to_string(s));
}

// Random instructions (a few prefixes, then each opcode of the one-byte, 0F, 0F38, 0F3A, VEX
// and EVEX maps in turn, amid random bytes) with a fixed seed, compared as every corpus offset.
struct RandomCounts {
  size_t tried = 0, both_valid = 0;
  Disagreements d;
};

void random_differential(size_t count, RandomCounts* rc) {
  std::mt19937_64 rng(20261123);
  static const uint8_t kPrefixes[] = {0x66, 0x67, 0xF2, 0xF3, 0xF0, 0x2E, 0x3E,
                                      0x64, 0x65, 0x40, 0x41, 0x48, 0x4C, 0x44};
  for (size_t it = 0; it < count; ++it) {
    uint8_t b[15];
    for (auto& x : b) x = static_cast<uint8_t>(rng());
    size_t k = 0;
    for (int n = static_cast<int>(rng() % 4); n > 0; --n)
      b[k++] = kPrefixes[rng() % sizeof(kPrefixes)];
    // Every opcode of every map in turn, the bytes around it random.
    const uint8_t op = static_cast<uint8_t>(it / 7);
    switch (it % 7) {
      case 0: b[k] = op; break;
      case 1: b[k] = 0x0F, b[k + 1] = op; break;
      case 2: b[k] = 0x0F, b[k + 1] = 0x38, b[k + 2] = op; break;
      case 3: b[k] = 0x0F, b[k + 1] = 0x3A, b[k + 2] = op; break;
      case 4: b[k] = 0xC5, b[k + 2] = op; break;
      case 5: b[k] = 0xC4, b[k + 1] = (b[k + 1] & 0xE0) | (1 + rng() % 3), b[k + 3] = op; break;
      default: b[k] = 0x62, b[k + 4] = op; break;
    }
    ++rc->tried;
    Instruction mine;
    const bool ok = hookengine::decode(b, sizeof(b), &mine);
    RefInsn ref;
    ref_decode(b, sizeof(b), &ref);
    rc->both_valid += ok && ref.valid;
    if (const char* why = expected_difference(ok, ref)) {
      ++rc->d.expected[why];
      continue;
    }
    const std::string diff = compare(ok, mine, ref);
    if (!diff.empty()) rc->d.add(diff, b, sizeof(b), ref, "random");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string dir = argc > 1 ? argv[1] : "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows";
  DIR* d = opendir(dir.c_str());
  if (!d) {
    std::printf("cannot open %s\n", dir.c_str());
    return 2;
  }
  std::vector<std::string> names;
  while (dirent* ent = readdir(d)) {
    const std::string n = ent->d_name;
    if (n.size() > 4 && n.compare(n.size() - 4, 4, ".dll") == 0) names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());

  Counts c;
  Capstone cs;
  if (!cs.ok()) {
    std::printf("cannot open Capstone\n");
    return 2;
  }
  {
    // The quirk rule must accept exactly the AMD reading of 66 E8 and nothing looser.
    const uint8_t call66[] = {0x66, 0xE8, 0, 0, 0, 0};
    Instruction mine;
    hookengine::decode(call66, sizeof(call66), &mine);
    const bool accepted = cs.compare(call66, sizeof(call66), 0x1000, mine).empty();
    mine.operand_size_prefix = false;
    const bool strict = !cs.compare(call66, sizeof(call66), 0x1000, mine).empty();
    if (mine.length != 6 || !accepted || !strict) {
      std::printf("FAIL: Capstone quirk rule for 66 E8 does not behave\n");
      return 1;
    }
  }
  // Near: 1 GB below the function (reachable by rel32). Far: 3 GB above (not reachable).
  const int64_t kNear = -(int64_t{1} << 30), kFar = int64_t{3} << 30;
  const size_t kPatches[] = {5, 14};
  RelocCounts rc[2][2];
  size_t dlls = 0, exports = 0;
  OffsetCounts oc;
  for (const std::string& n : names) {
    std::ifstream in(dir + "/" + n, std::ios::binary);
    std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
    std::vector<Export> ex;
    if (!parse_exports(file, &ex)) continue;
    ++dlls;
    exports += ex.size();
    for (const Export& e : ex) {
      compare_every_offset(e, n, &oc);
      compare_prologue(e, n, &cs, &c);
      for (int p = 0; p < 2; ++p) {
        check_relocation(e, n, kPatches[p], kNear, &rc[p][0]);
        check_relocation(e, n, kPatches[p], kFar, &rc[p][1]);
      }
    }
  }
  std::printf("corpus: %zu DLLs, %zu exported functions\n", dlls, exports);
  std::printf(
      "decoder vs Zydis: %zu instructions compared (%zu up to the first ret/jmp), "
      "%zu disagreements (%zu rip-relative, %zu relative branches, %zu with 66 on a near branch; "
      "%zu scans ended on bytes both reject)\n",
      c.instructions, c.before_end, c.disagreements, c.rip_relative, c.relative_branches,
      c.opsize_branches, c.both_invalid);
  std::printf("every offset: %zu offsets, %zu decoded by both, %zu rejected by both\n", oc.offsets,
              oc.both_valid, oc.both_invalid);
  oc.d.print("every offset, decoder vs Zydis");
  RandomCounts rnd;
  random_differential(2000000, &rnd);
  std::printf("random instructions: %zu tried, %zu decoded by both\n", rnd.tried, rnd.both_valid);
  rnd.d.print("random instructions, decoder vs Zydis");
  std::printf("decoder vs Capstone: %zu instructions compared, %zu disagreements\n",
              c.capstone_compared, c.capstone_disagreements);
  size_t bad = 0;
  for (int p = 0; p < 2; ++p) {
    for (int a = 0; a < 2; ++a) {
      std::printf("trampolines, %zu-byte patch, %s: ", kPatches[p],
                  a ? "far (+3 GB)" : "near (-1 GB)");
      for (const auto& kv : rc[p][a].by_status)
        std::printf("%s %zu; ", hookengine::to_string(kv.first), kv.second);
      std::printf("wrong %zu\n", rc[p][a].bad);
      bad += rc[p][a].bad;
    }
  }
  if (c.instructions < 100000) {
    std::printf("FAIL: corpus too small (is wine64 installed?)\n");
    return 1;
  }
  return c.disagreements == 0 && oc.d.total == 0 && c.capstone_disagreements == 0 && rnd.d.total == 0 && bad == 0
             ? 0
             : 1;
}
