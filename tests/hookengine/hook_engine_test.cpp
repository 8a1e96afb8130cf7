// The inline hooking engine under Wine, in a real process: one table of patches through one
// harness (the patch leads to a relay in the engine's execute-read pages, the trampoline calls
// the original through, refusals write nothing, a foreign patch is left alone, the removal
// restores every byte; a row with threads calls the target from them while the hook is set and
// removed), and the per-thread barrier of the own flat-hook functions. The program is built
// twice, for 64-bit and for 32-bit processes (WoW64 under Wine): each runs the rows of its
// bitness, and every function it hooks is WINAPI (stdcall in 32-bit code: the callee pops its
// arguments, so a relay, stub or trampoline that moved the stack would show).
#include "kwtest.h"

#include <cstdio>

#include "hookengine/code_memory.h"
#include "hookengine/flat_hooks.h"
#include "hookengine/inline_hook.h"

using namespace hookengine;
using kwtest::jump_destination;

namespace {

constexpr bool k64 = sizeof(void*) == 8;

// A crash in any thread fails the program at once: a 32-bit process under Wine's WoW64 whose
// worker thread crashed while the main one went on was seen to end with exit code 0.
LONG WINAPI fail_on_crash(EXCEPTION_POINTERS* e) {
  std::fprintf(stderr, "unhandled exception %08lx at %p\n", e->ExceptionRecord->ExceptionCode,
               e->ExceptionRecord->ExceptionAddress);
  std::fflush(stderr);
  TerminateProcess(GetCurrentProcess(), 3);
  return EXCEPTION_EXECUTE_HANDLER;
}
const LPTOP_LEVEL_EXCEPTION_FILTER g_previous_filter = SetUnhandledExceptionFilter(&fail_on_crash);

// The one replacement: counts the call and passes its three arguments to the original.
using Fn3 = uintptr_t(WINAPI*)(uintptr_t, uintptr_t, uintptr_t);
std::atomic<long> g_calls{0};
void* g_real = nullptr;
uintptr_t WINAPI probe(uintptr_t a, uintptr_t b, uintptr_t c) {
  ++g_calls;
  return reinterpret_cast<Fn3>(g_real)(a, b, c);
}

// A fresh writable code page: `bytes`, nops to +20h, the dword 43 (odd) there, then zeros. abs_at:
// the 4 bytes there hold an offset into the page, made the absolute address it names (a 32-bit
// [disp32] operand).
uint8_t* code_page_with(const std::vector<uint8_t>& bytes, size_t abs_at) {
  auto page = static_cast<uint8_t*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
  std::memset(page, 0x90, 0x20);
  page[0x20] = 43;
  std::copy(bytes.begin(), bytes.end(), page);
  uint32_t at = 0;
  if (abs_at != 0) std::memcpy(&at, page + abs_at, 4), at += static_cast<uint32_t>(reinterpret_cast<uintptr_t>(page));
  if (abs_at != 0) std::memcpy(page + abs_at, &at, 4);
  return page;
}
// call rax ending at offset 5, the middle of an absolute patch.
const std::vector<uint8_t> kCallAt5 = {0x48, 0x89, 0xC8, 0xFF, 0xD0, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0xC3};
// sub rsp,28h; test byte [rip+0Ch],1 (the ret's C3: odd); jne +3; xor rcx,rcx; mov rax,rcx;
// add rsp,28h; ret: returns its argument only when the test reads the right byte.
const std::vector<uint8_t> kTestRipJne = {0x48, 0x83, 0xEC, 0x28, 0xF6, 0x05, 0x0C, 0x00, 0x00, 0x00, 0x01, 0x75,
                                          0x03, 0x48, 0x31, 0xC9, 0x48, 0x89, 0xC8, 0x48, 0x83, 0xC4, 0x28, 0xC3};
// push rcx; push rbx; cpuid (slow: most threads the freeze stops here stand at the lock inc, inside
// the patch); lock inc qword [rip+0F4h] (the counter at +100h); pop rbx; pop rax (the argument); ret.
const std::vector<uint8_t> kCounted = {0x51, 0x53, 0x0F, 0xA2, 0xF0, 0x48, 0xFF, 0x05, 0xF4, 0x00, 0x00, 0x00, 0x5B, 0x58, 0xC3};
// 32-bit, stdcall with three arguments. cmp eax,eax; je +5 (taken, out of the patch); xor eax,eax;
// ret 12; mov eax,[esp+4]; test byte [page+20h],1 (odd); jne +2; xor eax,eax; ret 12.
const std::vector<uint8_t> kJeAbs32 = {0x39, 0xC0, 0x74, 0x05, 0x31, 0xC0, 0xC2, 0x0C, 0x00, 0x8B, 0x44, 0x24, 0x04, 0xF6,
                                       0x05, 0x20, 0, 0, 0, 0x01, 0x75, 0x02, 0x31, 0xC0, 0xC2, 0x0C, 0x00};
// call $+5; pop ecx; mov eax,[ecx+1Bh] (the 43 at +20h when ecx holds the original +5); ret 12.
const std::vector<uint8_t> kCallNext32 = {0xE8, 0, 0, 0, 0, 0x59, 0x8B, 0x41, 0x1B, 0xC2, 0x0C, 0x00};
// xor eax,eax; call +6 (mov eax,[esp]; ret: a pc thunk); mov eax,[eax+19h] (the 43 at +20h when the
// thunk returned the original +7); ret 12.
const std::vector<uint8_t> kPcThunk32 = {0x31, 0xC0, 0xE8, 0x06, 0, 0, 0, 0x8B, 0x40, 0x19, 0xC2, 0x0C, 0x00,
                                         0x8B, 0x04, 0x24, 0xC3};
// push ebx; cpuid (slow: most threads the freeze stops here stand at the pop, inside the patch);
// pop ebx; mov eax,[esp+4]; lock inc dword [page+100h]; ret 12.
const std::vector<uint8_t> kCounted32 = {0x53, 0x0F, 0xA2, 0x5B, 0x8B, 0x44, 0x24, 0x04, 0xF0, 0xFF,
                                         0x05, 0x00, 0x01, 0,    0,    0xC2, 0x0C, 0x00};

enum Bitness { kBoth, k64Only, k32Only };
struct Scenario {
  const char* name;
  Bitness bitness;
  void* real;                    // a system function; null: `code` in a fresh page (none: a null target)
  std::vector<uint8_t> code;
  bool absolute;
  HookStatus status;
  size_t patch_size = 0, copied = 0;  // expected when hooked; copied 0: any
  int64_t result = -1;                // what a call with (6, 7, 3) returns; -1: not called
  int threads = 0;                    // that call from this many threads (call_from_threads)
  size_t abs_at = 0;                  // see code_page_with
};

const Scenario kScenarios[] = {
    {"MulDiv", kBoth, reinterpret_cast<void*>(&MulDiv), {}, false, HookStatus::kOk, 5, 0, 14},
    {"test [rip] and jne near", k64Only, nullptr, kTestRipJne, false, HookStatus::kOk, 5, 11, 6},
    {"test [rip] and jne absolute", k64Only, nullptr, kTestRipJne, true, HookStatus::kOk, 14, 16, 6},
    {"threads frozen and moved", k64Only, nullptr, kCounted, false, HookStatus::kOk, 5, 12, 6, 2},
    {"call inside the absolute patch", k64Only, nullptr, kCallAt5, true, HookStatus::kCallReturnsIntoPatch},
    {"ret then code", kBoth, nullptr, {0xC3, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8}, false, HookStatus::kFunctionTooShort},
    {"loop back into the patch", kBoth, nullptr, {0x48, 0x89, 0xC8, 0x48, 0xFF, 0xC9, 0x75, 0xFA, 0xC3}, false,
     HookStatus::kBranchIntoPatch},
    {"undecodable", k64Only, nullptr, {0x06, 0x06, 0x06, 0x06, 0x06, 0x06}, false, HookStatus::kUndecodable},
    {"undecodable", k32Only, nullptr, {0x0F, 0x04, 0x0F, 0x04, 0x0F, 0x04}, false, HookStatus::kUndecodable},
    {"je widened, [abs32] kept", k32Only, nullptr, kJeAbs32, false, HookStatus::kOk, 5, 6, 6, 0, 15},
    {"absolute asked, near given", k32Only, nullptr, kJeAbs32, true, HookStatus::kOk, 5, 6, 6, 0, 15},
    {"call $+5; pop rebuilt", k32Only, nullptr, kCallNext32, false, HookStatus::kOk, 5, 5, 43},
    {"pc thunk sees the original return address", k32Only, nullptr, kPcThunk32, false, HookStatus::kOk, 5, 7, 43},
    {"threads frozen and moved", k32Only, nullptr, kCounted32, false, HookStatus::kOk, 5, 8, 6, 2, 11},
    {"call into the patched bytes", k32Only, nullptr, {0x90, 0xE8, 0xFF, 0xFF, 0xFF, 0xFF, 0xC3}, false,
     HookStatus::kCallIntoPatch},
    {"call inside the patch", k32Only, nullptr, {0x90, 0x90, 0xFF, 0xD0, 0x90, 0x90}, false, HookStatus::kCallReturnsIntoPatch},
};

// Threads call the hooked target while the hook is removed and set again 2000 times: the other
// threads are frozen while the patch is written and moved out of the bytes it covers, so no call
// is lost, doubled or wrong (the target counts its calls at +100h).
void call_from_threads(int count, uint8_t* entry) {
  auto counter = reinterpret_cast<volatile int64_t*>(entry + 0x100);
  const int64_t counted_before = *counter;
  std::atomic<bool> stop{false};
  std::atomic<int64_t> calls{0}, wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) {
    threads.emplace_back([&, t] {
      uintptr_t n = t * 1000003u;
      for (; !stop.load(std::memory_order_relaxed); ++n) {
        wrong += reinterpret_cast<Fn3>(entry)(n, 0, 0) != n;
        if ((n & 1023) == 0) Sleep(1);  // eight threads spinning on two cores would only slow each freeze
      }
      calls += n - t * 1000003u;
    });
  }
  int failures = 0;
  for (int cycle = 0; cycle < 2000; ++cycle) failures += !unhook(&g_real) + !set_hook(&g_real, reinterpret_cast<void*>(&probe));
  stop = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(*counter - counted_before, calls.load()) << "a call was lost or doubled";
  EXPECT_GT(g_calls.exchange(0), 0);
}

