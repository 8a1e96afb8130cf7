#include "protect/folder_walk.h"

#include <boost/filesystem.hpp>

#include "host/caller_context.h"

namespace fs = boost::filesystem;

namespace {

// True when `link` resolves to one of the folders on the chain that led to it. Only asked for
// entries that are links, so trees without links pay nothing for the guard.
bool leads_to_ancestor(const fs::path& link, const std::vector<fs::path>& chain) {
  boost::system::error_code ec;
  const fs::path target = fs::canonical(link, ec);
  if (ec) return false;
  for (const fs::path& folder : chain) {
    const fs::path resolved = fs::canonical(folder, ec);
    if (!ec && resolved == target) return true;
  }
  return false;
}

int32_t walk(const fs::path& folder, std::vector<std::string>& out, std::vector<fs::path>& chain) {
  boost::system::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) return 0;
  chain.push_back(folder);
  struct PopOnExit {
    std::vector<fs::path>& c;
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
      const bool is_link = fs::is_symlink(it->symlink_status(ec));
      if (!is_link || !leads_to_ancestor(entry, chain)) walk(entry, out, chain);  // result ignored
    }
    // Anything else (dangling links, unreadable entries, devices) is skipped.
    it.increment(ec);
    if (ec) return 0;  // no exception escapes into the host process
  }
  return static_cast<int32_t>(out.size());
}

}  // namespace

int32_t get_filepaths_from_folder(std::string folder, std::vector<std::string>& out) {
  std::vector<fs::path> chain;
  return walk(fs::path(utf8_to_wide(folder)), out, chain);
}
