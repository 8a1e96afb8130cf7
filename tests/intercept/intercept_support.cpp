#include "intercept_support.h"

#include <regex>

namespace kwtest {

LoadedDll::LoadedDll() {
  module_ = LoadLibraryW(dll_path().c_str());
  if (module_ != nullptr) {
    set_policy_ = reinterpret_cast<KwSetPolicyFn>(reinterpret_cast<void*>(GetProcAddress(module_, "SetPolicy")));
  }
}

LoadedDll& LoadedDll::get() {
  static LoadedDll dll;
  return dll;
}

DecodedFrame decode_frame(const std::string& wire) {
  DecodedFrame f;
  if (wire.size() < 36) return f;
  f.tag.assign(wire.data(), strnlen(wire.data(), 32));
  f.document = wire.substr(36);
  if (!f.document.empty() && f.document.back() == '\0') f.document.pop_back();
  return f;
}

std::vector<std::string> documents_with_tag(const TestAgent& agent, const std::string& tag) {
  std::vector<std::string> out;
  for (const std::string& wire : agent.frames()) {
    DecodedFrame f = decode_frame(wire);
    if (f.tag == tag) out.push_back(f.document);
  }
  return out;
}

std::string secret_answer(const std::vector<std::string>& secret_files, const std::string& password, int action,
                          const std::vector<std::string>& encrypted_files) {
  std::string xml = "<SecretCheckResult encryptedpwd=\"" + password + "\" action=\"" + std::to_string(action) + "\">";
  for (const std::string& f : secret_files) xml += "<SecretFile path=\"" + f + "\"/>";
  for (const std::string& f : encrypted_files) xml += "<EncryptedFile path=\"" + f + "\"/>";
  xml += "</SecretCheckResult>";
  return TestAgent::frame("<FILECOPY_SECRETAUDIT_RESPONSE>", xml);
}

std::string without_time(const std::string& document) {
  return std::regex_replace(document, std::regex(" time=\"-?[0-9]+\""), " time=\"T\"");
}

bool decrypts_to(const std::wstring& encrypted, const std::string& password, const std::string& original) {
  ScratchDir out;
  const std::wstring plain = out.file(L"plain.bin");
  ChildResult r = run_child(exe_dir() + L"kwdecrypt.exe",
                            L"\"" + encrypted + L"\" \"" + widen(password) + L"\" \"" + plain + L"\"", 60000);
  std::string bytes;
  return r.finished && r.exit_code == 0 && read_file(plain, &bytes) && bytes == original;
}

std::string utf8(const std::wstring& wide) { return narrow(wide); }

std::string temp_folder_utf8() {
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  return narrow(temp);
}

std::vector<ParkedRecord> parked_records() {
  std::vector<ParkedRecord> out;
  const std::wstring root = widen(temp_folder_utf8()) + L"kwindel-parked\\";
  WIN32_FIND_DATAW folder, record;
  HANDLE folders = FindFirstFileW((root + L"*").c_str(), &folder);
  for (bool more = folders != INVALID_HANDLE_VALUE; more; more = FindNextFileW(folders, &folder)) {
    if (!(folder.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || folder.cFileName[0] == L'.') continue;
    const std::wstring dir = root + folder.cFileName + L"\\";
    HANDLE records = FindFirstFileW((dir + L"*.rec").c_str(), &record);
    for (bool r = records != INVALID_HANDLE_VALUE; r; r = FindNextFileW(records, &record)) {
      std::string text;
      const std::wstring stem = dir + std::wstring(record.cFileName).substr(0, wcslen(record.cFileName) - 4);
      if (read_file(stem + L".rec", &text)) out.push_back({text.substr(0, text.find('\n')), stem + L".orig"});
    }
    if (records != INVALID_HANDLE_VALUE) FindClose(records);
  }
  if (folders != INVALID_HANDLE_VALUE) FindClose(folders);
  return out;
}

}  // namespace kwtest
