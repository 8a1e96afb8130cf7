// Shell item sets for driving IFileOperation the way Explorer does: data objects from the
// shell's own folders, ID-list items, destination folder items.
#pragma once
#include <windows.h>
#include <shobjidl.h>

#include <string>
#include <vector>

namespace kwtest {

// Owns one reference of a COM interface.
template <typename T>
class Com {
 public:
  Com() = default;
  ~Com() { reset(); }
  Com(const Com&) = delete;
  Com& operator=(const Com&) = delete;
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T** put() { reset(); return &p_; }
  void** put_void() { return reinterpret_cast<void**>(put()); }
  void reset() { if (p_ != nullptr) { p_->Release(); p_ = nullptr; } }
 private:
  T* p_ = nullptr;
};

// A data object offering CF_HDROP for files that all lie in one folder, made by the folder's
// IShellFolder::GetUIObjectOf as Explorer's selection is.
bool data_object_for(const std::vector<std::wstring>& paths, Com<IDataObject>* out);
// A single shell item (its IPersistIDList form is the ID-list item set).
bool shell_item_for(const std::wstring& path, Com<IShellItem>* out);
// A new shell file-operation object; its methods are the patched ones when the DLL is loaded.
bool new_file_operation(Com<IFileOperation>* out);

}  // namespace kwtest
