#include "intercept/shell_file_operation.h"

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/debug_trace.h"
#include "host/policy_block.h"
#include "intercept/copy_screening.h"
#include "protect/pending_files.h"

decltype(&SHFileOperationW) g_SHFileOperationW = nullptr;

namespace {

constexpr int kRefused = -1;

// The entries of a double-NUL-terminated path list, UTF-8, up to the first empty one.
std::vector<std::string> list_entries(const wchar_t* list) {
  std::vector<std::string> entries;
  for (const wchar_t* p = list; *p != L'\0'; p += wcslen(p) + 1) entries.push_back(wide_to_utf8(p));
  return entries;
}

}  // namespace

int WINAPI Hook_SHFileOperationW(LPSHFILEOPSTRUCTW op) {
  DebugTrace("Hook_SHFileOperationW", 826, "SHFileOperationW");
  if (g_policy_block.g_secret_audit == 0 && g_policy_block.g_copy_audit == 0) return g_SHFileOperationW(op);
  if (op == nullptr || (op->wFunc != FO_COPY && op->wFunc != FO_MOVE)) return g_SHFileOperationW(op);
  if (op->pFrom == nullptr || op->pTo == nullptr) return g_SHFileOperationW(op);

  SecretAuditResult result;
  const ScreenedClasses classes = classify_for_secret_check(g_policy_block, op->pFrom, op->pTo);
  Verdict verdict = secret_verdict(g_policy_block, classes, AgentReply::kNotAsked, result);
  if (verdict == Verdict::kAskAgent) {
    const bool answered = RequestSecretAuditForShellLists(op->pFrom, op->pTo, result);
    verdict = secret_verdict(g_policy_block, classes, answered ? AgentReply::kAnswered : AgentReply::kNotSecret, result);
  }
  if (verdict == Verdict::kRefuse || verdict == Verdict::kForbid) return kRefused;
  // The per-file copies that the operation makes encrypt these sources' copies.
  if (verdict == Verdict::kProtect) register_pending_encrypted_files(result.secret_files, result.encrypted_pwd);
  audit_copy(g_policy_block, op->wFunc == FO_COPY ? kCopyAuditCopy : kCopyAuditMove, wide_to_utf8(op->pTo),
             list_entries(op->pFrom));
  return g_SHFileOperationW(op);
}
