// kwagent.exe: a reference agent for kwindel-x64.dll. Listens on UDP 127.0.0.1:7886, reassembles
// the library's chunked frames (acknowledging every chunk but the last), answers secret-audit
// requests from a rules file, and prints one JSON line per message received.
//
// Frame: 32-byte tag field (tag, NUL, zeros), signed 32-bit little-endian length (text + NUL),
// then the UTF-8 XML text and its NUL. Chunks are at most 8192 bytes; the receiver sends a
// 128-byte datagram after every chunk but the last. Answers go to the address a request came from.
//
// Rules file: one rule per line, fields separated by blanks, a field with blanks in double
// quotes, '#' starts a comment. For each source path of a request the first matching rule wins;
// a wildcard matches the whole path, case-insensitively, '*' any run of characters (backslashes
// included), '?' one character.
//   secret <wildcard> <password> [action]  the source is answered as a SecretFile; the answer
//                                          carries the password and action (default 1) of the
//                                          first source that matched such a rule
//   encrypted <wildcard>                   the source is answered as an EncryptedFile
//   deny <wildcard>                        the source is answered as a SecretFile with action 0:
//                                          the library refuses the operation
//   allow <wildcard>                       the source is not named in the answer
//   default allow|deny|empty               for sources no rule matches: allow (not named, the
//                                          default), deny (as a deny rule), empty (when no
//                                          source matched any rule, answer with an empty frame)
// When any source is denied, the answer names only the denied sources, with action 0.
#include <winsock2.h>
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <string>
#include <vector>

#include <tinyxml2.h>

namespace {

constexpr int kTagField = 32;
constexpr int kHeader = 36;
constexpr int kChunk = 8192;
constexpr int kAck = 128;
constexpr int32_t kMaxLength = 16 * 1024 * 1024;
constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>";
constexpr char kResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";
constexpr char kCopyAuditTag[] = "<FILECOPYAUDIT_DATA>";
constexpr char kResultTag[] = "<FILECOPY_OPERATION_RESULT>";

enum Exit { kOk = 0, kUsage = 2, kPortTaken = 3, kSocketError = 4, kBadRules = 5, kBadLog = 6 };

std::atomic<bool> g_stop{false};

BOOL WINAPI on_console_event(DWORD) {
  g_stop = true;
  return TRUE;
}

void usage(FILE* out) {
  std::fputs(
      "usage: kwagent [options]\n"
      "  --rules FILE   answer secret-audit requests from FILE (default: name no file)\n"
      "  --silent       never answer a secret-audit request (the requester keeps waiting)\n"
      "  --delay MS     wait MS milliseconds before each answer\n"
      "  --empty        answer every secret-audit request with an empty frame (length 2)\n"
      "  --log FILE     append the JSON lines to FILE instead of standard output\n"
      "  --pretty       print a readable summary of each message on standard output\n"
      "  --event NAME   stop when the named event NAME is signalled\n"
      "  --ready NAME   signal the named event NAME once the port is bound\n"
      "  --count N      stop after N messages\n"
      "  --parent PID   stop when process PID ends (for test harnesses and scripts)\n"
      "  --port N       listen on N instead of 7886 (the library always sends to 7886)\n"
      "  --help         this text\n"
      "  --version      print the version and exit\n"
      "Stops on Ctrl-C. One JSON line per message: tag, processname, operation, destination,\n"
      "usersid, files, answer (the document sent back, \"(empty)\", \"(silent)\", or null when the\n"
      "message expects none), then time and flags (audit records) or action (result reports).\n"
      "\n"
      "Rules file: one rule per line, '#' starts a comment, \"quoted\" fields may hold blanks.\n"
      "The first rule whose wildcard (* and ?, case-insensitive) matches a source path wins.\n"
      "  secret <wildcard> <password> [action]   answer the source as a SecretFile (action 1)\n"
      "  encrypted <wildcard>                    answer the source as an EncryptedFile\n"
      "  deny <wildcard>                         answer the source as a SecretFile, action 0\n"
      "  allow <wildcard>                        do not name the source\n"
      "  default allow|deny|empty                what to do with sources no rule matches\n",
      out);
}

// ---- rules ----

enum class RuleKind { kSecret, kEncrypted, kDeny, kAllow };
enum class Default { kAllow, kDeny, kEmpty };

struct Rule {
  RuleKind kind;
  std::wstring pattern;  // lower case
  std::string password;
  int action = 1;
};

struct Rules {
  std::vector<Rule> rules;
  Default fallback = Default::kAllow;
};

std::wstring widen(const std::string& utf8) {
  if (utf8.empty()) return std::wstring();
  int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(n, L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], n);
  return out;
}

