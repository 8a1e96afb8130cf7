// The exported control functions and the shared policy block, through the real DLL.
#include <gtest/gtest.h>

#include "kwindel.h"
#include "kwtest.h"

namespace {

struct Policy { uint32_t copy, secret, mask, encrypt; };

class Exports : public ::testing::Test {
 protected:
  kwtest::Library dll{kwtest::dll_path()};
  KwSetPolicyFn set_policy = dll.fn<KwSetPolicyFn>("SetPolicy");
  KwInstallHookFn install_hook = dll.fn<KwInstallHookFn>("InstallHook");
  KwRemoveHookFn remove_hook = dll.fn<KwRemoveHookFn>("RemoveHook");
  KwInstallHookProcFn install_hook_proc = dll.fn<KwInstallHookProcFn>("InstallHookProc");
  volatile kwtest::SharedBlockView* block = kwtest::shared_block(dll.get());

  void SetUp() override {
    ASSERT_NE(dll.get(), nullptr) << "kwindel-x64.dll did not load";
    ASSERT_NE(block, nullptr);
    ASSERT_TRUE(set_policy && install_hook && remove_hook && install_hook_proc);
  }
  void TearDown() override {
    if (set_policy) set_policy(0, 0);
  }
  Policy policy() const { return {block->copy_audit, block->secret_audit, block->audit_dest_mask, block->encrypt_audit}; }
};

TEST_F(Exports, SetPolicyMapsEveryBitToItsWord) {
  struct Case { DWORD word; Policy expected; };
  const Case cases[] = {
      {0x3F, {1, 1, 7, 1}},        {0xFFFFFFC0, {0, 0, 0, 0}}, {0x1C, {0, 0, 7, 0}},
      {0x01, {1, 0, 0, 0}},        {0x02, {0, 1, 0, 0}},       {0x04, {0, 0, 1, 0}},
      {0x08, {0, 0, 2, 0}},        {0x10, {0, 0, 4, 0}},       {0x20, {0, 0, 0, 1}},
      {0xFFFFFFFF, {1, 1, 7, 1}},  {0x4B, {1, 1, 2, 0}},
  };
  for (const Case& c : cases) {
    EXPECT_TRUE(set_policy(c.word, 0xDEADBEEF));
    Policy p = policy();
    EXPECT_EQ(p.copy, c.expected.copy) << std::hex << c.word;
    EXPECT_EQ(p.secret, c.expected.secret) << std::hex << c.word;
    EXPECT_EQ(p.mask, c.expected.mask) << std::hex << c.word;
    EXPECT_EQ(p.encrypt, c.expected.encrypt) << std::hex << c.word;
  }
}

TEST_F(Exports, SetPolicyWritesTheBareDebugLine) {
  kwtest::TraceCapture capture;
  EXPECT_TRUE(set_policy(0x07, 0));
  std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "SetPolicy");
}

TEST_F(Exports, RemovalWithoutAHook) {
  ASSERT_EQ(block->hook, nullptr);
  EXPECT_EQ(install_hook_proc(FALSE), 1);  // removal always reports success
  EXPECT_EQ(block->hook, nullptr);
  EXPECT_FALSE(remove_hook());             // unhooking a null handle fails
  EXPECT_EQ(block->hook, nullptr);
}

TEST_F(Exports, EntryStoresTheModuleHandleInTheSharedBlock) {
  EXPECT_EQ(block->module, static_cast<void*>(dll.get()));
}

TEST_F(Exports, PolicyIsSharedWithASeparateProcess) {
  ASSERT_TRUE(set_policy(0x2B, 0));  // copy 1, secret 1, mask 2, encrypt 1
  kwtest::ChildResult r = kwtest::run_child(kwtest::child_path(), L"policy", 30000);
  ASSERT_TRUE(r.finished);
  EXPECT_EQ(r.exit_code, 0u);
  EXPECT_EQ(r.output, "copy=1 secret=1 mask=2 encrypt=1\n");
  ASSERT_TRUE(set_policy(0x10, 0));
  r = kwtest::run_child(kwtest::child_path(), L"policy", 30000);
  EXPECT_EQ(r.output, "copy=0 secret=0 mask=4 encrypt=0\n");
}

TEST_F(Exports, GetMessageHookInjectsIntoAProcessThatPumpsMessages) {
  ASSERT_EQ(install_hook_proc(TRUE), 1) << GetLastError();
  EXPECT_NE(block->hook, nullptr);
  kwtest::ChildResult r = kwtest::run_child(kwtest::child_path(), L"pump 10000", 30000);
  EXPECT_EQ(r.output, "loaded\n");
  EXPECT_EQ(r.exit_code, 0u);
  EXPECT_EQ(install_hook_proc(FALSE), 1);
  EXPECT_EQ(block->hook, nullptr);
  r = kwtest::run_child(kwtest::child_path(), L"pump 1500", 30000);
  EXPECT_EQ(r.output, "not loaded\n");
  EXPECT_EQ(r.exit_code, 1u);
}

TEST_F(Exports, CallWndProcHookInjectsAndRemoveHookStopsIt) {
  ASSERT_TRUE(install_hook(dll.get())) << GetLastError();
  EXPECT_NE(block->hook, nullptr);
  kwtest::ChildResult r = kwtest::run_child(kwtest::child_path(), L"pump 10000", 30000);
  EXPECT_EQ(r.output, "loaded\n");
  EXPECT_TRUE(remove_hook());
  EXPECT_EQ(block->hook, nullptr);
  r = kwtest::run_child(kwtest::child_path(), L"pump 1500", 30000);
  EXPECT_EQ(r.output, "not loaded\n");
}

TEST_F(Exports, InstallHookWithABadModuleFailsAndStoresNull) {
  SetLastError(0);
  EXPECT_FALSE(install_hook(nullptr));  // a global hook needs a module
  EXPECT_EQ(block->hook, nullptr);
}

}  // namespace
