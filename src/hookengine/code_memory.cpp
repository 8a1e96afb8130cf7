#include "hookengine/code_memory.h"

#include <windows.h>

namespace hookengine {
namespace {

constexpr size_t kBlockSize = 64 * 1024;  // the allocation granularity of Windows
constexpr size_t kMaxBlocks = 512;        // 32 MB of code at most: far beyond any real use
constexpr int64_t kReach = 0x7FFF0000;    // a little under 2 GB, to leave room for the block itself

struct Block {
  uint8_t* base;
  size_t used;
  bool code;
};

// Fixed table: the engine's bookkeeping must not touch the heap. Guarded by the engine lock of
// the caller (inline_hook.cpp serialises every entry).
Block g_blocks[kMaxBlocks];
size_t g_block_count = 0;

bool within(uint64_t a, uint64_t b, int64_t reach) {
  const int64_t d = static_cast<int64_t>(a - b);
  return d <= reach && d >= -reach;
}

uint8_t* carve(Block* block, size_t size) {
  const size_t start = (block->used + 15) & ~size_t{15};
  if (start + size > kBlockSize) return nullptr;
  block->used = start + size;
  return block->base + start;
}

Block* add_block(uint8_t* base, bool code) {
  if (g_block_count == kMaxBlocks) {
    VirtualFree(base, 0, MEM_RELEASE);
    return nullptr;
  }
  Block* block = &g_blocks[g_block_count++];
  block->base = base;
  block->used = 0;
  block->code = code;
  return block;
}

uint8_t* try_reserve(uint64_t at, uint64_t near_address) {
  void* got = VirtualAlloc(reinterpret_cast<void*>(at), kBlockSize, MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READ);
  if (got == nullptr) return nullptr;
  // The address is only a hint under some emulators: keep the block only if it is in reach.
  const uint64_t base = reinterpret_cast<uint64_t>(got);
  if (within(base, near_address, kReach) && within(base + kBlockSize, near_address, kReach)) {
    return static_cast<uint8_t*>(got);
  }
  VirtualFree(got, 0, MEM_RELEASE);
  return nullptr;
}

// Looks for a free 64 KB block within reach of `near_address`: first above it, then below.
uint8_t* reserve_near(uint64_t near_address) {
  SYSTEM_INFO info;
  GetSystemInfo(&info);
  const uint64_t granule = info.dwAllocationGranularity;
  const uint64_t lowest = (reinterpret_cast<uint64_t>(info.lpMinimumApplicationAddress) + granule - 1) & ~(granule - 1);
  const uint64_t highest = reinterpret_cast<uint64_t>(info.lpMaximumApplicationAddress);
  const uint64_t origin = near_address & ~(granule - 1);
  const uint64_t low = near_address > lowest + kReach ? near_address - kReach : lowest;
  const uint64_t high = near_address < highest - kReach ? near_address + kReach : highest;

  MEMORY_BASIC_INFORMATION mbi;
  for (uint64_t at = origin + granule; at + kBlockSize <= high;) {
    if (VirtualQuery(reinterpret_cast<void*>(at), &mbi, sizeof mbi) == 0) break;
    const uint64_t region_end = reinterpret_cast<uint64_t>(mbi.BaseAddress) + mbi.RegionSize;
    if (mbi.State == MEM_FREE && region_end - at >= kBlockSize) {
      if (uint8_t* p = try_reserve(at, near_address)) return p;
    }
    const uint64_t next = (region_end + granule - 1) & ~(granule - 1);
    at = next > at ? next : at + granule;
  }
  for (uint64_t at = origin; at >= low && at >= lowest;) {
    if (VirtualQuery(reinterpret_cast<void*>(at), &mbi, sizeof mbi) == 0) break;
    const uint64_t region_base = reinterpret_cast<uint64_t>(mbi.BaseAddress);
    const uint64_t region_end = region_base + mbi.RegionSize;
    if (mbi.State == MEM_FREE && region_end - at >= kBlockSize) {
      if (uint8_t* p = try_reserve(at, near_address)) return p;
    }
    // Step to the highest granule-aligned start whose block ends at or before this region.
    if (region_base < kBlockSize + lowest) break;
    const uint64_t next = (region_base - kBlockSize) & ~(granule - 1);
    at = next < at ? next : at - granule;
  }
  return nullptr;
}

}  // namespace

bool rel32_reaches(uint64_t from, size_t insn_length, uint64_t to) {
  const int64_t d = static_cast<int64_t>(to - (from + insn_length));
  return d >= INT32_MIN && d <= INT32_MAX;
}

uint8_t* allocate_code_near(uint64_t near_address, size_t size) {
  if (size == 0 || size > kBlockSize) return nullptr;
  for (size_t i = 0; i < g_block_count; ++i) {
    Block* block = &g_blocks[i];
    if (!block->code) continue;
    const uint64_t base = reinterpret_cast<uint64_t>(block->base);
    if (!within(base, near_address, kReach) || !within(base + kBlockSize, near_address, kReach)) continue;
    if (uint8_t* p = carve(block, size)) return p;
  }
  uint8_t* base = reserve_near(near_address);
  if (base == nullptr) return nullptr;
  Block* block = add_block(base, true);
  return block != nullptr ? carve(block, size) : nullptr;
}

uint8_t* allocate_code_anywhere(size_t size) {
  if (size == 0 || size > kBlockSize) return nullptr;
  for (size_t i = 0; i < g_block_count; ++i) {
    if (!g_blocks[i].code) continue;
    if (uint8_t* p = carve(&g_blocks[i], size)) return p;
  }
  void* got = VirtualAlloc(nullptr, kBlockSize, MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READ);
  if (got == nullptr) return nullptr;
  Block* block = add_block(static_cast<uint8_t*>(got), true);
  return block != nullptr ? carve(block, size) : nullptr;
}

void* allocate_engine_data(size_t size) {
  if (size == 0 || size > kBlockSize) return nullptr;
  for (size_t i = 0; i < g_block_count; ++i) {
    if (g_blocks[i].code) continue;
    if (uint8_t* p = carve(&g_blocks[i], size)) return p;
  }
  void* got = VirtualAlloc(nullptr, kBlockSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (got == nullptr) return nullptr;
  Block* block = add_block(static_cast<uint8_t*>(got), false);
  return block != nullptr ? carve(block, size) : nullptr;  // fresh pages are zero
}

CodeWriteScope::CodeWriteScope(void* at, size_t size) : at_(at), size_(size) {
  DWORD old = 0;
  writable_ = at != nullptr && VirtualProtect(at, size, PAGE_EXECUTE_READWRITE, &old) != 0;
}

CodeWriteScope::~CodeWriteScope() {
  if (!writable_) return;
  DWORD old = 0;
  VirtualProtect(at_, size_, PAGE_EXECUTE_READ, &old);
  FlushInstructionCache(GetCurrentProcess(), at_, size_);
}

bool is_engine_code(uint64_t address) {
  for (size_t i = 0; i < g_block_count; ++i) {
    const uint64_t base = reinterpret_cast<uint64_t>(g_blocks[i].base);
    if (g_blocks[i].code && address >= base && address < base + kBlockSize) return true;
  }
  return false;
}

}  // namespace hookengine
