// Classification of a real removable drive: Wine's mount manager defines one at run time (what
// winecfg does), the test classifies paths on it, and removes it again, since the prefix is
// shared with the other tests of the run.
#include <gtest/gtest.h>

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <cwctype>
#include <string>
#include <vector>

#include "kwtest.h"
#include "protect/classify.h"

namespace {

// Wine's private mount-manager request (include/ddk/mountmgr.h of Wine 8).
constexpr DWORD kDefineUnixDrive = CTL_CODE('m', 32, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS);
struct UnixDrive {
  ULONG size;
  ULONG type;
  ULONG fs_type;
  DWORD serial;
  ULONGLONG unix_dev;
  WCHAR letter;
  USHORT mount_point_offset;
  USHORT device_offset;
  USHORT label_offset;
};

// Points drive `letter` at a Unix folder with the given type; type DRIVE_NO_ROOT_DIR and no
// folder removes the drive.
bool define_drive(wchar_t letter, UINT type, const std::string& unix_folder) {
  HANDLE mgr = CreateFileW(L"\\\\.\\MountPointManager", GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (mgr == INVALID_HANDLE_VALUE) return false;
  std::vector<char> buffer(sizeof(UnixDrive) + unix_folder.size() + 1, 0);
  auto* drive = reinterpret_cast<UnixDrive*>(buffer.data());
  drive->size = static_cast<ULONG>(buffer.size());
  drive->type = type;
  drive->letter = static_cast<WCHAR>(towlower(letter));
  if (!unix_folder.empty()) {
    drive->mount_point_offset = sizeof(UnixDrive);
    memcpy(buffer.data() + sizeof(UnixDrive), unix_folder.c_str(), unix_folder.size() + 1);
  }
  DWORD returned = 0;
  const BOOL ok = DeviceIoControl(mgr, kDefineUnixDrive, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, 0,
                                  &returned, nullptr);
  CloseHandle(mgr);
  return ok != 0;
}

// The Unix form of a Windows path on Z: (the Wine prefix maps Z: to /).
std::string unix_path(const std::wstring& windows_path) {
  std::string s = kwtest::narrow(windows_path);
  if (s.size() < 2 || (s[0] != 'Z' && s[0] != 'z') || s[1] != ':') return std::string();
  s = s.substr(2);
  std::replace(s.begin(), s.end(), '\\', '/');
  return s;
}

TEST(RealDrives, RemovableDriveIsClassOneAndItsFilesOpen) {
  wchar_t letter = 0;
  const DWORD used = GetLogicalDrives();
  for (wchar_t c = L'R'; c <= L'Y' && letter == 0; ++c)
    if (!(used & (1u << (c - L'A')))) letter = c;
  ASSERT_NE(letter, 0) << "no free drive letter between R: and Y:";
  const std::string folder = unix_path(kwtest::exe_dir());
  ASSERT_FALSE(folder.empty()) << "expected the tests to run from Z:";
  ASSERT_TRUE(define_drive(letter, DRIVE_REMOVABLE, folder)) << "error " << GetLastError();
  struct Undefine {
    wchar_t l;
    ~Undefine() { define_drive(l, DRIVE_NO_ROOT_DIR, std::string()); }
  } undefine{letter};

  const std::wstring root = std::wstring(1, letter) + L":";
  EXPECT_EQ(GetDriveTypeW((root + L"\\").c_str()), static_cast<UINT>(DRIVE_REMOVABLE));
  EXPECT_EQ(ClassifyDestination((root + L"\\copies\\report.docx").c_str()), 1);
  EXPECT_TRUE(kwtest::file_exists(root + L"\\kwdecrypt.exe")) << "drive does not show the folder";

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
