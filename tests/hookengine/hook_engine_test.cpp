// The inline hooking engine under Wine: every export of the core system DLLs hooked and restored,
// real shell and kernel entry points called through their hooks, patching under load from eight
// threads, and the EasyHook-style per-thread barrier.
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

bool in_module(uint64_t address) {
  HMODULE module = nullptr;
  return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCWSTR>(address), &module) != FALSE;
}


struct CodeSection {
  uint8_t* base;
  size_t size;
  std::string copy;
};

std::vector<CodeSection> code_sections(HMODULE module) {
  std::vector<CodeSection> out;
  auto base = reinterpret_cast<uint8_t*>(module);
  auto nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
  IMAGE_SECTION_HEADER* section = IMAGE_FIRST_SECTION(nt);
  for (WORD i = 0; i < nt->FileHeader.NumberOfSections; ++i, ++section) {
    if ((section->Characteristics & IMAGE_SCN_MEM_EXECUTE) == 0) continue;
    uint8_t* start = base + section->VirtualAddress;
    out.push_back({start, section->Misc.VirtualSize, std::string(reinterpret_cast<char*>(start), section->Misc.VirtualSize)});
  }
  return out;
}

// Exported functions: unique addresses inside executable sections, forwarders left out.
std::vector<std::pair<std::string, uint8_t*>> exported_code(HMODULE module, const std::vector<CodeSection>& sections) {
  auto base = reinterpret_cast<uint8_t*>(module);
  auto nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  auto exports = reinterpret_cast<IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
  auto functions = reinterpret_cast<DWORD*>(base + exports->AddressOfFunctions);
  auto names = reinterpret_cast<DWORD*>(base + exports->AddressOfNames);
  auto ordinals = reinterpret_cast<WORD*>(base + exports->AddressOfNameOrdinals);
  std::map<uint8_t*, std::string> unique;
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) {
    const DWORD rva = functions[ordinals[i]];
    if (rva >= dir.VirtualAddress && rva < dir.VirtualAddress + dir.Size) continue;  // forwarder
    uint8_t* address = base + rva;
    bool code = false;
    for (const CodeSection& s : sections) code = code || (address >= s.base && address < s.base + s.size);
    if (code) unique.emplace(address, reinterpret_cast<const char*>(base + names[i]));
  }
  std::vector<std::pair<std::string, uint8_t*>> out;
  for (auto& [address, name] : unique) out.emplace_back(name, address);
  return out;
}

// The replacement used for exports that are hooked but never meant to be called: a stub in the
// test's own executable page, "jmp [rip+0]" followed by the very variable the engine manages.
// Whatever calls the export while it is hooked (this thread, the engine itself, Wine's threads)
// is sent through the trampoline to the original, so a faulty trampoline shows.
struct ForwardStub {
  uint8_t* code;
  void** variable;
};
ForwardStub make_forward_stub() {
  auto page = static_cast<uint8_t*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
  const uint8_t jmp[6] = {0xFF, 0x25, 0, 0, 0, 0};
  std::memcpy(page, jmp, 6);
  return {page, reinterpret_cast<void**>(page + 6)};
}

