// Helpers shared by the test programs: locating the DLL, loading it, reading its shared block,
// capturing trace lines, starting helper processes, scratch folders and files.
#pragma once
#include <windows.h>

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

// A module loaded for the length of a scope.
class Library {
 public:
  explicit Library(const std::wstring& path) : module_(LoadLibraryW(path.c_str())) {}
  ~Library() { if (module_ != nullptr) FreeLibrary(module_); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  HMODULE get() const { return module_; }
  template <typename Fn> Fn fn(const char* name) const {
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module_, name)));
  }
 private:
  HMODULE module_;
};

// The four words of the shared policy block followed by the module and hook handles, as laid
// out at the start of the DLL's ".hook" section.
struct SharedBlockView {
  uint32_t encrypt_audit, secret_audit, audit_dest_mask, copy_audit;
  void* module;
  void* hook;
};
// Where a jump written at `code` leads (E9 rel32 or FF 25 jmp [rip+disp32]); 0 for neither.
uint64_t jump_destination(const uint8_t* code);

// Finds a section of a loaded module by name; null when absent.
const IMAGE_SECTION_HEADER* find_section(HMODULE module, const char* name);
// The policy block inside a loaded kwindel-x64.dll.
volatile SharedBlockView* shared_block(HMODULE kwindel);

// Collects OutputDebugStringA lines of this process while alive (a vectored handler sees the
// debug-print exception before the system delivers the line).
class TraceCapture {
 public:
  TraceCapture();
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;
  std::vector<std::string> lines() const;
  std::vector<std::wstring> wide_lines() const;
  void clear();
  bool contains(const std::string& line) const;
 private:
  static LONG CALLBACK handler(EXCEPTION_POINTERS* info);
  void* cookie_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<std::wstring> wide_lines_;
};

// DebugView-style monitor: collects the debug lines of every process of the wineserver
// (DBWIN_BUFFER protocol). Only one may run at a time per server.
class DbwinMonitor {
 public:
  struct Line { DWORD pid; std::string text; };
  DbwinMonitor();
  ~DbwinMonitor();
  DbwinMonitor(const DbwinMonitor&) = delete;
  DbwinMonitor& operator=(const DbwinMonitor&) = delete;
  bool ok() const { return view_ != nullptr; }
  std::vector<Line> lines() const;
  // Waits up to timeout_ms for a line equal to `text` (from any process); true when seen.
  bool wait_for(const std::string& text, DWORD timeout_ms) const;
 private:
  static DWORD WINAPI run(void* self);
  HANDLE buffer_ready_ = nullptr, data_ready_ = nullptr, mapping_ = nullptr, thread_ = nullptr;
  void* view_ = nullptr;
  volatile bool stop_ = false;
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
};

// A helper process with its standard output captured.
struct ChildResult {
  bool started = false;
  bool finished = false;  // false: killed at the time-out
  DWORD exit_code = 0;
  std::string output;
};
ChildResult run_child(const std::wstring& exe, const std::wstring& args, DWORD timeout_ms);

// A helper process that runs while the test does other things.
class ChildProcess {
 public:
  ChildProcess(const std::wstring& exe, const std::wstring& args);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  bool started() const { return process_ != nullptr; }
  DWORD pid() const { return pid_; }
  // Waits for the end; false at the time-out. exit_code is set when it ended.
  bool wait(DWORD timeout_ms, DWORD* exit_code);
 private:
  HANDLE process_ = nullptr;
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

// A removable drive defined at run time through Wine's mount manager (what winecfg does), mapped
// to a fresh folder beside the test program, removed again at the end of the scope.
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
// Points drive `letter` at a Unix folder with the given drive type; DRIVE_NO_ROOT_DIR and no
// folder remove it. False when the mount manager refuses.
bool define_unix_drive(wchar_t letter, UINT type, const std::string& unix_folder);
// The Unix form of a path on Z: (Wine maps Z: to /); "" for other drives.
std::string unix_path(const std::wstring& windows_path);

bool write_file(const std::wstring& path, const std::string& bytes);
bool read_file(const std::wstring& path, std::string* bytes);
bool file_exists(const std::wstring& path);
void remove_tree(const std::wstring& path);

}  // namespace kwtest
