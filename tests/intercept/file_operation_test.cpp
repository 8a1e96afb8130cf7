// The shell copy engine's CopyItems, MoveItems and PerformOperations, intercepted in this very
// process by the real DLL (its entry patched Wine's own IFileOperation code), screened by a real
// agent on the agent port, on real files. Wine's real methods return E_NOTIMPL, which tells a
// call passed on from one refused with 0xFFFFFFFF.
#include <gtest/gtest.h>

#include "interception_fixture.h"
#include "shell_items.h"

#include <sddl.h>
#include <shlobj.h>

namespace {

using namespace kwtest;

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);
constexpr HRESULT kPassedOn = E_NOTIMPL;  // what Wine's own methods answer
constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL, kRemovable = KWINDEL_POLICY_DEST_REMOVABLE;
const std::string kBang57(57, '!');

class FileOperationInterception : public InterceptionTest {
 protected:
  void SetUp() override {
    InterceptionTest::SetUp();
    ASSERT_TRUE(new_file_operation(&op));
  }
  HRESULT copy(const std::vector<std::wstring>& sources, const std::wstring& destination) {
    Com<IDataObject> items;
    Com<IShellItem> target;
    EXPECT_TRUE(data_object_for(sources, &items));
    EXPECT_TRUE(shell_item_for(destination, &target));
    return op->CopyItems(items.get(), target.get());
  }
  HRESULT move(const std::vector<std::wstring>& sources, const std::wstring& destination) {
    Com<IDataObject> items;
    Com<IShellItem> target;
    EXPECT_TRUE(data_object_for(sources, &items));
    EXPECT_TRUE(shell_item_for(destination, &target));
    return op->MoveItems(items.get(), target.get());
  }
  std::string audit_document(const std::string& operation, const std::wstring& destination,
                             const std::vector<std::wstring>& files) {
    std::string doc = "<FilesCopy processname=\"intercept_com_tests.exe\" operation=\"" + operation +
                      "\" flags=\"0\" time=\"T\" dstfloder=\"" + utf8(destination) + "\" usersid=\"" + sid + "\">";
    if (files.empty()) return doc.substr(0, doc.size() - 1) + "/>";  // compact form of an empty element
    for (const auto& f : files) doc += "<File filename=\"" + utf8(f) + "\"/>";
    return doc + "</FilesCopy>";
  }

  Com<IFileOperation> op;
  std::string sid = [] {
    // The SID as the system prints it, for the usersid attribute.
    HANDLE token = nullptr;
    OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
    char buffer[256];
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, buffer, sizeof buffer, &size);
    wchar_t* text = nullptr;
    ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text);
    std::string s = narrow(text);
    LocalFree(text);
    CloseHandle(token);
    return s;
  }();
};

TEST_F(FileOperationInterception, PolicyOffPassesEveryCallOnWithOneTrace) {
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
  ASSERT_TRUE(agent.ok());
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  TraceCapture trace;
  EXPECT_EQ(copy({a}, dst), kPassedOn);
  EXPECT_EQ(move({a}, dst), kPassedOn);
  EXPECT_EQ(op->PerformOperations(), kPassedOn);
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               "[CopyItems_new,1150] : [ZELTRAP:KWINDEL] CopyItems_new g_secretcopy_audit=0",
                               "[MoveItems_new,1325] : [ZELTRAP:KWINDEL] MoveItems_new",
                               "[PerformOperations_new,1290] : [ZELTRAP:KWINDEL] PerformOperations_new"}));
  Sleep(100);
  EXPECT_TRUE(agent.datagrams().empty());
}

TEST_F(FileOperationInterception, AnAnswerNamingNoFileIsNotSecretTheCopyGoesOnAndIsAudited) {
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 0)}, false});
  ASSERT_TRUE(agent.ok());
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring a = make(L"a.txt", "alpha"), b = make(L"b.txt", "beta"), dst = folder(L"dst");
  TraceCapture trace;
  EXPECT_EQ(copy({a, b}, dst), kPassedOn);
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  EXPECT_EQ(documents_with_tag(agent, kRequestTag),
            (std::vector<std::string>{"<CopyFiles processname=\"intercept_com_tests.exe\"><File path=\"" + utf8(a) +
                                      "\"/><File path=\"" + utf8(b) + "\"/><DstFolder path=\"" + utf8(dst) +
                                      "\"/></CopyFiles>"}));
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(without_time(audits[0]), audit_document("6", dst, {a, b}));
  EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                               "[CopyItems_new,1150] : [ZELTRAP:KWINDEL] CopyItems_new g_secretcopy_audit=1",
                               "[CopyItems_new,1179] : [ZELTRAP:KWINDEL] search " + utf8(a),
                               "[CopyItems_new,1232] : [ZELTRAP:KWINDEL] not secret" + kBang57}));
}

