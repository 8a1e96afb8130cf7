/* A service's program built against the release package: it links kwindel-x64.dll (kwindel-x86.dll
 * when 32-bit) through the import library and calls it as include/kwindel.h says. Exit code 0 when
 * every answer is the documented one. KWINDEL_CONSUMER_ENTRY: no C runtime, the entry point is
 * consumer_main. */
#include <kwindel.h>

int consumer_main(void) {
  if (!SetPolicy(KWINDEL_POLICY_COPY_AUDIT | KWINDEL_POLICY_DEST_LOCAL, 0)) return 1;
  if (InstallHookProc(FALSE) != 1) return 2; /* removal reports success even without a hook */
  if (RemoveHook()) return 3;                /* unhooking a null handle fails */
  return SetPolicy(0, 0) ? 0 : 4;
}

#ifndef KWINDEL_CONSUMER_ENTRY
#include <stdio.h>

/* Names the kwindel DLL the import library brought in, so a package that hands a program the
 * other bitness's DLL or library is caught by name. */
int main(void) {
  static const char *const dlls[] = {"kwindel-x64.dll", "kwindel-x86.dll"};
  for (unsigned i = 0; i < sizeof dlls / sizeof *dlls; i++)
    if (GetModuleHandleA(dlls[i])) printf("loaded %s\n", dlls[i]);
  return consumer_main();
}
#endif
