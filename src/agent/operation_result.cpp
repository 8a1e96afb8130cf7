#include "agent/operation_result.h"

#include "agent/agent_channel.h"
#include "agent/compact_xml.h"

std::string build_operation_result_document(const std::vector<std::string>& first_paths,
                                            const std::vector<std::string>& second_paths, uint32_t action) {
  tinyxml2::XMLDocument document;
  tinyxml2::XMLElement* root = document.NewElement("Data");
  document.InsertEndChild(root);
  root->SetAttribute("action", static_cast<int>(static_cast<int32_t>(action)));
  for (const auto* list : {&first_paths, &second_paths}) {
    for (const std::string& path : *list) root->InsertNewChildElement("File")->SetAttribute("path", path.c_str());
  }
  return print_compact(document);
}

int ReportOperationResult(const std::vector<std::string>& first_paths, const std::vector<std::string>& second_paths,
                          uint32_t action) {
  if (first_paths.empty() && second_paths.empty()) return 0;
  agent::WinsockSession winsock;
  if (!winsock.ok()) return 0;
  agent::AgentChannel channel;
  if (!channel.ok()) return 0;
  agent::AgentFrame frame;
  if (!frame.Build(agent::kOperationResultTag, build_operation_result_document(first_paths, second_paths, action))) {
    return 0;
  }
  channel.SetReceiveTimeout(agent::kReceiveTimeoutMs);
  return agent::SendFrame(channel, channel.destination(), frame) == agent::SendStatus::kSent ? 1 : 0;
}