TEST(HookEngine, EveryExportOfTheCoreDllsIsHookedAndRestoredExactly) {
  ForwardStub stub = make_forward_stub();
  for (const wchar_t* dll : {L"kernel32.dll", L"kernelbase.dll", L"ntdll.dll"}) {
    HMODULE module = GetModuleHandleW(dll);
    ASSERT_NE(module, nullptr);
    std::vector<CodeSection> sections = code_sections(module);
    auto exports = exported_code(module, sections);
    std::map<std::string, int> by_status;
    std::string refused;
    int hooked = 0, restored = 0, near_patches = 0;
    for (auto& [name, address] : exports) {
      uint8_t before[16];
      std::memcpy(before, address, sizeof before);
      *stub.variable = address;
      HookRecord* record = nullptr;
      const HookStatus status = hookengine::install_hook(stub.variable, stub.code, HookOptions(), &record);
      ++by_status[hookengine::to_string(status)];
      if (status != HookStatus::kOk) {
        refused += " " + name + " (" + hookengine::to_string(status) + ")";
        EXPECT_EQ(*stub.variable, address) << name;
        EXPECT_EQ(std::memcmp(before, address, sizeof before), 0) << name << ": refused but written";
        continue;
      }
      ++hooked;
      HookInfo info;
      ASSERT_TRUE(hookengine::describe_hook(record, &info));
      EXPECT_EQ(kwtest::jump_destination(address), info.relay) << name;
      EXPECT_EQ(reinterpret_cast<uint64_t>(*stub.variable), info.trampoline) << name;
      if (info.patch_size == 5) ++near_patches;
      EXPECT_EQ(hookengine::remove_hook(stub.variable), HookStatus::kOk) << name;
      EXPECT_EQ(*stub.variable, address) << name;
      if (std::memcmp(before, address, sizeof before) == 0) ++restored;
    }
    size_t differing = 0;
    for (const CodeSection& s : sections) {
      for (size_t i = 0; i < s.size; ++i) differing += s.base[i] != static_cast<uint8_t>(s.copy[i]);
    }
    std::printf("%ls: %zu exports, %d hooked (%d near), %d restored;", dll, exports.size(), hooked, near_patches,
                restored);
    for (auto& [status, count] : by_status) std::printf(" %s=%d", status.c_str(), count);
    std::printf("\n  refused:%s\n", refused.c_str());
    EXPECT_EQ(differing, 0u) << dll << ": code bytes differ after all unhooks";
    EXPECT_EQ(restored, hooked) << dll;
    EXPECT_GT(hooked * 10, static_cast<int>(exports.size()) * 9) << dll << ": fewer than 90% hookable";
    EXPECT_GT(near_patches * 10, hooked * 9) << dll << ": near relays were expected";
  }
}

// ---- the shell copy engine's methods and kernel32's thunk, called through their hooks ----

std::atomic<int> g_method_calls{0};
void* g_copy_items_real = nullptr;
void* g_move_items_real = nullptr;
void* g_perform_real = nullptr;
HRESULT STDMETHODCALLTYPE copy_items_probe(IFileOperation* self, IUnknown* items, IShellItem* to) {
  ++g_method_calls;
  return reinterpret_cast<decltype(&copy_items_probe)>(g_copy_items_real)(self, items, to);
}
HRESULT STDMETHODCALLTYPE move_items_probe(IFileOperation* self, IUnknown* items, IShellItem* to) {
  ++g_method_calls;
  return reinterpret_cast<decltype(&move_items_probe)>(g_move_items_real)(self, items, to);
}
HRESULT STDMETHODCALLTYPE perform_probe(IFileOperation* self) {
  ++g_method_calls;
  return reinterpret_cast<decltype(&perform_probe)>(g_perform_real)(self);
}

struct ComScope {
  ComScope() { CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  ~ComScope() { CoUninitialize(); }
};

class FileOperationMethods : public ::testing::TestWithParam<bool> {};

TEST_P(FileOperationMethods, PatchedMethodsRunTheReplacementAndReturnTheOriginalResult) {
  HookOptions options;
  options.force_absolute = GetParam();  // 14-byte patch: covers the RIP-relative test and the jne
  ComScope com;
  IFileOperation* operation = nullptr;
  ASSERT_EQ(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation,
                             reinterpret_cast<void**>(&operation)), S_OK);
  void** methods = *reinterpret_cast<void***>(operation);
  g_copy_items_real = methods[17];
  g_move_items_real = methods[15];
  g_perform_real = methods[21];
  const std::string before(static_cast<const char*>(methods[17]), 32);
  HookRecord* record = nullptr;
  ASSERT_EQ(hookengine::install_hook(&g_copy_items_real, reinterpret_cast<void*>(&copy_items_probe), options, &record),
            HookStatus::kOk);
  HookInfo info;
  hookengine::describe_hook(record, &info);
  EXPECT_EQ(info.patch_size, GetParam() ? 14u : 5u);
  EXPECT_EQ(info.copied_length, GetParam() ? 18u : 11u);  // sub rsp,imm8 + test [rip],1 (+ jne + mov)
  ASSERT_EQ(hookengine::install_hook(&g_move_items_real, reinterpret_cast<void*>(&move_items_probe), options),
            HookStatus::kOk);
  ASSERT_EQ(hookengine::install_hook(&g_perform_real, reinterpret_cast<void*>(&perform_probe), options),
            HookStatus::kOk);

