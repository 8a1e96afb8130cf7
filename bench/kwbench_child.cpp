// kwbench-child EVENT [shell]: the program whose start the load benchmark times. It creates its
// message queue, posts itself one message and takes it with GetMessageW (the point at which a
// global WH_GETMESSAGE hook maps the DLL of its bitness into it), then signals the named event EVENT.
// With "shell" it first loads ole32 and shell32 and initialises COM, as a desktop program does.
// kwbench-child parts DLL: see parts() below.
// Exit code 0 when KWINDEL_DLL_NAME is loaded at that point, 1 when it is not, 2 on a usage error.
// Imports kernel32 and user32 only, so the plain start is as cheap as a window program's can be.
#include <windows.h>

#include <cstdio>
#include <initializer_list>
#include <cwchar>

#include "kwindel.h"

namespace {
double milliseconds_since(const LARGE_INTEGER& start) {
  LARGE_INTEGER now, frequency;
  QueryPerformanceCounter(&now);
  QueryPerformanceFrequency(&frequency);
  return 1e3 * double(now.QuadPart - start.QuadPart) / double(frequency.QuadPart);
}

// kwbench-child parts DLL: where the load time goes. Loads the system DLLs that DLL imports and
// this program does not, then DLL itself (whose entry installs the interceptions), and prints
// "imports_ms X entry_ms Y".
int parts(const wchar_t* dll) {
  LARGE_INTEGER start;
  QueryPerformanceCounter(&start);
  for (const wchar_t* name : {L"advapi32.dll", L"ole32.dll", L"shell32.dll", L"ws2_32.dll"}) {
    if (LoadLibraryW(name) == nullptr) return 2;
  }
  const double imports = milliseconds_since(start);
  QueryPerformanceCounter(&start);
  if (LoadLibraryW(dll) == nullptr) return 2;
  std::printf("imports_ms %.2f entry_ms %.2f\n", imports, milliseconds_since(start));
  return 0;
}
}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 2) return 2;
  if (argc > 2 && std::wcscmp(argv[1], L"parts") == 0) return parts(argv[2]);
  if (argc > 2 && std::wcscmp(argv[2], L"shell") == 0) {
    HMODULE ole32 = LoadLibraryW(L"ole32.dll");
    LoadLibraryW(L"shell32.dll");
    using CoInitializeExFn = HRESULT(WINAPI*)(void*, DWORD);
    auto co_initialize = ole32 ? reinterpret_cast<CoInitializeExFn>(reinterpret_cast<void*>(GetProcAddress(ole32, "CoInitializeEx"))) : nullptr;
    if (co_initialize == nullptr) return 2;
    co_initialize(nullptr, 0x2);  // COINIT_APARTMENTTHREADED (objbase.h is left out on purpose)
  }
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);  // creates the queue
  PostThreadMessageW(GetCurrentThreadId(), WM_APP, 0, 0);
  GetMessageW(&msg, nullptr, 0, 0);
  const bool loaded = GetModuleHandleW(KWINDEL_DLL_NAME) != nullptr;
  HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[1]);
  if (event == nullptr) return 2;
  SetEvent(event);
  CloseHandle(event);
  return loaded ? 0 : 1;
}
