// Shared pieces of the interception tests: the real DLL loaded into the test process, its policy
// switches, agent answers, decoding of recorded frames, and kwdecrypt.
#pragma once
#include <winsock2.h>
#include <windows.h>

#include <string>
#include <vector>

#include "kwindel.h"
#include "kwtest.h"
#include "test_agent.h"

namespace kwtest {

// Loads kwindel-x64.dll once for the test program (its entry installs the interceptions).
class LoadedDll {
 public:
  static LoadedDll& get();
  HMODULE module() const { return module_; }
  void set_policy(DWORD policy) const { set_policy_(policy, 0); }
  volatile SharedBlockView* block() const { return shared_block(module_); }
 private:
  LoadedDll();
  HMODULE module_ = nullptr;
  KwSetPolicyFn set_policy_ = nullptr;
};

struct DecodedFrame {
  std::string tag;
  std::string document;  // the payload without its NUL
};
DecodedFrame decode_frame(const std::string& wire);
// The recorded frames whose tag is `tag`, decoded.
std::vector<std::string> documents_with_tag(const TestAgent& agent, const std::string& tag);

// A "<FILECOPY_SECRETAUDIT_RESPONSE>" frame naming secret files with a password and action.
std::string secret_answer(const std::vector<std::string>& secret_files, const std::string& password, int action,
                          const std::vector<std::string>& encrypted_files = {});

// Replaces the value of the time attribute with "T" so documents can be compared exactly.
std::string without_time(const std::string& document);

// Runs kwdecrypt on `encrypted` with `password`; true when it reports the digest matches and the
// plaintext it writes equals `original`.
bool decrypts_to(const std::wstring& encrypted, const std::string& password, const std::string& original);

std::string utf8(const std::wstring& wide);
std::string temp_folder_utf8();

// The originals parked by every process: each record's source path and the parked file.
struct ParkedRecord {
  std::string source;    // UTF-8, as the agent named it
  std::wstring original;
};
std::vector<ParkedRecord> parked_records();

constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>";
constexpr char kAuditTag[] = "<FILECOPYAUDIT_DATA>";

}  // namespace kwtest
