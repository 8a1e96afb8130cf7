// Classification of a real removable drive: Wine's mount manager defines one at run time (what
// winecfg does), the test classifies paths on it, and removes it again, since the prefix is
// shared with the other tests of the run.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "kwtest.h"
#include "protect/classify.h"

namespace {

TEST(RealDrives, RemovableDriveIsClassOneAndItsFilesOpen) {
  kwtest::RemovableDrive drive;
  ASSERT_TRUE(drive.ok()) << "no removable drive could be defined, error " << GetLastError();
  ASSERT_TRUE(kwtest::write_file(drive.root() + L"\\marker.txt", "on the drive"));
  const std::wstring root = drive.root();
  EXPECT_EQ(GetDriveTypeW((root + L"\\").c_str()), static_cast<UINT>(DRIVE_REMOVABLE));
  EXPECT_EQ(ClassifyDestination((root + L"\\copies\\report.docx").c_str()), 1);
  std::string bytes;
  EXPECT_TRUE(kwtest::read_file(root + L"\\marker.txt", &bytes) && bytes == "on the drive") << "drive does not show the folder";

  EXPECT_EQ(ClassifyDestination(L"C:\\users\\report.docx"), 0);
  EXPECT_EQ(ClassifyDestination(L"\\\\fileserver\\share\\report.docx"), 2);
  // Z: cannot be opened as a volume under Wine (access denied): that reads as local.
  EXPECT_EQ(ClassifyDestination(L"Z:\\tmp\\report.docx"), 0);
}

TEST(RealDrives, RemovedDriveIsGoneAgain) {
  // Runs after the test above: no drive letter from R: to Y: may be left removable.
  for (wchar_t c = L'R'; c <= L'Y'; ++c) {
    const std::wstring root = std::wstring(1, c) + L":\\";
    EXPECT_NE(GetDriveTypeW(root.c_str()), static_cast<UINT>(DRIVE_REMOVABLE)) << kwtest::narrow(root);
  }
}

}  // namespace
