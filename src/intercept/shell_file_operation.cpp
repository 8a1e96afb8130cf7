#include "intercept/shell_file_operation.h"

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/debug_trace.h"
#include "host/policy_block.h"
#include "protect/classify.h"
#include "protect/pending_files.h"

decltype(&SHFileOperationW) g_SHFileOperationW = nullptr;

namespace {

constexpr int kRefused = -1;

// The entries of a double-NUL-terminated path list, UTF-8, empty entries skipped.
std::vector<std::string> list_entries(const wchar_t* list) {
  std::vector<std::string> entries;
  for (const wchar_t* p = list; *p != L'\0'; p += wcslen(p) + 1) entries.push_back(wide_to_utf8(p));
  return entries;
}

// The secret audit: the first source local and the destination of a watched class.
bool secret_check_applies(const SHFILEOPSTRUCTW& op) {
  if (ClassifyDestination(op.pFrom) != 0) return false;
  return destination_class_watched(ClassifyDestination(op.pTo));
}

}  // namespace

int WINAPI Hook_SHFileOperationW(LPSHFILEOPSTRUCTW op) {
  DebugTrace("Hook_SHFileOperationW", 826, "SHFileOperationW");
  if (g_policy_block.g_secret_audit == 0 && g_policy_block.g_copy_audit == 0) return g_SHFileOperationW(op);
  if (op == nullptr || (op->wFunc != FO_COPY && op->wFunc != FO_MOVE)) return g_SHFileOperationW(op);
  if (op->pFrom == nullptr || op->pTo == nullptr) return g_SHFileOperationW(op);

  if (g_policy_block.g_secret_audit == 1 && secret_check_applies(*op)) {
    SecretAuditResult result;
    if (RequestSecretAuditForShellLists(op->pFrom, op->pTo, result)) {
      if (result.secret_files.empty() && result.encrypted_files.empty()) return kRefused;
      if (result.action == 0) return kRefused;
      register_pending_encrypted_files(result);  // the per-file copies encrypt these
    }
  }

  if (g_policy_block.g_copy_audit == 0) return g_SHFileOperationW(op);
  const int operation = op->wFunc == FO_COPY ? kCopyAuditCopy : kCopyAuditMove;
  SendCopyAuditRecord(operation, wide_to_utf8(op->pTo), list_entries(op->pFrom));
  return g_SHFileOperationW(op);
}
