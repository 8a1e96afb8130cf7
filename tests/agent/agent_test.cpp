// The agent channel: framing, chunked sending, reassembly and the secret-audit verdicts as one
// table through an in-memory transport; a few documents byte for byte; the real port against the
// test agent; kwagent.exe answering from its rules and logging every message.
#include "kwtest.h"


#include "agent/agent_channel.h"
#include "agent/copy_audit.h"
#include "agent/operation_result.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/policy_block.h"

namespace {

using namespace kwtest;
const std::string kAck(128, '\0');

std::string header(int32_t length, const std::string& tag = kResponseTag) {  // written by hand: the length little-endian
  return tag + std::string(32 - tag.size(), '\0') + std::string(reinterpret_cast<const char*>(&length), 4);
}
std::string response(const std::string& text) { return TestAgent::frame(kResponseTag, text); }

std::string describe(bool verdict, const SecretAuditResult& r) {
  std::string s = verdict ? "true" : "false";
  for (const std::string& path : r.secret_files) s += " S:" + path;
  for (const std::string& path : r.encrypted_files) s += " E:" + path;
  return s + " pwd=" + r.encrypted_pwd + " action=" + std::to_string(r.action);
}

// Datagrams from memory: each receive takes the next scripted datagram and its sender (an IPv4
// address, 127.0.0.1 unless given, and a port; an empty one reads as a failed receive, 0); an empty
// script reads as a receive error (-1). Sends are logged as "size@port " ("z" after the size: all
// zero bytes) and fail from the (fail_from + 1)-th on.
struct In {
  std::string bytes;
  uint16_t port;
  uint32_t ip = 0x7f000001;
};
In dgram(const std::string& bytes, uint16_t port = 5000, uint32_t ip = 0x7f000001) { return {bytes, port, ip}; }
const In kFails = {"", 0};
const uint32_t kForeign = 0x0a000005;  // 10.0.0.5: another machine

struct MemoryIo : agent::DatagramIo {
  MemoryIo(const std::vector<In>& script, int fail_from) : in(script), fail_from(fail_from) {}
  int SendTo(const char* data, int size, const agent::DatagramAddress& to) override {
    sent.emplace_back(data, size);
    const bool zeros = sent.back().find_first_not_of('\0') == std::string::npos;
    log += std::to_string(size) + (zeros ? "z@" : "@") + std::to_string(to.bytes[2] << 8 | to.bytes[3]) + " ";
    return static_cast<int>(sent.size()) > fail_from ? -1 : size;
  }
  int ReceiveFrom(char* buffer, int capacity, agent::DatagramAddress* from) override {
    if (++receives > static_cast<int>(in.size())) return -1;
    const In& next = in[receives - 1];
    sockaddr_in address = {AF_INET, htons(next.port)};
    address.sin_addr.s_addr = htonl(next.ip);
    std::memcpy(from->bytes, &address, sizeof address);
    from->length = sizeof address;
    const int n = std::min(static_cast<int>(next.bytes.size()), capacity);
    std::memcpy(buffer, next.bytes.data(), n);
    return n;
  }
  std::vector<In> in;
  int fail_from, receives = 0;
  std::vector<std::string> sent;
  std::string log;
};

enum Op { kSend, kReceive, kExchange };
struct Row {
  const char* name;
  Op op;
  std::vector<In> script;
  std::string result;  // send: status; receive: outcome and frame; exchange: describe()
  std::string sent;    // the transport's log
  int receives;
  size_t text = 10;  // send, exchange: size of the document sent
  int fail_from = 1 << 30;
};

// Runs one row; what a send sends, and an exchange's first datagram, must be the start of its frame.
std::string run(const Row& row, MemoryIo& io) {
  const agent::DatagramAddress to = agent::agent_address(7886);
  const std::string text(row.text, row.op == kSend ? 'q' : 'c');
  const std::string frame = TestAgent::frame(row.op == kSend ? agent::kCopyAuditTag : kRequestTag, text);
  std::string result;
  if (row.op == kSend) {
    result = std::vector<std::string>{"sent", "send failed", "ack missing"}[int(agent::SendFrame(io, to, agent::kCopyAuditTag, text))];
  } else if (row.op == kReceive) {
    agent::AgentFrame f;
    const int outcome = int(agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &f));
    return std::vector<std::string>{"no frame", "wrong tag", "empty answer", "frame ", "failed"}[outcome] +
           std::string(f.data() ? f.data() : "", f.size());
  } else {
    SecretAuditResult r;
    result = describe(exchange_secret_audit(io, to, text, r), r);
  }
  std::string out;  // a send's datagrams, an exchange's first
  for (size_t i = 0; i < io.sent.size() && (i == 0 || row.op == kSend); ++i) out += io.sent[i];
  return out.empty() || frame.compare(0, out.size(), out) != 0 ? "wrong datagrams" : result;
}

