// The inline hooking engine under Wine, in a real process: real functions patched through one
// harness (the patch leads to a relay in the engine's execute-read pages, the trampoline calls
// the original through, refusals write nothing, the removal restores every byte), every export
// of the core system DLLs, patching under load from eight threads, and the per-thread barrier.
#include <gtest/gtest.h>
#include <windows.h>
#include <shobjidl.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "hookengine/code_memory.h"
#include "hookengine/flat_hooks.h"
#include "hookengine/inline_hook.h"
#include "kwtest.h"

using hookengine::HookInfo;
using hookengine::HookOptions;
using hookengine::HookRecord;
using hookengine::HookStatus;

namespace {

// The one replacement: counts the call and passes the four argument registers to the original.
using Fn4 = uint64_t (*)(uint64_t, uint64_t, uint64_t, uint64_t);
std::atomic<int> g_calls{0};
void* g_real = nullptr;
uint64_t probe(uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
  ++g_calls;
  return reinterpret_cast<Fn4>(g_real)(a, b, c, d);
}

uint8_t* code_page_with(const std::vector<uint8_t>& bytes) {
  auto page = static_cast<uint8_t*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
  std::memset(page, 0x90, 64);
  std::copy(bytes.begin(), bytes.end(), page);
  return page;
}
const std::vector<uint8_t> kMovRet = {0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0xC3};
// call rax ending at offset 5: the end of a near patch (fine), the middle of an absolute one.
const std::vector<uint8_t> kCallAt5 = {0x48, 0x89, 0xC8, 0xFF, 0xD0, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0xC3};

void* file_operation_method(int index) {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  IFileOperation* operation = nullptr;
  CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, reinterpret_cast<void**>(&operation));
  void* method = operation != nullptr ? (*reinterpret_cast<void***>(operation))[index] : nullptr;
  if (operation != nullptr) operation->Release();
  return method;
}
// A fresh object: the method table is shared, so it is intercepted too.
bool copy_items_not_implemented(void*) {
  IFileOperation* fresh = nullptr;
  CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, reinterpret_cast<void**>(&fresh));
  const bool ok = fresh != nullptr && fresh->CopyItems(nullptr, nullptr) == static_cast<HRESULT>(0x80004001);
  if (fresh != nullptr) fresh->Release();
  return ok;
}
// A real copy, then the original's own failure and last error (the target exists).
bool copy_file_copies(void* entry) {
  kwtest::ScratchDir dir;
  auto copy = reinterpret_cast<decltype(&CopyFileW)>(entry);
  std::string copied;
  const bool first = kwtest::write_file(dir.file(L"a.txt"), "payload\r\n") &&
                     copy(dir.file(L"a.txt").c_str(), dir.file(L"b.txt").c_str(), TRUE) &&
                     kwtest::read_file(dir.file(L"b.txt"), &copied) && copied == "payload\r\n";
  SetLastError(0);
  return first && !copy(dir.file(L"a.txt").c_str(), dir.file(L"b.txt").c_str(), TRUE) &&
         GetLastError() == ERROR_FILE_EXISTS;
}
bool returns_argument(void* entry) { return reinterpret_cast<long (*)(long)>(entry)(41) == 41; }
bool tick_count(void* entry) { return reinterpret_cast<DWORD (*)()>(entry)() != 0; }

struct Scenario {
  const char* name;
  void* (*target)();
  bool absolute;
  HookStatus status;
  size_t patch_size = 0, copied = 0;  // expected when hooked; copied 0: any
  bool (*call)(void* entry) = nullptr;  // calls the target by its entry; true when the result is right
  int calls = 0;                        // replacement calls that makes
};

