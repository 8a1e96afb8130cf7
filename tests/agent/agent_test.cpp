// The agent channel: frames on the wire, the chunked sending and reassembly with their
// acknowledgements, the secret-audit verdicts, the documents byte for byte (through an
// in-memory transport), and the same over the real port against the test agent.
#include "test_agent.h"  // winsock2.h before windows.h

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <deque>
#include <thread>

#include "agent/agent_frame.h"
#include "agent/copy_audit.h"
#include "agent/operation_result.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/policy_block.h"
#include "kwtest.h"
#include "protect/audited_files.h"

namespace {

using agent::ReceiveOutcome;
using agent::SendStatus;
const std::string kResponse = "<FILECOPY_SECRETAUDIT_RESPONSE>", kRequest = "<FILECOPY_SECRETAUDIT_REQUEST>";

std::string le32(int32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); }
// A header written by hand: tag, zeros to 32 bytes, the length field.
std::string header(int32_t length, const std::string& tag = kResponse) {
  return tag + std::string(32 - tag.size(), '\0') + le32(length);
}
// A frame from the library's encoder (its layout is pinned by FrameOnTheWire).
std::string frame(const std::string& tag, const std::string& text) {
  agent::AgentFrame f;
  return f.Build(tag.c_str(), text) ? std::string(f.data(), f.size()) : "frame too long";
}
std::string response(const std::string& text) { return frame(kResponse, text); }

agent::DatagramAddress address(uint16_t port) {  // AF_INET, the port big-endian
  agent::DatagramAddress a;
  a.bytes[0] = 2, a.bytes[2] = static_cast<unsigned char>(port >> 8), a.bytes[3] = static_cast<unsigned char>(port);
  a.length = 16;
  return a;
}

// Datagrams from memory: each receive takes one scripted entry (bytes from a port, or a result of
// 0 or less); an empty script reads as a receive error. Sends are recorded with their port.
struct In {
  int result;
  std::string bytes;
  uint16_t port;
};
In dgram(const std::string& bytes, uint16_t port = 5000) { return {1, bytes, port}; }
In fails(int result) { return {result, "", 0}; }

struct MemoryIo : agent::DatagramIo {
  explicit MemoryIo(const std::vector<In>& script, int fail_send_from = 1 << 30)
      : in(script.begin(), script.end()), fail_from(fail_send_from) {}
  int SendTo(const char* data, int size, const agent::DatagramAddress& to) override {
    sent.push_back(std::string(data, size));
    ports.push_back(static_cast<uint16_t>(to.bytes[2] << 8 | to.bytes[3]));
    return static_cast<int>(sent.size()) > fail_from ? -1 : size;
  }
  int ReceiveFrom(char* buffer, int capacity, agent::DatagramAddress* from) override {
    ++receives;
    if (in.empty()) return -1;
    const In next = in.front();
    in.pop_front();
    if (next.result <= 0) return next.result;
    const int n = std::min(static_cast<int>(next.bytes.size()), capacity);
    std::memcpy(buffer, next.bytes.data(), n);
    *from = address(next.port);
    return n;
  }
  std::deque<In> in;
  int fail_from, receives = 0;
  std::vector<std::string> sent;
  std::vector<uint16_t> ports;
};

std::vector<In> chunks(const std::string& bytes, uint16_t first_port = 5000) {
  std::vector<In> out;
  for (size_t at = 0; at < bytes.size(); at += 8192) out.push_back(dgram(bytes.substr(at, 8192), first_port++));
  return out;
}

TEST(FrameOnTheWire, TagNulZerosLengthTextNul) {
  EXPECT_EQ(std::string("<FILECOPYAUDIT_DATA>", 20) + std::string(12, '\0') + le32(11) + "<a b=\"1\"/>" + '\0',
            frame(agent::kCopyAuditTag, "<a b=\"1\"/>"));
  EXPECT_EQ("frame too long", frame("<A_TAG_OF_THIRTY_TWO_CHARACTERS>", "x"));
}

