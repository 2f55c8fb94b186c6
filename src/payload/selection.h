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

// Spreads a mask of reps x length bytes over the total superpixels: repetition
// j, symbol k goes to superpixel j * length + k. With an index table (16 rows
// of length bytes) it takes mask[indexes[(j & 15) * length + k] * reps + j];
// without one every repetition copies the first length bytes. Superpixels past
// the last whole repetition are set to 0.
void selection_spread(uint8_t* selection, const uint8_t* mask, const uint8_t* indexes,
                      int32_t total, int32_t length, int32_t reps);

}  // namespace lumamark
