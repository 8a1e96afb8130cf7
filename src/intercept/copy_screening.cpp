#include "intercept/copy_screening.h"

#include "agent/copy_audit.h"
#include "protect/audited_files.h"

namespace {
bool secret_check_on(const PolicyBlock& policy) { return policy.g_secret_audit == 1; }
}  // namespace

Verdict secret_verdict(const PolicyBlock& policy, const ScreenedClasses& classes, AgentReply reply,
                       const SecretAuditResult& answer) {
  if (!secret_check_on(policy) || classes.source != kDestinationLocal) return Verdict::kLetThrough;
  if (!destination_class_watched(policy.g_audit_dest_mask, classes.destination)) return Verdict::kLetThrough;
  if (reply == AgentReply::kNotAsked) return Verdict::kAskAgent;
  if (reply == AgentReply::kNotSecret) return Verdict::kLetThrough;
  if (answer.secret_files.empty() && answer.encrypted_files.empty()) return Verdict::kRefuse;
  if (answer.action == 0) return Verdict::kForbid;
  if (!answer.secret_files.empty() && !answer.encrypted_pwd.empty()) return Verdict::kProtect;
  return Verdict::kLetThrough;
}

ScreenedClasses classify_for_secret_check(const PolicyBlock& policy, const wchar_t* first_source,
                                          const wchar_t* destination) {
  ScreenedClasses classes;
  if (!secret_check_on(policy)) return classes;
  classes.source = ClassifyDestination(first_source);
  classes.destination = ClassifyDestination(destination != nullptr ? destination : L"");
  return classes;
}

std::wstring arrival_of(const std::wstring& file, const std::vector<std::wstring>& moved, const std::wstring& destination,
                        const wchar_t* new_name) {
  for (const std::wstring& item : moved) {
    const bool inside = file.size() > item.size() && file[item.size()] == L'\\' &&
                        _wcsnicmp(file.c_str(), item.c_str(), item.size()) == 0;
    if (!inside && _wcsicmp(file.c_str(), item.c_str()) != 0) continue;
    const std::wstring name = new_name != nullptr ? std::wstring(new_name) : item.substr(item.rfind(L'\\') + 1);
    return destination + L"\\" + name + file.substr(item.size());
  }
  return std::wstring();
}

void audit_copy(const PolicyBlock& policy, int operation, const std::string& destination,
                const std::vector<std::string>& sources) {
  if (policy.g_copy_audit == 0) return;
  send_copy_audit_record(operation, destination, list_audited_files(sources));
}
