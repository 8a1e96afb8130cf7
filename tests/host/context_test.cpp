// Caller context and the string conversions.
#include <gtest/gtest.h>

#include "host/caller_context.h"

namespace {

TEST(Conversions, LoneSurrogatesAreDroppedNotReplaced) {
  EXPECT_EQ(wide_to_utf8(std::wstring(L"a\xD800" L"b")), "ab");
  EXPECT_EQ(wide_to_utf8(std::wstring(L"x\xDC00")), "x");
  EXPECT_EQ(wide_to_utf8(std::wstring(L"\xD83D\xDE00")), "\xF0\x9F\x98\x80");  // a valid pair survives
}

TEST(Conversions, CharactersOutsideTheAnsiCodePageSurviveInUtf8) {
  const std::wstring wide = L"C:\\\x0416\x20AC\\\x65E5\x672C.txt";
  const std::string utf8 = "C:\\\xD0\x96\xE2\x82\xAC\\\xE6\x97\xA5\xE6\x9C\xAC.txt";
  EXPECT_EQ(wide_to_utf8(wide), utf8);
  EXPECT_EQ(utf8_to_wide(utf8), wide);
}

TEST(Conversions, InvalidUtf8IsDropped) {
  EXPECT_EQ(utf8_to_wide(std::string("a\xFF" "b\xC0")), L"ab");
  EXPECT_EQ(utf8_to_wide(std::string("\xE2\x82")), L"");  // truncated sequence
  EXPECT_EQ(wide_to_utf8(static_cast<const wchar_t*>(nullptr)), "");
}

TEST(Conversions, CallerBufferForms) {
  char narrow[16];
  EXPECT_EQ(wide_to_multibyte(nullptr, L"x", 16, CP_UTF8), nullptr);
  EXPECT_EQ(wide_to_multibyte(narrow, nullptr, 16, CP_UTF8), nullptr);
  EXPECT_EQ(wide_to_multibyte(narrow, L"\x20AC" L"1", 16, CP_UTF8), narrow);
  EXPECT_STREQ(narrow, "\xE2\x82\xAC" "1");
  narrow[0] = 'z';
  EXPECT_EQ(wide_to_multibyte(narrow, L"too long for four", 4, CP_UTF8), nullptr);  // the call fails
  wchar_t wide[16];
  EXPECT_EQ(multibyte_to_wide(wide, nullptr, 16, CP_UTF8), nullptr);
  EXPECT_EQ(multibyte_to_wide(wide, "\xE2\x82\xAC", 16, CP_UTF8), wide);
  EXPECT_STREQ(wide, L"\x20AC");
}

TEST(ProcessName, LastBackslashRule) {
  EXPECT_EQ(process_name_from_path("C:\\Windows\\explorer.exe"), "explorer.exe");
  EXPECT_EQ(process_name_from_path("explorer.exe"), "");
  EXPECT_EQ(process_name_from_path("\\explorer.exe"), "");
  EXPECT_EQ(process_name_from_path("C:\\dir\\"), "");
  EXPECT_EQ(process_name_from_path("C:\\\xD0\x96.exe"), "\xD0\x96.exe");
}

TEST(ProcessName, OfThisProcessKeepsItsCase) {
  EXPECT_EQ(get_process_name(), "host_tests.exe");
}

TEST(UserSid, HasTheStringForm) {
  const std::string sid = get_user_sid_string();
  EXPECT_EQ(sid.rfind("S-1-5-", 0), 0u) << sid;
  EXPECT_EQ(sid, get_user_sid_string());
}

}  // namespace
