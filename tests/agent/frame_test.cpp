// The frame on the wire and its chunked exchange: layout, the one-datagram boundary, the
// acknowledgements, and what hostile datagrams do to the reassembly.
#include "agent_test_support.h"

#include <cstring>

#include <gtest/gtest.h>

#include "agent/agent_channel.h"
#include "agent/copy_audit.h"
#include "agent/operation_result.h"

using agenttest::MemoryIo;

namespace {

const std::string kResponseTag = "<FILECOPY_SECRETAUDIT_RESPONSE>";

std::string le32(int32_t value) {
  std::string out(4, '\0');
  std::memcpy(&out[0], &value, 4);
  return out;
}

TEST(FrameLayout, TagNulZerosLengthTextNul) {
  agent::AgentFrame frame;
  ASSERT_TRUE(frame.Build(agent::kCopyAuditTag, "<a b=\"1\"/>"));
  std::string expected = "<FILECOPYAUDIT_DATA>";
  expected += std::string(32 - expected.size(), '\0');  // the NUL and the zero padding
  expected += le32(11) + "<a b=\"1\"/>" + std::string(1, '\0');
  EXPECT_EQ(expected, std::string(frame.data(), frame.size()));
  EXPECT_EQ(11, frame.length_field());
}

TEST(FrameLayout, EveryTagFitsItsField) {
  for (const char* tag : {agent::kSecretAuditRequestTag, agent::kSecretAuditResponseTag, agent::kCopyAuditTag,
                          agent::kOperationResultTag}) {
    agent::AgentFrame frame;
    ASSERT_TRUE(frame.Build(tag, ""));
    EXPECT_EQ(37u, frame.size()) << tag;
    EXPECT_STREQ(tag, frame.data());
  }
  EXPECT_EQ(31u, std::strlen(agent::kSecretAuditResponseTag));
  agent::AgentFrame too_long;
  EXPECT_FALSE(too_long.Build("<A_TAG_OF_THIRTY_TWO_CHARACTERS>", "x"));
}

// Over the real port: 8155 characters still fit one datagram, so nothing is awaited even from
// an agent that never acknowledges; one more needs exactly one acknowledgement.
TEST(FrameBoundary, DocumentOf8155CharactersIsOneDatagram) {
  kwtest::AgentScript script;
  script.acknowledge = false;
  kwtest::TestAgent agent(script);
  ASSERT_TRUE(agent.ok());
  const std::string text(8155, 'x');
  EXPECT_EQ(1, SendCopyAudit(text));
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  const auto datagrams = agent.datagrams();
  ASSERT_EQ(1u, datagrams.size());
  EXPECT_EQ(8192u, datagrams[0].bytes.size());
  agent::AgentFrame expected;
  ASSERT_TRUE(expected.Build(agent::kCopyAuditTag, text));
  EXPECT_EQ(std::string(expected.data(), expected.size()), datagrams[0].bytes);
}

TEST(FrameBoundary, DocumentOf8156CharactersIsTwoDatagramsWithOneAcknowledgement) {
  kwtest::TestAgent agent;
  ASSERT_TRUE(agent.ok());
  const std::string text(8156, 'y');
  EXPECT_EQ(1, SendCopyAudit(text));
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  const auto datagrams = agent.datagrams();
  ASSERT_EQ(2u, datagrams.size());
  EXPECT_EQ(8192u, datagrams[0].bytes.size());
  ASSERT_EQ(1u, datagrams[1].bytes.size());
  EXPECT_EQ('\0', datagrams[1].bytes[0]);  // the text's NUL travels alone
  EXPECT_EQ(1u, agent.acks_sent());
  EXPECT_EQ(le32(8157), datagrams[0].bytes.substr(32, 4));
}

TEST(FrameBoundary, ThreeChunksAwaitTwoAcknowledgementsFromAnyone) {
  MemoryIo io;
  io.push(std::string(128, '\0'), 1111);
  io.push(std::string(5, 'z'), 2222);  // content and sender of an acknowledgement do not matter
  const std::string text(2 * 8192, 'q');
  EXPECT_EQ(agent::SendStatus::kSent, agent::SendFrame(io, agenttest::address_with_port(7886), agent::kCopyAuditTag, text));
  ASSERT_EQ(3u, io.sent.size());
  EXPECT_EQ(8192u, io.sent[0].bytes.size());
  EXPECT_EQ(8192u, io.sent[1].bytes.size());
  EXPECT_EQ(36u + 1u, io.sent[2].bytes.size());
  EXPECT_EQ(2, io.receives);
  for (const auto& s : io.sent) EXPECT_EQ(7886, agenttest::port_of(s.to));
}

TEST(FrameSending, FailedSendAndMissingAcknowledgementAreToldApart) {
  const std::string text(9000, 'q');
  MemoryIo refused;
  refused.fail_send_from = 0;
  EXPECT_EQ(agent::SendStatus::kSendFailed,
            agent::SendFrame(refused, agenttest::address_with_port(7886), agent::kCopyAuditTag, text));
  EXPECT_EQ(0, refused.receives);

  MemoryIo silent;
  silent.push_result(0);
  EXPECT_EQ(agent::SendStatus::kAckMissing,
            agent::SendFrame(silent, agenttest::address_with_port(7886), agent::kCopyAuditTag, text));
  EXPECT_EQ(1u, silent.sent.size());  // the rest is not sent
}

// Audit records and result reports wait 1000 ms for an acknowledgement, then give up with 0.
TEST(FrameSending, RecordAndReportGiveUpWithoutAcknowledgement) {
  kwtest::AgentScript script;
  script.acknowledge = false;
  kwtest::TestAgent agent(script);
  ASSERT_TRUE(agent.ok());
  const std::string long_path = "C:\\" + std::string(9000, 'p');

  ULONGLONG start = GetTickCount64();
  EXPECT_EQ(0, SendCopyAudit(std::string(8156, 'x')));
  ULONGLONG waited = GetTickCount64() - start;
  EXPECT_GE(waited, 900u);  // the 1000 ms receive time-out was set, not an immediate failure
  EXPECT_LT(waited, 10000u);

  start = GetTickCount64();
  EXPECT_EQ(0, ReportOperationResult({long_path}, {}, 1));
  waited = GetTickCount64() - start;
  EXPECT_GE(waited, 900u);
  EXPECT_LT(waited, 10000u);

  ASSERT_TRUE(agent.wait_for_datagrams(2, 5000));
  Sleep(200);
  const auto datagrams = agent.datagrams();
  ASSERT_EQ(2u, datagrams.size());  // only the first chunk of each
  EXPECT_EQ(0, datagrams[0].bytes.compare(0, 20, "<FILECOPYAUDIT_DATA>"));
  EXPECT_EQ(0, datagrams[1].bytes.compare(0, 27, "<FILECOPY_OPERATION_RESULT>"));
}

TEST(FrameSending, ReportIsSentAndAcknowledged) {
  kwtest::TestAgent agent;
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(1, ReportOperationResult({"C:\\" + std::string(9000, 'r')}, {"D:\\b"}, 7));
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  EXPECT_EQ(1u, agent.acks_sent());
  const std::string frame = agent.frames()[0];
  EXPECT_EQ("<Data action=\"7\"><File path=\"C:\\" + std::string(9000, 'r') + "\"/><File path=\"D:\\b\"/></Data>",
            std::string(frame.c_str() + 36));
}

// ---- reassembly of the response ----

TEST(FrameReceive, MultiChunkResponseIsReassembledAndAcknowledgedToItsSender) {
  const std::string text = "<SecretCheckResult>" + std::string(20000, ' ') + "</SecretCheckResult>";
  const std::string wire = agenttest::response(text);
  MemoryIo io;
  const auto parts = agenttest::chunks(wire, 8192);
  ASSERT_EQ(3u, parts.size());
  io.push(parts[0], 4100);
  io.push(parts[1], 4200);  // later chunks are accepted from anyone
  io.push(parts[2], 4300);
  agent::AgentFrame frame;
  ASSERT_EQ(agent::ReceiveOutcome::kFrame, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame));
  EXPECT_EQ(wire, std::string(frame.data(), frame.size()));
  ASSERT_EQ(2u, io.sent.size());
  for (const auto& ack : io.sent) {
    EXPECT_EQ(std::string(128, '\0'), ack.bytes);
    EXPECT_EQ(4100, agenttest::port_of(ack.to));  // the first datagram's sender
  }
}

