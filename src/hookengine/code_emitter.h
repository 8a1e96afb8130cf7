// Writes x86 machine code (64-bit or 32-bit) into a bounded buffer whose bytes will run at another
// (runtime) address: relays and stubs written in place, patches and trampolines built aside. Plain
// portable C++ (no Windows headers): the relocator builds natively too.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "hookengine/x64_decoder.h"

namespace hookengine {

// True when a distance fits the signed 32-bit field of a rel32 or disp32.
inline bool fits_rel32(int64_t delta) { return delta >= INT32_MIN && delta <= INT32_MAX; }

// The mode of the code this build of the engine runs in.
constexpr Mode kHostMode = sizeof(void*) == 8 ? Mode::k64 : Mode::k32;

class CodeEmitter {
 public:
  // Writes from `at` on, at most `capacity` bytes; at[0] runs at `runtime_address`, in `mode`
  // (32-bit: addresses wrap at 4 GB, so every rel32 reaches).
  CodeEmitter(uint8_t* at, size_t capacity, uint64_t runtime_address, Mode mode = Mode::k64)
      : base_(at), capacity_(capacity), runtime_(runtime_address), wraps_(mode == Mode::k32) {}
  // Writes in place: the buffer runs where it is, in this build's mode.
  CodeEmitter(uint8_t* at, size_t capacity)
      : CodeEmitter(at, capacity, reinterpret_cast<uintptr_t>(at), kHostMode) {}

  // Appends bytes; a write that would pass the capacity is dropped whole and sets overflow().
  CodeEmitter& bytes(const uint8_t* p, size_t n) {
    if (overflow_ || n > capacity_ - size_) {
      overflow_ = true;
      return *this;
    }
    std::memcpy(base_ + size_, p, n);
    size_ += n;
    return *this;
  }
  CodeEmitter& bytes(std::initializer_list<uint8_t> list) { return bytes(list.begin(), list.size()); }
  CodeEmitter& byte(uint8_t b) { return bytes(&b, 1); }
  CodeEmitter& u32(uint32_t v) {
    uint8_t p[4];
    std::memcpy(p, &v, 4);
    return bytes(p, 4);
  }
  CodeEmitter& u64(uint64_t v) {
    uint8_t p[8];
    std::memcpy(p, &v, 8);
    return bytes(p, 8);
  }
  // A rel32 (or disp32) field that ends the current instruction, aimed at runtime address `to`;
  // the caller has made sure it reaches.
  CodeEmitter& rel32_to(uint64_t to) { return u32(static_cast<uint32_t>(static_cast<int32_t>(to - (here() + 4)))); }
  // The disp32 of a [rip+disp32] operand ending the current instruction, aimed at `data` in this buffer.
  CodeEmitter& rip_to(const uint8_t* data) { return rel32_to(runtime_ + static_cast<uint64_t>(data - base_)); }
  // True when a rel32 ending at runtime address `end` reaches `to`.
  bool reaches(uint64_t end, uint64_t to) const { return wraps_ || fits_rel32(static_cast<int64_t>(to - end)); }
  // jmp to `to`: E9 rel32 when it reaches, else jmp [rip+0] followed by the address (64-bit only).
  CodeEmitter& jmp(uint64_t to) {
    if (!reaches(here() + 5, to)) return jmp_absolute(to);
    return byte(0xE9).rel32_to(to);
  }
  CodeEmitter& jmp_absolute(uint64_t to) { return bytes({0xFF, 0x25, 0, 0, 0, 0}).u64(to); }
  // Length of jmp(to) emitted at runtime address `at`.
  size_t jmp_length(uint64_t at, uint64_t to) const { return reaches(at + 5, to) ? 5 : 14; }
  // One decoded instruction (`length` bytes of `code`) copied with its rel32/disp32 field at offset
  // `field` re-aimed at `to`, measured from the copy's end. False, nothing written, when it does
  // not reach.
  bool copy_retargeted(const uint8_t* code, size_t length, size_t field, uint64_t to) {
    const int64_t delta = static_cast<int64_t>(to - (here() + length));
    if (!reaches(here() + length, to)) return false;
    uint8_t copy[16];  // an instruction is at most 15 bytes
    std::memcpy(copy, code, length);
    const uint32_t d32 = static_cast<uint32_t>(delta);
    std::memcpy(copy + field, &d32, 4);
    bytes(copy, length);
    return true;
  }

  uint64_t here() const { return runtime_ + size_; }  // runtime address of the next byte
  size_t size() const { return size_; }
  bool overflow() const { return overflow_; }

 private:
  uint8_t* base_;
  size_t capacity_;
  uint64_t runtime_;
  bool wraps_;
  size_t size_ = 0;
  bool overflow_ = false;
};

}  // namespace hookengine
