// The copy audit record's document. Portable (TinyXML-2 only), so it also builds natively for
// fuzzing.
#include "agent/compact_xml.h"
#include "agent/copy_audit.h"

std::string build_copy_audit_document(const std::string& process_name, const std::string& user_sid, int operation,
                                      const std::string& destination_utf8, const std::vector<std::string>& files_utf8,
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
  for (const std::string& file : files_utf8) root->InsertNewChildElement("File")->SetAttribute("filename", file.c_str());
  return print_compact(document);
}
