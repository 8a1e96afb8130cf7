// kwtest-child.exe: the second process of the multi-process tests.
//   pump MS         pump messages (and send one to an own window) for up to MS milliseconds;
//                   exit 0 as soon as kwindel-x64.dll is loaded in this process, 1 otherwise
//   policy          load kwindel-x64.dll and print its shared policy block
//   agent MS ...    run the test agent for MS milliseconds (test_agent.h)
//   methods MS      as pump, then print how many of IFileOperation's CopyItems, MoveItems and
//                   PerformOperations now start with a jump, and what PerformOperations returns
#include "test_agent.h"  // before windows.h: it needs winsock2.h first
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <cstring>
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

// COM is bound at run time so that the child links nothing more than it did.
int methods(DWORD ms) {
  HMODULE ole32 = LoadLibraryW(L"ole32.dll");
  auto co_initialize = reinterpret_cast<HRESULT(WINAPI*)(void*, DWORD)>(
      reinterpret_cast<void*>(GetProcAddress(ole32, "CoInitializeEx")));
  auto co_create = reinterpret_cast<HRESULT(WINAPI*)(const GUID&, void*, DWORD, const GUID&, void**)>(
      reinterpret_cast<void*>(GetProcAddress(ole32, "CoCreateInstance")));
  const GUID clsid = {0x3AD05575, 0x8857, 0x4850, {0x92, 0x77, 0x11, 0xB8, 0x5B, 0xDB, 0x8E, 0x09}};
  const GUID iid = {0x947AAB5F, 0x0A5C, 0x4C13, {0xB4, 0xD6, 0x4B, 0xF7, 0x83, 0x6F, 0xC9, 0xF8}};
  co_initialize(nullptr, 2);  // apartment-threaded, as the DLL's own set-up
  void* object = nullptr;
  if (co_create(clsid, nullptr, 1 /* in-process server */, iid, reinterpret_cast<void**>(&object)) != S_OK) return 3;
  void** table = *reinterpret_cast<void***>(object);
  const int slots[3] = {17, 15, 21};
  unsigned char before[3][5];
  for (int i = 0; i < 3; ++i) std::memcpy(before[i], table[slots[i]], 5);
  const int loaded = pump(ms);
  int patched = 0;
  for (int i = 0; i < 3; ++i) {
    auto code = static_cast<const unsigned char*>(table[slots[i]]);
    if (std::memcmp(before[i], code, 5) != 0 && (code[0] == 0xE9 || (code[0] == 0xFF && code[1] == 0x25))) ++patched;
  }
  auto perform = reinterpret_cast<HRESULT(WINAPI*)(void*)>(table[21]);
  std::printf("patched %d result %08lx\n", patched, static_cast<unsigned long>(perform(object)));
  return loaded;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdout), _O_BINARY);  // the tests compare output byte for byte
  std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"pump" && argc > 2) return pump(static_cast<DWORD>(_wtoi(argv[2])));
  if (mode == L"policy") return policy();
  if (mode == L"methods" && argc > 2) return methods(static_cast<DWORD>(_wtoi(argv[2])));
  if (mode == L"agent" && argc > 2) return kwtest::test_agent_main(argc - 2, argv + 2);
  std::fprintf(stderr, "usage: kwtest-child pump MS | policy | methods MS | agent MS [--no-ack] [--other-port] [--ready EVENT] [--reply HEX]...\n");
  return 100;
}
