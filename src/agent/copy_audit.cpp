#include "agent/copy_audit.h"

#include "agent/agent_channel.h"  // winsock2.h before windows.h

#include <windows.h>

#include <boost/filesystem.hpp>
#include <tinyxml2.h>

#include "host/caller_context.h"
#include "protect/folder_walk.h"

namespace {

bool is_directory(const std::string& utf8_path) {
  boost::system::error_code ec;
  const boost::filesystem::file_status status = boost::filesystem::status(utf8_to_wide(utf8_path), ec);
  return !ec && status.type() == boost::filesystem::directory_file;
}

int send_record(agent::AgentChannel& channel, const agent::DatagramAddress& destination, const std::string& xml_text) {
  agent::AgentFrame frame;
  if (!frame.Build(agent::kCopyAuditTag, xml_text)) return 0;
  channel.SetReceiveTimeout(agent::kReceiveTimeoutMs);  // after the frame, before the first chunk
  return agent::SendFrame(channel, destination, frame) == agent::SendStatus::kSent ? 1 : 0;
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

std::string BuildCopyAuditDocument(int operation, const std::string& destination_utf8,
                                   const std::vector<std::string>& sources_utf8, uint32_t tick_count) {
  return BuildCopyAuditDocument(get_process_name(), get_user_sid_string(), operation, destination_utf8, sources_utf8,
                                tick_count);
}

int SendCopyAuditOver(agent::DatagramIo& io, const agent::DatagramAddress& destination, const std::string& xml_text) {
  return agent::SendFrame(io, destination, agent::kCopyAuditTag, xml_text) == agent::SendStatus::kSent ? 1 : 0;
}

int SendCopyAudit(const std::string& xml_text) {
  agent::AgentChannel channel;
  if (!channel.ok()) {
    (void)GetLastError();  // read and dropped: losing a record never matters to the caller
    return 0;
  }
  return send_record(channel, channel.destination(), xml_text);
}

int SendCopyAuditRecord(int operation, const std::string& destination_utf8,
                        const std::vector<std::string>& sources_utf8) {
  return SendCopyAudit(BuildCopyAuditDocument(operation, destination_utf8, sources_utf8, GetTickCount()));
}
