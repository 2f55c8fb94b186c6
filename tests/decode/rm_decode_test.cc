#include "decode/rm_decode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "decode/detector.h"
#include "payload/fec.h"

namespace lumamark {
namespace {

// Soft values of an encoded payload of random bits: +1 for '0', -1 for '1'.
struct Coded {
  std::string bits;
  std::vector<float> soft;
  Coded(std::mt19937& rng, int32_t nbits, int32_t L, uint32_t seed) {
    for (int32_t i = 0; i < nbits; ++i) bits.push_back(rng() & 1 ? '1' : '0');
    std::string coded(L, '#');
    EXPECT_EQ(rm_encode_payload(coded.data(), bits_to_hex(bits).c_str(), nbits, L, seed), 0);
    for (char c : coded) soft.push_back(c == '0' ? 1.0f : -1.0f);
  }
};

std::string decode(const std::vector<float>& soft, int32_t nbits, uint32_t seed, std::vector<RmBlockDecision>* d) {
  std::string out(nbits, '#');
  EXPECT_EQ(rm_decode_payload(soft.data(), int32_t(soft.size()), nbits, seed, out.data(), d), 0);
  return out;
}

// Standard normal deviates from a fixed generator (Box-Muller), so that the
// statistics do not depend on the library's distributions.
struct Gauss {
  std::mt19937 rng;
  float operator()() {
    const double u1 = (rng() + 1.0) / 4294967297.0, u2 = rng() / 4294967296.0;
    return float(std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2));
  }
};

// Clean symbols in every block configuration, from a code as short as the
// payload on; then, on long codes, random flips and erasures (soft value 0)
// on top of Gaussian noise at a level where every block keeps a clear margin.
TEST(RmDecode, RoundTrips) {
  std::mt19937 rng(11);
  std::vector<RmBlockDecision> d;
  for (int32_t nbits = 1; nbits <= 120; ++nbits) {
    const int32_t L = nbits + int32_t(rng() % 3000);
    const uint32_t seed = rng();
    const Coded c(rng, nbits, L, seed);
    EXPECT_EQ(decode(c.soft, nbits, seed, &d), c.bits) << "nbits " << nbits << " L " << L;
    EXPECT_EQ(d.size(), size_t(rm_block_split(nbits).blocks));
  }
  Gauss noise{std::mt19937(6)};
  for (int32_t nbits : {1, 2, 7, 13, 20, 21, 40, 60, 61, 100, 120}) {
    for (int trial = 0; trial < 3; ++trial) {
      const int32_t L = 6000 + int32_t(rng() % 4000);
      const uint32_t seed = rng();
      Coded c(rng, nbits, L, seed);
      for (float& v : c.soft) {
        const uint32_t r = rng() % 100;
        v = 2.0f * (r < 30 ? 0 : r < 45 ? -v : v) + noise();  // 55 of the 70 kept symbols are right
      }
      EXPECT_EQ(decode(c.soft, nbits, seed, &d), c.bits) << "nbits " << nbits << " L " << L;
      for (const RmBlockDecision& b : d) EXPECT_GT(b.z, 7.0) << "nbits " << nbits;
    }
  }
  // Silence decodes with no confidence; the encoder's refusals are refused.
  decode(std::vector<float>(3000, 0.0f), 30, 99, &d);
  for (const RmBlockDecision& b : d) EXPECT_EQ(b.z, 0.0);
  RmDecodePlan plan;
  EXPECT_EQ(rm_decode_plan(&plan, 0, 100, 1), -1);
  EXPECT_EQ(rm_decode_plan(&plan, 101, 100, 1), -1);
}

// On pure noise the confidence of one block follows its model: each of the
// N = 2^(k-1) candidate correlations is a standard normal deviate in units of
// the noise level, so P(z >= t) = 1 - (1 - 2 Q(t))^N. Checked for a large
// block (noise level from the other candidates) and a small one (noise level
// from the soft values), at two thresholds each.
TEST(RmDecode, FalseAlarmRateOnNoiseMatchesModel) {
  Gauss noise{std::mt19937(12)};
  for (const auto& [nbits, t] : {std::pair{13, 4.0}, {13, 4.5}, {4, 2.5}, {4, 3.0}}) {
    const int32_t L = 2000, trials = 2000;
    RmDecodePlan plan;
    ASSERT_EQ(rm_decode_plan(&plan, nbits, L, 1234), 0);
    RmDecodeScratch scratch;
    RmBlockDecision d;
    std::string out(nbits, '#');
    std::vector<float> soft(L);
    int hits = 0;
    for (int i = 0; i < trials; ++i) {
      for (float& v : soft) v = noise();
      hits += rm_decode_with_plan(plan, soft.data(), out.data(), &d, &scratch) >= t;
    }
    const double p = 1.0 - std::pow(1.0 - std::erfc(t / std::sqrt(2.0)), std::ldexp(1.0, nbits - 1));
    EXPECT_NEAR(hits, trials * p, 4 * std::sqrt(trials * p * (1 - p)) + 2) << "nbits " << nbits << " t " << t;
  }
}

}  // namespace
}  // namespace lumamark
