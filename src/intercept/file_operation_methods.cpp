#include "intercept/file_operation_methods.h"

#include <shellapi.h>
#include <shlobj.h>

#include <cstdio>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/caller_context.h"
#include "host/debug_trace.h"
#include "host/owners.h"
#include "host/policy_block.h"
#include "host/system_version.h"
#include "intercept/copy_screening.h"
#include "protect/parked_originals.h"

CopyItemsFn g_real_copy_items = nullptr;
MoveItemsFn g_real_move_items = nullptr;
PerformOperationsFn g_real_perform_operations = nullptr;

namespace {

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);  // the bare refusal value

// Cleared by a forbidding verdict so that the next PerformOperations refuses once.
volatile bool g_perform_operations_allowed = false;

std::wstring to_wide(const std::string& utf8) { return utf8_to_wide(utf8); }

// The CF_HDROP drop list of a data object into `out`; returns the count the list reports.
uint32_t paths_from_data_object(IDataObject* data_object, std::vector<std::string>& out) {
  FORMATETC format = {CF_HDROP, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
  STGMEDIUM medium = {};
  medium.tymed = TYMED_HGLOBAL;
  if (data_object == nullptr || FAILED(data_object->GetData(&format, &medium))) {
    DebugTrace("get_filepaths_from_comobject", 1061, "[ZELTRAP:KWINDEL]data_object->GetData(&fmt, &stg) error=%d",
               static_cast<int>(GetLastError()));
    return 0;
  }
  struct MediumRelease {  // the medium is a structure, not a handle: released in place
    STGMEDIUM* m;
    ~MediumRelease() { ReleaseStgMedium(m); }
  } release{&medium};
  HDROP drop = static_cast<HDROP>(GlobalLock(medium.hGlobal));
  if (drop == nullptr) {
    DebugTrace("get_filepaths_from_comobject", 1068, "[ZELTRAP:KWINDEL](HDROP)GlobalLock(stg.hGlobal); error=%d",
               static_cast<int>(GetLastError()));
    return 0;
  }
  struct Unlock {
    HGLOBAL g;
    ~Unlock() { GlobalUnlock(g); }
  } unlock{medium.hGlobal};
  const UINT count = DragQueryFileW(drop, 0xFFFFFFFF, nullptr, 0);
  if (count == 0) {
    DebugTrace("get_filepaths_from_comobject", 1075,
               "[ZELTRAP:KWINDEL] DragQueryFile(hDrop, 0xFFFFFFFF, NULL, 0); error=%d", static_cast<int>(GetLastError()));
    return 0;
  }
  for (UINT i = 0; i < count; ++i) {
    wchar_t name[MAX_PATH] = {};
    if (DragQueryFileW(drop, i, name, MAX_PATH) != 0) out.push_back(wide_to_utf8(name));
  }
  return count;  // what the list reports, even when a name could not be read
}

// Swaps each secret source for its encrypted form (its original parked until the restore). False
// when one cannot be swapped: this call's swaps are then undone and the copy must be refused.
bool swap_sources(const SecretAuditResult& result) {
  std::vector<std::string> swapped;
  for (const std::string& source : result.secret_files) {
    const SwapOutcome outcome = swap_source(source, result.encrypted_pwd);
    if (outcome == SwapOutcome::kSwapped) swapped.push_back(source);
    if (outcome == SwapOutcome::kFailed) {
      restore_sources(swapped);
      return false;
    }
  }
  return true;
}

// Encrypts each secret source in place for good (a move carries the encrypted form away). False
// when one cannot be encrypted whole (it is left untouched): the move must be refused.
bool transform_sources_in_place(const SecretAuditResult& result) {
  for (const std::string& source : result.secret_files) {
    if (!encrypt_in_place(source, result.encrypted_pwd)) return false;
  }
  return true;
}

// The destination folder's file-system path, as the shell gives it (null when it gives none).
void destination_name(IShellItem* destination, CoTaskMem<wchar_t>& name) {
  if (destination != nullptr) destination->GetDisplayName(SIGDN_FILESYSPATH, name.put());
}

// The trace lines of the agent's reply to a copy's secret check.
void trace_reply(bool answered, const SecretAuditResult& result) {
  if (!answered) {
    DebugTrace("CopyItems_new", 1232,
               "[ZELTRAP:KWINDEL] not secret!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!");
    return;
  }
  DebugTrace("CopyItems_new", 1182, "[ZELTRAP:KWINDEL] secret!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!");
  char sizes[128] = {};  // written without the trace prefix
  std::snprintf(sizes, sizeof sizes, "g_secret_audit=%d,g_encrypt_audit=%d, secret file size:%d, encrypt file size:%d",
                static_cast<int>(g_policy_block.g_secret_audit), static_cast<int>(g_policy_block.g_encrypt_audit),
                static_cast<int>(result.secret_files.size()), static_cast<int>(result.encrypted_files.size()));
  OutputDebugStringA(sizes);
}

}  // namespace

