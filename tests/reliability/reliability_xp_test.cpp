// Reliability of the pre-6 path (winxp64 prefix): SHFileOperationW screened by the real DLL and
// Wine's own SHFileOperationW copying through the hooked CopyFileW, from eight threads at once;
// handle and memory counts over many operations; a destination held open; the DLL loaded and
// unloaded in many fresh processes. KWINDEL_STRESS=1 (make stress) makes the long runs long.
#include <gtest/gtest.h>

#include "interception_fixture.h"
#include "midcall_unload.h"
#include "process_counts.h"
#include "responder.h"

#include <objbase.h>
#include <shellapi.h>

#include <thread>

namespace {

using namespace kwtest;

constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL;
const std::string kMagic("\x01\x02\x03\x04\x10\x20\x30\x40", 8);

class ReliabilityXp : public PreSixInterceptionTest {};

TEST_F(ReliabilityXp, EightThreadsShellCopySecretFilesEachCopyEncryptedExactlyOnce) {
  constexpr int kThreads = 8;
  const int n = iterations(20, 500);
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  std::vector<std::wstring> sources, targets;
  std::vector<std::string> originals;
  for (int t = 0; t < kThreads; ++t) {
    originals.push_back("thread " + std::to_string(t) + " secret " + std::string(50 + 41 * t, static_cast<char>('A' + t)));
    const std::wstring name = L"secret-" + std::to_wstring(t) + L".doc";
    sources.push_back(make(name, originals.back()));
    targets.push_back(folder(L"dst" + std::to_wstring(t)) + L"\\" + name);
  }
  Responder agent([](const std::string& request) { return all_secret_answer(request, "pw"); });
  ASSERT_TRUE(agent.ok());
  std::vector<std::string> failures(kThreads);
  const ULONGLONG start = GetTickCount64();
  auto worker = [&](int t) {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    std::string reference;  // the encrypted form, checked once with kwdecrypt
    for (int i = 0; i < n && failures[t].empty(); ++i) {
      const std::wstring folder_path = targets[t].substr(0, targets[t].rfind(L'\\'));
      const int result = shell_operation(FO_COPY, {sources[t]}, folder_path);
      const std::string copied = content(targets[t]);
      std::string failure;
      if (result != 0) failure = "SHFileOperationW returned " + std::to_string(result);
      else if (reference.empty() && (copied.compare(0, 8, kMagic) != 0 || !decrypts_to(targets[t], "pw", originals[t])))
        failure = "the first copy is not the encrypted form";
      else if (!reference.empty() && copied != reference) failure = "the copy differs from the encrypted form";
      else if (file_exists(targets[t] + L".tmp")) failure = "a .tmp file stayed";
      else if (content(sources[t]) != originals[t]) failure = "the source changed";
      if (reference.empty()) reference = copied;
      DeleteFileW(targets[t].c_str());
      if (!failure.empty()) failures[t] = "thread " + std::to_string(t) + " copy " + std::to_string(i) + ": " + failure;
    }
    CoUninitialize();
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t);
  for (std::thread& thread : threads) thread.join();
  const ULONGLONG elapsed = GetTickCount64() - start;
  for (const std::string& failure : failures) EXPECT_EQ(failure, "");
  EXPECT_EQ(agent.requests(), static_cast<size_t>(kThreads * n));
  for (int wait = 0; wait < 100 && agent.audits() < static_cast<size_t>(kThreads * n); ++wait) Sleep(50);
  EXPECT_EQ(agent.audits(), static_cast<size_t>(kThreads * n));
  // Every registration was consumed by its own copy: a further copy is not transformed.
  dll().set_policy(0);
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_TRUE(CopyFileW(sources[t].c_str(), targets[t].c_str(), FALSE));
    EXPECT_EQ(content(targets[t]), originals[t]) << t;
  }
  std::printf("[ measured ] %d threads x %d shell copies in %llu ms\n", kThreads, n,
              static_cast<unsigned long long>(elapsed));
}

TEST_F(ReliabilityXp, HandlesAndPrivateBytesStaySteadyOverInterceptedOperations) {
  const int m = iterations(500, 10000);
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring s = make(L"leak.doc", "leak check content"), dst = folder(L"dst");
  const std::wstring target = dst + L"\\leak.doc";
  Responder agent([](const std::string& request) { return all_secret_answer(request, "pw"); });
  ASSERT_TRUE(agent.ok());
  // One operation: a screened shell copy whose file copy is encrypted after the fact.
  auto operation = [&] { return shell_operation(FO_COPY, {s}, dst) == 0 && DeleteFileW(target.c_str()); };
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(operation()) << "warm-up " << i;
  const ProcessCounts before = process_counts();
  const ULONGLONG start = GetTickCount64();
  for (int i = 0; i < m; ++i) ASSERT_TRUE(operation()) << i;
  const ULONGLONG elapsed = GetTickCount64() - start;
  const ProcessCounts after = process_counts();
  EXPECT_EQ(agent.requests(), static_cast<size_t>(200 + m));
  report_and_check(before, after, m, elapsed);
}

TEST_F(ReliabilityXp, ADestinationHeldWithoutSharingFailsTheCopyAndKeepsTheRegistration) {
  dll().set_policy(kSecretAudit | kLocal);
  const std::wstring s = make(L"held.doc", "held secret"), dst = folder(L"dst");
  const std::wstring target = dst + L"\\held.doc";
  ASSERT_TRUE(write_file(target, "old"));
  HANDLE holder = CreateFileW(target.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(holder, INVALID_HANDLE_VALUE);
  {
    TestAgent agent(AgentScript{true, {secret_answer({utf8(s)}, "pw", 1)}, false});
    ASSERT_TRUE(agent.ok());
    shell_operation(FO_COPY, {s}, dst);  // Wine's result for a failed copy into a folder is not reliable
    EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), 1u);
  }
  CloseHandle(holder);
  EXPECT_EQ(content(target), "old");
  EXPECT_FALSE(file_exists(target + L".tmp"));
  EXPECT_EQ(content(s), "held secret");
  // The failed copy left the registration in place: the next copy of the source consumes it.
  dll().set_policy(0);
  const std::wstring later = dst + L"\\later.doc";
  ASSERT_TRUE(CopyFileW(s.c_str(), later.c_str(), FALSE));
  EXPECT_TRUE(decrypts_to(later, "pw", "held secret"));
  ASSERT_TRUE(CopyFileW(s.c_str(), later.c_str(), FALSE));
  EXPECT_EQ(content(later), "held secret");
}

TEST_F(ReliabilityXp, TheLastReferenceGoingMidCopyLeavesTheCopyItsResultAndTheDllInPlace) {
  const MidCallUnload rows[] = {
      {L"free", 1, "pw", "copy=00000000 loaded=1 patched=4 failed calls=0\n", "\x01\x02\x03\x04\x10\x20\x30\x40"},
      {L"free", 0, "", "copy=ffffffff loaded=1 patched=4 failed calls=0\n", ""},
      {L"hook", 1, "pw", "copy=00000000 loaded=1 patched=4 failed calls=0\n", "\x01\x02\x03\x04\x10\x20\x30\x40"},
      {L"hook", 1, "", "copy=00000000 loaded=1 patched=4 failed calls=0\n", "content copied"},
  };
  run_midcall_unload_table(dll(), dir, rows);
}

}  // namespace
