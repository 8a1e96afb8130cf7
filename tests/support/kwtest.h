// The harness shared by the test programs: paths, files, scratch folders and removable drives,
// helper processes, trace lines (this process's and every process's), the DLL's shared block.
#pragma once
#include "host/owners.h"  // winsock2.h before windows.h

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kwtest {

std::wstring exe_dir();                        // folder of the running program, ends with '\'
std::wstring dll_path();                       // exe_dir() + kwindel-x64.dll
std::wstring child_path();                     // exe_dir() + kwtest-child.exe
std::string narrow(const std::wstring& wide);  // UTF-8
std::wstring widen(const std::string& utf8);

// An export of `module` as a function pointer of type Fn; null when absent.
template <typename Fn> Fn fn(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// The policy words and the module and hook handles at the start of the DLL's ".hook" section.
struct SharedBlockView {
  uint32_t encrypt_audit, secret_audit, audit_dest_mask, copy_audit;
  void* module;
  void* hook;
};
const IMAGE_SECTION_HEADER* find_section(HMODULE module, const char* name);  // null when absent
volatile SharedBlockView* shared_block(HMODULE kwindel);
// Where a jump written at `code` leads (E9 rel32 or FF 25 jmp [rip+disp32]); 0 for neither.
uint64_t jump_destination(const uint8_t* code);

// Collects this process's OutputDebugString lines while alive (a vectored handler sees the
// debug-print exception before the system delivers the line).
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;
  std::vector<std::string> lines() const;
  std::vector<std::wstring> wide_lines() const;
  // The lines that start with `prefix`, in order.
  std::vector<std::string> lines_from(const std::string& prefix) const;
  void clear();
 private:
  static LONG CALLBACK handler(EXCEPTION_POINTERS* info);
  void* cookie_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<std::wstring> wide_lines_;
};

// Collects the debug lines of every process of the wineserver (the DBWIN_BUFFER protocol).
class DbwinMonitor {
 public:
  DbwinMonitor();
  ~DbwinMonitor();
  DbwinMonitor(const DbwinMonitor&) = delete;
  DbwinMonitor& operator=(const DbwinMonitor&) = delete;
  bool ok() const { return view_ != nullptr; }
  // Waits up to timeout_ms for a line equal to `text` from any process; true when seen.
  bool wait_for(const std::string& text, DWORD timeout_ms) const;
 private:
  static DWORD WINAPI run(void* self);
  OwnedHandle buffer_ready_, data_ready_, mapping_, thread_;
  void* view_ = nullptr;
  volatile bool stop_ = false;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A helper process run to its end with its standard output captured (killed at the time-out).
struct ChildResult {
  bool started = false, finished = false;
  DWORD exit_code = 0;
  std::string output;
};
ChildResult run_child(const std::wstring& exe, const std::wstring& args, DWORD timeout_ms);

// A helper process that runs while the test does other things; killed at the end of the scope.
class ChildProcess {
 public:
  ChildProcess(const std::wstring& exe, const std::wstring& args);
  ~ChildProcess() { kill(); }
  bool started() const { return process_.ok(); }
  DWORD pid() const { return pid_; }
  // Waits for the end; false at the time-out. exit_code is set when it ended.
  bool wait(DWORD timeout_ms, DWORD* exit_code);
  bool kill();  // terminates it and waits for the end
 private:
  OwnedHandle process_;
  DWORD pid_ = 0;
};

// A fresh folder under %TEMP%, removed with its content at the end of the scope.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::wstring& path() const { return path_; }  // no trailing backslash
  std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }
 private:
  std::wstring path_;
};

// A removable drive defined through Wine's mount manager (what winecfg does) on a fresh folder
// beside the test program, removed again at the end of the scope.
class RemovableDrive {
 public:
  RemovableDrive();
  ~RemovableDrive();
  RemovableDrive(const RemovableDrive&) = delete;
  RemovableDrive& operator=(const RemovableDrive&) = delete;
  bool ok() const { return letter_ != 0; }
  std::wstring root() const { return std::wstring(1, letter_) + L":"; }  // e.g. L"R:"
 private:
  wchar_t letter_ = 0;
  std::wstring folder_;
};

bool write_file(const std::wstring& path, const std::string& bytes);
bool read_file(const std::wstring& path, std::string* bytes);
std::string content(const std::wstring& path);  // a file's bytes, or "<missing>"
bool file_exists(const std::wstring& path);
void remove_tree(const std::wstring& path);

}  // namespace kwtest

// Shell item sets for driving IFileOperation the way Explorer does.
#include <shobjidl.h>
namespace kwtest {
// A data object offering CF_HDROP for files of one folder, from the folder's GetUIObjectOf as
// Explorer's selection is.
bool data_object_for(const std::vector<std::wstring>& paths, ComRef<IDataObject>* out);
bool shell_item_for(const std::wstring& path, ComRef<IShellItem>* out);  // its IPersistIDList is the ID-list form
// A new shell file-operation object; its methods are the patched ones when the DLL is loaded.
bool new_file_operation(ComRef<IFileOperation>* out);
// CopyItems / MoveItems (move true) of `sources` to `destination` on `op`; E_FAIL when the
// items cannot be made.
HRESULT queue(IFileOperation* op, bool move, const std::vector<std::wstring>& sources, const std::wstring& destination);
// SHFileOperationW with `function` on double-NUL lists, silently.
int shell_operation(UINT function, const std::vector<std::wstring>& from, const std::wstring& to);
// Pumps messages until the global hook brought kwindel-x64.dll in; null after `ms`.
HMODULE wait_for_injection(DWORD ms);
}  // namespace kwtest