uint32_t get_filepaths_from_comobject(IUnknown* items, std::vector<std::string>& out) {
  if (items == nullptr) return 0;
  ComRef<IDataObject> data_object;
  if (SUCCEEDED(items->QueryInterface(IID_IDataObject, data_object.put_void()))) {
    return paths_from_data_object(data_object.get(), out);
  }
  ComRef<IPersistIDList> persist;
  const HRESULT hr = items->QueryInterface(IID_IPersistIDList, persist.put_void());
  DebugTrace("get_filepaths_from_comobject", 1015,
             "[ZELTRAP:KWINDEL] iUnknown->QueryInterface(IID_IDataObject, (void **)&data_object); hr=%d, error=%d",
             static_cast<int>(hr), static_cast<int>(GetLastError()));
  if (FAILED(hr)) {
    DebugTrace("get_filepaths_from_comobject", 1018, "[ZELTRAP:KWINDEL] SHGetIDListFromObject(iUnknown,&pv);hr=%d, error=%d",
               static_cast<int>(hr), static_cast<int>(GetLastError()));
    return 0;
  }
  if (!is_vista_or_later()) {
    DebugTrace("get_filepaths_from_comobject", 1052, "[ZELTRAP:KWINDEL] os is before vista");
    return paths_from_data_object(nullptr, out);  // no data object: the GetData failure path
  }
  HMODULE shell32 = LoadLibraryW(L"C:\\Windows\\System32\\shell32.dll");
  if (shell32 == nullptr) {
    DebugTrace("get_filepaths_from_comobject", 1028, "[ZELTRAP:KWINDEL] load shell32.dll failed");
    return 0;
  }
  using CreateArrayFn = HRESULT(WINAPI*)(UINT, PCIDLIST_ABSOLUTE_ARRAY, IShellItemArray**);
  auto create_array = reinterpret_cast<CreateArrayFn>(
      reinterpret_cast<void*>(GetProcAddress(shell32, "SHCreateShellItemArrayFromIDLists")));
  if (create_array == nullptr) {
    DebugTrace("get_filepaths_from_comobject", 1034,
               "[ZELTRAP:KWINDEL] shell32.dll without function SHCreateShellItemArrayFromIDLists");
    FreeLibrary(shell32);
    return 0;
  }
  // shell32 stays loaded: the item array's code lives there.
  CoTaskMem<ITEMIDLIST> id_list;
  persist->GetIDList(id_list.put());
  ComRef<IShellItemArray> item_array;
  PCIDLIST_ABSOLUTE list = id_list.get();
  const HRESULT created = create_array(1, &list, item_array.put());
  if (FAILED(created) || !item_array.ok()) {
    DebugTrace("get_filepaths_from_comobject", 1042,
               "[ZELTRAP:KWINDEL] SHCreateItemFromIDList (pv,IID_IDataObject, (void **)&data_object);;hr=%d, error=%d",
               static_cast<int>(created), static_cast<int>(GetLastError()));
    return 0;
  }
  ComRef<IDataObject> bound;
  if (FAILED(item_array->BindToHandler(nullptr, BHID_DataObject, IID_IDataObject, bound.put_void()))) {
    // Some shells give no data object for an item array; the single item then still has one.
    ComRef<IShellItem> item;
    if (SUCCEEDED(item_array->GetItemAt(0, item.put())) && item.ok()) {
      item->BindToHandler(nullptr, BHID_DataObject, IID_IDataObject, bound.put_void());
    }
  }
  return paths_from_data_object(bound.get(), out);  // no data object: the GetData failure path
}

