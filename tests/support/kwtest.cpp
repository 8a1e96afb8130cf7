#include "kwtest.h"

#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cwctype>

namespace kwtest {

std::wstring exe_dir() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring dir(path);
  return dir.substr(0, dir.rfind(L'\\') + 1);
}
std::wstring dll_path() { return exe_dir() + L"kwindel-x64.dll"; }
std::wstring child_path() { return exe_dir() + L"kwtest-child.exe"; }

std::string narrow(const std::wstring& wide) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  std::string out(n, '\0');
  if (n > 0) WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), &out[0], n, nullptr, nullptr);
  return out;
}

std::wstring widen(const std::string& utf8) {
  const int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(n, L'\0');
  if (n > 0) MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], n);
  return out;
}

uint64_t jump_destination(const uint8_t* code) {
  int32_t rel;
  if (code[0] == 0xE9) {
    std::memcpy(&rel, code + 1, 4);
    return reinterpret_cast<uint64_t>(code) + 5 + rel;
  }
  if (code[0] != 0xFF || code[1] != 0x25) return 0;
  std::memcpy(&rel, code + 2, 4);  // jmp [rip+disp32]
  uint64_t abs;
  std::memcpy(&abs, code + 6 + rel, 8);
  return abs;
}

const IMAGE_SECTION_HEADER* find_section(HMODULE module, const char* name) {
  if (module == nullptr) return nullptr;
  auto base = reinterpret_cast<const unsigned char*>(module);
  auto nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const IMAGE_SECTION_HEADER* section = IMAGE_FIRST_SECTION(nt);
  for (WORD i = 0; i < nt->FileHeader.NumberOfSections; ++i, ++section) {
    if (std::strncmp(reinterpret_cast<const char*>(section->Name), name, IMAGE_SIZEOF_SHORT_NAME) == 0) return section;
  }
  return nullptr;
}

volatile SharedBlockView* shared_block(HMODULE kwindel) {
  const IMAGE_SECTION_HEADER* section = find_section(kwindel, ".hook");
  if (section == nullptr) return nullptr;
  return reinterpret_cast<volatile SharedBlockView*>(reinterpret_cast<unsigned char*>(kwindel) + section->VirtualAddress);
}

// ---- trace lines ----
namespace {
std::mutex g_captures_mutex;
std::vector<TraceCapture*> g_captures;
}  // namespace

TraceCapture::TraceCapture() {
  std::lock_guard<std::mutex> lock(g_captures_mutex);
  g_captures.push_back(this);
  cookie_ = AddVectoredExceptionHandler(1, handler);
}

TraceCapture::~TraceCapture() {
  RemoveVectoredExceptionHandler(cookie_);
  std::lock_guard<std::mutex> lock(g_captures_mutex);
  g_captures.erase(std::find(g_captures.begin(), g_captures.end(), this));
}

LONG CALLBACK TraceCapture::handler(EXCEPTION_POINTERS* info) {
  const EXCEPTION_RECORD* rec = info->ExceptionRecord;
  const bool wide = rec->ExceptionCode == 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C
  if (rec->NumberParameters < 2 || (!wide && rec->ExceptionCode != 0x40010006)) return EXCEPTION_CONTINUE_SEARCH;
  const size_t length = static_cast<size_t>(rec->ExceptionInformation[0]);
  std::lock_guard<std::mutex> lock(g_captures_mutex);
  for (TraceCapture* c : g_captures) {
    std::lock_guard<std::mutex> inner(c->mutex_);
    if (wide) {
      auto text = reinterpret_cast<const wchar_t*>(rec->ExceptionInformation[1]);
      c->wide_lines_.emplace_back(text, length > 0 ? wcsnlen(text, length) : 0);
    } else {
      auto text = reinterpret_cast<const char*>(rec->ExceptionInformation[1]);
      c->lines_.emplace_back(text, length > 0 ? strnlen(text, length) : 0);
    }
  }
  return EXCEPTION_CONTINUE_SEARCH;  // the system still delivers the line
}

