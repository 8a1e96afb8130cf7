// The policy block: one copy for every process that has the library loaded.
#pragma once
#include <windows.h>
#include <cstdint>

// Lives in the shared, writable section ".hook"; all fields start at zero, so every interceptor
// passes calls through until the controlling service sets a policy. Plain 32-bit loads and
// stores, no lock: a reader may see a policy half updated, which is accepted.
struct PolicyBlock {
  volatile uint32_t g_encrypt_audit;    // policy bit 5: only printed in one trace line
  volatile uint32_t g_secret_audit;     // policy bit 1: ask the agent before a copy or move
  volatile uint32_t g_audit_dest_mask;  // policy bits 2-4: destination classes 0, 1, 2
  volatile uint32_t g_copy_audit;       // policy bit 0: send an audit record per copy or move
  HMODULE volatile g_module;            // the module handle of the last process that attached
  HHOOK volatile g_hook;                // the global window hook
};

extern PolicyBlock g_policy_block;

// True when a destination of class `dest_class` (0 local, 1 removable, 2 network) is watched by
// `dest_mask` (a g_audit_dest_mask value); the bits are tested in the order 1, 2, 4.
bool destination_class_watched(uint32_t dest_mask, int dest_class);
