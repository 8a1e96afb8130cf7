// The harness shared by the test programs: paths, files, scratch folders and removable drives,
// helper processes, this process's trace lines, the DLL's shared block, shell copy items.
#pragma once
#include <winsock2.h>  // before windows.h

#include "host/owners.h"

#include <shellapi.h>
#include <shlobj.h>
#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace kwtest {

inline std::wstring exe_dir() {  // the running program's folder, ends with '\'
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::wstring(path).substr(0, std::wstring(path).rfind(L'\\') + 1);
}
inline std::wstring dll_path() { return exe_dir() + L"kwindel-x64.dll"; }
inline std::wstring child_path() { return exe_dir() + L"kwtest-child.exe"; }

inline std::string narrow(const std::wstring& wide) {  // UTF-8
  std::string out(WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), &out[0], static_cast<int>(out.size()), nullptr, nullptr);
  return out;
}
inline std::wstring widen(const std::string& utf8) {
  std::wstring out(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], static_cast<int>(out.size()));
  return out;
}

// An export of `module` as a function pointer of type Fn; null when absent.
template <typename Fn> Fn fn(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// Where a jump written at `code` leads (E9 rel32 or FF 25 jmp [rip+disp32]); 0 for neither.
inline uint64_t jump_destination(const uint8_t* code) {
  int32_t rel;
  uint64_t abs = 0;
  if (code[0] == 0xE9) return std::memcpy(&rel, code + 1, 4), reinterpret_cast<uint64_t>(code) + 5 + rel;
  if (code[0] == 0xFF && code[1] == 0x25) std::memcpy(&rel, code + 2, 4), std::memcpy(&abs, code + 6 + rel, 8);
  return abs;
}

inline const IMAGE_SECTION_HEADER* find_section(HMODULE module, const char* name) {  // null when absent
  if (module == nullptr) return nullptr;
  auto base = reinterpret_cast<const char*>(module);
  auto nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const IMAGE_SECTION_HEADER* first = IMAGE_FIRST_SECTION(nt);
  const IMAGE_SECTION_HEADER* last = first + nt->FileHeader.NumberOfSections;
  auto found = std::find_if(first, last, [&](const auto& s) { return std::strncmp(reinterpret_cast<const char*>(s.Name), name, 8) == 0; });
  return found == last ? nullptr : found;
}

// The policy words and the module and hook handles at the start of the DLL's ".hook" section.
struct SharedBlockView {
  uint32_t encrypt_audit, secret_audit, audit_dest_mask, copy_audit;
  void* module;
  void* hook;
};
inline volatile SharedBlockView* shared_block(HMODULE kwindel) {
  const IMAGE_SECTION_HEADER* s = find_section(kwindel, ".hook");
  return s == nullptr ? nullptr : reinterpret_cast<volatile SharedBlockView*>(reinterpret_cast<char*>(kwindel) + s->VirtualAddress);
}

// Collects this process's OutputDebugString lines while alive: a vectored handler sees the
// debug-print exception before the system delivers the line (Wine turns wide lines into narrow).
class TraceCapture {
 public:
  TraceCapture() : cookie_(AddVectoredExceptionHandler(1, handler)) { active() = this; }
  ~TraceCapture() {
    RemoveVectoredExceptionHandler(cookie_);
    active() = nullptr;
  }
  std::vector<std::string> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<std::string> lines_from(const std::string& prefix) const {  // those starting with `prefix`
    std::vector<std::string> out;
    for (const std::string& line : lines()) if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    return out;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  static TraceCapture*& active() {  // one at a time
    static TraceCapture* capture = nullptr;
    return capture;
  }
  static LONG CALLBACK handler(EXCEPTION_POINTERS* info) {
    const EXCEPTION_RECORD* rec = info->ExceptionRecord;
    if (rec->ExceptionCode == 0x40010006 && rec->NumberParameters >= 2 && active() != nullptr) {  // DBG_PRINTEXCEPTION_C
      auto text = reinterpret_cast<const char*>(rec->ExceptionInformation[1]);
      std::lock_guard<std::mutex> lock(active()->mutex_);
      active()->lines_.emplace_back(text, strnlen(text, static_cast<size_t>(rec->ExceptionInformation[0])));
    }
    return EXCEPTION_CONTINUE_SEARCH;  // the system still delivers the line
  }
  void* cookie_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A helper process with its standard output captured, run to its end (killed at the time-out).
struct ChildResult {
  bool started = false, finished = false;
  DWORD exit_code = 0;
  std::string output;
};
inline HANDLE start_process(const std::wstring& exe, const std::wstring& args, HANDLE output, DWORD* pid = nullptr) {
  STARTUPINFOW si = {sizeof si};
  si.dwFlags = output != nullptr ? STARTF_USESTDHANDLES : 0;
  si.hStdOutput = output;
  si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  std::wstring cmd = L"\"" + exe + L"\" " + args;
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(exe.c_str(), &cmd[0], nullptr, nullptr, output != nullptr, 0, nullptr, nullptr, &si, &pi)) return nullptr;
  CloseHandle(pi.hThread);
  if (pid != nullptr) *pid = pi.dwProcessId;
  return pi.hProcess;
}
inline ChildResult run_child(const std::wstring& exe, const std::wstring& args, DWORD timeout_ms) {
  ChildResult result;
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  OwnedHandle read_end, write_end, process;
  if (!CreatePipe(read_end.put(), write_end.put(), &sa, 0)) return result;
  SetHandleInformation(read_end.get(), HANDLE_FLAG_INHERIT, 0);
  process.reset(start_process(exe, args, write_end.get()));
  write_end.reset();
  if (!(result.started = process.ok())) return result;
  const ULONGLONG end = GetTickCount64() + timeout_ms;
  char buf[4096];
  DWORD avail = 0, got = 0;
  while (!(result.finished = WaitForSingleObject(process.get(), 20) == WAIT_OBJECT_0) && GetTickCount64() < end) {
    while (PeekNamedPipe(read_end.get(), nullptr, 0, nullptr, &avail, nullptr) && avail > 0 &&
           ReadFile(read_end.get(), buf, sizeof buf, &got, nullptr) && got > 0) result.output.append(buf, got);
  }
  if (!result.finished) TerminateProcess(process.get(), 255), WaitForSingleObject(process.get(), 5000);
  while (result.finished && ReadFile(read_end.get(), buf, sizeof buf, &got, nullptr) && got > 0) result.output.append(buf, got);
  GetExitCodeProcess(process.get(), &result.exit_code);
  return result;
}

// A helper process that runs while the test does other things; killed at the end of the scope.
class ChildProcess {
 public:
  ChildProcess(const std::wstring& exe, const std::wstring& args) : process_(start_process(exe, args, nullptr, &pid_)) {}
  ~ChildProcess() { kill(); }
  bool started() const { return process_.ok(); }
  DWORD pid() const { return pid_; }
  bool wait(DWORD timeout_ms, DWORD* exit_code) {  // false at the time-out; exit_code once ended
    if (!process_.ok() || WaitForSingleObject(process_.get(), timeout_ms) != WAIT_OBJECT_0) return false;
    return exit_code == nullptr || GetExitCodeProcess(process_.get(), exit_code);
  }
  bool kill() { return process_.ok() && TerminateProcess(process_.get(), 255) && wait(30000, nullptr); }

 private:
  OwnedHandle process_;
  DWORD pid_ = 0;
};

inline bool write_file(const std::wstring& path, const std::string& bytes) {
  OwnedHandle h(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr));
  DWORD wrote = 0;
  return h.ok() && WriteFile(h.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr) && wrote == bytes.size();
}
inline bool read_file(const std::wstring& path, std::string* bytes) {
  OwnedHandle h(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                            OPEN_EXISTING, 0, nullptr));
  char buf[65536];
  DWORD got = 0;
  bytes->clear();
  while (h.ok() && ReadFile(h.get(), buf, sizeof buf, &got, nullptr) && got > 0) bytes->append(buf, got);
  return h.ok();
}
inline std::string content(const std::wstring& path) {  // a file's bytes, or "<missing>"
  std::string bytes;
  return read_file(path, &bytes) ? bytes : std::string("<missing>");
}
inline bool file_exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
inline void remove_tree(const std::wstring& path) {
  const DWORD attrs = GetFileAttributesW(path.c_str());
  if (attrs != INVALID_FILE_ATTRIBUTES && (attrs & FILE_ATTRIBUTE_DIRECTORY) && !(attrs & FILE_ATTRIBUTE_REPARSE_POINT)) {
    WIN32_FIND_DATAW fd;
    OwnedFind find(FindFirstFileW((path + L"\\*").c_str(), &fd));
    for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &fd)) {
      if (std::wcscmp(fd.cFileName, L".") != 0 && std::wcscmp(fd.cFileName, L"..") != 0) remove_tree(path + L"\\" + fd.cFileName);
    }
  }
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  if (!DeleteFileW(path.c_str())) RemoveDirectoryW(path.c_str());
}

