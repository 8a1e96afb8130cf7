#include "protect/pending_files.h"

#include <cstring>
#include <list>
#include <string>

#include "host/utf_conversion.h"
#include "protect/parked_originals.h"
#include "protect/table_lock.h"

namespace {
struct PendingEncryptedFile {
  std::string source;    // UTF-8, as the agent named it
  std::string password;
};
std::list<PendingEncryptedFile> PendingEncryptedFiles;  // guarded by protect::TableLock
}  // namespace

void register_pending_encrypted_files(const std::vector<std::string>& secret_files, const std::string& password) {
  if (secret_files.empty() || password.empty()) return;
  protect::TableLock lock;
  for (const std::string& path : secret_files) PendingEncryptedFiles.push_back({path, password});
}

void TakeAndTransform(const wchar_t* source, const wchar_t* destination, bool moved) {
  protect::TableLock lock;  // held through the whole transformation: transformations never overlap
  if (PendingEncryptedFiles.empty()) return;
  const std::string source_utf8 = wide_to_utf8(source);
  const std::string destination_utf8 = wide_to_utf8(destination);
  auto entry = PendingEncryptedFiles.begin();
  while (entry != PendingEncryptedFiles.end() && _stricmp(entry->source.c_str(), source_utf8.c_str()) != 0) ++entry;
  if (entry == PendingEncryptedFiles.end()) return;
  // Replaced in one step by the encrypted form only when that was written whole. Otherwise the
  // plaintext must not stay at the destination: a copy goes (its source keeps the content), a
  // moved file goes back where it came from (if even that fails it stays: it is the only one).
  if (!encrypt_in_place(destination_utf8, entry->password)) {
    if (moved) {
      MoveFileW(destination, source);
    } else {
      DeleteFileW(destination);
    }
  }
  PendingEncryptedFiles.erase(entry);
}

void clear_pending_encrypted_files() {
  protect::TableTryLock lock;  // at process detach a thread ended inside may still own it
  if (lock.owns()) PendingEncryptedFiles.clear();
}

size_t pending_encrypted_file_count() {
  protect::TableLock lock;
  return PendingEncryptedFiles.size();
}
