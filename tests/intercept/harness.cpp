#include "harness.h"

#include <sddl.h>

#include <regex>

namespace kwtest {

std::string secret_answer(const std::vector<std::string>& secret_files, const std::string& password, int action) {
  std::string xml = "<SecretCheckResult encryptedpwd=\"" + password + "\" action=\"" + std::to_string(action) + "\">";
  for (const std::string& f : secret_files) xml += "<SecretFile path=\"" + f + "\"/>";
  return TestAgent::frame(kResponseTag, xml + "</SecretCheckResult>");
}

std::string all_secret_answer(const std::string& request_document, const std::string& password) {
  std::vector<std::string> files;
  const std::regex path("<File path=\"([^\"]*)\"/>");
  for (std::sregex_iterator it(request_document.begin(), request_document.end(), path), end; it != end; ++it) {
    files.push_back((*it)[1]);
  }
  return secret_answer(files, password, 1);
}

std::string without_time(const std::string& document) {
  return std::regex_replace(document, std::regex(" time=\"-?[0-9]+\""), " time=\"T\"");
}

std::string audit_document(const std::string& operation, const std::wstring& destination,
                           const std::vector<std::wstring>& files) {
  wchar_t process[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, process, MAX_PATH);
  OwnedHandle token;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
  char user[256];
  DWORD size = 0;
  wchar_t* sid = nullptr;
  GetTokenInformation(token.get(), TokenUser, user, sizeof user, &size);
  ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid);
  std::string doc = "<FilesCopy processname=\"" + narrow(wcsrchr(process, L'\\') + 1) + "\" operation=\"" + operation +
                    "\" flags=\"0\" time=\"T\" dstfloder=\"" + narrow(destination) + "\" usersid=\"" + narrow(sid) + "\"";
  LocalFree(sid);
  if (files.empty()) return doc + "/>";  // the compact form of an empty element
  doc += ">";
  for (const auto& f : files) doc += "<File filename=\"" + narrow(f) + "\"/>";
  return doc + "</FilesCopy>";
}

bool decrypts_to(const std::wstring& encrypted, const std::string& password, const std::string& original) {
  ScratchDir out;
  const ChildResult r = run_child(exe_dir() + L"kwdecrypt.exe", L"\"" + encrypted + L"\" \"" + widen(password) +
                                  L"\" \"" + out.file(L"plain") + L"\"", 60000);
  return r.finished && r.exit_code == 0 && content(out.file(L"plain")) == original;
}

std::wstring temp_folder() {
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  return temp;
}

std::vector<std::pair<std::string, std::wstring>> parked_records() {
  std::vector<std::pair<std::string, std::wstring>> out;
  const std::wstring root = temp_folder() + L"kwindel-parked\\";
  WIN32_FIND_DATAW folder, record;
  OwnedFind folders(FindFirstFileW((root + L"*").c_str(), &folder));
  for (bool more = folders.ok(); more; more = FindNextFileW(folders.get(), &folder)) {
    if (!(folder.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || folder.cFileName[0] == L'.') continue;
    const std::wstring dir = root + folder.cFileName + L"\\";
    OwnedFind records(FindFirstFileW((dir + L"*.rec").c_str(), &record));
    for (bool r = records.ok(); r; r = FindNextFileW(records.get(), &record)) {
      const std::wstring stem = dir + std::wstring(record.cFileName).substr(0, wcslen(record.cFileName) - 4);
      const std::string text = content(stem + L".rec");
      if (text != "<missing>") out.emplace_back(text.substr(0, text.find('\n')), stem + L".orig");
    }
  }
  return out;
}

std::string parked_original_of(const std::wstring& source) {
  for (const auto& p : parked_records()) {
    if (p.first == narrow(source)) return content(p.second);
  }
  return "<none>";
}

int iterations(int short_run, int long_run) {
  wchar_t value[8] = {};
  return GetEnvironmentVariableW(L"KWINDEL_STRESS", value, 8) > 0 && value[0] == L'1' ? long_run : short_run;
}

HMODULE Interception::dll() {
  static HMODULE module = LoadLibraryW(dll_path().c_str());  // kept for the program's life
  return module;
}

void Interception::set_policy(DWORD policy) { fn<KwSetPolicyFn>(dll(), "SetPolicy")(policy, 0); }

void Interception::SetUpTestSuite() {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  WSADATA wsa;
  WSAStartup(MAKEWORD(2, 2), &wsa);
  dll();
}

void Interception::SetUp() {
  ASSERT_NE(dll(), nullptr) << "kwindel-x64.dll did not load";
  set_policy(0);
}

std::wstring Interception::make(const std::wstring& name, const std::string& bytes) {
  const std::wstring path = dir.file(name);
  EXPECT_TRUE(write_file(path, bytes));
  return path;
}

std::wstring Interception::folder(const std::wstring& name) {
  const std::wstring path = dir.file(name);
  CreateDirectoryW(path.c_str(), nullptr);
  return path;
}

}  // namespace kwtest