class Engine : public ::testing::TestWithParam<Scenario> {};

TEST_P(Engine, PatchesCallsThroughAndRestores) {
  const Scenario& s = GetParam();
  if (s.bitness == (k64 ? k32Only : k64Only)) GTEST_SKIP() << "a row of the other bitness";
  SCOPED_TRACE(s.name);
  auto* entry = static_cast<uint8_t*>(s.real != nullptr ? s.real : s.code.empty() ? nullptr : code_page_with(s.code, s.abs_at));
  auto bytes = [&] { return std::string(reinterpret_cast<char*>(entry), 32); };
  const std::string before = entry != nullptr ? bytes() : "";
  HookRecord* record = nullptr;
  g_real = entry;
  ASSERT_EQ(install_hook(&g_real, reinterpret_cast<void*>(&probe), HookOptions{s.absolute}, &record), s.status);
  EXPECT_EQ(last_hook_status(), s.status);
  if (s.status != HookStatus::kOk) {
    EXPECT_EQ(g_real, entry);
    EXPECT_TRUE(entry == nullptr || bytes() == before) << "refused but written";
    return;
  }
  HookInfo info;
  ASSERT_TRUE(describe_hook(record, &info));
  EXPECT_EQ(jump_destination(entry), info.relay);
  EXPECT_EQ(reinterpret_cast<uint64_t>(g_real), info.trampoline);
  EXPECT_EQ(info.patch_size, s.patch_size);
  EXPECT_EQ(info.copied_length, s.copied != 0 ? s.copied : info.copied_length);
  for (uint64_t page : {info.relay, info.trampoline}) {  // the engine's own pages, never left writable
    MEMORY_BASIC_INFORMATION mbi{};
    VirtualQuery(reinterpret_cast<void*>(page), &mbi, sizeof mbi);
    EXPECT_TRUE(is_engine_code(page) && mbi.Type == MEM_PRIVATE && mbi.Protect == PAGE_EXECUTE_READ);
  }
  void* again = entry;
  EXPECT_EQ(install_hook(&again, reinterpret_cast<void*>(&probe)), HookStatus::kAlreadyHooked);
  if (s.real == nullptr) {  // someone else's jump written over ours stays
    const std::string ours = bytes();
    std::memcpy(entry, "\xE9\x10\x20\x30\x00", 5);
    EXPECT_EQ(remove_hook(&g_real), HookStatus::kPatchNotOurs);
    EXPECT_EQ(std::memcmp(entry, "\xE9\x10\x20\x30\x00", 5), 0);
    std::memcpy(entry, ours.data(), 5);
  }
  g_calls = 0;
  if (s.result >= 0) EXPECT_EQ(static_cast<int64_t>(reinterpret_cast<Fn3>(entry)(6, 7, 3)), s.result);
  EXPECT_EQ(g_calls.exchange(0), s.result >= 0 ? 1 : 0);
  if (s.threads > 0) call_from_threads(s.threads, entry);
  EXPECT_EQ(remove_hook(&g_real), HookStatus::kOk);
  EXPECT_EQ(remove_hook(&g_real), HookStatus::kNotHooked);
  EXPECT_EQ(g_real, entry);
  EXPECT_EQ(bytes(), before);
}
INSTANTIATE_TEST_SUITE_P(Scenarios, Engine, ::testing::ValuesIn(kScenarios));

