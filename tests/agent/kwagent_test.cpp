// kwagent.exe end to end: requests sent by the library get the answers its rules give, and every
// message becomes one JSON line carrying the message's fields.
#include "test_agent.h"  // winsock2.h before windows.h

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/policy_block.h"
#include "kwtest.h"
#include "protect/audited_files.h"
#include "protect/folder_walk.h"

namespace {

std::wstring kwagent_path() { return kwtest::exe_dir() + L"kwagent.exe"; }

// A running kwagent with these rules, logging into the scratch folder, stopped through its named
// event by stop() (which gives its exit code, 255 when it did not end) and the log's lines.
class RunningAgent {
 public:
  explicit RunningAgent(const std::string& rules, const std::wstring& extra = L"") {
    const std::wstring tag = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount64());
    ready_ = CreateEventW(nullptr, TRUE, FALSE, (L"kwagent-test-ready-" + tag).c_str());
    stop_ = CreateEventW(nullptr, TRUE, FALSE, (L"kwagent-test-stop-" + tag).c_str());
    kwtest::write_file(dir_.file(L"rules.txt"), rules);
    child_ = std::make_unique<kwtest::ChildProcess>(
        kwagent_path(), extra + L" --rules \"" + dir_.file(L"rules.txt") + L"\" --log \"" + dir_.file(L"log") +
                            L"\" --ready kwagent-test-ready-" + tag + L" --event kwagent-test-stop-" + tag + L" --parent " +
                            std::to_wstring(GetCurrentProcessId()));
    ready = child_->started() && WaitForSingleObject(ready_, 15000) == WAIT_OBJECT_0;
    g_policy_block.g_secret_audit = 1;
  }
  ~RunningAgent() { stop(); CloseHandle(ready_); CloseHandle(stop_); g_policy_block.g_secret_audit = 0; }
  DWORD stop(std::vector<std::string>* lines = nullptr) {
    DWORD code = 255;
    SetEvent(stop_);
    if (!child_->wait(10000, &code)) code = 255;
    std::string text;
    kwtest::read_file(dir_.file(L"log"), &text);
    std::istringstream in(text);
    for (std::string line; lines != nullptr && std::getline(in, line);)
      lines->push_back(line.substr(0, line.rfind(",\"from_port\":")));  // the requester's port: the system's choice
    return code;
  }
  bool ready = false;

 private:
  kwtest::ScratchDir dir_;
  HANDLE ready_, stop_;
  std::unique_ptr<kwtest::ChildProcess> child_;
};

std::string json(const std::string& path) {
  std::string out;
  for (char c : path) out += c == '\\' ? std::string("\\\\") : std::string(1, c);
  return out;
}

