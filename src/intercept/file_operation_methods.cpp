#include "intercept/file_operation_methods.h"

#include <shellapi.h>
#include <shlobj.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <set>

#include "agent/copy_audit.h"
#include "agent/secret_audit.h"
#include "host/debug_trace.h"
#include "host/owners.h"
#include "host/policy_block.h"
#include "host/system_version.h"
#include "host/utf_conversion.h"
#include "intercept/copy_screening.h"
#include "intercept/replacement_boundary.h"
#include "protect/parked_originals.h"

CopyItemsFn g_real_copy_items = nullptr;
MoveItemsFn g_real_move_items = nullptr;
CopyItemFn g_real_copy_item = nullptr;
MoveItemFn g_real_move_item = nullptr;
PerformOperationsFn g_real_perform_operations = nullptr;
ReleaseFn g_real_release = nullptr;

namespace {

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);  // the bare refusal value
constexpr UINT kLongestPath = 32767;                            // UTF-16 units, without the NUL

// The operations whose next PerformOperations refuses once (a forbidding verdict queued in them).
std::mutex g_refusals_lock;
std::set<const void*> g_refuse_next;

std::atomic<size_t> g_armed{0};  // g_refuse_next.size(), read without the lock by every Release

void arm_refusal(const void* op) {
  std::lock_guard<std::mutex> lock(g_refusals_lock);
  g_refuse_next.insert(op);
  g_armed = g_refuse_next.size();
}
bool take_refusal(const void* op) {  // true once after arm_refusal
  if (g_armed == 0) return false;
  std::lock_guard<std::mutex> lock(g_refusals_lock);
  const bool armed = g_refuse_next.erase(op) != 0;
  g_armed = g_refuse_next.size();
  return armed;
}
bool refusal_armed(const void* op) {
  if (g_armed == 0) return false;
  std::lock_guard<std::mutex> lock(g_refusals_lock);
  return g_refuse_next.count(op) != 0;
}

// The trace lines of one replacement (0: the line is not written).
struct Traces {
  const char* function;
  int no_paths, search, secret, not_secret;
};
const Traces kCopyItemsTraces = {"CopyItems_new", 1162, 1179, 1182, 1232};
const Traces kCopyItemTraces = {"CopyItem_new", 1242, 1244, 1246, 1248};
const Traces kMoveTraces = {"MoveItems_new", 0, 0, 0, 0};

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
    // Each name read whole, up to the longest path the system allows.
    const UINT length = DragQueryFileW(drop, i, nullptr, 0);
    if (length == 0 || length > kLongestPath) continue;
    std::wstring name(length + 1, L'\0');
    if (DragQueryFileW(drop, i, &name[0], length + 1) == length) out.push_back(wide_to_utf8(name.c_str()));
  }
  return count;  // what the list reports, even when a name could not be read
}

// The trace lines of the agent's reply to a copy's secret check.
void trace_reply(const Traces& traces, bool answered, const SecretAuditResult& result) {
  if (traces.secret == 0) return;
  if (!answered) {
    DebugTrace(traces.function, traces.not_secret,
               "[ZELTRAP:KWINDEL] not secret!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!");
    return;
  }
  DebugTrace(traces.function, traces.secret, "[ZELTRAP:KWINDEL] secret!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!");
  char sizes[128] = {};  // written without the trace prefix
  std::snprintf(sizes, sizeof sizes, "g_secret_audit=%d,g_encrypt_audit=%d, secret file size:%d, encrypt file size:%d",
                static_cast<int>(g_policy_block.g_secret_audit), static_cast<int>(g_policy_block.g_encrypt_audit),
                static_cast<int>(result.secret_files.size()), static_cast<int>(result.encrypted_files.size()));
  OutputDebugStringA(sizes);
}

// The destination folder's file-system path, as the shell gives it (null when it gives none).
void destination_name(IShellItem* destination, CoTaskMem<wchar_t>& name) {
  if (destination != nullptr) destination->GetDisplayName(SIGDN_FILESYSPATH, name.put());
}

// Swaps each secret source for its encrypted form for operation `op` (its original parked until
// the operation has run); a move's source is expected where the move carries it. False when one
// cannot be swapped: this call's swaps are then undone and the call must be refused.
bool swap_sources(IFileOperation* op, const SecretAuditResult& result, bool move, const std::vector<std::string>& sources,
                  const std::string& destination, const wchar_t* new_name) {
  std::vector<std::string> swapped;
  std::vector<std::wstring> moved;
  for (const std::string& source : sources) moved.push_back(utf8_to_wide(source));
  const std::wstring folder = utf8_to_wide(destination);
  for (const std::string& source : result.secret_files) {
    const std::wstring moved_to = move ? arrival_of(utf8_to_wide(source), moved, folder, new_name) : std::wstring();
    const SwapOutcome outcome = swap_source(op, source, result.encrypted_pwd, moved_to);
    if (outcome == SwapOutcome::kSwapped || outcome == SwapOutcome::kHeld) swapped.push_back(source);
    if (outcome == SwapOutcome::kFailed) {
      restore_sources(op, swapped);
      return false;
    }
  }
  return true;
}

