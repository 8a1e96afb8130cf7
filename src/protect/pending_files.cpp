#include "protect/pending_files.h"

#include <cstring>
#include <list>
#include <string>

#include "host/caller_context.h"
#include "host/hook_setup.h"
#include "protect/transform.h"

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

void TakeAndTransform(const wchar_t* source, const wchar_t* destination) {
  PendingLock lock;  // held through the whole transformation: transformations never overlap
  if (PendingEncryptedFiles.empty()) return;
  const std::string source_utf8 = wide_to_utf8(source);
  const std::string destination_utf8 = wide_to_utf8(destination);
  auto entry = PendingEncryptedFiles.begin();
  while (entry != PendingEncryptedFiles.end() && _stricmp(entry->source.c_str(), source_utf8.c_str()) != 0) ++entry;
  if (entry == PendingEncryptedFiles.end()) return;
  const std::string temporary = destination_utf8 + ".tmp";
  TransformCopiedFile(destination_utf8.c_str(), temporary.c_str(), entry->password.c_str());
  // Replaced whatever the transformation returned: a copy that cannot be encrypted must not
  // stay readable, even if that leaves no file at the destination.
  DeleteFileW(destination);
  MoveFileW(utf8_to_wide(temporary).c_str(), destination);
  PendingEncryptedFiles.erase(entry);
}

void clear_pending_encrypted_files() {
  PendingLock lock;
  PendingEncryptedFiles.clear();
}

size_t pending_encrypted_file_count() {
  PendingLock lock;
  return PendingEncryptedFiles.size();
}