TEST(Kwagent, AnswersFromItsRulesAndLogsEveryMessage) {
  kwtest::ScratchDir dir;
  const std::wstring folder = dir.file(L"project");
  CreateDirectoryW(folder.c_str(), nullptr);
  CreateDirectoryW((folder + L"\\s").c_str(), nullptr);
  ASSERT_TRUE(kwtest::write_file(folder + L"\\a.txt", "a") && kwtest::write_file(folder + L"\\s\\b.txt", "b"));
  RunningAgent agent("# secret documents, installers refused, default allow\r\nsecret \"C:\\data\\secret\\*\" \"pw 123\" 2\r\n"
                     "deny *.exe\r\nencrypted *\\enc\\*   # trailing comment\r\ndefault allow\r\n");
  ASSERT_TRUE(agent.ready);
  SecretAuditResult secret, denied, allowed;
  EXPECT_TRUE(RequestSecretAudit({"C:\\data\\secret\\plan.docx", "C:\\data\\open.txt", "C:\\x\\enc\\f.bin"}, {"E:\\"}, secret));
  EXPECT_EQ(std::vector<std::string>{"C:\\data\\secret\\plan.docx"}, secret.secret_files);
  EXPECT_EQ(std::vector<std::string>{"C:\\x\\enc\\f.bin"}, secret.encrypted_files);
  EXPECT_EQ("pw 123", secret.encrypted_pwd);
  EXPECT_EQ(2, secret.action);
  EXPECT_TRUE(RequestSecretAudit({"C:\\Tools\\Setup.EXE"}, {"E:\\"}, denied));  // wildcards ignore case
  EXPECT_EQ(std::vector<std::string>{"C:\\Tools\\Setup.EXE"}, denied.secret_files);
  EXPECT_EQ(0, denied.action);
  EXPECT_FALSE(RequestSecretAudit({"C:\\data\\open.txt"}, {"E:\\"}, allowed));
  const std::string folder8 = kwtest::narrow(folder);
  EXPECT_EQ(1, SendCopyAudit(build_copy_audit_document(kCopyAuditCopy, "E:\\backup", list_audited_files({folder8}),
                                                       2147483648u)));
  std::vector<std::string> lines, files;
  EXPECT_EQ(0u, agent.stop(&lines));
  ASSERT_EQ(4u, lines.size());
  const std::string request = R"({"tag":"<FILECOPY_SECRETAUDIT_REQUEST>","processname":")" + get_process_name() +
                              R"(","operation":null,"destination":"E:\\","usersid":null,"files":[)";
  EXPECT_EQ(request + R"("C:\\data\\secret\\plan.docx","C:\\data\\open.txt","C:\\x\\enc\\f.bin"],"answer":")"
                R"(<SecretCheckResult encryptedpwd=\"pw 123\" action=\"2\"><SecretFile path=\"C:\\data\\secret\\plan.docx\"/>)"
                R"(<EncryptedFile path=\"C:\\x\\enc\\f.bin\"/></SecretCheckResult>")", lines[0]);
  EXPECT_EQ(request + R"("C:\\Tools\\Setup.EXE"],"answer":"<SecretCheckResult encryptedpwd=\"\" action=\"0\">)"
                R"(<SecretFile path=\"C:\\Tools\\Setup.EXE\"/></SecretCheckResult>")", lines[1]);
  EXPECT_EQ(request + R"("C:\\data\\open.txt"],"answer":"<SecretCheckResult encryptedpwd=\"\" action=\"1\"/>")", lines[2]);
  ASSERT_EQ(2, get_filepaths_from_folder(folder8, files));
  EXPECT_EQ(R"({"tag":"<FILECOPYAUDIT_DATA>","processname":")" + get_process_name() +
                R"(","operation":6,"destination":"E:\\backup","usersid":")" + get_user_sid_string() + R"(","files":[")" +
                json(files[0]) + R"(",")" + json(files[1]) + R"("],"answer":null,"time":-2147483648,"flags":0)",
            lines[3]);
}

// Requests and answers of several chunks each; the empty mode's answer of length 2; the port taken.
TEST(Kwagent, ChunksEmptyModeAndATakenPort) {
  std::vector<std::string> sources, lines;
  for (int i = 0; i < 500; ++i) sources.push_back("C:\\big\\folder\\document-" + std::to_string(i) + ".docx");
  ASSERT_GT(build_secret_audit_request(get_process_name(), sources, {"E:\\"}).size(), 2u * 8192u);
  {
    RunningAgent agent("secret C:\\big\\* secret-password 1\n");
    ASSERT_TRUE(agent.ready);
    SecretAuditResult r;
    EXPECT_TRUE(RequestSecretAudit(sources, {"E:\\"}, r));
    EXPECT_EQ(sources, r.secret_files);
    EXPECT_EQ("secret-password", r.encrypted_pwd);
  }
  {
    RunningAgent agent("secret C:\\big\\* secret-password 1\n", L"--empty");
    ASSERT_TRUE(agent.ready);
    SecretAuditResult r;
    EXPECT_FALSE(RequestSecretAudit({sources[0]}, {"E:\\"}, r));
    EXPECT_EQ(0u, agent.stop(&lines));
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find(R"x("answer":"(empty)")x")) << lines[0];
  }
  kwtest::TestAgent holder;
  ASSERT_TRUE(holder.ok());
  const kwtest::ChildResult taken = kwtest::run_child(kwagent_path(), L"", 15000);
  EXPECT_TRUE(taken.finished && taken.exit_code == 3) << taken.exit_code;
}

}  // namespace