TEST_F(FileOperationInterception, AFailedExchangeRefusesWithoutAuditOrTheRealMethod) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  const std::string wrong_tag = TestAgent::frame("<FILECOPY_SECRETAUDIT_RESPONSEX>", "<SecretCheckResult/>");
  for (const std::string& reply : {wrong_tag, std::string()}) {  // a wrong tag, a zero-length datagram
    TestAgent agent(AgentScript{true, {reply}, false});
    ASSERT_TRUE(agent.ok());
    TraceCapture trace;
    EXPECT_EQ(copy({a}, dst), kRefused);
    EXPECT_EQ(move({a}, dst), kRefused);
    Sleep(100);
    EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), 2u);
    EXPECT_TRUE(documents_with_tag(agent, kAuditTag).empty());
    const auto lines = trace.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[2], "[CopyItems_new,1182] : [ZELTRAP:KWINDEL] secret" + kBang57);
    EXPECT_EQ(lines[3], "g_secret_audit=1,g_encrypt_audit=0, secret file size:0, encrypt file size:0");
  }
  EXPECT_EQ(op->PerformOperations(), kPassedOn);  // a refusal does not arm the one-shot gate
}

TEST_F(FileOperationInterception, AForbiddenCopyIsQueuedAndTheNextPerformRefusesOnce) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({utf8(a)}, "pw", 0)}, false});
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(copy({a}, dst), kPassedOn);
  EXPECT_EQ(copy({a}, dst), kPassedOn);  // a second forbidding verdict still costs one refusal
  Sleep(100);
  EXPECT_TRUE(documents_with_tag(agent, kAuditTag).empty());
  TraceCapture trace;
  EXPECT_EQ(op->PerformOperations(), kRefused);
  EXPECT_TRUE(trace.lines().empty());  // the refusal writes nothing
  EXPECT_EQ(op->PerformOperations(), kPassedOn);
  std::string content;
  ASSERT_TRUE(read_file(a, &content));
  EXPECT_EQ(content, "alpha");
}

