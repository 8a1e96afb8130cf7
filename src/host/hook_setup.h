// Interception set-up and tear-down, run from the module entry in every process.
#pragma once
#include <windows.h>

// Cleared by a forbidding verdict so that the next PerformOperations refuses once.
extern volatile bool g_perform_operations_allowed;

// Runs at process attach under the loader lock: recovery of originals a dead process left parked,
// Winsock start-up, then the COM-method patches (major version 6 or later) or the four
// flat-function hooks. Not re-entrant.
void HookApi();
// Runs at process detach (in practice when the process ends, since the module stays loaded once it
// patched anything): puts parked originals back, empties the tables, removes every interception,
// cleans up Winsock.
void UnHookApi();

// True on an NT-family system (platform id 2) of major version 6 or later.
bool is_nt6_or_later();
// True when the extended version record reports major version 6 or later.
bool is_vista_or_later();
