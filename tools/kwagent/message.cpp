#include "message.h"

#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame.h"

namespace {

constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>";
constexpr char kCopyAuditTag[] = "<FILECOPYAUDIT_DATA>";
constexpr char kResultTag[] = "<FILECOPY_OPERATION_RESULT>";

const char* attribute(const tinyxml2::XMLElement* e, const char* name) {
  return e != nullptr ? e->Attribute(name) : nullptr;
}

void collect(const tinyxml2::XMLElement* root, const char* element, const char* attr, std::vector<std::string>& out) {
  if (root == nullptr) return;
  for (const tinyxml2::XMLElement* e = root->FirstChildElement(element); e != nullptr; e = e->NextSiblingElement(element)) {
    const char* value = e->Attribute(attr);
    out.push_back(value != nullptr ? value : "");
  }
}

std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", c);
          out += escape;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string json_or_null(const char* text) { return text != nullptr ? json_string(text) : "null"; }

// An attribute's value as a JSON number (read as atoi/atol would), or null.
std::string json_number(const tinyxml2::XMLElement* root, const char* name, bool as_long) {
  const char* value = attribute(root, name);
  if (value == nullptr) return "null";
  return as_long ? std::to_string(std::atol(value)) : std::to_string(std::atoi(value));
}

std::string json_list(const std::vector<std::string>& items) {
  std::string out = "[";
  for (size_t i = 0; i < items.size(); ++i) out += (i > 0 ? "," : "") + json_string(items[i]);
  return out + "]";
}

std::string answer_text(const Answer& answer) {
  switch (answer.kind) {
    case Answer::kDocument: return json_string(answer.document);
    case Answer::kEmpty: return "\"(empty)\"";
    case Answer::kSilent: return "\"(silent)\"";
    case Answer::kNone: break;
  }
  return "null";
}

// The first line of a summary, after the time stamp.
std::string headline(const Message& m) {
  const char* process = attribute(m.root, "processname");
  const char* user = attribute(m.root, "usersid");
  const std::string who = std::string(process != nullptr ? process : "?") + " (" + (user != nullptr ? user : "no user") + ")";
  const std::string to = m.destinations.empty() ? "?" : m.destinations[0];
  const std::string count = std::to_string(m.files.size());
  if (m.is_request) return " secret-audit request from " + who + ", " + count + " source(s) to " + to + "\n";
  if (m.is_audit) {
    const char* op = attribute(m.root, "operation");
    return " audit record: " + who + " " + (op != nullptr && std::atoi(op) == 5 ? "moved " : "copied ") + count +
           " file(s) to " + to + "\n";
  }
  if (m.is_result) {
    const char* action = attribute(m.root, "action");
    return " operation result " + std::string(action != nullptr ? action : "?") + " for " + count + " file(s)\n";
  }
  return " message with tag " + m.tag + "\n";
}

}  // namespace

void parse_message(const std::string& frame, Message* m) {
  m->tag.assign(frame.data(), strnlen(frame.data(), kTagField));
  const char* text = frame.data() + kHeader;
  if (m->document.Parse(text, strnlen(text, frame.size() - kHeader)) != tinyxml2::XML_SUCCESS) {
    m->error = m->document.ErrorStr() != nullptr ? m->document.ErrorStr() : "parse error";
  }
  m->root = m->document.RootElement();
  m->is_request = m->tag == kRequestTag;
  m->is_audit = m->tag == kCopyAuditTag;
  m->is_result = m->tag == kResultTag;
  if (m->is_request) {
    collect(m->root, "File", "path", m->files);
    collect(m->root, "DstFolder", "path", m->destinations);
  } else if (m->is_audit) {
    collect(m->root, "File", "filename", m->files);
    if (const char* d = attribute(m->root, "dstfloder")) m->destinations.push_back(d);
  } else if (m->is_result) {
    collect(m->root, "File", "path", m->files);
  } else if (m->error.empty()) {
    m->error = "unknown tag";
  }
}

std::string json_line(const Message& m, const Answer& answer, unsigned from_port) {
  std::string line = "{\"tag\":" + json_string(m.tag);
  line += ",\"processname\":" + json_or_null(attribute(m.root, "processname"));
  line += ",\"operation\":" + (m.is_audit ? json_number(m.root, "operation", false) : std::string("null"));
  line += ",\"destination\":" + (m.destinations.empty() ? std::string("null") : json_string(m.destinations[0]));
  line += ",\"usersid\":" + json_or_null(attribute(m.root, "usersid"));
  line += ",\"files\":" + json_list(m.files) + ",\"answer\":" + answer_text(answer);
  if (m.is_request && m.destinations.size() > 1) line += ",\"destinations\":" + json_list(m.destinations);
  if (m.is_audit) {
    line += ",\"time\":" + json_number(m.root, "time", true) + ",\"flags\":" + json_number(m.root, "flags", true);
  }
  if (m.is_result) line += ",\"action\":" + json_number(m.root, "action", true);
  if (!m.error.empty()) line += ",\"error\":" + json_string(m.error);
  return line + ",\"from_port\":" + std::to_string(from_port) + "}";
}

std::string json_not_a_frame(int bytes, unsigned from_port) {
  return "{\"tag\":null,\"error\":\"datagram of " + std::to_string(bytes) +
         " bytes is not the start of a frame\",\"from_port\":" + std::to_string(from_port) + "}";
}

std::string summary(const Message& m, const Answer& answer) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%02u:%02u:%02u", now.wHour, now.wMinute, now.wSecond);
  std::string text = stamp + headline(m);
  for (const std::string& f : m.files) text += "    " + f + "\n";
  if (m.is_request) {
    switch (answer.kind) {
      case Answer::kDocument: text += "  answered " + answer.document + "\n"; break;
      case Answer::kEmpty: text += "  answered with an empty frame\n"; break;
      case Answer::kSilent: text += "  not answered (--silent)\n"; break;
      case Answer::kNone: break;
    }
  }
  if (!m.error.empty()) text += "  error: " + m.error + "\n";
  return text;
}