// The source swap, row by row: the named files are made (a leading "%" puts one in the temporary
// folder itself), each CopyItems call names its sources secret with a password, then while the
// copies are queued every swapped source holds its encrypted form and exactly one parked original
// per source is recorded, and after PerformOperations every file holds its original again with
// nothing left parked. A refused call leaves every file as it was.
TEST_F(FileOperationInterception, SwapScenariosLoseNoOriginal) {
  enum Hazard { kNone, kStaleTmp, kSourceLocked, kPlaceHeldAtRestore, kRefusedPerform };
  struct Row {
    const char* name;
    std::vector<std::wstring> files;
    std::vector<std::vector<int>> copies;  // the files (indices) of each CopyItems call
    Hazard hazard;
    HRESULT result;  // of every CopyItems
  };
  const Row rows[] = {
      {"one secret source", {L"secret.doc"}, {{0}}, kNone, kPassedOn},
      {"one name in two folders", {L"x\\same.doc", L"y\\same.doc"}, {{0, 1}}, kNone, kPassedOn},
      {"one source queued twice", {L"twice.doc"}, {{0}, {0}}, kNone, kPassedOn},
      {"a source in the temporary folder", {L"%in-temp.doc"}, {{0}}, kNone, kPassedOn},
      {"left-over .tmp names: read-only file, folder", {L"ro.doc", L"dir.doc"}, {{0, 1}}, kStaleTmp, kPassedOn},
      {"a source that cannot be read refuses, undoing the swap before it", {L"ok.doc", L"locked.doc"}, {{0, 1}},
       kSourceLocked, kRefused},
      {"a place held open at the restore waits for the next one", {L"held.doc"}, {{0}}, kPlaceHeldAtRestore,
       kPassedOn},
      {"a PerformOperations refused after a forbidden move keeps the originals parked", {L"kept.doc"}, {{0}},
       kRefusedPerform, kPassedOn},
  };
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring dst = folder(L"dst"), temp = widen(temp_folder_utf8());
  folder(L"x");
  folder(L"y");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::vector<std::wstring> paths;
    std::vector<std::string> originals;
    for (const std::wstring& f : row.files) {
      paths.push_back(f[0] == L'%' ? temp + f.substr(1) : dir.file(f));
      originals.push_back("original of " + utf8(f) + std::string(paths.size() * 13, '#'));
      ASSERT_TRUE(write_file(paths.back(), originals.back()));
    }
    if (row.hazard == kStaleTmp) {
      ASSERT_TRUE(write_file(paths[0] + L".tmp", "stale"));
      SetFileAttributesW((paths[0] + L".tmp").c_str(), FILE_ATTRIBUTE_READONLY);
      CreateDirectoryW((paths[1] + L".tmp").c_str(), nullptr);
    }
    HANDLE lock = row.hazard == kSourceLocked ? CreateFileW(paths[1].c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                                              : INVALID_HANDLE_VALUE;
    for (const auto& call : row.copies) {
      std::vector<std::wstring> sources;
      std::vector<std::string> secrets;
      for (int i : call) {
        sources.push_back(paths[i]);
        secrets.push_back(utf8(paths[i]));
      }
      TestAgent agent(AgentScript{true, {secret_answer(secrets, "pw", 1)}, false});
      ASSERT_TRUE(agent.ok());
      EXPECT_EQ(copy(sources, dst), row.result);
    }
    if (lock != INVALID_HANDLE_VALUE) CloseHandle(lock);
    const auto parked = parked_records();
    if (row.result == kRefused) {
      for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(content(paths[i]), originals[i]) << i;
      EXPECT_TRUE(parked.empty());
      continue;
    }
    ASSERT_EQ(parked.size(), paths.size());
    for (size_t i = 0; i < paths.size(); ++i) {
      EXPECT_TRUE(decrypts_to(paths[i], "pw", originals[i])) << i;
      int records = 0;
      for (const ParkedRecord& p : parked) {
        if (p.source != utf8(paths[i])) continue;
        ++records;
        EXPECT_EQ(content(p.original), originals[i]) << i;
      }
      EXPECT_EQ(records, 1) << i;
    }
    HANDLE held = INVALID_HANDLE_VALUE;
    if (row.hazard == kPlaceHeldAtRestore) {
      held = CreateFileW(paths[0].c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
      EXPECT_EQ(op->PerformOperations(), kPassedOn);
      EXPECT_TRUE(decrypts_to(paths[0], "pw", originals[0]));
      EXPECT_EQ(parked_records().size(), 1u);
      CloseHandle(held);
    }
    if (row.hazard == kRefusedPerform) {
      TestAgent agent(AgentScript{true, {secret_answer({utf8(paths[0])}, "pw", 0)}, false});
      ASSERT_TRUE(agent.ok());
      EXPECT_EQ(move({paths[0]}, dst), kPassedOn);  // forbidden: queued as a copy, arms the one-shot refusal
      EXPECT_EQ(op->PerformOperations(), kRefused);
      EXPECT_TRUE(decrypts_to(paths[0], "pw", originals[0]));
      EXPECT_EQ(parked_records().size(), 1u);
    }
    EXPECT_EQ(op->PerformOperations(), kPassedOn);  // restored although the real method failed
    for (size_t i = 0; i < paths.size(); ++i) EXPECT_EQ(content(paths[i]), originals[i]) << i;
    EXPECT_TRUE(parked_records().empty());
    if (row.hazard == kStaleTmp) {
      EXPECT_EQ(content(paths[0] + L".tmp"), "stale");
      SetFileAttributesW((paths[0] + L".tmp").c_str(), FILE_ATTRIBUTE_NORMAL);
      RemoveDirectoryW((paths[1] + L".tmp").c_str());
    }
    for (const std::wstring& p : paths) DeleteFileW(p.c_str());
  }
}

TEST_F(FileOperationInterception, ASecretMoveTransformsTheSourceInPlaceForGood) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::string original = "moved secret";
  const std::wstring s = make(L"moved.doc", original), dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({utf8(s)}, "pw", 7)}, false});
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(move({s}, dst), kPassedOn);
  EXPECT_TRUE(decrypts_to(s, "pw", original));
  EXPECT_FALSE(file_exists(widen(temp_folder_utf8()) + L"moved.doc"));
  EXPECT_FALSE(file_exists(s + L".tmp"));
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(without_time(audits[0]), audit_document("5", dst, {s}));
  EXPECT_EQ(op->PerformOperations(), kPassedOn);
  EXPECT_TRUE(decrypts_to(s, "pw", original));  // no restore follows a move
}

