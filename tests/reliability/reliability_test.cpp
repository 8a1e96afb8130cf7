// Reliability through the real DLL, built twice: reliability_tests on the 6.x path (the patched
// IFileOperation methods) and reliability_xp_tests on the winxp64 flat path (SHFileOperationW
// copying through the hooked CopyFileW). The long runs are rows of one scenario runner with a
// short count (make test) and a long one (KWINDEL_STRESS=1, make stress); the agent faults are
// rows of the 6.x path.
#include "harness.h"

#include <shellapi.h>

#include <future>
#include <optional>

namespace {

using namespace kwtest;

const bool kFlat = LOBYTE(LOWORD(GetVersion())) < 6;
const DWORD kScreen = kCopyAudit | kSecretAudit | kLocal;
const AgentScript kAllSecret{true, {}, false, [](const std::string& request) { return all_secret_answer(request, "pw"); }};

// Open handles (probed: Wine 8's GetProcessHandleCount gives 0) and committed private bytes.
std::pair<long, long long> process_counts() {
  std::pair<long, long long> c{0, 0};
  for (uintptr_t value = 4; value < 0x40000; value += 4) {  // Wine hands out the lowest free values
    DWORD flags = 0;
    c.first += GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) ? 1 : 0;
  }
  MEMORY_BASIC_INFORMATION info;
  for (const char* at = nullptr; VirtualQuery(at, &info, sizeof info) == sizeof info;
       at = static_cast<const char*>(info.BaseAddress) + info.RegionSize) {
    if (info.State == MEM_COMMIT && info.Type == MEM_PRIVATE) c.second += info.RegionSize;
    if (static_cast<const char*>(info.BaseAddress) + info.RegionSize < at) break;  // wrapped
  }
  return c;
}

// A copy queued on a thread of its own (with its own apartment), for exchanges that block. A
// call still blocked at the end (a failed test) is left behind so that the program ends.
struct AsyncCopy {
  std::future<HRESULT> result;
  AsyncCopy(std::vector<std::wstring> sources, std::wstring destination)
      : result(std::async(std::launch::async, [=] {
          CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
          ComRef<IFileOperation> op;
          return new_file_operation(&op) ? queue(op.get(), false, sources, destination) : E_FAIL;
        })) {}
  bool done(DWORD ms) { return result.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready; }
  // A future of std::async waits for its task when destroyed: a blocked one is let go instead.
  ~AsyncCopy() { if (result.valid() && !done(30000)) new std::future<HRESULT>(std::move(result)); }
};

HRESULT copy_now(const std::vector<std::wstring>& sources, const std::wstring& destination) {
  ComRef<IFileOperation> op;
  return new_file_operation(&op) ? queue(op.get(), false, sources, destination) : E_FAIL;
}

HRESULT perform() {
  ComRef<IFileOperation> op;
  return new_file_operation(&op) ? op->PerformOperations() : E_FAIL;
}

class Reliability : public Interception {
 protected:
  // One copy of thread t's secret source: on 6.x queued (swapping the source) and performed
  // (restoring it); before 6 a shell copy whose target must be the encrypted form. `between`
  // runs while the copy is queued. Returns "" or what went wrong.
  std::string copy_once(int t, IFileOperation* op, std::string* reference, const std::function<std::string()>& between) {
    const std::wstring target = dst + L"\\t" + std::to_wstring(t) + L".doc";
    if (kFlat) {
      const int result = shell_operation(FO_COPY, {sources[t]}, dst);
      const std::string copied = content(target);
      DeleteFileW(target.c_str());
      if (result != 0) return "SHFileOperationW returned " + std::to_string(result);
      if (reference->empty() && decrypts_to(target, "pw", originals[t])) *reference = copied;
      if (copied != *reference || copied.compare(0, 8, kMagic) != 0) return "the copy is not the encrypted form";
    } else {
      if (queue(op, false, {sources[t]}, dst) != kPassedOn) return "CopyItems not passed on";
      const std::string during = content(sources[t]);
      if (reference->empty() && decrypts_to(sources[t], "pw", originals[t])) *reference = during;
      if (during != *reference || during.compare(0, 8, kMagic) != 0) return "the swapped source is not the encrypted form";
      const std::string failure = between ? between() : "";
      if (!failure.empty()) return failure;
      if (op->PerformOperations() != kPassedOn) return "PerformOperations not passed on";
    }
    if (file_exists(sources[t] + L".tmp") || file_exists(target + L".tmp")) return "a .tmp file stayed";
    return content(sources[t]) == originals[t] ? "" : "the source is not the original";
  }
  void make_sources(int threads) {
    dst = folder(L"dst");
    for (int t = 0; t < threads; ++t) {  // one name in several folders: each parks under its own path
      originals.push_back("thread " + std::to_string(t) + " secret " + std::string(100 + 37 * t, static_cast<char>('a' + t)));
      folder(L"t" + std::to_wstring(t));
      sources.push_back(make(L"t" + std::to_wstring(t) + L"\\t" + std::to_wstring(t) + L".doc", originals.back()));
    }
  }
  std::wstring dst;
  std::vector<std::wstring> sources;
  std::vector<std::string> originals;
};

