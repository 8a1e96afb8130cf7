// The end-to-end fixture: the real DLL loaded once into the test program (its entry installed the
// interceptions), COM and Winsock started, a scratch folder per test, the policy off around each
// test; and what the scenarios compare: agent answers, records, kwdecrypt, the parked originals.
#pragma once
#include <gtest/gtest.h>

#include <regex>

#include "kwindel.h"
#include "test_agent.h"
#include <sddl.h>  // after windows.h

namespace kwtest {

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);
constexpr HRESULT kPassedOn = E_NOTIMPL;  // what Wine's own IFileOperation methods answer
constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL, kRemovable = KWINDEL_POLICY_DEST_REMOVABLE;
constexpr DWORD kScreen = kCopyAudit | kSecretAudit | kLocal;
constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>", kResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";
constexpr char kAuditTag[] = "<FILECOPYAUDIT_DATA>";
const std::string kMagic("\x01\x02\x03\x04\x10\x20\x30\x40", 8);  // the first bytes of an encrypted file
const bool kFlat = LOBYTE(LOWORD(GetVersion())) < 6;               // the winxp64 prefix: the flat path

// A response frame naming `secret_files` secret under `password` with `action`.
inline std::string secret_answer(const std::vector<std::string>& secret_files, const std::string& password, int action) {
  std::string xml = "<SecretCheckResult encryptedpwd=\"" + password + "\" action=\"" + std::to_string(action) + "\">";
  for (const std::string& f : secret_files) xml += "<SecretFile path=\"" + f + "\"/>";
  return TestAgent::frame(kResponseTag, xml + "</SecretCheckResult>");
}
// An agent naming every File path of each request secret under "pw", action 1.
inline AgentScript all_secret(bool record = true) {
  return {true, {}, false, [](const std::string& request) {
            std::vector<std::string> files;
            const std::regex path("<File path=\"([^\"]*)\"/>");
            for (std::sregex_iterator it(request.begin(), request.end(), path), end; it != end; ++it) files.push_back((*it)[1]);
            return secret_answer(files, "pw", 1);
          }, -1, record};
}
inline std::string process_name() {
  wchar_t process[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, process, MAX_PATH);
  return narrow(wcsrchr(process, L'\\') + 1);
}
// The request document of this process (or `process`) for `sources` and `destination`.
inline std::string request_document(const std::vector<std::wstring>& sources, const std::wstring& destination,
                                    const std::string& process = process_name()) {
  std::string doc = "<CopyFiles processname=\"" + process + "\">";
  for (const std::wstring& s : sources) doc += "<File path=\"" + narrow(s) + "\"/>";
  return doc + "<DstFolder path=\"" + narrow(destination) + "\"/></CopyFiles>";
}
// The copy audit document of this process and user with time "T"; `without_time` makes a
// received one comparable.
inline std::string audit_document(const std::string& operation, const std::wstring& destination, const std::vector<std::wstring>& files) {
  OwnedHandle token;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
  char user[256];
  DWORD size = 0;
  wchar_t* sid = nullptr;
  GetTokenInformation(token.get(), TokenUser, user, sizeof user, &size);
  ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid);
  std::string doc = "<FilesCopy processname=\"" + process_name() + "\" operation=\"" + operation +
        "\" flags=\"0\" time=\"T\" dstfloder=\"" + narrow(destination) + "\" usersid=\"" + narrow(sid) + "\"";
  LocalFree(sid);
  doc += files.empty() ? "/>" : ">";  // the compact form of an empty element
  for (const auto& f : files) doc += "<File filename=\"" + narrow(f) + "\"/>";
  return files.empty() ? doc : doc + "</FilesCopy>";
}
inline std::string without_time(const std::string& document) {
  return std::regex_replace(document, std::regex(" time=\"-?[0-9]+\""), " time=\"T\"");
}
// kwdecrypt on `encrypted` with `password` succeeds and writes exactly `original`.
inline bool decrypts_to(const std::wstring& encrypted, const std::string& password, const std::string& original) {
  ScratchDir out;
  const ChildResult r = run_child(exe_dir() + L"kwdecrypt.exe",
                                  L"\"" + encrypted + L"\" \"" + widen(password) + L"\" \"" + out.file(L"plain") + L"\"", 60000);
  return r.finished && r.exit_code == 0 && content(out.file(L"plain")) == original;
}
inline std::wstring temp_folder() {  // ends with '\'
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  return temp;
}
// The originals parked by every process: each record's source (UTF-8) and the parked file.
inline std::vector<std::pair<std::string, std::wstring>> parked_records() {
  std::vector<std::pair<std::string, std::wstring>> out;
  const std::wstring root = temp_folder() + L"kwindel-parked\\";
  WIN32_FIND_DATAW folder, record;
  OwnedFind folders(FindFirstFileW((root + L"*").c_str(), &folder));
  for (bool more = folders.ok(); more; more = FindNextFileW(folders.get(), &folder)) {
    const std::wstring dir = root + folder.cFileName + L"\\";
    OwnedFind records(folder.cFileName[0] == L'.' ? INVALID_HANDLE_VALUE : FindFirstFileW((dir + L"*.rec").c_str(), &record));
    for (bool r = records.ok(); r; r = FindNextFileW(records.get(), &record)) {
      const std::wstring stem = dir + std::wstring(record.cFileName).substr(0, wcslen(record.cFileName) - 4);
      const std::string text = content(stem + L".rec");
      out.emplace_back(text.substr(0, text.find('\n')), stem + L".orig");
    }
  }
  return out;
}
inline std::string parked_original_of(const std::wstring& source) {  // its bytes, or "<none>"
  for (const auto& p : parked_records()) if (p.first == narrow(source)) return content(p.second);
  return "<none>";
}
// The short count in make test, the long one when KWINDEL_STRESS=1 (make stress).
inline int iterations(int short_run, int long_run) {
  wchar_t value[2] = {};
  return GetEnvironmentVariableW(L"KWINDEL_STRESS", value, 2) == 1 && value[0] == L'1' ? long_run : short_run;
}

class Interception : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    WSADATA wsa;
    WSAStartup(MAKEWORD(2, 2), &wsa);
  }
  void SetUp() override {
    ASSERT_NE(dll(), nullptr) << "kwindel-x64.dll did not load";
    set_policy(0);
  }
  void TearDown() override { set_policy(0); }
  static HMODULE dll() {
    static HMODULE module = LoadLibraryW(dll_path().c_str());  // kept for the program's life
    return module;
  }
  static void set_policy(DWORD policy) { fn<KwSetPolicyFn>(dll(), "SetPolicy")(policy, 0); }
  static volatile SharedBlockView* block() { return shared_block(dll()); }
  std::wstring make(const std::wstring& name, const std::string& bytes) {
    EXPECT_TRUE(write_file(dir.file(name), bytes));
    return dir.file(name);
  }
  std::wstring folder(const std::wstring& name) {
    CreateDirectoryW(dir.file(name).c_str(), nullptr);
    return dir.file(name);
  }
  ScratchDir dir;
};

}  // namespace kwtest
