// The pending encrypted-file table: registration rules, matching, consumption order, and what
// becomes of a copy or a moved file whose encrypted form cannot be written whole.
#include <gtest/gtest.h>

#include "kwtest.h"
#include "protect/pending_files.h"
#include "reference_crypto.h"

namespace {

std::string expected_file(const std::string& plain, const std::string& password) {
  std::vector<uint8_t> km = ref::from_hex(KWTEST_KEY_MASK_HEX);
  for (size_t i = 0; i < 31 && i < password.size(); ++i) km[i] |= static_cast<uint8_t>(password[i]);
  return ref::encrypted_file(plain, km.data());
}

class PendingTable : public ::testing::Test {
 protected:
  void SetUp() override { clear_pending_encrypted_files(); }
  void TearDown() override { clear_pending_encrypted_files(); }
  // A finished copy: `plain` at the destination, as the copy function left it.
  std::wstring copied(const std::wstring& name, const std::string& plain) {
    const std::wstring path = dir.file(name);
    EXPECT_TRUE(kwtest::write_file(path, plain));
    return path;
  }
  std::string contents(const std::wstring& path) {
    std::string s;
    EXPECT_TRUE(kwtest::read_file(path, &s));
    return s;
  }
  kwtest::ScratchDir dir;
};

TEST_F(PendingTable, RegistersOnlyWithFilesAndPassword) {
  register_pending_encrypted_files({}, "pw");
  register_pending_encrypted_files({"C:\\a.txt"}, "");
  EXPECT_EQ(pending_encrypted_file_count(), 0u);
  register_pending_encrypted_files({"C:\\a.txt", "C:\\b.txt", "C:\\a.txt"}, "pw");
  EXPECT_EQ(pending_encrypted_file_count(), 3u);
}

TEST_F(PendingTable, AsciiCaseIsIgnoredButNotNonAsciiCase) {
  register_pending_encrypted_files({"C:\\Docs\\Secret-\xC3\x84.txt"}, "pw");  // A umlaut
  const std::string plain = "quarterly figures, not for the stick";
  const std::wstring dst = copied(L"copy1.txt", plain);
  TakeAndTransform(L"c:\\DOCS\\secret-\u00e4.txt", dst.c_str());  // a umlaut: another byte sequence
  EXPECT_EQ(contents(dst), plain);
  EXPECT_EQ(pending_encrypted_file_count(), 1u);

  TakeAndTransform(L"c:\\DOCS\\sECRET-\u00c4.TXT", dst.c_str());
  EXPECT_TRUE(contents(dst) == expected_file(plain, "pw"));
  EXPECT_FALSE(kwtest::file_exists(dst + L".tmp"));
  EXPECT_EQ(pending_encrypted_file_count(), 0u);
}

TEST_F(PendingTable, EachCopyConsumesOneEntryInInsertionOrder) {
  register_pending_encrypted_files({"C:\\s.doc"}, "first");
  register_pending_encrypted_files({"C:\\s.doc"}, "second");
  const std::string plain = "twice copied";
  const std::wstring a = copied(L"a.doc", plain), b = copied(L"b.doc", plain), c = copied(L"c.doc", plain);
  TakeAndTransform(L"C:\\s.doc", a.c_str());
  EXPECT_EQ(pending_encrypted_file_count(), 1u);
  TakeAndTransform(L"C:\\s.doc", b.c_str());
  EXPECT_EQ(pending_encrypted_file_count(), 0u);
  TakeAndTransform(L"C:\\s.doc", c.c_str());
  EXPECT_TRUE(contents(a) == expected_file(plain, "first"));
  EXPECT_TRUE(contents(b) == expected_file(plain, "second"));
  EXPECT_EQ(contents(c), plain);
}

TEST_F(PendingTable, TheKeyIsTheSourceNeverTheDestination) {
  const std::wstring dst = copied(L"d.txt", "data");
  register_pending_encrypted_files({kwtest::narrow(dst)}, "pw");
  TakeAndTransform(L"C:\\other.txt", dst.c_str());
  EXPECT_EQ(contents(dst), "data");
  EXPECT_EQ(pending_encrypted_file_count(), 1u);
}

TEST_F(PendingTable, EmptyTableLooksAtNothing) {
  // With no entry the paths are not even read: an unreadable pointer must not matter.
  const wchar_t* unreadable = reinterpret_cast<const wchar_t*>(static_cast<uintptr_t>(8));
  TakeAndTransform(unreadable, unreadable);
  EXPECT_EQ(pending_encrypted_file_count(), 0u);
}

TEST_F(PendingTable, OnlyAWholeEncryptedFormReplacesTheFile) {
  // A left-over ".tmp" that cannot be overwritten is no obstacle and stays as it was.
  register_pending_encrypted_files({"C:\\stale.txt"}, "pw");
  const std::wstring stale = copied(L"stale.txt", "plain");
  ASSERT_TRUE(kwtest::write_file(stale + L".tmp", "left over"));
  SetFileAttributesW((stale + L".tmp").c_str(), FILE_ATTRIBUTE_READONLY);
  TakeAndTransform(L"C:\\stale.txt", stale.c_str());
  EXPECT_TRUE(contents(stale) == expected_file("plain", "pw"));
  EXPECT_EQ(contents(stale + L".tmp"), "left over");
  SetFileAttributesW((stale + L".tmp").c_str(), FILE_ATTRIBUTE_NORMAL);

  // Destinations that cannot be read (held open against readers): a copy is deleted, its source
  // still holds the content; a moved file goes back to where it came from.
  register_pending_encrypted_files({"C:\\copied.txt", kwtest::narrow(dir.file(L"from.txt"))}, "pw");
  const std::wstring copy = copied(L"copy.txt", "plain"), moved = copied(L"moved.txt", "only copy");
  for (const std::wstring* held : {&copy, &moved}) {
    HANDLE h = CreateFileW(held->c_str(), GENERIC_WRITE, FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(h, INVALID_HANDLE_VALUE);
    if (held == &copy) TakeAndTransform(L"C:\\copied.txt", copy.c_str());
    else TakeAndTransform(dir.file(L"from.txt").c_str(), moved.c_str(), /*moved=*/true);
    CloseHandle(h);
  }
  EXPECT_FALSE(kwtest::file_exists(copy));
  EXPECT_FALSE(kwtest::file_exists(moved));
  EXPECT_EQ(contents(dir.file(L"from.txt")), "only copy");
  EXPECT_EQ(pending_encrypted_file_count(), 0u);
}

}  // namespace