enum class Outcome {
  kPassOn,       // the real method runs
  kRefuse,       // 0xFFFFFFFF, the real method is not called
  kQueueAsCopy,  // a forbidden move: queued through the real CopyItems/CopyItem, refused at perform
};

// One queued copy or move, as the screening sees it.
struct Queued {
  IFileOperation* op;
  bool move;
  const Traces& traces;
  uint32_t reported;                 // the count the item set reports
  std::vector<std::string> sources;  // the paths that could be read
  const wchar_t* destination_name;   // as the shell gives it (may be null)
  const wchar_t* new_name;           // a single item's new name (may be null)
};

// The screening of CopyItems, MoveItems, CopyItem and MoveItem: the agent's verdict, the swap of
// secret sources and the audit record.
Outcome screen(const Queued& q) {
  const std::string destination = wide_to_utf8(q.destination_name);
  if (q.reported == 0 || q.sources.size() < q.reported) {
    if (q.reported == 0 && q.traces.no_paths != 0) {
      DebugTrace(q.traces.function, q.traces.no_paths, "[ZELTRAP:KWINDEL] get file paths error");
    }
    // A source that cannot be read cannot be screened: the secret check fails closed.
    const bool watched = secret_check_needed() &&
                         destination_class_watched(g_policy_block.g_audit_dest_mask,
                                                   ClassifyDestination(q.destination_name != nullptr ? q.destination_name : L""));
    if (watched) return Outcome::kRefuse;
    if (q.sources.empty()) return Outcome::kPassOn;
  }
  SecretAuditResult result;
  const ScreenedClasses classes =
      classify_for_secret_check(g_policy_block, utf8_to_wide(q.sources.front()).c_str(), q.destination_name);
  Verdict verdict = secret_verdict(g_policy_block, classes, AgentReply::kNotAsked, result);
  if (verdict == Verdict::kAskAgent) {
    if (q.traces.search != 0) {
      DebugTrace(q.traces.function, q.traces.search, "[ZELTRAP:KWINDEL] search %s", q.sources.front().c_str());
    }
    const bool answered = RequestSecretAudit(q.sources, {destination}, result);
    trace_reply(q.traces, answered, result);
    verdict = secret_verdict(g_policy_block, classes, answered ? AgentReply::kAnswered : AgentReply::kNotSecret, result);
  }
  if (verdict == Verdict::kRefuse) return Outcome::kRefuse;
  if (verdict == Verdict::kForbid) {
    arm_refusal(q.op);  // queued, but this operation's next PerformOperations refuses
    return q.move ? Outcome::kQueueAsCopy : Outcome::kPassOn;
  }
  // A secret file with a password never reaches the destination in plaintext.
  if (verdict == Verdict::kProtect && !swap_sources(q.op, result, q.move, q.sources, destination, q.new_name)) return Outcome::kRefuse;
  audit_copy(g_policy_block, q.move ? kCopyAuditMove : kCopyAuditCopy, destination, q.sources);
  return Outcome::kPassOn;
}

// The screening of an item set's call, with everything caught at the replacement's edge.
Outcome screen_items(const char* replacement, IFileOperation* self, bool move, const Traces& traces, IUnknown* items,
                     const wchar_t* destination) {
  return at_boundary(replacement, Outcome::kPassOn, Outcome::kRefuse, [&] {
    Queued q{self, move, traces, 0, {}, destination, nullptr};
    q.reported = get_filepaths_from_comobject(items, q.sources);
    return screen(q);
  });
}