TEST(AgentChannel, SendingReceivingAndVerdicts) {
  EXPECT_EQ(header(11, "<FILECOPYAUDIT_DATA>") + "<a b=\"1\"/>" + '\0', TestAgent::frame(agent::kCopyAuditTag, "<a b=\"1\"/>"));
  EXPECT_EQ("", TestAgent::frame("<A_TAG_OF_THIRTY_TWO_CHARACTERS>", "x"));  // the tag field holds its NUL
  const std::string big = response("<SecretCheckResult>" + std::string(20000, ' ') + "</SecretCheckResult>");
  const std::string wire = response(std::string(8200, 'w')), nine = response(std::string(9000, 'w'));
  const std::string none = response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>");
  // A hostile first datagram is followed by one that must never be read.
  const auto first = [](const std::string& bytes) { return std::vector<In>{dgram(bytes), dgram(std::string(8192, 'n'))}; };
  const auto answer = [](const std::string& xml) { return std::vector<In>{dgram(response(xml))}; };
  const std::string refused = "true pwd= action=0";
  const Row rows[] = {
      // Chunks of 8192 bytes; an acknowledgement (any bytes, from any loopback sender: another machine
      // is not heard) after every chunk but the last.
      {"one chunk", kSend, {}, "sent", "8192@7886 ", 0, 8155},
      {"the NUL alone", kSend, {dgram(kAck)}, "sent", "8192@7886 1z@7886 ", 1, 8156},
      {"three chunks", kSend, {dgram(kAck, 1111), dgram("zzzzz", 2222, 0x7f010203)}, "sent", "8192@7886 8192@7886 37@7886 ", 2, 16384},
      {"a foreign ack", kSend, {dgram(kAck, 1111, kForeign), dgram(kAck)}, "sent", "8192@7886 1z@7886 ", 2, 8156},
      {"failed send", kSend, {}, "send failed", "8192@7886 ", 0, 9000, 0},
      {"missing ack", kSend, {kFails}, "ack missing", "8192@7886 ", 1, 9000},
      // Reassembly: each further chunk preceded by a 128-byte zero acknowledgement to the first sender.
      {"three ports", kReceive, {dgram(big.substr(0, 8192), 41), dgram(big.substr(8192, 8192), 42), dgram(big.substr(16384), 43)},
       "frame " + big, "128z@41 128z@41 ", 3},
      {"a foreign chunk", kReceive, {dgram(nine.substr(0, 8192)), dgram(std::string(808, 'F'), 41, kForeign),
       dgram(nine.substr(8192))}, "frame " + nine, "128z@5000 ", 3},
      {"more than announced", kReceive, {dgram(wire.substr(0, 8192)), dgram(wire.substr(8192) + std::string(8000, 'E')),
       dgram(std::string(8192, 'E'))}, "frame " + wire, "128z@5000 ", 2},
      {"one datagram, more than announced", kReceive, first(response("<a/>") + "EEEE"), "frame " + response("<a/>"), "", 1},
      {"largest length: read on", kReceive, {dgram(header(16 << 20)), kFails}, "failed", "128z@5000 ", 2},
      {"ack send fails", kReceive, {dgram(nine.substr(0, 8192)), dgram(nine.substr(8192))}, "failed", "128z@5000 ", 1, 0, 0},
      {"zero-length chunk", kReceive, {dgram(nine.substr(0, 8192)), kFails}, "failed", "128z@5000 ", 2},
      {"receive error", kReceive, {}, "no frame", "", 1},
      {"truncated tag", kReceive, first("<FILECOPY_SECRET"), "wrong tag", "", 1},
      {"zero length", kReceive, first(header(0)), "no frame", "", 1},
      {"negative length", kReceive, first(header(-36) + "xx"), "no frame", "", 1},
      {"above 16 MiB", kReceive, first(header((16 << 20) + 1)), "no frame", "", 1},
      {"request tag", kReceive, first(header(5, kRequestTag) + "<a/>"), "wrong tag", "", 1},
      {"length 2", kReceive, first(header(2) + "<SecretCheckResult><SecretFile path=\"a\"/>"), "empty answer", "", 1},
      // The verdict: true refuses the operation (a transport failure too), false lets it go on.
      {"document order", kExchange, answer("<SecretCheckResult encryptedpwd=\"pw\" action=\"3\"><SecretFile path=\"C:\\a\"/>"
       "<EncryptedFile path=\"C:\\e\"/><Other path=\"C:\\o\"/><SecretFile path=\"C:\\b\"/></SecretCheckResult>"),
       "true S:C:\\a S:C:\\b E:C:\\e pwd=pw action=3", "47@7886 ", 1},
      {"names no file", kExchange, {dgram(none)}, "false pwd= action=0", "47@7886 ", 1},
      {"empty paths skipped", kExchange, answer("<SecretCheckResult encryptedpwd=\"p\" action=\"1\"><SecretFile path=\"\"/>"
       "<SecretFile/><EncryptedFile path=\"\"/></SecretCheckResult>"), "false pwd=p action=1", "47@7886 ", 1},
      {"another root", kExchange, answer("<SecretCheck><SecretFile path=\"x\"/></SecretCheck>"), "false pwd= action=0", "47@7886 ", 1},
      {"first element counts", kExchange, answer("<Other/><SecretCheckResult><EncryptedFile path=\"y\"/></SecretCheckResult>"),
       "true E:y pwd= action=0", "47@7886 ", 1},
      {"XML cut short", kExchange, answer("<SecretCheckResult action=\"1\"><SecretFile path=\"x\"/>"), refused, "47@7886 ", 1},
      {"empty answer", kExchange, {dgram(header(2) + "<SecretCheckResult><SecretFile path=\"x\"/>")}, "false pwd= action=0", "47@7886 ", 1},
      {"wrong tag", kExchange, {dgram(TestAgent::frame(agent::kCopyAuditTag, "<SecretCheckResult/>"))}, refused, "47@7886 ", 1},
      {"nothing received", kExchange, {}, refused, "47@7886 ", 1},
      {"foreign answers", kExchange, {dgram("", 6000, kForeign), dgram(none, 5000, kForeign), dgram(response("<SecretCheckResult "
       "action=\"1\"><SecretFile path=\"C:\\s\"/></SecretCheckResult>"))}, "true S:C:\\s pwd= action=1", "47@7886 ", 3},
      {"failed reassembly", kExchange, {dgram(nine.substr(0, 8192)), kFails}, refused, "47@7886 128z@5000 ", 2},
      {"send fails: no wait", kExchange, {dgram(none)}, refused, "47@7886 ", 0, 10, 0},
      {"missing ack ends only the sending", kExchange, {kFails, dgram(none)}, "false pwd= action=0", "8192@7886 ", 2, 9000},
  };
  for (const Row& row : rows) {
    MemoryIo io(row.script, row.fail_from);
    const std::string result = run(row, io);
    EXPECT_TRUE(row.result == result) << row.name << ": " << result.substr(0, 200);
    EXPECT_EQ(row.sent, io.log) << row.name;
    EXPECT_EQ(row.receives, io.receives) << row.name;
  }
}

