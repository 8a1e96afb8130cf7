// Reliability through the real DLL, built twice: reliability_tests on the 6.x path (the patched
// IFileOperation methods) and reliability_xp_tests on the winxp64 flat path (SHFileOperationW
// copying through the hooked CopyFileW). The long runs are rows of one runner with a short count
// (make test) and a long one (KWINDEL_STRESS=1, make stress).
#include "kwtest.h"

namespace {

using namespace kwtest;

// Open handles (probed: Wine 8's GetProcessHandleCount gives 0) and committed private bytes.
std::pair<long, long long> process_counts() {
  std::pair<long, long long> c{0, 0};
  DWORD flags = 0;
  for (uintptr_t value = 4; value < 0x40000; value += 4) c.first += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
  MEMORY_BASIC_INFORMATION info;
  for (const char* at = nullptr; VirtualQuery(at, &info, sizeof info) == sizeof info && static_cast<const char*>(info.BaseAddress) >= at;
       at = static_cast<const char*>(info.BaseAddress) + info.RegionSize) {
    if (info.State == MEM_COMMIT && info.Type == MEM_PRIVATE) c.second += info.RegionSize;
  }
  return c;
}

enum Kind { kThreads, kLeak, kKilledBeforePerform };
struct Load { const char* name; Kind kind; int short_count, long_count; };
const Load kLoads[] = {
    {"eight threads copy their secret files", kThreads, 21, 501},
    {"handles and private bytes stay steady", kLeak, 500, 10000},
    {"a process killed before PerformOperations is recovered", kKilledBeforePerform, 1, 20},
};

class Reliability : public Interception, public ::testing::WithParamInterface<Load> {
 protected:
  // Each of `threads` threads copies its own secret source `count` times: on 6.x queued (the
  // source swapped for its encrypted form) and performed (the original back); before 6 a shell
  // copy whose target is the encrypted form. The first `lockstep_copies` in lock-step, so that while every
  // source is swapped each holds its encrypted form and its parked file is the original; the rest
  // run free, their operations interleaved. A source that is not in its encrypted form when its
  // operation runs would arrive in plaintext: counted in plaintext_arrivals. "" or what went wrong,
  // per thread.
  std::vector<std::string> copy_in_threads(int threads, int count, int lockstep_copies) {
    std::vector<std::string> failures(threads);
    std::atomic<int> arrived{0};
    auto barrier = [&](int round) { for (++arrived; arrived < threads * round;) Sleep(1); };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([&, t] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ComRef<IFileOperation> op;
        std::string reference, &failure = failures[t];
        const std::wstring target = dst + L"\\t" + std::to_wstring(t) + L".doc", encrypted = kFlat ? target : sources[t];
        for (int i = 0; i < count && failure.empty() && (kFlat || new_file_operation(&op)); ++i) {
          const bool lockstep = i < lockstep_copies;
          if (kFlat ? shell_operation(FO_COPY, {sources[t]}, dst) != 0 : queue(op.get(), false, {sources[t]}, dst) != kPassedOn) failure = "copy not passed on";
          const std::string bytes = content(encrypted);
          if (reference.empty() && decrypts_to(encrypted, "pw", originals[t])) reference = bytes;
          if ((kFlat || lockstep) && (bytes != reference || bytes.compare(0, 8, kMagic) != 0)) failure = "not the encrypted form";
          if (lockstep) barrier(2 * i + 1);
          if (lockstep && !kFlat && parked_original_of(sources[t]) != originals[t]) failure = "the parked file is not the original";
          if (lockstep) barrier(2 * i + 2);
          // What the copy carries: the target itself before 6, the swapped source when it runs on 6.x.
          if (content(encrypted).compare(0, 8, kMagic) != 0) ++plaintext_arrivals;
          if (!kFlat && op->PerformOperations() != kPassedOn) failure = "PerformOperations not passed on";
          DeleteFileW(target.c_str());
          if (file_exists(sources[t] + L".tmp") || file_exists(target + L".tmp")) failure = "a .tmp file stayed";
          if (content(sources[t]) != originals[t]) failure = "the source is not the original";
          if (!failure.empty()) arrived += threads * count, failure += " (thread " + std::to_string(t) + ", copy " + std::to_string(i) + ")";
        }
        op.reset();
        CoUninitialize();
      });
    }
    for (std::thread& worker : workers) worker.join();
    return failures;
  }
  std::atomic<int> plaintext_arrivals{0};
  std::wstring dst;
  std::vector<std::wstring> sources;
  std::vector<std::string> originals;
};

