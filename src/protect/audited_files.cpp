#include "protect/audited_files.h"

#include <windows.h>

#include <boost/filesystem.hpp>

#include "host/utf_conversion.h"
#include "protect/folder_walk.h"

namespace {

bool is_directory(const std::string& utf8_path) {
  const std::wstring wide = utf8_to_wide(utf8_path);  // narrow paths would be ANSI here
  // Attributes alone answer for everything but links, without opening the file: an open handle,
  // even a brief one, would make another thread's restore of a swapped source fail.
  const DWORD attributes = GetFileAttributesW(wide.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return false;
  if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  boost::system::error_code ec;  // a link: follow it
  const boost::filesystem::file_status status = boost::filesystem::status(boost::filesystem::path(wide), ec);
  return !ec && status.type() == boost::filesystem::directory_file;
}

}  // namespace

std::vector<std::string> list_audited_files(const std::vector<std::string>& sources) {
  std::vector<std::string> files;
  for (const std::string& source : sources) {
    if (!is_directory(source)) {
      files.push_back(source);
      continue;
    }
    std::vector<std::string> listed;
    if (get_filepaths_from_folder(source, listed) > 0) files.insert(files.end(), listed.begin(), listed.end());
  }
  return files;
}
