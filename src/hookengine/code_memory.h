// The engine's own executable pages: relays and trampolines are carved out of 64 KB blocks
// reserved near the code they serve (anywhere in a 32-bit process), never from the process heap, and never returned (a thread
// may still be running in them long after an unhook). Code pages are execute-read; they are
// writable only inside a CodeWriteScope, while the engine itself writes under its lock.
#pragma once
#include <cstddef>
#include <cstdint>

namespace hookengine {

// Returns `size` bytes of execute-read memory (write to it inside a CodeWriteScope) whose every byte lies within +-2 GB
// (minus `size`) of `near_address`, or null when no such memory can be had. Alignment 16.
// Never allocates from the process heap, never waits on another thread.
uint8_t* allocate_code_near(uint64_t near_address, size_t size);

// Returns `size` bytes of execute-read memory anywhere, or null.
uint8_t* allocate_code_anywhere(size_t size);

// Returns `size` bytes of plain read/write memory from the engine's own pages (bookkeeping that
// must not come from the process heap), zero-filled, or null.
void* allocate_engine_data(size_t size);

// Makes [at, at + size) of the engine's code pages writable for the scope's length, then
// execute-read again (and flushes the instruction cache). They stay executable meanwhile: other
// threads may be running relays that share the page. Use only under the engine lock.
class CodeWriteScope {
 public:
  CodeWriteScope(void* at, size_t size);
  ~CodeWriteScope();
  CodeWriteScope(const CodeWriteScope&) = delete;
  CodeWriteScope& operator=(const CodeWriteScope&) = delete;
  bool writable() const { return writable_; }

 private:
  void* at_;
  size_t size_;
  bool writable_ = false;
};

// True when `address` lies inside one of the engine's code blocks.
bool is_engine_code(uint64_t address);

// True when a rel32 displacement from the end of an instruction at `from` (of length
// `insn_length`) can reach `to`.
bool rel32_reaches(uint64_t from, size_t insn_length, uint64_t to);

}  // namespace hookengine
