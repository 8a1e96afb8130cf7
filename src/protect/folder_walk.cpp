#include "protect/folder_walk.h"

#include <windows.h>

#include <boost/filesystem.hpp>

#include "host/owners.h"
#include "host/utf_conversion.h"

namespace fs = boost::filesystem;

namespace {

// Identity of a folder (volume serial and file index), so that a link back to a folder of the
// current chain is recognised even where links are not reported as such (Wine shows a Unix
// symbolic link to a folder as a plain folder).
struct FolderId {
  DWORD volume = 0, high = 0, low = 0;
  bool operator==(const FolderId& o) const { return volume == o.volume && high == o.high && low == o.low; }
};

bool folder_id(const fs::path& folder, FolderId* id) {
  const OwnedHandle h(CreateFileW(folder.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  BY_HANDLE_FILE_INFORMATION info;
  if (!h.ok() || !GetFileInformationByHandle(h.get(), &info)) return false;
  if (info.nFileIndexHigh == 0 && info.nFileIndexLow == 0) return false;
  *id = FolderId{info.dwVolumeSerialNumber, info.nFileIndexHigh, info.nFileIndexLow};
  return true;
}

// True when `id` (read when it could be) is one of the folders on the chain that led to it. A
// folder whose identity cannot be read is walked as before.
bool is_ancestor(bool known, const FolderId& id, const std::vector<FolderId>& chain) {
  if (!known) return false;
  for (const FolderId& ancestor : chain)
    if (ancestor == id) return true;
  return false;
}

// `id`: the folder's identity, already read by the caller (all zero when unknown).
int32_t walk(const fs::path& folder, const FolderId& id, std::vector<std::string>& out, std::vector<FolderId>& chain) {
  boost::system::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return 0;
  chain.push_back(id);
  struct PopOnExit {
    std::vector<FolderId>& c;
    ~PopOnExit() { c.pop_back(); }
  } pop{chain};

  for (const fs::directory_iterator end; it != end;) {
    const fs::path& entry = it->path();
    const fs::file_status status = it->status(ec);  // follows links
    if (status.type() == fs::regular_file) {
      if (ec) return 0;
      out.push_back(wide_to_utf8(entry.native()));
    } else if (status.type() == fs::directory_file) {
      if (ec) return 0;
      // One identity read per folder serves both the loop check and the folder's own walk.
      FolderId child;
      const bool known = folder_id(entry, &child);
      if (!is_ancestor(known, child, chain)) walk(entry, known ? child : FolderId{}, out, chain);  // result ignored
    }
    // Anything else (dangling links, unreadable entries, devices) is skipped.
    it.increment(ec);
    if (ec) return 0;  // no exception escapes into the host process
  }
  return static_cast<int32_t>(out.size());
}

}  // namespace

int32_t get_filepaths_from_folder(std::string folder, std::vector<std::string>& out) {
  std::vector<FolderId> chain;
  const fs::path root(utf8_to_wide(folder));
  FolderId id;
  if (!folder_id(root, &id)) id = FolderId{};  // unknown: matches nothing real
  return walk(root, id, out, chain);
}
