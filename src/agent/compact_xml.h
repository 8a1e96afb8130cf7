// The form every document to the agent takes: compact (no indentation, no line breaks), UTF-8,
// no declaration.
#pragma once
#include <string>

#include <tinyxml2.h>

inline std::string print_compact(const tinyxml2::XMLDocument& document) {
  tinyxml2::XMLPrinter printer(nullptr, true);
  document.Print(&printer);
  return std::string(printer.CStr(), printer.CStrSize() > 0 ? printer.CStrSize() - 1 : 0);
}