enum Kind { kThreads, kLeak, kMidcall, kKilledBeforePerform };
struct Load { const char* name; Kind kind; bool com_only; int short_count, long_count; };
const Load kLoads[] = {
    {"eight threads copy secret files", kThreads, false, 21, 501},
    {"handles and private bytes stay steady", kLeak, false, 500, 10000},
    {"the last reference goes mid-copy", kMidcall, false, 1, 25},
    {"a process killed before PerformOperations is recovered", kKilledBeforePerform, true, 1, 20},
};

class Loads : public Reliability, public ::testing::WithParamInterface<Load> {};

TEST_P(Loads, Run) {
  const Load& load = GetParam();
  if (load.com_only && kFlat) GTEST_SKIP() << "the 6.x path only";
  const int n = iterations(load.short_count, load.long_count);
  set_policy(kScreen);
  std::optional<TestAgent> agent;  // the midcall rows bring their own
  if (load.kind != kMidcall) agent.emplace(kAllSecret);
  ASSERT_TRUE(load.kind == kMidcall || agent->ok());
  const ULONGLONG start = GetTickCount64();
  if (load.kind == kThreads) {
    // Every thread copies its own source n times. The first third runs in lock-step: while all
    // sources are swapped each holds its encrypted form and the parked file is the original.
    constexpr int kThreads = 8;
    make_sources(kThreads);
    std::vector<std::string> failures(kThreads);
    std::atomic<int> waiting{0};
    auto barrier = [&](int round) {  // all threads reach `round`
      ++waiting;
      while (waiting < kThreads * round) Sleep(1);
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        ComRef<IFileOperation> op;
        std::string reference;
        for (int i = 0; i < n && failures[t].empty() && (kFlat || new_file_operation(&op)); ++i) {
          const bool lockstep = i < n / 3;
          failures[t] = copy_once(t, op.get(), &reference, [&]() -> std::string {
            if (lockstep) barrier(2 * i + 1);
            const std::string parked = parked_original_of(sources[t]);
            if (lockstep) barrier(2 * i + 2);
            return !lockstep || parked == originals[t] ? "" : "the parked file is not the original";
          });
          if (!failures[t].empty()) failures[t] += " (thread " + std::to_string(t) + ", copy " + std::to_string(i) + ")";
          if (!failures[t].empty() && lockstep) waiting += kThreads * n;  // releases the others
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
    for (int i = 0; i < 200; ++i) ASSERT_EQ(copy_once(0, op.get(), &reference, nullptr), "") << "warm-up " << i;
    const auto before = process_counts();
    for (int i = 0; i < n; ++i) ASSERT_EQ(copy_once(0, op.get(), &reference, nullptr), "") << i;
    const auto after = process_counts();
    std::printf("[ measured ] handles %ld -> %ld, private bytes %lld -> %lld\n", before.first, after.first, before.second, after.second);
    EXPECT_LE(after.first - before.first, 4);
    EXPECT_LE(after.second - before.second, 256 * 1024 + 8LL * n);  // a leak of anything per operation fails
    ASSERT_TRUE(agent->flush());
    EXPECT_EQ(agent->requests(), static_cast<size_t>(200 + n));
  } else if (load.kind == kMidcall) {
    // The worker's copy waits in the agent exchange while the DLL's last reference goes (through
    // the child's FreeLibrary, or the global hook's removal); the late answer decides the copy.
    struct Row { const wchar_t* how; int action; const char* password; const char* report_com; const char* report_flat; bool encrypted; };
    const Row rows[] = {
        {L"free", 1, "pw", "copy=80004001 perform=80004001", "copy=00000000", true},
        {L"free", 0, "", "copy=80004001 perform=ffffffff", "copy=ffffffff", false},
        {L"hook", 1, "pw", "copy=80004001 perform=80004001", "copy=00000000", true},
        {L"hook", 1, "", "copy=80004001 perform=80004001", "copy=00000000", false},
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
        if (by_hook) ASSERT_EQ(install_hook_proc(TRUE), 1);
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
        EXPECT_EQ(r.output, std::string(kFlat ? row.report_flat : row.report_com) + " loaded=1 patched=" + (kFlat ? "4" : "3") +
                                " failed calls=0\n");
        if (kFlat && row.encrypted) EXPECT_TRUE(decrypts_to(target, "pw", originals[0]));
        else EXPECT_EQ(content(target), kFlat && row.action != 0 ? originals[0] : "<missing>");
        EXPECT_EQ(content(sources[0]), originals[0]);
      }
    }
  } else {
    // Killed between CopyItems and PerformOperations: the sources stay encrypted with their
    // originals parked until the next load of the library (here a fresh process) puts them back.
    int lost = 0, stranded = 0;
    for (int round = 0; round < n; ++round) {
      std::vector<std::wstring> files;
      std::vector<std::string> contents;
      const std::wstring marker = dir.file(L"marker" + std::to_wstring(round)), dst_folder = folder(L"dst");
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
      const ChildResult load = run_child(child_path(), L"policy", 60000);
      ASSERT_EQ(load.exit_code, 0u) << load.output;
      for (size_t i = 0; i < files.size(); ++i) lost += content(files[i]) != contents[i] ? 1 : 0;
      stranded += static_cast<int>(parked_records().size());
    }
    EXPECT_EQ(lost, 0);
    EXPECT_EQ(stranded, 0);
  }
  std::printf("[ measured ] %s: %d in %llu ms\n", load.name, n, static_cast<unsigned long long>(GetTickCount64() - start));
}
INSTANTIATE_TEST_SUITE_P(Rows, Loads, ::testing::ValuesIn(kLoads), [](const auto& info) { return std::to_string(info.index); });

// The agent misbehaving on the 6.x path: silent, gone mid-exchange, short of acknowledgements,
// hostile. A copy waits for an answer without limit; any malformed answer refuses the copy.
TEST_F(Reliability, AgentFaults) {
  if (kFlat) GTEST_SKIP() << "the 6.x path only";
  set_policy(kScreen);
  const std::wstring a = make(L"a.txt", "alpha"), dst_folder = folder(L"dst");
  const std::string doc = "<SecretCheckResult encryptedpwd=\"pw\" action=\"1\"><SecretFile path=\"" + narrow(a) + "\"/>";
  const std::string whole = TestAgent::frame(kResponseTag, doc + "</SecretCheckResult>");
  // The same verdict padded past one 8192-byte chunk with an ignored element.
  const std::string padded = TestAgent::frame(kResponseTag, doc + "<Pad v=\"" + std::string(9000, 'p') + "\"/></SecretCheckResult>");
  struct Gone { const char* name; bool gone; std::string first, rest; };
  for (const Gone& g : {Gone{"an agent that answers late", false, "", whole}, Gone{"an agent gone after the request", true, "", whole},
                        Gone{"an agent gone after the first chunk", true, padded.substr(0, 8192), padded.substr(8192)}}) {
    SCOPED_TRACE(g.name);
    auto agent = std::make_unique<TestAgent>(AgentScript{true, {g.first}, false});
    if (g.first.empty()) agent = std::make_unique<TestAgent>();  // silent
    ASSERT_TRUE(agent->ok());
    AsyncCopy copy({a}, dst_folder);
    ASSERT_TRUE(agent->wait_for_frames(1, 30000));
    const uint16_t port = agent->requester_port();
    if (g.gone) agent.reset();
    EXPECT_FALSE(copy.done(1500)) << "nothing bounds the wait but an answer";
    if (g.gone) agent = std::make_unique<TestAgent>();  // the next agent on the port
    ASSERT_TRUE(agent->ok());
    agent->send_to_requester(g.rest, port);
    ASSERT_TRUE(copy.done(30000));
    EXPECT_EQ(copy.result.get(), kPassedOn);
    EXPECT_TRUE(decrypts_to(a, "pw", "alpha"));
    EXPECT_EQ(perform(), kPassedOn);
    EXPECT_EQ(content(a), "alpha");
    ASSERT_TRUE(agent->flush());
    EXPECT_EQ(agent->audits(), 1u);  // the record follows the verdict
  }
  // An agent acknowledging only the first chunk of a three-chunk record (90 names of 200
  // characters): the copy goes on after the second acknowledgement's 1000 ms, the record is lost.
  set_policy(kCopyAudit);
  std::vector<std::wstring> many;
  for (int i = 0; i < 90; ++i) many.push_back(make(std::to_wstring(100 + i) + std::wstring(197, L'n'), "x"));
  {
    TestAgent agent(AgentScript{true, {}, false, nullptr, 1});
    ASSERT_TRUE(agent.ok());
    ComRef<IFileOperation> op;
    ASSERT_TRUE(new_file_operation(&op));
    const ULONGLONG start = GetTickCount64();
    EXPECT_EQ(queue(op.get(), false, many, dst_folder), kPassedOn);
    EXPECT_GE(GetTickCount64() - start, 900u);
    EXPECT_EQ(queue(op.get(), false, {many[0]}, dst_folder), kPassedOn);  // a short record arrives whole
    ASSERT_TRUE(agent.flush());
    EXPECT_EQ(agent.datagrams().size(), 3u) << "the third chunk must never be sent";
    EXPECT_EQ(agent.acks_sent(), 1u);
    EXPECT_EQ(agent.audits(), 1u);
  }
  // Hostile answers refuse the copy and leave the process working.
  set_policy(kScreen);
  std::string garbage, unterminated_tag = whole;
  for (int i = 0; i < 300; ++i) garbage += static_cast<char>((i * 167 + 13) & 0xFF);
  unterminated_tag[31] = 'X';  // the tag's NUL replaced: a longer tag
  const std::string hostile[] = {
      garbage, whole.substr(0, 20), whole.substr(0, 35),
      TestAgent::frame_with_length(kResponseTag, 16 * 1024 * 1024 + 1, doc), TestAgent::frame_with_length(kResponseTag, INT32_MAX, doc),
      TestAgent::frame_with_length(kResponseTag, -5, doc), TestAgent::frame_with_length(kResponseTag, INT32_MIN, doc),
      TestAgent::frame_with_length(kResponseTag, 0, doc), TestAgent::frame(kRequestTag, doc), unterminated_tag,
      TestAgent::frame(kResponseTag, doc),  // a document that does not parse
  };
  for (const std::string& reply : hostile) {
    TestAgent agent(AgentScript{true, {reply}, false});
    ASSERT_TRUE(agent.ok());
    EXPECT_EQ(copy_now({a}, dst_folder), kRefused) << to_hex(reply.substr(0, 40));
    ASSERT_TRUE(agent.flush());
    EXPECT_EQ(agent.requests(), 1u);
    EXPECT_EQ(agent.audits(), 0u);
    EXPECT_EQ(content(a), "alpha");
  }
  // Still working: a well-formed answer is honoured even from another local port.
  TestAgent agent(AgentScript{true, {whole}, true});
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(copy_now({a}, dst_folder), kPassedOn);
  EXPECT_EQ(parked_original_of(a), "alpha");
  EXPECT_EQ(perform(), kPassedOn);
  EXPECT_EQ(content(a), "alpha");
}

}  // namespace
