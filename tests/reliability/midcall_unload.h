// The DLL's last reference dropped while a copy waits inside it for the agent, as a table of rows
// run through reliability-child in a fresh process each: the process must survive, the copy must
// end with the result it would have had, and the DLL (with its patches) must stay.
#pragma once
#include <gtest/gtest.h>

#include <thread>

#include "interception_fixture.h"
#include "responder.h"

namespace kwtest {

struct MidCallUnload {
  const wchar_t* how;           // "free": the program's FreeLibrary; "hook": the global hook removed
  int action;                   // the agent's late answer: action and password for the source
  const char* password;
  const char* expected_report;  // the child's line
  const char* expected_copy;    // the destination copy's first bytes, or "" for none
};

inline void run_midcall_unload(HMODULE dll, const ScratchDir& dir, const MidCallUnload& row);

// Every row with the secret audit on for local destinations, once (make test) or 25 times (make stress).
template <size_t N>
void run_midcall_unload_table(const LoadedDll& dll, const ScratchDir& dir, const MidCallUnload (&rows)[N]) {
  dll.set_policy(KWINDEL_POLICY_SECRET_AUDIT | KWINDEL_POLICY_DEST_LOCAL);
  for (int round = 0; round < iterations(1, 25); ++round) {
    for (const MidCallUnload& row : rows) run_midcall_unload(dll.module(), dir, row);
  }
}

inline void run_midcall_unload(HMODULE dll, const ScratchDir& dir, const MidCallUnload& row) {
  SCOPED_TRACE(narrow(row.how) + " action " + std::to_string(row.action) + " password '" + row.password + "'");
  const std::wstring source = dir.file(L"midcall.txt"), destination = dir.file(L"midcall-dst");
  ASSERT_TRUE(write_file(source, "content copied while the DLL goes"));
  CreateDirectoryW(destination.c_str(), nullptr);
  DeleteFileW((destination + L"\\midcall.txt").c_str());  // an earlier row's copy
  HANDLE release = CreateEventW(nullptr, TRUE, FALSE, L"kwtest-midcall-release");
  HANDLE released = CreateEventW(nullptr, TRUE, FALSE, L"kwtest-midcall-released");
  ASSERT_TRUE(release != nullptr && released != nullptr);
  auto install_hook_proc =
      reinterpret_cast<KwInstallHookProcFn>(reinterpret_cast<void*>(GetProcAddress(dll, "InstallHookProc")));
  const bool by_hook = std::wstring(row.how) == L"hook";
  TestAgent agent;  // silent until told
  ASSERT_TRUE(agent.ok());
  if (by_hook) ASSERT_EQ(install_hook_proc(TRUE), 1);
  ChildResult child;
  std::thread runner([&] {
    child = run_child(exe_dir() + L"reliability-child.exe",
                      L"midcall " + std::wstring(row.how) + L" \"" + source + L"\" \"" + destination + L"\"", 90000);
  });
  const bool asked = agent.wait_for_frames(1, 30000);
  if (by_hook) install_hook_proc(FALSE);
  SetEvent(release);
  const bool dropped = WaitForSingleObject(released, 30000) == WAIT_OBJECT_0;
  if (asked) agent.send_to_requester(secret_answer({utf8(source)}, row.password, row.action));
  runner.join();
  CloseHandle(release);
  CloseHandle(released);
  ASSERT_TRUE(asked) << "the copy never reached the agent: " << child.output;
  EXPECT_TRUE(dropped);
  EXPECT_TRUE(child.finished);
  EXPECT_EQ(child.exit_code, 0u) << child.output;
  EXPECT_EQ(child.output, row.expected_report);
  std::string copy;
  const bool copied = read_file(destination + L"\\midcall.txt", &copy);
  EXPECT_EQ(copied ? copy.substr(0, std::string(row.expected_copy).size()) : "<none>",
            *row.expected_copy != '\0' ? row.expected_copy : "<none>");
  std::string original;
  EXPECT_TRUE(read_file(source, &original) && original == "content copied while the DLL goes");
}

}  // namespace kwtest