// Chunks of 8192 bytes to the agent; an acknowledgement (any bytes, from anyone) awaited after
// every chunk but the last.
TEST(FrameSending, ChunksAndAcknowledgements) {
  const struct {
    size_t text;
    std::vector<In> script;
    SendStatus status;
    std::vector<size_t> sizes;
    int fail_send_from = 1 << 30;
  } rows[] = {
      {8155, {}, SendStatus::kSent, {8192}},
      {8156, {dgram(std::string(128, '\0'))}, SendStatus::kSent, {8192, 1}},  // the NUL alone
      {16384, {dgram(std::string(128, '\0'), 1111), dgram("zzzzz", 2222)}, SendStatus::kSent, {8192, 8192, 37}},
      {9000, {}, SendStatus::kSendFailed, {8192}, 0},
      {9000, {fails(0)}, SendStatus::kAckMissing, {8192}},
  };
  for (const auto& row : rows) {
    MemoryIo io(row.script, row.fail_send_from);
    const std::string text(row.text, 'q');
    EXPECT_EQ(row.status, agent::SendFrame(io, address(7886), agent::kCopyAuditTag, text)) << row.text;
    std::string joined;
    std::vector<size_t> sizes;
    for (const std::string& s : io.sent) sizes.push_back(s.size()), joined += s;
    EXPECT_EQ(row.sizes, sizes) << row.text;
    EXPECT_EQ(static_cast<int>(row.script.size()), io.receives) << row.text;
    EXPECT_EQ(std::vector<uint16_t>(io.sent.size(), 7886), io.ports) << row.text;
    EXPECT_EQ(0, frame(agent::kCopyAuditTag, text).compare(0, joined.size(), joined)) << row.text;
  }
}

// The first datagram decides; a longer frame is reassembled, each further chunk preceded by a
// 128-byte zero acknowledgement to the first datagram's sender. Hostile first datagrams are
// followed by one that must never be read.
TEST(FrameReceive, ReassemblyAndHostileDatagrams) {
  const std::string big = response("<SecretCheckResult>" + std::string(20000, ' ') + "</SecretCheckResult>");
  const std::string wire = response(std::string(8200, 'w')), nine = response(std::string(9000, 'w'));
  std::string largest = header(16 << 20) + std::string(8192 - 36, 'a');
  std::vector<In> largest_script = {dgram(largest)};
  while (largest.size() < 36u + (16 << 20)) largest_script.push_back(dgram(std::string(8192, 'b'))), largest += std::string(8192, 'b');
  largest.resize(36 + (16 << 20));
  const auto first = [](const std::string& bytes) { return std::vector<In>{dgram(bytes), dgram(std::string(8192, 'n'))}; };
  using O = ReceiveOutcome;
  const struct {
    const char* name;
    std::vector<In> script;
    ReceiveOutcome outcome;
    std::string frame = "";
    size_t acks = 0;
    int receives = 1, fail_send_from = 1 << 30;
  } rows[] = {
      {"three chunks from three ports", chunks(big, 4100), O::kFrame, big, 2, 3},
      {"more than announced", {dgram(wire.substr(0, 8192)), dgram(wire.substr(8192) + std::string(8000, 'E')),
                               dgram(std::string(8192, 'E'))}, O::kFrame, wire, 1, 2},
      {"one datagram, longer than announced", first(response("<a/>") + "EEEE"), O::kFrame, response("<a/>")},
      {"largest length", largest_script, O::kFrame, largest, 2048, 2049},
      {"ack send fails", {dgram(nine.substr(0, 8192)), dgram(nine.substr(8192))}, O::kFailed, "", 1, 1, 0},
      {"zero-length chunk", {dgram(nine.substr(0, 8192)), fails(0)}, O::kFailed, "", 1, 2},
      {"receive error in chunk", {dgram(nine.substr(0, 8192)), fails(-1)}, O::kFailed, "", 1, 2},
      {"nothing", {fails(0)}, O::kNoFrame},
      {"receive error", {}, O::kNoFrame},
      {"truncated tag", first("<FILECOPY_SECRET"), O::kWrongTag},
      {"tag without length", first(kResponse + '\0'), O::kNoFrame},
      {"half a length", first(header(2).substr(0, 34)), O::kNoFrame},
      {"zero length", first(header(0)), O::kNoFrame},
      {"negative length", first(header(-36) + "xx"), O::kNoFrame},
      {"most negative length", first(header(INT32_MIN)), O::kNoFrame},
      {"above 16 MiB", first(header((16 << 20) + 1)), O::kNoFrame},
      {"largest int", first(header(INT32_MAX)), O::kNoFrame},
      {"non-NUL at 31", first(kResponse + "X" + le32(5) + "<a/>"), O::kWrongTag},
      {"request tag", first(header(5, kRequest) + "<a/>"), O::kWrongTag},
      {"longer tag", first(kResponse.substr(0, 30) + std::string(2, '\0') + le32(5) + "<a/>"), O::kWrongTag},
      {"length 2", first(header(2) + "<SecretCheckResult><SecretFile path=\"a\"/>"), O::kEmptyAnswer},
  };
  for (const auto& row : rows) {
    MemoryIo io(row.script, row.fail_send_from);
    agent::AgentFrame f;
    EXPECT_EQ(row.outcome, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &f)) << row.name;
    EXPECT_TRUE(row.frame == std::string(f.data() ? f.data() : "", f.size())) << row.name;
    EXPECT_EQ(row.receives, io.receives) << row.name;
    EXPECT_EQ(std::vector<std::string>(row.acks, std::string(128, '\0')), io.sent) << row.name;
    EXPECT_EQ(std::vector<uint16_t>(row.acks, row.script.empty() ? 0 : row.script[0].port), io.ports) << row.name;
  }
}

