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

agent::DatagramAddress address(uint16_t port) {
  agent::DatagramAddress a;
  a.bytes[0] = 2;  // AF_INET
  a.bytes[2] = static_cast<unsigned char>(port >> 8);
  a.bytes[3] = static_cast<unsigned char>(port);
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
  EXPECT_EQ(header(1, "<FILECOPY_OPERATION_RESULT>") + '\0', frame(agent::kOperationResultTag, ""));
  EXPECT_EQ(header(1, kRequest) + '\0', frame(agent::kSecretAuditRequestTag, ""));
  EXPECT_EQ(header(1) + '\0', frame(agent::kSecretAuditResponseTag, ""));
  EXPECT_EQ("frame too long", frame("<A_TAG_OF_THIRTY_TWO_CHARACTERS>", "x"));
}

// Chunks of 8192 bytes to the agent; an acknowledgement (any bytes, from anyone) awaited after
// every chunk but the last.
TEST(FrameSending, ChunksAndAcknowledgements) {
  const struct {
    const char* name;
    size_t text;
    std::vector<In> script;
    int fail_send_from;
    SendStatus status;
    std::vector<size_t> sizes;
    int receives;
  } rows[] = {
      {"8155 characters: one datagram", 8155, {}, 1 << 30, SendStatus::kSent, {8192}, 0},
      {"8156: the NUL alone", 8156, {dgram(std::string(128, '\0'))}, 1 << 30, SendStatus::kSent, {8192, 1}, 1},
      {"three chunks", 16384, {dgram(std::string(128, '\0'), 1111), dgram("zzzzz", 2222)}, 1 << 30, SendStatus::kSent, {8192, 8192, 37}, 2},
      {"send fails", 9000, {}, 0, SendStatus::kSendFailed, {8192}, 0},
      {"no acknowledgement", 9000, {fails(0)}, 1 << 30, SendStatus::kAckMissing, {8192}, 1},
  };
  for (const auto& row : rows) {
    MemoryIo io(row.script, row.fail_send_from);
    const std::string text(row.text, 'q');
    EXPECT_EQ(row.status, agent::SendFrame(io, address(7886), agent::kCopyAuditTag, text)) << row.name;
    std::string joined;
    std::vector<size_t> sizes;
    for (const std::string& s : io.sent) sizes.push_back(s.size()), joined += s;
    EXPECT_EQ(row.sizes, sizes) << row.name;
    EXPECT_EQ(row.receives, io.receives) << row.name;
    EXPECT_EQ(std::vector<uint16_t>(io.sent.size(), 7886), io.ports) << row.name;
    EXPECT_EQ(0, frame(agent::kCopyAuditTag, text).compare(0, joined.size(), joined)) << row.name;
  }
}

