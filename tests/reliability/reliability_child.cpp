// reliability-child.exe: the other processes of the reliability tests.
//   agent-die PORTFILE [HEX]  bind the agent port, wait for one secret-audit request, write the
//                             requester's port to PORTFILE (PORTFILE.bound once bound), send the datagram HEX to it if given,
//                             then wait to be killed (exit 3 when the port is taken)
//   swap-and-wait MARKER DST SRC...  load kwindel-x64.dll, queue a copy of the sources to DST
//                             through the shell copy engine (the agent names them secret: they
//                             are swapped), write MARKER, then wait to be killed
//   midcall free|hook SOURCE DESTINATION
//                             a copy blocked in the agent exchange while the DLL's last reference
//                             goes (see midcall below)
// Watched entries: IFileOperation's CopyItems, MoveItems, PerformOperations and the exported
// CopyFileW, CopyFileExW, MoveFileWithProgressW, SHFileOperationW: their first 16 bytes.
#include <winsock2.h>
#include <windows.h>
#include <shobjidl.h>
#include <shellapi.h>

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <cstring>
#include <string>
#include <vector>

#include "kwtest.h"
#include "shell_items.h"
#include "test_agent.h"

namespace {

class Entries {
 public:
  Entries() {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    if (CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation,
                         reinterpret_cast<void**>(&op_)) == S_OK) {
      void** table = *reinterpret_cast<void***>(op_);
      for (int slot : {17, 15, 21}) code_.push_back(table[slot]);
    }
    HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
    HMODULE shell32 = LoadLibraryW(L"shell32.dll");
    for (const char* name : {"CopyFileW", "CopyFileExW", "MoveFileWithProgressW"}) {
      code_.push_back(reinterpret_cast<void*>(GetProcAddress(kernel32, name)));
    }
    code_.push_back(reinterpret_cast<void*>(GetProcAddress(shell32, "SHFileOperationW")));
  }
  ~Entries() {
    if (op_ != nullptr) op_->Release();
  }
  bool complete() const { return code_.size() == 7; }
  std::vector<std::string> bytes() const {
    std::vector<std::string> out;
    for (void* code : code_) out.emplace_back(static_cast<const char*>(code), 16);
    return out;
  }
  static int changed(const std::vector<std::string>& a, const std::vector<std::string>& b) {
    int n = 0;
    for (size_t i = 0; i < a.size(); ++i) n += a[i] != b[i] ? 1 : 0;
    return n;
  }

 private:
  IFileOperation* op_ = nullptr;
  std::vector<void*> code_;
};

HMODULE wait_for_injection(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);
  const ULONGLONG end = GetTickCount64() + ms;
  HMODULE dll = nullptr;
  while (dll == nullptr && GetTickCount64() < end) {
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    dll = GetModuleHandleW(L"kwindel-x64.dll");
    if (dll == nullptr) Sleep(10);
  }
  return dll;
}

// The copy the worker thread makes: queued and performed through the shell copy engine on 6.x,
// one SHFileOperationW on older systems. Returns "copy=RESULT perform=RESULT".
std::string worker_copy(const std::wstring& source, const std::wstring& destination) {
  char report[64];
  OSVERSIONINFOW version = {sizeof version};
  GetVersionExW(&version);
  if (version.dwMajorVersion < 6) {
    std::wstring from = source + L'\0', to = destination + L'\0';
    SHFILEOPSTRUCTW op = {};
    op.wFunc = FO_COPY;
    op.pFrom = from.c_str();
    op.pTo = to.c_str();
    op.fFlags = FOF_NO_UI;
    std::snprintf(report, sizeof report, "copy=%08x", static_cast<unsigned>(SHFileOperationW(&op)));
    return report;
  }
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  HRESULT copy = E_FAIL, perform = E_FAIL;
  {
    kwtest::Com<IFileOperation> op;
    kwtest::Com<IDataObject> items;
    kwtest::Com<IShellItem> target;
    if (kwtest::new_file_operation(&op) && kwtest::data_object_for({source}, &items) &&
        kwtest::shell_item_for(destination, &target)) {
      copy = op->CopyItems(items.get(), target.get());
      perform = op->PerformOperations();
    }
  }
  CoUninitialize();
  std::snprintf(report, sizeof report, "copy=%08lx perform=%08lx", static_cast<unsigned long>(copy),
                static_cast<unsigned long>(perform));
  return report;
}