  g_method_calls = 0;
  IFileOperation* fresh = nullptr;  // the method table is shared: a new object is intercepted too
  ASSERT_EQ(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation,
                             reinterpret_cast<void**>(&fresh)), S_OK);
  EXPECT_EQ(fresh->CopyItems(nullptr, nullptr), static_cast<HRESULT>(0x80004001));
  EXPECT_EQ(fresh->MoveItems(nullptr, nullptr), static_cast<HRESULT>(0x80004001));
  EXPECT_EQ(fresh->PerformOperations(), static_cast<HRESULT>(0x80004001));
  EXPECT_EQ(g_method_calls.load(), 3);

  EXPECT_EQ(hookengine::remove_hook(&g_copy_items_real), HookStatus::kOk);
  EXPECT_EQ(hookengine::remove_hook(&g_move_items_real), HookStatus::kOk);
  EXPECT_EQ(hookengine::remove_hook(&g_perform_real), HookStatus::kOk);
  EXPECT_EQ(std::string(static_cast<const char*>(methods[17]), 32), before);
  EXPECT_EQ(fresh->CopyItems(nullptr, nullptr), static_cast<HRESULT>(0x80004001));
  EXPECT_EQ(g_method_calls.load(), 3);
  fresh->Release();
  operation->Release();
}
INSTANTIATE_TEST_SUITE_P(NearAndAbsolute, FileOperationMethods, ::testing::Values(false, true));

std::atomic<int> g_copy_calls{0};
void* g_copy_file_real = nullptr;
BOOL WINAPI copy_file_probe(LPCWSTR from, LPCWSTR to, BOOL fail_if_exists) {
  ++g_copy_calls;
  return reinterpret_cast<decltype(&CopyFileW)>(g_copy_file_real)(from, to, fail_if_exists);
}

TEST(HookEngine, Kernel32CopyFileThunkCopiesThroughItsTrampoline) {
  auto entry = reinterpret_cast<uint8_t*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "CopyFileW"));
  const std::string before(reinterpret_cast<char*>(entry), 14);
  kwtest::ScratchDir dir;
  ASSERT_TRUE(kwtest::write_file(dir.file(L"a.txt"), "payload\r\n"));
  g_copy_file_real = entry;
  ASSERT_EQ(hookengine::install_hook(&g_copy_file_real, reinterpret_cast<void*>(&copy_file_probe)), HookStatus::kOk);
  g_copy_calls = 0;
  auto copy = reinterpret_cast<decltype(&CopyFileW)>(entry);
  EXPECT_TRUE(copy(dir.file(L"a.txt").c_str(), dir.file(L"b.txt").c_str(), TRUE));
  std::string copied;
  EXPECT_TRUE(kwtest::read_file(dir.file(L"b.txt"), &copied));
  EXPECT_EQ(copied, "payload\r\n");
  SetLastError(0);
  EXPECT_FALSE(copy(dir.file(L"a.txt").c_str(), dir.file(L"b.txt").c_str(), TRUE));  // exists: the original's failure
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_EXISTS));
  EXPECT_EQ(g_copy_calls.load(), 2);
  EXPECT_EQ(hookengine::remove_hook(&g_copy_file_real), HookStatus::kOk);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(entry), 14), before);
}

// ---- eight threads calling while the hook comes and goes ----

std::atomic<long> g_original_calls{0};
std::atomic<long> g_replacement_calls{0};
void* g_stress_real = nullptr;