// Over 127.0.0.1:7886: the gates send nothing (the record sent after them is the first frame); a
// request answered from another port; the report (which nothing sends yet) in two chunks. Then
// what the interceptors' scenario tables do not reach: escaping, the move code, the time as a
// signed value.
TEST(OverThePort, GatesRequestRecordAndReport) {
  TestAgent agent(AgentScript{true, {response("<SecretCheckResult encryptedpwd=\"k&amp;y\" action=\"1\"><SecretFile "
                                               "path=\"C:\\s\\a&amp;b.doc\"/></SecretCheckResult>")}, true});
  ASSERT_TRUE(agent.ok());
  SecretAuditResult r;
  g_policy_block.g_secret_audit = 0;
  EXPECT_FALSE(RequestSecretAudit({"C:\\a"}, {"D:\\"}, r));
  g_policy_block.g_secret_audit = 1;
  EXPECT_FALSE(RequestSecretAudit({}, {"D:\\"}, r));
  EXPECT_FALSE(RequestSecretAuditForShellLists(nullptr, L"D:\\\0", r));
  EXPECT_EQ(0, ReportOperationResult({}, {}, 1));
  EXPECT_EQ(1, send_copy_audit_record(kCopyAuditMove, "E:\\", {"C:\\a.txt"}));
  EXPECT_EQ("true S:C:\\s\\a&b.doc pwd=k&y action=1",
            describe(RequestSecretAuditForShellLists(L"C:\\s\\a&b.doc\0C:\\s\\\"\u00e9\u65e5\".txt\0", L"E:\\out<1>\0F:\\\0", r), r));
  EXPECT_EQ(1, ReportOperationResult({"C:\\" + std::string(9000, 'r')}, {"\xC3\xA9 & c"}, 4294967295u));
  ASSERT_TRUE(agent.wait_for_frames(3, 5000));
  const std::vector<std::string> frames = agent.frames();
  EXPECT_EQ(header(static_cast<int32_t>(frames[0].size() - 36), "<FILECOPYAUDIT_DATA>"), frames[0].substr(0, 36));
  EXPECT_EQ(36u, frames[0].find("<FilesCopy processname=\"agent_tests.exe\" operation=\"5\" flags=\"0\" time=\""));
  EXPECT_EQ(TestAgent::frame(kRequestTag, "<CopyFiles processname=\"agent_tests.exe\"><File path=\"C:\\s\\a&amp;b.doc\"/><File path=\"C:\\s\\"
                             "&quot;\xC3\xA9\xE6\x97\xA5&quot;.txt\"/><DstFolder path=\"E:\\out&lt;1&gt;\"/><DstFolder path=\"F:\\\"/></CopyFiles>"),
            frames[1]);
  EXPECT_EQ(TestAgent::frame("<FILECOPY_OPERATION_RESULT>", "<Data action=\"-1\"><File path=\"C:\\" + std::string(9000, 'r') +
                             "\"/><File path=\"\xC3\xA9 &amp; c\"/></Data>"), frames[2]);
  EXPECT_EQ("<FilesCopy processname=\"a&amp;b&lt;c&gt;&quot;d&apos;.exe\" operation=\"5\" flags=\"0\" time=\"-2147483648\" "
            "dstfloder=\"E:\\\xC3\xA9\" usersid=\"S-1-5-21-1\"><File filename=\"C:\\\xE6\x97\xA5.txt\"/></FilesCopy>",
            build_copy_audit_document("a&b<c>\"d'.exe", "S-1-5-21-1", kCopyAuditMove, "E:\\\xC3\xA9", {"C:\\\xE6\x97\xA5.txt"},
                                      2147483648u));
}