std::string describe(bool verdict, const SecretAuditResult& r) {
  std::string s = verdict ? "true" : "false";
  for (const std::string& path : r.secret_files) s += " S:" + path;
  for (const std::string& path : r.encrypted_files) s += " E:" + path;
  return s + " pwd=" + r.encrypted_pwd + " action=" + std::to_string(r.action);
}

// exchange_secret_audit: the request out, the verdict from the answer. True refuses the operation
// (a transport failure too); false lets it go on.
TEST(SecretVerdict, AnswersAndTransportOutcomes) {
  const std::string none = response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>"), refused = "true pwd= action=0";
  const std::string padded = response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>" + std::string(9000, ' '));
  const auto answer = [](const std::string& xml) { return std::vector<In>{dgram(response(xml))}; };
  const struct {
    const char* name;
    std::vector<In> script;
    std::string verdict;
    int receives = 1, fail_send_from = 1 << 30;
    size_t request = 10;
  } rows[] = {
      {"document order", answer("<SecretCheckResult encryptedpwd=\"pw\" action=\"3\"><SecretFile path=\"C:\\a\"/><Encrypted"
       "File path=\"C:\\e\"/><Other path=\"C:\\o\"/><SecretFile path=\"C:\\b\"/></SecretCheckResult>"),
       "true S:C:\\a S:C:\\b E:C:\\e pwd=pw action=3"},
      {"names no file", {dgram(none)}, "false pwd= action=0"},
      {"empty and missing paths skipped", answer("<SecretCheckResult encryptedpwd=\"p\" action=\"1\"><SecretFile path="
       "\"\"/><SecretFile/><EncryptedFile path=\"\"/></SecretCheckResult>"), "false pwd=p action=1"},
      {"only encrypted files", answer("<SecretCheckResult action=\"5\"><EncryptedFile path=\"x\"/></SecretCheckResult>"),
       "true E:x pwd= action=5"},
      {"no password or action", answer("<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>"),
       "true S:x pwd= action=0"},
      {"another root", answer("<SecretCheck encryptedpwd=\"p\" action=\"1\"><SecretFile path=\"x\"/></SecretCheck>"),
       "false pwd= action=0"},
      {"first top-level element counts", answer("<Other/><SecretCheckResult action=\"2\"><SecretFile path=\"y\"/>"
       "</SecretCheckResult>"), "true S:y pwd= action=2"},
      {"XML cut short", answer("<SecretCheckResult action=\"1\"><SecretFile path=\"x\"/>"), refused},
      {"length 2", {dgram(header(2) + "<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>")}, "false pwd= action=0"},
      {"wrong tag", {dgram(frame("<FILECOPYAUDIT_DATA>", "<SecretCheckResult/>"))}, refused},
      {"nothing received", {}, refused},
      {"failed reassembly", {dgram(padded.substr(0, 8192)), fails(0)}, refused, 2},
      {"send fails: no wait", {dgram(none)}, refused, 0, 0},
      {"missing ack ends only the sending", {fails(-1), dgram(none)}, "false pwd= action=0", 2, 1 << 30, 9000},
  };
  for (const auto& row : rows) {
    MemoryIo io(row.script, row.fail_send_from);
    SecretAuditResult r;
    const std::string request(row.request, 'c');
    EXPECT_EQ(row.verdict, describe(exchange_secret_audit(io, address(7886), request, r), r)) << row.name;
    EXPECT_EQ(row.receives, io.receives) << row.name;
    ASSERT_FALSE(io.sent.empty()) << row.name;
    EXPECT_EQ(frame(kRequest, request).substr(0, 8192), io.sent[0]) << row.name;
  }
  SecretAuditResult r;
  EXPECT_FALSE(ParseSecretAuditResponse(static_cast<const char*>(nullptr), 0, r));
  EXPECT_FALSE(ParseSecretAuditResponse(static_cast<const agent::AgentFrame*>(nullptr), r));
}

