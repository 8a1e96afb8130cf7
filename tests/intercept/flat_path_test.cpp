// The pre-6 path in a winxp64 prefix, as two tables: SHFileOperationW screened by the real DLL in
// this process (Wine's own SHFileOperationW copying through the hooked CopyFileW) with a test
// agent on the agent port; and the secret files a screened copy registered, encrypted after the
// fact by the later flat copies and moves that reach them.
#include "kwtest.h"

namespace {

using namespace kwtest;

enum Outcome { kPlain, kEncrypted, kMissing };

class FlatPath : public Interception {
 protected:
  void SetUp() override {
    Interception::SetUp();
    ASSERT_TRUE(kFlat) << "these tests need the winxp64 prefix";
    prepare();
  }
  void prepare() {  // the scratch folder's files as every row starts with them
    for (const wchar_t* name : {L"tree", L"tree\\sub", L"tree\\sub\\deeper", L"dst"}) folder(name);
    for (const wchar_t* name : {L"s.bin", L"a.txt", L"b.txt", L"tree\\a.txt", L"tree\\sub\\deeper\\secret.txt"}) make(name, original(name));
  }
  static std::string original(const std::wstring& name) {  // more than one 64 KiB chunk for s.bin
    return name == L"s.bin" ? std::string(70000, 'x') : "content of " + narrow(name);
  }
  // `path` holds the original of `name` plainly or encrypted under "pw", or is missing.
  void expect(const std::wstring& path, const std::wstring& name, Outcome outcome) {
    if (outcome == kMissing) EXPECT_FALSE(file_exists(path)) << narrow(path);
    if (outcome == kPlain) EXPECT_EQ(content(path), original(name)) << narrow(path);
    if (outcome == kEncrypted) EXPECT_TRUE(decrypts_to(path, "pw", original(name))) << narrow(path);
  }
};

// Paths are names in the scratch folder; "usb" is a file on a removable drive, "network" the \\?\
// form of a.txt (two leading backslashes: a network path). Every request names the source and
// the destination; each record carries the operation and lists `listed`.
TEST_F(FlatPath, ShellOperations) {
  enum Reply { kNames, kWrongTag, kForbidden };  // kNames: the `secret` files, action 1, password "pw"
  struct Row {
    const char* name;
    DWORD policy;
    Reply reply;
    std::vector<std::wstring> secret;
    UINT function;
    std::wstring source, to;
    int result;
    size_t requests, audits;
    std::vector<std::pair<std::wstring, Outcome>> after;  // (file, outcome): the original of the name after "dst\"
    std::vector<std::wstring> listed;
  };
  const Row rows[] = {
      {"a secret file's copy arrives encrypted, the source untouched", kScreen, kNames, {L"s.bin"}, FO_COPY, L"s.bin", L"dst", 0, 1, 1,
       {{L"dst\\s.bin", kEncrypted}, {L"dst\\s.bin.tmp", kMissing}, {L"s.bin", kPlain}}, {L"s.bin"}},
      {"a folder copy encrypts only the secret file deep inside, asking once", kScreen, kNames, {L"tree\\sub\\deeper\\secret.txt"},
       FO_COPY, L"tree", L"dst", 0, 1, 1, {{L"dst\\tree\\a.txt", kPlain}, {L"dst\\tree\\sub\\deeper\\secret.txt", kEncrypted}},
       {L"tree\\a.txt", L"tree\\sub\\deeper\\secret.txt"}},
      {"a wrong tag refuses a copy with -1", kScreen, kWrongTag, {}, FO_COPY, L"a.txt", L"dst", -1, 1, 0,
       {{L"dst\\a.txt", kMissing}, {L"a.txt", kPlain}}, {}},
      {"a secret file's move arrives encrypted, its source gone", kScreen, kNames, {L"s.bin"}, FO_MOVE, L"s.bin", L"dst", 0, 1, 1,
       {{L"dst\\s.bin", kEncrypted}, {L"s.bin", kMissing}}, {L"s.bin"}},
      {"a secret file inside a moved folder arrives encrypted", kScreen, kNames, {L"tree\\sub\\deeper\\secret.txt"}, FO_MOVE,
       L"tree", L"dst", 0, 1, 1, {{L"dst\\tree\\a.txt", kPlain}, {L"dst\\tree\\sub\\deeper\\secret.txt", kEncrypted}},
       {L"tree\\a.txt", L"tree\\sub\\deeper\\secret.txt"}},
      {"a forbidding answer refuses a move", kScreen, kForbidden, {L"a.txt"}, FO_MOVE, L"a.txt", L"dst", -1, 1, 0,
       {{L"dst\\a.txt", kMissing}, {L"a.txt", kPlain}}, {}},
      {"a rename passes straight through", KWINDEL_POLICY_ALL, kNames, {}, FO_RENAME, L"a.txt", L"dst\\a.txt", 0, 0, 0,
       {{L"dst\\a.txt", kPlain}, {L"a.txt", kMissing}}, {}},
      {"a delete passes straight through", KWINDEL_POLICY_ALL, kNames, {}, FO_DELETE, L"b.txt", L"", 0, 0, 0, {{L"b.txt", kMissing}}, {}},
      {"policy 0 lets a copy through unasked", 0, kNames, {L"a.txt"}, FO_COPY, L"a.txt", L"dst", 0, 0, 0, {{L"dst\\a.txt", kPlain}}, {}},
      {"a copy from a removable drive is audited, never checked", kScreen, kNames, {}, FO_COPY, L"usb", L"dst", 0, 0, 1, {}, {L"usb"}},
      {"a network form of path is audited, never checked", kScreen, kNames, {}, FO_COPY, L"network", L"dst", 0, 0, 1, {}, {L"network"}},
  };
  TestDrive drive;
  ASSERT_TRUE(drive.ok() && write_file(drive.root() + L"\\usb.txt", "from the stick"));
  auto path = [&](const std::wstring& name) {
    return name == L"usb" ? drive.root() + L"\\usb.txt" : name == L"network" ? L"\\\\?\\" + dir.file(L"a.txt") : name.empty() ? name : dir.file(name);
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::string> secret;
    for (const std::wstring& s : row.secret) secret.push_back(narrow(dir.file(s)));
    TestAgent agent(AgentScript{true, {secret_answer(secret, "pw", row.reply == kForbidden ? 0 : 1, row.reply == kWrongTag)}});
    ASSERT_TRUE(agent.ok());
    set_policy(row.policy);
    TraceCapture trace;
    const int result = shell_operation(row.function, {path(row.source)}, path(row.to));
    if (row.source != L"network") EXPECT_EQ(result, row.result);  // Wine's own result for that form varies
    EXPECT_EQ(trace.lines().at(0), "[Hook_SHFileOperationW,826] : SHFileOperationW");
    set_policy(0);
    ASSERT_TRUE(agent.flush());
    EXPECT_EQ(agent.documents(kRequestTag), std::vector<std::string>(row.requests, request_document({path(row.source)}, path(row.to))));
    const auto audits = agent.documents(kAuditTag);
    ASSERT_EQ(audits.size(), row.audits);
    for (const std::string& audit : audits) {  // the folder walk's order is the file system's
      const std::string header = audit_document(row.function == FO_MOVE ? "5" : "6", path(row.to), {});
      EXPECT_EQ(audit.substr(0, header.size() - 2), header.substr(0, header.size() - 2)) << audit;
      size_t files = 0;
      for (size_t at = audit.find("<File "); at != std::string::npos; at = audit.find("<File ", at + 1)) ++files;
      EXPECT_EQ(files, row.listed.size()) << audit;
      for (const std::wstring& f : row.listed) EXPECT_NE(audit.find("<File filename=\"" + narrow(path(f)) + "\"/>"), std::string::npos) << audit;
    }
    for (const auto& [name, outcome] : row.after) expect(dir.file(name), name.substr(name.rfind(L"dst\\", 0) == 0 ? 4 : 0), outcome);
    remove_tree(dir.file(L"dst"));
    prepare();
  }
}

// Two registrations of s.bin through a screened shell copy of another file whose answer names it
// twice: a CopyFileExW of its upper-case form takes one, a move of a missing file fails and takes
// none, a MoveFileWithProgressW takes the other; each writes the encrypted form. A copy of s.bin
// made afresh then stays plain.
TEST_F(FlatPath, RegisteredSecretsAreEncryptedByLaterCopiesAndMoves) {
  const std::wstring s = dir.file(L"s.bin"), dst = dir.file(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({narrow(s), narrow(s)}, "pw", 1)}});
  ASSERT_TRUE(agent.ok());
  set_policy(kSecretAudit | kLocal);
  ASSERT_EQ(shell_operation(FO_COPY, {dir.file(L"b.txt")}, dst), 0);
  set_policy(0);
  EXPECT_EQ(content(dst + L"\\b.txt"), original(L"b.txt"));
  std::wstring upper = s;
  for (auto& c : upper) c = static_cast<wchar_t>(towupper(c));
  TraceCapture trace;
  EXPECT_TRUE(CopyFileExW(upper.c_str(), (dst + L"\\1.bin").c_str(), nullptr, nullptr, nullptr, 0));
  EXPECT_FALSE(MoveFileWithProgressW(dir.file(L"missing").c_str(), (dst + L"\\2.bin").c_str(), nullptr, nullptr, 0));
  EXPECT_TRUE(MoveFileWithProgressW(s.c_str(), (dst + L"\\3.bin").c_str(), nullptr, nullptr, 0));
  make(L"s.bin", original(L"s.bin"));
  EXPECT_TRUE(CopyFileW(s.c_str(), (dst + L"\\4.bin").c_str(), FALSE));
  expect(dst + L"\\1.bin", L"s.bin", kEncrypted);
  expect(dst + L"\\3.bin", L"s.bin", kEncrypted);
  expect(dst + L"\\4.bin", L"s.bin", kPlain);
  for (const wchar_t* name : {L"1.bin.tmp", L"3.bin.tmp", L"4.bin.tmp"}) EXPECT_FALSE(file_exists(dst + L"\\" + name));
  EXPECT_EQ(trace.lines(), std::vector<std::string>(2, "[Hook_MoveFileWithProgressW,963] : MoveFileWithProgressW"));
}

}  // namespace
