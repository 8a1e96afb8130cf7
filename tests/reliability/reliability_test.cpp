// Reliability through the real DLL, built twice: reliability_tests on the 6.x path (the patched
// IFileOperation methods) and reliability_xp_tests on the winxp64 flat path (SHFileOperationW
// copying through the hooked CopyFileW). The long runs are rows of one runner with a short count
// (make test) and a long one (KWINDEL_STRESS=1, make stress).
#include "harness.h"

#include <future>
#include <optional>

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

HRESULT copy_now(const std::vector<std::wstring>& sources, const std::wstring& destination) {
  ComRef<IFileOperation> op;
  return new_file_operation(&op) ? queue(op.get(), false, sources, destination) : E_FAIL;
}
HRESULT perform() {
  ComRef<IFileOperation> op;
  return new_file_operation(&op) ? op->PerformOperations() : E_FAIL;
}

// A copy queued on a thread of its own (with its own apartment), for exchanges that block.
struct AsyncCopy {
  std::future<HRESULT> result;
  AsyncCopy(std::vector<std::wstring> s, std::wstring d)
      : result(std::async(std::launch::async, [=] { return CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), copy_now(s, d); })) {}
  bool done(DWORD ms) { return result.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready; }
  // std::async's future waits for its task when destroyed: a call still blocked (a failed test) is let go.
  ~AsyncCopy() { if (result.valid() && !done(30000)) new std::future<HRESULT>(std::move(result)); }
};

enum Kind { kThreads, kLeak, kMidcall, kKilledBeforePerform };
struct Load { const char* name; Kind kind; int short_count, long_count; };
const Load kLoads[] = {
    {"eight threads copy their secret files", kThreads, 21, 501},
    {"handles and private bytes stay steady", kLeak, 500, 10000},
    {"the last reference goes while a copy waits", kMidcall, 1, 25},
    {"a process killed before PerformOperations is recovered", kKilledBeforePerform, 1, 20},
};

class Reliability : public Interception, public ::testing::WithParamInterface<Load> {
 protected:
  // One copy of thread t's secret source: on 6.x queued on `op` (swapping the source; `between`
  // runs then) and performed (restoring it); before 6 a shell copy. The target, or while queued
  // the source, must be the encrypted form; without `between` (threads running free, whose
  // performs restore every source) the source is not looked at. Returns "" or what went wrong.
  std::string copy_once(int t, IFileOperation* op, std::string* reference, const std::function<std::string()>& between) {
    const std::wstring target = dst + L"\\t" + std::to_wstring(t) + L".doc", encrypted = kFlat ? target : sources[t];
    if (kFlat ? shell_operation(FO_COPY, {sources[t]}, dst) != 0 : queue(op, false, {sources[t]}, dst) != kPassedOn) return "copy not passed on";
    const std::string bytes = content(encrypted);
    if (reference->empty() && decrypts_to(encrypted, "pw", originals[t])) *reference = bytes;
    if ((kFlat || between) && (bytes != *reference || bytes.compare(0, 8, kMagic) != 0)) return "not the encrypted form";
    const std::string failure = between ? between() : "";
    if (!failure.empty()) return failure;
    if (!kFlat && op->PerformOperations() != kPassedOn) return "PerformOperations not passed on";
    DeleteFileW(target.c_str());
    if (file_exists(sources[t] + L".tmp") || file_exists(target + L".tmp")) return "a .tmp file stayed";
    return content(sources[t]) == originals[t] ? "" : "the source is not the original";
  }
  void make_sources(int threads) {  // one name in several folders: each parks under its own path
    dst = folder(L"dst");
    for (int t = 0; t < threads; ++t) {
      originals.push_back("thread " + std::to_string(t) + " secret " + std::string(100 + 37 * t, static_cast<char>('a' + t)));
      folder(L"t" + std::to_wstring(t));
      sources.push_back(make(L"t" + std::to_wstring(t) + L"\\t" + std::to_wstring(t) + L".doc", originals.back()));
    }
  }
  std::wstring dst;
  std::vector<std::wstring> sources;
  std::vector<std::string> originals;
};

