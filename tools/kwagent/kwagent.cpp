// kwagent.exe: a reference agent for kwindel-x64.dll. Listens on UDP 127.0.0.1:7886 (bound
// exclusively), reassembles the library's chunked frames (acknowledging every chunk but the last),
// answers secret-audit requests from a rules file, and prints one JSON line per message received.
// Answers go to the address a request came from. Files: rules (the rules file and the answers),
// frame (the frame code), message (what a message says and its JSON line and summary), and this
// one (options and the socket loop).
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

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "frame.h"
#include "host/owners.h"
#include "message.h"
#include "rules.h"

namespace {

constexpr char kResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";

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

struct Options {
  std::wstring rules_path, log_path, event_name, ready_name;
  DWORD parent_pid = 0;
  bool silent = false, empty = false, pretty = false;
  DWORD delay_ms = 0;
  long count = -1;
  unsigned port = 7886;
};

// Where the JSON lines go (the log file, else standard output unless --pretty) and the summaries
// (standard output with --pretty).
class Output {
 public:
  bool open(const Options& options) {
    pretty_ = options.pretty;
    if (!options.log_path.empty()) {
      log_.reset(_wfopen(options.log_path.c_str(), L"ab"));
      if (log_ == nullptr) return false;
    }
    return true;
  }
  void json(const std::string& line) {
    FILE* out = log_ != nullptr ? log_.get() : (pretty_ ? nullptr : stdout);
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
  std::unique_ptr<FILE, int (*)(FILE*)> log_{nullptr, &std::fclose};
  bool pretty_ = false;
};

// Answers a secret-audit request (unless --silent) and returns what was answered.
Answer answer_request(SOCKET s, const sockaddr_in& from, const Message& m, const Options& options, const Rules& rules) {
  if (options.silent) return Answer{Answer::kSilent, ""};
  const Answer answer = options.empty ? Answer{Answer::kEmpty, ""} : decide(rules, m.files);
  if (options.delay_ms > 0) Sleep(options.delay_ms);
  const std::string text = answer.kind == Answer::kEmpty ? std::string(2, '\0') : answer.document + std::string(1, '\0');
  send_frame(s, from, build_frame(kResponseTag, text), g_stop);
  return answer;
}

// Handles one complete frame from `from`: answers a secret-audit request, then reports.
void handle_frame(SOCKET s, const sockaddr_in& from, const std::string& frame, const Options& options,
                  const Rules& rules, Output& output) {
  Message m;
  parse_message(frame, &m);
  const Answer answer = m.is_request ? answer_request(s, from, m, options, rules) : Answer();
  output.json(json_line(m, answer, ntohs(from.sin_port)));
  output.pretty(summary(m, answer));
}

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

// Winsock started for the program's life.
struct Winsock {
  bool started = false;
  Winsock() {
    WSADATA wsa;
    started = WSAStartup(MAKEWORD(2, 2), &wsa) == 0;
  }
  ~Winsock() {
    if (started) WSACleanup();
  }
};

// A UDP socket bound exclusively to 127.0.0.1:port with a short receive time-out; kOk or the exit
// status.
int open_socket(unsigned port, OwnedSocket* s) {
  s->reset(socket(AF_INET, SOCK_DGRAM, 0));
  if (!s->ok()) {
    std::fprintf(stderr, "kwagent: cannot create a UDP socket (error %d)\n", WSAGetLastError());
    return kSocketError;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<u_short>(port));
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  // Exclusive, so that no other program can bind the port beside it and take requests meant for it.
  const BOOL exclusive = TRUE;
  if (setsockopt(s->get(), SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&exclusive),
                 sizeof exclusive) != 0) {
    std::fprintf(stderr, "kwagent: cannot claim UDP port %u exclusively (error %d)\n", port, WSAGetLastError());
    return kSocketError;
  }
  if (bind(s->get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int error = WSAGetLastError();
    const bool taken = error == WSAEADDRINUSE || error == WSAEACCES;
    if (taken) {
      std::fprintf(stderr, "kwagent: UDP 127.0.0.1:%u is already in use; is another agent running?\n", port);
    } else {
      std::fprintf(stderr, "kwagent: cannot bind UDP 127.0.0.1:%u (error %d)\n", port, error);
    }
    return taken ? kPortTaken : kSocketError;
  }
  DWORD poll_ms = 100;  // how often the stop conditions are looked at
  setsockopt(s->get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&poll_ms), sizeof poll_ms);
  return kOk;
}

void signal_ready(const std::wstring& name) {
  if (name.empty()) return;
  // The waiting test holds its own handle, so this one may close at once.
  const OwnedHandle ready(CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
  if (ready.ok()) SetEvent(ready.get());
}

// Receives and handles messages until Ctrl-C, the stop event, the parent's end or --count;
// returns how many were handled.
long serve(SOCKET s, const Options& options, const Rules& rules, Output& output) {
  const OwnedHandle stop_event(options.event_name.empty() ? nullptr
                                                          : CreateEventW(nullptr, TRUE, FALSE, options.event_name.c_str()));
  const OwnedHandle parent(options.parent_pid == 0 ? nullptr : OpenProcess(SYNCHRONIZE, FALSE, options.parent_pid));
  std::fprintf(stderr, "kwagent: listening on UDP 127.0.0.1:%u\n", options.port);
  signal_ready(options.ready_name);
  Reassembly reassembly;
  std::vector<char> buffer(65536);
  long handled = 0;
  while (!g_stop && (options.count < 0 || handled < options.count)) {
    if (stop_event.ok() && WaitForSingleObject(stop_event.get(), 0) == WAIT_OBJECT_0) break;
    if (parent.ok() && WaitForSingleObject(parent.get(), 0) == WAIT_OBJECT_0) break;
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(s, buffer.data(), static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&from),
                           &from_length);
    if (n <= 0) continue;  // the poll time-out, or a reset from an earlier answer
    std::string frame;
    switch (reassembly.add(from, buffer.data(), n, &frame)) {
      case Reassembly::kNotAFrame:
        output.json(json_not_a_frame(n, ntohs(from.sin_port)));
        output.pretty("ignored a datagram of " + std::to_string(n) + " bytes from port " +
                      std::to_string(ntohs(from.sin_port)) + ": not the start of a frame\n");
        break;
      case Reassembly::kIncomplete: {
        const char ack[kAck] = {};
        sendto(s, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), sizeof from);
        break;
      }
      case Reassembly::kComplete:
        handle_frame(s, from, frame, options, rules, output);
        ++handled;
        break;
    }
  }
  return handled;
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
  const Winsock winsock;
  if (!winsock.started) {
    std::fprintf(stderr, "kwagent: Winsock start-up failed\n");
    return kSocketError;
  }
  OwnedSocket s;
  const int opened = open_socket(options.port, &s);
  if (opened != kOk) return opened;
  SetConsoleCtrlHandler(on_console_event, TRUE);
  const long handled = serve(s.get(), options, rules, output);
  std::fprintf(stderr, "kwagent: stopped after %ld message(s)\n", handled);
  return kOk;
}
