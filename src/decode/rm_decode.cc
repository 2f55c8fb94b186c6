// Soft-decision decoding of the Reed-Muller payload code.
//
// A block of k payload bits is encoded as c[j] = a0 XOR <a1..am, bits of j>,
// where a0 is the block's first bit, a1..a(k-1) its other bits and ak..am the
// known pad 1, 0, 1, ... Split j into its low k - 1 bits (paired with the
// unknown bits) and its high bits (paired with the pad): the pad's share of
// every codeword is a known sign per position, so the soft values are folded
// onto 2^(k-1) points with that sign, and one Walsh-Hadamard transform of the
// folded points gives the correlation with every candidate at once. The
// largest magnitude wins; its sign is a0.
#include "decode/rm_decode.h"

#include <bit>
#include <cmath>
#include <cstddef>
#include <new>

#include "payload/fec.h"

namespace lumamark {

namespace {

constexpr uint32_t kSignBit = 0x80000000u;
constexpr uint32_t kPointMask = 0x7fffffffu;

// Sign mask of the pad over the high index bits: high bit i pairs with
// information value a(k + i).
uint32_t pad_mask(int32_t high_bits) {
  uint32_t mask = 0;
  for (int32_t i = 0; i < high_bits && i < 32; ++i) {
    if (rm_pad_value(i) != 0) mask |= 1u << i;
  }
  return mask;
}

}  // namespace

void walsh_hadamard(float* v, int32_t order) {
  const size_t n = size_t{1} << order;
  for (size_t h = 1; h < n; h <<= 1) {
    for (size_t i = 0; i < n; i += 2 * h) {
      float* lo = v + i;
      float* hi = v + i + h;
      for (size_t j = 0; j < h; ++j) {
        const float a = lo[j];
        const float b = hi[j];
        lo[j] = a + b;
        hi[j] = a - b;
      }
    }
  }
}

int32_t rm_decode_plan(RmDecodePlan* plan, int32_t nbits, int32_t L, uint32_t seed) {
  if (plan == nullptr || nbits < 1 || nbits > L) return -1;
  const RmBlockSplit split = rm_block_split(nbits);
  plan->nbits = nbits;
  plan->length = L;
  plan->stride = split.blocks;
  plan->blocks.clear();
  try {
    plan->blocks.resize(static_cast<size_t>(split.blocks));
    std::vector<uint32_t> order;
    for (int32_t i = 0; i < split.blocks; ++i) {
      RmPlanBlock& b = plan->blocks[static_cast<size_t>(i)];
      b.first_bit = rm_block_first_bit(i, nbits, split.blocks);
      b.bits = rm_block_first_bit(i + 1, nbits, split.blocks) - b.first_bit;
      if (i >= L) return -1;  // the encoder refuses a block with no place
      b.places = (L - i + split.blocks - 1) / split.blocks;
      b.order = rm_block_order(b.bits, split.redundancy, b.places);
      if (b.order < 0) return -1;
      order.resize(static_cast<size_t>(b.places));
      if (rm_readout_indexes(order.data(), b.places, b.order, seed) != 0) return -1;
      const int32_t low_bits = b.bits - 1;
      const uint32_t low_mask = (1u << low_bits) - 1u;
      const uint32_t pad = pad_mask(b.order - low_bits);
      b.fold.resize(static_cast<size_t>(b.places));
      for (int32_t t = 0; t < b.places; ++t) {
        const uint32_t j = order[static_cast<size_t>(t)];
        const uint32_t flip = static_cast<uint32_t>(std::popcount((j >> low_bits) & pad) & 1);
        b.fold[static_cast<size_t>(t)] = (j & low_mask) | (flip != 0 ? kSignBit : 0u);
      }
    }
  } catch (const std::bad_alloc&) {
    plan->blocks.clear();
    return -1;
  }
  return 0;
}

RmBlockDecision rm_decide_block(const RmPlanBlock& b, float* points, double energy, char* bits) {
  const int32_t low_bits = b.bits - 1;
  const size_t n = size_t{1} << low_bits;
  walsh_hadamard(points, low_bits);
  size_t best = 0;
  double best_abs = -1;
  double total = 0;
  for (size_t u = 0; u < n; ++u) {
    const double c = points[u];
    total += c * c;
    if (std::fabs(c) > best_abs) {
      best_abs = std::fabs(c);
      best = u;
    }
  }
  const double corr = points[best];
  // Noise level of one correlation: the rms of the other candidates, which
  // under pure noise have the same spread as the winner. With few others
  // that estimate is itself too noisy; the spread of a correlation over
  // independent random signs is then known exactly: the root of the summed
  // squared soft values.
  const int64_t others = static_cast<int64_t>(n) - 1;
  double noise2 = energy;
  if (others >= kMinNoiseCandidates) {
    noise2 = (total - corr * corr) / static_cast<double>(others);
  }
  const double z = noise2 > 0 ? std::fabs(corr) / std::sqrt(noise2) : 0.0;

  char* out = bits + b.first_bit;
  out[0] = corr < 0 ? '1' : '0';
  for (int32_t i = 1; i < b.bits; ++i) out[i] = ((best >> (i - 1)) & 1u) != 0 ? '1' : '0';
  return RmBlockDecision{b.first_bit, b.bits, corr, z};
}

double rm_decode_with_plan(const RmDecodePlan& plan, const float* soft, char* bits,
                           RmBlockDecision* decisions, RmDecodeScratch* scratch) {
  double weakest = 0;
  for (size_t bi = 0; bi < plan.blocks.size(); ++bi) {
    const RmPlanBlock& b = plan.blocks[bi];
    const int32_t low_bits = b.bits - 1;
    const size_t n = size_t{1} << low_bits;
    std::vector<float>& pts = scratch->points;
    pts.assign(n, 0.0f);

    // Fold: every symbol goes to its point with the pad's sign. Punctured
    // codeword positions simply contribute nothing.
    const float* src = soft + bi;
    const ptrdiff_t step = plan.stride;
    double energy = 0;
    for (int32_t t = 0; t < b.places; ++t) {
      const float y = src[static_cast<ptrdiff_t>(t) * step];
      const uint32_t f = b.fold[static_cast<size_t>(t)];
      pts[f & kPointMask] += (f & kSignBit) != 0 ? -y : y;
      energy += static_cast<double>(y) * y;
    }
    const RmBlockDecision d = rm_decide_block(b, pts.data(), energy, bits);
    if (decisions != nullptr) decisions[bi] = d;
    const double z = d.z;
    if (bi == 0 || z < weakest) weakest = z;
  }
  return weakest;
}

int32_t rm_decode_payload(const float* soft, int32_t L, int32_t nbits, uint32_t seed, char* bits,
                          std::vector<RmBlockDecision>* decisions) {
  RmDecodePlan plan;
  if (rm_decode_plan(&plan, nbits, L, seed) != 0) return -1;
  RmDecodeScratch scratch;
  std::vector<RmBlockDecision> local;
  std::vector<RmBlockDecision>& out = decisions != nullptr ? *decisions : local;
  out.assign(plan.blocks.size(), RmBlockDecision{});
  rm_decode_with_plan(plan, soft, bits, out.data(), &scratch);
  return 0;
}

}  // namespace lumamark
