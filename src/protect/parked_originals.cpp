#include "protect/parked_originals.h"

#include <windows.h>

#include <cstring>
#include <map>

#include "host/caller_context.h"
#include "host/owners.h"
#include "protect/table_lock.h"
#include "protect/transform.h"

namespace {

constexpr wchar_t kRootName[] = L"kwindel-parked";
constexpr wchar_t kStrandedSuffix[] = L".stranded";
constexpr int kRestoreRetries = 20;  // at most 20 x 5 ms per source after PerformOperations
constexpr DWORD kRestoreRetryMs = 5;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr size_t kDigestHex = kDigestFieldSize - 1;

struct Swapped {
  unsigned index;      // N of N.orig and N.rec in the process folder
  std::string digest;  // MD5 of the original in hex, as in the encrypted form's header
};

// Guarded by protect::TableLock: the swapped sources (key: the path as the agent named it,
// ordered byte-wise), this process's folder, its lock and the next free index.
std::map<std::string, Swapped> SwappedSourceFiles;
std::wstring g_folder;
OwnedHandle g_owner_lock;
unsigned g_next_index = 0;

std::wstring parking_root() {
  wchar_t temp[MAX_PATH + 1] = {};
  const DWORD n = GetTempPathW(MAX_PATH, temp);
  if (n == 0 || n > MAX_PATH) return std::wstring();
  return std::wstring(temp) + kRootName;
}

bool exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::wstring item(const std::wstring& folder, unsigned index, const wchar_t* extension) {
  return folder + L"\\" + std::to_wstring(index) + extension;
}

// The first 41 bytes of a file and its size; false when it cannot be read that far.
bool read_header(const std::wstring& path, uint8_t header[kEncryptedHeaderSize], ULONGLONG* size) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
  LARGE_INTEGER length = {};
  DWORD got = 0;
  if (!file.ok() || !GetFileSizeEx(file.get(), &length)) return false;
  if (!ReadFile(file.get(), header, kEncryptedHeaderSize, &got, nullptr) || got != kEncryptedHeaderSize) return false;
  *size = static_cast<ULONGLONG>(length.QuadPart);
  return true;
}

// The digest of an encrypted form's header, "" when `header` is not one.
std::string header_digest(const uint8_t header[kEncryptedHeaderSize]) {
  if (std::memcmp(header, kEncryptedFileMagic, 8) != 0 || header[8 + kDigestHex] != 0) return std::string();
  for (size_t i = 0; i < kDigestHex; ++i) {
    const char c = static_cast<char>(header[8 + i]);
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::string();
  }
  return std::string(reinterpret_cast<const char*>(header + 8), kDigestHex);
}

bool is_encrypted_form(const std::wstring& path) {
  uint8_t header[kEncryptedHeaderSize];
  ULONGLONG size = 0;
  return read_header(path, header, &size) && !header_digest(header).empty();
}

// True when `place` holds the encrypted form of the parked original `parked` with `digest`.
bool holds_encrypted_form_of(const std::wstring& place, const std::wstring& parked, const std::string& digest) {
  uint8_t header[kEncryptedHeaderSize];
  ULONGLONG size = 0;
  WIN32_FILE_ATTRIBUTE_DATA original = {};
  if (!read_header(place, header, &size) || header_digest(header) != digest) return false;
  if (!GetFileAttributesExW(parked.c_str(), GetFileExInfoStandard, &original)) return false;
  const ULONGLONG original_size = (static_cast<ULONGLONG>(original.nFileSizeHigh) << 32) | original.nFileSizeLow;
  return size == original_size + kEncryptedHeaderSize;
}

enum class Restore { kRestored, kBusy, kNotOurs };

// Puts the parked original back in `source`'s place when the place is empty or holds its
// encrypted form; never deletes the original, never replaces a file the user made.
Restore restore_one(const std::wstring& source, const std::wstring& parked, const std::string& digest, int retries) {
  for (int attempt = 0;; ++attempt) {
    DWORD flags = MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH;
    if (exists(source)) {
      if (!holds_encrypted_form_of(source, parked, digest)) return Restore::kNotOurs;
      flags |= MOVEFILE_REPLACE_EXISTING;  // one step: the place is never empty
    }
    if (MoveFileExW(parked.c_str(), source.c_str(), flags)) return Restore::kRestored;
    // A program holding the encrypted form open blocks the replacement: give it a moment.
    if (attempt >= retries) return Restore::kBusy;
    Sleep(kRestoreRetryMs);
  }
}

