// kwdemo-app.exe: a sample desktop program for the demo. It has a message loop, so the global
// hook brings the DLL of its bitness into it (kwindel-x64.dll, or kwindel-x86.dll into
// kwdemo-app-x86.exe), and then copies files the way Explorer does.
//   kwdemo-app wait [MS]                     report whether the DLL arrived within MS ms
//   kwdemo-app shell-engine DSTFOLDER SRC... copy each source through IFileOperation ("move:SRC"
//                                            moves it instead)
//   kwdemo-app shell-operation DSTFOLDER SRC... copy each source through SHFileOperationW
#include <winsock2.h>
#include <windows.h>
#include <objbase.h>
#include <shellapi.h>
#include <shlobj.h>
#include <shobjidl.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "host/owners.h"
#include "kwindel.h"

namespace {

constexpr HRESULT kRefused = static_cast<HRESULT>(0xFFFFFFFF);

bool wait_for_dll(DWORD ms) {
  MSG msg;
  PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE);
  HWND window = CreateWindowExW(0, L"STATIC", L"kwdemo-app", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr, nullptr);
  const ULONGLONG end = GetTickCount64() + ms;
  while (GetTickCount64() < end) {
    if (window != nullptr) SendMessageW(window, WM_NULL, 0, 0);
    PostThreadMessageW(GetCurrentThreadId(), WM_NULL, 0, 0);
    while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    if (GetModuleHandleW(KWINDEL_DLL_NAME) != nullptr) return true;
    Sleep(10);
  }
  return false;
}

// The selection Explorer would hand over: a data object from the source's folder.
bool data_object_for(const std::wstring& path, ComRef<IDataObject>* out) {
  const std::wstring folder = path.substr(0, path.rfind(L'\\'));
  std::wstring name = path.substr(path.rfind(L'\\') + 1);
  CoTaskMem<ITEMIDLIST> folder_id, child;
  ComRef<IShellFolder> desktop, shell_folder;
  if (FAILED(SHParseDisplayName(folder.c_str(), nullptr, folder_id.put(), 0, nullptr))) return false;
  if (FAILED(SHGetDesktopFolder(desktop.put()))) return false;
  if (FAILED(desktop->BindToObject(folder_id.get(), nullptr, IID_IShellFolder, shell_folder.put_void()))) return false;
  if (FAILED(shell_folder->ParseDisplayName(nullptr, nullptr, &name[0], nullptr, child.put(), nullptr))) return false;
  PCUITEMID_CHILD children[] = {reinterpret_cast<PCUITEMID_CHILD>(child.get())};
  return SUCCEEDED(shell_folder->GetUIObjectOf(nullptr, 1, children, IID_IDataObject, nullptr, out->put_void()));
}

std::wstring leaf(const std::wstring& path) { return path.substr(path.rfind(L'\\') + 1); }

