#include "protect/parked_originals.h"

#include <windows.h>
#include <sddl.h>
#include <shlobj.h>

#include <cstring>
#include <atomic>
#include <map>

#include "host/caller_context.h"
#include "host/debug_trace.h"
#include "host/owners.h"
#include "host/utf_conversion.h"
#include "protect/long_path.h"
#include "protect/md5.h"
#include "protect/table_lock.h"
#include "protect/transform.h"

namespace {

constexpr wchar_t kStrandedSuffix[] = L".stranded";
constexpr int kRestoreRetries = 20;  // at most 20 x 5 ms per source after PerformOperations
constexpr DWORD kRestoreRetryMs = 5;
constexpr DWORD kSourceLockWaitMs = 30000;  // another process swapping or restoring the same source
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr size_t kDigestHex = kDigestFieldSize - 1;

struct Swapped {
  unsigned index;         // N of N.orig and N.rec in the process folder
  std::string digest;     // MD5 of the original in hex, as in the encrypted form's header
  std::wstring moved_to;  // where a move carries the source; "" for a copy
};

// One operation's hold on a swapped source: an open handle of the source's hold event, which
// exists as long as any operation of any process holds the source.
struct Hold {
  std::string source;
  OwnedHandle event;
};

// Guarded by protect::TableLock: the swapped sources this process parked (key: the path as the
// agent named it, ordered byte-wise), the holds of each operation, this process's folder, its
// lock and the next free index.
std::map<std::string, Swapped> SwappedSourceFiles;
std::map<OperationKey, std::vector<Hold>> g_holds;
// g_holds.size(), readable without the lock: a Release of an object holding nothing (the common
// case, on a hot path) never waits behind another thread's transformation.
std::atomic<size_t> g_holding_operations{0};
std::wstring g_folder;
OwnedHandle g_owner_lock;
unsigned g_next_index = 0;

bool exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::wstring item(const std::wstring& folder, unsigned index, const wchar_t* extension) {
  return folder + L"\\" + std::to_wstring(index) + extension;
}

// The user's folder of the library, made readable only by the user and the system.
std::wstring make_root() {
  wchar_t base[MAX_PATH] = {};
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA | CSIDL_FLAG_CREATE, nullptr, 0, base))) return std::wstring();
  const std::wstring own = std::wstring(base) + L"\\kwindel";
  const std::wstring sddl = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;" + utf8_to_wide(get_user_sid_string()) + L")";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor, nullptr)) {
    SECURITY_ATTRIBUTES attributes = {sizeof attributes, descriptor, FALSE};
    CreateDirectoryW(own.c_str(), &attributes);  // an existing folder keeps what it has
    LocalFree(descriptor);
  }
  return exists(own) ? own + L"\\parked" : std::wstring();
}

// A name for the kernel objects of one source, the same in every process of the session: the
// MD5 of its upper-case UTF-16 path.
std::wstring source_object_name(const wchar_t* kind, const std::string& source) {
  std::wstring upper = utf8_to_wide(source);
  if (!upper.empty()) CharUpperBuffW(&upper[0], static_cast<DWORD>(upper.size()));
  MD5 md5;
  md5.update(upper.data(), upper.size() * sizeof(wchar_t));
  md5.finalize();
  return std::wstring(L"Local\\kwindel-") + kind + L"-" + utf8_to_wide(md5.hex_digest());
}

// Whether any operation of any process still holds `source`.
bool held_anywhere(const std::string& source) {
  OwnedHandle probe(OpenEventW(SYNCHRONIZE, FALSE, source_object_name(L"hold", source).c_str()));
  return probe.ok();
}

// The per-source lock that orders swaps and restores of one source across processes.
class SourceLock {
 public:
  SourceLock(const std::string& source, DWORD wait_ms)
      : mutex_(CreateMutexW(nullptr, FALSE, source_object_name(L"swap", source).c_str())) {
    if (!mutex_.ok()) return;
    const DWORD waited = WaitForSingleObject(mutex_.get(), wait_ms);
    owns_ = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;  // a holder that died left it consistent enough
  }
  ~SourceLock() {
    if (owns_) ReleaseMutex(mutex_.get());
  }
  SourceLock(const SourceLock&) = delete;
  SourceLock& operator=(const SourceLock&) = delete;
  bool owns() const { return owns_; }