const Scenario kScenarios[] = {
    {"CopyFileW", [] { return reinterpret_cast<void*>(&CopyFileW); }, false, HookStatus::kOk, 5, 0, copy_file_copies, 2},
    {"GetTickCount", [] { return reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetTickCount")); },
     false, HookStatus::kOk, 5, 0, tick_count, 1},
    // sub rsp,imm8 + test [rip],1 (+ jne + mov): the RIP-relative test and the jne relocated
    {"CopyItems near", [] { return file_operation_method(17); }, false, HookStatus::kOk, 5, 11, copy_items_not_implemented, 1},
    {"CopyItems absolute", [] { return file_operation_method(17); }, true, HookStatus::kOk, 14, 18, copy_items_not_implemented, 1},
    {"code copied and run", [] { return static_cast<void*>(code_page_with(kMovRet)); }, false, HookStatus::kOk, 5, 6,
     returns_argument, 1},
    {"call ending the near patch", [] { return static_cast<void*>(code_page_with(kCallAt5)); }, false, HookStatus::kOk, 5, 5},
    {"call inside the absolute patch", [] { return static_cast<void*>(code_page_with(kCallAt5)); }, true,
     HookStatus::kCallReturnsIntoPatch},
    {"null target", [] { return static_cast<void*>(nullptr); }, false, HookStatus::kInvalidArgument},
    {"ret then code", [] { return static_cast<void*>(code_page_with({0xC3, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8})); }, false,
     HookStatus::kFunctionTooShort},
    {"loop back into the patch", [] { return static_cast<void*>(code_page_with({0x48, 0x89, 0xC8, 0x48, 0xFF, 0xC9, 0x75, 0xFA, 0xC3})); },
     false, HookStatus::kBranchIntoPatch},
    {"undecodable", [] { return static_cast<void*>(code_page_with({0x06, 0x06, 0x06, 0x06, 0x06, 0x06})); }, false,
     HookStatus::kUndecodable},
};

class Engine : public ::testing::TestWithParam<Scenario> {};

TEST_P(Engine, PatchesCallsThroughAndRestores) {
  const Scenario& s = GetParam();
  auto* entry = static_cast<uint8_t*>(s.target());
  const std::string before = entry != nullptr ? std::string(reinterpret_cast<char*>(entry), 32) : "";
  HookOptions options;
  options.force_absolute = s.absolute;
  HookRecord* record = nullptr;
  g_real = entry;
  ASSERT_EQ(hookengine::install_hook(&g_real, reinterpret_cast<void*>(&probe), options, &record), s.status);
  EXPECT_EQ(hookengine::last_hook_status(), s.status);
  if (s.status != HookStatus::kOk) {
    EXPECT_EQ(g_real, entry);
    if (entry != nullptr) EXPECT_EQ(std::string(reinterpret_cast<char*>(entry), 32), before) << "refused but written";
    return;
  }
  HookInfo info;
  ASSERT_TRUE(hookengine::describe_hook(record, &info));
  EXPECT_EQ(kwtest::jump_destination(entry), info.relay);
  EXPECT_EQ(reinterpret_cast<uint64_t>(g_real), info.trampoline);
  EXPECT_EQ(info.patch_size, s.patch_size);
  EXPECT_EQ(info.copied_length, s.copied != 0 ? s.copied : info.copied_length);
  EXPECT_TRUE(s.absolute || hookengine::rel32_reaches(info.target, 5, info.relay));
  for (uint64_t page : {info.relay, info.trampoline}) {
    MEMORY_BASIC_INFORMATION mbi;
    ASSERT_NE(VirtualQuery(reinterpret_cast<void*>(page), &mbi, sizeof mbi), 0u);
    EXPECT_TRUE(hookengine::is_engine_code(page));
    EXPECT_EQ(mbi.Type, static_cast<DWORD>(MEM_PRIVATE));
    EXPECT_EQ(mbi.Protect, static_cast<DWORD>(PAGE_EXECUTE_READ)) << "engine pages must not stay writable";
  }
  void* again = entry;
  EXPECT_EQ(hookengine::install_hook(&again, reinterpret_cast<void*>(&probe)), HookStatus::kAlreadyHooked);
  g_calls = 0;
  if (s.call != nullptr) EXPECT_TRUE(s.call(entry));
  EXPECT_EQ(g_calls.load(), s.calls);
  EXPECT_EQ(hookengine::remove_hook(&g_real), HookStatus::kOk);
  EXPECT_EQ(hookengine::remove_hook(&g_real), HookStatus::kNotHooked);
  EXPECT_EQ(g_real, entry);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(entry), 32), before);
  if (s.call != nullptr) EXPECT_TRUE(s.call(entry));
  EXPECT_EQ(g_calls.load(), s.calls);
}
INSTANTIATE_TEST_SUITE_P(Scenarios, Engine, ::testing::ValuesIn(kScenarios));

TEST(HookEngine, AForeignPatchIsLeftAloneAndABatchStopsAtTheFirstRefusal) {
  uint8_t* code = code_page_with(kMovRet);
  void* variable = code;
  ASSERT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&probe)), HookStatus::kOk);
  uint8_t ours[5];
  std::memcpy(ours, code, 5);
  const uint8_t foreign[5] = {0xE9, 0x10, 0x20, 0x30, 0x00};  // someone else's jump over ours
  std::memcpy(code, foreign, 5);
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kPatchNotOurs);
  EXPECT_EQ(std::memcmp(code, foreign, 5), 0);
  std::memcpy(code, ours, 5);
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kOk);

  void* batch[3] = {code_page_with(kMovRet), code_page_with({0xC3, 0x48, 0x89, 0xC8}), code_page_with(kMovRet)};
  void* const third = batch[2];
  const hookengine::HookRequest requests[3] = {{&batch[0], reinterpret_cast<void*>(&probe)},
                                               {&batch[1], reinterpret_cast<void*>(&probe)},
                                               {&batch[2], reinterpret_cast<void*>(&probe)}};
  HookStatus why = HookStatus::kOk;
  EXPECT_EQ(hookengine::install_hooks(requests, 3, &why), 1u);
  EXPECT_EQ(why, HookStatus::kFunctionTooShort);
  EXPECT_EQ(batch[2], third);
  EXPECT_EQ(static_cast<uint8_t*>(third)[0], 0x48);
  EXPECT_EQ(hookengine::remove_hook(&batch[0]), HookStatus::kOk);
}