std::vector<std::string> TraceCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::wstring> TraceCapture::wide_lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return wide_lines_;
}

std::vector<std::string> TraceCapture::lines_from(const std::string& prefix) const {
  std::vector<std::string> out;
  for (const std::string& line : lines()) {
    if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
  }
  return out;
}

void TraceCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
  wide_lines_.clear();
}

DbwinMonitor::DbwinMonitor()
    : buffer_ready_(CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY")),
      data_ready_(CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY")),
      mapping_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, L"DBWIN_BUFFER")) {
  if (!buffer_ready_.ok() || !data_ready_.ok() || !mapping_.ok()) return;
  view_ = MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, 4096);
  if (view_ == nullptr) return;
  thread_.reset(CreateThread(nullptr, 0, run, this, 0, nullptr));
  SetEvent(buffer_ready_.get());
}

DbwinMonitor::~DbwinMonitor() {
  stop_ = true;
  if (thread_.ok()) {
    SetEvent(data_ready_.get());
    WaitForSingleObject(thread_.get(), 5000);
  }
  if (view_ != nullptr) UnmapViewOfFile(view_);
}

DWORD WINAPI DbwinMonitor::run(void* self_ptr) {
  auto self = static_cast<DbwinMonitor*>(self_ptr);
  while (!self->stop_) {
    if (WaitForSingleObject(self->data_ready_.get(), 200) != WAIT_OBJECT_0 || self->stop_) continue;
    const auto* bytes = static_cast<const char*>(self->view_) + 4;  // after the writer's process id
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->lines_.emplace_back(bytes, strnlen(bytes, 4096 - 4));
    }
    SetEvent(self->buffer_ready_.get());
  }
  return 0;
}

bool DbwinMonitor::wait_for(const std::string& text, DWORD timeout_ms) const {
  for (const ULONGLONG end = GetTickCount64() + timeout_ms; GetTickCount64() < end; Sleep(10)) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::find(lines_.begin(), lines_.end(), text) != lines_.end()) return true;
  }
  return false;
}

// ---- child processes ----
namespace {
HANDLE start(const std::wstring& exe, const std::wstring& args, HANDLE output, DWORD* pid) {
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  if (output != nullptr) {
    si.dwFlags = STARTF_USESTDHANDLES;
    si.hStdOutput = output;
    si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
    si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  }
  std::wstring cmd = L"\"" + exe + L"\" " + args;
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(exe.c_str(), &cmd[0], nullptr, nullptr, output != nullptr, 0, nullptr, nullptr, &si, &pi)) {
    return nullptr;
  }
  CloseHandle(pi.hThread);
  if (pid != nullptr) *pid = pi.dwProcessId;
  return pi.hProcess;
}
}  // namespace

ChildResult run_child(const std::wstring& exe, const std::wstring& args, DWORD timeout_ms) {
  ChildResult result;
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  OwnedHandle read_end, write_end;
  if (!CreatePipe(read_end.put(), write_end.put(), &sa, 0)) return result;
  SetHandleInformation(read_end.get(), HANDLE_FLAG_INHERIT, 0);
  OwnedHandle process(start(exe, args, write_end.get(), nullptr));
  write_end.reset();
  if (!(result.started = process.ok())) return result;
  const ULONGLONG end = GetTickCount64() + timeout_ms;
  char buf[4096];
  DWORD avail = 0, got = 0;
  for (;;) {
    while (PeekNamedPipe(read_end.get(), nullptr, 0, nullptr, &avail, nullptr) && avail > 0 &&
           ReadFile(read_end.get(), buf, sizeof buf, &got, nullptr) && got > 0) {
      result.output.append(buf, got);
    }
    if (WaitForSingleObject(process.get(), 20) == WAIT_OBJECT_0) {
      while (ReadFile(read_end.get(), buf, sizeof buf, &got, nullptr) && got > 0) result.output.append(buf, got);
      result.finished = true;
      GetExitCodeProcess(process.get(), &result.exit_code);
      return result;
    }
    if (GetTickCount64() >= end) {
      TerminateProcess(process.get(), 255);
      WaitForSingleObject(process.get(), 5000);
      return result;
    }
  }
}

