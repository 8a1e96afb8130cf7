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
  if (wide.empty()) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
  std::string out(n, '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), &out[0], n, nullptr, nullptr);
  return out;
}

std::wstring widen(const std::string& utf8) {
  if (utf8.empty()) return std::wstring();
  int n = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
  std::wstring out(n, L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], n);
  return out;
}

uint64_t jump_destination(const uint8_t* code) {
  if (code[0] == 0xE9) {
    int32_t rel;
    std::memcpy(&rel, code + 1, 4);
    return reinterpret_cast<uint64_t>(code) + 5 + rel;
  }
  if (code[0] == 0xFF && code[1] == 0x25) {  // jmp [rip+disp32]
    int32_t disp;
    std::memcpy(&disp, code + 2, 4);
    uint64_t abs;
    std::memcpy(&abs, code + 6 + disp, 8);
    return abs;
  }
  return 0;
}

const IMAGE_SECTION_HEADER* find_section(HMODULE module, const char* name) {
  if (module == nullptr) return nullptr;
  auto base = reinterpret_cast<const unsigned char*>(module);
  auto dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  auto nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
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

// ---- TraceCapture ----
namespace {
std::mutex g_captures_mutex;
std::vector<TraceCapture*> g_captures;
constexpr DWORD kDebugPrint = 0x40010006;      // DBG_PRINTEXCEPTION_C
constexpr DWORD kDebugPrintWide = 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C
}  // namespace

TraceCapture::TraceCapture() {
  std::lock_guard<std::mutex> lock(g_captures_mutex);
  g_captures.push_back(this);
  cookie_ = AddVectoredExceptionHandler(1, handler);
}

TraceCapture::~TraceCapture() {
  RemoveVectoredExceptionHandler(cookie_);
  std::lock_guard<std::mutex> lock(g_captures_mutex);
  for (auto it = g_captures.begin(); it != g_captures.end(); ++it) {
    if (*it == this) { g_captures.erase(it); break; }
  }
}

LONG CALLBACK TraceCapture::handler(EXCEPTION_POINTERS* info) {
  const EXCEPTION_RECORD* rec = info->ExceptionRecord;
  if (rec->NumberParameters < 2) return EXCEPTION_CONTINUE_SEARCH;
  if (rec->ExceptionCode == kDebugPrint) {
    const char* text = reinterpret_cast<const char*>(rec->ExceptionInformation[1]);
    size_t length = static_cast<size_t>(rec->ExceptionInformation[0]);
    std::string line(text, length > 0 ? strnlen(text, length) : 0);
    std::lock_guard<std::mutex> lock(g_captures_mutex);
    for (TraceCapture* c : g_captures) {
      std::lock_guard<std::mutex> inner(c->mutex_);
      c->lines_.push_back(line);
    }
  } else if (rec->ExceptionCode == kDebugPrintWide) {
    const wchar_t* text = reinterpret_cast<const wchar_t*>(rec->ExceptionInformation[1]);
    size_t length = static_cast<size_t>(rec->ExceptionInformation[0]);
    std::wstring line(text, length > 0 ? wcsnlen(text, length) : 0);
    std::lock_guard<std::mutex> lock(g_captures_mutex);
    for (TraceCapture* c : g_captures) {
      std::lock_guard<std::mutex> inner(c->mutex_);
      c->wide_lines_.push_back(line);
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

void TraceCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
  wide_lines_.clear();
}

bool TraceCapture::contains(const std::string& line) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& l : lines_) if (l == line) return true;
  return false;
}

// ---- DbwinMonitor ----
DbwinMonitor::DbwinMonitor() {
  buffer_ready_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_BUFFER_READY");
  data_ready_ = CreateEventW(nullptr, FALSE, FALSE, L"DBWIN_DATA_READY");
  mapping_ = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, L"DBWIN_BUFFER");
  if (buffer_ready_ == nullptr || data_ready_ == nullptr || mapping_ == nullptr) return;
  view_ = MapViewOfFile(mapping_, FILE_MAP_READ, 0, 0, 4096);
  if (view_ == nullptr) return;
  thread_ = CreateThread(nullptr, 0, run, this, 0, nullptr);
  SetEvent(buffer_ready_);
}