std::string narrow(const std::wstring& wide) {
  if (wide.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  std::string out(n, '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), &out[0], n, nullptr, nullptr);
  return out;
}

std::wstring lower(const std::string& utf8) {
  std::wstring wide = widen(utf8);
  if (!wide.empty()) CharLowerBuffW(&wide[0], static_cast<DWORD>(wide.size()));
  return wide;
}

bool wildcard_match(const wchar_t* pattern, const wchar_t* text) {
  const wchar_t* star = nullptr;
  const wchar_t* resume = nullptr;
  while (*text != L'\0') {
    if (*pattern == L'*') {
      star = pattern++;
      resume = text;
    } else if (*pattern == L'?' || *pattern == *text) {
      ++pattern;
      ++text;
    } else if (star != nullptr) {
      pattern = star + 1;
      text = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == L'*') ++pattern;
  return *pattern == L'\0';
}

std::vector<std::string> split_fields(const std::string& line) {
  std::vector<std::string> fields;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
    if (i >= line.size() || line[i] == '#') break;
    std::string field;
    if (line[i] == '"') {
      size_t end = line.find('"', i + 1);
      if (end == std::string::npos) end = line.size();
      field = line.substr(i + 1, end - i - 1);
      i = end + 1;
    } else {
      size_t end = line.find_first_of(" \t\r", i);
      if (end == std::string::npos) end = line.size();
      field = line.substr(i, end - i);
      i = end;
    }
    fields.push_back(field);
  }
  return fields;
}

bool load_rules(const std::wstring& path, Rules* rules) {
  FILE* file = _wfopen(path.c_str(), L"rb");
  if (file == nullptr) {
    std::fprintf(stderr, "kwagent: cannot open the rules file %s\n", narrow(path).c_str());
    return false;
  }
  char buffer[4096];
  int line_number = 0;
  bool ok = true;
  while (std::fgets(buffer, sizeof buffer, file) != nullptr) {
    ++line_number;
    std::string line(buffer);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    if (line_number == 1 && line.compare(0, 3, "\xEF\xBB\xBF") == 0) line.erase(0, 3);
    const std::vector<std::string> f = split_fields(line);
    if (f.empty()) continue;
    Rule rule;
    if (f[0] == "secret" && (f.size() == 3 || f.size() == 4)) {
      rule.kind = RuleKind::kSecret;
      rule.password = f[2];
      if (f.size() == 4) rule.action = std::atoi(f[3].c_str());
    } else if (f[0] == "encrypted" && f.size() == 2) {
      rule.kind = RuleKind::kEncrypted;
    } else if (f[0] == "deny" && f.size() == 2) {
      rule.kind = RuleKind::kDeny;
    } else if (f[0] == "allow" && f.size() == 2) {
      rule.kind = RuleKind::kAllow;
    } else if (f[0] == "default" && f.size() == 2 && (f[1] == "allow" || f[1] == "deny" || f[1] == "empty")) {
      rules->fallback = f[1] == "allow" ? Default::kAllow : f[1] == "deny" ? Default::kDeny : Default::kEmpty;
      continue;
    } else {
      std::fprintf(stderr, "kwagent: rules line %d not understood: %s\n", line_number, line.c_str());
      ok = false;
      continue;
    }
    rule.pattern = lower(f[1]);
    rules->rules.push_back(rule);
  }
  std::fclose(file);
  return ok;
}

// ---- answers ----

struct Answer {
  enum Kind { kNone, kDocument, kEmpty, kSilent } kind = kNone;
  std::string document;
};

std::string compact(tinyxml2::XMLDocument& document) {
  tinyxml2::XMLPrinter printer(nullptr, true);
  document.Print(&printer);
  return std::string(printer.CStr(), printer.CStrSize() > 0 ? printer.CStrSize() - 1 : 0);
}

Answer decide(const Rules& rules, const std::vector<std::string>& sources) {
  std::vector<std::string> secret, encrypted, denied;
  const Rule* first_secret = nullptr;
  bool any_match = false;
  for (const std::string& source : sources) {
    const std::wstring path = lower(source);
    const Rule* match = nullptr;
    for (const Rule& rule : rules.rules) {
      if (wildcard_match(rule.pattern.c_str(), path.c_str())) {
        match = &rule;
        break;
      }
    }
    if (match == nullptr) {
      if (rules.fallback == Default::kDeny) denied.push_back(source);
      continue;
    }
    any_match = true;
    switch (match->kind) {
      case RuleKind::kSecret:
        secret.push_back(source);
        if (first_secret == nullptr) first_secret = match;
        break;
      case RuleKind::kEncrypted: encrypted.push_back(source); break;
      case RuleKind::kDeny: denied.push_back(source); break;
      case RuleKind::kAllow: break;
    }
  }
  Answer answer;
  if (!any_match && rules.fallback == Default::kEmpty) {
    answer.kind = Answer::kEmpty;
    return answer;
  }
  tinyxml2::XMLDocument document;
  tinyxml2::XMLElement* root = document.NewElement("SecretCheckResult");
  document.InsertEndChild(root);
  if (!denied.empty()) {
    root->SetAttribute("encryptedpwd", "");
    root->SetAttribute("action", 0);
    for (const std::string& path : denied) root->InsertNewChildElement("SecretFile")->SetAttribute("path", path.c_str());
  } else {
    root->SetAttribute("encryptedpwd", first_secret != nullptr ? first_secret->password.c_str() : "");
    root->SetAttribute("action", first_secret != nullptr ? first_secret->action : 1);
    for (const std::string& path : secret) root->InsertNewChildElement("SecretFile")->SetAttribute("path", path.c_str());
    for (const std::string& path : encrypted) {
      root->InsertNewChildElement("EncryptedFile")->SetAttribute("path", path.c_str());
    }
  }
  answer.kind = Answer::kDocument;
  answer.document = compact(document);
  return answer;
}

std::string build_frame(const char* tag, const std::string& payload_with_nul) {
  std::string frame(kHeader, '\0');
  std::memcpy(&frame[0], tag, std::strlen(tag) + 1);
  const int32_t length = static_cast<int32_t>(payload_with_nul.size());
  std::memcpy(&frame[kTagField], &length, 4);
  return frame + payload_with_nul;
}

// Sends a frame to `to` in chunks, awaiting the requester's acknowledgement between them.
void send_frame(SOCKET s, const sockaddr_in& to, const std::string& frame) {
  for (size_t offset = 0; offset < frame.size();) {
    const int chunk = static_cast<int>(frame.size() - offset > static_cast<size_t>(kChunk) ? kChunk : frame.size() - offset);
    if (sendto(s, frame.data() + offset, chunk, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) <= 0) return;
    offset += chunk;
    if (offset < frame.size()) {
      char ack[kAck];
      const ULONGLONG give_up = GetTickCount64() + 2000;
      for (;;) {  // the socket's short time-out only lets Ctrl-C through
        sockaddr_in from = {};
        int from_length = sizeof from;
        if (recvfrom(s, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), &from_length) > 0) break;
        if (g_stop || GetTickCount64() > give_up) return;
      }
    }
  }
}

// ---- output ----

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

struct Options {
  std::wstring rules_path, log_path, event_name, ready_name;
  DWORD parent_pid = 0;
  bool silent = false, empty = false, pretty = false;
  DWORD delay_ms = 0;
  long count = -1;
  unsigned port = 7886;
};

struct Message {
  std::string tag;
  const tinyxml2::XMLElement* root = nullptr;
  std::vector<std::string> files;
  std::vector<std::string> destinations;
  std::string error;
};

class Output {
 public:
  bool open(const Options& options) {
    pretty_ = options.pretty;
    if (!options.log_path.empty()) {
      log_ = _wfopen(options.log_path.c_str(), L"ab");
      if (log_ == nullptr) return false;
    }
    return true;
  }
  ~Output() {
    if (log_ != nullptr) std::fclose(log_);
  }
  void json(const std::string& line) {
    FILE* out = log_ != nullptr ? log_ : (pretty_ ? nullptr : stdout);
    if (out == nullptr) return;
    std::fprintf(out, "%s\n", line.c_str());
    std::fflush(out);
  }
  void pretty(const std::string& text) {
    if (!pretty_) return;
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
  }

 private:
  FILE* log_ = nullptr;
  bool pretty_ = false;
};

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

std::string answer_text(const Answer& answer) {
  switch (answer.kind) {
    case Answer::kDocument: return json_string(answer.document);
    case Answer::kEmpty: return "\"(empty)\"";
    case Answer::kSilent: return "\"(silent)\"";
    case Answer::kNone: break;
  }
  return "null";
}

// Handles one complete frame from `from`: answers a secret-audit request, then reports.
void handle_frame(SOCKET s, const sockaddr_in& from, const std::string& frame, const Options& options,
                  const Rules& rules, Output& output) {
  Message m;
  m.tag.assign(frame.data(), strnlen(frame.data(), kTagField));
  const char* text = frame.data() + kHeader;
  tinyxml2::XMLDocument document;
  if (document.Parse(text, strnlen(text, frame.size() - kHeader)) != tinyxml2::XML_SUCCESS) {
    m.error = document.ErrorStr() != nullptr ? document.ErrorStr() : "parse error";
  }
  m.root = document.RootElement();
  const bool is_request = m.tag == kRequestTag;
  const bool is_audit = m.tag == kCopyAuditTag;
  const bool is_result = m.tag == kResultTag;
  if (is_request) {
    collect(m.root, "File", "path", m.files);
    collect(m.root, "DstFolder", "path", m.destinations);
  } else if (is_audit) {
    collect(m.root, "File", "filename", m.files);
    if (const char* d = attribute(m.root, "dstfloder")) m.destinations.push_back(d);
  } else if (is_result) {
    collect(m.root, "File", "path", m.files);
  } else if (m.error.empty()) {
    m.error = "unknown tag";
  }

  Answer answer;
  if (is_request) {
    if (options.silent) {
      answer.kind = Answer::kSilent;
    } else {
      answer = options.empty ? Answer{Answer::kEmpty, ""} : decide(rules, m.files);
      if (options.delay_ms > 0) Sleep(options.delay_ms);
      const std::string reply = answer.kind == Answer::kEmpty
                                    ? build_frame(kResponseTag, std::string(2, '\0'))
                                    : build_frame(kResponseTag, answer.document + std::string(1, '\0'));
      send_frame(s, from, reply);
    }
  }

  std::string line = "{\"tag\":" + json_string(m.tag);
  line += ",\"processname\":" + json_or_null(attribute(m.root, "processname"));
  const char* operation = is_audit ? attribute(m.root, "operation") : nullptr;
  line += ",\"operation\":" + std::string(operation != nullptr ? std::to_string(std::atoi(operation)) : "null");
  line += ",\"destination\":" + (m.destinations.empty() ? std::string("null") : json_string(m.destinations[0]));
  line += ",\"usersid\":" + json_or_null(attribute(m.root, "usersid"));
  line += ",\"files\":[";
  for (size_t i = 0; i < m.files.size(); ++i) line += (i > 0 ? "," : "") + json_string(m.files[i]);
  line += "],\"answer\":" + answer_text(answer);
  if (is_request && m.destinations.size() > 1) {
    line += ",\"destinations\":[";
    for (size_t i = 0; i < m.destinations.size(); ++i) line += (i > 0 ? "," : "") + json_string(m.destinations[i]);
    line += "]";
  }
  if (is_audit) {
    const char* time = attribute(m.root, "time");
    const char* flags = attribute(m.root, "flags");
    line += ",\"time\":" + std::string(time != nullptr ? std::to_string(std::atol(time)) : "null");
    line += ",\"flags\":" + std::string(flags != nullptr ? std::to_string(std::atol(flags)) : "null");
  }
  if (is_result) {
    const char* action = attribute(m.root, "action");
    line += ",\"action\":" + std::string(action != nullptr ? std::to_string(std::atol(action)) : "null");
  }
  if (!m.error.empty()) line += ",\"error\":" + json_string(m.error);
  line += ",\"from_port\":" + std::to_string(ntohs(from.sin_port)) + "}";
  output.json(line);

  std::string summary;
  SYSTEMTIME now;
  GetLocalTime(&now);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%02u:%02u:%02u", now.wHour, now.wMinute, now.wSecond);
  const char* process = attribute(m.root, "processname");
  const std::string who = std::string(process != nullptr ? process : "?") + " (" +
                          (attribute(m.root, "usersid") != nullptr ? attribute(m.root, "usersid") : "no user") + ")";
  if (is_request) {
    summary = std::string(stamp) + " secret-audit request from " + who + ", " + std::to_string(m.files.size()) +
              " source(s) to " + (m.destinations.empty() ? "?" : m.destinations[0]) + "\n";
  } else if (is_audit) {
    const char* op = attribute(m.root, "operation");
    summary = std::string(stamp) + " audit record: " + who + " " +
              (op != nullptr && std::atoi(op) == 5 ? "moved " : "copied ") + std::to_string(m.files.size()) +
              " file(s) to " + (m.destinations.empty() ? "?" : m.destinations[0]) + "\n";
  } else if (is_result) {
    summary = std::string(stamp) + " operation result " + (attribute(m.root, "action") ? attribute(m.root, "action") : "?") +
              " for " + std::to_string(m.files.size()) + " file(s)\n";
  } else {
    summary = std::string(stamp) + " message with tag " + m.tag + "\n";
  }
  for (const std::string& f : m.files) summary += "    " + f + "\n";
  if (is_request) {
    switch (answer.kind) {
      case Answer::kDocument: summary += "  answered " + answer.document + "\n"; break;
      case Answer::kEmpty: summary += "  answered with an empty frame\n"; break;
      case Answer::kSilent: summary += "  not answered (--silent)\n"; break;
      case Answer::kNone: break;
    }
  }
  if (!m.error.empty()) summary += "  error: " + m.error + "\n";
  output.pretty(summary);
}

// One sender's frame in reassembly.
struct Partial {
  std::string bytes;
  size_t expected = 0;
};

bool parse_options(int argc, wchar_t** argv, Options* o) {
  for (int i = 1; i < argc; ++i) {
    const std::wstring a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == L"--help" || a == L"-h" || a == L"/?") {
      usage(stdout);
      std::exit(kOk);
    } else if (a == L"--version") {
      std::printf("kwagent %s\n", KWINDEL_VERSION);
      std::exit(kOk);
    } else if (a == L"--silent") {
      o->silent = true;
    } else if (a == L"--empty") {
      o->empty = true;
    } else if (a == L"--pretty") {
      o->pretty = true;
    } else if (a == L"--delay" && has_value) {
      o->delay_ms = static_cast<DWORD>(_wtol(argv[++i]));
    } else if (a == L"--count" && has_value) {
      o->count = _wtol(argv[++i]);
    } else if (a == L"--parent" && has_value) {
      o->parent_pid = static_cast<DWORD>(_wtol(argv[++i]));
    } else if (a == L"--port" && has_value) {
      o->port = static_cast<unsigned>(_wtol(argv[++i]));
    } else if (a == L"--rules" && has_value) {
      o->rules_path = argv[++i];
    } else if (a == L"--log" && has_value) {
      o->log_path = argv[++i];
    } else if (a == L"--event" && has_value) {
      o->event_name = argv[++i];
    } else if (a == L"--ready" && has_value) {
      o->ready_name = argv[++i];
    } else {
      std::fprintf(stderr, "kwagent: unknown or incomplete option %s\n", narrow(a).c_str());
      return false;
    }
  }
  return o->port > 0 && o->port < 65536;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdout), _O_BINARY);  // one "\n" per line, whatever the platform
  Options options;
  if (!parse_options(argc, argv, &options)) {
    usage(stderr);
    return kUsage;
  }
  Rules rules;
  if (!options.rules_path.empty() && !load_rules(options.rules_path, &rules)) return kBadRules;
  Output output;
  if (!output.open(options)) {
    std::fprintf(stderr, "kwagent: cannot open the log file %s\n", narrow(options.log_path).c_str());
    return kBadLog;
  }

  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) {
    std::fprintf(stderr, "kwagent: Winsock start-up failed\n");
    return kSocketError;
  }
  SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
  if (s == INVALID_SOCKET) {
    std::fprintf(stderr, "kwagent: cannot create a UDP socket (error %d)\n", WSAGetLastError());
    WSACleanup();
    return kSocketError;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<u_short>(options.port));
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int error = WSAGetLastError();
    if (error == WSAEADDRINUSE || error == WSAEACCES) {
      std::fprintf(stderr, "kwagent: UDP 127.0.0.1:%u is already in use; is another agent running?\n", options.port);
    } else {
      std::fprintf(stderr, "kwagent: cannot bind UDP 127.0.0.1:%u (error %d)\n", options.port, error);
    }
    closesocket(s);
    WSACleanup();
    return error == WSAEADDRINUSE || error == WSAEACCES ? kPortTaken : kSocketError;
  }
  DWORD poll_ms = 100;  // how often the stop conditions are looked at
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&poll_ms), sizeof poll_ms);
  SetConsoleCtrlHandler(on_console_event, TRUE);
  HANDLE stop_event = options.event_name.empty() ? nullptr : CreateEventW(nullptr, TRUE, FALSE, options.event_name.c_str());
  HANDLE parent = options.parent_pid == 0 ? nullptr : OpenProcess(SYNCHRONIZE, FALSE, options.parent_pid);
  std::fprintf(stderr, "kwagent: listening on UDP 127.0.0.1:%u\n", options.port);
  if (!options.ready_name.empty()) {
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, options.ready_name.c_str());
    if (ready != nullptr) {
      SetEvent(ready);
      CloseHandle(ready);  // the waiting test holds its own handle
    }
  }

  std::map<std::pair<ULONG, USHORT>, Partial> partials;
  std::vector<char> buffer(65536);
  long handled = 0;
  while (!g_stop && (options.count < 0 || handled < options.count)) {
    if (stop_event != nullptr && WaitForSingleObject(stop_event, 0) == WAIT_OBJECT_0) break;
    if (parent != nullptr && WaitForSingleObject(parent, 0) == WAIT_OBJECT_0) break;
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(s, buffer.data(), static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&from),
                           &from_length);
    if (n <= 0) continue;  // the poll time-out, or a reset from an earlier answer
    Partial& partial = partials[{from.sin_addr.s_addr, from.sin_port}];
    if (partial.expected == 0) {
      int32_t length = 0;
      if (n >= kHeader) std::memcpy(&length, buffer.data() + kTagField, 4);
      if (length <= 0 || length > kMaxLength) {
        // Not the start of a frame: report it and drop it.
        std::string line = "{\"tag\":null,\"error\":\"datagram of " + std::to_string(n) +
                           " bytes is not the start of a frame\",\"from_port\":" + std::to_string(ntohs(from.sin_port)) + "}";
        output.json(line);
        output.pretty("ignored a datagram of " + std::to_string(n) + " bytes from port " +
                      std::to_string(ntohs(from.sin_port)) + ": not the start of a frame\n");
        partials.erase({from.sin_addr.s_addr, from.sin_port});
        continue;
      }
      partial.expected = kHeader + static_cast<size_t>(length);
      partial.bytes.clear();
    }
    partial.bytes.append(buffer.data(), std::min<size_t>(n, partial.expected - partial.bytes.size()));
    if (partial.bytes.size() < partial.expected) {
      const char ack[kAck] = {};
      sendto(s, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
      continue;
    }
    const std::string frame = std::move(partial.bytes);
    partials.erase({from.sin_addr.s_addr, from.sin_port});
    handle_frame(s, from, frame, options, rules, output);
    ++handled;
  }
  if (stop_event != nullptr) CloseHandle(stop_event);
  if (parent != nullptr) CloseHandle(parent);
  closesocket(s);
  WSACleanup();
  std::fprintf(stderr, "kwagent: stopped after %ld message(s)\n", handled);
  return kOk;
}
