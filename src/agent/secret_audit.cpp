#include "agent/secret_audit.h"

#include <cwchar>

#include "agent/agent_channel.h"
#include "host/caller_context.h"
#include "host/policy_block.h"
#include "host/utf_conversion.h"

namespace {

// Appends the paths of a double-NUL-terminated wide list, converted to UTF-8.
void append_shell_list(const wchar_t* list, std::vector<std::string>& out) {
  for (const wchar_t* p = list; *p != L'\0'; p += std::wcslen(p) + 1) out.push_back(wide_to_utf8(p));
}

}  // namespace

bool RequestSecretAudit(const std::vector<std::string>& sources, const std::vector<std::string>& destinations,
                        SecretAuditResult& result) {
  if (g_policy_block.g_secret_audit == 0) return false;
  if (sources.empty() || destinations.empty()) return false;
  agent::WinsockSession winsock;
  if (!winsock.ok()) return false;
  agent::AgentChannel channel;  // no receive time-out: the answer is awaited without limit
  if (!channel.ok()) return false;
  const std::string request = build_secret_audit_request(get_process_name(), sources, destinations);
  return exchange_secret_audit(channel, channel.destination(), request, result);
}

bool RequestSecretAuditForShellLists(const wchar_t* from, const wchar_t* to, SecretAuditResult& result) {
  if (g_policy_block.g_secret_audit == 0 || from == nullptr || to == nullptr) return false;
  std::vector<std::string> sources;
  std::vector<std::string> destinations;
  append_shell_list(from, sources);
  append_shell_list(to, destinations);
  return RequestSecretAudit(sources, destinations, result);
}