struct Hostile {
  const char* name;
  std::string first;
  agent::ReceiveOutcome outcome;
};

TEST(FrameReceive, HostileFirstDatagrams) {
  const std::string tag_field = kResponseTag + std::string(1, '\0');
  std::string nonnul_at_31 = kResponseTag + "X" + le32(5) + "<a/>" + std::string(1, '\0');
  std::string longer_tag = "<FILECOPY_SECRETAUDIT_RESPONSE" + std::string(2, '\0') + le32(5) + "<a/>";
  const Hostile cases[] = {
      {"truncated tag", "<FILECOPY_SECRET", agent::ReceiveOutcome::kWrongTag},
      {"tag without length", tag_field, agent::ReceiveOutcome::kNoFrame},
      {"half a length", tag_field + std::string("\x02\x00", 2), agent::ReceiveOutcome::kNoFrame},
      {"zero length", tag_field + le32(0), agent::ReceiveOutcome::kNoFrame},
      {"negative length", tag_field + le32(-36) + "xx", agent::ReceiveOutcome::kNoFrame},
      {"most negative length", tag_field + le32(INT32_MIN), agent::ReceiveOutcome::kNoFrame},
      {"above 16 MiB", tag_field + le32(16 * 1024 * 1024 + 1), agent::ReceiveOutcome::kNoFrame},
      {"largest length", tag_field + le32(INT32_MAX), agent::ReceiveOutcome::kNoFrame},
      {"non-NUL at 31", nonnul_at_31, agent::ReceiveOutcome::kWrongTag},
      {"request tag", kwtest::TestAgent::frame("<FILECOPY_SECRETAUDIT_REQUEST>", "<a/>"), agent::ReceiveOutcome::kWrongTag},
      {"other tag", longer_tag, agent::ReceiveOutcome::kWrongTag},
      {"length 2", tag_field + le32(2) + "<SecretCheckResult><SecretFile path=\"a\"/>", agent::ReceiveOutcome::kEmptyAnswer},
  };
  for (const Hostile& c : cases) {
    MemoryIo io;
    io.push(c.first);
    io.push(std::string(8192, 'n'));  // must never be read
    agent::AgentFrame frame;
    EXPECT_EQ(c.outcome, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame)) << c.name;
    EXPECT_EQ(1, io.receives) << c.name;
    EXPECT_TRUE(io.sent.empty()) << c.name;
    EXPECT_EQ(0u, frame.size()) << c.name;
  }
}

