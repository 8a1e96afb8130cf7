#include "shell_items.h"

#include <shlobj.h>

namespace kwtest {

namespace {
struct IdList {
  PIDLIST_ABSOLUTE p = nullptr;
  ~IdList() { if (p != nullptr) CoTaskMemFree(p); }
};
}  // namespace

bool data_object_for(const std::vector<std::wstring>& paths, Com<IDataObject>* out) {
  if (paths.empty()) return false;
  const std::wstring folder = paths.front().substr(0, paths.front().rfind(L'\\'));
  IdList folder_id;
  if (FAILED(SHParseDisplayName(folder.c_str(), nullptr, &folder_id.p, 0, nullptr))) return false;
  Com<IShellFolder> desktop, shell_folder;
  if (FAILED(SHGetDesktopFolder(desktop.put()))) return false;
  if (FAILED(desktop->BindToObject(folder_id.p, nullptr, IID_IShellFolder, shell_folder.put_void()))) return false;
  std::vector<PITEMID_CHILD> children;
  bool ok = true;
  for (const std::wstring& path : paths) {
    std::wstring name = path.substr(path.rfind(L'\\') + 1);
    PIDLIST_RELATIVE child = nullptr;
    if (FAILED(shell_folder->ParseDisplayName(nullptr, nullptr, &name[0], nullptr, &child, nullptr))) { ok = false; break; }
    children.push_back(reinterpret_cast<PITEMID_CHILD>(child));
  }
  if (ok) {
    ok = SUCCEEDED(shell_folder->GetUIObjectOf(nullptr, static_cast<UINT>(children.size()),
                                               const_cast<PCUITEMID_CHILD_ARRAY>(children.data()),
                                               IID_IDataObject, nullptr, out->put_void()));
  }
  for (PITEMID_CHILD c : children) CoTaskMemFree(c);
  return ok;
}

bool shell_item_for(const std::wstring& path, Com<IShellItem>* out) {
  return SUCCEEDED(SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IShellItem, out->put_void()));
}

bool new_file_operation(Com<IFileOperation>* out) {
  return SUCCEEDED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, out->put_void()));
}

}  // namespace kwtest
