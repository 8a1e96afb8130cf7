// The agent's rules: which source paths of a secret-audit request are answered as secret,
// encrypted or denied, and the answer document built from them.
#pragma once
#include <string>
#include <vector>

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

struct Answer {
  enum Kind { kNone, kDocument, kEmpty, kSilent } kind = kNone;
  std::string document;  // compact XML, for kDocument
};

std::wstring widen(const std::string& utf8);
std::string narrow(const std::wstring& wide);

// Appends the rules of the file at `path` to *rules. False when the file cannot be opened or a
// line is not understood (each reported on stderr; the other lines still count).
bool load_rules(const std::wstring& path, Rules* rules);

// The answer to a request naming `sources`: per source the first rule whose wildcard matches
// the whole path (case-insensitively) decides, else the default.
Answer decide(const Rules& rules, const std::vector<std::string>& sources);
