// Reliability of the current path (Windows 6.x prefix): the real DLL patched this process's
// IFileOperation methods; faults are injected through a real agent socket, the file system and
// the environment; eight threads copy at once; handle and memory counts over many operations;
// the DLL loaded and unloaded in many fresh processes. Wine's own CopyItems and
// PerformOperations return E_NOTIMPL, which tells a call passed on from one refused with
// 0xFFFFFFFF. KWINDEL_STRESS=1 (make stress) makes the long runs long.
#include <gtest/gtest.h>

#include "interception_fixture.h"
#include "midcall_unload.h"
#include "process_counts.h"
#include "responder.h"
#include "shell_items.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace {

using namespace kwtest;

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);
constexpr HRESULT kPassedOn = E_NOTIMPL;
constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL;
constexpr char kResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";
const std::string kMagic("\x01\x02\x03\x04\x10\x20\x30\x40", 8);

// The parked original of `source`, "<none>" when none is recorded.
std::string parked_original_of(const std::wstring& source) {
  for (const ParkedRecord& p : parked_records()) {
    if (p.source == utf8(source)) return content(p.original);
  }
  return "<none>";
}

// One queued copy through a fresh IFileOperation of the calling thread.
HRESULT copy_items(const std::vector<std::wstring>& sources, const std::wstring& destination) {
  Com<IFileOperation> op;
  Com<IDataObject> items;
  Com<IShellItem> target;
  if (!new_file_operation(&op) || !data_object_for(sources, &items) || !shell_item_for(destination, &target)) {
    return E_FAIL;
  }
  return op->CopyItems(items.get(), target.get());
}

HRESULT perform_operations() {
  Com<IFileOperation> op;
  if (!new_file_operation(&op)) return E_FAIL;
  return op->PerformOperations();
}

// A queued copy made on a thread of its own (with its own apartment), for exchanges that block.
// A call still blocked at the end of the scope (a failed test) is left behind rather than joined,
// so that the program ends instead of hanging; its state outlives the object.
class AsyncCopy {
 public:
  AsyncCopy(std::vector<std::wstring> sources, std::wstring destination) : state_(std::make_shared<State>()) {
    std::shared_ptr<State> state = state_;
    thread_ = std::thread([state, sources, destination] {
      CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
      state->result = copy_items(sources, destination);
      CoUninitialize();
      state->done = true;
    });
  }
  ~AsyncCopy() {
    if (wait(30000)) thread_.join();
    else thread_.detach();
  }
  // Waits up to timeout_ms for the call to return.
  bool wait(DWORD timeout_ms) const {
    const ULONGLONG end = GetTickCount64() + timeout_ms;
    while (!state_->done && GetTickCount64() < end) Sleep(10);
    return state_->done;
  }
  HRESULT result() const { return state_->result; }

 private:
  struct State {
    std::atomic<bool> done{false};
    std::atomic<HRESULT> result{E_FAIL};
  };
  std::shared_ptr<State> state_;
  std::thread thread_;
};

class Reliability : public InterceptionTest {};

// ---------------------------------------------------------------------------------------------
// Fault injection

TEST_F(Reliability, ASilentAgentKeepsTheCopyWaitingUntilItAnswers) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  TestAgent agent;  // records, acknowledges, never answers by itself
  ASSERT_TRUE(agent.ok());
  AsyncCopy copy({a}, dst);
  ASSERT_TRUE(agent.wait_for_frames(1, 30000));
  EXPECT_FALSE(copy.wait(2000)) << "the request must wait for the answer without limit";
  ASSERT_TRUE(agent.send_to_requester(secret_answer({}, "", 1)));  // names no file: not secret
  ASSERT_TRUE(copy.wait(30000));
  EXPECT_EQ(copy.result(), kPassedOn);
  ASSERT_TRUE(agent.wait_for_frames(2, 10000));
  EXPECT_EQ(documents_with_tag(agent, kAuditTag).size(), 1u);
  EXPECT_EQ(content(a), "alpha");
}