TEST(FrameReceive, NothingReceived) {
  for (int result : {0, -1}) {
    MemoryIo io;
    io.push_result(result);
    agent::AgentFrame frame;
    EXPECT_EQ(agent::ReceiveOutcome::kNoFrame, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame));
  }
}

TEST(FrameReceive, BytesBeyondTheAnnouncedLengthAreDropped) {
  // One datagram longer than its length field says.
  MemoryIo io;
  io.push(agenttest::response("<a/>") + std::string(500, 'E'));
  agent::AgentFrame frame;
  ASSERT_EQ(agent::ReceiveOutcome::kFrame, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame));
  EXPECT_EQ(agenttest::response("<a/>"), std::string(frame.data(), frame.size()));

  // More datagrams than announced: the last chunk is cut to what remains, the rest is unread.
  const std::string wire = agenttest::response(std::string(8200, 'w'));  // 36 + 8201 bytes
  MemoryIo many;
  many.push(wire.substr(0, 8192));
  many.push(wire.substr(8192) + std::string(8000, 'E'));
  many.push(std::string(8192, 'E'));
  agent::AgentFrame joined;
  ASSERT_EQ(agent::ReceiveOutcome::kFrame, agent::ReceiveFrame(many, agent::kSecretAuditResponseTag, &joined));
  EXPECT_EQ(wire, std::string(joined.data(), joined.size()));
  EXPECT_EQ(1u, many.incoming.size());
  EXPECT_EQ(1u, many.sent.size());
}

TEST(FrameReceive, FailuresDuringReassemblyGiveTheFailureMark) {
  const std::string wire = agenttest::response(std::string(9000, 'w'));
  const struct {
    const char* name;
    int second;          // result of the receive after the first chunk (0 or less)
    bool ack_fails;
  } cases[] = {{"ack send fails", 1, true}, {"zero-length chunk", 0, false}, {"receive error", -1, false}};
  for (const auto& c : cases) {
    MemoryIo io;
    io.push(wire.substr(0, 8192));
    if (c.second > 0) io.push(wire.substr(8192)); else io.push_result(c.second);
    if (c.ack_fails) io.fail_send_from = 0;
    agent::AgentFrame frame;
    EXPECT_EQ(agent::ReceiveOutcome::kFailed, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame)) << c.name;
    EXPECT_EQ(0u, frame.size()) << c.name;
    EXPECT_EQ(c.ack_fails ? 1 : 2, io.receives) << c.name;
  }
}

TEST(FrameReceive, LargestAcceptedLengthIsReassembledWithinItsBuffer) {
  // 16 MiB announced, then chunks of 8192 arrive until it is full; no byte is written past it.
  const int32_t length = 16 * 1024 * 1024;
  const std::string tag_field = kResponseTag + std::string(1, '\0');
  MemoryIo io;
  io.push(tag_field + le32(length) + std::string(8192 - 36, 'a'));
  const size_t chunks_needed = (36 + static_cast<size_t>(length) - 8192 + 8191) / 8192;
  for (size_t i = 0; i < chunks_needed; ++i) io.push(std::string(8192, 'b'));
  agent::AgentFrame frame;
  ASSERT_EQ(agent::ReceiveOutcome::kFrame, agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &frame));
  EXPECT_EQ(36u + length, frame.size());
  EXPECT_EQ(chunks_needed, io.sent.size());
  EXPECT_EQ('b', frame.data()[frame.size() - 1]);
}

}  // namespace
