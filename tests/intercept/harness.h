// The end-to-end fixture: the real DLL loaded once into the test program (its entry installed
// the interceptions), COM and Winsock started, a scratch folder per test, the policy off around
// each test; and what the scenarios compare: agent answers, kwdecrypt, the parked originals.
#pragma once
#include <gtest/gtest.h>

#include "kwindel.h"
#include "test_agent.h"

namespace kwtest {

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);
constexpr HRESULT kPassedOn = E_NOTIMPL;  // what Wine's own IFileOperation methods answer
constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL, kRemovable = KWINDEL_POLICY_DEST_REMOVABLE;
constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>";
constexpr char kResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";
constexpr char kAuditTag[] = "<FILECOPYAUDIT_DATA>";
const std::string kMagic("\x01\x02\x03\x04\x10\x20\x30\x40", 8);  // first bytes of an encrypted file

// A response frame naming `secret_files` secret under `password` with `action`.
std::string secret_answer(const std::vector<std::string>& secret_files, const std::string& password, int action);
// A response naming every File path of `request_document` secret under `password`, action 1.
std::string all_secret_answer(const std::string& request_document, const std::string& password);
// The time attribute's value replaced with "T", so documents compare exactly.
std::string without_time(const std::string& document);
// The copy audit document of this process and user, with time "T".
std::string audit_document(const std::string& operation, const std::wstring& destination,
                           const std::vector<std::wstring>& files);
// kwdecrypt on `encrypted` with `password` succeeds and writes exactly `original`.
bool decrypts_to(const std::wstring& encrypted, const std::string& password, const std::string& original);
std::wstring temp_folder();  // %TEMP%, ends with '\'
// The originals parked by every process: each record's source (UTF-8) and the parked file.
std::vector<std::pair<std::string, std::wstring>> parked_records();
std::string parked_original_of(const std::wstring& source);  // its bytes, or "<none>"
// The short count in make test, the long one when KWINDEL_STRESS=1 (make stress).
int iterations(int short_run, int long_run);

class Interception : public ::testing::Test {
 protected:
  static void SetUpTestSuite();
  void SetUp() override;
  void TearDown() override { set_policy(0); }
  static HMODULE dll();
  static void set_policy(DWORD policy);
  static volatile SharedBlockView* block() { return shared_block(dll()); }
  std::wstring make(const std::wstring& name, const std::string& bytes);
  std::wstring folder(const std::wstring& name);
  ScratchDir dir;
};

}  // namespace kwtest
