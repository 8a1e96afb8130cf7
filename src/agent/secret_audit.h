// The secret-audit exchange: asks the agent whether sources of a copy or move are secret.
#pragma once
#ifdef _WIN32
#include <windows.h>  // for includers; the declarations below need none of it
#endif

#include <cstdint>
#include <string>
#include <vector>

#include "agent/agent_frame.h"

// The agent's verdict on one request; built empty by the caller for each request.
struct SecretAuditResult {
  std::vector<std::string> secret_files;     // UTF-8, document order
  std::vector<std::string> encrypted_files;  // UTF-8, document order
  std::string encrypted_pwd;                 // "" when the answer has none
  int32_t action = 0;                        // only zero versus non-zero matters
};

// The CopyFiles request: processname, then one File per source, then one DstFolder per
// destination, each with attribute path; compact UTF-8, no declaration.
std::string build_secret_audit_request(const std::string& process_name, const std::vector<std::string>& sources,
                                       const std::vector<std::string>& destinations);

// Reads a reassembled response frame (header at offset 0, document from offset 36) into
// `result`: encryptedpwd (missing: ""), action (missing: unchanged), non-empty SecretFile and
// EncryptedFile paths in document order. True when a list is non-empty afterwards; a null
// frame, another root name or a document naming no file gives false. A document that does not
// parse gives true with both lists empty (the operation is refused, as for a transport failure).
bool ParseSecretAuditResponse(const char* frame, size_t frame_size, SecretAuditResult& result);
bool ParseSecretAuditResponse(const agent::AgentFrame* frame, SecretAuditResult& result);

// Sends `request_xml` over `io` to `destination` and reads the answer into `result`: a failed
// send, no answer, a wrong tag or a failed reassembly give true with nothing parsed (the
// operation is refused); an empty answer gives false; otherwise the parsed verdict. A missing
// acknowledgement while sending only ends the sending.
bool exchange_secret_audit(agent::DatagramIo& io, const agent::DatagramAddress& destination,
                           const std::string& request_xml, SecretAuditResult& result);

// Asks the agent about `sources` (UTF-8) copied or moved to `destinations` (UTF-8). False
// without sending when g_secret_audit is clear, a list is empty, or Winsock or the socket cannot
// be had; otherwise as exchange_secret_audit. Blocks until the agent answers (no time-out).
bool RequestSecretAudit(const std::vector<std::string>& sources, const std::vector<std::string>& destinations,
                        SecretAuditResult& result);

// The same for the double-NUL-terminated UTF-16 lists of a shell file operation. False when
// g_secret_audit is clear or a pointer is null.
bool RequestSecretAuditForShellLists(const wchar_t* from, const wchar_t* to, SecretAuditResult& result);