// The first datagram decides; a longer frame is reassembled, each further chunk preceded by a
// 128-byte zero acknowledgement to the first datagram's sender.
TEST(FrameReceive, ReassemblyAndHostileDatagrams) {
  const std::string big = response("<SecretCheckResult>" + std::string(20000, ' ') + "</SecretCheckResult>");
  const std::string wire = response(std::string(8200, 'w'));  // 36 + 8201 bytes
  const std::string nine = response(std::string(9000, 'w'));
  const std::string tag_field = kResponse + '\0';
  std::string largest = header(16 << 20) + std::string(8192 - 36, 'a');
  std::vector<In> largest_script = {dgram(largest)};
  while (largest.size() < 36u + (16 << 20)) largest_script.push_back(dgram(std::string(8192, 'b'))), largest += std::string(8192, 'b');
  largest.resize(36 + (16 << 20));
  const auto first = [](const std::string& bytes) { return std::vector<In>{dgram(bytes), dgram(std::string(8192, 'n'))}; };
  const struct {
    const char* name;
    std::vector<In> script;
    int fail_send_from;
    ReceiveOutcome outcome;
    std::string frame;
    size_t acks;
    int receives;
  } rows[] = {
      {"three chunks from three ports", chunks(big, 4100), 1 << 30, ReceiveOutcome::kFrame, big, 2, 3},
      {"more than announced", {dgram(wire.substr(0, 8192)), dgram(wire.substr(8192) + std::string(8000, 'E')),
       dgram(std::string(8192, 'E'))}, 1 << 30, ReceiveOutcome::kFrame, wire, 1, 2},
      {"one datagram, longer than announced", first(response("<a/>") + std::string(500, 'E')), 1 << 30,
       ReceiveOutcome::kFrame, response("<a/>"), 0, 1},
      {"largest length", largest_script, 1 << 30, ReceiveOutcome::kFrame, largest, 2048, 2049},
      {"ack send fails", {dgram(nine.substr(0, 8192)), dgram(nine.substr(8192))}, 0, ReceiveOutcome::kFailed, "", 1, 1},
      {"zero-length chunk", {dgram(nine.substr(0, 8192)), fails(0)}, 1 << 30, ReceiveOutcome::kFailed, "", 1, 2},
      {"receive error in chunk", {dgram(nine.substr(0, 8192)), fails(-1)}, 1 << 30, ReceiveOutcome::kFailed, "", 1, 2},
      {"nothing", {fails(0)}, 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"receive error", {}, 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"truncated tag", first("<FILECOPY_SECRET"), 1 << 30, ReceiveOutcome::kWrongTag, "", 0, 1},
      {"tag without length", first(tag_field), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"half a length", first(header(2).substr(0, 34)), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"zero length", first(header(0)), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"negative length", first(header(-36) + "xx"), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"most negative length", first(header(INT32_MIN)), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"above 16 MiB", first(header((16 << 20) + 1)), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"largest int", first(header(INT32_MAX)), 1 << 30, ReceiveOutcome::kNoFrame, "", 0, 1},
      {"non-NUL at 31", first(kResponse + "X" + le32(5) + "<a/>"), 1 << 30, ReceiveOutcome::kWrongTag, "", 0, 1},
      {"request tag", first(header(5, kRequest) + "<a/>"), 1 << 30, ReceiveOutcome::kWrongTag, "", 0, 1},
      {"longer tag", first(kResponse.substr(0, 30) + std::string(2, '\0') + le32(5) + "<a/>"), 1 << 30,
       ReceiveOutcome::kWrongTag, "", 0, 1},
      {"length 2", first(header(2) + "<SecretCheckResult><SecretFile path=\"a\"/>"), 1 << 30,
       ReceiveOutcome::kEmptyAnswer, "", 0, 1},
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

// ExchangeSecretAudit: the request out, the verdict from the answer. True refuses the operation.
TEST(SecretVerdict, AnswersAndTransportOutcomes) {
  const std::string none = response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>");
  std::string bad31 = response("<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>");
  bad31[31] = '!';
  const std::string padded = response("<SecretCheckResult encryptedpwd=\"\" action=\"0\"/>" + std::string(9000, ' '));
  using V = std::vector<std::string>;
  const struct {
    const char* name;
    std::vector<In> script;
    size_t request;
    int fail_send_from;
    bool verdict;
    V secret, encrypted;
    const char* pwd;
    int action;
  } rows[] = {
      {"document order", {dgram(response("<SecretCheckResult encryptedpwd=\"pw\" action=\"3\"><SecretFile path=\"C:\\a\"/>"
       "<EncryptedFile path=\"C:\\e\"/><Other path=\"C:\\o\"/><SecretFile path=\"C:\\b\"/></SecretCheckResult>"))},
       10, 1 << 30, true, {"C:\\a", "C:\\b"}, {"C:\\e"}, "pw", 3},
      {"names no file", {dgram(none)}, 10, 1 << 30, false, {}, {}, "", 0},
      {"empty and missing paths skipped", {dgram(response("<SecretCheckResult encryptedpwd=\"p\" action=\"1\">"
       "<SecretFile path=\"\"/><SecretFile/><EncryptedFile path=\"\"/></SecretCheckResult>"))}, 10, 1 << 30, false,
       {}, {}, "p", 1},
      {"only encrypted files", {dgram(response("<SecretCheckResult action=\"5\"><EncryptedFile path=\"x\"/>"
       "</SecretCheckResult>"))}, 10, 1 << 30, true, {}, {"x"}, "", 5},
      {"no password or action", {dgram(response("<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>"))},
       10, 1 << 30, true, {"x"}, {}, "", 0},
      {"another root", {dgram(response("<SecretCheck encryptedpwd=\"p\" action=\"1\"><SecretFile path=\"x\"/>"
       "</SecretCheck>"))}, 10, 1 << 30, false, {}, {}, "", 0},
      {"first top-level element counts", {dgram(response("<Other/><SecretCheckResult action=\"2\"><SecretFile "
       "path=\"y\"/></SecretCheckResult>"))}, 10, 1 << 30, true, {"y"}, {}, "", 2},
      {"not XML", {dgram(response("SecretCheckResult"))}, 10, 1 << 30, true, {}, {}, "", 0},
      {"XML cut short", {dgram(response("<SecretCheckResult action=\"1\"><SecretFile path=\"x\"/>"))}, 10, 1 << 30,
       true, {}, {}, "", 0},
      {"non-ASCII path", {dgram(response("<SecretCheckResult action=\"1\"><SecretFile path=\"C:\\\xC3\xA9t\xC3\xA9\"/>"
       "</SecretCheckResult>"))}, 10, 1 << 30, true, {"C:\\\xC3\xA9t\xC3\xA9"}, {}, "", 1},
      {"length 2", {dgram(header(2) + "<SecretCheckResult><SecretFile path=\"x\"/></SecretCheckResult>")}, 10, 1 << 30,
       false, {}, {}, "", 0},
      {"non-NUL at 31", {dgram(bad31)}, 10, 1 << 30, true, {}, {}, "", 0},
      {"wrong tag", {dgram(frame("<FILECOPYAUDIT_DATA>", "<SecretCheckResult/>"))}, 10, 1 << 30, true, {}, {}, "", 0},
      {"zero-length datagram", {fails(0)}, 10, 1 << 30, true, {}, {}, "", 0},
      {"nothing received", {}, 10, 1 << 30, true, {}, {}, "", 0},
      {"negative length", {dgram(header(-1) + "<SecretCheckResult/>")}, 10, 1 << 30, true, {}, {}, "", 0},
      {"failed reassembly", {dgram(padded.substr(0, 8192)), fails(0)}, 10, 1 << 30, true, {}, {}, "", 0},
      {"send fails: no wait", {dgram(none)}, 10, 0, true, {}, {}, "", 0},
      {"missing ack ends only the sending", {fails(-1), dgram(none)}, 9000, 1 << 30, false, {}, {}, "", 0},
  };
  for (const auto& row : rows) {
    MemoryIo io(row.script, row.fail_send_from);
    SecretAuditResult r;
    const std::string request(row.request, 'c');
    EXPECT_EQ(row.verdict, ExchangeSecretAudit(io, address(7886), request, r)) << row.name;
    EXPECT_EQ(row.secret, r.secret_files) << row.name;
    EXPECT_EQ(row.encrypted, r.encrypted_files) << row.name;
    EXPECT_EQ(row.pwd, r.encrypted_pwd) << row.name;
    EXPECT_EQ(row.action, r.action) << row.name;
    ASSERT_FALSE(io.sent.empty()) << row.name;
    EXPECT_EQ(frame(kRequest, request).substr(0, 8192), io.sent[0]) << row.name;
    EXPECT_EQ(row.fail_send_from == 0 ? 0 : static_cast<int>(row.script.size()) + (row.script.empty() ? 1 : 0),
              io.receives) << row.name;
  }
  SecretAuditResult r;
  EXPECT_FALSE(ParseSecretAuditResponse(static_cast<const char*>(nullptr), 0, r));
  EXPECT_FALSE(ParseSecretAuditResponse(static_cast<const agent::AgentFrame*>(nullptr), r));
}

TEST(Documents, ByteForByte) {
  kwtest::ScratchDir dir;
  const std::wstring tree = dir.file(L"tree"), empty = dir.file(L"empty"), hollow = dir.file(L"hollow");
  for (const std::wstring& folder : {tree, tree + L"\\s", empty, hollow, hollow + L"\\inner"})
    CreateDirectoryW(folder.c_str(), nullptr);
  ASSERT_TRUE(kwtest::write_file(tree + L"\\s\\b.txt", "b"));
  ASSERT_TRUE(kwtest::write_file(dir.file(L"plain \u00e9.txt"), "p"));
  const std::string plain = kwtest::narrow(dir.file(L"plain \u00e9.txt")), t = kwtest::narrow(tree);
  const std::string record = "<FilesCopy processname=\"p\" operation=\"6\" flags=\"0\" time=\"7\" dstfloder=\"E:\\\" usersid=\"s\"";
  const std::pair<std::string, std::string> rows[] = {
      {BuildCopyAuditDocument("app.exe", "S-1-5-21-1-2-3-1001", kCopyAuditCopy, "E:\\out", {"C:\\missing\\a.txt"}, 12345u),
       "<FilesCopy processname=\"app.exe\" operation=\"6\" flags=\"0\" time=\"12345\" dstfloder=\"E:\\out\" "
       "usersid=\"S-1-5-21-1-2-3-1001\"><File filename=\"C:\\missing\\a.txt\"/></FilesCopy>"},
      {BuildCopyAuditDocument("p", "s", kCopyAuditMove, "d", {}, 2147483648u),
       "<FilesCopy processname=\"p\" operation=\"5\" flags=\"0\" time=\"-2147483648\" dstfloder=\"d\" usersid=\"s\"/>"},
      {BuildCopyAuditDocument("a&b<c>\"d'.exe", "s", kCopyAuditCopy, "E:\\\xC3\xA9", {"C:\\\xE6\x97\xA5.txt"}, 4294967295u),
       "<FilesCopy processname=\"a&amp;b&lt;c&gt;&quot;d&apos;.exe\" operation=\"6\" flags=\"0\" time=\"-1\" "
       "dstfloder=\"E:\\\xC3\xA9\" usersid=\"s\"><File filename=\"C:\\\xE6\x97\xA5.txt\"/></FilesCopy>"},
      {BuildCopyAuditDocument("p", "s", kCopyAuditCopy, "E:\\", {plain, kwtest::narrow(empty), t, kwtest::narrow(hollow)}, 7u),
       record + "><File filename=\"" + plain + "\"/><File filename=\"" + t + "\\s\\b.txt\"/></FilesCopy>"},
      {BuildCopyAuditDocument("p", "s", kCopyAuditCopy, "E:\\", {kwtest::narrow(empty)}, 7u), record + "/>"},
      {BuildCopyAuditDocument(kCopyAuditCopy, "E:\\", {"C:\\x"}, 9u),
       "<FilesCopy processname=\"" + get_process_name() + "\" operation=\"6\" flags=\"0\" time=\"9\" dstfloder=\"E:\\\" "
       "usersid=\"" + get_user_sid_string() + "\"><File filename=\"C:\\x\"/></FilesCopy>"},
      {BuildOperationResultDocument({"C:\\a", "C:\\b & c"}, {}, 4294967295u),
       "<Data action=\"-1\"><File path=\"C:\\a\"/><File path=\"C:\\b &amp; c\"/></Data>"},
      {BuildOperationResultDocument({"1"}, {"2", "\xC3\xA9"}, 2u),
       "<Data action=\"2\"><File path=\"1\"/><File path=\"2\"/><File path=\"\xC3\xA9\"/></Data>"},
      {BuildSecretAuditRequest("x&y.exe", {"C:\\1", "C:\\2"}, {"E:\\", "F:\\"}),
       "<CopyFiles processname=\"x&amp;y.exe\"><File path=\"C:\\1\"/><File path=\"C:\\2\"/><DstFolder path=\"E:\\\"/>"
       "<DstFolder path=\"F:\\\"/></CopyFiles>"},
  };
  for (const auto& [built, expected] : rows) EXPECT_EQ(expected, built);
  EXPECT_FALSE(get_process_name().empty());
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
  EXPECT_EQ(1, SendCopyAuditRecord(kCopyAuditMove, "E:\\", {"C:\\a.txt"}));
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
