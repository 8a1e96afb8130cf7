// The screening shared by the copy and move interceptors (the shell copy engine's CopyItems and
// MoveItems, and SHFileOperationW): whether the agent is asked, what its answer means, and the
// audit record of an operation that is let through.
#pragma once
#include <windows.h>

#include <string>
#include <vector>

#include "agent/secret_audit.h"
#include "host/policy_block.h"
#include "protect/classify.h"

enum class Verdict {
  kAskAgent,    // the secret check applies: ask the agent, then decide again with its reply
  kLetThrough,  // nothing to check or nothing to protect: on to the audit
  kRefuse,      // the answer names no file at all (also what a broken exchange gives): no audit
  kForbid,      // the agent's action 0: refused (the queued methods refuse at PerformOperations)
  kProtect,     // secret files with a password: protect them, then on to the audit
};

enum class AgentReply { kNotAsked, kNotSecret, kAnswered };

struct ScreenedClasses {
  DestinationClass source = kDestinationLocal;  // of the first source only
  DestinationClass destination = kDestinationLocal;
};

// The decision. Reads only its arguments: the policy's secret-audit field (exactly 1 turns the
// check on) and destination mask, the two classes, and the agent's reply with its answer.
Verdict secret_verdict(const PolicyBlock& policy, const ScreenedClasses& classes, AgentReply reply,
                       const SecretAuditResult& answer);

// Classifies the first source and the destination (in that order) when the secret check is on;
// otherwise classifies nothing (a classification opens the volume) and gives local for both.
ScreenedClasses classify_for_secret_check(const PolicyBlock& policy, const wchar_t* first_source,
                                          const wchar_t* destination);

// Where a move to the folder `destination` carries `file`: the moved item (one of `moved`) is
// `file` itself or a folder holding it, and arrives under its own name or `new_name`. "" when no
// moved item holds it. Case is ignored, as the file system ignores it.
std::wstring arrival_of(const std::wstring& file, const std::vector<std::wstring>& moved, const std::wstring& destination,
                        const wchar_t* new_name);

// When the policy audits copies: the record of `operation` (kCopyAuditCopy or kCopyAuditMove),
// each source that is a folder replaced by the files below it, sent before the operation runs.
void audit_copy(const PolicyBlock& policy, int operation, const std::string& destination,
                const std::vector<std::string>& sources);
