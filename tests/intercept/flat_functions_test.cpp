// The pre-6 path in a winxp64 prefix: SHFileOperationW screened by the real DLL in this process,
// Wine's own SHFileOperationW doing the copying through kernel32's CopyFileW, the copies of
// registered secret files encrypted after the fact, a real agent on the agent port.
#include <gtest/gtest.h>

#include "interception_fixture.h"

namespace {

using namespace kwtest;

constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL;

class FlatFunctionInterception : public PreSixInterceptionTest {
 protected:
  // Registers `secret` with password "pw" through a screened shell copy of `carrier` to `dst`.
  void register_through_shell_copy(const std::vector<std::string>& secrets, const std::wstring& carrier,
                                   const std::wstring& dst) {
    TestAgent agent(AgentScript{true, {secret_answer(secrets, "pw", 1)}, false});
    ASSERT_TRUE(agent.ok());
    dll().set_policy(kSecretAudit | kLocal);
    ASSERT_EQ(shell_operation(FO_COPY, {carrier}, dst), 0);
    dll().set_policy(0);
  }
};

TEST_F(FlatFunctionInterception, ACopyOfASecretFileArrivesEncryptedAndTheSourceStaysUntouched) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::string original(70000, 'x');  // more than one 64 KiB chunk, with a tail
  const std::wstring s = make(L"secret.bin", original), dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({utf8(s)}, "pw", 1)}, false});
  ASSERT_TRUE(agent.ok());
  TraceCapture trace;
  EXPECT_EQ(shell_operation(FO_COPY, {s}, dst), 0);
  EXPECT_EQ(trace.lines().at(0), "[Hook_SHFileOperationW,826] : SHFileOperationW");
  EXPECT_TRUE(decrypts_to(dst + L"\\secret.bin", "pw", original));
  EXPECT_FALSE(file_exists(dst + L"\\secret.bin.tmp"));
  EXPECT_EQ(content(s), original);
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  EXPECT_EQ(documents_with_tag(agent, kRequestTag),
            (std::vector<std::string>{"<CopyFiles processname=\"intercept_flat_tests.exe\"><File path=\"" + utf8(s) +
                                      "\"/><DstFolder path=\"" + utf8(dst) + "\"/></CopyFiles>"}));
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(without_time(audits[0]).find("<FilesCopy processname=\"intercept_flat_tests.exe\" operation=\"6\" "
                                         "flags=\"0\" time=\"T\" dstfloder=\"" + utf8(dst) + "\" usersid=\"S-1-5-"),
            0u) << audits[0];
  // The table is empty again: another copy of the same source stays plain.
  EXPECT_TRUE(CopyFileW(s.c_str(), (dst + L"\\again.bin").c_str(), FALSE));
  EXPECT_EQ(content(dst + L"\\again.bin"), original);
}

TEST_F(FlatFunctionInterception, AFolderCopyEncryptsOnlyTheSecretFileDeepInsideAndAuditsEveryFile) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring tree = folder(L"tree");
  folder(L"tree\\sub");
  folder(L"tree\\sub\\deeper");
  const std::wstring a = make(L"tree\\a.txt", "plain a");
  const std::wstring secret = make(L"tree\\sub\\deeper\\secret.txt", "the secret");
  const std::wstring dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({utf8(secret)}, "pw", 1)}, false});
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(shell_operation(FO_COPY, {tree}, dst), 0);
  EXPECT_EQ(content(dst + L"\\tree\\a.txt"), "plain a");
  EXPECT_TRUE(decrypts_to(dst + L"\\tree\\sub\\deeper\\secret.txt", "pw", "the secret"));
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  Sleep(100);
  EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), 1u);  // nested shell calls ask nothing more
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_NE(audits[0].find("<File filename=\"" + utf8(a) + "\"/>"), std::string::npos) << audits[0];
  EXPECT_NE(audits[0].find("<File filename=\"" + utf8(secret) + "\"/>"), std::string::npos) << audits[0];
  EXPECT_EQ(audits[0].find("filename=\"" + utf8(tree) + "\""), std::string::npos) << audits[0];
}

TEST_F(FlatFunctionInterception, EachRegistrationEncryptsOneCopyAndLeftOversWaitForALaterCopy) {
  const std::wstring s = make(L"twice.txt", "twice"), carrier = make(L"carrier.txt", "c"), dst = folder(L"dst");
  register_through_shell_copy({utf8(s), utf8(s)}, carrier, dst);  // two entries, nothing of s copied yet
  EXPECT_EQ(content(dst + L"\\carrier.txt"), "c");
  EXPECT_TRUE(CopyFileW(s.c_str(), (dst + L"\\1.txt").c_str(), FALSE));
  // An ASCII-case variant of the source finds the second entry.
  std::wstring upper = s;
  for (auto& c : upper) c = static_cast<wchar_t>(towupper(c));
  EXPECT_TRUE(CopyFileExW(upper.c_str(), (dst + L"\\2.txt").c_str(), nullptr, nullptr, nullptr, 0));
  EXPECT_TRUE(CopyFileW(s.c_str(), (dst + L"\\3.txt").c_str(), FALSE));
  EXPECT_TRUE(decrypts_to(dst + L"\\1.txt", "pw", "twice"));
  EXPECT_TRUE(decrypts_to(dst + L"\\2.txt", "pw", "twice"));
  EXPECT_EQ(content(dst + L"\\3.txt"), "twice");
}