TEST_P(Reliability, Load) {
  const Load& load = GetParam();
  SCOPED_TRACE(load.name);
  if (load.kind == kKilledBeforePerform && kFlat) GTEST_SKIP() << "the 6.x path only";
  const wchar_t* stress = _wgetenv(L"KWINDEL_STRESS");  // 1 (make stress): the long count
  const int n = stress != nullptr && std::wcscmp(stress, L"1") == 0 ? load.long_count : load.short_count;
  set_policy(kScreen);
  TestAgent agent(all_secret(false));
  ASSERT_TRUE(agent.ok());
  dst = folder(L"dst");
  for (int t = 0; t < (load.kind == kThreads ? 8 : 1); ++t) {  // one name in several folders: each parks under its own path
    originals.push_back("thread " + std::to_string(t) + " secret " + std::string(100 + 37 * t, static_cast<char>('a' + t)));
    folder(L"t" + std::to_wstring(t));
    sources.push_back(make(L"t" + std::to_wstring(t) + L"\\t" + std::to_wstring(t) + L".doc", originals.back()));
  }
  if (load.kind == kThreads) {
    EXPECT_EQ(copy_in_threads(8, n, n / 3), std::vector<std::string>(8));
    EXPECT_EQ(plaintext_arrivals, 0);
    EXPECT_EQ(parked_records().size(), 0u) << "stranded originals";
    for (int t = 0; t < 8; ++t) EXPECT_EQ(content(sources[t]), originals[t]) << "lost original " << t;
    ASSERT_TRUE(agent.flush());
    EXPECT_EQ(agent.requests(), static_cast<size_t>(8 * n));
    EXPECT_EQ(agent.audits(), static_cast<size_t>(8 * n));
    set_policy(0);  // every registration or swap was consumed by its own copy
    ASSERT_TRUE(CopyFileW(sources[0].c_str(), (dst + L"\\again").c_str(), FALSE));
    EXPECT_EQ(content(dst + L"\\again"), originals[0]);
  } else if (load.kind == kLeak) {
    ASSERT_EQ(copy_in_threads(1, 200, 0), std::vector<std::string>(1)) << "warm-up";
    const auto before = process_counts();
    ASSERT_EQ(copy_in_threads(1, n, 0), std::vector<std::string>(1));
    const auto after = process_counts();
    EXPECT_LE(after.first - before.first, 4) << "handles";
    EXPECT_LE(after.second - before.second, 256 * 1024 + 8LL * n) << "private bytes";  // a leak of anything per operation fails
    ASSERT_TRUE(agent.flush());
    EXPECT_EQ(agent.requests(), static_cast<size_t>(200 + n));
  } else {
    // Killed between CopyItems and PerformOperations: the sources stay encrypted with their
    // originals parked until the next load of the library (a fresh process) puts them back.
    for (int round = 0; round < n; ++round) {
      std::vector<std::wstring> files;
      std::vector<std::string> contents;
      std::wstring args = L"copy load kill \"" + dst + L"\"";
      for (int i = 0; i < 3; ++i) {
        contents.push_back("round " + std::to_string(round) + " file " + std::to_string(i) + std::string(70000 * i, 'k'));
        files.push_back(make(L"killed" + std::to_wstring(i) + L".doc", contents.back()));
        args += L" \"" + files.back() + L"\"";
      }
      ASSERT_EQ(run_child(child_path(), args, 60000).output, "loaded 80004001\n");
      for (size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(content(files[i]).compare(0, 8, kMagic), 0) << i;
        EXPECT_EQ(parked_original_of(files[i]), contents[i]) << i;
      }
      ASSERT_EQ(run_child(child_path(), L"load", 60000).exit_code, 0u);
      for (size_t i = 0; i < files.size(); ++i) EXPECT_EQ(content(files[i]), contents[i]) << "lost original, round " << round;
      EXPECT_EQ(parked_records().size(), 0u) << "stranded originals, round " << round;
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Rows, Reliability, ::testing::ValuesIn(kLoads), [](const auto& info) { return std::to_string(info.index); });

}  // namespace
