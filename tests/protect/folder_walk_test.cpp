// Folder expansion: depth-first order as the file system enumerates, counts, error results and
// the guard against links back to an ancestor.
#include <gtest/gtest.h>

#include <functional>

#include "kwtest.h"
#include "protect/folder_walk.h"

namespace {

// Independent depth-first listing with FindFirstFileW, in the file system's own order.
void list_files(const std::wstring& folder, std::vector<std::string>* out) {
  WIN32_FIND_DATAW data;
  HANDLE h = FindFirstFileW((folder + L"\\*").c_str(), &data);
  if (h == INVALID_HANDLE_VALUE) return;
  do {
    const std::wstring name = data.cFileName;
    if (name == L"." || name == L"..") continue;
    const std::wstring full = folder + L"\\" + name;
    if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
      list_files(full, out);
    else
      out->push_back(kwtest::narrow(full));
  } while (FindNextFileW(h, &data));
  FindClose(h);
}

bool make_dir(const std::wstring& p) { return CreateDirectoryW(p.c_str(), nullptr) != 0; }

TEST(FolderWalk, EmptyFolderAndFolderOfEmptyFoldersGiveZero) {
  kwtest::ScratchDir dir;
  std::vector<std::string> out;
  EXPECT_EQ(get_filepaths_from_folder(kwtest::narrow(dir.path()), out), 0);
  ASSERT_TRUE(make_dir(dir.file(L"e1")));
  ASSERT_TRUE(make_dir(dir.file(L"e2")));
  ASSERT_TRUE(make_dir(dir.file(L"e2\\deeper")));
  EXPECT_EQ(get_filepaths_from_folder(kwtest::narrow(dir.path()), out), 0);
  EXPECT_TRUE(out.empty());
}

TEST(FolderWalk, FilesAtEveryDepthJoinedWithBackslashes) {
  kwtest::ScratchDir dir;
  ASSERT_TRUE(kwtest::write_file(dir.file(L"a.txt"), "a"));
  ASSERT_TRUE(make_dir(dir.file(L"s")));
  ASSERT_TRUE(kwtest::write_file(dir.file(L"s\\b.txt"), "b"));
  const std::string root = kwtest::narrow(dir.path());
  std::vector<std::string> out;
  EXPECT_EQ(get_filepaths_from_folder(root, out), 2);
  std::vector<std::string> sorted = out;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(sorted, (std::vector<std::string>{root + "\\a.txt", root + "\\s\\b.txt"}));

  // A trailing separator is not doubled.
  out.clear();
  EXPECT_EQ(get_filepaths_from_folder(root + "\\", out), 2);
  for (const std::string& p : out) EXPECT_EQ(p.find("\\\\", 2), std::string::npos) << p;
}

TEST(FolderWalk, DepthFirstInEnumerationOrderWithNonAsciiNames) {
  kwtest::ScratchDir dir;
  const wchar_t* names[] = {L"z1.txt", L"m", L"a2.txt", L"\u65e5\u672c", L"k3.txt", L"b"};
  for (const wchar_t* n : names) {
    const std::wstring p = dir.file(n);
    if (wcschr(n, L'.')) {
      ASSERT_TRUE(kwtest::write_file(p, "x"));
    } else {
      ASSERT_TRUE(make_dir(p));
      ASSERT_TRUE(kwtest::write_file(p + L"\\in-" + n + L".txt", "y"));
      ASSERT_TRUE(make_dir(p + L"\\sub"));
      ASSERT_TRUE(kwtest::write_file(p + L"\\sub\\\u00e9.txt", "z"));
    }
  }
  std::vector<std::string> expected;
  list_files(dir.path(), &expected);
  ASSERT_EQ(expected.size(), 9u);
  std::vector<std::string> out;
  EXPECT_EQ(get_filepaths_from_folder(kwtest::narrow(dir.path()), out), 9);
  EXPECT_EQ(out, expected);
}

TEST(FolderWalk, ErrorsGiveZeroAndEarlierEntriesCount) {
  kwtest::ScratchDir dir;
  ASSERT_TRUE(kwtest::write_file(dir.file(L"f.txt"), "f"));
  std::vector<std::string> out = {"earlier-1", "earlier-2"};
  EXPECT_EQ(get_filepaths_from_folder(kwtest::narrow(dir.file(L"f.txt")), out), 0);  // a file
  EXPECT_EQ(get_filepaths_from_folder(kwtest::narrow(dir.file(L"missing")), out), 0);
  EXPECT_EQ(out.size(), 2u);
  EXPECT_EQ(get_filepaths_from_folder(kwtest::narrow(dir.path()), out), 3);
  EXPECT_EQ(out[0], "earlier-1");
  EXPECT_EQ(out[2], kwtest::narrow(dir.file(L"f.txt")));
}

TEST(FolderWalk, LinkBackToAnAncestorIsNotFollowedOtherLinksAre) {
  // Made by the build: top.txt, sub\inner.txt, sub\back -> .. (a cycle), alias -> sub.
  const std::wstring tree = kwtest::exe_dir() + L"protect-walk-cycle";
  ASSERT_TRUE(kwtest::file_exists(tree + L"\\sub\\back\\top.txt")) << "the build did not make the link";
  const std::string root = kwtest::narrow(tree);
  std::vector<std::string> out;
  EXPECT_EQ(get_filepaths_from_folder(root, out), 3);
  std::sort(out.begin(), out.end());
  EXPECT_EQ(out, (std::vector<std::string>{root + "\\alias\\inner.txt", root + "\\sub\\inner.txt", root + "\\top.txt"}));
}

}  // namespace
