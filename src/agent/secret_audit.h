// The secret-audit exchange: asks the agent whether sources of a copy or move are secret.
#pragma once
#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

// The agent's verdict on one request; built empty by the caller for each request.
struct SecretAuditResult {
  std::vector<std::string> secret_files;     // UTF-8, document order
  std::vector<std::string> encrypted_files;  // UTF-8, document order
  std::string encrypted_pwd;                 // "" when the answer has none
  int32_t action = 0;                        // only zero versus non-zero matters
};
