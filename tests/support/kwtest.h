// The one harness of the test programs: paths, files, scratch folders and removable drives,
// helper processes, this process's trace lines, the DLL's shared block and patched entries, shell
// copy items, a scriptable stand-in for the local agent, and the end-to-end fixture with what its
// scenarios compare (requests, records, kwdecrypt, parked originals).
#pragma once
#include <winsock2.h>  // before windows.h

#include "host/owners.h"

#include <gtest/gtest.h>
#include <aclapi.h>
#include <sddl.h>
#include <shellapi.h>
#include <shlobj.h>
#include <winioctl.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "agent/agent_channel.h"
#include "kwindel.h"

namespace kwtest {

const bool kFlat = LOBYTE(LOWORD(GetVersion())) < 6;  // the winxp64 prefix: the flat path

inline std::wstring exe_path() {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return path;
}
inline std::wstring exe_dir() { return exe_path().substr(0, exe_path().rfind(L'\\') + 1); }  // ends with '\'
inline std::wstring dll_path() { return exe_dir() + KWINDEL_DLL_NAME; }
inline std::wstring child_path() { return exe_dir() + L"kwtest-child.exe"; }
// The programs of one bitness's build, named by a Unix path in `variable` (KWINDEL_X64_BIN or
// KWINDEL_X86_BIN, set by CTest) and seen from Wine's drive Z:; ends with '\'.
inline std::wstring build_folder(const wchar_t* variable) {
  wchar_t unix_path[MAX_PATH] = {};
  std::wstring path = L"Z:";
  path.append(unix_path, GetEnvironmentVariableW(variable, unix_path, MAX_PATH));
  std::replace(path.begin(), path.end(), L'/', L'\\');
  return path + L"\\";
}
inline std::wstring x86_folder() { return build_folder(L"KWINDEL_X86_BIN"); }
// A tool of this program's bitness beside it: kwdecrypt.exe, or kwdecrypt-x86.exe in 32-bit.
inline std::wstring tool_path(const std::wstring& name) { return exe_dir() + name + L"" KWINDEL_TOOL_SUFFIX ".exe"; }
inline std::wstring temp_folder() { return (std::filesystem::temp_directory_path() / L"").wstring(); }  // ends with '\'

// UTF-16 to UTF-8 and back (through the standard library's path conversions).
inline std::string narrow(const std::wstring& wide) { return std::filesystem::path(wide).u8string(); }
inline std::wstring widen(const std::string& utf8) { return std::filesystem::u8path(utf8).wstring(); }

// A copy audit document with its time attribute made "T", comparable with audit_document().
inline std::string without_time(const std::string& document) {
  return std::regex_replace(document, std::regex(" time=\"-?[0-9]+\""), " time=\"T\"");
}

// An export of `module` as a function pointer of type Fn; null when absent.
template <typename Fn> Fn fn(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

// Where the jump at `code` leads: E9 rel32, or FF 25 through a literal ([rip+disp32] in 64-bit
// code, [disp32] in 32-bit code); 0 for neither.
inline uint64_t jump_destination(const uint8_t* code) {
  int32_t rel;
  uintptr_t literal = 0;
  std::memcpy(&rel, code + 2, 4);
  if (code[0] == 0xE9) return std::memcpy(&rel, code + 1, 4), reinterpret_cast<uintptr_t>(code) + 5 + rel;
  const uintptr_t at = sizeof(void*) == 8 ? reinterpret_cast<uintptr_t>(code) + 6 + rel : static_cast<uint32_t>(rel);
  if (code[0] == 0xFF && code[1] == 0x25) std::memcpy(&literal, reinterpret_cast<const void*>(at), sizeof literal);
  return literal;
}

// The policy words and the module and hook handles at the start of the DLL's shared ".hook"
// section; null when `kwindel` has no such section.
struct SharedBlockView {
  uint32_t encrypt_audit, secret_audit, audit_dest_mask, copy_audit;
  void* module;
  void* hook;
};
inline volatile SharedBlockView* shared_block(HMODULE kwindel) {
  if (kwindel == nullptr) return nullptr;
  auto base = reinterpret_cast<char*>(kwindel);
  auto nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const IMAGE_SECTION_HEADER* first = IMAGE_FIRST_SECTION(nt);
  const IMAGE_SECTION_HEADER* last = first + nt->FileHeader.NumberOfSections;
  auto s = std::find_if(first, last, [](const auto& h) { return std::strncmp(reinterpret_cast<const char*>(h.Name), ".hook", 8) == 0; });
  return s == last ? nullptr : reinterpret_cast<volatile SharedBlockView*>(base + s->VirtualAddress);
}

// The line an OutputDebugString call raises as DBG_PRINTEXCEPTION_C; false for any other exception.
inline bool debug_line(const EXCEPTION_RECORD* rec, std::string* line) {
  if (rec->ExceptionCode != 0x40010006 || rec->NumberParameters < 2) return false;
  auto text = reinterpret_cast<const char*>(rec->ExceptionInformation[1]);
  line->assign(text, strnlen(text, static_cast<size_t>(rec->ExceptionInformation[0])));
  return true;
}

// Collects this process's OutputDebugString lines while alive: a vectored handler sees the
// debug-print exception before the system delivers the line (Wine turns wide lines into narrow).
class TraceCapture {
 public:
  TraceCapture() : cookie_(AddVectoredExceptionHandler(1, handler)) { active = this; }
  ~TraceCapture() {
    RemoveVectoredExceptionHandler(cookie_);
    active = nullptr;
  }
  std::vector<std::string> lines(const std::string& prefix = std::string()) const {  // those starting with `prefix`
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> out;
    for (const std::string& line : lines_) if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line);
    return out;
  }

 private:
  static inline TraceCapture* active = nullptr;  // one at a time
  static LONG CALLBACK handler(EXCEPTION_POINTERS* info) {
    std::string line;
    if (debug_line(info->ExceptionRecord, &line) && active != nullptr) {
      std::lock_guard<std::mutex> lock(active->mutex_);
      active->lines_.push_back(line);
    }
    return EXCEPTION_CONTINUE_SEARCH;  // the system still delivers the line
  }
  void* cookie_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A helper process with its standard output captured, run to its end (ended with exit code 255 at
// the time-out).
struct ChildResult {
  DWORD exit_code = 255;
  std::string output;
};
inline HANDLE start_process(const std::wstring& exe, const std::wstring& args, HANDLE output, DWORD flags = 0) {
  STARTUPINFOW si = {sizeof si};
  si.dwFlags = output != nullptr ? STARTF_USESTDHANDLES : 0;
  si.hStdOutput = output;
  si.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  std::wstring cmd = L"\"" + exe + L"\" " + args;
  PROCESS_INFORMATION pi = {};
  if (!CreateProcessW(exe.c_str(), &cmd[0], nullptr, nullptr, output != nullptr, flags, nullptr, nullptr, &si, &pi)) return nullptr;
  CloseHandle(pi.hThread);
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
  if (!process.ok()) return result;
  std::thread reader([&] {  // to the end of the output, when every holder of the pipe's write end closed it
    char buf[4096];
    for (DWORD got = 0; ReadFile(read_end.get(), buf, sizeof buf, &got, nullptr) && got > 0;) result.output.append(buf, got);
  });
  if (WaitForSingleObject(process.get(), timeout_ms) != WAIT_OBJECT_0) TerminateProcess(process.get(), 255);
  reader.join();
  GetExitCodeProcess(process.get(), &result.exit_code);
  return result;
}

inline bool write_file(const std::wstring& path, const std::string& bytes) {
  OwnedHandle h(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS, 0, nullptr));
  DWORD wrote = 0;
  return h.ok() && WriteFile(h.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &wrote, nullptr) && wrote == bytes.size();
}
inline std::string content(const std::wstring& path) {  // a file's bytes, or "<missing>"
  OwnedHandle h(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                            OPEN_EXISTING, 0, nullptr));
  char buf[65536];
  DWORD got = 0;
  std::string bytes;
  while (h.ok() && ReadFile(h.get(), buf, sizeof buf, &got, nullptr) && got > 0) bytes.append(buf, got);
  return h.ok() ? bytes : "<missing>";
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
    path_ = temp_folder() + L"kwtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(counter++);
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

// A drive of `type` defined through Wine's mount manager (what winecfg does) on a fresh folder in
// `parent` (a folder on Z:, which Wine maps to /; another Linux file system is another volume),
// removed again at the end of the scope: by default a removable drive beside the test program.
class TestDrive {
 public:
  explicit TestDrive(UINT type = DRIVE_REMOVABLE, const std::wstring& parent = exe_dir())  // parent: ends with '\'
      : folder_(parent + L"kwtest-drive-" + std::to_wstring(GetCurrentProcessId())) {
    remove_tree(folder_);
    CreateDirectoryW(folder_.c_str(), nullptr);
    std::string unix_folder = narrow(folder_).substr(2);
    std::replace(unix_folder.begin(), unix_folder.end(), '\\', '/');
    for (wchar_t c = L'R'; c <= L'Y' && letter_ == 0 && towupper(folder_[0]) == L'Z'; ++c) {
      if (!(GetLogicalDrives() & (1u << (c - L'A'))) && define(c, type, unix_folder)) letter_ = c;
    }
  }
  ~TestDrive() {
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

// A new shell file-operation object; its methods are the patched ones when the DLL is loaded.
inline bool new_file_operation(ComRef<IFileOperation>* out) {
  return SUCCEEDED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, out->put_void()));
}
inline bool shell_item_for(const std::wstring& path, ComRef<IShellItem>* out) {
  return SUCCEEDED(SHCreateItemFromParsingName(path.c_str(), nullptr, IID_IShellItem, out->put_void()));
}
// A data object that only gives a drop list (CF_HDROP) of `paths`, as any program may hand the
// shell: it carries paths of any length, which the shell's own folders do not parse.
class DropList : public IDataObject {
 public:
  explicit DropList(const std::vector<std::wstring>& paths) : paths_(paths) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    *out = iid == IID_IUnknown || iid == IID_IDataObject ? this : nullptr;
    return *out != nullptr ? (AddRef(), S_OK) : E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }  // lives on the test's stack
  HRESULT STDMETHODCALLTYPE GetData(FORMATETC* format, STGMEDIUM* medium) override {
    if (format->cfFormat != CF_HDROP || !(format->tymed & TYMED_HGLOBAL)) return DV_E_FORMATETC;
    std::wstring list;
    for (const std::wstring& p : paths_) list += p + L'\0';
    list += L'\0';
    auto* drop = static_cast<DROPFILES*>(GlobalAlloc(GPTR, sizeof(DROPFILES) + list.size() * sizeof(wchar_t)));  // fixed memory
    *drop = {sizeof(DROPFILES), {}, FALSE, TRUE};
    std::memcpy(drop + 1, list.data(), list.size() * sizeof(wchar_t));
    *medium = {TYMED_HGLOBAL};
    medium->hGlobal = drop;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDataHere(FORMATETC*, STGMEDIUM*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryGetData(FORMATETC*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(FORMATETC*, FORMATETC*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetData(FORMATETC*, STGMEDIUM*, BOOL) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE EnumFormatEtc(DWORD, IEnumFORMATETC**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE DAdvise(FORMATETC*, DWORD, IAdviseSink*, DWORD*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE DUnadvise(DWORD) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE EnumDAdvise(IEnumSTATDATA**) override { return E_NOTIMPL; }

 private:
  std::vector<std::wstring> paths_;
  ULONG refs_ = 1;
};

// CopyItems (MoveItems when `move`) of `sources`, items of one folder, to `destination`, the way
// Explorer does: the shell's own data object of those items, offering CF_HDROP (what the folder's
// GetUIObjectOf gives; sources longer than the shell parses go as a DropList). E_FAIL when the
// items cannot be made.
inline HRESULT queue(IFileOperation* op, bool move, const std::vector<std::wstring>& sources, const std::wstring& destination) {
  DropList list(sources);
  ComRef<IDataObject> shell_items;
  ComRef<IShellItem> target;
  std::vector<CoTaskMem<ITEMIDLIST>> ids(sources.size() + 1);  // the folder's, then each source's
  std::vector<PCUIDLIST_RELATIVE> children;
  const std::wstring folder = sources.front().substr(0, sources.front().rfind(L'\\'));
  HRESULT hr = SHParseDisplayName(folder.c_str(), nullptr, ids[0].put(), 0, nullptr);
  for (size_t i = 0; i < sources.size() && SUCCEEDED(hr); ++i) {
    hr = SHParseDisplayName(sources[i].c_str(), nullptr, ids[i + 1].put(), 0, nullptr);
    children.push_back(ILFindLastID(ids[i + 1].get()));
  }
  if (SUCCEEDED(hr))
    hr = CIDLData_CreateFromIDArray(ids[0].get(), static_cast<UINT>(children.size()), children.data(), shell_items.put());
  const bool long_path = sources.front().size() >= MAX_PATH;
  if ((FAILED(hr) && !long_path) || !shell_item_for(destination, &target)) return E_FAIL;
  IDataObject* items = long_path ? &list : shell_items.get();
  return move ? op->MoveItems(items, target.get()) : op->CopyItems(items, target.get());
}
// SHFileOperationW with `function` on double-NUL lists, silently.
inline int shell_operation(UINT function, const std::vector<std::wstring>& from, const std::wstring& to) {
  std::wstring f, t = to + L'\0';  // c_str() adds each list's final NUL
  for (const auto& p : from) f += p + L'\0';
  SHFILEOPSTRUCTW op = {nullptr, function, f.c_str(), t.c_str(), FOF_NOCONFIRMATION | FOF_SILENT | FOF_NOERRORUI | FOF_NOCONFIRMMKDIR};
  return SHFileOperationW(&op);
}
// Sends messages to itself (what call-window and get-message hooks see) until the global hook
// brought the DLL in; null after `ms`.
inline HMODULE wait_for_injection(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // creates the message queue
  const HWND window = CreateWindowExW(0, L"STATIC", L"kwtest", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  for (const ULONGLONG end = GetTickCount64() + ms; GetTickCount64() < end; Sleep(10)) {
    SendMessageW(window, WM_NULL, 0, 0);
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (HMODULE dll = GetModuleHandleW(KWINDEL_DLL_NAME)) return dll;
  }
  return nullptr;
}

// A scriptable stand-in for the local agent: listens on a UDP port of 127.0.0.1 (7886 by default)
// on its own thread, records (or only counts) the frames that arrive, acknowledges the chunks of each
// incoming frame and answers secret-audit requests with scripted datagrams or with a reply
// computed from the request. flush() tells when everything sent to it so far has been seen, so
// that "nothing more arrived" needs no sleep.
struct AgentScript {
  bool acknowledge = true;         // 128 zero bytes after every chunk of a frame but the last
  std::vector<std::string> reply;  // sent to the requester after a complete request
  bool reply_from_other_port = false;
  std::function<std::string(const std::string& request_document)> answer;  // the reply, when set
  bool record = true;  // false: count only, so that long runs keep no recordings
};

class TestAgent {
 public:
  explicit TestAgent(AgentScript script = AgentScript()) : script_(std::move(script)), socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
    const sockaddr_in address = loopback(7886);
    if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) socket_.reset();
    const DWORD poll_ms = 50;  // lets the thread notice the stop request
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&poll_ms), sizeof poll_ms);
    if (socket_.ok()) thread_ = std::thread([this] { run(); });
  }
  ~TestAgent() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  bool ok() const { return socket_.ok(); }  // false when the port was taken
  std::vector<std::string> frames() const { return locked([&] { return frames_; }); }  // complete, reassembled
  // The documents (text without its NUL) of the frames tagged `tag`, a record's time made "T".
  std::vector<std::string> documents(const std::string& tag) const {
    std::vector<std::string> out;
    for (const std::string& f : frames())
      if (tagged(f, tag.c_str())) out.push_back(without_time(f.substr(agent::kHeaderSize, f.size() - agent::kHeaderSize - 1)));
    return out;
  }
  size_t requests() const { return requests_; }  // complete secret-audit requests
  size_t audits() const { return audits_; }      // complete copy audit records
  bool wait_for_frames(size_t count, DWORD ms) const { return wait(ms, [&] { return frames_.size() >= count; }); }
  // Sends a marker to the agent and waits (10 s at most) until it arrived, after everything sent
  // to the agent before the call.
  bool flush() {
    const size_t target = locked([&] { return flushes_ + 1; });
    const sockaddr_in self = loopback(7886);
    OwnedSocket s(socket(AF_INET, SOCK_DGRAM, 0));
    sendto(s.get(), kFlush, sizeof kFlush, 0, reinterpret_cast<const sockaddr*>(&self), sizeof self);
    return wait(10000, [&] { return flushes_ >= target; });
  }
  // The port of the last complete request's sender; 0 before any request.
  uint16_t requester_port() const { return locked([&] { return requester_port_; }); }
  // Wire bytes of a frame from the library's encoder.
  static std::string frame(const std::string& tag, const std::string& text) {
    agent::AgentFrame f;
    return f.Build(tag.c_str(), text) ? std::string(f.data(), f.size()) : std::string();
  }

 private:
  static constexpr char kFlush[] = "<KWTEST_FLUSH>";
  static sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {AF_INET, htons(port)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  static bool tagged(const std::string& bytes, const char* tag) { return bytes.size() > agent::kHeaderSize && bytes.compare(0, strlen(tag) + 1, tag, strlen(tag) + 1) == 0; }
  template <typename F> auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  template <typename F> bool wait(DWORD ms, F done) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(ms), done);
  }
  void run() {
    std::vector<char> buffer(65536);
    std::string pending;  // the frame being reassembled
    size_t expected = 0;  // its announced size; 0 when no frame is in progress
    uint16_t sender = 0;  // its sender's port: a datagram from another port starts a new frame
    while (!stop_) {
      sockaddr_in from = {};
      int from_length = sizeof from;
      const int n = recvfrom(socket_.get(), buffer.data(), static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&from), &from_length);
      if (n < 0) continue;  // time-out (or a reset): poll the stop flag
      const std::string bytes(buffer.data(), n);
      if (bytes == std::string(kFlush, sizeof kFlush)) {
        locked([&] { ++flushes_; });
        changed_.notify_all();
        continue;
      }
      if (expected == 0 || ntohs(from.sin_port) != sender) {
        int32_t length = 0;
        if (n >= agent::kHeaderSize) std::memcpy(&length, bytes.data() + agent::kTagFieldSize, 4);
        expected = length > 0 ? agent::kHeaderSize + static_cast<size_t>(length) : static_cast<size_t>(n);
        pending.clear();
        sender = ntohs(from.sin_port);
      }
      pending += bytes;
      if (pending.size() < expected) {
        const char ack[agent::kAckSize] = {};
        if (script_.acknowledge) sendto(socket_.get(), ack, sizeof ack, 0, reinterpret_cast<const sockaddr*>(&from), sizeof from);
        continue;
      }
      expected = 0;
      const bool request = tagged(pending, agent::kSecretAuditRequestTag);
      requests_ += request ? 1 : 0;
      audits_ += tagged(pending, agent::kCopyAuditTag) ? 1 : 0;
      locked([&] {
        if (script_.record) frames_.push_back(pending);
        if (request) requester_port_ = sender;
      });
      changed_.notify_all();
      if (!request) continue;
      OwnedSocket other(script_.reply_from_other_port ? socket(AF_INET, SOCK_DGRAM, 0) : INVALID_SOCKET);
      const std::string document = pending.substr(agent::kHeaderSize, pending.size() - agent::kHeaderSize - 1);
      for (const std::string& d : script_.answer ? std::vector<std::string>{script_.answer(document)} : script_.reply) {
        sendto(other.ok() ? other.get() : socket_.get(), d.data(), static_cast<int>(d.size()), 0, reinterpret_cast<const sockaddr*>(&from), sizeof from);
      }
    }
  }

  AgentScript script_;
  agent::WinsockSession winsock_;  // (before the socket, which it outlives)
  OwnedSocket socket_;
  std::atomic<bool> stop_{false};
  std::atomic<size_t> requests_{0}, audits_{0};
  size_t flushes_ = 0;
  uint16_t requester_port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> frames_;
  std::thread thread_;
};

// What the end-to-end scenarios compare.
constexpr HRESULT kPassedOn = E_NOTIMPL;  // what Wine's own IFileOperation methods answer
constexpr DWORD kCopyAudit = KWINDEL_POLICY_COPY_AUDIT, kSecretAudit = KWINDEL_POLICY_SECRET_AUDIT;
constexpr DWORD kLocal = KWINDEL_POLICY_DEST_LOCAL, kRemovable = KWINDEL_POLICY_DEST_REMOVABLE;
constexpr DWORD kScreen = kCopyAudit | kSecretAudit | kLocal;
constexpr char kRequestTag[] = "<FILECOPY_SECRETAUDIT_REQUEST>", kResponseTag[] = "<FILECOPY_SECRETAUDIT_RESPONSE>";
constexpr char kAuditTag[] = "<FILECOPYAUDIT_DATA>";
const std::string kMagic("\x01\x02\x03\x04\x10\x20\x30\x40", 8);  // the first bytes of an encrypted file

// A response frame naming `secret_files` secret under `password` with `action`; `wrong_tag`: under a
// tag the library does not take (the tag's last character changed).
inline std::string secret_answer(const std::vector<std::string>& secret_files, const std::string& password, int action,
                                 bool wrong_tag = false) {
  std::string xml = "<SecretCheckResult encryptedpwd=\"" + password + "\" action=\"" + std::to_string(action) + "\">";
  for (const std::string& f : secret_files) xml += "<SecretFile path=\"" + f + "\"/>";
  std::string frame = TestAgent::frame(kResponseTag, xml + "</SecretCheckResult>");
  if (wrong_tag) frame[std::strlen(kResponseTag) - 1] = '_';
  return frame;
}
// An agent naming every File path of each request secret under "pw", action 1.
inline AgentScript all_secret(bool record = true) {
  return {true, {}, false, [](const std::string& request) {
            std::vector<std::string> files;
            const std::regex path("<File path=\"([^\"]*)\"/>");
            for (std::sregex_iterator it(request.begin(), request.end(), path), end; it != end; ++it) files.push_back((*it)[1]);
            return secret_answer(files, "pw", 1);
          }, record};
}
inline std::string process_name() { return narrow(exe_path().substr(exe_path().rfind(L'\\') + 1)); }
// The request document of this process (or `process`) for `sources` and `destination`.
inline std::string request_document(const std::vector<std::wstring>& sources, const std::wstring& destination,
                                    const std::string& process = process_name()) {
  std::string doc = "<CopyFiles processname=\"" + process + "\">";
  for (const std::wstring& s : sources) doc += "<File path=\"" + narrow(s) + "\"/>";
  return doc + "<DstFolder path=\"" + narrow(destination) + "\"/></CopyFiles>";
}
// The copy audit document of this process and user with time "T" (see TestAgent::documents).
inline std::string user_sid() {  // this process's user, S-1-5-...
  OwnedHandle token;
  OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.put());
  char user[256];
  DWORD size = 0;
  wchar_t* sid = nullptr;
  GetTokenInformation(token.get(), TokenUser, user, sizeof user, &size);
  ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &sid);
  const std::string text = narrow(sid);
  LocalFree(sid);
  return text;
}
inline std::string audit_document(const std::string& operation, const std::wstring& destination, const std::vector<std::wstring>& files) {
  std::string doc = "<FilesCopy processname=\"" + process_name() + "\" operation=\"" + operation +
        "\" flags=\"0\" time=\"T\" dstfloder=\"" + narrow(destination) + "\" usersid=\"" + user_sid() + "\"";
  doc += files.empty() ? "/>" : ">";  // the compact form of an empty element
  for (const auto& f : files) doc += "<File filename=\"" + narrow(f) + "\"/>";
  return files.empty() ? doc : doc + "</FilesCopy>";
}
// kwdecrypt.exe's exit code and, when asked, its output.
inline DWORD kwdecrypt(const std::wstring& args, std::string* output = nullptr) {
  const ChildResult r = run_child(tool_path(L"kwdecrypt"), args, 120000);
  if (output != nullptr) *output = r.output;
  return r.exit_code;
}
// kwdecrypt on `encrypted` with `password` succeeds and writes exactly `original`.
inline bool decrypts_to(const std::wstring& encrypted, const std::string& password, const std::string& original) {
  ScratchDir out;
  return kwdecrypt(L"\"" + encrypted + L"\" \"" + widen(password) + L"\" \"" + out.file(L"plain") + L"\"") == 0 &&
         content(out.file(L"plain")) == original;
}
// The user's parking folder of the library (ends with '\').
inline std::wstring parking_folder() {
  wchar_t base[MAX_PATH] = {};
  SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, base);
  return std::wstring(base) + L"\\kwindel\\parked\\";
}
// The originals parked by every process: each record's source (UTF-8) and the parked file; a
// record whose original went missing counts too.
inline std::vector<std::pair<std::string, std::wstring>> parked_records() {
  std::vector<std::pair<std::string, std::wstring>> out;
  const std::wstring root = parking_folder();
  WIN32_FIND_DATAW folder, record;
  OwnedFind folders(FindFirstFileW((root + L"*").c_str(), &folder));
  for (bool more = folders.ok(); more; more = FindNextFileW(folders.get(), &folder)) {
    const std::wstring dir = root + folder.cFileName + L"\\";
    for (const wchar_t* kind : {L".rec", L".missing"}) {
      OwnedFind records(folder.cFileName[0] == L'.' ? INVALID_HANDLE_VALUE : FindFirstFileW((dir + L"*" + kind).c_str(), &record));
      for (bool r = records.ok(); r; r = FindNextFileW(records.get(), &record)) {
        const std::wstring stem = dir + std::wstring(record.cFileName).substr(0, wcslen(record.cFileName) - wcslen(kind));
        const std::string text = content(stem + kind);
        out.emplace_back(text.substr(0, text.find('\n')), stem + L".orig");
      }
    }
  }
  return out;
}
inline std::string parked_original_of(const std::wstring& source) {  // its bytes, or "<none>"
  for (const auto& p : parked_records()) if (p.first == narrow(source)) return content(p.second);
  return "<none>";
}

// The end-to-end fixture: the real DLL loaded once into the test program (its entry installed the
// interceptions and started Winsock), COM started, a scratch folder per test, the policy off around
// each.
class Interception : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  void SetUp() override {
    ASSERT_NE(dll(), nullptr) << "the DLL did not load";
    set_policy(0);
  }
  void TearDown() override { set_policy(0); }
  static HMODULE dll() {
    static HMODULE module = LoadLibraryW(dll_path().c_str());  // kept for the program's life
    return module;
  }
  static void set_policy(DWORD policy) { fn<KwSetPolicyFn>(dll(), "SetPolicy")(policy, 0); }
  std::wstring make(const std::wstring& name, const std::string& bytes) {
    EXPECT_TRUE(write_file(dir.file(name), bytes));
    return dir.file(name);
  }
  std::wstring folder(const std::wstring& name) {
    CreateDirectoryW(dir.file(name).c_str(), nullptr);
    return dir.file(name);
  }
  ScratchDir dir;
};

}  // namespace kwtest