TEST_F(FileOperationInterception, GatesDecideWhetherTheAgentIsAsked) {
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  struct Case { const char* name; DWORD policy; uint32_t secret_override; bool asked; bool audited; };
  const Case cases[] = {
      {"secret audit 2 is not 1", kCopyAudit | kSecretAudit | kLocal, 2, false, true},
      {"local destination, mask removable only", kCopyAudit | kSecretAudit | kRemovable, 1, false, true},
      {"mask 0", kCopyAudit | kSecretAudit, 1, false, true},
      {"copy audit off still checks", kSecretAudit | kLocal, 1, true, false},
      {"secret audit off", kCopyAudit | kLocal, 0, false, true},
  };
  for (const Case& c : cases) {
    TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
    ASSERT_TRUE(agent.ok());
    dll().set_policy(c.policy);
    dll().block()->secret_audit = c.secret_override;
    EXPECT_EQ(copy({a}, dst), kPassedOn) << c.name;
    Sleep(150);
    EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), c.asked ? 1u : 0u) << c.name;
    EXPECT_EQ(documents_with_tag(agent, kAuditTag).size(), c.audited ? 1u : 0u) << c.name;
  }
}

TEST_F(FileOperationInterception, AFirstSourceOnARemovableDriveIsAuditedButNotChecked) {
  RemovableDrive drive;
  ASSERT_TRUE(drive.ok());
  const std::wstring r = drive.root() + L"\\usb.txt", dst = folder(L"dst");
  ASSERT_TRUE(write_file(r, "from the stick"));
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
  ASSERT_TRUE(agent.ok());
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal | kRemovable);
  EXPECT_EQ(copy({r}, dst), kPassedOn);
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  Sleep(100);
  EXPECT_TRUE(documents_with_tag(agent, kRequestTag).empty());
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(without_time(audits[0]), audit_document("6", dst, {r}));
}

TEST_F(FileOperationInterception, ARemovableDestinationIsCheckedWhenTheMaskSelectsIt) {
  RemovableDrive drive;
  ASSERT_TRUE(drive.ok());
  const std::wstring a = make(L"a.txt", "alpha"), dst = drive.root() + L"\\";
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
  ASSERT_TRUE(agent.ok());
  dll().set_policy(kSecretAudit | kRemovable);
  EXPECT_EQ(copy({a}, dst), kPassedOn);
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  EXPECT_EQ(documents_with_tag(agent, kRequestTag).size(), 1u);
}

TEST_F(FileOperationInterception, AuditListsTheFilesOfFoldersButNotTheFoldersThemselves) {
  dll().set_policy(kCopyAudit);
  const std::wstring a = make(L"a.txt", "a");
  const std::wstring tree = folder(L"tree");
  folder(L"tree\\deeper");
  const std::wstring x = make(L"tree\\x.txt", "x"), y = make(L"tree\\deeper\\y.txt", "y");
  const std::wstring empty = folder(L"empty"), dst = folder(L"dst");
  TestAgent agent;
  ASSERT_TRUE(agent.ok());
  EXPECT_EQ(copy({a, tree, empty}, dst), kPassedOn);
  EXPECT_EQ(move({empty}, dst), kPassedOn);  // an empty folder still gets its record
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 2u);
  const std::string with_x_first = audit_document("6", dst, {a, x, y});
  const std::string with_y_first = audit_document("6", dst, {a, y, x});
  EXPECT_TRUE(without_time(audits[0]) == with_x_first || without_time(audits[0]) == with_y_first) << audits[0];
  EXPECT_EQ(without_time(audits[1]), audit_document("5", dst, {}));
}

TEST_F(FileOperationInterception, AnIdListItemIsCollectedThroughItsItemArray) {
  dll().set_policy(kCopyAudit);
  const std::wstring a = make(L"single.txt", "s"), dst = folder(L"dst");
  Com<IShellItem> item, target;
  ASSERT_TRUE(shell_item_for(a, &item));
  ASSERT_TRUE(shell_item_for(dst, &target));
  TestAgent agent;
  ASSERT_TRUE(agent.ok());
  TraceCapture trace;
  EXPECT_EQ(op->CopyItems(item.get(), target.get()), kPassedOn);
  ASSERT_TRUE(agent.wait_for_frames(1, 5000));
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(without_time(audits[0]), audit_document("6", dst, {a}));
  const auto lines = trace.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[1].rfind("[get_filepaths_from_comobject,1015] : [ZELTRAP:KWINDEL] iUnknown->QueryInterface("
                           "IID_IDataObject, (void **)&data_object); hr=0, error=", 0), 0u) << lines[1];
}

