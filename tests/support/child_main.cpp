// kwtest-child.exe: the second process of the multi-process tests.
//   pump MS      pump messages for up to MS ms; print "loaded" and exit 0 as soon as
//                the DLL is in this process, else "not loaded" and exit 1
//   load         load the DLL, print its shared policy words, give the recovery that
//                the load starts in the background up to 10 s to put back what is parked, end;
//                every debug line of the process (the tear-down included) is printed as it comes
//   copy load|screen|hook end|perform|show|kill|wait DST SRC...  load the DLL (screen: and set the
//                screening policy in its block, which a DLL of the other bitness does not share;
//                hook: wait 10 s for the global hook to bring it in), queue a copy of the sources through the shell copy engine (copy
//                them with SHFileOperationW on the pre-6 path), print
//                "loaded HRESULT" (perform: and PerformOperations' result; show: and the first
//                source's bytes in hex, as the copy would read them), then end normally, be killed (no tear-down), or (wait) signal the
//                event "kwtest-queued", wait for "kwtest-perform" and run the copy first
//   fault        load the DLL and call the test build's export that faults inside it
#include "kwtest.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>

namespace {

using namespace kwtest;

LONG CALLBACK print_debug_line(EXCEPTION_POINTERS* info) {
  std::string line;
  if (!debug_line(info->ExceptionRecord, &line)) return EXCEPTION_CONTINUE_SEARCH;
  line += '\n';
  DWORD wrote = 0;
  WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line.data(), static_cast<DWORD>(line.size()), &wrote, nullptr);
  return EXCEPTION_CONTINUE_SEARCH;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  _setmode(_fileno(stdout), _O_BINARY);  // the tests compare output byte for byte
  const std::wstring mode = argc > 1 ? argv[1] : L"";
  if (mode == L"pump" && argc > 2) {
    const bool loaded = wait_for_injection(static_cast<DWORD>(_wtoi(argv[2]))) != nullptr;
    std::printf(loaded ? "loaded\n" : "not loaded\n");
    return loaded ? 0 : 1;
  }
  if (mode == L"load") {
    AddVectoredExceptionHandler(1, print_debug_line);
    volatile SharedBlockView* block = shared_block(LoadLibraryW(dll_path().c_str()));
    if (block == nullptr) return 2;
    std::printf("copy=%u secret=%u mask=%u encrypt=%u\n", block->copy_audit, block->secret_audit, block->audit_dest_mask,
                block->encrypt_audit);
    for (const ULONGLONG end = GetTickCount64() + 10000; !parked_records().empty() && GetTickCount64() < end;) Sleep(10);
    return 0;
  }
  if (mode == L"copy" && argc > 5) {
    const HMODULE dll = argv[2] == std::wstring(L"hook") ? wait_for_injection(10000) : LoadLibraryW(dll_path().c_str());
    if (dll == nullptr) {
      std::printf("not loaded\n");
      return 1;
    }
    if (argv[2] == std::wstring(L"screen")) fn<KwSetPolicyFn>(dll, "SetPolicy")(kScreen, 0);
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    ComRef<IFileOperation> op;
    const std::vector<std::wstring> sources(argv + 5, argv + argc);
    const HRESULT hr = kFlat ? shell_operation(FO_COPY, sources, argv[4])
                             : new_file_operation(&op) ? queue(op.get(), false, sources, argv[4]) : E_FAIL;
    std::printf("loaded %08lx", static_cast<unsigned long>(hr));
    if (argv[3] == std::wstring(L"perform") && op.ok()) std::printf(" %08lx", static_cast<unsigned long>(op->PerformOperations()));
    if (argv[3] == std::wstring(L"show")) {
      std::printf(" ");
      for (const unsigned char c : content(argv[5])) std::printf("%02x", c);
    }
    std::printf("\n");
    std::fflush(stdout);
    if (argv[3] == std::wstring(L"kill")) TerminateProcess(GetCurrentProcess(), 9);
    if (argv[3] == std::wstring(L"wait")) {
      OwnedHandle queued(CreateEventW(nullptr, TRUE, FALSE, L"kwtest-queued"));
      OwnedHandle perform(CreateEventW(nullptr, TRUE, FALSE, L"kwtest-perform"));
      SetEvent(queued.get());
      WaitForSingleObject(perform.get(), 60000);
      op->PerformOperations();
    }
    return 0;
  }
  if (mode == L"fault") {
    auto fault = fn<void(WINAPI*)(volatile int*)>(LoadLibraryW(dll_path().c_str()), "KwindelTestFault");
    if (fault != nullptr) fault(nullptr);
    return 3;
  }
  std::fprintf(stderr, "usage: kwtest-child pump MS | load | copy load|screen|hook end|perform|show|kill|wait DST SRC... | fault\n");
  return 100;
}
