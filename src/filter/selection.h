// Per-frame selection mask: which coded symbols of which repetition are embedded.
#pragma once

#include <cstdint>

namespace lumamark {

// reps == 1: one block of length bytes; otherwise block k (reps bytes at
// out + k * reps) uses seed + 67 * k.
void selection_mask(uint8_t* out, int32_t reps, int32_t length, int32_t density, int32_t seed);

// n bytes of 0/1 whose count of ones is corrected to (density * n) / 100
// (no correction when n is 1).
void selection_block(uint8_t* out, int32_t n, int32_t density, int32_t seed);

}  // namespace lumamark