 private:
  OwnedHandle mutex_;
  bool owns_ = false;
};

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

// Moves `from` over `place` in one step. Across volumes the file is first copied beside `place`
// (on its volume) and then renamed over it, so the place never holds a partial file.
bool move_over(const std::wstring& from, const std::wstring& place, bool replace) {
  const DWORD flags = MOVEFILE_WRITE_THROUGH | (replace ? MOVEFILE_REPLACE_EXISTING : 0);
  if (MoveFileExW(from.c_str(), place.c_str(), flags)) return true;
  if (GetLastError() != ERROR_NOT_SAME_DEVICE) return false;
  const std::wstring beside = place + L"." + std::to_wstring(GetCurrentProcessId()) + L".kwrestore";
  if (!CopyFileW(from.c_str(), beside.c_str(), FALSE)) {
    DeleteFileW(beside.c_str());
    return false;
  }
  if (!MoveFileExW(beside.c_str(), place.c_str(), flags)) {
    DeleteFileW(beside.c_str());
    return false;
  }
  DeleteFileW(from.c_str());  // the original now stands in its place
  return true;
}

enum class Restore { kRestored, kBusy, kNotOurs };

// Puts the parked original back in `source`'s place when the place is empty or holds its
// encrypted form; never deletes the original before it is back, never replaces a file the user made.
Restore restore_one(const std::wstring& source, const std::wstring& parked, const std::string& digest, int retries) {
  for (int attempt = 0;; ++attempt) {
    const bool occupied = exists(source);
    if (occupied && !holds_encrypted_form_of(source, parked, digest)) return Restore::kNotOurs;
    if (move_over(parked, source, occupied)) return Restore::kRestored;
    // A program holding the encrypted form open blocks the replacement: give it a moment.
    if (attempt >= retries) return Restore::kBusy;
    Sleep(kRestoreRetryMs);
  }
}

// A record: the source's path and the original's digest; false when it is not one.
bool read_record(const std::wstring& path, std::wstring* source, std::string* digest) {
  OwnedHandle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr));
  char buffer[65536 + 64];  // a path of at most 32767 UTF-16 units, as UTF-8, and the digest
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

