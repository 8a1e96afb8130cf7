// Arbitrary strings through the document builders, read back with TinyXML-2. Input: byte 0 the
// copy audit operation, bytes 1-4 the tick count, then NUL-separated strings: process name,
// user SID, destination, and the sources (the builders take C strings, so no string holds a NUL).
//
// Checked: each document parses, has the right root and attributes in order, and gives back
// every string exactly (after the XML line-end normalisation, CR and LF being characters no
// Windows path, process name or SID holds), one element per source in order.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <tinyxml2.h>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "fuzz_check.h"

namespace {

// What TinyXML-2 gives back for an attribute value written from `s`: line ends (CR LF, LF CR,
// CR) read as one LF.
std::string normalised(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\r' || s[i] == '\n') {
      out += '\n';
      if (i + 1 < s.size() && (s[i + 1] == '\r' || s[i + 1] == '\n') && s[i + 1] != s[i]) ++i;
    } else {
      out += s[i];
    }
  }
  return out;
}

void check_attribute(const tinyxml2::XMLElement* e, const char* name, const std::string& expected) {
  const char* value = e->Attribute(name);
  FUZZ_CHECK(value != nullptr, "%s missing", name);
  FUZZ_CHECK(normalised(expected) == value, "%s: wrote \"%s\", read \"%s\"", name, expected.c_str(), value);
}

void check_attribute_order(const tinyxml2::XMLElement* e, const std::vector<const char*>& names) {
  const tinyxml2::XMLAttribute* a = e->FirstAttribute();
  for (const char* name : names) {
    FUZZ_CHECK(a != nullptr && std::strcmp(a->Name(), name) == 0, "attribute %s out of order", name);
    a = a->Next();
  }
  FUZZ_CHECK(a == nullptr, "extra attribute %s", a->Name());
}

void parse(tinyxml2::XMLDocument& document, const std::string& xml) {
  FUZZ_CHECK(document.Parse(xml.c_str(), xml.size()) == tinyxml2::XML_SUCCESS, "document does not parse: %s",
             xml.c_str());
}

void check_secret_request(const std::string& process, const std::vector<std::string>& sources,
                          const std::vector<std::string>& destinations) {
  const std::string xml = BuildSecretAuditRequest(process, sources, destinations);
  FUZZ_CHECK(xml.compare(0, 10, "<CopyFiles") == 0, "request starts with %.20s", xml.c_str());
  tinyxml2::XMLDocument document;
  parse(document, xml);
  const tinyxml2::XMLElement* root = document.RootElement();
  FUZZ_CHECK(root != nullptr && std::strcmp(root->Name(), "CopyFiles") == 0, "root is not CopyFiles");
  check_attribute_order(root, {"processname"});
  check_attribute(root, "processname", process);
  const tinyxml2::XMLElement* e = root->FirstChildElement();
  for (const auto& [name, list] : {std::pair{"File", &sources}, std::pair{"DstFolder", &destinations}}) {
    for (const std::string& path : *list) {
      FUZZ_CHECK(e != nullptr && std::strcmp(e->Name(), name) == 0, "%s element missing", name);
      check_attribute_order(e, {"path"});
      check_attribute(e, "path", path);
      e = e->NextSiblingElement();
    }
  }
  FUZZ_CHECK(e == nullptr, "extra element %s", e->Name());
}

void check_copy_audit(const std::string& process, const std::string& sid, int operation, const std::string& destination,
                      const std::vector<std::string>& sources, uint32_t ticks) {
  const std::string xml = BuildCopyAuditDocument(process, sid, operation, destination, sources, ticks);
  tinyxml2::XMLDocument document;
  parse(document, xml);
  const tinyxml2::XMLElement* root = document.RootElement();
  FUZZ_CHECK(root != nullptr && std::strcmp(root->Name(), "FilesCopy") == 0, "root is not FilesCopy");
  check_attribute_order(root, {"processname", "operation", "flags", "time", "dstfloder", "usersid"});
  check_attribute(root, "processname", process);
  check_attribute(root, "operation", std::to_string(operation));
  check_attribute(root, "flags", "0");
  check_attribute(root, "time", std::to_string(static_cast<int32_t>(ticks)));
  check_attribute(root, "dstfloder", destination);
  check_attribute(root, "usersid", sid);
  const tinyxml2::XMLElement* e = root->FirstChildElement();
  for (const std::string& source : sources) {
    FUZZ_CHECK(e != nullptr && std::strcmp(e->Name(), "File") == 0, "File element missing");
    check_attribute_order(e, {"filename"});
    check_attribute(e, "filename", source);
    e = e->NextSiblingElement();
  }
  FUZZ_CHECK(e == nullptr, "extra element %s", e->Name());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  const int operation = static_cast<int8_t>(data[0]);
  uint32_t ticks;
  std::memcpy(&ticks, data + 1, 4);
  std::vector<std::string> parts;
  const char* text = reinterpret_cast<const char*>(data + 5);
  const size_t text_size = size - 5;
  for (size_t at = 0; at <= text_size;) {
    const size_t n = strnlen(text + at, text_size - at);
    parts.emplace_back(text + at, n);
    at += n + 1;
  }
  while (parts.size() < 3) parts.emplace_back();
  const std::vector<std::string> sources(parts.begin() + 3, parts.end());
  check_secret_request(parts[0], sources, {parts[2], parts[1]});
  check_copy_audit(parts[0], parts[1], operation, parts[2], sources, ticks);
  return 0;
}