TEST_F(Reliability, AnAgentAcknowledgingOnlyTheFirstChunkCostsTheRecordNotTheCopy) {
  dll().set_policy(kCopyAudit);
  // 90 sources of 200-character names: a record of about 24 KB, three chunks.
  std::vector<std::wstring> sources;
  for (int i = 0; i < 90; ++i) sources.push_back(make(std::to_wstring(100 + i) + std::wstring(197, L'n'), "x"));
  const std::wstring dst = folder(L"dst");
  Responder agent(nullptr, /*ack_limit=*/1);
  ASSERT_TRUE(agent.ok());
  const ULONGLONG start = GetTickCount64();
  EXPECT_EQ(copy_items(sources, dst), kPassedOn);
  const ULONGLONG elapsed = GetTickCount64() - start;
  EXPECT_GE(elapsed, 900u) << "the second chunk's acknowledgement is awaited for 1000 ms";
  Sleep(300);
  EXPECT_EQ(agent.datagrams(), 2u) << "the third chunk must never be sent";
  EXPECT_EQ(agent.acks_sent(), 1u);
  EXPECT_EQ(agent.audits(), 0u);
  EXPECT_EQ(copy_items({sources[0]}, dst), kPassedOn);  // a short record afterwards arrives whole
  Sleep(300);
  EXPECT_EQ(agent.audits(), 1u);
}

TEST_F(Reliability, HostileResponsesRefuseTheCopyAndLeaveTheProcessWorking) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  const std::string doc = "<SecretCheckResult encryptedpwd=\"pw\" action=\"1\"><SecretFile path=\"" + utf8(a) +
                          "\"/></SecretCheckResult>";
  const std::string good = TestAgent::frame(kResponseTag, doc);
  std::string garbage;
  for (int i = 0; i < 300; ++i) garbage += static_cast<char>((i * 167 + 13) & 0xFF);
  std::string unterminated_tag = good;
  unterminated_tag[31] = 'X';  // the tag's NUL replaced: a longer tag
  struct Case { const char* name; std::string reply; };
  const Case cases[] = {
      {"garbage", garbage},
      {"shorter than the tag", good.substr(0, 20)},
      {"tag but no whole length field", good.substr(0, 35)},
      {"length above 16 MiB", TestAgent::frame_with_length(kResponseTag, 16 * 1024 * 1024 + 1, doc)},
      {"length INT32_MAX", TestAgent::frame_with_length(kResponseTag, INT32_MAX, doc)},
      {"negative length", TestAgent::frame_with_length(kResponseTag, -5, doc)},
      {"length INT32_MIN", TestAgent::frame_with_length(kResponseTag, INT32_MIN, doc)},
      {"length 0", TestAgent::frame_with_length(kResponseTag, 0, doc)},
      {"the request's tag", TestAgent::frame(kRequestTag, doc)},
      {"tag without its NUL", unterminated_tag},
      {"a document that does not parse", TestAgent::frame(kResponseTag, doc.substr(0, doc.size() - 5))},
  };
  for (const Case& c : cases) {
    TestAgent agent(AgentScript{true, {c.reply}, false});
    ASSERT_TRUE(agent.ok());
    EXPECT_EQ(copy_items({a}, dst), kRefused) << c.name;
    Sleep(100);
    EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), 1u) << c.name;
    EXPECT_TRUE(documents_with_tag(agent, kAuditTag).empty()) << c.name;
    EXPECT_EQ(content(a), "alpha") << c.name;
  }
  // Still working: the well-formed answer is honoured (the source is swapped, then restored), even
  // from another local port: the sender of the answer is not compared with the agent's address.
  TestAgent agent(AgentScript{true, {good}, /*reply_from_other_port=*/true});
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(copy_items({a}, dst), kPassedOn);
  EXPECT_TRUE(decrypts_to(a, "pw", "alpha"));
  EXPECT_EQ(parked_original_of(a), "alpha");
  EXPECT_EQ(perform_operations(), kPassedOn);
  EXPECT_EQ(content(a), "alpha");
}

// A process that can be killed: the agent of the kill tests.
class Killable {
 public:
  explicit Killable(const std::wstring& args) {
    std::wstring line = L"\"" + exe_dir() + L"reliability-child.exe\" " + args;
    STARTUPINFOW si = {sizeof si};
    if (CreateProcessW(nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &info_)) {
      CloseHandle(info_.hThread);
    } else {
      info_.hProcess = nullptr;
    }
  }
  ~Killable() {
    if (info_.hProcess != nullptr) {
      kill();
      CloseHandle(info_.hProcess);
    }
  }
  bool started() const { return info_.hProcess != nullptr; }
  bool kill() {
    TerminateProcess(info_.hProcess, 9);
    return WaitForSingleObject(info_.hProcess, 30000) == WAIT_OBJECT_0;
  }
 private:
  PROCESS_INFORMATION info_ = {};
};

bool wait_for_file(const std::wstring& path, DWORD timeout_ms) {
  const ULONGLONG end = GetTickCount64() + timeout_ms;
  while (!file_exists(path)) {
    if (GetTickCount64() >= end) return false;
    Sleep(20);
  }
  return true;
}