// A record waits 1000 ms for an acknowledgement, then gives up with 0 (a one-datagram record
// awaits none); a request has no time-out: still waiting after that, it takes a late answer. Its
// socket is bound to 127.0.0.1: an answer sent before to its port at another address of the
// machine (127.0.0.2 stands for one) never reaches it.
TEST(OverThePort, TimeOutsAndASilentAgent) {
  TestAgent agent(AgentScript{false});
  ASSERT_TRUE(agent.ok());
  g_policy_block.g_secret_audit = 1;
  SecretAuditResult r;
  std::atomic<bool> done{false};
  bool verdict = false;
  std::thread caller([&] { verdict = RequestSecretAudit({"C:\\a.txt"}, {"E:\\"}, r), done = true; });
  const bool asked = agent.wait_for_frames(1, 5000);
  const OwnedSocket stranger(socket(AF_INET, SOCK_DGRAM, 0));
  auto answer_from = [&](const char* ip, const std::string& bytes) {  // to the requester's port at `ip`
    sockaddr_in to = {AF_INET, htons(agent.requester_port())};
    to.sin_addr.s_addr = inet_addr(ip);
    return asked && sendto(stranger.get(), bytes.data(), static_cast<int>(bytes.size()), 0, reinterpret_cast<const sockaddr*>(&to),
                           sizeof to) == static_cast<int>(bytes.size());
  };
  EXPECT_TRUE(answer_from("127.0.0.2", response("<SecretCheckResult/>")));
  EXPECT_EQ(1, SendCopyAudit(std::string(8155, 'x')));
  const ULONGLONG start = GetTickCount64();
  EXPECT_EQ(0, SendCopyAudit(std::string(8156, 'x')));
  EXPECT_GE(GetTickCount64() - start, 900u);
  EXPECT_FALSE(done);
  EXPECT_TRUE(answer_from("127.0.0.1", response("<SecretCheckResult><SecretFile path=\"C:\\a.txt\"/></SecretCheckResult>")));
  caller.join();
  EXPECT_EQ("true S:C:\\a.txt pwd= action=0", describe(verdict, r));
}