int shell_engine(const std::wstring& destination, const std::vector<std::wstring>& sources) {
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  for (const std::wstring& argument : sources) {
    const bool move = argument.rfind(L"move:", 0) == 0;
    const std::wstring source = move ? argument.substr(5) : argument;
    const char* verb = move ? "MoveItems" : "CopyItems";
    ComRef<IFileOperation> op;
    ComRef<IDataObject> items;
    ComRef<IShellItem> target;
    if (FAILED(CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_IFileOperation, op.put_void())) ||
        !data_object_for(source, &items) ||
        FAILED(SHCreateItemFromParsingName(destination.c_str(), nullptr, IID_IShellItem, target.put_void()))) {
      std::printf("kwdemo-app: cannot set up a shell %s of %ls\n", move ? "move" : "copy", source.c_str());
      continue;
    }
    const HRESULT queued = move ? op->MoveItems(items.get(), target.get()) : op->CopyItems(items.get(), target.get());
    if (queued == kRefused) {
      std::printf("kwdemo-app: %s(%ls) was REFUSED (0xFFFFFFFF): nothing is %s\n", verb, leaf(source).c_str(),
                  move ? "moved" : "copied");
      continue;
    }
    std::printf("kwdemo-app: %s(%ls) was let through (0x%08lx from Wine's copy engine, which only queues)\n", verb,
                leaf(source).c_str(), static_cast<unsigned long>(queued));
    // Wine's engine does not carry out queued operations, so do its work here: read the source
    // now, while the queued operation would be reading it, and let a copy appear only if
    // PerformOperations runs. A move stands where the engine puts it before PerformOperations
    // returns, which is where the library looks for what the move carried off.
    const std::wstring result = destination + L"\\" + leaf(source), staged = move ? result : result + L".staged";
    if (move) MoveFileExW(source.c_str(), staged.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED);
    else CopyFileW(source.c_str(), staged.c_str(), FALSE);
    const HRESULT performed = op->PerformOperations();
    if (performed == kRefused) {
      if (move) MoveFileExW(staged.c_str(), source.c_str(), MOVEFILE_COPY_ALLOWED);
      else DeleteFileW(staged.c_str());
      std::printf("kwdemo-app: PerformOperations was REFUSED (0xFFFFFFFF): nothing is %s\n", move ? "moved" : "copied");
    } else {
      if (!move) MoveFileExW(staged.c_str(), result.c_str(), MOVEFILE_REPLACE_EXISTING);
      std::printf("kwdemo-app: PerformOperations ran (0x%08lx); the %s stands at %ls\n",
                  static_cast<unsigned long>(performed), move ? "moved file" : "copy", result.c_str());
    }
  }
  CoUninitialize();
  return 0;
}

int shell_operation(const std::wstring& destination, const std::vector<std::wstring>& sources) {
  for (const std::wstring& source : sources) {
    std::wstring from = source + L'\0', to = destination + L'\0';
    SHFILEOPSTRUCTW op = {};
    op.wFunc = FO_COPY;
    op.pFrom = from.c_str();
    op.pTo = to.c_str();
    op.fFlags = FOF_NOCONFIRMATION | FOF_SILENT | FOF_NOERRORUI | FOF_NOCONFIRMMKDIR;
    const int result = SHFileOperationW(&op);
    if (result == -1) std::printf("kwdemo-app: SHFileOperationW(%ls) was REFUSED (-1): nothing is copied\n", leaf(source).c_str());
    else std::printf("kwdemo-app: SHFileOperationW(%ls) copied it (result %d) to %ls\n", leaf(source).c_str(), result, destination.c_str());
  }
  return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  const std::wstring mode = argc > 1 ? argv[1] : L"wait";
  const bool copying = mode == L"shell-engine" || mode == L"shell-operation";
  if (!(mode == L"wait" || (copying && argc >= 4))) {
    std::fprintf(stderr, "usage: kwdemo-app wait [MS] | shell-engine DSTFOLDER SRC... | shell-operation DSTFOLDER SRC...\n");
    return 2;
  }
  const DWORD wait_ms = mode == L"wait" && argc > 2 ? static_cast<DWORD>(_wtoi(argv[2])) : 10000;
  const bool loaded = wait_for_dll(wait_ms);
  std::printf(loaded ? "kwdemo-app: %ls was injected into this %d-bit process (pid %lu)\n"
                     : "kwdemo-app: %ls did not arrive within the wait (%d-bit process, pid %lu)\n",
              KWINDEL_DLL_NAME, static_cast<int>(sizeof(void*) * 8), GetCurrentProcessId());
  std::fflush(stdout);
  if (!copying) return loaded ? 0 : 1;
  std::vector<std::wstring> sources(argv + 3, argv + argc);
  const int rc = mode == L"shell-engine" ? shell_engine(argv[2], sources) : shell_operation(argv[2], sources);
  std::fflush(stdout);
  return loaded ? rc : 1;
}