TEST_P(Reliability, Load) {
  const Load& load = GetParam();
  if (load.kind == kKilledBeforePerform && kFlat) GTEST_SKIP() << "the 6.x path only";
  const int n = iterations(load.short_count, load.long_count);
  set_policy(kScreen);
  std::optional<TestAgent> agent;  // the midcall rows bring their own
  if (load.kind != kMidcall) agent.emplace(all_secret(false));
  ASSERT_TRUE(!agent || agent->ok());
  const ULONGLONG start = GetTickCount64();
  if (load.kind == kThreads) {
    // Every thread copies its own source n times; the first third in lock-step, so that while
    // every source is swapped each holds its encrypted form and its parked file is the original.
    constexpr int kThreads = 8;
    make_sources(kThreads);
    std::vector<std::string> failures(kThreads);
    std::atomic<int> arrived{0};
    auto barrier = [&](int round) { for (++arrived; arrived < kThreads * round;) Sleep(1); };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ComRef<IFileOperation> op;
        std::string reference;
        for (int i = 0; i < n && failures[t].empty() && (kFlat || new_file_operation(&op)); ++i) {
          const bool lockstep = i < n / 3;
          failures[t] = copy_once(t, op.get(), &reference, !lockstep ? nullptr : std::function<std::string()>([&] {
            barrier(2 * i + 1);
            const bool parked = parked_original_of(sources[t]) == originals[t];
            barrier(2 * i + 2);
            return parked || kFlat ? "" : "the parked file is not the original";
          }));
          if (!failures[t].empty()) arrived += kThreads * n, failures[t] += " (thread " + std::to_string(t) + ", copy " + std::to_string(i) + ")";
        }
        op.reset();
        CoUninitialize();
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<std::string>(kThreads));
    ASSERT_TRUE(agent->flush());
    EXPECT_EQ(agent->requests(), static_cast<size_t>(kThreads * n));
    EXPECT_EQ(agent->audits(), static_cast<size_t>(kThreads * n));
    EXPECT_TRUE(parked_records().empty());
    set_policy(0);  // every registration or swap was consumed by its own copy
    ASSERT_TRUE(CopyFileW(sources[0].c_str(), (dst + L"\\again").c_str(), FALSE));
    EXPECT_EQ(content(dst + L"\\again"), originals[0]);
    EXPECT_EQ(perform(), kPassedOn);
    EXPECT_EQ(content(sources[0]), originals[0]);
  } else if (load.kind == kLeak) {
    make_sources(1);
    ComRef<IFileOperation> op;
    ASSERT_TRUE(kFlat || new_file_operation(&op));
    std::string reference;
    const auto check = [] { return std::string(); };
    for (int i = 0; i < 200; ++i) ASSERT_EQ(copy_once(0, op.get(), &reference, check), "") << "warm-up " << i;
    const auto before = process_counts();
    for (int i = 0; i < n; ++i) ASSERT_EQ(copy_once(0, op.get(), &reference, check), "") << i;
    const auto after = process_counts();
    std::printf("[ measured ] handles %ld -> %ld, private bytes %lld -> %lld\n", before.first, after.first, before.second, after.second);
    EXPECT_LE(after.first - before.first, 4);
    EXPECT_LE(after.second - before.second, 256 * 1024 + 8LL * n);  // a leak of anything per operation fails
    ASSERT_TRUE(agent->flush());
    EXPECT_EQ(agent->requests(), static_cast<size_t>(200 + n));
  } else if (load.kind == kMidcall) {
    // The child's copy waits in the agent exchange while the DLL's last reference goes (its own
    // FreeLibrary, or the global hook's removal); the late answer still decides the copy.
    struct Row { const wchar_t* how; int action; const char* password; const char* com; const char* flat; };
    const Row rows[] = {
        {L"free", 1, "pw", "copy=80004001 perform=80004001", "copy=00000000"},
        {L"free", 0, "", "copy=80004001 perform=ffffffff", "copy=ffffffff"},
        {L"hook", 1, "pw", "copy=80004001 perform=80004001", "copy=00000000"},
        {L"hook", 1, "", "copy=80004001 perform=80004001", "copy=00000000"},
    };
    make_sources(1);
    set_policy(kSecretAudit | kLocal);
    auto install_hook_proc = fn<KwInstallHookProcFn>(dll(), "InstallHookProc");
    for (int round = 0; round < n; ++round) {
      for (const Row& row : rows) {
        SCOPED_TRACE(narrow(row.how) + " action " + std::to_string(row.action) + " password '" + row.password + "'");
        const std::wstring target = dst + L"\\t0.doc";
        DeleteFileW(target.c_str());
        OwnedHandle release(CreateEventW(nullptr, TRUE, FALSE, L"kwtest-midcall-release"));
        OwnedHandle released(CreateEventW(nullptr, TRUE, FALSE, L"kwtest-midcall-released"));
        TestAgent silent;
        ASSERT_TRUE(silent.ok());
        const bool by_hook = row.how == std::wstring(L"hook");
        ASSERT_TRUE(!by_hook || install_hook_proc(TRUE) == 1);
        auto child = std::async(std::launch::async, [&] {
          return run_child(child_path(), L"midcall " + std::wstring(row.how) + L" \"" + sources[0] + L"\" \"" + dst + L"\"", 90000);
        });
        const bool asked = silent.wait_for_frames(1, 30000);
        if (by_hook) install_hook_proc(FALSE);
        SetEvent(release.get());
        EXPECT_EQ(WaitForSingleObject(released.get(), 30000), WAIT_OBJECT_0);
        if (asked) silent.send_to_requester(secret_answer({narrow(sources[0])}, row.password, row.action));
        const ChildResult r = child.get();
        ASSERT_TRUE(asked) << "the copy never reached the agent: " << r.output;
        EXPECT_EQ(r.output, std::string(kFlat ? row.flat : row.com) + " loaded=1 patched=" + (kFlat ? "4" : "3") + " failed calls=0\n");
        if (kFlat && *row.password != '\0') EXPECT_TRUE(decrypts_to(target, "pw", originals[0]));
        else EXPECT_EQ(content(target), kFlat && row.action != 0 ? originals[0] : "<missing>");
        EXPECT_EQ(content(sources[0]), originals[0]);
      }
    }
  } else {
    // Killed between CopyItems and PerformOperations: the sources stay encrypted with their
    // originals parked until the next load of the library (a fresh process) puts them back.
    int lost = 0, stranded = 0;
    const std::wstring dst_folder = folder(L"dst");
    for (int round = 0; round < n; ++round) {
      std::vector<std::wstring> files;
      std::vector<std::string> contents;
      const std::wstring marker = dir.file(L"marker" + std::to_wstring(round));
      std::wstring args = L"swap-and-wait \"" + marker + L"\" \"" + dst_folder + L"\"";
      for (int i = 0; i < 3; ++i) {
        contents.push_back("round " + std::to_string(round) + " file " + std::to_string(i) + std::string(70000 * i, 'k'));
        files.push_back(make(L"killed" + std::to_wstring(i) + L".doc", contents.back()));
        args += L" \"" + files.back() + L"\"";
      }
      {
        ChildProcess child(child_path(), args);
        for (int wait = 0; wait < 3000 && (content(marker) == "<missing>" || content(marker).empty()); ++wait) Sleep(20);
        ASSERT_EQ(content(marker), std::to_string(kPassedOn));
      }
      for (size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(content(files[i]).compare(0, 8, kMagic), 0) << i;
        EXPECT_EQ(parked_original_of(files[i]), contents[i]) << i;
      }
      ASSERT_EQ(run_child(child_path(), L"policy", 60000).exit_code, 0u);
      for (size_t i = 0; i < files.size(); ++i) lost += content(files[i]) != contents[i] ? 1 : 0;
      stranded += static_cast<int>(parked_records().size());
    }
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(stranded, 0);
  }
  std::printf("[ measured ] %s: %d in %llu ms\n", load.name, n, static_cast<unsigned long long>(GetTickCount64() - start));
}
INSTANTIATE_TEST_SUITE_P(Rows, Reliability, ::testing::ValuesIn(kLoads), [](const auto& info) { return std::to_string(info.index); });