// Hooked exports that are never meant to be called go to a stub that jumps through the very
// variable the engine manages: whatever calls them meanwhile (Wine's threads, the engine itself)
// runs the trampoline, so a faulty one shows.
TEST(HookEngine, EveryExportOfTheCoreDllsIsHookedAndRestoredExactly) {
  auto stub = static_cast<uint8_t*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
  const uint8_t jmp[6] = {0xFF, 0x25, 0, 0, 0, 0};
  std::memcpy(stub, jmp, 6);
  void** variable = reinterpret_cast<void**>(stub + 6);
  for (const wchar_t* dll : {L"kernel32.dll", L"kernelbase.dll", L"ntdll.dll"}) {
    auto base = reinterpret_cast<uint8_t*>(GetModuleHandleW(dll));
    auto nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    std::map<uint8_t*, std::string> code;  // executable section starts and their bytes
    IMAGE_SECTION_HEADER* section = IMAGE_FIRST_SECTION(nt);
    for (WORD i = 0; i < nt->FileHeader.NumberOfSections; ++i, ++section) {
      if (section->Characteristics & IMAGE_SCN_MEM_EXECUTE)
        code[base + section->VirtualAddress].assign(reinterpret_cast<char*>(base + section->VirtualAddress), section->Misc.VirtualSize);
    }
    const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    auto exports = reinterpret_cast<IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
    auto functions = reinterpret_cast<DWORD*>(base + exports->AddressOfFunctions);
    std::map<uint8_t*, bool> entries;  // unique code addresses, forwarders left out
    for (DWORD i = 0; i < exports->NumberOfFunctions; ++i) {
      uint8_t* address = base + functions[i];
      auto s = code.upper_bound(address);
      if (functions[i] != 0 && s != code.begin() && address < std::prev(s)->first + std::prev(s)->second.size())
        entries[address] = true;
    }
    int hooked = 0, near_patches = 0, wrong = 0;
    for (auto& [address, unused] : entries) {
      const std::string before(reinterpret_cast<char*>(address), 16);
      *variable = address;
      HookRecord* record = nullptr;
      if (hookengine::install_hook(variable, stub, HookOptions(), &record) != HookStatus::kOk) {
        wrong += *variable != address || before != std::string(reinterpret_cast<char*>(address), 16);
        continue;
      }
      ++hooked;
      HookInfo info;
      hookengine::describe_hook(record, &info);
      near_patches += info.patch_size == 5;
      wrong += kwtest::jump_destination(address) != info.relay || reinterpret_cast<uint64_t>(*variable) != info.trampoline;
      wrong += hookengine::remove_hook(variable) != HookStatus::kOk || *variable != address ||
               before != std::string(reinterpret_cast<char*>(address), 16);
    }
    for (auto& [start, bytes] : code) EXPECT_EQ(std::memcmp(start, bytes.data(), bytes.size()), 0) << dll;
    std::printf("%ls: %zu exports, %d hooked (%d near)\n", dll, entries.size(), hooked, near_patches);
    EXPECT_EQ(wrong, 0) << dll;
    EXPECT_GT(hooked * 10, static_cast<int>(entries.size()) * 9) << dll << ": fewer than 90% hookable";
    EXPECT_GT(near_patches * 10, hooked * 9) << dll << ": near relays were expected";
  }
}

std::atomic<long> g_original_calls{0};
extern "C" __attribute__((noinline)) long stress_target(long x) {
  g_original_calls.fetch_add(1, std::memory_order_relaxed);
  return x * 3 + 1;
}

