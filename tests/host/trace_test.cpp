// The trace line format and its bound.
#include <gtest/gtest.h>

#include "host/debug_trace.h"
#include "kwtest.h"

namespace {

TEST(DebugTrace, WritesFunctionLineAndMessageExactly) {
  kwtest::TraceCapture capture;
  DebugTrace("HookApi", 1464, "get file opretation interface,result:%x", 0x80004001u);
  DebugTrace("Hook_MoveFileWithProgressW", 963, "MoveFileWithProgressW");
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "[HookApi,1464] : get file opretation interface,result:80004001");
  EXPECT_EQ(lines[1], "[Hook_MoveFileWithProgressW,963] : MoveFileWithProgressW");
}

TEST(DebugTrace, CutsAnOverlongLineAtTheBufferEnd) {
  kwtest::TraceCapture capture;
  const std::string path(300, 'p');
  DebugTrace("CopyItems_new", 1179, "[ZELTRAP:KWINDEL] search %s", path.c_str());
  const std::string prefix = "[CopyItems_new,1179] : [ZELTRAP:KWINDEL] search ";
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  ASSERT_EQ(lines[0].size(), kTraceBufferSize - 1);
  EXPECT_EQ(lines[0], prefix + path.substr(0, kTraceBufferSize - 1 - prefix.size()));
  // The buffer is usable again afterwards: a short line is whole.
  DebugTrace("f", 1, "ok");
  EXPECT_EQ(capture.lines().back(), "[f,1] : ok");
}

TEST(DebugTrace, AnOverlongFunctionNameStillStaysInTheBuffer) {
  kwtest::TraceCapture capture;
  const std::string name(400, 'n');
  DebugTrace(name.c_str(), 7, "message");
  ASSERT_EQ(capture.lines().size(), 1u);
  EXPECT_EQ(capture.lines()[0], "[" + name.substr(0, kTraceBufferSize - 2));
}

}  // namespace