// The documents' own rules; the request's escaping and the report are pinned over the port below.
TEST(Documents, ByteForByte) {
  kwtest::ScratchDir dir;
  const std::wstring tree = dir.file(L"tree"), empty = dir.file(L"empty"), hollow = dir.file(L"hollow");
  for (const std::wstring& folder : {tree, tree + L"\\s", empty, hollow, hollow + L"\\inner"})
    CreateDirectoryW(folder.c_str(), nullptr);
  ASSERT_TRUE(kwtest::write_file(tree + L"\\s\\b.txt", "b") && kwtest::write_file(dir.file(L"plain \u00e9.txt"), "p"));
  const std::string plain = kwtest::narrow(dir.file(L"plain \u00e9.txt")), t = kwtest::narrow(tree), e = kwtest::narrow(empty);
  const std::string record = "<FilesCopy processname=\"p\" operation=\"6\" flags=\"0\" time=\"7\" dstfloder=\"E:\\\" usersid=\"s\"";
  const std::pair<std::string, std::string> rows[] = {
      {build_copy_audit_document("a&b<c>\"d'.exe", "S-1-5-21-1", kCopyAuditCopy, "E:\\\xC3\xA9",
                                 {"C:\\\xE6\x97\xA5.txt"}, 12345u),
       "<FilesCopy processname=\"a&amp;b&lt;c&gt;&quot;d&apos;.exe\" operation=\"6\" flags=\"0\" time=\"12345\" "
       "dstfloder=\"E:\\\xC3\xA9\" usersid=\"S-1-5-21-1\"><File filename=\"C:\\\xE6\x97\xA5.txt\"/></FilesCopy>"},
      {build_copy_audit_document("p", "s", kCopyAuditMove, "d", {}, 2147483648u),
       "<FilesCopy processname=\"p\" operation=\"5\" flags=\"0\" time=\"-2147483648\" dstfloder=\"d\" usersid=\"s\"/>"},
      {build_copy_audit_document("p", "s", kCopyAuditCopy, "E:\\",
                                 list_audited_files({plain, e, t, kwtest::narrow(hollow)}), 7u),
       record + "><File filename=\"" + plain + "\"/><File filename=\"" + t + "\\s\\b.txt\"/></FilesCopy>"},
      {build_copy_audit_document("p", "s", kCopyAuditCopy, "E:\\", list_audited_files({e}), 7u), record + "/>"},
      {build_operation_result_document({"C:\\b & c"}, {"\xC3\xA9"}, 4294967295u),
       "<Data action=\"-1\"><File path=\"C:\\b &amp; c\"/><File path=\"\xC3\xA9\"/></Data>"},
  };
  for (const auto& [built, expected] : rows) EXPECT_EQ(expected, built);
}

struct SecretAuditOn {
  SecretAuditOn(uint32_t value = 1) : saved(g_policy_block.g_secret_audit) { g_policy_block.g_secret_audit = value; }
  ~SecretAuditOn() { g_policy_block.g_secret_audit = saved; }
  uint32_t saved;
};

