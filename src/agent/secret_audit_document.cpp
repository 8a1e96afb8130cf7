// The documents of the secret-audit exchange and the exchange over any datagram transport:
// portable (TinyXML-2 and the frame code only), so it also builds natively for fuzzing.
#include <cstring>

#include <tinyxml2.h>

#include "agent/compact_xml.h"
#include "agent/secret_audit.h"

namespace {

void collect_paths(const tinyxml2::XMLElement* root, const char* name, std::vector<std::string>& out) {
  for (const tinyxml2::XMLElement* e = root->FirstChildElement(name); e != nullptr; e = e->NextSiblingElement(name)) {
    const char* path = e->Attribute("path");
    if (path != nullptr && path[0] != '\0') out.emplace_back(path);
  }
}

}  // namespace

std::string build_secret_audit_request(const std::string& process_name, const std::vector<std::string>& sources,
                                       const std::vector<std::string>& destinations) {
  tinyxml2::XMLDocument document;
  tinyxml2::XMLElement* root = document.NewElement("CopyFiles");
  document.InsertEndChild(root);
  root->SetAttribute("processname", process_name.c_str());
  for (const std::string& source : sources) {
    root->InsertNewChildElement("File")->SetAttribute("path", source.c_str());
  }
  for (const std::string& destination : destinations) {
    root->InsertNewChildElement("DstFolder")->SetAttribute("path", destination.c_str());
  }
  return print_compact(document);
}

bool ParseSecretAuditResponse(const char* frame, size_t frame_size, SecretAuditResult& result) {
  if (frame == nullptr || frame_size <= static_cast<size_t>(agent::kHeaderSize)) return false;
  const char* text = frame + agent::kHeaderSize;
  // A peer's frame need not end in NUL: parse no further than the buffer.
  const size_t length = strnlen(text, frame_size - agent::kHeaderSize);
  tinyxml2::XMLDocument document;
  if (document.Parse(text, length) != tinyxml2::XML_SUCCESS) {
    // A document that does not parse is a transport failure: a verdict naming no file, which
    // the callers refuse, as for every other failed exchange.
    result.secret_files.clear();
    result.encrypted_files.clear();
    return true;
  }
  const tinyxml2::XMLElement* root = document.FirstChildElement("SecretCheckResult");
  if (root == nullptr) return false;
  const char* password = root->Attribute("encryptedpwd");
  result.encrypted_pwd = password != nullptr ? password : "";
  int action = 0;
  if (root->QueryIntAttribute("action", &action) == tinyxml2::XML_SUCCESS) result.action = action;
  collect_paths(root, "SecretFile", result.secret_files);
  collect_paths(root, "EncryptedFile", result.encrypted_files);
  return !result.secret_files.empty() || !result.encrypted_files.empty();
}

bool ParseSecretAuditResponse(const agent::AgentFrame* frame, SecretAuditResult& result) {
  if (frame == nullptr) return false;
  return ParseSecretAuditResponse(frame->data(), frame->size(), result);
}

bool exchange_secret_audit(agent::DatagramIo& io, const agent::DatagramAddress& destination,
                           const std::string& request_xml, SecretAuditResult& result) {
  // A missing acknowledgement only ends the sending; the answer is awaited all the same.
  if (agent::SendFrame(io, destination, agent::kSecretAuditRequestTag, request_xml) == agent::SendStatus::kSendFailed) {
    return true;
  }
  agent::AgentFrame response;
  switch (agent::ReceiveFrame(io, agent::kSecretAuditResponseTag, &response)) {
    case agent::ReceiveOutcome::kEmptyAnswer:
      return false;
    case agent::ReceiveOutcome::kFrame:
      return ParseSecretAuditResponse(&response, result);
    case agent::ReceiveOutcome::kNoFrame:
    case agent::ReceiveOutcome::kWrongTag:
    case agent::ReceiveOutcome::kFailed:
      break;
  }
  return true;  // fails closed: the callers refuse the operation
}
