#include "protect/pending_files.h"

#include <list>
#include <string>

#include "host/hook_setup.h"

namespace {
struct PendingEncryptedFile {
  std::string source;    // UTF-8, as the agent named it
  std::string password;
};
std::list<PendingEncryptedFile> PendingEncryptedFiles;

struct PendingLock {
  PendingLock() { EnterCriticalSection(&g_pending_cs); }
  ~PendingLock() { LeaveCriticalSection(&g_pending_cs); }
};
}  // namespace

void register_pending_encrypted_files(const SecretAuditResult& result) {
  if (result.action == 0 || result.secret_files.empty() || result.encrypted_pwd.empty()) return;
  PendingLock lock;
  for (const std::string& path : result.secret_files) PendingEncryptedFiles.push_back({path, result.encrypted_pwd});
}

void TakeAndTransform(const wchar_t* /*source*/, const wchar_t* /*destination*/) {
  // Completed with the encrypted-file writer.
}

void clear_pending_encrypted_files() {
  PendingLock lock;
  PendingEncryptedFiles.clear();
}

size_t pending_encrypted_file_count() {
  PendingLock lock;
  return PendingEncryptedFiles.size();
}