HRESULT STDMETHODCALLTYPE CopyItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination) {
  DebugTrace("CopyItems_new", 1150, "[ZELTRAP:KWINDEL] CopyItems_new g_secretcopy_audit=%d",
             static_cast<int>(g_policy_block.g_secret_audit));
  CoTaskMem<wchar_t> name;
  destination_name(destination, name);
  const std::string destination_path = wide_to_utf8(name.get());
  std::vector<std::string> sources;
  if (get_filepaths_from_comobject(items, sources) == 0) {
    DebugTrace("CopyItems_new", 1162, "[ZELTRAP:KWINDEL] get file paths error");
    return g_real_copy_items(self, items, destination);
  }
  if (sources.empty()) return g_real_copy_items(self, items, destination);  // no name could be read
  SecretAuditResult result;
  const ScreenedClasses classes = classify_for_secret_check(g_policy_block, to_wide(sources.front()).c_str(), name.get());
  Verdict verdict = secret_verdict(g_policy_block, classes, AgentReply::kNotAsked, result);
  if (verdict == Verdict::kAskAgent) {
    DebugTrace("CopyItems_new", 1179, "[ZELTRAP:KWINDEL] search %s", sources.front().c_str());
    const bool answered = RequestSecretAudit(sources, {destination_path}, result);
    trace_reply(answered, result);
    verdict = secret_verdict(g_policy_block, classes, answered ? AgentReply::kAnswered : AgentReply::kNotSecret, result);
  }
  if (verdict == Verdict::kRefuse) return kRefused;
  if (verdict == Verdict::kForbid) {
    g_perform_operations_allowed = false;  // queued, but the next PerformOperations refuses
    return g_real_copy_items(self, items, destination);
  }
  // A secret file with a password never reaches the destination in plaintext.
  if (verdict == Verdict::kProtect && !swap_sources(result)) return kRefused;
  audit_copy(g_policy_block, kCopyAuditCopy, destination_path, sources);
  return g_real_copy_items(self, items, destination);
}

HRESULT STDMETHODCALLTYPE MoveItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination) {
  DebugTrace("MoveItems_new", 1325, "[ZELTRAP:KWINDEL] MoveItems_new");
  CoTaskMem<wchar_t> name;
  destination_name(destination, name);
  const std::string destination_path = wide_to_utf8(name.get());
  std::vector<std::string> sources;
  if (get_filepaths_from_comobject(items, sources) == 0 || sources.empty()) {
    return g_real_move_items(self, items, destination);
  }
  SecretAuditResult result;
  const ScreenedClasses classes = classify_for_secret_check(g_policy_block, to_wide(sources.front()).c_str(), name.get());
  Verdict verdict = secret_verdict(g_policy_block, classes, AgentReply::kNotAsked, result);
  if (verdict == Verdict::kAskAgent) {
    const bool answered = RequestSecretAudit(sources, {destination_path}, result);
    verdict = secret_verdict(g_policy_block, classes, answered ? AgentReply::kAnswered : AgentReply::kNotSecret, result);
  }
  if (verdict == Verdict::kRefuse) return kRefused;
  if (verdict == Verdict::kForbid) {
    // Deliberate: the forbidden move is queued as a copy, which the next PerformOperations refuses.
    g_perform_operations_allowed = false;
    return g_real_copy_items(self, items, destination);
  }
  if (verdict == Verdict::kProtect && !transform_sources_in_place(result)) return kRefused;
  audit_copy(g_policy_block, kCopyAuditMove, destination_path, sources);
  return g_real_move_items(self, items, destination);
}

HRESULT STDMETHODCALLTYPE PerformOperations_new(IFileOperation* self) {
  if (!g_perform_operations_allowed) {
    g_perform_operations_allowed = true;  // one refusal per forbidding verdict
    return kRefused;
  }
  DebugTrace("PerformOperations_new", 1290, "[ZELTRAP:KWINDEL] PerformOperations_new");
  const HRESULT result = g_real_perform_operations(self);
  restore_swapped_sources();  // also when the real method failed or was cancelled
  return result;
}

void allow_perform_operations() { g_perform_operations_allowed = true; }
