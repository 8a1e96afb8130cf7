// The documents byte for byte: the audit record with its folder expansion, the result report,
// and the request's escaping.
#include "agent_test_support.h"

#include <gtest/gtest.h>

#include "agent/copy_audit.h"
#include "agent/operation_result.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "kwtest.h"
#include "protect/audited_files.h"

namespace {

std::string u8(const std::wstring& wide) { return kwtest::narrow(wide); }

TEST(CopyAuditDocument, AttributesInOrderAndOneFilePerPlainSource) {
  EXPECT_EQ("<FilesCopy processname=\"app.exe\" operation=\"6\" flags=\"0\" time=\"12345\" dstfloder=\"E:\\out\" "
            "usersid=\"S-1-5-21-1-2-3-1001\"><File filename=\"C:\\missing\\a.txt\"/></FilesCopy>",
            BuildCopyAuditDocument("app.exe", "S-1-5-21-1-2-3-1001", kCopyAuditCopy, "E:\\out",
                                   {"C:\\missing\\a.txt"}, 12345u));
}

TEST(CopyAuditDocument, TickCountIsWrittenSigned) {
  const struct { uint32_t tick; const char* written; } cases[] = {
      {2147483647u, "2147483647"}, {2147483648u, "-2147483648"}, {4294967295u, "-1"}, {0u, "0"}};
  for (const auto& c : cases) {
    EXPECT_EQ(std::string("<FilesCopy processname=\"p\" operation=\"5\" flags=\"0\" time=\"") + c.written +
                  "\" dstfloder=\"d\" usersid=\"s\"/>",
              BuildCopyAuditDocument("p", "s", kCopyAuditMove, "d", {}, c.tick));
  }
}

TEST(CopyAuditDocument, EscapingAndNonAsciiText) {
  EXPECT_EQ("<FilesCopy processname=\"a&amp;b&lt;c&gt;&quot;d&apos;.exe\" operation=\"6\" flags=\"0\" time=\"1\" "
            "dstfloder=\"E:\\\xC3\xA9t\xC3\xA9\" usersid=\"s\"><File filename=\"C:\\\xE6\x97\xA5\xE6\x9C\xAC.txt\"/>"
            "</FilesCopy>",
            BuildCopyAuditDocument("a&b<c>\"d'.exe", "s", kCopyAuditCopy, "E:\\\xC3\xA9t\xC3\xA9",
                                   {"C:\\\xE6\x97\xA5\xE6\x9C\xAC.txt"}, 1u));
}

TEST(CopyAuditDocument, FoldersAreExpandedIntoTheirFiles) {
  kwtest::ScratchDir dir;
  const std::wstring tree = dir.file(L"tree");
  CreateDirectoryW(tree.c_str(), nullptr);
  CreateDirectoryW((tree + L"\\s").c_str(), nullptr);
  ASSERT_TRUE(kwtest::write_file(tree + L"\\s\\b.txt", "b"));
  const std::wstring empty = dir.file(L"empty");
  CreateDirectoryW(empty.c_str(), nullptr);
  const std::wstring only_folders = dir.file(L"hollow");
  CreateDirectoryW(only_folders.c_str(), nullptr);
  CreateDirectoryW((only_folders + L"\\inner").c_str(), nullptr);
  const std::wstring plain = dir.file(L"plain \u00e9.txt");
  ASSERT_TRUE(kwtest::write_file(plain, "p"));

  const std::string doc = BuildCopyAuditDocument("p", "s", kCopyAuditCopy, "E:\\",
                                                 list_audited_files({u8(plain), u8(empty), u8(tree), u8(only_folders)}), 7u);
  EXPECT_EQ("<FilesCopy processname=\"p\" operation=\"6\" flags=\"0\" time=\"7\" dstfloder=\"E:\\\" usersid=\"s\">"
            "<File filename=\"" + u8(plain) + "\"/><File filename=\"" + u8(tree) + "\\s\\b.txt\"/></FilesCopy>",
            doc);

  // A folder of three files moved: three File elements, none for the folder.
  const std::wstring three = dir.file(L"three");
  CreateDirectoryW(three.c_str(), nullptr);
  for (const wchar_t* name : {L"1.txt", L"2.txt", L"3.txt"}) ASSERT_TRUE(kwtest::write_file(three + L"\\" + name, "x"));
  const std::string moved = BuildCopyAuditDocument("p", "s", kCopyAuditMove, "E:\\", list_audited_files({u8(three)}), 7u);
  size_t files = 0;
  for (size_t at = moved.find("<File "); at != std::string::npos; at = moved.find("<File ", at + 1)) ++files;
  EXPECT_EQ(3u, files);
  EXPECT_EQ(std::string::npos, moved.find("filename=\"" + u8(three) + "\""));

  // An empty folder alone still gives a record, without children.
  EXPECT_EQ("<FilesCopy processname=\"p\" operation=\"6\" flags=\"0\" time=\"7\" dstfloder=\"E:\\\" usersid=\"s\"/>",
            BuildCopyAuditDocument("p", "s", kCopyAuditCopy, "E:\\", list_audited_files({u8(empty)}), 7u));
}

TEST(CopyAuditDocument, CallerContextFillsProcessAndUser) {
  const std::string doc = BuildCopyAuditDocument(kCopyAuditCopy, "E:\\", {"C:\\x"}, 9u);
  EXPECT_EQ("<FilesCopy processname=\"" + get_process_name() + "\" operation=\"6\" flags=\"0\" time=\"9\" "
            "dstfloder=\"E:\\\" usersid=\"" + get_user_sid_string() + "\"><File filename=\"C:\\x\"/></FilesCopy>",
            doc);
  EXPECT_FALSE(get_process_name().empty());
}

TEST(CopyAuditRecord, SentWithItsTag) {
  kwtest::TestAgent agent;
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(1, SendCopyAuditRecord(kCopyAuditMove, "E:\\", {"C:\\a.txt"}));
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  const std::string frame = agent.frames()[0];
  EXPECT_EQ(0, frame.compare(0, 21, std::string("<FILECOPYAUDIT_DATA>\0", 21)));
  const std::string text = frame.c_str() + 36;
  EXPECT_EQ(0u, text.find("<FilesCopy processname=\"" + get_process_name() + "\" operation=\"5\" flags=\"0\" time=\""));
  EXPECT_NE(std::string::npos, text.find("\" dstfloder=\"E:\\\" usersid=\"" + get_user_sid_string() +
                                         "\"><File filename=\"C:\\a.txt\"/></FilesCopy>"));
}

TEST(OperationResultDocument, ListsInOrderAndActionSigned) {
  EXPECT_EQ("<Data action=\"-1\"><File path=\"C:\\a\"/><File path=\"C:\\b &amp; c\"/></Data>",
            BuildOperationResultDocument({"C:\\a", "C:\\b & c"}, {}, 4294967295u));
  EXPECT_EQ("<Data action=\"2\"><File path=\"1\"/><File path=\"2\"/><File path=\"\xC3\xA9\"/></Data>",
            BuildOperationResultDocument({"1"}, {"2", "\xC3\xA9"}, 2u));
}

TEST(OperationResultDocument, NothingToReportSendsNothing) {
  kwtest::TestAgent agent;
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(0, ReportOperationResult({}, {}, 1));
  Sleep(200);
  EXPECT_TRUE(agent.datagrams().empty());
}

TEST(SecretAuditRequestDocument, FilesThenDestinations) {
  EXPECT_EQ("<CopyFiles processname=\"x&amp;y.exe\"><File path=\"C:\\1\"/><File path=\"C:\\2\"/>"
            "<DstFolder path=\"E:\\\"/><DstFolder path=\"F:\\\"/></CopyFiles>",
            BuildSecretAuditRequest("x&y.exe", {"C:\\1", "C:\\2"}, {"E:\\", "F:\\"}));
}

}  // namespace