extern "C" __attribute__((noinline)) long stress_target(long x) {
  g_original_calls.fetch_add(1, std::memory_order_relaxed);
  return x * 3 + 1;
}
extern "C" __attribute__((noinline)) long stress_replacement(long x) {
  g_replacement_calls.fetch_add(1, std::memory_order_relaxed);
  return reinterpret_cast<long (*)(long)>(g_stress_real)(x);
}

TEST(HookEngine, EightThreadsCallWhileTheHookIsSetAndRemovedTenThousandTimes) {
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
        // A short rest now and then: eight threads spinning on two cores would make every
        // freeze wait for the scheduler, not test anything more.
        if ((n & 1023) == 0) Sleep(1);
      }
      calls += n;
    });
  }
  g_stress_real = reinterpret_cast<void*>(&stress_target);
  int cycles = 0, failures = 0;
  const ULONGLONG start = GetTickCount64();
  for (; cycles < 10000; ++cycles) {
    if (hookengine::install_hook(&g_stress_real, reinterpret_cast<void*>(&stress_replacement)) != HookStatus::kOk) ++failures;
    if (hookengine::remove_hook(&g_stress_real) != HookStatus::kOk) ++failures;
  }
  const ULONGLONG elapsed = GetTickCount64() - start;
  stop = true;
  for (auto& thread : threads) thread.join();
  std::printf("10000 hook/unhook cycles in %llu ms; %ld calls from 8 threads, %ld through the replacement\n",
              elapsed, calls.load(), g_replacement_calls.load());
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(g_original_calls.load(), calls.load()) << "a call was lost or doubled";
  EXPECT_GT(g_replacement_calls.load(), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&stress_target), 16), before);
  EXPECT_EQ(g_stress_real, reinterpret_cast<void*>(&stress_target));
}

// ---- refusals and ownership ----

uint8_t* code_page_with(const std::vector<uint8_t>& bytes) {
  auto page = static_cast<uint8_t*>(VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_EXECUTE_READWRITE));
  std::memset(page, 0x90, 64);
  std::copy(bytes.begin(), bytes.end(), page);
  return page;
}

extern "C" long plain_replacement(long x) { return x; }

TEST(HookEngine, RefusalsWriteNothingAndNameTheirCause) {
  void* variable = nullptr;
  EXPECT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kInvalidArgument);
  EXPECT_FALSE(hookengine::set_hook(nullptr, reinterpret_cast<void*>(&plain_replacement)));
  EXPECT_EQ(hookengine::last_hook_status(), HookStatus::kInvalidArgument);

  // ret, then bytes that are not padding: the function ends before the patch does.
  uint8_t* too_short = code_page_with({0xC3, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8});
  variable = too_short;
  EXPECT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kFunctionTooShort);
  EXPECT_EQ(variable, too_short);
  EXPECT_EQ(too_short[0], 0xC3);
  EXPECT_EQ(too_short[1], 0x48);

  // A loop back to offset 2, inside the patch.
  uint8_t* branch_in = code_page_with({0x48, 0x89, 0xC8, 0x48, 0xFF, 0xC9, 0x75, 0xFA, 0xC3});
  variable = branch_in;
  EXPECT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kBranchIntoPatch);
  EXPECT_EQ(branch_in[0], 0x48);

  // Undecodable bytes (06 is invalid in 64-bit mode).
  uint8_t* invalid = code_page_with({0x06, 0x06, 0x06, 0x06, 0x06, 0x06});
  variable = invalid;
  EXPECT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kUndecodable);

  // call rax ending at offset 5: a thread blocked in it returns to offset 5, the end of a near
  // patch (fine) but the middle of an absolute one (refused).
  const std::vector<uint8_t> calls = {0x48, 0x89, 0xC8, 0xFF, 0xD0, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8,
                                      0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0xC3};
  uint8_t* far_call = code_page_with(calls);
  variable = far_call;
  HookOptions absolute;
  absolute.force_absolute = true;
  EXPECT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement), absolute),
            HookStatus::kCallReturnsIntoPatch);
  EXPECT_EQ(far_call[0], 0x48);
  uint8_t* near_call = code_page_with(calls);
  variable = near_call;
  ASSERT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kOk);
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kOk);

  // Several hooks under one freeze stop at the first refusal: those before it stay, none after.
  void* batch[3] = {code_page_with(calls), too_short, code_page_with(calls)};
  const hookengine::HookRequest requests[3] = {{&batch[0], reinterpret_cast<void*>(&plain_replacement)},
                                               {&batch[1], reinterpret_cast<void*>(&plain_replacement)},
                                               {&batch[2], reinterpret_cast<void*>(&plain_replacement)}};
  const uint64_t first = reinterpret_cast<uint64_t>(batch[0]);
  uint8_t* third = static_cast<uint8_t*>(batch[2]);
  HookStatus why = HookStatus::kOk;
  EXPECT_EQ(hookengine::install_hooks(requests, 3, &why), 1u);
  EXPECT_EQ(why, HookStatus::kFunctionTooShort);
  EXPECT_NE(hookengine::find_hook(first), nullptr);
  EXPECT_EQ(batch[2], third);
  EXPECT_EQ(third[0], 0x48);
  EXPECT_EQ(hookengine::remove_hook(&batch[0]), HookStatus::kOk);
}