TEST_F(FileOperationInterception, ItemsWithoutPathsAreTracedAndPassedOn) {
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);
  const std::wstring dst = folder(L"dst");
  Com<IShellItem> target;
  ASSERT_TRUE(shell_item_for(dst, &target));
  TestAgent agent;
  ASSERT_TRUE(agent.ok());
  TraceCapture trace;
  // The operation object itself offers neither a data object nor an ID list.
  EXPECT_EQ(op->CopyItems(op.get(), target.get()), kPassedOn);
  EXPECT_EQ(op->MoveItems(op.get(), target.get()), kPassedOn);
  const auto lines = trace.lines();
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[2].rfind("[get_filepaths_from_comobject,1018] : [ZELTRAP:KWINDEL] SHGetIDListFromObject(iUnknown,&pv);hr=-2147467262, error=", 0), 0u) << lines[2];
  EXPECT_EQ(lines[3], "[CopyItems_new,1162] : [ZELTRAP:KWINDEL] get file paths error");
  EXPECT_EQ(lines[4], "[MoveItems_new,1325] : [ZELTRAP:KWINDEL] MoveItems_new");
  Sleep(100);
  EXPECT_TRUE(agent.datagrams().empty());
}

TEST_F(FileOperationInterception, ALongFirstSourceIsCutInTheSearchTrace) {
  dll().set_policy(kSecretAudit | kLocal);
  const std::wstring deep = folder(std::wstring(70, L'd'));
  const std::wstring a = make(std::wstring(70, L'd') + L"\\" + std::wstring(100, L'f') + L".txt", "a");
  const std::wstring dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({}, "", 1)}, false});
  ASSERT_TRUE(agent.ok());
  TraceCapture trace;
  EXPECT_EQ(copy({a}, dst), kPassedOn);
  const std::string expected = "[CopyItems_new,1179] : [ZELTRAP:KWINDEL] search " + utf8(a);
  ASSERT_GT(expected.size(), 255u);
  EXPECT_EQ(trace.lines().at(1), expected.substr(0, 255));
}

TEST_F(FileOperationInterception, AProcessInjectedThroughTheGlobalHookIsScreenedTheSameWay) {
  auto install_hook_proc = reinterpret_cast<KwInstallHookProcFn>(
      reinterpret_cast<void*>(GetProcAddress(dll().module(), "InstallHookProc")));
  ASSERT_NE(install_hook_proc, nullptr);
  const std::wstring a = make(L"a.txt", "alpha"), dst = folder(L"dst");
  TestAgent agent(AgentScript{true, {secret_answer({utf8(a)}, "pw", 1)}, false});
  ASSERT_TRUE(agent.ok());
  dll().set_policy(kCopyAudit | kSecretAudit | kLocal);  // seen by the other process through the shared block
  ASSERT_EQ(install_hook_proc(TRUE), 1);
  ChildResult r = run_child(exe_dir() + L"intercept-child.exe", L"copy \"" + a + L"\" \"" + dst + L"\"", 60000);
  install_hook_proc(FALSE);
  EXPECT_EQ(r.output, "loaded 80004001\n");  // screened, then passed on to Wine's method
  ASSERT_TRUE(agent.wait_for_frames(2, 5000));
  EXPECT_EQ(documents_with_tag(agent, kRequestTag),
            (std::vector<std::string>{"<CopyFiles processname=\"intercept-child.exe\"><File path=\"" + utf8(a) +
                                      "\"/><DstFolder path=\"" + utf8(dst) + "\"/></CopyFiles>"}));
  const auto audits = documents_with_tag(agent, kAuditTag);
  ASSERT_EQ(audits.size(), 1u);
  EXPECT_EQ(without_time(audits[0]).find("<FilesCopy processname=\"intercept-child.exe\" operation=\"6\""), 0u);
  // The other process swapped the source and ended without PerformOperations: its detach put the
  // original back.
  EXPECT_EQ(content(a), "alpha");
  EXPECT_TRUE(parked_records().empty());
}

}  // namespace
