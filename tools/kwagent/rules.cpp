#include "rules.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <tinyxml2.h>

std::wstring widen(const std::string& utf8) {
  if (utf8.empty()) return std::wstring();
  int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(n, L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], n);
  return out;
}

std::string narrow(const std::wstring& wide) {
  if (wide.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  std::string out(n, '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), &out[0], n, nullptr, nullptr);
  return out;
}

namespace {

std::wstring lower(const std::string& utf8) {
  std::wstring wide = widen(utf8);
  if (!wide.empty()) CharLowerBuffW(&wide[0], static_cast<DWORD>(wide.size()));
  return wide;
}

// '*' any run of characters (backslashes included), '?' one character.
bool wildcard_match(const wchar_t* pattern, const wchar_t* text) {
  const wchar_t* star = nullptr;
  const wchar_t* resume = nullptr;
  while (*text != L'\0') {
    if (*pattern == L'*') {
      star = pattern++;
      resume = text;
    } else if (*pattern == L'?' || *pattern == *text) {
      ++pattern;
      ++text;
    } else if (star != nullptr) {
      pattern = star + 1;
      text = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == L'*') ++pattern;
  return *pattern == L'\0';
}

// Blank-separated fields; a field in double quotes may hold blanks; '#' ends the line.
std::vector<std::string> split_fields(const std::string& line) {
  std::vector<std::string> fields;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
    if (i >= line.size() || line[i] == '#') break;
    std::string field;
    if (line[i] == '"') {
      size_t end = line.find('"', i + 1);
      if (end == std::string::npos) end = line.size();
      field = line.substr(i + 1, end - i - 1);
      i = end + 1;
    } else {
      size_t end = line.find_first_of(" \t\r", i);
      if (end == std::string::npos) end = line.size();
      field = line.substr(i, end - i);
      i = end;
    }
    fields.push_back(field);
  }
  return fields;
}

// One line's fields into *rules; false when the line is not understood.
bool add_rule(const std::vector<std::string>& f, Rules* rules) {
  Rule rule;
  if (f[0] == "secret" && (f.size() == 3 || f.size() == 4)) {
    rule.kind = RuleKind::kSecret;
    rule.password = f[2];
    if (f.size() == 4) rule.action = std::atoi(f[3].c_str());
  } else if (f[0] == "encrypted" && f.size() == 2) {
    rule.kind = RuleKind::kEncrypted;
  } else if (f[0] == "deny" && f.size() == 2) {
    rule.kind = RuleKind::kDeny;
  } else if (f[0] == "allow" && f.size() == 2) {
    rule.kind = RuleKind::kAllow;
  } else if (f[0] == "default" && f.size() == 2 && (f[1] == "allow" || f[1] == "deny" || f[1] == "empty")) {
    rules->fallback = f[1] == "allow" ? Default::kAllow : f[1] == "deny" ? Default::kDeny : Default::kEmpty;
    return true;
  } else {
    return false;
  }
  rule.pattern = lower(f[1]);
  rules->rules.push_back(rule);
  return true;
}

std::string compact(tinyxml2::XMLDocument& document) {
  tinyxml2::XMLPrinter printer(nullptr, true);
  document.Print(&printer);
  return std::string(printer.CStr(), printer.CStrSize() > 0 ? printer.CStrSize() - 1 : 0);
}

void add_files(tinyxml2::XMLElement* root, const char* element, const std::vector<std::string>& paths) {
  for (const std::string& path : paths) root->InsertNewChildElement(element)->SetAttribute("path", path.c_str());
}

}  // namespace

bool load_rules(const std::wstring& path, Rules* rules) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(_wfopen(path.c_str(), L"rb"), &std::fclose);
  if (file == nullptr) {
    std::fprintf(stderr, "kwagent: cannot open the rules file %s\n", narrow(path).c_str());
    return false;
  }
  char buffer[4096];
  int line_number = 0;
  bool ok = true;
  while (std::fgets(buffer, sizeof buffer, file.get()) != nullptr) {
    ++line_number;
    std::string line(buffer);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (line_number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
    const std::vector<std::string> fields = split_fields(line);
    if (fields.empty() || add_rule(fields, rules)) continue;
    std::fprintf(stderr, "kwagent: rules line %d not understood: %s\n", line_number, line.c_str());
    ok = false;
  }
  return ok;
}

Answer decide(const Rules& rules, const std::vector<std::string>& sources) {
  std::vector<std::string> secret, encrypted, denied;
  const Rule* first_secret = nullptr;
  bool any_match = false;
  for (const std::string& source : sources) {
    const std::wstring path = lower(source);
    const Rule* match = nullptr;
    for (const Rule& rule : rules.rules) {
      if (wildcard_match(rule.pattern.c_str(), path.c_str())) {
        match = &rule;
        break;
      }
    }
    if (match == nullptr) {
      if (rules.fallback == Default::kDeny) denied.push_back(source);
      continue;
    }
    any_match = true;
    switch (match->kind) {
      case RuleKind::kSecret:
        secret.push_back(source);
        if (first_secret == nullptr) first_secret = match;
        break;
      case RuleKind::kEncrypted: encrypted.push_back(source); break;
      case RuleKind::kDeny: denied.push_back(source); break;
      case RuleKind::kAllow: break;
    }
  }
  if (!any_match && rules.fallback == Default::kEmpty) return Answer{Answer::kEmpty, ""};
  tinyxml2::XMLDocument document;
  tinyxml2::XMLElement* root = document.NewElement("SecretCheckResult");
  document.InsertEndChild(root);
  if (!denied.empty()) {  // a denial names only the denied sources
    root->SetAttribute("encryptedpwd", "");
    root->SetAttribute("action", 0);
    add_files(root, "SecretFile", denied);
  } else {
    root->SetAttribute("encryptedpwd", first_secret != nullptr ? first_secret->password.c_str() : "");
    root->SetAttribute("action", first_secret != nullptr ? first_secret->action : 1);
    add_files(root, "SecretFile", secret);
    add_files(root, "EncryptedFile", encrypted);
  }
  return Answer{Answer::kDocument, compact(document)};
}
