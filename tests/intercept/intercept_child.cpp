// intercept-child.exe: a second desktop process for the injection tests.
//   copy SRC DSTFOLDER   pump messages until the global hook brought kwindel-x64.dll in (at most
//                        10 s), then queue a copy through the shell copy engine and print
//                        "loaded HRESULT" (or "not loaded").
#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <string>

#include "shell_items.h"

namespace {

bool wait_for_injection(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);
  const ULONGLONG end = GetTickCount64() + ms;
  while (GetTickCount64() < end) {
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (GetModuleHandleW(L"kwindel-x64.dll") != nullptr) return true;
    Sleep(10);
  }
  return false;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdout), _O_BINARY);
  if (argc != 4 || std::wstring(argv[1]) != L"copy") {
    std::fprintf(stderr, "usage: intercept-child copy SRC DSTFOLDER\n");
    return 2;
  }
  if (!wait_for_injection(10000)) {
    std::printf("not loaded\n");
    return 1;
  }
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  HRESULT hr = E_FAIL;
  {
    kwtest::Com<IFileOperation> op;
    kwtest::Com<IDataObject> items;
    kwtest::Com<IShellItem> target;
    if (kwtest::new_file_operation(&op) && kwtest::data_object_for({argv[2]}, &items) &&
        kwtest::shell_item_for(argv[3], &target)) {
      hr = op->CopyItems(items.get(), target.get());
    }
  }
  std::printf("loaded %08lx\n", static_cast<unsigned long>(hr));
  CoUninitialize();
  return 0;
}
