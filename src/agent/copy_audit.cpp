#include "agent/copy_audit.h"

#include "agent/agent_channel.h"  // winsock2.h before windows.h

#include <windows.h>

#include "host/caller_context.h"

namespace {

int send_record(agent::AgentChannel& channel, const agent::DatagramAddress& destination, const std::string& xml_text) {
  agent::AgentFrame frame;
  if (!frame.Build(agent::kCopyAuditTag, xml_text)) return 0;
  channel.SetReceiveTimeout(agent::kReceiveTimeoutMs);  // after the frame, before the first chunk
  return agent::SendFrame(channel, destination, frame) == agent::SendStatus::kSent ? 1 : 0;
}

}  // namespace

std::string build_copy_audit_document(int operation, const std::string& destination_utf8,
                                      const std::vector<std::string>& files_utf8, uint32_t tick_count) {
  return build_copy_audit_document(get_process_name(), get_user_sid_string(), operation, destination_utf8, files_utf8,
                                   tick_count);
}

int send_copy_audit_over(agent::DatagramIo& io, const agent::DatagramAddress& destination,
                         const std::string& xml_text) {
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

int send_copy_audit_record(int operation, const std::string& destination_utf8,
                           const std::vector<std::string>& files_utf8) {
  return SendCopyAudit(build_copy_audit_document(operation, destination_utf8, files_utf8, GetTickCount()));
}
