// kwdemo-app.exe: a sample desktop program for the demo. It has a window and a message loop,
// so the global hook brings kwindel-x64.dll into it, and reports when that happened.
#include <windows.h>

#include <cstdio>
#include <cwchar>

int wmain(int argc, wchar_t** argv) {
  const DWORD wait_ms = argc > 1 ? static_cast<DWORD>(_wtoi(argv[1])) : 10000;
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);
  HWND window = CreateWindowExW(0, L"STATIC", L"kwdemo-app", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  const ULONGLONG end = GetTickCount64() + wait_ms;
  bool loaded = false;
  while (!loaded && GetTickCount64() < end) {
    if (window != nullptr) SendMessageW(window, WM_NULL, 0, 0);
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    loaded = GetModuleHandleW(L"kwindel-x64.dll") != nullptr;
    if (!loaded) Sleep(10);
  }
  std::printf(loaded ? "kwdemo-app: kwindel-x64.dll was injected into this process (pid %lu)\n"
                     : "kwdemo-app: kwindel-x64.dll did not arrive within the wait (pid %lu)\n",
              GetCurrentProcessId());
  return loaded ? 0 : 1;
}
