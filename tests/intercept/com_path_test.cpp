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
const std::string kCallItem = "[CopyItem_new,1240] : [ZELTRAP:KWINDEL] CopyItem_new g_secretcopy_audit=";
const std::string kMoveItem = "[MoveItem_new,1335] : [ZELTRAP:KWINDEL] MoveItem_new";
const std::string kPerform = "[PerformOperations_new,1290] : [ZELTRAP:KWINDEL] PerformOperations_new";
const std::string kSearch = "[CopyItems_new,1179] : [ZELTRAP:KWINDEL] search {a}";
const std::string kNoPaths = "[get_filepaths_from_comobject,1018] : [ZELTRAP:KWINDEL] SHGetIDListFromObject(iUnknown,&pv);hr=-2147467262, error=*";
constexpr HRESULT P = kPassedOn, R = static_cast<HRESULT>(0xFFFFFFFF);  // passed on, refused

enum Reply { kNotSecret, kForbidden, kWrongTag };

// Sources: file names in a fresh scratch folder ("\x0416\x20AC.txt" outside any ANSI code page);
// "tree" (a folder whose only file is tree\deeper\y.txt), "empty" (an empty folder), "usb" (a file
// on a removable drive), "item" (a.txt as one shell item: the ID-list form), "self" (the operation
// object: no paths), "long" (a path of more than 255 characters). Destination "dst", or "usb" (the
// removable drive's root). calls: c CopyItems, m MoveItems, C CopyItem and M MoveItem of the first
// source, p PerformOperations. trace: the first
// lines exactly ({a} the first source, "*" any line or the rest of one, a final "" no more lines),
// cut at 255 characters as the DLL cuts them. Every request names all sources and the destination;
// each record lists the sources' files; the sources keep their content.
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
    {"policy off passes every call on", 0, kNotSecret, {L"a.txt"}, L"dst", "cmCMp", {P, P, P, P, P}, 0, {},
     {kCall + "0", kMove, kCallItem + "0", kMoveItem, kPerform, ""}},
    {"an answer naming no file: copied and audited", kScreen, kNotSecret, {L"\x0416\x20AC.txt", L"b.txt"}, L"dst", "c", {P}, 1,
     {"6"}, {kCall + "1", kSearch, "[CopyItems_new,1232] : [ZELTRAP:KWINDEL] not secret" + kBang57, ""}},
    {"a wrong tag refuses both calls unaudited", kScreen, kWrongTag, {L"a.txt"}, L"dst", "cmp", {R, R, P}, 2, {},
     {kCall + "1", kSearch, "[CopyItems_new,1182] : [ZELTRAP:KWINDEL] secret" + kBang57,
      "g_secret_audit=1,g_encrypt_audit=0, secret file size:0, encrypt file size:0", kMove}},
    {"a forbidden copy is queued; the next perform alone refuses", kScreen, kForbidden, {L"a.txt"}, L"dst", "ccpp", {P, P, R, P},
     2, {}, {}},
    {"a forbidden CopyItem is queued; the next perform refuses", kScreen, kForbidden, {L"a.txt"}, L"dst", "Cp", {P, R}, 1, {},
     {kCallItem + "1", "[CopyItem_new,1244] : [ZELTRAP:KWINDEL] search {a}", "[CopyItem_new,1246] : [ZELTRAP:KWINDEL] secret" + kBang57,
      "g_secret_audit=1,g_encrypt_audit=0, secret file size:1, encrypt file size:0", ""}},
    {"a MoveItem answered with a wrong tag is refused unaudited", kScreen, kWrongTag, {L"a.txt"}, L"dst", "M", {R}, 1, {},
     {kMoveItem, ""}},
    {"CopyItem and MoveItem are audited as copy and move", kCopyAudit, kNotSecret, {L"a.txt"}, L"dst", "CM", {P, P}, 0,
     {"6", "5"}, {}},
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
    {"items without paths are refused while the secret check is on", kScreen, kNotSecret, {L"self"}, L"dst", "cm", {R, R}, 0, {},
     {kCall + "1", "*", kNoPaths, "[CopyItems_new,1162] : [ZELTRAP:KWINDEL] get file paths error", kMove, "*", kNoPaths, ""}},
    {"a long first source is cut in the search trace; copy audit off still checks", kSecretAudit | kLocal, kNotSecret, {L"long"}, L"dst", "c", {P}, 1, {},
     {kCall + "1", kSearch}},
};