DbwinMonitor::~DbwinMonitor() {
  stop_ = true;
  if (thread_ != nullptr) {
    SetEvent(data_ready_);
    WaitForSingleObject(thread_, 5000);
    CloseHandle(thread_);
  }
  if (view_ != nullptr) UnmapViewOfFile(view_);
  for (HANDLE h : {mapping_, data_ready_, buffer_ready_}) if (h != nullptr) CloseHandle(h);
}

DWORD WINAPI DbwinMonitor::run(void* self_ptr) {
  auto self = static_cast<DbwinMonitor*>(self_ptr);
  while (!self->stop_) {
    if (WaitForSingleObject(self->data_ready_, 200) != WAIT_OBJECT_0) continue;
    if (self->stop_) break;
    const auto* bytes = static_cast<const char*>(self->view_);
    Line line;
    std::memcpy(&line.pid, bytes, sizeof line.pid);
    line.text.assign(bytes + 4, strnlen(bytes + 4, 4096 - 4));
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->lines_.push_back(line);
    }
    SetEvent(self->buffer_ready_);
  }
  return 0;
}

std::vector<DbwinMonitor::Line> DbwinMonitor::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

bool DbwinMonitor::wait_for(const std::string& text, DWORD timeout_ms) const {
  const ULONGLONG end = GetTickCount64() + timeout_ms;
  do {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const auto& l : lines_) if (l.text == text) return true;
    }
    Sleep(10);
  } while (GetTickCount64() < end);
  return false;
}