// A record: the source's path and the original's digest; false when it is not one.
bool read_record(const std::wstring& path, std::wstring* source, std::string* digest) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
  char buffer[4096];
  DWORD got = 0;
  if (!file.ok() || !ReadFile(file.get(), buffer, sizeof buffer, &got, nullptr)) return false;
  const std::string text(buffer, got);
  const size_t end = text.find('\n');
  if (end == std::string::npos || end == 0 || text.size() < end + 1 + kDigestHex) return false;
  *source = utf8_to_wide(text.substr(0, end));
  *digest = text.substr(end + 1, kDigestHex);
  return true;
}

bool write_record(const std::wstring& path, const std::string& source, const std::string& digest) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.ok()) return false;
  const std::string text = source + "\n" + digest + "\n";
  DWORD put = 0;
  // Flushed before the original moves: a record must outlive a power loss that the move survives.
  return WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &put, nullptr) && put == text.size() &&
         FlushFileBuffers(file.get());
}

// This process's folder, made on first use; "" when it cannot be had. Under TableLock.
const std::wstring& process_folder() {
  if (!g_folder.empty() && g_owner_lock.ok()) return g_folder;
  g_folder.clear();
  const std::wstring root = parking_root();
  if (root.empty()) return g_folder;
  FILETIME created = {}, unused = {};
  GetProcessTimes(GetCurrentProcess(), &created, &unused, &unused, &unused);
  const std::wstring base = root + L"\\" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                            std::to_wstring((static_cast<ULONGLONG>(created.dwHighDateTime) << 32) | created.dwLowDateTime);
  // A recovery in another process may remove the empty root or take a folder not yet locked:
  // then the next name is tried.
  for (int attempt = 0; attempt < 8; ++attempt) {
    CreateDirectoryW(root.c_str(), nullptr);
    const std::wstring folder = base + L"-" + std::to_wstring(attempt);
    if (!CreateDirectoryW(folder.c_str(), nullptr)) continue;
    g_owner_lock.reset(CreateFileW((folder + L"\\owner.lock").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                   FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    if (g_owner_lock.ok()) {
      g_folder = folder;
      g_next_index = 0;
      break;
    }
  }
  return g_folder;
}

bool folder_has_records(const std::wstring& folder) {
  WIN32_FIND_DATAW data;
  OwnedFind find(FindFirstFileW((folder + L"\\*.rec").c_str(), &data));
  return find.ok();
}

// Writes the encrypted form of `file` whole into the process folder. Under TableLock.
bool write_encrypted_form(const std::wstring& file, const std::string& password, unsigned* index,
                          std::wstring* encrypted, std::string* digest) {
  const std::wstring& folder = process_folder();
  if (folder.empty()) return false;
  *index = g_next_index++;
  *encrypted = item(folder, *index, L".enc");
  bool complete = false;
  TransformCopiedFile(wide_to_utf8(file).c_str(), wide_to_utf8(*encrypted).c_str(), password.c_str(), &complete);
  uint8_t header[kEncryptedHeaderSize];
  ULONGLONG size = 0;
  if (complete && read_header(*encrypted, header, &size)) *digest = header_digest(header);
  if (!complete || digest->empty()) {
    DeleteFileW(encrypted->c_str());  // the library's own partial file
    return false;
  }
  return true;
}

bool inside_parking_root(const std::wstring& path) {
  const std::wstring root = parking_root() + L"\\";
  return !root.empty() && path.size() > root.size() && _wcsnicmp(path.c_str(), root.c_str(), root.size()) == 0;
}

// Restores one table entry; erases it unless the place is only busy. Under TableLock.
void restore_entry(std::map<std::string, Swapped>::iterator entry, int retries) {
  const std::wstring parked = item(g_folder, entry->second.index, L".orig");
  const std::wstring record = item(g_folder, entry->second.index, L".rec");
  Restore outcome = Restore::kRestored;
  if (exists(parked)) outcome = restore_one(utf8_to_wide(entry->first), parked, entry->second.digest, retries);
  if (outcome == Restore::kBusy) return;
  if (outcome == Restore::kRestored) DeleteFileW(record.c_str());  // kNotOurs keeps its record
  SwappedSourceFiles.erase(entry);
}

// Recovers one folder of a gone owner; false when its owner (or another recovery) holds it.
bool recover_folder(const std::wstring& folder, std::vector<ParkedOriginal>* left, int* restored) {
  OwnedHandle lock(CreateFileW((folder + L"\\owner.lock").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (!lock.ok()) return false;
  WIN32_FIND_DATAW data;
  bool stranded = false;
  const size_t first_left = left != nullptr ? left->size() : 0;
  {
    OwnedFind find(FindFirstFileW((folder + L"\\*.rec").c_str(), &data));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &data)) {
      const std::wstring record = folder + L"\\" + data.cFileName;
      const std::wstring stem = record.substr(0, record.size() - 4);
      std::wstring source;
      std::string digest;
      if (!read_record(record, &source, &digest)) {
        stranded = true;  // unreadable: left to an administrator with whatever it names
        continue;
      }
      // A record without its original belongs to a swap that never parked or already put it back.
      if (!exists(stem + L".orig")) {
        DeleteFileW(record.c_str());
        continue;
      }
      if (restore_one(source, stem + L".orig", digest, 0) == Restore::kRestored) {
        DeleteFileW(record.c_str());
        if (restored != nullptr) ++*restored;
      } else {
        stranded = true;
        if (left != nullptr) left->push_back({source, stem + L".orig"});
      }
    }
  }
  {
    // The encrypted forms of swaps cut short: the library's own.
    OwnedFind find(FindFirstFileW((folder + L"\\*.enc").c_str(), &data));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &data)) DeleteFileW((folder + L"\\" + data.cFileName).c_str());
  }
  lock.reset();  // deletes owner.lock
  if (!stranded) {
    RemoveDirectoryW(folder.c_str());
  } else if (folder.size() < 9 || folder.compare(folder.size() - 9, 9, kStrandedSuffix) != 0) {
    // Out of the way of every load's recovery; what is listed names the folder's new name.
    if (MoveFileW(folder.c_str(), (folder + kStrandedSuffix).c_str()) && left != nullptr) {
      for (size_t i = first_left; i < left->size(); ++i) (*left)[i].parked.insert(folder.size(), kStrandedSuffix);
    }
  }
  return true;
}

