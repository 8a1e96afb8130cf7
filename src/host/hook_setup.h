// Interception set-up and tear-down, run from the module entry in every process.
#pragma once
#include <windows.h>

// Guards the pending encrypted-file table and the swapped-source table; the only lock.
extern CRITICAL_SECTION g_pending_cs;
// Cleared by a forbidding verdict so that the next PerformOperations refuses once.
extern volatile bool g_perform_operations_allowed;

// Runs at process attach under the loader lock: Winsock start-up, the lock, then the COM-method
// patches (major version 6 or later) or the four flat-function hooks. Not re-entrant.
void HookApi();
// Runs at process detach: empties the tables, removes every interception, cleans up Winsock.
void UnHookApi();

// True on an NT-family system (platform id 2) of major version 6 or later.
bool is_nt6_or_later();
// True when the extended version record reports major version 6 or later.
bool is_vista_or_later();