// A socket on the agent port again, once the killed agent's port is free.
SOCKET rebind_agent_port() {
  for (int attempt = 0; attempt < 100; ++attempt) {
    SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(7886);
    address.sin_addr.s_addr = inet_addr("127.0.0.1");
    if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      DWORD timeout = 10000;
      setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeout), sizeof timeout);
      return s;
    }
    closesocket(s);
    Sleep(50);
  }
  return INVALID_SOCKET;
}

TEST_F(Reliability, AnAgentKilledMidExchangeLeavesTheCopyWaitingForTheNextAgent) {
  // Under Wine a killed peer produces no reset, so the receive without time-out keeps waiting;
  // the next agent on the port releases it by answering to the requester's port.
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring a = make(L"killed.txt", "alpha"), dst = folder(L"dst");
  const std::string whole = secret_answer({utf8(a)}, "pw", 1);
  // A two-chunk answer: the same verdict padded with an ignored element past 8192 bytes.
  const std::string padded_doc = "<SecretCheckResult encryptedpwd=\"pw\" action=\"1\"><SecretFile path=\"" + utf8(a) +
                                 "\"/><Pad v=\"" + std::string(9000, 'p') + "\"/></SecretCheckResult>";
  const std::string padded = TestAgent::frame(kResponseTag, padded_doc);
  struct Case { const char* name; std::string first, rest; };
  const Case cases[] = {{"killed after the request", "", whole},
                        {"killed after the first chunk of the answer", padded.substr(0, 8192), padded.substr(8192)}};
  int round = 0;
  for (const Case& c : cases) {
    const std::wstring port_file = dir.file(L"port" + std::to_wstring(round++));
    Killable child(L"agent-die \"" + port_file + L"\"" + (c.first.empty() ? L"" : L" " + widen(to_hex(c.first))));
    ASSERT_TRUE(child.started());
    ASSERT_TRUE(wait_for_file(port_file + L".bound", 30000)) << c.name;
    AsyncCopy copy({a}, dst);
    ASSERT_TRUE(wait_for_file(port_file, 30000)) << c.name;
    const int port = std::stoi(content(port_file));
    ASSERT_TRUE(child.kill()) << c.name;
    EXPECT_FALSE(copy.wait(1500)) << c.name << ": nothing bounds the wait but an answer";
    SOCKET next = rebind_agent_port();
    ASSERT_NE(next, INVALID_SOCKET);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<u_short>(port));
    to.sin_addr.s_addr = inet_addr("127.0.0.1");
    sendto(next, c.rest.data(), static_cast<int>(c.rest.size()), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    EXPECT_TRUE(copy.wait(30000)) << c.name;
    EXPECT_EQ(copy.result(), kPassedOn) << c.name;
    char buffer[8192] = {};
    const int n = recv(next, buffer, sizeof buffer, 0);  // the record follows the verdict
    closesocket(next);
    EXPECT_GT(n, 36) << c.name;
    EXPECT_STREQ(buffer, kAuditTag) << c.name;
    EXPECT_TRUE(decrypts_to(a, "pw", "alpha")) << c.name;
    EXPECT_EQ(perform_operations(), kPassedOn);
    EXPECT_EQ(content(a), "alpha") << c.name;
  }
}

// A process killed between CopyItems and PerformOperations leaves its sources encrypted and
// their originals parked; the next load of the library (here a fresh process) puts back every
// byte. make stress repeats it.
TEST_F(Reliability, AProcessKilledBeforePerformOperationsIsRecoveredAtTheNextLoad) {
  dll().set_policy(kSecretAudit | kLocal);
  const std::wstring dst = folder(L"dst");
  Responder agent([](const std::string& request) { return all_secret_answer(request, "pw"); });
  ASSERT_TRUE(agent.ok());
  const int rounds = iterations(1, 20);
  int lost = 0, stranded = 0;
  for (int round = 0; round < rounds; ++round) {
    std::vector<std::wstring> sources;
    std::vector<std::string> originals;
    std::wstring args = L"swap-and-wait \"" + dir.file(L"marker" + std::to_wstring(round)) + L"\" \"" + dst + L"\"";
    for (int i = 0; i < 3; ++i) {
      originals.push_back("round " + std::to_string(round) + " file " + std::to_string(i) + std::string(70000 * i, 'k'));
      sources.push_back(make(L"killed" + std::to_wstring(i) + L".doc", originals.back()));
      args += L" \"" + sources.back() + L"\"";
    }
    {
      Killable child(args);
      ASSERT_TRUE(child.started());
      ASSERT_TRUE(wait_for_file(dir.file(L"marker" + std::to_wstring(round)), 60000));
      ASSERT_TRUE(child.kill());
    }
    for (size_t i = 0; i < sources.size(); ++i) {
      EXPECT_EQ(content(sources[i]).compare(0, 8, kMagic), 0) << i;
      EXPECT_TRUE(parked_original_of(sources[i]) == originals[i]) << i;
    }
    const ChildResult load = run_child(child_path(), L"policy", 60000);  // a fresh load recovers
    ASSERT_TRUE(load.finished && load.exit_code == 0) << load.output;
    for (size_t i = 0; i < sources.size(); ++i) lost += content(sources[i]) != originals[i] ? 1 : 0;
    stranded += static_cast<int>(parked_records().size());
  }
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(stranded, 0);
  std::printf("[ measured ] %d processes killed between CopyItems and PerformOperations: originals lost %d, stranded %d\n",
              rounds, lost, stranded);
}

