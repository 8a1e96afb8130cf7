// The secret-audit exchange: the verdict table outcome by outcome, the policy and list gates,
// the request on the wire, the multi-chunk answer, and a silent agent.
#include "agent_test_support.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/policy_block.h"

using agenttest::MemoryIo;

namespace {

const std::string kResponseTag = "<FILECOPY_SECRETAUDIT_RESPONSE>";

// Sets g_secret_audit for a scope.
struct SecretAuditOn {
  explicit SecretAuditOn(uint32_t value = 1) : saved(g_policy_block.g_secret_audit) { g_policy_block.g_secret_audit = value; }
  ~SecretAuditOn() { g_policy_block.g_secret_audit = saved; }
  uint32_t saved;
};

// Runs the exchange against one scripted answer (already framed) and returns the verdict.
bool exchange(const std::vector<std::string>& answer, SecretAuditResult* result, MemoryIo* io_out = nullptr) {
  MemoryIo io;
  for (const std::string& datagram : answer) io.push(datagram);
  const bool verdict = ExchangeSecretAudit(io, agenttest::address_with_port(7886), "<CopyFiles/>", *result);
  if (io_out != nullptr) *io_out = io;
  return verdict;
}

TEST(SecretVerdict, PathsAreCollectedInDocumentOrder) {
  SecretAuditResult r;
  EXPECT_TRUE(exchange({agenttest::response(
                  "<SecretCheckResult encryptedpwd=\"pw\" action=\"3\"><SecretFile path=\"C:\\a\"/>"
                  "<EncryptedFile path=\"C:\\e\"/><Other path=\"C:\\o\"/><SecretFile path=\"C:\\b\"/>"
                  "</SecretCheckResult>")}, &r));
  EXPECT_EQ((std::vector<std::string>{"C:\\a", "C:\\b"}), r.secret_files);
  EXPECT_EQ((std::vector<std::string>{"C:\\e"}), r.encrypted_files);
  EXPECT_EQ("pw", r.encrypted_pwd);
  EXPECT_EQ(3, r.action);
}

TEST(SecretVerdict, ResponseTable) {
  const struct {
    const char* name;
    std::string text;
    bool verdict;
    size_t secret, encrypted;
    const char* pwd;
    int action;
  } cases[] = {
      {"names no file", "<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>", false, 0, 0, "", 0},
      {"empty and missing path skipped", "<SecretCheckResult encryptedpwd=\"p\" action=\"1\"><SecretFile path=\"\"/>"
       "<SecretFile/><EncryptedFile path=\"\"/></SecretCheckResult>", false, 0, 0, "p", 1},
      {"only encrypted files", "<SecretCheckResult action=\"5\"><EncryptedFile path=\"x\"/></SecretCheckResult>",
       true, 0, 1, "", 5},
      {"missing encryptedpwd and action", "<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>", true, 1, 0,
       "", 0},
      {"another root name", "<SecretCheck encryptedpwd=\"p\" action=\"1\"><SecretFile path=\"x\"/></SecretCheck>", false,
       0, 0, "", 0},
      {"first top-level element counts", "<Other/><SecretCheckResult action=\"2\"><SecretFile path=\"y\"/>"
       "</SecretCheckResult>", true, 1, 0, "", 2},
      {"not XML: refused as a failed exchange", "SecretCheckResult", true, 0, 0, "", 0},
      {"XML cut short: refused", "<SecretCheckResult action=\"1\"><SecretFile path=\"x\"/>", true, 0, 0, "", 0},
      {"non-ASCII path", "<SecretCheckResult action=\"1\"><SecretFile path=\"C:\\\xC3\xA9t\xC3\xA9\"/></SecretCheckResult>",
       true, 1, 0, "", 1},
  };
  for (const auto& c : cases) {
    SecretAuditResult r;
    EXPECT_EQ(c.verdict, exchange({agenttest::response(c.text)}, &r)) << c.name;
    EXPECT_EQ(c.secret, r.secret_files.size()) << c.name;
    EXPECT_EQ(c.encrypted, r.encrypted_files.size()) << c.name;
    EXPECT_EQ(c.pwd, r.encrypted_pwd) << c.name;
    EXPECT_EQ(c.action, r.action) << c.name;
  }
}

TEST(SecretVerdict, TransportOutcomes) {
  const std::string tag_field = kResponseTag + std::string(1, '\0');
  std::string length2 = kwtest::TestAgent::frame_with_length(
      kResponseTag, 2, "<SecretCheckResult action=\"1\"><SecretFile path=\"x\"/></SecretCheckResult>");
  std::string bad_tag = agenttest::response("<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>");
  bad_tag[31] = '!';
  const struct {
    const char* name;
    std::vector<std::string> answer;  // empty: the receive fails
    bool verdict;
  } cases[] = {
      {"length field 2 whatever follows", {length2}, false},
      {"non-NUL byte at 31 is a wrong tag", {bad_tag}, true},
      {"wrong tag", {kwtest::TestAgent::frame("<FILECOPYAUDIT_DATA>", "<SecretCheckResult/>")}, true},
      {"zero-length datagram", {std::string()}, true},
      {"nothing received", {}, true},
      {"negative length", {kwtest::TestAgent::frame_with_length(kResponseTag, -1, "<SecretCheckResult/>")}, true},
      {"length beyond 16 MiB", {kwtest::TestAgent::frame_with_length(kResponseTag, 0x7fffffff, "x")}, true},
  };
  for (const auto& c : cases) {
    SecretAuditResult r;
    MemoryIo io;
    for (const std::string& d : c.answer) {
      if (d.empty()) io.push_result(0); else io.push(d);
    }
    EXPECT_EQ(c.verdict, ExchangeSecretAudit(io, agenttest::address_with_port(7886), "<CopyFiles/>", r)) << c.name;
    EXPECT_TRUE(r.secret_files.empty() && r.encrypted_files.empty()) << c.name;
  }
}

TEST(SecretVerdict, SendFailureFailsClosedWithoutWaiting) {
  MemoryIo io;
  io.fail_send_from = 0;
  io.push(agenttest::response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>"));
  SecretAuditResult r;
  EXPECT_TRUE(ExchangeSecretAudit(io, agenttest::address_with_port(7886), "<CopyFiles/>", r));
  EXPECT_EQ(0, io.receives);
}

TEST(SecretVerdict, MissingAcknowledgementOnlyEndsTheSending) {
  // A request of two chunks; its acknowledgement fails, and the answer is still awaited and read.
  MemoryIo io;
  io.push_result(-1);
  io.push(agenttest::response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>"));
  SecretAuditResult r;
  EXPECT_FALSE(ExchangeSecretAudit(io, agenttest::address_with_port(7886), std::string(9000, 'c'), r));
  EXPECT_EQ(1u, io.sent.size());
  EXPECT_EQ(2, io.receives);
}

TEST(SecretVerdict, FailedReassemblyIsNotParsed) {
  const std::string wire =
      agenttest::response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>" + std::string(9000, ' '));
  MemoryIo io;
  io.push(wire.substr(0, 8192));
  io.push_result(0);
  SecretAuditResult r;
  EXPECT_TRUE(ExchangeSecretAudit(io, agenttest::address_with_port(7886), "<CopyFiles/>", r));
}

TEST(SecretVerdict, ParseNeedsAFrame) {
  SecretAuditResult r;
  EXPECT_FALSE(ParseSecretAuditResponse(static_cast<const char*>(nullptr), 0, r));
  EXPECT_FALSE(ParseSecretAuditResponse(static_cast<const agent::AgentFrame*>(nullptr), r));
  // A payload without its NUL is read no further than the buffer.
  std::string wire = agenttest::response("<SecretCheckResult><SecretFile path=\"z\"/></SecretCheckResult>");
  wire.back() = ' ';
  EXPECT_TRUE(ParseSecretAuditResponse(wire.data(), wire.size(), r));
}

// ---- over the agent port ----

TEST(SecretRequest, GatesSendNothing) {
  kwtest::TestAgent agent;
  ASSERT_TRUE(agent.ok());
  SecretAuditResult r;
  {
    SecretAuditOn off(0);
    EXPECT_FALSE(RequestSecretAudit({"C:\\a"}, {"D:\\"}, r));
    EXPECT_FALSE(RequestSecretAuditForShellLists(L"C:\\a\0", L"D:\\\0", r));
  }
  SecretAuditOn on;
  EXPECT_FALSE(RequestSecretAudit({}, {"D:\\"}, r));
  EXPECT_FALSE(RequestSecretAudit({"C:\\a"}, {}, r));
  EXPECT_FALSE(RequestSecretAuditForShellLists(nullptr, L"D:\\\0", r));
  EXPECT_FALSE(RequestSecretAuditForShellLists(L"C:\\a\0", nullptr, r));
  EXPECT_FALSE(RequestSecretAuditForShellLists(L"\0", L"D:\\\0", r));  // an empty list
  Sleep(300);
  EXPECT_TRUE(agent.datagrams().empty());
}

TEST(SecretRequest, RequestOnTheWireAndAnswerFromAnotherPort) {
  kwtest::AgentScript script;
  script.reply = {agenttest::response(
      "<SecretCheckResult encryptedpwd=\"k&amp;y\" action=\"1\"><SecretFile path=\"C:\\s\\a&amp;b.doc\"/>"
      "</SecretCheckResult>")};
  script.reply_from_other_port = true;
  kwtest::TestAgent agent(script);
  ASSERT_TRUE(agent.ok());
  SecretAuditOn on;
  SecretAuditResult r;
  EXPECT_TRUE(RequestSecretAudit({"C:\\s\\a&b.doc", "C:\\s\\\"q\".txt"}, {"E:\\out<1>"}, r));
  EXPECT_EQ(std::vector<std::string>{"C:\\s\\a&b.doc"}, r.secret_files);
  EXPECT_EQ("k&y", r.encrypted_pwd);
  ASSERT_EQ(1u, agent.frames().size());
  const std::string expected = kwtest::TestAgent::frame(
      "<FILECOPY_SECRETAUDIT_REQUEST>",
      "<CopyFiles processname=\"" + get_process_name() + "\"><File path=\"C:\\s\\a&amp;b.doc\"/>"
      "<File path=\"C:\\s\\&quot;q&quot;.txt\"/><DstFolder path=\"E:\\out&lt;1&gt;\"/></CopyFiles>");
  EXPECT_EQ(expected, agent.frames()[0]);
}

TEST(SecretRequest, ShellListsAreConvertedToUtf8) {
  kwtest::AgentScript script;
  script.reply = {agenttest::response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>")};
  kwtest::TestAgent agent(script);
  ASSERT_TRUE(agent.ok());
  SecretAuditOn on;
  SecretAuditResult r;
  const wchar_t from[] = L"C:\\d\\\u00e9t\u00e9.txt\0C:\\d\\\u65e5.txt\0";
  const wchar_t to[] = L"F:\\x\0F:\\y\0";
  EXPECT_FALSE(RequestSecretAuditForShellLists(from, to, r));
  ASSERT_EQ(1u, agent.frames().size());
  EXPECT_EQ("<CopyFiles processname=\"" + get_process_name() +
                "\"><File path=\"C:\\d\\\xC3\xA9t\xC3\xA9.txt\"/><File path=\"C:\\d\\\xE6\x97\xA5.txt\"/>"
                "<DstFolder path=\"F:\\x\"/><DstFolder path=\"F:\\y\"/></CopyFiles>",
            std::string(agent.frames()[0].c_str() + 36));
}

TEST(SecretRequest, MultiChunkAnswerIsAcknowledgedChunkByChunk) {
  std::string text = "<SecretCheckResult encryptedpwd=\"pw\" action=\"1\">";
  std::vector<std::string> paths;
  for (int i = 0; i < 400; ++i) {
    paths.push_back("C:\\data\\folder\\file-number-" + std::to_string(i) + ".docx");
    text += "<SecretFile path=\"" + paths.back() + "\"/>";
  }
  text += "</SecretCheckResult>";
  kwtest::AgentScript script;
  script.reply = agenttest::chunks(agenttest::response(text), 8192);
  ASSERT_EQ(3u, script.reply.size());
  kwtest::TestAgent agent(script);
  ASSERT_TRUE(agent.ok());
  SecretAuditOn on;
  SecretAuditResult r;
  EXPECT_TRUE(RequestSecretAudit({"C:\\data"}, {"E:\\"}, r));
  EXPECT_EQ(paths, r.secret_files);
  size_t acks = 0;
  for (const auto& d : agent.datagrams()) {
    if (!d.during_reply) continue;
    EXPECT_EQ(std::string(128, '\0'), d.bytes);
    ++acks;
  }
  EXPECT_EQ(2u, acks);
}

// The request has no receive time-out: a silent agent holds the caller until it answers.
TEST(SecretRequest, SilentAgentKeepsTheRequestWaitingUntilItAnswers) {
  kwtest::TestAgent agent;  // no scripted reply: silent
  ASSERT_TRUE(agent.ok());
  SecretAuditOn on;
  SecretAuditResult r;
  std::atomic<bool> done{false};
  bool verdict = false;
  std::thread caller([&] {
    verdict = RequestSecretAudit({"C:\\a.txt"}, {"E:\\"}, r);
    done = true;
  });
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  Sleep(1500);  // longer than any time-out the library sets elsewhere
  EXPECT_FALSE(done);
  ASSERT_TRUE(agent.send_to_requester(
      agenttest::response("<SecretCheckResult encryptedpwd=\"x\" action=\"0\"><SecretFile path=\"C:\\a.txt\"/>"
                          "</SecretCheckResult>")));
  caller.join();
  EXPECT_TRUE(done);
  EXPECT_TRUE(verdict);
  EXPECT_EQ(0, r.action);
  EXPECT_EQ(std::vector<std::string>{"C:\\a.txt"}, r.secret_files);
}

}  // namespace