// One call of an operation's method: c CopyItems and m MoveItems of `items` or, when null, of
// `sources` (through queue()), C CopyItem and M MoveItem of the first source, p PerformOperations.
// A method called here directly leaves the last error as the caller set it (Wine's methods leave it
// alone: so must the library).
HRESULT call_method(IFileOperation* op, char call, const std::vector<std::wstring>& sources, const std::wstring& dst,
                    IUnknown* items = nullptr) {
  if ((call == 'c' || call == 'm') && items == nullptr) return queue(op, call == 'm', sources, dst);
  ComRef<IShellItem> item, target;
  if (!shell_item_for(dst, &target) || ((call == 'C' || call == 'M') && !shell_item_for(sources[0], &item))) return E_FAIL;
  SetLastError(0x2BADF00D);
  const HRESULT result = call == 'p'   ? op->PerformOperations()
                         : call == 'c' ? op->CopyItems(items, target.get())
                         : call == 'm' ? op->MoveItems(items, target.get())
                         : call == 'C' ? op->CopyItem(item.get(), target.get(), nullptr, nullptr)
                                       : op->MoveItem(item.get(), target.get(), nullptr, nullptr);
  EXPECT_EQ(GetLastError(), 0x2BADF00Du) << call;
  return result;
}

using ComPath = Interception;

TEST_F(ComPath, Scenarios) {
  TestDrive drive;
  ComRef<IFileOperation> op;
  ASSERT_TRUE(drive.ok() && new_file_operation(&op));
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
    for (const std::wstring& p : paths) if (s.reply != kNotSecret) secrets.push_back(narrow(p));
    TestAgent agent(AgentScript{true, {secret_answer(secrets, "pw", s.reply == kForbidden ? 0 : 7, s.reply == kWrongTag)}});
    ASSERT_TRUE(agent.ok());
    set_policy(s.policy);
    TraceCapture trace;
    ComRef<IShellItem> item;  // the items of "item" and "self", given as they are
    ASSERT_TRUE(s.sources[0] != L"item" || shell_item_for(paths[0], &item));
    IUnknown* items = item.ok() ? static_cast<IUnknown*>(item.get()) : s.sources[0] == L"self" ? op.get() : nullptr;
    for (size_t i = 0; s.calls[i] != '\0'; ++i)
      EXPECT_EQ(call_method(op.get(), s.calls[i], paths, dst, items), s.results.at(i)) << "call " << i;
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
    std::vector<std::string> audits;
    for (const char* operation : s.audits) audits.push_back(audit_document(operation, dst, listed));
    EXPECT_EQ(agent.documents(kAuditTag), audits);
    EXPECT_EQ(agent.frames().size(), s.requests + s.audits.size());
    for (const std::wstring& file : listed) EXPECT_EQ(content(file), "content of " + narrow(file));
    EXPECT_TRUE(parked_records().empty());
    EXPECT_EQ(op->PerformOperations(), kPassedOn);  // nothing left armed
    set_policy(0);
    DeleteFileW((drive.root() + L"\\usb.txt").c_str());
  }
}