TEST(HookEngine, UnhookLeavesAForeignPatchAloneAndReportsIt) {
  // mov rax, rcx; mov rax, rcx; mov rax, rcx; ret
  uint8_t* code = code_page_with({0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0x48, 0x89, 0xC8, 0xC3});
  void* variable = code;
  void* again = code;
  ASSERT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kOk);
  EXPECT_EQ(hookengine::install_hook(&again, reinterpret_cast<void*>(&plain_replacement)), HookStatus::kAlreadyHooked);
  void* trampoline = variable;
  EXPECT_EQ(reinterpret_cast<long (*)(long)>(trampoline)(41), 41);  // the relocated copy runs

  uint8_t ours[5];
  std::memcpy(ours, code, 5);
  const uint8_t foreign[5] = {0xE9, 0x10, 0x20, 0x30, 0x00};  // someone else's jump over ours
  std::memcpy(code, foreign, 5);
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kPatchNotOurs);
  EXPECT_EQ(std::memcmp(code, foreign, 5), 0);
  EXPECT_EQ(variable, trampoline);

  std::memcpy(code, ours, 5);
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kOk);
  EXPECT_EQ(variable, code);
  EXPECT_EQ(code[0], 0x48);
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kNotHooked);
}

TEST(HookEngine, NearRelaysAreWithinReachAndInTheEnginesOwnPages) {
  HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  void* variable = reinterpret_cast<void*>(GetProcAddress(kernel32, "GetTickCount"));
  const uint64_t target = reinterpret_cast<uint64_t>(variable);
  HookRecord* record = nullptr;
  ASSERT_EQ(hookengine::install_hook(&variable, reinterpret_cast<void*>(&plain_replacement), HookOptions(), &record),
            HookStatus::kOk);
  HookInfo info;
  hookengine::describe_hook(record, &info);
  EXPECT_EQ(info.patch_size, 5u);
  EXPECT_TRUE(hookengine::rel32_reaches(target, 5, info.relay));
  EXPECT_TRUE(hookengine::is_engine_code(info.relay));
  EXPECT_TRUE(hookengine::is_engine_code(info.trampoline));
  EXPECT_FALSE(in_module(info.relay));
  MEMORY_BASIC_INFORMATION mbi;
  for (uint64_t page : {info.relay, info.trampoline}) {
    ASSERT_NE(VirtualQuery(reinterpret_cast<void*>(page), &mbi, sizeof mbi), 0u);
    EXPECT_EQ(mbi.Type, static_cast<DWORD>(MEM_PRIVATE));
    EXPECT_EQ(mbi.Protect, static_cast<DWORD>(PAGE_EXECUTE_READ)) << "engine pages must not stay writable";
  }
  EXPECT_EQ(hookengine::remove_hook(&variable), HookStatus::kOk);
}

