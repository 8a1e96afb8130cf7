// kwtest-child.exe: the second process of the multi-process tests.
//   pump MS            pump messages for up to MS ms; print "loaded" and exit 0 as soon as
//                      kwindel-x64.dll is in this process, else "not loaded" and exit 1
//   policy             load kwindel-x64.dll and print its shared policy block
//   teardown           load kwindel-x64.dll and end, printing every debug line of the process
//                      (those of the DLL's tear-down at the end included)
//   copy SRC DST       wait (10 s) for the global hook to bring the DLL in, queue a copy through
//                      the shell copy engine, print "loaded HRESULT"
//   swap-and-wait MARKER DST SRC...  load the DLL, queue a copy of the sources (an agent that
//                      names them secret has them swapped), write MARKER, wait to be killed
//   midcall free|hook SRC DST  a copy waits in the agent exchange while the DLL's last reference
//                      goes (see midcall below)
#include "kwtest.h"

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstdio>
#include <thread>

namespace {

using namespace kwtest;

// The first 16 bytes of IFileOperation's CopyItems, MoveItems, PerformOperations and of the
// exported CopyFileW, CopyFileExW, MoveFileWithProgressW, SHFileOperationW.
std::vector<std::string> entry_bytes(IFileOperation* op) {
  std::vector<const void*> code;
  if (op != nullptr) {
    void** table = *reinterpret_cast<void***>(op);
    code = {table[17], table[15], table[21]};
  }
  HMODULE kernel32 = GetModuleHandleW(L"kernel32.dll");
  for (const char* name : {"CopyFileW", "CopyFileExW", "MoveFileWithProgressW"}) code.push_back(fn<const void*>(kernel32, name));
  code.push_back(fn<const void*>(LoadLibraryW(L"shell32.dll"), "SHFileOperationW"));
  std::vector<std::string> out;
  for (const void* c : code) out.emplace_back(static_cast<const char*>(c), 16);
  return out;
}

// The copy of midcall's worker: queued and performed through the shell copy engine on 6.x, one
// SHFileOperationW before 6.
std::string worker_copy(const std::wstring& source, const std::wstring& destination) {
  char report[64];
  if (LOBYTE(LOWORD(GetVersion())) < 6) {
    SHFILEOPSTRUCTW op = {};
    const std::wstring from = source + L'\0', to = destination + L'\0';
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
    ComRef<IFileOperation> op;
    if (new_file_operation(&op)) {
      copy = queue(op.get(), false, {source}, destination);
      perform = op->PerformOperations();
    }
  }
  CoUninitialize();
  std::snprintf(report, sizeof report, "copy=%08lx perform=%08lx", static_cast<unsigned long>(copy),
                static_cast<unsigned long>(perform));
  return report;
}

// A worker thread's copy waits for the agent while the main thread drops the last reference to
// the DLL: its own FreeLibrary ("free") or, in a process the global hook brought it into, what
// the system does once the hook is gone ("hook": messages pumped, every reference released).
// Two more threads keep calling CopyFileW (hooked before 6) meanwhile. The test signals
// kwtest-midcall-release once the agent holds the request and answers after
// kwtest-midcall-released. Prints the worker's results, whether the DLL is still mapped, how
// many watched entries are still patched and how many CopyFileW calls failed.
int midcall(const std::wstring& how, const std::wstring& source, const std::wstring& destination) {
  OwnedHandle release(OpenEventW(SYNCHRONIZE, FALSE, L"kwtest-midcall-release"));
  OwnedHandle released(OpenEventW(EVENT_MODIFY_STATE, FALSE, L"kwtest-midcall-released"));
  if (!release.ok() || !released.ok()) return 3;
  CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  ComRef<IFileOperation> op;
  new_file_operation(&op);
  const auto before = entry_bytes(op.get());
  HMODULE dll = how == L"free" ? LoadLibraryW(dll_path().c_str()) : wait_for_injection(20000);
  if (dll == nullptr) return 4;
  std::string report;
  std::thread worker([&] { report = worker_copy(source, destination); });
  const std::wstring other = destination + L"\\..\\caller.txt";
  write_file(other, "caller");
  std::atomic<bool> stop{false};
  std::atomic<int> failed{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&, i] {
      const std::wstring to = destination + L"\\..\\caller-" + std::to_wstring(i) + L".txt";
      while (!stop) failed += CopyFileW(other.c_str(), to.c_str(), FALSE) ? 0 : 1;
    });
  }
  WaitForSingleObject(release.get(), 60000);
  if (how == L"free") {
    FreeLibrary(dll);
  } else {
    MSG msg;
    for (int i = 0; i < 20; ++i, Sleep(10)) {
      while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&msg);
    }
    for (int i = 0; i < 8 && (dll = GetModuleHandleW(L"kwindel-x64.dll")) != nullptr; ++i) FreeLibrary(dll);
  }
  SetEvent(released.get());
  worker.join();
  stop = true;
  for (std::thread& caller : callers) caller.join();
  const auto after = entry_bytes(op.get());
  int patched = 0;
  for (size_t i = 0; i < before.size(); ++i) patched += before[i] != after[i] ? 1 : 0;
  std::printf("%s loaded=%d patched=%d failed calls=%d\n", report.c_str(),
              GetModuleHandleW(L"kwindel-x64.dll") != nullptr ? 1 : 0, patched, failed.load());
  return 0;
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
  if (mode == L"policy") {
    volatile SharedBlockView* block = shared_block(LoadLibraryW(dll_path().c_str()));
    if (block == nullptr) return 2;
    std::printf("copy=%u secret=%u mask=%u encrypt=%u\n", block->copy_audit, block->secret_audit,
                block->audit_dest_mask, block->encrypt_audit);
    return 0;
  }
  if (mode == L"teardown") {
    AddVectoredExceptionHandler(1, [](EXCEPTION_POINTERS* info) -> LONG {
      const EXCEPTION_RECORD* rec = info->ExceptionRecord;
      DWORD wrote = 0;
      if (rec->ExceptionCode == 0x40010006 && rec->NumberParameters >= 2) {  // DBG_PRINTEXCEPTION_C: one debug line
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), reinterpret_cast<const char*>(rec->ExceptionInformation[1]),
                  static_cast<DWORD>(strnlen(reinterpret_cast<const char*>(rec->ExceptionInformation[1]), rec->ExceptionInformation[0])), &wrote, nullptr);
        WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), "\n", 1, &wrote, nullptr);
      }
      return EXCEPTION_CONTINUE_SEARCH;
    });
    return LoadLibraryW(dll_path().c_str()) != nullptr ? 0 : 2;
  }
  if (mode == L"midcall" && argc == 5) return midcall(argv[2], argv[3], argv[4]);
  if ((mode == L"copy" && argc == 4) || (mode == L"swap-and-wait" && argc > 4)) {
    const bool swap = mode != L"copy";
    if ((swap ? LoadLibraryW(dll_path().c_str()) : wait_for_injection(10000)) == nullptr) {
      std::printf("not loaded\n");
      return 1;
    }
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    HRESULT hr = E_FAIL;
    ComRef<IFileOperation> op;
    if (new_file_operation(&op)) {
      hr = swap ? queue(op.get(), false, std::vector<std::wstring>(argv + 4, argv + argc), argv[3])
                : queue(op.get(), false, {argv[2]}, argv[3]);
    }
    if (swap) {
      write_file(argv[2], std::to_string(hr));
      Sleep(INFINITE);
    }
    std::printf("loaded %08lx\n", static_cast<unsigned long>(hr));
    return 0;
  }
  std::fprintf(stderr, "usage: kwtest-child pump MS | policy | teardown | copy SRC DST | swap-and-wait MARKER DST SRC... | "
                       "midcall free|hook SRC DST\n");
  return 100;
}
