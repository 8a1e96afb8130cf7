// The shell copy engine's CopyItems, MoveItems and PerformOperations intercepted in this very
// process by the real DLL, screened by a test agent on the agent port, on real files, as tables of
// scenarios. Wine's own methods return E_NOTIMPL, which tells a call passed on from one refused
// with 0xFFFFFFFF.
#include "intercept/copy_screening.h"
#include "kwtest.h"

namespace {

using namespace kwtest;

const std::string kBang57(57, '!');
const std::string kCall = "[CopyItems_new,1150] : [ZELTRAP:KWINDEL] CopyItems_new g_secretcopy_audit=";
const std::string kMove = "[MoveItems_new,1325] : [ZELTRAP:KWINDEL] MoveItems_new";
const std::string kSearch = "[CopyItems_new,1179] : [ZELTRAP:KWINDEL] search {a}";
const std::string kNoPaths = "[get_filepaths_from_comobject,1018] : [ZELTRAP:KWINDEL] SHGetIDListFromObject(iUnknown,&pv);hr=-2147467262, error=*";
constexpr HRESULT P = kPassedOn, R = kRefused;

enum Reply { kNotSecret, kForbidden, kSecretInPlace, kWrongTag };

// Sources: file names in a fresh scratch folder ("\x0416\x20AC.txt" outside any ANSI code page);
// "tree" (a folder whose only file is tree\deeper\y.txt), "empty" (an empty folder), "usb" (a file
// on a removable drive), "item" (a.txt as one shell item: the ID-list form), "self" (the operation
// object: no paths), "long" (a path of more than 255 characters). Destination "dst", or "usb" (the
// removable drive's root). calls: c CopyItems, m MoveItems, p PerformOperations. trace: the first
// lines exactly ({a} the first source, "*" any line or the rest of one, a final "" no more lines),
// cut at 255 characters as the DLL cuts them. Every request names all sources and the destination;
// each record lists the sources' files; the sources keep their content unless moved in place.
struct Scenario {
  const char* name;
  DWORD policy;
  Reply reply;
  std::vector<std::wstring> sources;
  const wchar_t* destination;
  const char* calls;
  std::vector<HRESULT> results;
  size_t requests;
  std::vector<const char*> audits;  // each record's operation
  std::vector<std::string> trace;
};
const Scenario kScenarios[] = {
    {"policy off passes every call on", 0, kNotSecret, {L"a.txt"}, L"dst", "cmp", {P, P, P}, 0, {},
     {kCall + "0", kMove, "[PerformOperations_new,1290] : [ZELTRAP:KWINDEL] PerformOperations_new", ""}},
    {"an answer naming no file: copied and audited", kScreen, kNotSecret, {L"\x0416\x20AC.txt", L"b.txt"}, L"dst", "c", {P}, 1,
     {"6"}, {kCall + "1", kSearch, "[CopyItems_new,1232] : [ZELTRAP:KWINDEL] not secret" + kBang57, ""}},
    {"a wrong tag refuses both calls unaudited", kScreen, kWrongTag, {L"a.txt"}, L"dst", "cmp", {R, R, P}, 2, {},
     {kCall + "1", kSearch, "[CopyItems_new,1182] : [ZELTRAP:KWINDEL] secret" + kBang57,
      "g_secret_audit=1,g_encrypt_audit=0, secret file size:0, encrypt file size:0", kMove}},
    {"a forbidden copy is queued; the next perform alone refuses", kScreen, kForbidden, {L"a.txt"}, L"dst", "ccpp", {P, P, R, P},
     2, {}, {}},
    {"a forbidden move is queued as a copy; the next perform refuses", kScreen, kForbidden, {L"a.txt"}, L"dst", "mp", {P, R}, 1,
     {}, {}},
    {"a secret move transforms its source in place for good", kScreen, kSecretInPlace, {L"moved.doc"}, L"dst", "mp", {P, P}, 1,
     {"5"}, {}},
    {"a first source on a removable drive is audited, not checked", kScreen | kRemovable, kNotSecret, {L"usb"}, L"dst", "c", {P},
     0, {"6"}, {}},
    {"a removable destination is checked when the mask selects it", kSecretAudit | kRemovable, kNotSecret, {L"a.txt"}, L"usb",
     "c", {P}, 1, {}, {}},
    {"the record lists the files of folders, not the folders", kCopyAudit, kNotSecret, {L"a.txt", L"tree", L"empty"}, L"dst",
     "c", {P}, 0, {"6"}, {}},
    {"an empty folder moved still gets its record", kCopyAudit, kNotSecret, {L"empty"}, L"dst", "m", {P}, 0, {"5"}, {}},
    {"an ID-list item is collected through its item array", kCopyAudit, kNotSecret, {L"item"}, L"dst", "c", {P}, 0, {"6"},
     {kCall + "0", "[get_filepaths_from_comobject,1015] : [ZELTRAP:KWINDEL] iUnknown->QueryInterface(IID_IDataObject, "
                   "(void **)&data_object); hr=0, error=*"}},
    {"items without paths are traced and passed on", kScreen, kNotSecret, {L"self"}, L"dst", "cm", {P, P}, 0, {},
     {kCall + "1", "*", kNoPaths, "[CopyItems_new,1162] : [ZELTRAP:KWINDEL] get file paths error", kMove, "*", kNoPaths, ""}},
    {"a long first source is cut in the search trace; copy audit off still checks", kSecretAudit | kLocal, kNotSecret, {L"long"}, L"dst", "c", {P}, 1, {},
     {kCall + "1", kSearch}},
};

class ComPath : public Interception {
 protected:
  void SetUp() override {
    Interception::SetUp();
    ASSERT_TRUE(new_file_operation(&op));
  }
  ComRef<IFileOperation> op;
};

TEST_F(ComPath, Scenarios) {
  RemovableDrive drive;
  ASSERT_TRUE(drive.ok());
  for (const Scenario& s : kScenarios) {
    SCOPED_TRACE(s.name);
    ScratchDir scratch;
    std::vector<std::wstring> paths, listed;  // the sources, and the files a record lists for them
    for (const std::wstring& name : s.sources) {
      std::wstring path = name == L"usb" ? drive.root() + L"\\usb.txt" : scratch.file(name == L"item" ? L"a.txt" : name);
      if (name == L"long") CreateDirectoryW(scratch.file(std::wstring(70, L'd')).c_str(), nullptr);
      if (name == L"long") path = scratch.file(std::wstring(70, L'd') + L"\\" + std::wstring(100, L'f') + L".txt");
      if (name == L"tree" || name == L"empty") CreateDirectoryW(path.c_str(), nullptr);
      if (name == L"tree") CreateDirectoryW((path + L"\\deeper").c_str(), nullptr);
      if (name == L"tree") listed.push_back(path + L"\\deeper\\y.txt");
      if (name != L"tree" && name != L"empty" && name != L"self") listed.push_back(path);
      paths.push_back(path);
    }
    for (const std::wstring& file : listed) ASSERT_TRUE(write_file(file, "content of " + narrow(file)));
    const std::wstring dst = wcscmp(s.destination, L"usb") == 0 ? drive.root() + L"\\" : scratch.file(s.destination);
    CreateDirectoryW(dst.c_str(), nullptr);
    std::vector<std::string> secrets;
    for (const std::wstring& p : paths) secrets.push_back(narrow(p));
    if (s.reply == kNotSecret) secrets.clear();
    const std::string answer = secret_answer(secrets, "pw", s.reply == kForbidden ? 0 : 7);
    TestAgent agent(AgentScript{true, {s.reply == kWrongTag ? with_wrong_tag(answer) : answer}});
    ASSERT_TRUE(agent.ok());
    set_policy(s.policy);
    TraceCapture trace;
    for (size_t i = 0; s.calls[i] != '\0'; ++i) {
      ComRef<IShellItem> item, target;
      ASSERT_TRUE(shell_item_for(dst, &target) && (s.sources[0] != L"item" || shell_item_for(paths[0], &item)));
      IUnknown* items = s.sources[0] == L"item" ? static_cast<IUnknown*>(item.get()) : op.get();
      const bool direct = s.sources[0] == L"item" || s.sources[0] == L"self";
      const HRESULT result = s.calls[i] == 'p' ? op->PerformOperations()
                             : !direct         ? queue(op.get(), s.calls[i] == 'm', paths, dst)
                             : s.calls[i] == 'c' ? op->CopyItems(items, target.get()) : op->MoveItems(items, target.get());
      EXPECT_EQ(result, s.results.at(i)) << "call " << i;
    }
    const std::vector<std::string> lines = trace.lines();
    for (size_t i = 0; i < s.trace.size(); ++i) {
      std::string expected = s.trace[i];
      if (expected.find("{a}") != std::string::npos) expected.replace(expected.find("{a}"), 3, narrow(paths[0]));
      expected = expected.substr(0, 255);
      const bool prefix = !expected.empty() && expected.back() == '*';
      if (expected.empty()) EXPECT_EQ(lines.size(), i) << "more trace lines than expected";
      else if (i >= lines.size()) ADD_FAILURE() << "trace line " << i << " missing: " << expected;
      else EXPECT_EQ(prefix ? lines[i].substr(0, expected.size() - 1) + "*" : lines[i], expected) << i;
    }
    ASSERT_TRUE(agent.flush());
    EXPECT_EQ(agent.documents(kRequestTag), std::vector<std::string>(s.requests, request_document(paths, dst)));
    std::vector<std::string> audits, expected_audits;
    for (const std::string& d : agent.documents(kAuditTag)) audits.push_back(without_time(d));
    for (const char* operation : s.audits) expected_audits.push_back(audit_document(operation, dst, listed));
    EXPECT_EQ(audits, expected_audits);
    EXPECT_EQ(agent.frames().size(), s.requests + s.audits.size());
    for (const std::wstring& file : listed) {
      if (s.reply == kSecretInPlace) EXPECT_TRUE(decrypts_to(file, "pw", "content of " + narrow(file))) << narrow(file);
      else EXPECT_EQ(content(file), "content of " + narrow(file));
    }
    EXPECT_TRUE(parked_records().empty());
    EXPECT_EQ(op->PerformOperations(), kPassedOn);  // nothing left armed
    set_policy(0);
    DeleteFileW((drive.root() + L"\\usb.txt").c_str());
  }
}

// The source swap: each CopyItems call names its sources secret with a password; while the
// copies are queued every swapped source holds its encrypted form and exactly one parked original
// per source is recorded; after PerformOperations every file holds its original again with nothing
// left parked. A refused call leaves every file as it was.
TEST_F(ComPath, SwapScenariosLoseNoOriginal) {
  enum Hazard { kNone, kStaleTmp, kSourceLocked, kPlaceHeldAtRestore, kRefusedPerform };
  struct Row {
    const char* name;
    std::vector<std::wstring> files;       // a leading "%": in the temporary folder itself
    std::vector<std::vector<int>> copies;  // the files (indices) of each CopyItems call
    Hazard hazard;
  };
  const Row rows[] = {
      {"one secret source", {L"secret.doc"}, {{0}}, kNone},
      {"one name in two folders", {L"x\\same.doc", L"y\\same.doc"}, {{0, 1}}, kNone},
      {"one source queued twice", {L"twice.doc"}, {{0}, {0}}, kNone},
      {"a source in the temporary folder", {L"%in-temp.doc"}, {{0}}, kNone},
      {"left-over .tmp names: a read-only file, a folder", {L"ro.doc", L"dir.doc"}, {{0, 1}}, kStaleTmp},
      {"an unreadable source refuses, undoing the swap before it", {L"ok.doc", L"locked.doc"}, {{0, 1}}, kSourceLocked},
      {"a place held open at the restore waits for the next one", {L"held.doc"}, {{0}}, kPlaceHeldAtRestore},
      {"a refused perform after a forbidden move keeps the originals parked", {L"kept.doc"}, {{0}}, kRefusedPerform},
  };
  set_policy(kScreen);
  const std::wstring dst = folder(L"dst");
  folder(L"x");
  folder(L"y");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::wstring> paths;
    std::vector<std::string> originals;
    for (const std::wstring& f : row.files) {
      paths.push_back(f[0] == L'%' ? temp_folder() + f.substr(1) : dir.file(f));
      originals.push_back("original of " + narrow(f) + std::string(paths.size() * 13, '#'));
      ASSERT_TRUE(write_file(paths.back(), originals.back()));
    }
    if (row.hazard == kStaleTmp) {
      ASSERT_TRUE(write_file(paths[0] + L".tmp", "stale"));
      SetFileAttributesW((paths[0] + L".tmp").c_str(), FILE_ATTRIBUTE_READONLY);
      CreateDirectoryW((paths[1] + L".tmp").c_str(), nullptr);
    }
    OwnedHandle lock(row.hazard != kSourceLocked ? nullptr : CreateFileW(paths[1].c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    for (const auto& call : row.copies) {
      std::vector<std::wstring> sources;
      std::vector<std::string> secrets;
      for (int i : call) sources.push_back(paths[i]), secrets.push_back(narrow(paths[i]));
      TestAgent agent(AgentScript{true, {secret_answer(secrets, "pw", 1)}});  // the sources' folders differ: named here
      ASSERT_TRUE(agent.ok());
      EXPECT_EQ(queue(op.get(), false, sources, dst), row.hazard == kSourceLocked ? kRefused : kPassedOn);
    }
    lock.reset();
    EXPECT_EQ(parked_records().size(), row.hazard == kSourceLocked ? 0 : paths.size());
    for (size_t i = 0; i < paths.size() && row.hazard != kSourceLocked; ++i) {
      EXPECT_TRUE(decrypts_to(paths[i], "pw", originals[i])) << i;
      EXPECT_EQ(parked_original_of(paths[i]), originals[i]) << i;
    }
    if (row.hazard == kPlaceHeldAtRestore || row.hazard == kRefusedPerform) {
      const bool refused = row.hazard == kRefusedPerform;
      OwnedHandle held(refused ? nullptr : CreateFileW(paths[0].c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
      TestAgent agent(AgentScript{true, {secret_answer({narrow(paths[0])}, "pw", 0)}});
      ASSERT_TRUE(agent.ok());
      if (refused) EXPECT_EQ(queue(op.get(), true, {paths[0]}, dst), kPassedOn);
      EXPECT_EQ(op->PerformOperations(), refused ? kRefused : kPassedOn);
      EXPECT_TRUE(decrypts_to(paths[0], "pw", originals[0]));
      EXPECT_EQ(parked_records().size(), 1u);
    }
    EXPECT_EQ(op->PerformOperations(), kPassedOn);  // restored although the real method failed
    for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(content(paths[i]), originals[i]) << i;
    EXPECT_TRUE(parked_records().empty());
    if (row.hazard == kStaleTmp) EXPECT_EQ(content(paths[0] + L".tmp"), "stale");
    for (const std::wstring& p : paths) remove_tree(p), remove_tree(p + L".tmp");
  }
}

// The one decision of the copy and move interceptors, as a table: policy, classes of the first
// source and the destination, the agent's reply and answer -> what the interceptor does.
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
    // The gate: only a secret-audit value of exactly 1, a local first source, a watched destination
    // (a removable first source, a reply that names no secret or one with a password: end to end above).
    {0, 7, 0, 0, kAsk, kNoFile, Verdict::kLetThrough},
    {2, 7, 0, 0, kAsk, kNoFile, Verdict::kLetThrough},
    {1, 7, 2, 0, kAsk, kNoFile, Verdict::kLetThrough},  // network first source
    {1, 1, 0, 0, kAsk, kNoFile, Verdict::kAskAgent},
    {1, 2, 0, 1, kAsk, kNoFile, Verdict::kAskAgent},
    {1, 4, 0, 2, kAsk, kNoFile, Verdict::kAskAgent},
    {1, 6, 0, 0, kAsk, kNoFile, Verdict::kLetThrough},  // each mask bit selects its own class
    {1, 5, 0, 1, kAsk, kNoFile, Verdict::kLetThrough},
    {1, 3, 0, 2, kAsk, kNoFile, Verdict::kLetThrough},
    // The reply.
    {1, 1, 0, 0, kYes, kNoFile, Verdict::kRefuse},                 // an answer naming no file refuses
    {1, 1, 0, 0, kYes, kEncryptedOnly, Verdict::kLetThrough},
    {1, 1, 0, 0, kYes, kSecretAction0, Verdict::kForbid},          // action 0 wins over the password
    {1, 1, 0, 0, kYes, kSecretNoPassword, Verdict::kLetThrough},   // nothing to encrypt with
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
