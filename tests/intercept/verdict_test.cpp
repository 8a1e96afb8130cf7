// The one decision of the copy and move interceptors, as a table: policy, classes of the first
// source and the destination, the agent's reply and answer -> what the interceptor does.
#include <gtest/gtest.h>

#include "intercept/copy_screening.h"

namespace {

enum Answer { kNoFile, kEncryptedOnly, kSecretAction0, kSecretNoPassword, kSecretWithPassword };

SecretAuditResult answer_of(Answer a) {
  SecretAuditResult r;
  if (a == kEncryptedOnly) r.encrypted_files = {"C:\\e.txt"};
  if (a >= kSecretAction0) r.secret_files = {"C:\\s.txt"};
  r.action = a == kSecretAction0 ? 0 : 1;
  if (a == kSecretAction0 || a == kSecretWithPassword) r.encrypted_pwd = "pw";
  return r;
}

struct Row {
  uint32_t secret_audit, mask;
  DestinationClass source, destination;
  AgentReply reply;
  Answer answer;
  Verdict expected;
};

constexpr AgentReply kAsk = AgentReply::kNotAsked, kNot = AgentReply::kNotSecret, kYes = AgentReply::kAnswered;

const Row kRows[] = {
    // The gate: only a secret-audit value of exactly 1, a local first source, a watched destination.
    {0, 7, 0, 0, kAsk, kNoFile, Verdict::kLetThrough},
    {2, 7, 0, 0, kAsk, kNoFile, Verdict::kLetThrough},
    {1, 7, 1, 0, kAsk, kNoFile, Verdict::kLetThrough},  // removable first source
    {1, 7, 2, 0, kAsk, kNoFile, Verdict::kLetThrough},  // network first source
    {1, 1, 0, 0, kAsk, kNoFile, Verdict::kAskAgent},
    {1, 2, 0, 1, kAsk, kNoFile, Verdict::kAskAgent},
    {1, 4, 0, 2, kAsk, kNoFile, Verdict::kAskAgent},
    {1, 6, 0, 0, kAsk, kNoFile, Verdict::kLetThrough},  // each mask bit selects its own class
    {1, 5, 0, 1, kAsk, kNoFile, Verdict::kLetThrough},
    {1, 3, 0, 2, kAsk, kNoFile, Verdict::kLetThrough},
    // The reply.
    {1, 1, 0, 0, kNot, kNoFile, Verdict::kLetThrough},             // not secret: on to the audit
    {1, 1, 0, 0, kYes, kNoFile, Verdict::kRefuse},                 // an answer naming no file refuses
    {1, 1, 0, 0, kYes, kEncryptedOnly, Verdict::kLetThrough},
    {1, 1, 0, 0, kYes, kSecretAction0, Verdict::kForbid},          // action 0 wins over the password
    {1, 1, 0, 0, kYes, kSecretNoPassword, Verdict::kLetThrough},   // nothing to encrypt with
    {1, 1, 0, 0, kYes, kSecretWithPassword, Verdict::kProtect},
};

TEST(SecretVerdict, EveryRowOfTheDecisionTable) {
  for (const Row& row : kRows) {
    PolicyBlock policy = {};
    policy.g_secret_audit = row.secret_audit;
    policy.g_audit_dest_mask = row.mask;
    const Verdict got = secret_verdict(policy, {row.source, row.destination}, row.reply, answer_of(row.answer));
    EXPECT_EQ(static_cast<int>(row.expected), static_cast<int>(got))
        << "secret_audit=" << row.secret_audit << " mask=" << row.mask << " classes=" << row.source << ","
        << row.destination << " reply=" << static_cast<int>(row.reply) << " answer=" << row.answer;
  }
}

}  // namespace
