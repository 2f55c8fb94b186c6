// Forward error correction: parity groups (mode 0) and the shuffled, punctured
// first-order Reed-Muller code (mode 2).
#pragma once

#include <cstdint>

namespace lumamark {

constexpr int32_t kRmChunk = 131072;  // shuffle chunk, codeword positions

// Coded bit string of the filter (malloc'ed, caller frees), or null. Mode 2
// returns a placeholder of L '0' characters; mode 0 returns data groups each
// followed by its even-parity character.
char* fec_encode(const char* id, int32_t nbits, int32_t L, int32_t mode);

// Writes L coded symbols '0'/'1' to out (no terminator). 0, or negative.
int32_t rm_encode_payload(char* out, const char* id, int32_t nbits, int32_t L, uint32_t seed);

// Encodes k bit characters with redundancy r into out, out + stride, ... below
// end. Returns 0, or -1 on bad arguments.
int32_t rm_block_encode(char* out, char* end, int32_t stride, const char* bitchars, int32_t k,
                        int32_t r, uint32_t seed);

}  // namespace lumamark
