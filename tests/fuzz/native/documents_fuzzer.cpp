// Arbitrary strings through the document builders, read back with TinyXML-2. Input: byte 0 the
// copy audit operation, bytes 1-4 the tick count, then NUL-separated strings: process name, user
// SID, destination, sources. Checked: each document parses, has its root, its attributes in order
// and one element per source (and destination) in order, and gives back every string exactly,
// CR and LF read back as LF (XML line-end normalisation; no path, process name or SID holds them).
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <tinyxml2.h>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "fuzz_check.h"

namespace {

using Element = const tinyxml2::XMLElement*;

std::string normalised(const std::string& s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    const bool end = s[i] == '\r' || s[i] == '\n';
    out += end ? '\n' : s[i];
    if (end && i + 1 < s.size() && (s[i + 1] == '\r' || s[i + 1] == '\n') && s[i + 1] != s[i]) ++i;  // CR LF, LF CR
  }
  return out;
}

// Checks that `e` is a `name` element with exactly these attributes in this order; returns its next sibling.
Element check(Element e, const char* name, const std::vector<std::pair<const char*, std::string>>& attributes) {
  FUZZ_CHECK(e != nullptr && std::strcmp(e->Name(), name) == 0, "%s element missing", name);
  const tinyxml2::XMLAttribute* a = e->FirstAttribute();
  for (const auto& [n, value] : attributes) {
    FUZZ_CHECK(a != nullptr && std::strcmp(a->Name(), n) == 0, "attribute %s missing or out of order", n);
    FUZZ_CHECK(normalised(value) == a->Value(), "%s: wrote \"%s\", read \"%s\"", n, value.c_str(), a->Value());
    a = a->Next();
  }
  FUZZ_CHECK(a == nullptr, "extra attribute %s", a->Name());
  return e->NextSiblingElement();
}

Element root(tinyxml2::XMLDocument& document, const std::string& xml) {
  FUZZ_CHECK(document.Parse(xml.c_str(), xml.size()) == tinyxml2::XML_SUCCESS, "does not parse: %s", xml.c_str());
  return document.RootElement();
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
  p.resize(std::max<size_t>(p.size(), 3));
  const std::vector<std::string> sources(p.begin() + 3, p.end());

  tinyxml2::XMLDocument request, record;
  Element e = root(request, build_secret_audit_request(p[0], sources, {p[2], p[1]}));
  check(e, "CopyFiles", {{"processname", p[0]}});
  e = e->FirstChildElement();
  for (const std::string& source : sources) e = check(e, "File", {{"path", source}});
  for (const std::string& destination : {p[2], p[1]}) e = check(e, "DstFolder", {{"path", destination}});
  FUZZ_CHECK(e == nullptr, "extra element %s in the request", e->Name());

  e = root(record, build_copy_audit_document(p[0], p[1], operation, p[2], sources, ticks));
  check(e, "FilesCopy", {{"processname", p[0]}, {"operation", std::to_string(operation)}, {"flags", "0"},
                         {"time", std::to_string(static_cast<int32_t>(ticks))}, {"dstfloder", p[2]}, {"usersid", p[1]}});
  e = e->FirstChildElement();
  for (const std::string& source : sources) e = check(e, "File", {{"filename", source}});
  FUZZ_CHECK(e == nullptr, "extra element %s in the record", e->Name());
  return 0;
}
