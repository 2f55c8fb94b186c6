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

// Data bits per parity group in mode 0 for nbits >= 1: (total - 1) / groups
// with groups = (nbits + 7) / 8 and total = nbits + groups, at most 8. Group i
// holds payload bits i * g .. min((i + 1) * g, nbits) - 1 at coded positions
// shifted by i, followed by its parity character. 0 for nbits < 1.
int32_t fec_parity_group_size(int32_t nbits);

// Writes L coded symbols '0'/'1' to out (no terminator). 0, or negative.
int32_t rm_encode_payload(char* out, const char* id, int32_t nbits, int32_t L, uint32_t seed);

// Encodes k bit characters with redundancy r into out, out + stride, ... below
// end. Returns 0, or -1 on bad arguments.
int32_t rm_block_encode(char* out, char* end, int32_t stride, const char* bitchars, int32_t k,
                        int32_t r, uint32_t seed);

// How rm_encode_payload splits nbits payload bits into Reed-Muller blocks.
struct RmBlockSplit {
  int32_t blocks;      // number of blocks B (block i owns places i, i + B, ...); 0 for nbits < 1
  int32_t redundancy;  // r of every block: 3 (one block, up to 20 bits), 2 (up to 60), 1 (beyond)
};

// The split of nbits payload bits.
RmBlockSplit rm_block_split(int32_t nbits);

// First payload bit of block i of a split into blocks blocks; block i holds the
// bits rm_block_first_bit(i) .. rm_block_first_bit(i + 1) - 1.
int32_t rm_block_first_bit(int32_t i, int32_t nbits, int32_t blocks);

// Order m of the code of a block of k bits with redundancy r that fills needed
// places: the smallest m >= k + r - 1 with 2^m >= needed. -1 when m would
// exceed 31 or an argument is out of range.
int32_t rm_block_order(int32_t k, int32_t r, int64_t needed);

// Information word value a_i at i = k + offset, past the k payload bits:
// 1, 0, 1, 0, ... starting with 1.
inline uint8_t rm_pad_value(int32_t offset) { return static_cast<uint8_t>((offset & 1) ^ 1); }

// Codeword index (before the shuffle) of the symbol written at each of the
// first n read-out places of a block of order m shuffled with seed: out[t] is
// the index whose symbol lands on place t. Uses the same shuffle and chunked
// read-out as the encoder. 0, or -1 for bad arguments (n above 2^m) or a
// failed allocation.
int32_t rm_readout_indexes(uint32_t* out, int64_t n, int32_t m, uint32_t seed);

}  // namespace lumamark