// The same for a single item (CopyItem, MoveItem): its path is its display name, of any length.
Outcome screen_item(const char* replacement, IFileOperation* self, bool move, const Traces& traces, IShellItem* item,
                    const wchar_t* destination, const wchar_t* new_name) {
  return at_boundary(replacement, Outcome::kPassOn, Outcome::kRefuse, [&] {
    Queued q{self, move, traces, 0, {}, destination, new_name};
    CoTaskMem<wchar_t> path;
    if (item != nullptr && SUCCEEDED(item->GetDisplayName(SIGDN_FILESYSPATH, path.put())) && path.get() != nullptr) {
      q.sources.push_back(wide_to_utf8(path.get()));
      q.reported = 1;
    }
    return screen(q);
  });
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
  const LastError caller;
  DebugTrace("CopyItems_new", 1150, "[ZELTRAP:KWINDEL] CopyItems_new g_secretcopy_audit=%d",
             static_cast<int>(g_policy_block.g_secret_audit));
  CoTaskMem<wchar_t> name;
  destination_name(destination, name);
  const Outcome outcome = screen_items("CopyItems_new", self, false, kCopyItemsTraces, items, name.get());
  caller.put_back();
  if (outcome == Outcome::kRefuse) return kRefused;
  return g_real_copy_items(self, items, destination);
}

HRESULT STDMETHODCALLTYPE MoveItems_new(IFileOperation* self, IUnknown* items, IShellItem* destination) {
  const LastError caller;
  DebugTrace("MoveItems_new", 1325, "[ZELTRAP:KWINDEL] MoveItems_new");
  CoTaskMem<wchar_t> name;
  destination_name(destination, name);
  const Outcome outcome = screen_items("MoveItems_new", self, true, kMoveTraces, items, name.get());
  caller.put_back();
  switch (outcome) {
    case Outcome::kRefuse:
      return kRefused;
    case Outcome::kQueueAsCopy:
      // Deliberate: the forbidden move is queued as a copy, which the next PerformOperations refuses.
      return g_real_copy_items(self, items, destination);
    case Outcome::kPassOn:
      break;
  }
  return g_real_move_items(self, items, destination);
}

HRESULT STDMETHODCALLTYPE CopyItem_new(IFileOperation* self, IShellItem* item, IShellItem* destination,
                                       LPCWSTR new_name, IFileOperationProgressSink* sink) {
  const LastError caller;
  DebugTrace("CopyItem_new", 1240, "[ZELTRAP:KWINDEL] CopyItem_new g_secretcopy_audit=%d",
             static_cast<int>(g_policy_block.g_secret_audit));
  CoTaskMem<wchar_t> name;
  destination_name(destination, name);
  const Outcome outcome = screen_item("CopyItem_new", self, false, kCopyItemTraces, item, name.get(), new_name);
  caller.put_back();
  if (outcome == Outcome::kRefuse) return kRefused;
  return g_real_copy_item(self, item, destination, new_name, sink);
}

HRESULT STDMETHODCALLTYPE MoveItem_new(IFileOperation* self, IShellItem* item, IShellItem* destination,
                                       LPCWSTR new_name, IFileOperationProgressSink* sink) {
  const LastError caller;
  DebugTrace("MoveItem_new", 1335, "[ZELTRAP:KWINDEL] MoveItem_new");
  CoTaskMem<wchar_t> name;
  destination_name(destination, name);
  const Outcome outcome = screen_item("MoveItem_new", self, true, kMoveTraces, item, name.get(), new_name);
  caller.put_back();
  switch (outcome) {
    case Outcome::kRefuse:
      return kRefused;
    case Outcome::kQueueAsCopy:
      return g_real_copy_item(self, item, destination, new_name, sink);
    case Outcome::kPassOn:
      break;
  }
  return g_real_move_item(self, item, destination, new_name, sink);
}

HRESULT STDMETHODCALLTYPE PerformOperations_new(IFileOperation* self) {
  const LastError caller;
  const bool refuse = at_boundary("PerformOperations_new", false, true, [&] { return take_refusal(self); });
  if (!refuse) DebugTrace("PerformOperations_new", 1290, "[ZELTRAP:KWINDEL] PerformOperations_new");
  caller.put_back();
  if (refuse) return kRefused;  // this operation's sources stay swapped until it runs or goes
  const HRESULT result = g_real_perform_operations(self);
  const LastError real;
  // Also when the real method failed or was cancelled: a source still in its place gets its
  // original back, one the engine carried away leaves its encrypted form at the destination.
  at_boundary("PerformOperations_new", 0, 0, [&] { return finish_operation(self), 0; });
  real.put_back();
  return result;
}

ULONG STDMETHODCALLTYPE Release_new(IFileOperation* self) {
  const LastError caller;
  at_boundary("Release_new", 0, 0, [&] {
    if (!operation_holds_swaps(self) && !refusal_armed(self)) return 0;
    // Only the last reference settles the operation: counted by taking and dropping one.
    self->AddRef();
    if (g_real_release(self) != 1) return 0;
    finish_operation(self);  // queued but never performed: its sources get their originals back
    take_refusal(self);
    return 0;
  });
  caller.put_back();
  return g_real_release(self);
}
