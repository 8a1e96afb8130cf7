#include "protect/key_mask.h"

// KWINDEL_KEY_MASK_0 ... KWINDEL_KEY_MASK_31 come from the build (src/protect/CMakeLists.txt).
// Each becomes the immediate operand of its own store; the volatile pointer keeps the compiler
// from merging the stores into a constant that would sit in the data section.
void KeyMask(uint8_t out[32]) {
  volatile uint8_t* p = out;
#define KW_MASK_BYTE(i) p[i] = static_cast<uint8_t>(KWINDEL_KEY_MASK_##i)
  KW_MASK_BYTE(0);  KW_MASK_BYTE(1);  KW_MASK_BYTE(2);  KW_MASK_BYTE(3);
  KW_MASK_BYTE(4);  KW_MASK_BYTE(5);  KW_MASK_BYTE(6);  KW_MASK_BYTE(7);
  KW_MASK_BYTE(8);  KW_MASK_BYTE(9);  KW_MASK_BYTE(10); KW_MASK_BYTE(11);
  KW_MASK_BYTE(12); KW_MASK_BYTE(13); KW_MASK_BYTE(14); KW_MASK_BYTE(15);
  KW_MASK_BYTE(16); KW_MASK_BYTE(17); KW_MASK_BYTE(18); KW_MASK_BYTE(19);
  KW_MASK_BYTE(20); KW_MASK_BYTE(21); KW_MASK_BYTE(22); KW_MASK_BYTE(23);
  KW_MASK_BYTE(24); KW_MASK_BYTE(25); KW_MASK_BYTE(26); KW_MASK_BYTE(27);
  KW_MASK_BYTE(28); KW_MASK_BYTE(29); KW_MASK_BYTE(30); KW_MASK_BYTE(31);
#undef KW_MASK_BYTE
}
