// reliability-child.exe: the other processes of the reliability tests.
//   agent-die PORTFILE [HEX]  bind the agent port, wait for one secret-audit request, write the
//                             requester's port to PORTFILE (PORTFILE.bound once bound), send the datagram HEX to it if given,
//                             then wait to be killed (exit 3 when the port is taken)
//   cycle                     load and unload kwindel-x64.dll once; print how many of the watched
//                             entries the load changed and whether the unload restored them all
//   swap-and-wait MARKER DST SRC...  load kwindel-x64.dll, queue a copy of the sources to DST
//                             through the shell copy engine (the agent names them secret: they
//                             are swapped), write MARKER, then wait to be killed
//   injected MS               pump messages until the global hook brings the DLL in (at most MS),
//                             then release it and print the same as cycle plus the release count
// Watched entries: IFileOperation's CopyItems, MoveItems, PerformOperations and the exported
// CopyFileW, CopyFileExW, MoveFileWithProgressW, SHFileOperationW: their first 16 bytes.
#include <winsock2.h>
#include <windows.h>
#include <shobjidl.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
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

int cycle() {
  Entries entries;
  if (!entries.complete()) return 3;
  const auto before = entries.bytes();
  HMODULE dll = LoadLibraryW(kwtest::dll_path().c_str());
  if (dll == nullptr) return 4;
  const int patched = Entries::changed(before, entries.bytes());
  FreeLibrary(dll);
  const bool gone = GetModuleHandleW(L"kwindel-x64.dll") == nullptr;
  std::printf("patched=%d unloaded=%d restored=%d\n", patched, gone ? 1 : 0, entries.bytes() == before ? 1 : 0);
  return 0;
}

int injected(DWORD ms) {
  Entries entries;
  if (!entries.complete()) return 3;
  const auto before = entries.bytes();
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
  if (dll == nullptr) {
    std::printf("not loaded\n");
    return 1;
  }
  // No more messages from here on, so the hook never calls into the module again.
  const int patched = Entries::changed(before, entries.bytes());
  int releases = 0;
  while (GetModuleHandleW(L"kwindel-x64.dll") != nullptr && releases < 8) {
    FreeLibrary(GetModuleHandleW(L"kwindel-x64.dll"));
    ++releases;
  }
  const bool gone = GetModuleHandleW(L"kwindel-x64.dll") == nullptr;
  std::printf("patched=%d unloaded=%d restored=%d releases=%d\n", patched, gone ? 1 : 0,
              entries.bytes() == before ? 1 : 0, releases);
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
  if (mode == L"cycle") return cycle();
  if (mode == L"injected" && argc > 2) return injected(static_cast<DWORD>(_wtoi(argv[2])));
  if (mode == L"swap-and-wait" && argc > 4) {
    return swap_and_wait(argv[2], argv[3], std::vector<std::wstring>(argv + 4, argv + argc));
  }
  if (mode == L"agent-die" && argc > 2) {
    return agent_die(argv[2], argc > 3 ? kwtest::from_hex(kwtest::narrow(argv[3])) : std::string());
  }
  std::fprintf(stderr, "usage: reliability-child cycle | injected MS | agent-die PORTFILE [HEX]\n");
  return 100;
}
