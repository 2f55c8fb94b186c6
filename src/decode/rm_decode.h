// Soft-decision decoding of the shuffled, punctured Reed-Muller payload code
// (FEC mode 2): every block is decoded by one fast Walsh-Hadamard transform
// over the codewords whose pad bits are the known 1, 0, 1, ... pattern.
#pragma once

#include <cstdint>
#include <vector>

namespace lumamark {

// Decision for one Reed-Muller block.
struct RmBlockDecision {
  int32_t first_bit = 0;  // first payload bit of the block, 0..nbits-1
  int32_t bits = 0;       // payload bits in the block, 1..20
  double corr = 0;        // winning correlation (signed; negative means a0 = 1)
  double z = 0;           // |corr| over the noise level of a correlation, >= 0
};

// One block of the decoding plan: where its symbols sit in the coded string and
// which folded transform point each of them feeds.
struct RmPlanBlock {
  int32_t first_bit = 0;       // first payload bit, 0..nbits-1
  int32_t bits = 0;            // payload bits k, 1..20
  int32_t order = 0;           // code order m (codeword of 2^m positions)
  int32_t places = 0;          // symbols owned: places block, block + B, ... below L
  std::vector<uint32_t> fold;  // per place: transform point (low k - 1 index bits),
                               // bit 31 set when the known pad part flips its sign
};

// Everything about a payload code that does not depend on the measured values;
// built once per (nbits, L, seed) and reused for every frame.
struct RmDecodePlan {
  int32_t nbits = 0;                // payload bits, 1..2048
  int32_t length = 0;               // coded symbols L (one per superpixel)
  int32_t stride = 0;               // number of blocks B; block i owns places i, i + B, ...
  std::vector<RmPlanBlock> blocks;  // B blocks in payload order
};

// Builds the plan with the encoder's block split, code order, shuffle and
// read-out. 0, or -1 when the encoder would refuse (nbits < 1, nbits > L,
// a code order above 31) or memory runs out.
int32_t rm_decode_plan(RmDecodePlan* plan, int32_t nbits, int32_t L, uint32_t seed);

// Work buffers of the decoder, reused between calls.
struct RmDecodeScratch {
  std::vector<float> points;  // folded correlations, 2^(k-1) per block
};

// Decodes L soft values (positive = '0', magnitude = reliability, 0 =
// unknown) with a plan. Writes nbits '0'/'1' characters to bits (no
// terminator) and one decision per block to decisions (plan.blocks.size()
// entries). Returns the smallest block z.
double rm_decode_with_plan(const RmDecodePlan& plan, const float* soft, char* bits,
                           RmBlockDecision* decisions, RmDecodeScratch* scratch);

// Decides one block from its folded points (2^(bits - 1) values, each the
// signed sum of the soft values folded onto it; transformed in place) and the
// summed squares of those soft values: writes the block's bits at
// bits + first_bit and returns its decision.
RmBlockDecision rm_decide_block(const RmPlanBlock& b, float* points, double energy, char* bits);

// One-shot form: builds the plan for (nbits, L, seed), decodes, and fills bits
// (nbits characters) and decisions (one per block). 0, or -1 as for
// rm_decode_plan.
int32_t rm_decode_payload(const float* soft, int32_t L, int32_t nbits, uint32_t seed, char* bits,
                          std::vector<RmBlockDecision>* decisions);

// In-place unnormalised Walsh-Hadamard transform of n = 2^order values:
// out[u] = sum over j of in[j] * (-1)^popcount(u AND j).
void walsh_hadamard(float* v, int32_t order);

// Blocks with fewer other candidates than this measure their noise level from
// the soft values themselves rather than from the other candidates.
constexpr int32_t kMinNoiseCandidates = 63;

}  // namespace lumamark