// A fresh folder under %TEMP%, removed with its content at the end of the scope.
class ScratchDir {
 public:
  ScratchDir() {
    static std::atomic<int> counter{0};
    wchar_t temp[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temp);
    path_ = std::wstring(temp) + L"kwtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(counter++);
    remove_tree(path_);
    CreateDirectoryW(path_.c_str(), nullptr);
  }
  ~ScratchDir() { remove_tree(path_); }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const std::wstring& path() const { return path_; }  // no trailing backslash
  std::wstring file(const std::wstring& name) const { return path_ + L"\\" + name; }

 private:
  std::wstring path_;
};

// A removable drive defined through Wine's mount manager (what winecfg does) on a fresh folder
// beside the test program (on Z:, which Wine maps to /), removed again at the end of the scope.
class RemovableDrive {
 public:
  RemovableDrive() : folder_(exe_dir() + L"removable-" + std::to_wstring(GetCurrentProcessId())) {
    remove_tree(folder_);
    CreateDirectoryW(folder_.c_str(), nullptr);
    std::string unix_folder = narrow(folder_).substr(2);
    std::replace(unix_folder.begin(), unix_folder.end(), '\\', '/');
    for (wchar_t c = L'R'; c <= L'Y' && letter_ == 0 && towupper(folder_[0]) == L'Z'; ++c) {
      if (!(GetLogicalDrives() & (1u << (c - L'A'))) && define(c, DRIVE_REMOVABLE, unix_folder)) letter_ = c;
    }
  }
  ~RemovableDrive() {
    if (letter_ != 0) define(letter_, DRIVE_NO_ROOT_DIR, std::string());
    remove_tree(folder_);
  }
  bool ok() const { return letter_ != 0; }
  std::wstring root() const { return std::wstring(1, letter_) + L":"; }  // e.g. L"R:"