// The other threads are frozen while the patch is written and moved out of the bytes it covers.
TEST(HookEngine, EightThreadsCallWhileTheHookIsSetAndRemovedTwoThousandTimes) {
  const std::string before(reinterpret_cast<const char*>(&stress_target), 16);
  long (*volatile target)(long) = &stress_target;
  std::atomic<bool> stop{false};
  std::atomic<long> calls{0}, wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      long n = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        const long x = t * 1000003L + n++;
        if (target(x) != x * 3 + 1) ++wrong;
        if ((n & 1023) == 0) Sleep(1);  // eight threads spinning on two cores would only slow each freeze
      }
      calls += n;
    });
  }
  g_real = reinterpret_cast<void*>(&stress_target);
  g_calls = 0;
  int failures = 0;
  for (int cycle = 0; cycle < 2000; ++cycle) {
    failures += hookengine::install_hook(&g_real, reinterpret_cast<void*>(&probe)) != HookStatus::kOk;
    failures += hookengine::remove_hook(&g_real) != HookStatus::kOk;
  }
  stop = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(g_original_calls.load(), calls.load()) << "a call was lost or doubled";
  EXPECT_GT(g_calls.load(), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&stress_target), 16), before);
}

// ---- the per-thread barrier of the own flat-hook functions ----
std::atomic<int> g_a_original{0}, g_a_replacement{0}, g_b_original{0}, g_b_replacement{0};
long (*volatile g_a_entry)(long) = nullptr;  // what a replacement calls "by name"
long (*volatile g_b_entry)(long) = nullptr;
extern "C" __attribute__((noinline)) long barrier_a(long x) {
  g_a_original.fetch_add(1);
  SetLastError(1234);
  return x + 1;
}
extern "C" __attribute__((noinline)) long barrier_b(long x) {
  g_b_original.fetch_add(1);
  return x * 2;
}
extern "C" long barrier_a_replacement(long x) {
  g_a_replacement.fetch_add(1);
  const long nested = g_b_entry(x);    // another hooked function: intercepted
  return g_a_entry(x) + nested * 100;  // itself by its entry: the original
}
extern "C" long barrier_b_replacement(long x) {
  g_b_replacement.fetch_add(1);
  return g_b_entry(x);
}
std::vector<int> barrier_counts() {
  std::vector<int> counts = {g_a_original, g_a_replacement, g_b_original, g_b_replacement};
  g_a_original = g_a_replacement = g_b_original = g_b_replacement = 0;
  return counts;
}

TEST(FlatHooks, OwnEasyHookEquivalentsKeepThePublishedMeaning) {
  FlatHookApi api = bind_flat_hook_api(GetModuleHandleW(nullptr));  // no EasyHook64.dll anywhere
  ASSERT_EQ(api.easyhook, nullptr);
  EXPECT_EQ(api.install_hook, own_flat_hook_api().install_hook);
  g_a_entry = &barrier_a;
  g_b_entry = &barrier_b;
  const std::string a_before(reinterpret_cast<const char*>(&barrier_a), 16);
  HookTraceInfo a = {}, b = {};
  ASSERT_EQ(api.install_hook(reinterpret_cast<void*>(&barrier_a), reinterpret_cast<void*>(&barrier_a_replacement), nullptr, &a), 0);
  ASSERT_EQ(api.install_hook(reinterpret_cast<void*>(&barrier_b), reinterpret_cast<void*>(&barrier_b_replacement), nullptr, &b), 0);
  EXPECT_LT(api.install_hook(nullptr, reinterpret_cast<void*>(&barrier_a_replacement), nullptr, &a), 0);
  barrier_counts();
  EXPECT_EQ(g_a_entry(1), 2);  // no ACL yet: no thread is intercepted
  EXPECT_EQ(barrier_counts(), std::vector<int>({1, 0, 0, 0}));

  ULONG all[1] = {0xFFFFFFFF};
  ASSERT_EQ(api.set_exclusive_acl(all, 1, &a), 0);
  ASSERT_EQ(api.set_exclusive_acl(all, 1, &b), 0);
  SetLastError(0);
  EXPECT_EQ(g_a_entry(5), 6 + 10 * 100);
  EXPECT_EQ(GetLastError(), 1234u);  // the original's last error survives the way back
  EXPECT_EQ(barrier_counts(), std::vector<int>({1, 1, 1, 1}));  // B from inside A's replacement: intercepted
  EXPECT_FALSE(hookengine::barrier_active_on_this_thread(own_hook_record(&a)));

  ULONG me[1] = {0};  // 0: the calling thread
  ASSERT_EQ(api.set_exclusive_acl(me, 1, &b), 0);
  EXPECT_EQ(g_b_entry(4), 8);
  std::thread([&] { EXPECT_EQ(g_b_entry(4), 8); }).join();  // another thread is intercepted
  EXPECT_EQ(barrier_counts(), std::vector<int>({0, 0, 2, 1}));

  EXPECT_EQ(api.uninstall_all_hooks(), 0);
  EXPECT_EQ(api.wait_for_pending_removals(), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&barrier_a), 16), a_before);
  EXPECT_EQ(g_a_entry(1), 2);
  EXPECT_EQ(barrier_counts(), std::vector<int>({1, 0, 0, 0}));
}

}  // namespace