// A record whose original is not in the folder: a restore that completed before its record went
// (the source holds the original again) drops it; otherwise the original is missing, which is
// traced, and the record is kept as N.missing. True when it was missing.
bool settle_record_without_original(const std::wstring& record, const std::wstring& source, const std::string& digest) {
  if (FileDigestHex(long_path(source)) == digest) {
    DeleteFileW(record.c_str());
    return false;
  }
  DebugTrace("restore_swapped_sources", 1300, "[ZELTRAP:KWINDEL] parked original missing %s", wide_to_utf8(source).c_str());
  MoveFileW(record.c_str(), (record.substr(0, record.size() - 4) + L".missing").c_str());
  return true;
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

bool folder_has(const std::wstring& folder, const wchar_t* pattern) {
  WIN32_FIND_DATAW data;
  OwnedFind find(FindFirstFileW((folder + L"\\" + pattern).c_str(), &data));
  return find.ok();
}

// Writes the encrypted form of `file` whole beside it (on its volume); its digest in *digest.
bool write_encrypted_form_beside(const std::wstring& file, const std::string& password, std::wstring* encrypted,
                                 std::string* digest) {
  static volatile LONG counter = 0;
  *encrypted = file + L"." + std::to_wstring(GetCurrentProcessId()) + L"-" +
               std::to_wstring(InterlockedIncrement(&counter)) + L".kwenc";
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
  const std::wstring root = parking_root();
  if (root.empty()) return false;
  const std::wstring prefix = root + L"\\";
  const std::wstring plain = path.compare(0, 4, L"\\\\?\\") == 0 ? path.substr(4) : path;
  return plain.size() > prefix.size() && _wcsnicmp(plain.c_str(), prefix.c_str(), prefix.size()) == 0;
}

// Restores one table entry; erases it unless the place is only busy. Under TableLock.
void restore_entry(std::map<std::string, Swapped>::iterator entry, int retries) {
  const std::wstring parked = item(g_folder, entry->second.index, L".orig");
  const std::wstring record = item(g_folder, entry->second.index, L".rec");
  const std::wstring source = long_path(utf8_to_wide(entry->first));
  const std::wstring& moved_to = entry->second.moved_to;
  if (!exists(record)) {  // put back by the last holder in another process
    SwappedSourceFiles.erase(entry);
    return;
  }
  if (!exists(parked)) {
    settle_record_without_original(record, source, entry->second.digest);
    SwappedSourceFiles.erase(entry);
    return;
  }
  // A move that the engine carried out: the encrypted form arrived, the original is not wanted.
  if (!moved_to.empty() && !exists(source) && holds_encrypted_form_of(moved_to, parked, entry->second.digest)) {
    DeleteFileW(parked.c_str());
    DeleteFileW(record.c_str());
    SwappedSourceFiles.erase(entry);
    return;
  }
  const Restore outcome = restore_one(source, parked, entry->second.digest, retries);
  if (outcome == Restore::kBusy) return;
  if (outcome == Restore::kRestored) DeleteFileW(record.c_str());  // kNotOurs keeps its record
  SwappedSourceFiles.erase(entry);
}

// The last holder of a source that another process parked: puts its original back from that
// process's record. Under the source's lock.
void restore_from_other_process(const std::string& source) {
  const std::wstring root = parking_root();
  const std::wstring wanted = utf8_to_wide(source);
  if (root.empty()) return;
  WIN32_FIND_DATAW folder_data, record_data;
  OwnedFind folders(FindFirstFileW((root + L"\\*").c_str(), &folder_data));
  for (bool more = folders.ok(); more; more = FindNextFileW(folders.get(), &folder_data)) {
    const std::wstring name = folder_data.cFileName;
    if (!(folder_data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) || name[0] == L'.') continue;
    const std::wstring folder = root + L"\\" + name;
    if (folder == g_folder) continue;
    OwnedFind records(FindFirstFileW((folder + L"\\*.rec").c_str(), &record_data));
    for (bool r = records.ok(); r; r = FindNextFileW(records.get(), &record_data)) {
      const std::wstring record = folder + L"\\" + record_data.cFileName;
      std::wstring recorded;
      std::string digest;
      if (!read_record(record, &recorded, &digest) || _wcsicmp(recorded.c_str(), wanted.c_str()) != 0) continue;
      const std::wstring parked = record.substr(0, record.size() - 4) + L".orig";
      if (exists(parked) && restore_one(long_path(recorded), parked, digest, kRestoreRetries) == Restore::kRestored) {
        DeleteFileW(record.c_str());
      }
      return;
    }
  }
}

// Lets go of one hold; the last holder anywhere puts the original back. Under TableLock.
void release_hold(Hold& hold) {
  SourceLock lock(hold.source, kSourceLockWaitMs);
  hold.event.reset();
  // Another operation still copies from it; or the source's lock could not be had (a later
  // finish puts this process's own entry back).
  if (!lock.owns() || held_anywhere(hold.source)) return;
  const auto entry = SwappedSourceFiles.find(hold.source);
  if (entry != SwappedSourceFiles.end()) {
    restore_entry(entry, kRestoreRetries);
  } else {
    restore_from_other_process(hold.source);
  }
}

// Entries that waited (a busy place, or a holder in another process) and that nobody holds now.
// Under TableLock.
void restore_unheld_entries(int retries, DWORD lock_wait_ms) {
  for (auto entry = SwappedSourceFiles.begin(); entry != SwappedSourceFiles.end();) {
    const auto current = entry++;
    SourceLock lock(current->first, lock_wait_ms);
    if (lock.owns() && !held_anywhere(current->first)) restore_entry(current, retries);
  }
}

bool is_stranded_name(const std::wstring& name) {
  return name.size() > 9 && name.compare(name.size() - 9, 9, kStrandedSuffix) == 0;
}

// Recovers one folder of a gone owner; false when its owner (or another recovery) holds it.
bool recover_folder(const std::wstring& folder, std::vector<ParkedOriginal>* left, int* restored) {
  OwnedHandle lock(CreateFileW((folder + L"\\owner.lock").c_str(), GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
  if (!lock.ok()) return false;
  WIN32_FIND_DATAW data;
  bool strand = false;  // another file holds a place: out of the way of every load's recovery
  const size_t first_left = left != nullptr ? left->size() : 0;
  {
    OwnedFind find(FindFirstFileW((folder + L"\\*.rec").c_str(), &data));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &data)) {
      const std::wstring record = folder + L"\\" + data.cFileName;
      const std::wstring stem = record.substr(0, record.size() - 4);
      std::wstring source;
      std::string digest;
      if (!read_record(record, &source, &digest)) {
        strand = true;  // unreadable: left to an administrator with whatever it names
        continue;
      }
      if (!exists(stem + L".orig")) {
        if (settle_record_without_original(record, source, digest) && left != nullptr) left->push_back({source, stem + L".orig"});
        continue;
      }
      SourceLock source_lock(wide_to_utf8(source), 0);
      if (!source_lock.owns() || held_anywhere(wide_to_utf8(source))) continue;  // a live operation still needs it
      const Restore outcome = restore_one(long_path(source), stem + L".orig", digest, 0);
      if (outcome == Restore::kRestored) {
        DeleteFileW(record.c_str());
        if (restored != nullptr) ++*restored;
        continue;
      }
      if (outcome == Restore::kNotOurs) strand = true;  // a busy place is retried at later loads
      if (left != nullptr) left->push_back({source, stem + L".orig"});
    }
  }
  if (left != nullptr) {  // what earlier recoveries found missing
    OwnedFind find(FindFirstFileW((folder + L"\\*.missing").c_str(), &data));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &data)) {
      const std::wstring record = folder + L"\\" + data.cFileName;
      std::wstring source;
      std::string digest;
      if (read_record(record, &source, &digest)) left->push_back({source, record.substr(0, record.size() - 8) + L".orig"});
    }
  }
  lock.reset();  // deletes owner.lock
  const size_t slash = folder.rfind(L'\\');
  if (!folder_has(folder, L"*.rec") && !folder_has(folder, L"*.missing")) {
    RemoveDirectoryW(folder.c_str());
  } else if (strand && !is_stranded_name(folder.substr(slash + 1))) {
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
      if (is_stranded_name(name) && !include_stranded) continue;
      folders.push_back(root + L"\\" + name);
    }
  }
  for (const std::wstring& folder : folders) recover_folder(folder, left, restored);
  lock.reset();
  RemoveDirectoryW(root.c_str());  // only when empty; a process making its folder retries
  return true;
}

