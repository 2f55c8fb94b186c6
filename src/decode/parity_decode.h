// Decoding of the parity-and-repetition payload (FEC mode 0): every
// repetition of every coded bit is soft-combined through the index table, then
// each coded bit gets a hard decision and each group its parity check.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumamark {

// Result of one parity-mode decode.
struct ParityDecision {
  std::string coded;              // L hard decisions '0'/'1' (a bit with no vote reads '0')
  std::string bits;               // nbits payload bits taken from the data positions
  std::vector<double> soft;       // L combined soft values (positive = '0')
  std::vector<double> z;          // L reliabilities |soft| / sqrt(summed squares), 0 without votes
  std::vector<uint8_t> parity_ok; // one per group: 1 when the group's even parity holds
  double min_z = 0;               // weakest coded bit: the decode's confidence
  double rms_z = 0;               // root mean square of z over the coded bits: signal strength
};

// Combines cells 0 .. reps * L - 1 of soft (one value per superpixel): cell
// i * L + j carries coded bit indexes[(i mod 16) * L + j] (the embedder's table
// of 16 rows of L bytes, so only coded bits 0..255 are ever carried). nbits
// payload bits, L = nbits + (nbits + 7) / 8. Returns false for nbits < 1 or a
// length that does not match.
bool parity_decode(const float* soft, int32_t reps, const uint8_t* indexes, int32_t L,
                   int32_t nbits, ParityDecision* out);

}  // namespace lumamark
