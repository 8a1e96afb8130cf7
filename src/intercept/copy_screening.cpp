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

void audit_copy(const PolicyBlock& policy, int operation, const std::string& destination,
                const std::vector<std::string>& sources) {
  if (policy.g_copy_audit == 0) return;
  send_copy_audit_record(operation, destination, list_audited_files(sources));
}