// The source swap as scripts of steps on real files. Each step is a call of operation A or B (B's
// calls on a second thread) or an act of the test, and names what every file holds afterwards:
// E its encrypted form, O its original, - nothing, ' ' not looked at (a folder, a locked file);
// "/N": N parked originals recorded. The agent names a call's files secret with a password (s), or
// the paths its request named (r: a source read cut short would be a path the agent does not
// know), or file 1 (i: inside the folder that is file 0, a name ending in a backslash), forbids
// them (f) or names none (n).
// Files: names in the scratch folder; "%x": in the temporary folder; "long": a path of 300
// characters; "vol": on another volume. Wine's methods copy and move nothing (E_NOTIMPL), so every
// executed operation is one that failed.
struct Step {
  char op;             // 'A', 'B', or 'T' for the test
  char call;           // c CopyItems, m MoveItems, C CopyItem, M MoveItem, p PerformOperations,
                       // r Release (the last reference); the test's acts: l lock file 1 until after
                       // the next call, h hold file 0 open until after the next call, x carry file 0
                       // to dst as an engine would (under its own name), d delete file 0's parked
                       // original, t throw in the next replacement, s leave stale ".tmp" names,
                       // 0 secret check off, q a process of the other bitness queues a copy of
                       // file 0 and waits, w it runs it and ends
  const char* files;   // the files a call names, as indices
  char answer;
  HRESULT result;
  const char* after;
};
struct SwapRow {
  const char* name;
  std::vector<std::wstring> files;
  std::vector<Step> steps;
};
const SwapRow kSwapRows[] = {
    {"one secret source", {L"secret.doc"}, {{'A', 'c', "0", 's', P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"one name in two folders", {L"x\\same.doc", L"y\\same.doc"}, {{'A', 'c', "01", 's', P, "EE/2"}, {'A', 'p', "", 0, P, "OO/0"}}},
    {"one source queued twice by one operation", {L"twice.doc"},
     {{'A', 'c', "0", 's', P, "E/1"}, {'A', 'c', "0", 's', P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"a source in the temporary folder", {L"%in-temp.doc"}, {{'A', 'c', "0", 's', P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"a source path of 300 characters", {L"long"}, {{'A', 'c', "0", 'r', P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"a source on another volume", {L"vol"}, {{'A', 'c', "0", 's', P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"left-over .tmp names: a read-only file, a folder", {L"ro.doc", L"dir.doc"},
     {{'T', 's', "", 0, P, "OO/0"}, {'A', 'c', "01", 's', P, "EE/2"}, {'A', 'p', "", 0, P, "OO/0"}}},
    {"an unreadable source refuses, undoing the swap before it", {L"ok.doc", L"locked.doc"},
     {{'T', 'l', "", 0, P, "O /0"}, {'A', 'c', "01", 's', R, "OO/0"}}},
    {"a place held open at the restore waits for the next one", {L"held.doc"},
     {{'A', 'c', "0", 's', P, "E/1"}, {'T', 'h', "", 0, P, "E/1"}, {'A', 'p', "", 0, P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"a refused perform after a forbidden move keeps the originals parked", {L"kept.doc"},
     {{'A', 'c', "0", 's', P, "E/1"}, {'A', 'm', "0", 'f', P, "E/1"}, {'A', 'p', "", 0, R, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"swap A, run B, then A", {L"a.doc", L"b.doc"},
     {{'A', 'c', "0", 's', P, "EO/1"}, {'B', 'c', "1", 's', P, "EE/2"}, {'B', 'p', "", 0, P, "EO/1"}, {'A', 'p', "", 0, P, "OO/0"}}},
    {"forbid A, run B, then A", {L"a.doc", L"b.doc"},
     {{'A', 'c', "0", 'f', P, "OO/0"}, {'B', 'c', "1", 'n', P, "OO/0"}, {'B', 'p', "", 0, P, "OO/0"}, {'A', 'p', "", 0, R, "OO/0"}}},
    {"one source queued by two operations and a process of the other bitness stays swapped until the last has run", {L"shared.doc"},
     {{'A', 'c', "0", 's', P, "E/1"}, {'B', 'c', "0", 's', P, "E/1"}, {'T', 'q', "", 0, P, "E/1"}, {'A', 'p', "", 0, P, "E/1"},
      {'B', 'p', "", 0, P, "E/1"}, {'T', 'w', "", 0, P, "O/0"}}},
    {"an operation released without PerformOperations puts its swaps back", {L"released.doc"},
     {{'A', 'c', "0", 's', P, "E/1"}, {'A', 'r', "", 0, P, "O/0"}}},
    {"a secret move that fails gives the source its bytes back", {L"moved.doc"},
     {{'A', 'm', "0", 's', P, "E/1"}, {'A', 'p', "", 0, P, "O/0"}}},
    {"a secret move refused at its second source leaves both as they were", {L"first.doc", L"locked.doc"},
     {{'T', 'l', "", 0, P, "O /0"}, {'A', 'm', "01", 's', R, "OO/0"}}},
    {"a secret move the engine carried out leaves only the encrypted form at the destination", {L"carried.doc"},
     {{'A', 'm', "0", 's', P, "E/1"}, {'T', 'x', "", 0, P, "-/1"}, {'A', 'p', "", 0, P, "-/0"}}},
    {"a secret file inside a folder the engine moved arrives only in encrypted form", {L"box\\", L"box\\inner.doc"},
     {{'A', 'm', "0", 'i', P, " E/1"}, {'T', 'x', "", 0, P, "--/1"}, {'A', 'p', "", 0, P, "--/0"}}},
    {"CopyItem and MoveItem of a secret file", {L"one.doc", L"two.doc"},
     {{'A', 'C', "0", 's', P, "EO/1"}, {'A', 'M', "1", 's', P, "EE/2"}, {'A', 'p', "", 0, P, "OO/0"}}},
    {"a parked original removed behind the library's back is reported and its record kept", {L"gone.doc"},
     {{'A', 'c', "0", 's', P, "E/1"}, {'T', 'd', "", 0, P, "E/1"}, {'A', 'p', "", 0, P, "E/1"}}},
    {"an exception in a replacement refuses while the secret check is on, else lets the real method run", {L"thrown.doc"},
     {{'T', 't', "", 0, P, "O/0"}, {'A', 'c', "0", 's', R, "O/0"}, {'T', '0', "", 0, P, "O/0"}, {'T', 't', "", 0, P, "O/0"},
      {'A', 'c', "0", 's', P, "O/0"}}},
};

const std::string kMissingLine = "[restore_swapped_sources,1300] : [ZELTRAP:KWINDEL] parked original missing ";

TEST_F(ComPath, SwapScenariosLoseNoOriginal) {
  TestDrive volume(DRIVE_FIXED, L"Z:\\dev\\shm\\");
  ASSERT_TRUE(volume.ok());
  const std::wstring dst = folder(L"dst"), long_folder = folder(std::wstring(120, L'd'));
  const std::wstring other_child = build_folder(sizeof(void*) == 8 ? L"KWINDEL_X86_BIN" : L"KWINDEL_X64_BIN") + L"kwtest-child.exe";
  for (const wchar_t* name : {L"x", L"y"}) folder(name);
  for (const SwapRow& row : kSwapRows) {
    SCOPED_TRACE(row.name);
    set_policy(kScreen);
    std::vector<std::wstring> paths;
    std::vector<std::string> originals;
    for (const std::wstring& f : row.files) {
      std::wstring path = f[0] == L'%' ? temp_folder() + f.substr(1) : f == L"vol" ? volume.root() + L"\\vol.doc" : dir.file(f);
      if (f == L"long") path = long_folder + L"\\" + std::wstring(299 - long_folder.size(), L'f');
      const bool is_folder = path.back() == L'\\';
      if (is_folder) path.pop_back();
      paths.push_back(path);
      originals.push_back(is_folder ? "" : "original of " + narrow(f) + std::string(paths.size() * 13, '#'));
      ASSERT_TRUE(is_folder ? CreateDirectoryW(path.c_str(), nullptr) : write_file(path, originals.back())) << narrow(path);
    }
    ASSERT_EQ(paths[0].size() == 300, row.files[0] == L"long");
    const std::wstring arrived = dst + paths[0].substr(paths[0].rfind(L'\\'));  // where 'x' carries file 0
    ComRef<IFileOperation> ops[2];
    OwnedHandle held, other_process, queued(CreateEventW(nullptr, TRUE, FALSE, L"kwtest-queued")),
        perform(CreateEventW(nullptr, TRUE, FALSE, L"kwtest-perform"));  // held: a file open during the next call
    TraceCapture trace;
    for (size_t k = 0; k < row.steps.size(); ++k) {
      const Step& step = row.steps[k];
      SCOPED_TRACE("step " + std::to_string(k));
      if (step.op == 'T') {
        if (step.call == 'l') held.reset(CreateFileW(paths[1].c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        if (step.call == 'h')
          held.reset(CreateFileW(paths[0].c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        if (step.call == 'x') EXPECT_TRUE(MoveFileW(paths[0].c_str(), arrived.c_str()));
        if (step.call == 'd') EXPECT_TRUE(DeleteFileW(parked_records().at(0).second.c_str()));
        if (step.call == 't') SetEnvironmentVariableW(L"KWINDEL_TEST_THROW", L"CopyItems_new");
        if (step.call == '0') set_policy(kCopyAudit);
        if (step.call == 'q') {
          TestAgent agent(all_secret());
          other_process.reset(start_process(other_child, L"copy screen wait \"" + dst + L"\" \"" + paths[0] + L"\"", nullptr));
          ASSERT_TRUE(agent.ok() && other_process.ok());
          ASSERT_EQ(WaitForSingleObject(queued.get(), 30000), WAIT_OBJECT_0);
        }
        if (step.call == 'w') {
          SetEvent(perform.get());
          ASSERT_EQ(WaitForSingleObject(other_process.get(), 30000), WAIT_OBJECT_0);
        }
        if (step.call == 's') {
          ASSERT_TRUE(write_file(paths[0] + L".tmp", "stale"));
          SetFileAttributesW((paths[0] + L".tmp").c_str(), FILE_ATTRIBUTE_READONLY);
          CreateDirectoryW((paths[1] + L".tmp").c_str(), nullptr);
        }
      } else {
        ComRef<IFileOperation>& op = ops[step.op - 'A'];
        if (!op.ok()) ASSERT_TRUE(new_file_operation(&op));
        std::vector<std::wstring> sources;
        std::vector<std::string> named;
        for (const char* i = step.files; *i != '\0'; ++i) sources.push_back(paths[*i - '0']), named.push_back(narrow(sources.back()));
        if (step.answer == 'i') named = {narrow(paths[1])};
        if (step.answer == 'n') named.clear();
        TestAgent agent(step.answer == 'r' ? all_secret()
                                           : AgentScript{true, {secret_answer(named, "pw", step.answer == 'f' ? 0 : 1)}});
        ASSERT_TRUE(agent.ok());
        HRESULT result = step.result;  // a release returns nothing
        auto call = [&] { step.call == 'r' ? op.reset() : void(result = call_method(op.get(), step.call, sources, dst)); };
        if (step.op == 'B') std::thread([&] { CoInitializeEx(nullptr, COINIT_MULTITHREADED); call(); CoUninitialize(); }).join();
        else call();
        EXPECT_EQ(result, step.result);
        held.reset();
        SetEnvironmentVariableW(L"KWINDEL_TEST_THROW", nullptr);
      }
      const std::string after = step.after;
      for (size_t i = 0; i < paths.size(); ++i) {
        if (after[i] == 'E') EXPECT_TRUE(decrypts_to(paths[i], "pw", originals[i])) << i;
        if (after[i] == 'O') EXPECT_EQ(content(paths[i]), originals[i]) << i;
        if (after[i] == '-') EXPECT_FALSE(file_exists(paths[i])) << i;
      }
      EXPECT_EQ(parked_records().size(), std::stoul(after.substr(after.find('/') + 1)));
    }
    const bool carried = row.steps.size() > 1 && row.steps[1].call == 'x', missing = row.steps.size() > 1 && row.steps[1].call == 'd';
    for (size_t i = 0; carried && i < paths.size(); ++i) {
      if (!originals[i].empty()) EXPECT_TRUE(decrypts_to(arrived + paths[i].substr(paths[0].size()), "pw", originals[i])) << i;
    }
    if (missing) EXPECT_EQ(trace.lines(kMissingLine.substr(0, 40)), std::vector<std::string>{(kMissingLine + narrow(paths[0])).substr(0, 255)});
    if (row.steps[0].call == 's') EXPECT_EQ(content(paths[0] + L".tmp"), "stale");
    for (const auto& record : parked_records())  // the records kept: under either name
      for (const wchar_t* kind : {L".rec", L".missing"}) DeleteFileW((record.second.substr(0, record.second.size() - 5) + kind).c_str());
    for (const std::wstring& p : paths) remove_tree(p), remove_tree(p + L".tmp");
    remove_tree(arrived);
  }
  // The parking folder lets only the user and the system in.
  const std::wstring own = parking_folder().substr(0, parking_folder().size() - 8);  // the library's own folder
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  wchar_t* sddl = nullptr;
  ASSERT_EQ(GetNamedSecurityInfoW(own.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, nullptr, nullptr, &descriptor), 0u);
  ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &sddl, nullptr));
  std::string entries = narrow(sddl);
  if (entries.compare(0, 3, "D:P") == 0) entries.erase(2, 1);  // Wine 8 does not keep the protected flag
  EXPECT_EQ(entries, "D:(A;OICI;FA;;;SY)(A;OICI;FA;;;" + user_sid() + ")");
  LocalFree(sddl);
  LocalFree(descriptor);
}

// The one decision of the copy and move interceptors, as a table: policy, classes of the first
// source and the destination, the agent's reply and answer -> what the interceptor does. Answers
// (secret files, encrypted files, password, action): none named, an encrypted file only, a secret
// file forbidden (action 0) despite its password, a secret file without a password.
const SecretAuditResult kNoFile = {{}, {}, "", 1}, kEncryptedOnly = {{}, {"C:\\e.txt"}, "", 1},
                        kSecretAction0 = {{"C:\\s.txt"}, {}, "pw", 0}, kSecretNoPassword = {{"C:\\s.txt"}, {}, "", 1};

struct Row {
  uint32_t secret_audit, mask;
  DestinationClass source, destination;
  AgentReply reply;
  SecretAuditResult answer;
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
    const Verdict got = secret_verdict(policy, {row.source, row.destination}, row.reply, row.answer);
    EXPECT_EQ(static_cast<int>(row.expected), static_cast<int>(got)) << "row " << &row - kRows;
  }
}

}  // namespace