// Over 127.0.0.1:7886: the gates send nothing (the record sent after them is the first frame),
// requests and the report byte for byte, answers from another port.
TEST(OverThePort, RequestsRecordAndReport) {
  kwtest::AgentScript script;
  script.reply = {response("<SecretCheckResult encryptedpwd=\"k&amp;y\" action=\"1\"><SecretFile "
                           "path=\"C:\\s\\a&amp;b.doc\"/></SecretCheckResult>")};
  script.reply_from_other_port = true;
  kwtest::TestAgent agent(script);
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
  EXPECT_FALSE(RequestSecretAuditForShellLists(L"\0", L"D:\\\0", r));
  EXPECT_EQ(0, ReportOperationResult({}, {}, 1));
  EXPECT_EQ(1, send_copy_audit_record(kCopyAuditMove, "E:\\", {"C:\\a.txt"}));
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  const std::string record = agent.frames()[0];
  EXPECT_EQ(header(static_cast<int32_t>(record.size() - 36), "<FILECOPYAUDIT_DATA>"), record.substr(0, 36));
  EXPECT_EQ(36u, record.find("<FilesCopy processname=\"" + get_process_name() + "\" operation=\"5\" flags=\"0\" time=\""));

  EXPECT_TRUE(RequestSecretAudit({"C:\\s\\a&b.doc", "C:\\s\\\"q\".txt"}, {"E:\\out<1>"}, r));
  EXPECT_EQ(std::vector<std::string>{"C:\\s\\a&b.doc"}, r.secret_files);
  EXPECT_EQ("k&y", r.encrypted_pwd);
  SecretAuditResult shell;
  EXPECT_TRUE(RequestSecretAuditForShellLists(L"C:\\d\\\u00e9t\u00e9.txt\0C:\\d\\\u65e5.txt\0", L"F:\\x\0F:\\y\0", shell));
  EXPECT_EQ(1, ReportOperationResult({"C:\\" + std::string(9000, 'r')}, {"D:\\b"}, 7));  // two chunks
  ASSERT_TRUE(agent.wait_for_frames(4, 5000));
  const std::string process = "<CopyFiles processname=\"" + get_process_name() + "\">";
  EXPECT_EQ(frame(kRequest, process + "<File path=\"C:\\s\\a&amp;b.doc\"/><File path=\"C:\\s\\&quot;q&quot;.txt\"/>"
                  "<DstFolder path=\"E:\\out&lt;1&gt;\"/></CopyFiles>"), agent.frames()[1]);
  EXPECT_EQ(frame(kRequest, process + "<File path=\"C:\\d\\\xC3\xA9t\xC3\xA9.txt\"/><File path=\"C:\\d\\\xE6\x97\xA5.txt\"/>"
                  "<DstFolder path=\"F:\\x\"/><DstFolder path=\"F:\\y\"/></CopyFiles>"), agent.frames()[2]);
  EXPECT_EQ(frame("<FILECOPY_OPERATION_RESULT>", "<Data action=\"7\"><File path=\"C:\\" + std::string(9000, 'r') +
                  "\"/><File path=\"D:\\b\"/></Data>"), agent.frames()[3]);
}

// Records and reports wait 1000 ms for an acknowledgement, then give up with 0; a request has no
// time-out and waits for its answer.
TEST(OverThePort, TimeOutsAndASilentAgent) {
  {
    kwtest::AgentScript script;
    script.acknowledge = false;
    kwtest::TestAgent agent(script);
    ASSERT_TRUE(agent.ok());
    EXPECT_EQ(1, SendCopyAudit(std::string(8155, 'x')));  // one datagram: nothing awaited
    for (int i = 0; i < 2; ++i) {
      const ULONGLONG start = GetTickCount64();
      EXPECT_EQ(0, i == 0 ? SendCopyAudit(std::string(8156, 'x')) : ReportOperationResult({std::string(9000, 'p')}, {}, 1));
      EXPECT_GE(GetTickCount64() - start, 900u);
      EXPECT_LT(GetTickCount64() - start, 10000u);
    }
    ASSERT_TRUE(agent.wait_for_datagrams(3, 5000));
    const auto datagrams = agent.datagrams();
    EXPECT_EQ(frame(agent::kCopyAuditTag, std::string(8155, 'x')), datagrams[0].bytes);
    EXPECT_EQ(0, datagrams[1].bytes.compare(0, 20, "<FILECOPYAUDIT_DATA>"));
    EXPECT_EQ(0, datagrams[2].bytes.compare(0, 27, "<FILECOPY_OPERATION_RESULT>"));
  }
  kwtest::TestAgent agent;  // acknowledges, answers nothing until told
  ASSERT_TRUE(agent.ok());
  SecretAuditOn on;
  SecretAuditResult r;
  std::atomic<bool> done{false};
  bool verdict = false;
  std::thread caller([&] { verdict = RequestSecretAudit({"C:\\a.txt"}, {"E:\\"}, r), done = true; });
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  Sleep(1500);  // longer than any time-out the library sets elsewhere
  EXPECT_FALSE(done);
  ASSERT_TRUE(agent.send_to_requester(response("<SecretCheckResult action=\"0\"><SecretFile path=\"C:\\a.txt\"/>"
                                               "</SecretCheckResult>")));
  caller.join();
  EXPECT_TRUE(verdict);
  EXPECT_EQ(std::vector<std::string>{"C:\\a.txt"}, r.secret_files);
}

// The copy audit record relies on a Winsock start-up made by the library at set-up; here the
// test program makes it.
struct Winsock : testing::Environment {
  void SetUp() override {
    WSADATA data;
    ASSERT_EQ(0, WSAStartup(MAKEWORD(2, 2), &data));
  }
  void TearDown() override { WSACleanup(); }
};
testing::Environment* const g_winsock = testing::AddGlobalTestEnvironment(new Winsock);

}  // namespace