// Under TableLock.
void add_hold(OperationKey op, Hold&& hold) {
  g_holds[op].push_back(std::move(hold));
  g_holding_operations = g_holds.size();
}

}  // namespace

std::wstring parking_root() {
  static const std::wstring root = make_root();
  return root;
}

SwapOutcome swap_source(OperationKey op, const std::string& source, const std::string& password,
                        const std::wstring& moved_to) {
  protect::TableLock lock;  // held through the transformation: one swap of a source at a time
  const auto held = g_holds.find(op);
  if (held != g_holds.end()) {
    for (const Hold& hold : held->second) {
      if (hold.source == source) return SwapOutcome::kSkipped;
    }
  }
  SourceLock source_lock(source, kSourceLockWaitMs);
  if (!source_lock.owns()) return SwapOutcome::kFailed;
  Hold hold{source, OwnedHandle(CreateEventW(nullptr, TRUE, FALSE, source_object_name(L"hold", source).c_str()))};
  if (!hold.event.ok()) return SwapOutcome::kFailed;
  if (SwappedSourceFiles.count(source) != 0) {
    add_hold(op, std::move(hold));
    return SwapOutcome::kHeld;
  }
  const std::wstring wide_source = long_path(utf8_to_wide(source));
  const DWORD attributes = GetFileAttributesW(wide_source.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? SwapOutcome::kSkipped : SwapOutcome::kFailed;
  }
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) || inside_parking_root(wide_source)) return SwapOutcome::kFailed;
  if (is_encrypted_form(wide_source)) {  // swapped by another process: its last holder restores it
    add_hold(op, std::move(hold));
    return SwapOutcome::kHeld;
  }
  const std::wstring& folder = process_folder();
  if (folder.empty()) return SwapOutcome::kFailed;
  std::wstring encrypted;
  std::string digest;
  if (!write_encrypted_form_beside(wide_source, password, &encrypted, &digest)) return SwapOutcome::kFailed;
  const unsigned index = g_next_index++;
  const std::wstring record = item(folder, index, L".rec"), parked = item(folder, index, L".orig");
  if (!write_record(record, source, digest)) {
    DeleteFileW(record.c_str());
    DeleteFileW(encrypted.c_str());
    return SwapOutcome::kFailed;
  }
  // Parking may copy across volumes; the encrypted form then takes the place in one rename.
  if (!MoveFileExW(wide_source.c_str(), parked.c_str(), MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH)) {
    DeleteFileW(record.c_str());
    DeleteFileW(encrypted.c_str());
    return SwapOutcome::kFailed;
  }
  if (MoveFileExW(encrypted.c_str(), wide_source.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    SwappedSourceFiles.emplace(source, Swapped{index, digest, moved_to});
    add_hold(op, std::move(hold));
    return SwapOutcome::kSwapped;
  }
  DeleteFileW(encrypted.c_str());
  if (restore_one(wide_source, parked, digest, kRestoreRetries) == Restore::kRestored) {
    DeleteFileW(record.c_str());
  } else {
    SwappedSourceFiles.emplace(source, Swapped{index, digest, std::wstring()});  // a later restore tries again
  }
  return SwapOutcome::kFailed;
}