// An agent gone mid-exchange on the 6.x path (after the request, after the first chunk of a
// two-chunk answer): the copy waits for an answer without limit, and the next agent on the port
// completes it by answering to the requester's port.
TEST_F(Interception, AnAgentGoneMidExchangeLeavesTheCopyWaitingForTheNext) {
  if (kFlat) GTEST_SKIP() << "the 6.x path only";
  set_policy(kScreen);
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  // The whole verdict, and one padded past one 8192-byte chunk with an ignored element.
  const std::string whole = secret_answer({narrow(a)}, "pw", 1), padded = TestAgent::frame(kResponseTag,
      "<SecretCheckResult encryptedpwd=\"pw\" action=\"1\"><SecretFile path=\"" + narrow(a) + "\"/><Pad v=\"" + std::string(9000, 'p') + "\"/></SecretCheckResult>");
  for (const size_t first_chunk : {size_t{0}, size_t{8192}}) {
    SCOPED_TRACE(first_chunk);
    std::vector<std::string> first;
    if (first_chunk > 0) first.push_back(padded.substr(0, first_chunk));
    auto agent = std::make_unique<TestAgent>(AgentScript{true, first});
    ASSERT_TRUE(agent->ok());
    AsyncCopy copy({a}, dst);
    ASSERT_TRUE(agent->wait_for_frames(1, 30000));
    const uint16_t port = agent->requester_port();
    agent.reset();
    EXPECT_FALSE(copy.done(1500)) << "nothing bounds the wait but an answer";
    agent = std::make_unique<TestAgent>();
    ASSERT_TRUE(agent->ok());
    agent->send_to_requester(first_chunk > 0 ? padded.substr(first_chunk) : whole, port);
    ASSERT_TRUE(copy.done(30000));
    EXPECT_EQ(copy.result.get(), kPassedOn);
    EXPECT_TRUE(decrypts_to(a, "pw", "alpha"));
    EXPECT_EQ(perform(), kPassedOn);
    EXPECT_EQ(content(a), "alpha");
    ASSERT_TRUE(agent->flush());
    EXPECT_EQ(agent->audits(), 1u);  // the record follows the verdict
  }
}

}  // namespace