// A worker thread's copy waits for the agent while the main thread drops the last reference to
// the DLL: its own FreeLibrary ("free"), or, in a process the global hook brought it into, what
// the system does once the hook is removed ("hook": messages pumped, every reference released).
// The test signals kwtest-midcall-release once the agent holds the request and answers after
// kwtest-midcall-released. Prints the worker's results, whether the DLL is still mapped and how
// many of the watched entries are still patched.
int midcall(const std::wstring& how, const std::wstring& source, const std::wstring& destination) {
  HANDLE release = OpenEventW(SYNCHRONIZE, FALSE, L"kwtest-midcall-release");
  HANDLE released = OpenEventW(EVENT_MODIFY_STATE, FALSE, L"kwtest-midcall-released");
  if (release == nullptr || released == nullptr) return 3;
  Entries entries;
  if (!entries.complete()) return 3;
  const auto before = entries.bytes();
  HMODULE dll = how == L"free" ? LoadLibraryW(kwtest::dll_path().c_str()) : wait_for_injection(20000);
  if (dll == nullptr) {
    std::printf("not loaded\n");
    return 4;
  }
  std::string report;
  std::thread worker([&] { report = worker_copy(source, destination); });
  // Meanwhile two threads keep calling CopyFileW (hooked on the older systems), entering and
  // leaving the hook while the references go.
  const std::wstring other = destination + L"\\..\\caller.txt";
  kwtest::write_file(other, "caller");
  std::atomic<bool> stop{false};
  std::atomic<int> failed{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&, i] {
      const std::wstring to = destination + L"\\..\\caller-" + std::to_wstring(i) + L".txt";
      while (!stop) failed += CopyFileW(other.c_str(), to.c_str(), FALSE) ? 0 : 1;
    });
  }
  WaitForSingleObject(release, 60000);
  if (how == L"free") {
    FreeLibrary(dll);
  } else {
    MSG msg;
    for (int i = 0; i < 20; ++i) {
      while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
      Sleep(10);
    }
    for (int i = 0; i < 8 && GetModuleHandleW(L"kwindel-x64.dll") != nullptr; ++i) {
      FreeLibrary(GetModuleHandleW(L"kwindel-x64.dll"));
    }
  }
  SetEvent(released);
  worker.join();
  stop = true;
  for (std::thread& caller : callers) caller.join();
  std::printf("%s loaded=%d patched=%d failed calls=%d\n", report.c_str(),
              GetModuleHandleW(L"kwindel-x64.dll") != nullptr ? 1 : 0, Entries::changed(before, entries.bytes()),
              failed.load());
  return 0;
}

int swap_and_wait(const std::wstring& marker, const std::wstring& destination, const std::vector<std::wstring>& sources) {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  if (LoadLibraryW(kwtest::dll_path().c_str()) == nullptr) return 4;
  kwtest::Com<IFileOperation> op;
  kwtest::Com<IDataObject> items;
  kwtest::Com<IShellItem> target;
  if (!kwtest::new_file_operation(&op) || !kwtest::data_object_for(sources, &items) ||
      !kwtest::shell_item_for(destination, &target)) {
    return 5;
  }
  const HRESULT hr = op->CopyItems(items.get(), target.get());
  kwtest::write_file(marker, std::to_string(hr));
  Sleep(INFINITE);
  return 0;
}

int agent_die(const std::wstring& port_file, const std::string& first_datagram) {
  WSADATA wsa;
  WSAStartup(MAKEWORD(2, 2), &wsa);
  SOCKET s = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(7886);
  address.sin_addr.s_addr = inet_addr("127.0.0.1");
  if (s == INVALID_SOCKET || bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return 3;
  kwtest::write_file(port_file + L".bound", "");
  std::vector<char> buffer(65536);
  for (;;) {
    sockaddr_in from = {};
    int from_length = sizeof from;
    const int n = recvfrom(s, buffer.data(), static_cast<int>(buffer.size()), 0, reinterpret_cast<sockaddr*>(&from),
                           &from_length);
    if (n < 36 || std::strcmp(buffer.data(), "<FILECOPY_SECRETAUDIT_REQUEST>") != 0) continue;
    if (!first_datagram.empty()) {
      sendto(s, first_datagram.data(), static_cast<int>(first_datagram.size()), 0, reinterpret_cast<sockaddr*>(&from),
             sizeof from);
    }
    // Written under another name first, so the test never reads half a number.
    const std::wstring partial = port_file + L".part";
    kwtest::write_file(partial, std::to_string(ntohs(from.sin_port)));
    MoveFileW(partial.c_str(), port_file.c_str());
    Sleep(INFINITE);
  }
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdout), _O_BINARY);
  const std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"midcall" && argc > 4) return midcall(argv[2], argv[3], argv[4]);
  if (mode == L"swap-and-wait" && argc > 4) {
    return swap_and_wait(argv[2], argv[3], std::vector<std::wstring>(argv + 4, argv + argc));
  }
  if (mode == L"agent-die" && argc > 2) {
    return agent_die(argv[2], argc > 3 ? kwtest::from_hex(kwtest::narrow(argv[3])) : std::string());
  }
  std::fprintf(stderr, "usage: reliability-child midcall free|hook SOURCE DESTINATION | swap-and-wait MARKER DST SRC... | agent-die PORTFILE [HEX]\n");
  return 100;
}
