// Checks on the built DLL itself: exports, imports, the shared section, the version resource.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "kwtest.h"

namespace {

const unsigned char* rva(HMODULE m, DWORD offset) { return reinterpret_cast<const unsigned char*>(m) + offset; }

const IMAGE_NT_HEADERS* nt_headers(HMODULE m) {
  return reinterpret_cast<const IMAGE_NT_HEADERS*>(rva(m, reinterpret_cast<const IMAGE_DOS_HEADER*>(m)->e_lfanew));
}

class Binary : public ::testing::Test {
 protected:
  // Mapped as an image without running its entry, so what we read is the file as shipped.
  HMODULE image = LoadLibraryExW(kwtest::dll_path().c_str(), nullptr, DONT_RESOLVE_DLL_REFERENCES);
  void SetUp() override { ASSERT_NE(image, nullptr); }
  void TearDown() override { FreeLibrary(image); }
};

TEST_F(Binary, ExportsExactlyTheFourUndecoratedNames) {
  const IMAGE_DATA_DIRECTORY& dir = nt_headers(image)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  ASSERT_NE(dir.VirtualAddress, 0u);
  auto exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(rva(image, dir.VirtualAddress));
  EXPECT_EQ(exports->NumberOfFunctions, 4u);
  std::set<std::string> names;
  auto name_rvas = reinterpret_cast<const DWORD*>(rva(image, exports->AddressOfNames));
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) names.insert(reinterpret_cast<const char*>(rva(image, name_rvas[i])));
  EXPECT_EQ(names, (std::set<std::string>{"InstallHook", "InstallHookProc", "RemoveHook", "SetPolicy"}));
  EXPECT_STREQ(reinterpret_cast<const char*>(rva(image, exports->Name)), "kwindel-x64.dll");
}

TEST_F(Binary, ImportsOnlyDllsOfTheSystemFolder) {
  wchar_t system_dir[MAX_PATH];
  GetSystemDirectoryW(system_dir, MAX_PATH);
  const IMAGE_DATA_DIRECTORY& dir = nt_headers(image)->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  auto desc = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(rva(image, dir.VirtualAddress));
  int count = 0;
  for (; desc->Name != 0; ++desc, ++count) {
    std::string name = reinterpret_cast<const char*>(rva(image, desc->Name));
    std::transform(name.begin(), name.end(), name.begin(), ::tolower);
    EXPECT_EQ(name.find("lib"), std::string::npos) << name << " looks like a runtime library";
    EXPECT_TRUE(kwtest::file_exists(std::wstring(system_dir) + L"\\" + kwtest::widen(name))) << name;
  }
  EXPECT_GT(count, 0);
}

TEST_F(Binary, HookSectionIsSharedWritableAndStartsZero) {
  const IMAGE_SECTION_HEADER* s = kwtest::find_section(image, ".hook");
  ASSERT_NE(s, nullptr);
  EXPECT_TRUE(s->Characteristics & IMAGE_SCN_MEM_SHARED);
  EXPECT_TRUE(s->Characteristics & IMAGE_SCN_MEM_WRITE);
  EXPECT_GE(s->Misc.VirtualSize, 4 * 4 + 2 * 8u);
  const unsigned char* bytes = rva(image, s->VirtualAddress);
  EXPECT_TRUE(std::all_of(bytes, bytes + 32, [](unsigned char b) { return b == 0; }));
}

TEST_F(Binary, CarriesAVersionResourceWithTheProductName) {
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeW(kwtest::dll_path().c_str(), &ignored);
  ASSERT_GT(size, 0u);
  std::vector<unsigned char> info(size);
  ASSERT_TRUE(GetFileVersionInfoW(kwtest::dll_path().c_str(), 0, size, info.data()));
  wchar_t* product = nullptr;
  UINT length = 0;
  ASSERT_TRUE(VerQueryValueW(info.data(), L"\\StringFileInfo\\040904b0\\ProductName", reinterpret_cast<void**>(&product), &length));
  EXPECT_STREQ(product, L"kwindel");
  VS_FIXEDFILEINFO* fixed = nullptr;
  ASSERT_TRUE(VerQueryValueW(info.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
  EXPECT_EQ(fixed->dwFileVersionMS, (static_cast<DWORD>(KWINDEL_VERSION_MAJOR) << 16) | KWINDEL_VERSION_MINOR);
}

}  // namespace