 private:
  // Wine's private mount-manager request (include/ddk/mountmgr.h of Wine 8): a drive letter on a
  // Unix folder with a drive type; DRIVE_NO_ROOT_DIR and no folder remove it.
  static bool define(wchar_t letter, UINT type, const std::string& unix_folder) {
    struct UnixDrive {
      ULONG size, type, fs_type;
      DWORD serial;
      ULONGLONG unix_dev;
      WCHAR letter;
      USHORT mount_point_offset, device_offset, label_offset;
    };
    OwnedHandle mgr(CreateFileW(L"\\\\.\\MountPointManager", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_EXISTING, 0, nullptr));
    std::vector<char> buffer(sizeof(UnixDrive) + unix_folder.size() + 1, 0);
    auto* drive = reinterpret_cast<UnixDrive*>(buffer.data());
    *drive = {static_cast<ULONG>(buffer.size()), type, 0, 0, 0, static_cast<WCHAR>(towlower(letter)),
              static_cast<USHORT>(unix_folder.empty() ? 0 : sizeof(UnixDrive)), 0, 0};
    std::memcpy(buffer.data() + sizeof(UnixDrive), unix_folder.c_str(), unix_folder.size());
    DWORD returned = 0;
    return mgr.ok() && DeviceIoControl(mgr.get(), CTL_CODE('m', 32, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS),
                                       buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, 0, &returned, nullptr);
  }
  std::wstring folder_;
  wchar_t letter_ = 0;
};