// ---------------------------------------------------------------------------------------------
// Concurrency

class Barrier {
 public:
  explicit Barrier(int count) : count_(count) {}
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    const int generation = generation_;
    if (++waiting_ == count_) {
      waiting_ = 0;
      ++generation_;
      changed_.notify_all();
      return;
    }
    changed_.wait(lock, [&] { return generation != generation_; });
  }
 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_, waiting_ = 0, generation_ = 0;
};

// Three phases, each of n/3 copies per thread. 1: in lock-step, so that every swapped source can
// be read while no thread performs: it holds its encrypted form exactly once (the same bytes each
// time, decrypted once by kwdecrypt) and the parked file is the original; after the performs it
// is the original again. 2: free-running without the audit record: every source comes back.
// 3: free-running with the audit record, whose folder test looks at every source while other
// threads' PerformOperations restore theirs: every source still comes back (a source found
// missing with its original parked is put back, counted, and fails the test).
TEST_F(Reliability, EightThreadsQueueAndPerformCopiesOfSecretFiles) {
  constexpr int kThreads = 8;
  const int n = iterations(21, 501);
  const int phase = n / 3;
  constexpr DWORD kWithRecord = kCopyAudit | kSecretAudit | kLocal, kWithoutRecord = kSecretAudit | kLocal;
  dll().set_policy(kWithRecord);
  const std::wstring dst = folder(L"dst");
  std::vector<std::wstring> sources;
  std::vector<std::string> originals;
  for (int t = 0; t < kThreads; ++t) {
    // One name in eight folders: each swap parks under a path of its own.
    folder(L"t" + std::to_wstring(t));
    originals.push_back("thread " + std::to_string(t) + " secret " + std::string(100 + 37 * t, static_cast<char>('a' + t)));
    sources.push_back(make(L"t" + std::to_wstring(t) + L"\\concurrent.doc", originals.back()));
  }
  Responder agent([](const std::string& request) { return all_secret_answer(request, "pw"); });
  ASSERT_TRUE(agent.ok());
  Barrier barrier(kThreads);
  std::vector<std::string> failures(kThreads);
  std::atomic<int> stranded{0};
  const ULONGLONG start = GetTickCount64();
  auto worker = [&](int t) {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    std::string& failure = failures[t];
    auto fail = [&](const std::string& what, int i) {
      if (failure.empty()) failure = "thread " + std::to_string(t) + " copy " + std::to_string(i) + ": " + what;
    };
    Com<IFileOperation> op;
    if (!new_file_operation(&op)) fail("no IFileOperation", -1);
    std::string reference;  // the encrypted form
    for (int i = 0; i < 3 * phase && op.get() != nullptr; ++i) {
      if (i == phase || i == 2 * phase) {  // the policy is process-wide: change it between phases
        barrier.wait();
        if (t == 0) dll().set_policy(i == phase ? kWithoutRecord : kWithRecord);
        barrier.wait();
      }
      if (i >= 2 * phase && !file_exists(sources[t])) {
        fail("source missing", i);
        ++stranded;
      }
      Com<IDataObject> items;
      Com<IShellItem> target;
      if (!data_object_for({sources[t]}, &items) || !shell_item_for(dst, &target)) {
        fail("no shell items (source missing?)", i);
        break;
      }
      const HRESULT copied = op->CopyItems(items.get(), target.get());
      if (copied != kPassedOn) fail("CopyItems returned " + std::to_string(copied), i);
      const bool lockstep = i < phase;
      if (lockstep) {
        barrier.wait();  // every thread has swapped; none performs until the next barrier
        const std::string during = content(sources[t]);
        if (reference.empty()) {
          reference = during;
          if (during.compare(0, 8, kMagic) != 0 || !decrypts_to(sources[t], "pw", originals[t])) fail("not encrypted once", i);
        } else if (during != reference) {
          fail("the swapped source is not the encrypted form", i);
        }
        if (parked_original_of(sources[t]) != originals[t]) fail("the parked file is not the original", i);
        barrier.wait();
      }
      const HRESULT performed = op->PerformOperations();
      if (performed != kPassedOn) fail("PerformOperations returned " + std::to_string(performed), i);
      if (lockstep) {
        barrier.wait();
        if (content(sources[t]) != originals[t]) fail("source not restored", i);
        if (parked_original_of(sources[t]) != "<none>") fail("parked file left", i);
      } else if (i < 2 * phase && content(sources[t]) != originals[t]) {
        fail("source not restored", i);
      }
    }
    op.reset();
    CoUninitialize();
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
  for (std::thread& thread : threads) thread.join();
  const ULONGLONG elapsed = GetTickCount64() - start;
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
  int lost = 0;
  for (int t = 0; t < kThreads; ++t) {
    lost += content(sources[t]) != originals[t] ? 1 : 0;
    EXPECT_EQ(content(sources[t]), originals[t]) << t;
    EXPECT_FALSE(file_exists(sources[t] + L".tmp")) << t;
  }
  stranded += static_cast<int>(parked_records().size());
  const size_t copies = static_cast<size_t>(kThreads) * 3 * phase, recorded = static_cast<size_t>(kThreads) * 2 * phase;
  EXPECT_EQ(agent.requests(), copies);
  for (int wait = 0; wait < 100 && agent.audits() < recorded; ++wait) Sleep(50);
  EXPECT_EQ(agent.audits(), recorded);
  // The swapped-source table is empty: a further restore touches nothing.
  ASSERT_TRUE(write_file(sources[0], "rewritten"));
  EXPECT_EQ(perform_operations(), kPassedOn);
  EXPECT_EQ(content(sources[0]), "rewritten");
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(stranded.load(), 0) << "sources missing or originals left parked";
  std::printf("[ measured ] %d threads x %d queued copies + performs in %llu ms; originals lost %d, stranded %d\n",
              kThreads, 3 * phase, static_cast<unsigned long long>(elapsed), lost, stranded.load());
}

// ---------------------------------------------------------------------------------------------
// Leaks

TEST_F(Reliability, HandlesAndPrivateBytesStaySteadyOverInterceptedOperations) {
  const int m = iterations(500, 10000);
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring s = make(L"leak.doc", "leak check content"), plain = make(L"plain.txt", "p");
  const std::wstring dst = folder(L"dst");
  Responder agent([](const std::string& request) { return all_secret_answer(request, "pw"); });
  ASSERT_TRUE(agent.ok());
  Com<IFileOperation> op;
  ASSERT_TRUE(new_file_operation(&op));
  Com<IShellItem> target;
  ASSERT_TRUE(shell_item_for(dst, &target));
  // One operation: a screened copy that swaps the secret source, then the restore.
  auto operation = [&] {
    Com<IDataObject> items;
    if (!data_object_for({s, plain}, &items)) return false;
    return op->CopyItems(items.get(), target.get()) == kPassedOn && op->PerformOperations() == kPassedOn;
  };
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(operation()) << "warm-up " << i;
  const ProcessCounts before = process_counts();
  const ULONGLONG start = GetTickCount64();
  for (int i = 0; i < m; ++i) ASSERT_TRUE(operation()) << i;
  const ULONGLONG elapsed = GetTickCount64() - start;
  const ProcessCounts after = process_counts();
  EXPECT_EQ(content(s), "leak check content");
  EXPECT_EQ(agent.requests(), static_cast<size_t>(200 + m));
  report_and_check(before, after, m, elapsed);
}

// ---------------------------------------------------------------------------------------------
// The DLL's last reference goes while a copy waits inside it

TEST_F(Reliability, TheLastReferenceGoingMidCopyLeavesTheCopyItsResultAndTheDllInPlace) {
  const MidCallUnload rows[] = {
      {L"free", 1, "pw", "copy=80004001 perform=80004001 loaded=1 patched=3 failed calls=0\n", ""},
      {L"free", 0, "", "copy=80004001 perform=ffffffff loaded=1 patched=3 failed calls=0\n", ""},
      {L"hook", 1, "pw", "copy=80004001 perform=80004001 loaded=1 patched=3 failed calls=0\n", ""},
      {L"hook", 1, "", "copy=80004001 perform=80004001 loaded=1 patched=3 failed calls=0\n", ""},
  };
  run_midcall_unload_table(dll(), dir, rows);
}

}  // namespace
