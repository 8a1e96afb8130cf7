// Arbitrary strings through the document builders, read back with TinyXML-2. Input: byte 0 the
// copy audit operation, bytes 1-4 the tick count, then NUL-separated strings: process name, user
// SID, destination, sources, without CR and LF (XML reads them back normalised; no path, process
// name or SID holds them). Checked: each document parses and reads back as exactly its elements
// and attributes in order, giving back every string exactly.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <tinyxml2.h>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#undef NDEBUG  // the checks hold in every build: a failed one aborts, and libFuzzer keeps the input
#include <cassert>

namespace {

// Each element from `e` on, in document order: "<name", then its attributes as "name=value".
void flatten(const tinyxml2::XMLElement* e, std::vector<std::string>* out) {
  for (; e != nullptr; e = e->NextSiblingElement()) {
    out->push_back(std::string("<") + e->Name());
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next())
      out->push_back(std::string(a->Name()) + "=" + a->Value());
    flatten(e->FirstChildElement(), out);
  }
}

void check(const std::string& xml, const std::vector<std::string>& expected) {
  tinyxml2::XMLDocument document;
  assert(document.Parse(xml.c_str(), xml.size()) == tinyxml2::XML_SUCCESS);
  std::vector<std::string> read;
  flatten(document.RootElement(), &read);
  assert(read == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 5) return 0;
  const int operation = static_cast<int8_t>(data[0]);
  uint32_t ticks;
  std::memcpy(&ticks, data + 1, 4);
  std::vector<std::string> p;
  const char* text = reinterpret_cast<const char*>(data + 5);
  for (size_t at = 0; at <= size - 5; at += p.back().size() + 1) p.emplace_back(text + at, strnlen(text + at, size - 5 - at));
  for (std::string& s : p) s.erase(std::remove_if(s.begin(), s.end(), [](char c) { return c == '\r' || c == '\n'; }), s.end());
  p.resize(std::max<size_t>(p.size(), 3));
  const std::vector<std::string> sources(p.begin() + 3, p.end());

  std::vector<std::string> request = {"<CopyFiles", "processname=" + p[0]};
  for (const std::string& source : sources) request.insert(request.end(), {"<File", "path=" + source});
  for (const std::string& destination : {p[2], p[1]}) request.insert(request.end(), {"<DstFolder", "path=" + destination});
  check(build_secret_audit_request(p[0], sources, {p[2], p[1]}), request);

  std::vector<std::string> record = {"<FilesCopy", "processname=" + p[0], "operation=" + std::to_string(operation), "flags=0",
                                     "time=" + std::to_string(static_cast<int32_t>(ticks)), "dstfloder=" + p[2], "usersid=" + p[1]};
  for (const std::string& source : sources) record.insert(record.end(), {"<File", "filename=" + source});
  check(build_copy_audit_document(p[0], p[1], operation, p[2], sources, ticks), record);
  return 0;
}