void restore_sources(OperationKey op, const std::vector<std::string>& sources) {
  protect::TableLock lock;
  const auto found = g_holds.find(op);
  if (found == g_holds.end()) return;
  std::vector<Hold>& holds = found->second;
  for (const std::string& source : sources) {
    for (auto hold = holds.begin(); hold != holds.end(); ++hold) {
      if (hold->source != source) continue;
      release_hold(*hold);
      holds.erase(hold);
      break;
    }
  }
  if (holds.empty()) g_holds.erase(found);
  g_holding_operations = g_holds.size();
}

void finish_operation(OperationKey op) {
  protect::TableLock lock;
  const auto found = g_holds.find(op);
  if (found != g_holds.end()) {
    for (Hold& hold : found->second) release_hold(hold);
    g_holds.erase(found);
    g_holding_operations = g_holds.size();
  }
  restore_unheld_entries(kRestoreRetries, kSourceLockWaitMs);
}

bool operation_holds_swaps(OperationKey op) {
  if (g_holding_operations == 0) return false;
  protect::TableLock lock;
  const auto found = g_holds.find(op);
  return found != g_holds.end() && !found->second.empty();
}

void restore_all_parked() {
  protect::TableTryLock lock;
  if (!lock.owns()) return;  // a thread ended while holding it: the records wait for recovery
  g_holds.clear();           // this process's operations end with it
  g_holding_operations = 0;
  restore_unheld_entries(0, 0);
  SwappedSourceFiles.clear();  // what is left stays recorded in the folder
  if (g_folder.empty()) return;
  const bool empty = !folder_has(g_folder, L"*.rec") && !folder_has(g_folder, L"*.missing");
  g_owner_lock.reset();  // from here on the folder is a gone owner's, for recovery
  if (empty) {
    RemoveDirectoryW(g_folder.c_str());
    RemoveDirectoryW(g_folder.substr(0, g_folder.rfind(L'\\')).c_str());  // the root, when empty
  }
  g_folder.clear();
}

size_t swapped_source_file_count() {
  protect::TableLock lock;
  return SwappedSourceFiles.size();
}

bool encrypt_in_place(const std::string& file, const std::string& password) {
  const std::wstring wide_file = long_path(utf8_to_wide(file));
  if (GetFileAttributesW(wide_file.c_str()) == INVALID_FILE_ATTRIBUTES) {
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;  // nothing there to protect
  }
  if (is_encrypted_form(wide_file)) return true;
  std::wstring encrypted;
  std::string digest;
  if (!write_encrypted_form_beside(wide_file, password, &encrypted, &digest)) return false;
  if (MoveFileExW(encrypted.c_str(), wide_file.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return true;
  DeleteFileW(encrypted.c_str());
  return false;
}

void recover_parked_originals() { recover(false, nullptr, nullptr); }

bool recover_and_list_parked_originals(std::vector<ParkedOriginal>* left, int* restored) {
  if (restored != nullptr) *restored = 0;
  return recover(true, left, restored);
}