TEST_F(FlatFunctionInterception, AMovedRegisteredFileIsEncryptedInItsNewPlace) {
  const std::wstring s = make(L"moving.txt", "moving"), carrier = make(L"carrier.txt", "c"), dst = folder(L"dst");
  register_through_shell_copy({utf8(s)}, carrier, dst);
  TraceCapture trace;
  EXPECT_FALSE(MoveFileWithProgressW(dir.file(L"missing.txt").c_str(), (dst + L"\\x").c_str(), nullptr, nullptr, 0));
  EXPECT_TRUE(MoveFileWithProgressW(s.c_str(), (dst + L"\\moved.txt").c_str(), nullptr, nullptr, 0));
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{"[Hook_MoveFileWithProgressW,963] : MoveFileWithProgressW",
                                                     "[Hook_MoveFileWithProgressW,963] : MoveFileWithProgressW"}));
  EXPECT_FALSE(file_exists(s));
  EXPECT_TRUE(decrypts_to(dst + L"\\moved.txt", "pw", "moving"));
}

TEST_F(FlatFunctionInterception, RefusalsReturnMinusOneWithoutCopyingOrAuditing) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring s = make(L"s.txt", "s"), dst = folder(L"dst");
  const std::string wrong_tag = TestAgent::frame("<FILECOPY_SECRETAUDIT_RESPONSE_>", "<SecretCheckResult/>");
  for (const std::string& reply : {wrong_tag, secret_answer({utf8(s)}, "pw", 0)}) {
    TestAgent agent(AgentScript{true, {reply}, false});
    ASSERT_TRUE(agent.ok());
    EXPECT_EQ(shell_operation(FO_COPY, {s}, dst), -1);
    EXPECT_EQ(shell_operation(FO_MOVE, {s}, dst), -1);
    Sleep(100);
    EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), 2u);
    EXPECT_TRUE(documents_with_tag(agent, kAuditTag).empty());
    EXPECT_FALSE(file_exists(dst + L"\\s.txt"));
    EXPECT_TRUE(file_exists(s));
  }
}

TEST_F(FlatFunctionInterception, DeleteRenameAndPolicyZeroPassStraightThrough) {
  const std::wstring a = make(L"a.txt", "a"), b = make(L"b.txt", "b"), dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
  ASSERT_TRUE(agent.ok());
  dll().set_policy(KWINDEL_POLICY_ALL);
  EXPECT_EQ(shell_operation(FO_RENAME, {a}, dir.file(L"renamed.txt")), 0);
  EXPECT_TRUE(file_exists(dir.file(L"renamed.txt")));
  EXPECT_EQ(shell_operation(FO_DELETE, {b}, L""), 0);
  EXPECT_FALSE(file_exists(b));
  dll().set_policy(0);
  EXPECT_EQ(shell_operation(FO_COPY, {dir.file(L"renamed.txt")}, dst), 0);
  EXPECT_EQ(content(dst + L"\\renamed.txt"), "a");
  Sleep(150);
  EXPECT_TRUE(agent.datagrams().empty());
}

TEST_F(FlatFunctionInterception, CopiesFromARemovableDriveOrANetworkFormOfPathAreAuditedButNeverChecked) {
  RemovableDrive drive;
  ASSERT_TRUE(drive.ok());
  const std::wstring r = drive.root() + L"\\usb.txt", local = make(L"local.txt", "l"), dst = folder(L"dst");
  ASSERT_TRUE(write_file(r, "from the stick"));
  // A path that starts with two backslashes counts as a network path; the long-path form of a
  // local file is one the shell can still copy here.
  const std::wstring network_form = L"\\\\?\\" + local;
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
  ASSERT_TRUE(agent.ok());
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  EXPECT_EQ(shell_operation(FO_COPY, {r}, dst), 0);
  EXPECT_EQ(content(dst + L"\\usb.txt"), "from the stick");
  shell_operation(FO_COPY, {network_form}, dst);
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  Sleep(100);
  EXPECT_TRUE(documents_with_tag(agent, kRequestTag).empty());
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 2u);
  EXPECT_NE(audits[0].find("<File filename=\"" + utf8(r) + "\"/>"), std::string::npos) << audits[0];
  EXPECT_NE(audits[1].find("<File filename=\"" + utf8(network_form) + "\"/>"), std::string::npos) << audits[1];
}

TEST_F(FlatFunctionInterception, ADestinationHeldOpenStillConsumesTheEntryAndTheCopySucceeds) {
  const std::wstring s = make(L"held.txt", "held"), carrier = make(L"carrier.txt", "c"), dst = folder(L"dst");
  register_through_shell_copy({utf8(s)}, carrier, dst);
  const std::wstring target = dst + L"\\held.txt";
  ASSERT_TRUE(write_file(target, "old"));
  // Another holder that allows reading and writing but not deletion.
  HANDLE holder = CreateFileW(target.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(holder, INVALID_HANDLE_VALUE);
  EXPECT_TRUE(CopyFileW(s.c_str(), target.c_str(), FALSE));
  CloseHandle(holder);
  EXPECT_TRUE(CopyFileW(s.c_str(), (dst + L"\\later.txt").c_str(), FALSE));
  EXPECT_EQ(content(dst + L"\\later.txt"), "held");  // the entry was consumed by the first copy
  DeleteFileW((target + L".tmp").c_str());
}

}  // namespace
