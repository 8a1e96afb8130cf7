#include "intercept/shell_file_operation.h"

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/debug_trace.h"
#include "host/policy_block.h"
#include "host/utf_conversion.h"
#include "intercept/copy_screening.h"
#include "intercept/replacement_boundary.h"
#include "protect/pending_files.h"

decltype(&SHFileOperationW) g_SHFileOperationW = nullptr;

namespace {

constexpr int kRefused = -1;

// The entries of a double-NUL-terminated path list, UTF-16, up to the first empty one.
std::vector<std::wstring> list_entries(const wchar_t* list) {
  std::vector<std::wstring> entries;
  for (const wchar_t* p = list; *p != L'\0'; p += wcslen(p) + 1) entries.push_back(p);
  return entries;
}

std::vector<std::string> utf8_entries(const wchar_t* list) {
  std::vector<std::string> entries;
  for (const std::wstring& entry : list_entries(list)) entries.push_back(wide_to_utf8(entry));
  return entries;
}

bool is_folder(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// The screening before the real call: false refuses the operation. The secret sources registered
// for encryption are added to `registered`.
bool screen(LPSHFILEOPSTRUCTW op, std::vector<std::string>* registered) {
  SecretAuditResult result;
  const ScreenedClasses classes = classify_for_secret_check(g_policy_block, op->pFrom, op->pTo);
  Verdict verdict = secret_verdict(g_policy_block, classes, AgentReply::kNotAsked, result);
  if (verdict == Verdict::kAskAgent) {
    const bool answered = RequestSecretAuditForShellLists(op->pFrom, op->pTo, result);
    verdict = secret_verdict(g_policy_block, classes, answered ? AgentReply::kAnswered : AgentReply::kNotSecret, result);
  }
  if (verdict == Verdict::kRefuse || verdict == Verdict::kForbid) return false;
  // The per-file copies and moves that the operation makes encrypt these sources' copies.
  if (verdict == Verdict::kProtect) {
    register_pending_encrypted_files(result.secret_files, result.encrypted_pwd);
    *registered = result.secret_files;
  }
  audit_copy(g_policy_block, op->wFunc == FO_COPY ? kCopyAuditCopy : kCopyAuditMove, wide_to_utf8(op->pTo),
             utf8_entries(op->pFrom));
  return true;
}

// After a move: a registered secret source that left its place without passing a hooked per-file
// move (the system moved it by other means, or moved its folder whole) is encrypted where it
// arrived. Sources that a per-file move already took are no longer registered and stay as they are.
void protect_moved_sources(LPSHFILEOPSTRUCTW op, const std::vector<std::string>& registered) {
  // Into a folder, or (one item) renamed to the destination's name.
  std::wstring folder = op->pTo;
  const wchar_t* new_name = nullptr;
  const size_t slash = folder.rfind(L'\\');
  if (!is_folder(folder)) {
    if (slash == std::wstring::npos) return;
    new_name = op->pTo + slash + 1;
    folder.resize(slash);
  }
  const std::vector<std::wstring> moved = list_entries(op->pFrom);
  for (const std::string& secret : registered) {
    const std::wstring source = utf8_to_wide(secret);
    const std::wstring arrived = arrival_of(source, moved, folder, new_name);
    if (!arrived.empty() && GetFileAttributesW(source.c_str()) == INVALID_FILE_ATTRIBUTES &&
        GetFileAttributesW(arrived.c_str()) != INVALID_FILE_ATTRIBUTES) {
      TakeAndTransform(source.c_str(), arrived.c_str(), /*moved=*/true);
    }
  }
}

}  // namespace

int WINAPI Hook_SHFileOperationW(LPSHFILEOPSTRUCTW op) {
  const LastError caller;
  DebugTrace("Hook_SHFileOperationW", 826, "SHFileOperationW");
  const bool screened = g_policy_block.g_secret_audit != 0 || g_policy_block.g_copy_audit != 0;
  if (!screened || op == nullptr || (op->wFunc != FO_COPY && op->wFunc != FO_MOVE) || op->pFrom == nullptr ||
      op->pTo == nullptr) {
    caller.put_back();
    return g_SHFileOperationW(op);
  }
  std::vector<std::string> registered;
  const bool let_through = at_boundary("Hook_SHFileOperationW", true, false, [&] { return screen(op, &registered); });
  caller.put_back();
  if (!let_through) return kRefused;
  const int result = g_SHFileOperationW(op);
  if (op->wFunc == FO_MOVE && !registered.empty()) {
    const LastError real;
    at_boundary("Hook_SHFileOperationW", 0, 0, [&] { return protect_moved_sources(op, registered), 0; });
    real.put_back();
  }
  return result;
}
