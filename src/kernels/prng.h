// The generator behind every dither, mask and shuffle except the Reed-Muller
// shuffle: a 64-bit xor/shift/rotate state transition whose output is the raw
// new state (no output multiplication), eight bytes per step.
#pragma once

#include <cstdint>

namespace lumamark {

struct Prng64 {
  uint32_t s0;     // first state word; set by prng64_seed (lo)
  uint32_t s1;     // second state word; set by prng64_seed (hi)
  uint8_t out[8];  // output of the last step: s0 then s1, each little-endian
};

inline void prng64_seed(Prng64* g, uint32_t lo, uint32_t hi) {
  g->s0 = lo;
  g->s1 = hi;
}

inline uint32_t rotr32(uint32_t v, int n) { return (v >> n) | (v << (32 - n)); }

// One step. Returns g->out, which holds the new state as eight bytes.
inline const uint8_t* prng64_next(Prng64* g) {
  const uint32_t t = g->s1 ^ g->s0;
  const uint32_t s0 = rotr32(g->s0, 6) ^ t ^ (t << 9);
  const uint32_t s1 = rotr32(t, 19);
  g->s0 = s0;
  g->s1 = s1;
  for (int k = 0; k < 4; ++k) {
    g->out[k] = static_cast<uint8_t>(s0 >> (8 * k));
    g->out[4 + k] = static_cast<uint8_t>(s1 >> (8 * k));
  }
  return g->out;
}

// The same step, returning the eight output bytes as one little-endian word.
inline uint64_t prng64_next_u64(Prng64* g) {
  prng64_next(g);
  return static_cast<uint64_t>(g->s0) | (static_cast<uint64_t>(g->s1) << 32);
}

}  // namespace lumamark
