// Interception set-up and tear-down, run from the module entry in every process.
#pragma once
#include <windows.h>

// Runs at process attach under the loader lock: recovery of originals a dead process left parked,
// Winsock start-up, then the COM-method patches (major version 6 or later) or the four
// flat-function hooks. Not re-entrant.
void HookApi();
// Runs at process detach (in practice when the process ends, since the module stays loaded once it
// patched anything): puts parked originals back, empties the tables, removes every interception,
// cleans up Winsock.
void UnHookApi();

