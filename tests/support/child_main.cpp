// kwtest-child.exe: the second process of the multi-process tests.
//   pump MS         pump messages (and send one to an own window) for up to MS milliseconds;
//                   exit 0 as soon as kwindel-x64.dll is loaded in this process, 1 otherwise
//   policy          load kwindel-x64.dll and print its shared policy block
//   agent MS ...    run the test agent for MS milliseconds (test_agent.h)
#include "test_agent.h"  // before windows.h: it needs winsock2.h first
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cwchar>
#include <string>

#include "kwtest.h"

namespace {

int pump(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // creates the message queue
  HWND window = CreateWindowExW(0, L"STATIC", L"kwtest", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  const ULONGLONG end = GetTickCount64() + ms;
  while (GetTickCount64() < end) {
    if (window != nullptr) SendMessageW(window, WM_NULL, 0, 0);
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (GetModuleHandleW(L"kwindel-x64.dll") != nullptr) {
      std::printf("loaded\n");
      return 0;
    }
    Sleep(10);
  }
  std::printf("not loaded\n");
  return 1;
}

int policy() {
  kwtest::Library dll(kwtest::dll_path());
  volatile kwtest::SharedBlockView* block = kwtest::shared_block(dll.get());
  if (block == nullptr) return 2;
  std::printf("copy=%u secret=%u mask=%u encrypt=%u\n", block->copy_audit, block->secret_audit,
              block->audit_dest_mask, block->encrypt_audit);
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdout), _O_BINARY);  // the tests compare output byte for byte
  std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"pump" && argc > 2) return pump(static_cast<DWORD>(_wtoi(argv[2])));
  if (mode == L"policy") return policy();
  if (mode == L"agent" && argc > 2) return kwtest::test_agent_main(argc - 2, argv + 2);
  std::fprintf(stderr, "usage: kwtest-child pump MS | policy | agent MS [--no-ack] [--other-port] [--ready EVENT] [--reply HEX]...\n");
  return 100;
}
