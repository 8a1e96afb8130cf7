// kwagent.exe end to end: requests sent by the library get the answers its rules give, and
// every message becomes one JSON line carrying the message's fields.
#include "agent_test_support.h"

#include <cstdio>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/policy_block.h"
#include "kwtest.h"
#include "protect/audited_files.h"
#include "protect/folder_walk.h"

namespace {

std::wstring kwagent_path() { return kwtest::exe_dir() + L"kwagent.exe"; }

std::string json_path(const std::string& path) {
  std::string out;
  for (char c : path) out += c == '\\' ? std::string("\\\\") : std::string(1, c);
  return out;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The line without its trailing ,"from_port":N} (the port is the requester's, chosen by the system).
std::string without_port(const std::string& line) {
  const size_t at = line.rfind(",\"from_port\":");
  return at == std::string::npos ? line : line.substr(0, at) + "}";
}

// A running kwagent, stopped through its named event at the end of the scope.
class RunningAgent {
 public:
  explicit RunningAgent(const std::wstring& args) {
    const std::wstring tag = std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(GetTickCount64());
    const std::wstring ready_name = L"kwagent-test-ready-" + tag;
    const std::wstring stop_name = L"kwagent-test-stop-" + tag;
    ready_ = CreateEventW(nullptr, TRUE, FALSE, ready_name.c_str());
    stop_ = CreateEventW(nullptr, TRUE, FALSE, stop_name.c_str());
    child_.reset(new kwtest::ChildProcess(kwagent_path(), args + L" --ready " + ready_name + L" --event " + stop_name +
                                                L" --parent " + std::to_wstring(GetCurrentProcessId())));
    ready_ok_ = child_->started() && WaitForSingleObject(ready_, 15000) == WAIT_OBJECT_0;
  }
  ~RunningAgent() { stop(); CloseHandle(ready_); CloseHandle(stop_); }
  bool ready() const { return ready_ok_; }
  // Signals the stop event and returns kwagent's exit code (255 when it did not end).
  DWORD stop() {
    if (stopped_) return code_;
    stopped_ = true;
    SetEvent(stop_);
    if (!child_->wait(10000, &code_)) code_ = 255;
    return code_;
  }

 private:
  HANDLE ready_ = nullptr, stop_ = nullptr;
  std::unique_ptr<kwtest::ChildProcess> child_;
  bool ready_ok_ = false, stopped_ = false;
  DWORD code_ = 255;
};

struct SecretAuditOn {
  SecretAuditOn() : saved(g_policy_block.g_secret_audit) { g_policy_block.g_secret_audit = 1; }
  ~SecretAuditOn() { g_policy_block.g_secret_audit = saved; }
  uint32_t saved;
};

TEST(Kwagent, AnswersFromItsRulesAndLogsEveryMessage) {
  kwtest::ScratchDir dir;
  const std::wstring rules = dir.file(L"rules.txt");
  ASSERT_TRUE(kwtest::write_file(rules,
                                 "# secret documents, installers refused, default allow\r\n"
                                 "secret \"C:\\data\\secret\\*\" \"pw 123\" 2\r\n"
                                 "deny *.exe\r\n"
                                 "encrypted *\\enc\\*   # trailing comment\r\n"
                                 "default allow\r\n"));
  const std::wstring log = dir.file(L"kwagent.log");
  const std::wstring folder = dir.file(L"project");
  CreateDirectoryW(folder.c_str(), nullptr);
  CreateDirectoryW((folder + L"\\s").c_str(), nullptr);
  ASSERT_TRUE(kwtest::write_file(folder + L"\\a.txt", "a"));
  ASSERT_TRUE(kwtest::write_file(folder + L"\\s\\b.txt", "b"));

  RunningAgent agent(L"--rules \"" + rules + L"\" --log \"" + log + L"\"");
  ASSERT_TRUE(agent.ready());
  SecretAuditOn on;

  SecretAuditResult secret;
  EXPECT_TRUE(RequestSecretAudit({"C:\\data\\secret\\plan.docx", "C:\\data\\open.txt", "C:\\x\\enc\\f.bin"},
                                 {"E:\\"}, secret));
  EXPECT_EQ(std::vector<std::string>{"C:\\data\\secret\\plan.docx"}, secret.secret_files);
  EXPECT_EQ(std::vector<std::string>{"C:\\x\\enc\\f.bin"}, secret.encrypted_files);
  EXPECT_EQ("pw 123", secret.encrypted_pwd);
  EXPECT_EQ(2, secret.action);

  SecretAuditResult denied;
  EXPECT_TRUE(RequestSecretAudit({"C:\\Tools\\Setup.EXE"}, {"E:\\"}, denied));  // wildcards ignore case
  EXPECT_EQ(std::vector<std::string>{"C:\\Tools\\Setup.EXE"}, denied.secret_files);
  EXPECT_EQ(0, denied.action);

  SecretAuditResult allowed;
  EXPECT_FALSE(RequestSecretAudit({"C:\\data\\open.txt"}, {"E:\\"}, allowed));

  const std::string folder8 = kwtest::narrow(folder);
  EXPECT_EQ(1, SendCopyAudit(BuildCopyAuditDocument(kCopyAuditCopy, "E:\\backup", list_audited_files({folder8}), 2147483648u)));
  EXPECT_EQ(0u, agent.stop());

  std::string text;
  ASSERT_TRUE(kwtest::read_file(log, &text));
  const std::vector<std::string> lines = lines_of(text);
  ASSERT_EQ(4u, lines.size()) << text;
  const std::string process = get_process_name();
  EXPECT_EQ(R"({"tag":"<FILECOPY_SECRETAUDIT_REQUEST>","processname":")" + process +
                R"(","operation":null,"destination":"E:\\","usersid":null,"files":["C:\\data\\secret\\plan.docx",)"
                R"("C:\\data\\open.txt","C:\\x\\enc\\f.bin"],"answer":"<SecretCheckResult encryptedpwd=\"pw 123\" )"
                R"(action=\"2\"><SecretFile path=\"C:\\data\\secret\\plan.docx\"/><EncryptedFile )"
                R"(path=\"C:\\x\\enc\\f.bin\"/></SecretCheckResult>"})",
            without_port(lines[0]));
  EXPECT_EQ(R"({"tag":"<FILECOPY_SECRETAUDIT_REQUEST>","processname":")" + process +
                R"(","operation":null,"destination":"E:\\","usersid":null,"files":["C:\\Tools\\Setup.EXE"],)"
                R"("answer":"<SecretCheckResult encryptedpwd=\"\" action=\"0\"><SecretFile )"
                R"(path=\"C:\\Tools\\Setup.EXE\"/></SecretCheckResult>"})",
            without_port(lines[1]));
  EXPECT_NE(std::string::npos, lines[2].find(R"("answer":"<SecretCheckResult encryptedpwd=\"\" action=\"1\"/>")"));

  std::vector<std::string> files;
  ASSERT_EQ(2, get_filepaths_from_folder(folder8, files));
  EXPECT_EQ(R"({"tag":"<FILECOPYAUDIT_DATA>","processname":")" + process +
                R"(","operation":6,"destination":"E:\\backup","usersid":")" + get_user_sid_string() +
                R"(","files":[")" + json_path(files[0]) + R"(",")" + json_path(files[1]) +
                R"("],"answer":null,"time":-2147483648,"flags":0})",
            without_port(lines[3]));
  std::printf("kwagent lines:\n%s\n%s\n", lines[0].c_str(), lines[3].c_str());
}