// ---- child processes ----
ChildResult run_child(const std::wstring& exe, const std::wstring& args, DWORD timeout_ms) {
  ChildResult result;
  SECURITY_ATTRIBUTES sa = {sizeof sa, nullptr, TRUE};
  HANDLE read_end = nullptr, write_end = nullptr;
  if (!CreatePipe(&read_end, &write_end, &sa, 0)) return result;
  SetHandleInformation(read_end, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdOutput = write_end;
  si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  si.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  std::wstring cmd = L"\"" + exe + L"\" " + args;
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(exe.c_str(), &cmd[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, &pi)) {
    CloseHandle(read_end);
    CloseHandle(write_end);
    return result;
  }
  result.started = true;
  CloseHandle(write_end);
  CloseHandle(pi.hThread);
  const ULONGLONG end = GetTickCount64() + timeout_ms;
  char buf[4096];
  for (;;) {
    DWORD avail = 0;
    while (PeekNamedPipe(read_end, nullptr, 0, nullptr, &avail, nullptr) && avail > 0) {
      DWORD got = 0;
      if (!ReadFile(read_end, buf, sizeof buf, &got, nullptr) || got == 0) break;
      result.output.append(buf, got);
    }
    if (WaitForSingleObject(pi.hProcess, 20) == WAIT_OBJECT_0) {
      DWORD got = 0;
      while (ReadFile(read_end, buf, sizeof buf, &got, nullptr) && got > 0) result.output.append(buf, got);
      result.finished = true;
      GetExitCodeProcess(pi.hProcess, &result.exit_code);
      break;
    }
    if (GetTickCount64() >= end) {
      TerminateProcess(pi.hProcess, 255);
      WaitForSingleObject(pi.hProcess, 5000);
      break;
    }
  }
  CloseHandle(read_end);
  CloseHandle(pi.hProcess);
  return result;
}

ChildProcess::ChildProcess(const std::wstring& exe, const std::wstring& args) {
  STARTUPINFOW si = {};
  si.cb = sizeof si;
  std::wstring cmd = L"\"" + exe + L"\" " + args;
  PROCESS_INFORMATION pi = {};
  if (CreateProcessW(exe.c_str(), &cmd[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) {
    CloseHandle(pi.hThread);
    process_ = pi.hProcess;
    pid_ = pi.dwProcessId;
  }
}

ChildProcess::~ChildProcess() {
  if (process_ == nullptr) return;
  if (WaitForSingleObject(process_, 0) != WAIT_OBJECT_0) {
    TerminateProcess(process_, 255);
    WaitForSingleObject(process_, 5000);
  }
  CloseHandle(process_);
}

bool ChildProcess::wait(DWORD timeout_ms, DWORD* exit_code) {
  if (process_ == nullptr) return false;
  if (WaitForSingleObject(process_, timeout_ms) != WAIT_OBJECT_0) return false;
  if (exit_code != nullptr) GetExitCodeProcess(process_, exit_code);
  return true;
}

// ---- files ----
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

// ---- drives ----
namespace {
// Wine's private mount-manager request (include/ddk/mountmgr.h of Wine 8).
constexpr DWORD kDefineUnixDrive = CTL_CODE('m', 32, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS);
struct UnixDrive {
  ULONG size;
  ULONG type;
  ULONG fs_type;
  DWORD serial;
  ULONGLONG unix_dev;
  WCHAR letter;
  USHORT mount_point_offset;
  USHORT device_offset;
  USHORT label_offset;
};
}  // namespace

bool define_unix_drive(wchar_t letter, UINT type, const std::string& unix_folder) {
  HANDLE mgr = CreateFileW(L"\\\\.\\MountPointManager", GENERIC_READ | GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
  if (mgr == INVALID_HANDLE_VALUE) return false;
  std::vector<char> buffer(sizeof(UnixDrive) + unix_folder.size() + 1, 0);
  auto* drive = reinterpret_cast<UnixDrive*>(buffer.data());
  drive->size = static_cast<ULONG>(buffer.size());
  drive->type = type;
  drive->letter = static_cast<WCHAR>(towlower(letter));
  if (!unix_folder.empty()) {
    drive->mount_point_offset = sizeof(UnixDrive);
    memcpy(buffer.data() + sizeof(UnixDrive), unix_folder.c_str(), unix_folder.size() + 1);
  }
  DWORD returned = 0;
  const BOOL ok = DeviceIoControl(mgr, kDefineUnixDrive, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, 0,
                                  &returned, nullptr);
  CloseHandle(mgr);
  return ok != 0;
}

std::string unix_path(const std::wstring& windows_path) {
  std::string s = narrow(windows_path);
  if (s.size() < 2 || (s[0] != 'Z' && s[0] != 'z') || s[1] != ':') return std::string();
  s = s.substr(2);
  std::replace(s.begin(), s.end(), '\\', '/');
  return s;
}

RemovableDrive::RemovableDrive() {
  folder_ = exe_dir() + L"removable-" + std::to_wstring(GetCurrentProcessId());
  remove_tree(folder_);
  CreateDirectoryW(folder_.c_str(), nullptr);
  const std::string unix_folder = unix_path(folder_);
  const DWORD used = GetLogicalDrives();
  for (wchar_t c = L'R'; c <= L'Y' && letter_ == 0 && !unix_folder.empty(); ++c) {
    if (!(used & (1u << (c - L'A'))) && define_unix_drive(c, DRIVE_REMOVABLE, unix_folder)) letter_ = c;
  }
}

RemovableDrive::~RemovableDrive() {
  if (letter_ != 0) define_unix_drive(letter_, DRIVE_NO_ROOT_DIR, std::string());
  remove_tree(folder_);
}

bool write_file(const std::wstring& path, const std::string& bytes) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  size_t done = 0;
  bool ok = true;
  while (ok && done < bytes.size()) {
    DWORD chunk = static_cast<DWORD>(std::min<size_t>(bytes.size() - done, 1u << 20)), wrote = 0;
    ok = WriteFile(h, bytes.data() + done, chunk, &wrote, nullptr) && wrote == chunk;
    done += wrote;
  }
  CloseHandle(h);
  return ok;
}

bool read_file(const std::wstring& path, std::string* bytes) {
  HANDLE h = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                         nullptr, OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) return false;
  bytes->clear();
  char buf[65536];
  DWORD got = 0;
  bool ok = true;
  while ((ok = ReadFile(h, buf, sizeof buf, &got, nullptr)) && got > 0) bytes->append(buf, got);
  CloseHandle(h);
  return ok;
}

bool file_exists(const std::wstring& path) { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void remove_tree(const std::wstring& path) {
  DWORD attrs = GetFileAttributesW(path.c_str());
  if (attrs == INVALID_FILE_ATTRIBUTES) return;
  if (!(attrs & FILE_ATTRIBUTE_DIRECTORY) || (attrs & FILE_ATTRIBUTE_REPARSE_POINT)) {
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(path.c_str())) RemoveDirectoryW(path.c_str());
    return;
  }
  WIN32_FIND_DATAW fd;
  HANDLE find = FindFirstFileW((path + L"\\*").c_str(), &fd);
  if (find != INVALID_HANDLE_VALUE) {
    do {
      std::wstring name = fd.cFileName;
      if (name == L"." || name == L"..") continue;
      remove_tree(path + L"\\" + name);
    } while (FindNextFileW(find, &fd));
    FindClose(find);
  }
  RemoveDirectoryW(path.c_str());
}

}  // namespace kwtest
