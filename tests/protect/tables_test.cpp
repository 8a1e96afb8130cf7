// The pending encrypted-file table, destination classification (a substituted provider, then the
// Windows one) and the folder walk, each as a table of scenarios.
#include "kwtest.h"
#include "protect/classify.h"
#include "protect/folder_walk.h"
#include "protect/pending_files.h"

namespace {

using namespace kwtest;

TEST(PendingTable, RegistrationMatchingAndConsumption) {
  clear_pending_encrypted_files();
  ScratchDir dir;
  const auto reg = register_pending_encrypted_files;
  reg({}, "pw");
  reg({"C:\\x.txt"}, "");
  EXPECT_EQ(0u, pending_encrypted_file_count());
  // With no entry the paths are not even read: an unreadable pointer must not matter.
  const wchar_t* unreadable = reinterpret_cast<const wchar_t*>(static_cast<uintptr_t>(8));
  TakeAndTransform(unreadable, unreadable);
  const std::wstring dst = dir.file(L"d.txt");
  reg({"C:\\Docs\\Secret-\xC3\x84.txt", "C:\\s.doc"}, "first");  // A umlaut
  reg({"C:\\s.doc", "C:\\stale.txt"}, "second");
  const struct {
    const wchar_t* source;
    const char* password;  // the encrypted form's (kwdecrypt gives the text back); null: stays plain
    size_t left;
  } rows[] = {
      {L"c:\\DOCS\\secret-\u00e4.txt", nullptr, 4},  // non-ASCII case is another byte sequence
      {L"c:\\DOCS\\sECRET-\u00c4.TXT", "first", 3},  // ASCII case is ignored
      {L"C:\\s.doc", "first", 2},                    // each copy consumes one entry, in order
      {L"C:\\s.doc", "second", 1},
      {L"C:\\s.doc", nullptr, 1},
      {L"C:\\other.txt", nullptr, 1},  // the key is the source, never the destination
      {L"C:\\stale.txt", "second", 0},  // a left-over ".tmp" that cannot be overwritten is no obstacle
  };
  ASSERT_TRUE(write_file(dst + L".tmp", "left over"));
  SetFileAttributesW((dst + L".tmp").c_str(), FILE_ATTRIBUTE_READONLY);
  for (const auto& row : rows) {
    ASSERT_TRUE(write_file(dst, "figures"));
    TakeAndTransform(row.source, dst.c_str());
    EXPECT_TRUE(row.password ? decrypts_to(dst, row.password, "figures") : content(dst) == "figures") << narrow(row.source);
    EXPECT_EQ(row.left, pending_encrypted_file_count()) << narrow(row.source);
  }
  EXPECT_EQ("left over", content(dst + L".tmp"));
  SetFileAttributesW((dst + L".tmp").c_str(), FILE_ATTRIBUTE_NORMAL);

  // Destinations held open against readers: a copy is deleted (its source still holds the
  // content); a moved file goes back to where it came from.
  const std::wstring from = dir.file(L"from.txt"), copy = dir.file(L"copy.txt"), moved = dir.file(L"moved.txt");
  reg({"C:\\copied.txt", narrow(from)}, "pw");
  for (const std::wstring* held : {&copy, &moved}) {
    ASSERT_TRUE(write_file(*held, "only copy"));
    OwnedHandle h(CreateFileW(held->c_str(), GENERIC_WRITE, FILE_SHARE_DELETE, nullptr, OPEN_EXISTING, 0, nullptr));
    TakeAndTransform(held == &copy ? L"C:\\copied.txt" : from.c_str(), held->c_str(), held == &moved);
    h.reset();
    EXPECT_FALSE(file_exists(*held));
  }
  EXPECT_EQ("only copy", content(from));
  EXPECT_EQ(0u, pending_encrypted_file_count());
}

// Answers as configured and records the calls it gets.
struct FakeStorage final : StorageProvider {
  FakeStorage(UINT t, bool o, BOOL a, STORAGE_BUS_TYPE b) : type(t), opens(o), answers(a), bus(b) {}
  UINT type;
  bool opens;
  BOOL answers;
  STORAGE_BUS_TYPE bus;
  std::string calls;
  UINT DriveType(const wchar_t* drive) override { return calls += "type " + narrow(drive) + ";", type; }
  HANDLE OpenVolume(const wchar_t* name) override {
    calls += "open " + narrow(name) + ";";
    return opens ? reinterpret_cast<HANDLE>(0x1234) : INVALID_HANDLE_VALUE;
  }
  BOOL QueryDescriptor(HANDLE volume, STORAGE_DEVICE_DESCRIPTOR* d) override {
    calls += volume == reinterpret_cast<HANDLE>(0x1234) ? "query " + std::to_string(d->Size) + ";" : "query ?;";
    d->BusType = bus;
    return answers;
  }
  void CloseVolume(HANDLE volume) override { calls += volume == reinterpret_cast<HANDLE>(0x1234) ? "close" : "close ?"; }
};

TEST(ClassifyDestination, DecisionTableThroughProvider) {
  const std::string usb_e = "type E:;open \\\\?\\E:;query 551;close";
  const struct {
    const wchar_t* path;
    FakeStorage storage;
    int expected;
    std::string calls;
  } rows[] = {
      {L"E:\\dir\\f.txt", {DRIVE_REMOVABLE, true, TRUE, BusTypeSata}, 1, "type E:;"},  // card reader: no volume opened
      {L"E:\\f.txt", {DRIVE_FIXED, true, TRUE, BusTypeUsb}, 1, usb_e},                // USB disk reported as fixed
      {L"E:\\f.txt", {DRIVE_FIXED, true, TRUE, BusTypeSata}, 0, usb_e},
      {L"E:\\f.txt", {DRIVE_FIXED, false, TRUE, BusTypeUsb}, 0, "type E:;open \\\\?\\E:;"},
      {L"E:\\f.txt", {DRIVE_FIXED, true, FALSE, BusTypeUsb}, 0, usb_e},  // no answer: USB in the buffer not believed
      {L"\\\\server\\share\\f", {DRIVE_REMOVABLE, true, TRUE, BusTypeUsb}, 2, ""},  // network without any call
      {L"\\\\?\\C:\\long\\path.txt", {DRIVE_REMOVABLE, true, TRUE, BusTypeUsb}, 2, ""},
      {nullptr, {DRIVE_REMOVABLE, true, TRUE, BusTypeUsb}, 0, ""},
  };
  for (const auto& row : rows) {
    FakeStorage s = row.storage;
    EXPECT_EQ(row.expected, ClassifyDestination(row.path, s)) << (row.path ? narrow(row.path) : "null");
    EXPECT_EQ(row.calls, s.calls) << (row.path ? narrow(row.path) : "null");
  }
  // The Windows provider: C: answers the descriptor query (Wine reports SCSI, never USB). Real
  // removable drives are in the interceptors' tables.
  EXPECT_EQ(0, ClassifyDestination(L"C:\\users\\report.docx"));
  OwnedHandle volume(CreateFileW(L"\\\\?\\C:", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  alignas(8) unsigned char buffer[551] = {};
  auto* descriptor = reinterpret_cast<STORAGE_DEVICE_DESCRIPTOR*>(buffer);
  descriptor->Size = sizeof buffer;
  EXPECT_TRUE(QueryStorageDescriptor(volume.get(), descriptor) && descriptor->BusType != BusTypeUsb);
}

TEST(FolderWalk, OrderCountsErrorsAndLinks) {
  ScratchDir dir;
  const std::string root = narrow(dir.path());
  for (const wchar_t* name : {L"e1", L"e2", L"e2\\deeper", L"m", L"m\\sub", L"\u65e5\u672c", L"\u65e5\u672c\\sub"})
    CreateDirectoryW(dir.file(name).c_str(), nullptr);
  for (const wchar_t* name : {L"z1.txt", L"m\\in.txt", L"a2.txt", L"\u65e5\u672c\\sub\\\u00e9.txt", L"m\\sub\\\u00e9.txt"})
    ASSERT_TRUE(write_file(dir.file(name), "x"));
  std::vector<std::string> expected = {"earlier"};  // then an independent depth-first listing in the file system's order
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path()))
    if (!entry.is_directory()) expected.push_back(narrow(entry.path().wstring()));
  ASSERT_EQ(6u, expected.size());
  std::vector<std::string> out = {"earlier"};  // the count includes what was there
  EXPECT_EQ(6, get_filepaths_from_folder(root, out));
  EXPECT_EQ(expected, out);
  out = {};
  EXPECT_EQ(5, get_filepaths_from_folder(root + "\\", out));  // a trailing separator is not doubled
  EXPECT_EQ(expected[1], out[0]);
  EXPECT_EQ(0, get_filepaths_from_folder(root + "\\a2.txt", out));  // a file
  EXPECT_EQ(0, get_filepaths_from_folder(root + "\\missing", out));
  EXPECT_EQ(5u, out.size());
  // Made by the build: top.txt, sub\inner.txt, sub\back -> .. (a cycle), alias -> sub.
  const std::string tree = narrow(exe_dir() + L"protect-walk-cycle");
  ASSERT_TRUE(file_exists(widen(tree + "\\sub\\back\\top.txt"))) << "the build did not make the link";
  out.clear();
  EXPECT_EQ(3, get_filepaths_from_folder(tree, out));
  std::sort(out.begin(), out.end());
  EXPECT_EQ((std::vector<std::string>{tree + "\\alias\\inner.txt", tree + "\\sub\\inner.txt", tree + "\\top.txt"}), out);
}

}  // namespace
