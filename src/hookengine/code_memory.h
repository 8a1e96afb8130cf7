// The engine's own executable pages: relays and trampolines are carved out of 64 KB blocks
// reserved near the code they serve, never from the process heap, and never returned (a thread
// may still be running in them long after an unhook).
#pragma once
#include <cstddef>
#include <cstdint>

namespace hookengine {

// Returns `size` bytes of executable, writable memory whose every byte lies within +-2 GB
// (minus `size`) of `near_address`, or null when no such memory can be had. Alignment 16.
// Never allocates from the process heap, never waits on another thread.
uint8_t* allocate_code_near(uint64_t near_address, size_t size);

// Returns `size` bytes of executable, writable memory anywhere, or null.
uint8_t* allocate_code_anywhere(size_t size);

// Returns `size` bytes of plain read/write memory from the engine's own pages (bookkeeping that
// must not come from the process heap), zero-filled, or null.
void* allocate_engine_data(size_t size);

// True when `address` lies inside one of the engine's code blocks.
bool is_engine_code(uint64_t address);

// True when a rel32 displacement from the end of an instruction at `from` (of length
// `insn_length`) can reach `to`.
bool rel32_reaches(uint64_t from, size_t insn_length, uint64_t to);

}  // namespace hookengine