TEST(Kwagent, EmptyModeAnswersWithLengthTwo) {
  kwtest::ScratchDir dir;
  RunningAgent agent(L"--empty --rules NUL --log \"" + dir.file(L"log.txt") + L"\"");
  ASSERT_TRUE(agent.ready());
  SecretAuditOn on;
  SecretAuditResult r;
  EXPECT_FALSE(RequestSecretAudit({"C:\\data\\secret\\plan.docx"}, {"E:\\"}, r));
  EXPECT_EQ(0u, agent.stop());
  std::string text;
  ASSERT_TRUE(kwtest::read_file(dir.file(L"log.txt"), &text));
  EXPECT_NE(std::string::npos, text.find(R"x("answer":"(empty)")x")) << text;
}

// A request and an answer of several chunks each: kwagent acknowledges the request's chunks and
// waits for the library's acknowledgements between the answer's.
TEST(Kwagent, LargeRequestAndAnswerTravelInChunks) {
  kwtest::ScratchDir dir;
  const std::wstring rules = dir.file(L"rules.txt");
  ASSERT_TRUE(kwtest::write_file(rules, "secret C:\\big\\* secret-password 1\n"));
  RunningAgent agent(L"--rules \"" + rules + L"\" --log \"" + dir.file(L"log.txt") + L"\"");
  ASSERT_TRUE(agent.ready());
  std::vector<std::string> sources;
  for (int i = 0; i < 500; ++i) sources.push_back("C:\\big\\folder\\document-" + std::to_string(i) + ".docx");
  ASSERT_GT(BuildSecretAuditRequest(get_process_name(), sources, {"E:\\"}).size(), 2u * 8192u);
  SecretAuditOn on;
  SecretAuditResult r;
  EXPECT_TRUE(RequestSecretAudit(sources, {"E:\\"}, r));
  EXPECT_EQ(sources, r.secret_files);
  EXPECT_EQ("secret-password", r.encrypted_pwd);
}

TEST(Kwagent, SaysWhenThePortIsTaken) {
  kwtest::TestAgent holder;
  ASSERT_TRUE(holder.ok());
  const kwtest::ChildResult result = kwtest::run_child(kwagent_path(), L"", 15000);
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(3u, result.exit_code);
}

TEST(Kwagent, HelpDescribesTheRules) {
  const kwtest::ChildResult result = kwtest::run_child(kwagent_path(), L"--help", 15000);
  ASSERT_TRUE(result.finished);
  EXPECT_EQ(0u, result.exit_code);
  EXPECT_NE(std::string::npos, result.output.find("secret <wildcard> <password> [action]"));
  EXPECT_NE(std::string::npos, result.output.find("default allow|deny|empty"));
}

}  // namespace