ChildProcess::ChildProcess(const std::wstring& exe, const std::wstring& args)
    : process_(start(exe, args, nullptr, &pid_)) {}

bool ChildProcess::wait(DWORD timeout_ms, DWORD* exit_code) {
  if (!process_.ok() || WaitForSingleObject(process_.get(), timeout_ms) != WAIT_OBJECT_0) return false;
  if (exit_code != nullptr) GetExitCodeProcess(process_.get(), exit_code);
  return true;
}

bool ChildProcess::kill() {
  if (!process_.ok()) return false;
  TerminateProcess(process_.get(), 255);
  return WaitForSingleObject(process_.get(), 30000) == WAIT_OBJECT_0;
}

// ---- folders, drives, files ----
ScratchDir::ScratchDir() {
  static std::atomic<int> counter{0};
  wchar_t temp[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, temp);
  path_ = std::wstring(temp) + L"kwtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
          std::to_wstring(counter++) + L"-" + std::to_wstring(GetTickCount64());
  remove_tree(path_);
  CreateDirectoryW(path_.c_str(), nullptr);
}

ScratchDir::~ScratchDir() { remove_tree(path_); }

namespace {
// Wine's private mount-manager request (include/ddk/mountmgr.h of Wine 8): points a drive letter
// at a Unix folder with a drive type; DRIVE_NO_ROOT_DIR and no folder remove it.
bool define_unix_drive(wchar_t letter, UINT type, const std::string& unix_folder) {
  struct UnixDrive {
    ULONG size, type, fs_type;
    DWORD serial;
    ULONGLONG unix_dev;
    WCHAR letter;
    USHORT mount_point_offset, device_offset, label_offset;
  };
  OwnedHandle mgr(CreateFileW(L"\\\\.\\MountPointManager", GENERIC_READ | GENERIC_WRITE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  if (!mgr.ok()) return false;
  std::vector<char> buffer(sizeof(UnixDrive) + unix_folder.size() + 1, 0);
  auto* drive = reinterpret_cast<UnixDrive*>(buffer.data());
  drive->size = static_cast<ULONG>(buffer.size());
  drive->type = type;
  drive->letter = static_cast<WCHAR>(towlower(letter));
  if (!unix_folder.empty()) {
    drive->mount_point_offset = sizeof(UnixDrive);
    std::memcpy(buffer.data() + sizeof(UnixDrive), unix_folder.c_str(), unix_folder.size() + 1);
  }
  DWORD returned = 0;
  return DeviceIoControl(mgr.get(), CTL_CODE('m', 32, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS),
                         buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, 0, &returned, nullptr) != 0;
}
}  // namespace

RemovableDrive::RemovableDrive() {
  folder_ = exe_dir() + L"removable-" + std::to_wstring(GetCurrentProcessId());
  remove_tree(folder_);
  CreateDirectoryW(folder_.c_str(), nullptr);
  std::string unix_folder = narrow(folder_);  // Wine maps Z: to /
  if (unix_folder.size() < 2 || towupper(unix_folder[0]) != L'Z' || unix_folder[1] != ':') return;
  unix_folder = unix_folder.substr(2);
  std::replace(unix_folder.begin(), unix_folder.end(), '\\', '/');
  const DWORD used = GetLogicalDrives();
  for (wchar_t c = L'R'; c <= L'Y' && letter_ == 0; ++c) {
    if (!(used & (1u << (c - L'A'))) && define_unix_drive(c, DRIVE_REMOVABLE, unix_folder)) letter_ = c;
  }
}

RemovableDrive::~RemovableDrive() {
  if (letter_ != 0) define_unix_drive(letter_, DRIVE_NO_ROOT_DIR, std::string());
  remove_tree(folder_);
}

bool write_file(const std::wstring& path, const std::string& bytes) {
  OwnedHandle h(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr));
  DWORD wrote = 0;
  return h.ok() && WriteFile(h.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr) &&
         wrote == bytes.size();
}

bool read_file(const std::wstring& path, std::string* bytes) {
  OwnedHandle h(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, 0, nullptr));
  if (!h.ok()) return false;
  bytes->clear();
  char buf[65536];
  DWORD got = 0;
  bool ok = true;
  while ((ok = ReadFile(h.get(), buf, sizeof buf, &got, nullptr)) && got > 0) bytes->append(buf, got);
  return ok;
}