bool recover(bool include_stranded, std::vector<ParkedOriginal>* left, int* restored) {
  const std::wstring root = parking_root();
  if (root.empty() || !exists(root)) return true;  // the one probe when nothing is parked
  // One recovery at a time for the user: whoever holds the lock file does it, nobody waits.
  OwnedHandle lock(CreateFileW((root + L"\\recovery.lock").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (!lock.ok()) return false;
  WIN32_FIND_DATAW data;
  std::vector<std::wstring> folders;
  {
    OwnedFind find(FindFirstFileW((root + L"\\*").c_str(), &data));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &data)) {
      const std::wstring name = data.cFileName;
      if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || name == L"." || name == L"..") continue;
      const bool is_stranded = name.size() > 9 && name.compare(name.size() - 9, 9, kStrandedSuffix) == 0;
      if (is_stranded && !include_stranded) continue;
      folders.push_back(root + L"\\" + name);
    }
  }
  for (const std::wstring& folder : folders) recover_folder(folder, left, restored);
  lock.reset();
  RemoveDirectoryW(root.c_str());  // only when empty; a process making its folder retries
  return true;
}

}  // namespace

SwapOutcome swap_source(const std::string& source, const std::string& password) {
  protect::TableLock lock;  // held through the transformation: one swap of a source at a time
  if (SwappedSourceFiles.count(source) != 0) return SwapOutcome::kSkipped;
  const std::wstring wide_source = utf8_to_wide(source);
  const DWORD attributes = GetFileAttributesW(wide_source.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? SwapOutcome::kSkipped : SwapOutcome::kFailed;
  }
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) || inside_parking_root(wide_source)) return SwapOutcome::kFailed;
  if (is_encrypted_form(wide_source)) return SwapOutcome::kSkipped;  // swapped by another process
  unsigned index = 0;
  std::wstring encrypted;
  std::string digest;
  if (!write_encrypted_form(wide_source, password, &index, &encrypted, &digest)) return SwapOutcome::kFailed;
  const std::wstring record = item(g_folder, index, L".rec"), parked = item(g_folder, index, L".orig");
  if (!write_record(record, source, digest)) {
    DeleteFileW(record.c_str());
    DeleteFileW(encrypted.c_str());
    return SwapOutcome::kFailed;
  }
  if (!MoveFileExW(wide_source.c_str(), parked.c_str(), MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH)) {
    DeleteFileW(record.c_str());
    DeleteFileW(encrypted.c_str());
    return SwapOutcome::kFailed;
  }
  // Replacing: a move across volumes may have left the source in place (its copy is parked).
  if (MoveFileExW(encrypted.c_str(), wide_source.c_str(),
                  MOVEFILE_COPY_ALLOWED | MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    SwappedSourceFiles.emplace(source, Swapped{index, digest});
    return SwapOutcome::kSwapped;
  }
  DeleteFileW(encrypted.c_str());
  if (restore_one(wide_source, parked, digest, kRestoreRetries) == Restore::kRestored) {
    DeleteFileW(record.c_str());
  } else {
    SwappedSourceFiles.emplace(source, Swapped{index, digest});  // the next restore tries again
  }
  return SwapOutcome::kFailed;
}