// ---- the per-thread barrier of the own flat-hook functions ----
std::atomic<int> g_count[4];  // calls of A's original, A's replacement, B's original, B's replacement
extern "C" __attribute__((noinline)) long WINAPI barrier_a(long x) {
  ++g_count[0];
  SetLastError(1234);
  return x + 1;
}
extern "C" __attribute__((noinline)) long WINAPI barrier_b(long x) {
  ++g_count[2];
  return x * 2;
}
long(WINAPI* volatile g_a)(long) = &barrier_a;  // by their entries, as a replacement calls them
long(WINAPI* volatile g_b)(long) = &barrier_b;
extern "C" long WINAPI a_replacement(long x) {
  ++g_count[1];
  const long nested = g_b(x);    // another hooked function: intercepted
  return g_a(x) + nested * 100;  // itself by its entry: the original
}
extern "C" long WINAPI b_replacement(long x) {
  ++g_count[3];
  return g_b(x);
}
std::vector<int> counts() {
  std::vector<int> counts;
  for (auto& count : g_count) counts.push_back(count.exchange(0));
  return counts;
}

TEST(FlatHooks, OwnEasyHookEquivalentsKeepThePublishedMeaning) {
  const FlatHookApi api = own_flat_hook_api();
  const std::string a_before(reinterpret_cast<const char*>(&barrier_a), 16);
  HookTraceInfo a = {}, b = {};
  ASSERT_EQ(api.install_hook(reinterpret_cast<void*>(&barrier_a), reinterpret_cast<void*>(&a_replacement), nullptr, &a), 0);
  ASSERT_EQ(api.install_hook(reinterpret_cast<void*>(&barrier_b), reinterpret_cast<void*>(&b_replacement), nullptr, &b), 0);
  EXPECT_LT(api.install_hook(nullptr, reinterpret_cast<void*>(&a_replacement), nullptr, &a), 0);
  EXPECT_EQ(g_a(1), 2);  // no ACL yet: no thread is intercepted
  EXPECT_EQ(counts(), std::vector<int>({1, 0, 0, 0}));

  ULONG all[1] = {0xFFFFFFFF};
  ASSERT_EQ(api.set_exclusive_acl(all, 1, &a), 0);
  ASSERT_EQ(api.set_exclusive_acl(all, 1, &b), 0);
  SetLastError(0);
  EXPECT_EQ(g_a(5), 6 + 10 * 100);
  EXPECT_EQ(GetLastError(), 1234u);  // the original's last error survives the way back
  EXPECT_EQ(counts(), std::vector<int>({1, 1, 1, 1}));  // B from inside A's replacement: intercepted
  EXPECT_FALSE(barrier_active_on_this_thread(own_hook_record(&a)));

  ULONG me[1] = {0};  // 0: the calling thread
  ASSERT_EQ(api.set_exclusive_acl(me, 1, &b), 0);
  EXPECT_EQ(g_b(4), 8);
  std::thread([&] { EXPECT_EQ(g_b(4), 8); }).join();  // another thread is intercepted
  EXPECT_EQ(counts(), std::vector<int>({0, 0, 2, 1}));

  EXPECT_EQ(api.uninstall_all_hooks(), 0);
  EXPECT_EQ(api.wait_for_pending_removals(), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&barrier_a), 16), a_before);
}

}  // namespace
