// The fixed key mask of the encrypted-file format (a deployment setting, see KWINDEL_KEY_MASK).
#pragma once
#include <cstdint>

// Writes the 32 mask bytes into `out`, one byte store at a time, so the mask never stands as
// one sequence in the binary. Callers wipe their copy when done.
void KeyMask(uint8_t out[32]);