void restore_sources(const std::vector<std::string>& sources) {
  protect::TableLock lock;
  for (const std::string& source : sources) {
    const auto entry = SwappedSourceFiles.find(source);
    if (entry != SwappedSourceFiles.end()) restore_entry(entry, kRestoreRetries);
  }
}

void restore_swapped_sources() {
  protect::TableLock lock;
  for (auto entry = SwappedSourceFiles.begin(); entry != SwappedSourceFiles.end();) restore_entry(entry++, kRestoreRetries);
}

void restore_all_parked() {
  protect::TableTryLock lock;
  if (!lock.owns()) return;  // a thread ended while holding it: the records wait for recovery
  for (auto entry = SwappedSourceFiles.begin(); entry != SwappedSourceFiles.end();) restore_entry(entry++, 0);
  SwappedSourceFiles.clear();  // what is left stays recorded in the folder
  if (g_folder.empty()) return;
  const bool empty = !folder_has_records(g_folder);
  if (empty) {
    WIN32_FIND_DATAW data;
    OwnedFind find(FindFirstFileW((g_folder + L"\\*.enc").c_str(), &data));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &data)) DeleteFileW((g_folder + L"\\" + data.cFileName).c_str());
  }
  g_owner_lock.reset();  // from here on the folder is a gone owner's, for recovery
  if (empty) {
    RemoveDirectoryW(g_folder.c_str());
    RemoveDirectoryW(parking_root().c_str());
  }
  g_folder.clear();
}

size_t swapped_source_file_count() {
  protect::TableLock lock;
  return SwappedSourceFiles.size();
}

bool encrypt_in_place(const std::string& file, const std::string& password) {
  protect::TableLock lock;
  const std::wstring wide_file = utf8_to_wide(file);
  if (GetFileAttributesW(wide_file.c_str()) == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;  // nothing there to protect
  }
  if (is_encrypted_form(wide_file)) return true;
  unsigned index = 0;
  std::wstring encrypted;
  std::string digest;
  if (!write_encrypted_form(wide_file, password, &index, &encrypted, &digest)) return false;
  if (MoveFileExW(encrypted.c_str(), wide_file.c_str(),
                  MOVEFILE_COPY_ALLOWED | MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    return true;
  }
  DeleteFileW(encrypted.c_str());
  return false;
}

void recover_parked_originals() { recover(false, nullptr, nullptr); }

bool recover_and_list_parked_originals(std::vector<ParkedOriginal>* left, int* restored) {
  if (restored != nullptr) *restored = 0;
  return recover(true, left, restored);
}
