/* kwindel-x64.dll and kwindel-x86.dll: the interface for the controlling service.
 *
 * One DLL per bitness, with the same exports under the same plain names. The service loads the
 * DLL of its own bitness itself (KWINDEL_DLL_NAME), installs the global window hook with InstallHook (or
 * InstallHookProc(TRUE)) so that Windows maps the DLL into every process that receives window
 * messages, and steers all loaded copies at once with SetPolicy. */
#ifndef KWINDEL_H
#define KWINDEL_H

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The DLL of the including program's bitness. */
#ifdef _WIN64
#define KWINDEL_DLL_NAME L"kwindel-x64.dll"
#else
#define KWINDEL_DLL_NAME L"kwindel-x86.dll"
#endif

/* Policy word bits for SetPolicy. Bits 6-31 are ignored. */
#define KWINDEL_POLICY_COPY_AUDIT        0x01u /* send a copy audit record for every copy or move */
#define KWINDEL_POLICY_SECRET_AUDIT      0x02u /* ask the agent about secret sources before a copy or move */
#define KWINDEL_POLICY_DEST_LOCAL        0x04u /* secret audit for destinations on local fixed drives */
#define KWINDEL_POLICY_DEST_REMOVABLE    0x08u /* ... on removable or USB drives */
#define KWINDEL_POLICY_DEST_NETWORK      0x10u /* ... on network paths (\\server\share) */
#define KWINDEL_POLICY_ENCRYPT_AUDIT     0x20u /* reserved switch: only shown in a trace line */
#define KWINDEL_POLICY_DEST_MASK         0x1Cu
#define KWINDEL_POLICY_ALL               0x3Fu

/* Installs a global WH_CALLWNDPROC hook with the given module (normally the DLL's own handle).
 * Returns TRUE when the hook is in place; on failure GetLastError tells why. */
BOOLEAN WINAPI InstallHook(HMODULE module);

/* Removes the hook installed by InstallHook or InstallHookProc. Returns FALSE and keeps the
 * handle (so it can be retried) when unhooking fails, also when no hook is installed. */
BOOLEAN WINAPI RemoveHook(void);

/* install TRUE: installs a global WH_GETMESSAGE hook with the DLL's own module; returns 1 on
 * success, 0 on failure. install FALSE: removes the hook and always returns 1. */
int WINAPI InstallHookProc(BOOLEAN install);

/* Sets the policy of every process that has the DLL loaded, effective at its next intercepted
 * call. reserved is not read. Always returns TRUE. */
BOOLEAN WINAPI SetPolicy(DWORD policy, DWORD reserved);

typedef BOOLEAN(WINAPI *KwInstallHookFn)(HMODULE);
typedef BOOLEAN(WINAPI *KwRemoveHookFn)(void);
typedef int(WINAPI *KwInstallHookProcFn)(BOOLEAN);
typedef BOOLEAN(WINAPI *KwSetPolicyFn)(DWORD, DWORD);

#ifdef __cplusplus
}
#endif

#endif /* KWINDEL_H */