// Shell item sets for driving IFileOperation the way Explorer does: a data object offering
// CF_HDROP for files of one folder (the folder's GetUIObjectOf, as Explorer's selection is), or
// one shell item (whose IPersistIDList is the ID-list form).
inline bool data_object_for(const std::vector<std::wstring>& paths, ComRef<IDataObject>* out) {
  CoTaskMem<ITEMIDLIST> folder_id;
  ComRef<IShellFolder> desktop, folder;
  const std::wstring parent = paths.front().substr(0, paths.front().rfind(L'\\'));
  if (FAILED(SHParseDisplayName(parent.c_str(), nullptr, folder_id.put(), 0, nullptr)) || FAILED(SHGetDesktopFolder(desktop.put())) ||
      FAILED(desktop->BindToObject(folder_id.get(), nullptr, IID_IShellFolder, folder.put_void()))) {
    return false;
  }
  std::vector<CoTaskMem<ITEMIDLIST>> children(paths.size());
  std::vector<PCUITEMID_CHILD> ids;
  for (size_t i = 0; i < paths.size(); ++i) {
    std::wstring name = paths[i].substr(paths[i].rfind(L'\\') + 1);
    if (FAILED(folder->ParseDisplayName(nullptr, nullptr, &name[0], nullptr, children[i].put(), nullptr))) return false;
    ids.push_back(children[i].get());
  }
  return SUCCEEDED(folder->GetUIObjectOf(nullptr, static_cast<UINT>(ids.size()), ids.data(), IID_IDataObject, nullptr, out->put_void()));
}
inline bool shell_item_for(const std::wstring& path, ComRef<IShellItem>* out) {
  return SUCCEEDED(SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IShellItem, out->put_void()));
}
// A new shell file-operation object; its methods are the patched ones when the DLL is loaded.
inline bool new_file_operation(ComRef<IFileOperation>* out) {
  return SUCCEEDED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, out->put_void()));
}
// CopyItems (MoveItems when `move`) of `sources` to `destination`; E_FAIL when the items cannot be made.
inline HRESULT queue(IFileOperation* op, bool move, const std::vector<std::wstring>& sources, const std::wstring& destination) {
  ComRef<IDataObject> items;
  ComRef<IShellItem> target;
  if (!data_object_for(sources, &items) || !shell_item_for(destination, &target)) return E_FAIL;
  return move ? op->MoveItems(items.get(), target.get()) : op->CopyItems(items.get(), target.get());
}
// SHFileOperationW with `function` on double-NUL lists, silently.
inline int shell_operation(UINT function, const std::vector<std::wstring>& from, const std::wstring& to) {
  std::wstring f, t = to + L'\0';  // c_str() adds each list's final NUL
  for (const auto& p : from) f += p + L'\0';
  SHFILEOPSTRUCTW op = {nullptr, function, f.c_str(), t.c_str(), FOF_NOCONFIRMATION | FOF_SILENT | FOF_NOERRORUI | FOF_NOCONFIRMMKDIR};
  return SHFileOperationW(&op);
}
// Sends messages to itself (what call-window and get-message hooks see) until the global hook
// brought kwindel-x64.dll in; null after `ms`.
inline HMODULE wait_for_injection(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // creates the message queue
  const HWND window = CreateWindowExW(0, L"STATIC", L"kwtest", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  for (const ULONGLONG end = GetTickCount64() + ms; GetTickCount64() < end; Sleep(10)) {
    SendMessageW(window, WM_NULL, 0, 0);
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (HMODULE dll = GetModuleHandleW(L"kwindel-x64.dll")) return dll;
  }
  return nullptr;
}

}  // namespace kwtest