// kwagent.exe answering from its rules (several chunks too; the empty answer when no source
// matches), one JSON line per message, exit code 3 when the port is taken.
TEST(Kwagent, AnswersFromItsRulesAndLogsEveryMessage) {
  std::vector<std::string> big;
  for (int i = 0; i < 500; ++i) big.push_back("C:\\big\\folder\\document-" + std::to_string(i) + ".docx");
  ASSERT_GT(build_secret_audit_request("agent_tests.exe", big, {"E:\\"}).size(), 2u * 8192u);
  const agent::WinsockSession winsock;  // the library's start-up at set-up, which this program skips
  ScratchDir dir;
  ASSERT_TRUE(write_file(dir.file(L"rules.txt"), "# secret documents, installers refused\r\nsecret \"C:\\data\\secret\\*\" "
                                 "\"pw 123\" 2\r\ndeny *.exe\r\nencrypted *\\enc\\*   # trailing comment\r\nsecret C:\\big\\* big-pw 1\n"
                                 "default empty\r\n"));
  const std::wstring pid = std::to_wstring(GetCurrentProcessId()), ready = L"kwagent-test-ready-" + pid;
  const OwnedHandle ready_event(CreateEventW(nullptr, TRUE, FALSE, ready.c_str()));
  ChildResult run;
  std::thread agent([&] {
    run = run_child(tool_path(L"kwagent"), L"--count 5 --ready " + ready + L" --parent " + pid +
                            L" --rules \"" + dir.file(L"rules.txt") + L"\" --log \"" + dir.file(L"log") + L"\"", 60000);
  });
  const bool up = WaitForSingleObject(ready_event.get(), 15000) == WAIT_OBJECT_0;
  g_policy_block.g_secret_audit = 1;
  const std::pair<std::vector<std::string>, std::string> rows[] = {  // sources, verdict
      {{"C:\\data\\secret\\plan.docx", "C:\\data\\open.txt", "C:\\x\\enc\\f.bin"},
       "true S:C:\\data\\secret\\plan.docx E:C:\\x\\enc\\f.bin pwd=pw 123 action=2"},
      {{"C:\\Tools\\Setup.EXE"}, "true S:C:\\Tools\\Setup.EXE pwd= action=0"},  // wildcards ignore case
      {{"C:\\data\\open.txt"}, "false pwd= action=0"},
      {big, describe(true, SecretAuditResult{big, {}, "big-pw", 1})},
  };
  for (const auto& [sources, verdict] : rows) {
    SecretAuditResult r;
    EXPECT_EQ(verdict, up ? describe(RequestSecretAudit(sources, {"E:\\"}, r), r) : "not ready");
  }
  EXPECT_TRUE(up && SendCopyAudit(build_copy_audit_document(kCopyAuditCopy, "E:\\backup", {"C:\\a.txt", "C:\\b"}, 2147483648u)));
  agent.join();
  EXPECT_EQ(run.exit_code, 0u);  // (255 when it was ended at the time-out)
  const std::string log = content(dir.file(L"log"));
  ASSERT_EQ(5, std::count(log.begin(), log.end(), '\n'));
  const std::string last = log.substr(log.rfind('\n', log.size() - 2) + 1);
  EXPECT_EQ(R"({"tag":"<FILECOPYAUDIT_DATA>","processname":"agent_tests.exe","operation":6,"destination":"E:\\backup",)"
            R"("usersid":")" + get_user_sid_string() + R"(","files":["C:\\a.txt","C:\\b"],"answer":null,"time":-2147483648,"flags":0)",
            last.substr(0, last.rfind(",\"from_port\":")));  // the requester's port: the system's choice
  TestAgent holder;
  ASSERT_TRUE(holder.ok());
  const ChildResult taken = run_child(tool_path(L"kwagent"), L"", 15000);
  EXPECT_EQ(taken.exit_code, 3u);
}

}  // namespace
