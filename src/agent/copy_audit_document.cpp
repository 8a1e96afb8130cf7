// The copy audit record's document. Portable apart from the UTF-8 to UTF-16 step that Windows
// paths need, so it also builds natively for fuzzing (with a stand-in folder walk there).
#include <boost/filesystem.hpp>
#include <tinyxml2.h>

#include "agent/copy_audit.h"
#include "protect/folder_walk.h"
#ifdef _WIN32
#include <windows.h>

#include "host/caller_context.h"
#endif

namespace {

bool is_directory(const std::string& utf8_path) {
  boost::system::error_code ec;
#ifdef _WIN32
  const std::wstring wide = utf8_to_wide(utf8_path);  // narrow paths would be ANSI here
  // Attributes alone answer for everything but links, without opening the file: an open handle,
  // even a brief one, would make another thread's restore of a swapped source fail.
  const DWORD attributes = GetFileAttributesW(wide.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return false;
  if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  const boost::filesystem::path path(wide);  // a link: follow it
#else
  const boost::filesystem::path path(utf8_path);  // POSIX paths are bytes already
#endif
  const boost::filesystem::file_status status = boost::filesystem::status(path, ec);
  return !ec && status.type() == boost::filesystem::directory_file;
}

}  // namespace

std::string BuildCopyAuditDocument(const std::string& process_name, const std::string& user_sid, int operation,
                                   const std::string& destination_utf8, const std::vector<std::string>& sources_utf8,
                                   uint32_t tick_count) {
  tinyxml2::XMLDocument document;
  tinyxml2::XMLElement* root = document.NewElement("FilesCopy");
  document.InsertEndChild(root);
  root->SetAttribute("processname", process_name.c_str());
  root->SetAttribute("operation", operation);
  root->SetAttribute("flags", 0);
  root->SetAttribute("time", static_cast<int>(static_cast<int32_t>(tick_count)));  // negative past 2^31 ms
  root->SetAttribute("dstfloder", destination_utf8.c_str());  // the agent expects this spelling
  root->SetAttribute("usersid", user_sid.c_str());
  for (const std::string& source : sources_utf8) {
    if (is_directory(source)) {
      std::vector<std::string> files;
      if (get_filepaths_from_folder(source, files) > 0) {
        for (const std::string& file : files) root->InsertNewChildElement("File")->SetAttribute("filename", file.c_str());
      }
    } else {
      root->InsertNewChildElement("File")->SetAttribute("filename", source.c_str());
    }
  }
  tinyxml2::XMLPrinter printer(nullptr, true);
  document.Print(&printer);
  return std::string(printer.CStr(), printer.CStrSize() > 0 ? printer.CStrSize() - 1 : 0);
}