// ---- the EasyHook-style barrier of the own flat-hook functions ----

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
  const long nested = g_b_entry(x);  // another hooked function: intercepted
  return g_a_entry(x) + nested * 100;  // itself by its entry: the original
}
extern "C" long barrier_b_replacement(long x) {
  g_b_replacement.fetch_add(1);
  return g_b_entry(x);
}

void reset_barrier_counts() { g_a_original = g_a_replacement = g_b_original = g_b_replacement = 0; }

TEST(FlatHooks, OwnEasyHookEquivalentsKeepThePublishedMeaning) {
  FlatHookApi api = own_flat_hook_api();
  ASSERT_EQ(api.easyhook, nullptr);
  g_a_entry = &barrier_a;
  g_b_entry = &barrier_b;
  const std::string a_before(reinterpret_cast<const char*>(&barrier_a), 16);
  HookTraceInfo a = {}, b = {};
  ASSERT_EQ(api.install_hook(reinterpret_cast<void*>(&barrier_a), reinterpret_cast<void*>(&barrier_a_replacement), nullptr, &a), 0);
  ASSERT_EQ(api.install_hook(reinterpret_cast<void*>(&barrier_b), reinterpret_cast<void*>(&barrier_b_replacement), nullptr, &b), 0);
  ASSERT_NE(a.link, nullptr);
  EXPECT_NE(a.link, b.link);
  EXPECT_LT(api.install_hook(nullptr, reinterpret_cast<void*>(&barrier_a_replacement), nullptr, &a), 0);

  reset_barrier_counts();
  EXPECT_EQ(g_a_entry(1), 2);  // no ACL yet: no thread is intercepted
  EXPECT_EQ(g_a_replacement.load(), 0);

  ULONG all[1] = {0xFFFFFFFF};
  ASSERT_EQ(api.set_exclusive_acl(all, 1, &a), 0);
  ASSERT_EQ(api.set_exclusive_acl(all, 1, &b), 0);
  reset_barrier_counts();
  SetLastError(0);
  EXPECT_EQ(g_a_entry(5), 6 + 10 * 100);
  EXPECT_EQ(GetLastError(), 1234u);  // the original's last error survives the way back
  EXPECT_EQ(g_a_replacement.load(), 1);
  EXPECT_EQ(g_a_original.load(), 1);
  EXPECT_EQ(g_b_replacement.load(), 1);  // called from inside A's replacement: still intercepted
  EXPECT_EQ(g_b_original.load(), 1);
  EXPECT_FALSE(hookengine::barrier_active_on_this_thread(own_hook_record(&a)));

  // Another thread is intercepted too; excluding this thread leaves it out.
  std::thread([&] { EXPECT_EQ(g_b_entry(3), 6); }).join();
  EXPECT_EQ(g_b_replacement.load(), 2);
  ULONG me[1] = {0};  // 0: the calling thread
  ASSERT_EQ(api.set_exclusive_acl(me, 1, &b), 0);
  EXPECT_EQ(g_b_entry(4), 8);
  EXPECT_EQ(g_b_replacement.load(), 2);
  std::thread([&] { EXPECT_EQ(g_b_entry(4), 8); }).join();
  EXPECT_EQ(g_b_replacement.load(), 3);

  EXPECT_EQ(api.uninstall_all_hooks(), 0);
  EXPECT_EQ(api.wait_for_pending_removals(), 0);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&barrier_a), 16), a_before);
  reset_barrier_counts();
  EXPECT_EQ(g_a_entry(1), 2);
  EXPECT_EQ(g_a_replacement.load(), 0);
}

TEST(FlatHooks, WithoutEasyHookTheOwnFunctionsAreBound) {
  // The test program's folder holds no EasyHook64.dll and none is on the search path.
  FlatHookApi api = bind_flat_hook_api(GetModuleHandleW(nullptr));
  EXPECT_EQ(api.easyhook, nullptr);
  EXPECT_EQ(api.install_hook, own_flat_hook_api().install_hook);
  EXPECT_EQ(api.wait_for_pending_removals, own_flat_hook_api().wait_for_pending_removals);
}

}  // namespace