std::string content(const std::wstring& path) {
  std::string bytes;
  return read_file(path, &bytes) ? bytes : std::string("<missing>");
}

bool file_exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void remove_tree(const std::wstring& path) {
  const DWORD attrs = GetFileAttributesW(path.c_str());
  if (attrs == INVALID_FILE_ATTRIBUTES) return;
  if (!(attrs & FILE_ATTRIBUTE_DIRECTORY) || (attrs & FILE_ATTRIBUTE_REPARSE_POINT)) {
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(path.c_str())) RemoveDirectoryW(path.c_str());
    return;
  }
  WIN32_FIND_DATAW fd;
  OwnedFind find(FindFirstFileW((path + L"\\*").c_str(), &fd));
  for (bool more = find.ok(); more; more = FindNextFileW(find.get(), &fd)) {
    const std::wstring name = fd.cFileName;
    if (name != L"." && name != L"..") remove_tree(path + L"\\" + name);
  }
  find.reset();
  RemoveDirectoryW(path.c_str());
}

}  // namespace kwtest

#include <shellapi.h>
#include <shlobj.h>

namespace kwtest {

bool data_object_for(const std::vector<std::wstring>& paths, ComRef<IDataObject>* out) {
  if (paths.empty()) return false;
  CoTaskMem<ITEMIDLIST> folder_id;
  ComRef<IShellFolder> desktop, folder;
  const std::wstring parent = paths.front().substr(0, paths.front().rfind(L'\\'));
  if (FAILED(SHParseDisplayName(parent.c_str(), nullptr, folder_id.put(), 0, nullptr)) ||
      FAILED(SHGetDesktopFolder(desktop.put())) ||
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
  return SUCCEEDED(folder->GetUIObjectOf(nullptr, static_cast<UINT>(ids.size()), ids.data(), IID_IDataObject, nullptr,
                                         out->put_void()));
}

bool shell_item_for(const std::wstring& path, ComRef<IShellItem>* out) {
  return SUCCEEDED(SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IShellItem, out->put_void()));
}

bool new_file_operation(ComRef<IFileOperation>* out) {
  return SUCCEEDED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, out->put_void()));
}

HRESULT queue(IFileOperation* op, bool move, const std::vector<std::wstring>& sources, const std::wstring& destination) {
  ComRef<IDataObject> items;
  ComRef<IShellItem> target;
  if (!data_object_for(sources, &items) || !shell_item_for(destination, &target)) return E_FAIL;
  return move ? op->MoveItems(items.get(), target.get()) : op->CopyItems(items.get(), target.get());
}

int shell_operation(UINT function, const std::vector<std::wstring>& from, const std::wstring& to) {
  std::wstring f, t = to + L'\0';  // c_str() adds each list's final NUL
  for (const auto& p : from) f += p + L'\0';
  SHFILEOPSTRUCTW op = {};
  op.wFunc = function;
  op.pFrom = f.c_str();
  op.pTo = t.c_str();
  op.fFlags = FOF_NOCONFIRMATION | FOF_SILENT | FOF_NOERRORUI | FOF_NOCONFIRMMKDIR;
  return SHFileOperationW(&op);
}

HMODULE wait_for_injection(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // creates the message queue
  const HWND window = CreateWindowExW(0, L"STATIC", L"kwtest", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  for (const ULONGLONG end = GetTickCount64() + ms; GetTickCount64() < end; Sleep(10)) {
    if (window != nullptr) SendMessageW(window, WM_NULL, 0, 0);  // what a call-window hook sees
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);    // what a get-message hook sees
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (HMODULE dll = GetModuleHandleW(L"kwindel-x64.dll")) return dll;
  }
  return nullptr;
}

}  // namespace kwtest
