#include "decode/rm_decode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "payload/fec.h"
#include "payload/wm_id.h"

namespace lumamark {
namespace {

std::string random_id(std::mt19937& rng, int32_t nbits) {
  std::string bits;
  for (int32_t i = 0; i < nbits; ++i) bits.push_back(rng() & 1 ? '1' : '0');
  return bits;
}

// The bits as a hexadecimal ID of the same value.
std::string to_hex(const std::string& bits) {
  std::string hex;
  const size_t lead = bits.size() % 4;
  size_t pos = 0;
  auto nibble = [&](size_t n) {
    int v = 0;
    for (size_t i = 0; i < n; ++i) v = v * 2 + (bits[pos++] - '0');
    hex.push_back("0123456789abcdef"[v]);
  };
  if (lead != 0) nibble(lead);
  while (pos < bits.size()) nibble(4);
  return hex;
}

// Soft values of a coded string: +1 for '0', -1 for '1'.
std::vector<float> to_soft(const std::string& coded) {
  std::vector<float> soft(coded.size());
  for (size_t i = 0; i < coded.size(); ++i) soft[i] = coded[i] == '0' ? 1.0f : -1.0f;
  return soft;
}

TEST(RmDecode, CleanRoundTripInEveryBlockConfiguration) {
  std::mt19937 rng(11);
  for (int32_t nbits = 1; nbits <= 120; ++nbits) {
    const int32_t L = nbits + static_cast<int32_t>(rng() % 3000);
    const uint32_t seed = rng();
    const std::string bits = random_id(rng, nbits);
    std::string coded(static_cast<size_t>(L), '#');
    ASSERT_EQ(rm_encode_payload(coded.data(), to_hex(bits).c_str(), nbits, L, seed), 0);
    std::string out(static_cast<size_t>(nbits), '#');
    std::vector<RmBlockDecision> decisions;
    ASSERT_EQ(rm_decode_payload(to_soft(coded).data(), L, nbits, seed, out.data(), &decisions), 0);
    EXPECT_EQ(out, bits) << "nbits " << nbits << " L " << L;
    EXPECT_EQ(decisions.size(), static_cast<size_t>(rm_block_split(nbits).blocks));
  }
}

// Standard normal deviates from a fixed generator (Box-Muller), so that the
// statistics below do not depend on the library's distributions.
struct Gauss {
  std::mt19937 rng;
  explicit Gauss(uint32_t seed) : rng(seed) {}
  float operator()() {
    const double u1 = (rng() + 1.0) / 4294967297.0;
    const double u2 = rng() / 4294967296.0;
    return static_cast<float>(std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2));
  }
};

// Random symbol flips and erasures (soft value 0) on top of Gaussian noise,
// at a level where every block keeps a clear margin: the ID comes back and
// every block is confident.
TEST(RmDecode, RecoversThroughFlipsErasuresAndNoise) {
  std::mt19937 rng(5);
  Gauss noise(6);
  for (int32_t nbits : {1, 2, 7, 13, 20, 21, 40, 60, 61, 100, 120}) {
    for (int trial = 0; trial < 3; ++trial) {
      const int32_t L = 6000 + static_cast<int32_t>(rng() % 4000);
      const uint32_t seed = rng();
      const std::string bits = random_id(rng, nbits);
      std::string coded(static_cast<size_t>(L), '#');
      ASSERT_EQ(rm_encode_payload(coded.data(), to_hex(bits).c_str(), nbits, L, seed), 0);
      std::vector<float> soft = to_soft(coded);
      for (float& v : soft) {
        const uint32_t r = rng() % 100;
        if (r < 30) v = 0;          // erased
        else if (r < 45) v = -v;    // flipped: 55 of the 70 kept symbols are right
        v = 2.0f * v + noise();
      }
      std::string out(static_cast<size_t>(nbits), '#');
      std::vector<RmBlockDecision> decisions;
      ASSERT_EQ(rm_decode_payload(soft.data(), L, nbits, seed, out.data(), &decisions), 0);
      EXPECT_EQ(out, bits) << "nbits " << nbits << " L " << L;
      for (const RmBlockDecision& d : decisions) EXPECT_GT(d.z, 7.0) << "nbits " << nbits;
    }
  }
}

// The confidence does not depend on the scale of the soft values, and
// all-zero input decodes to nothing.
TEST(RmDecode, ScaleInvarianceAndSilence) {
  std::mt19937 rng(3);
  const int32_t nbits = 30, L = 3000;
  std::string coded(L, '#');
  ASSERT_EQ(rm_encode_payload(coded.data(), "2abcdef1", nbits, L, 99), 0);
  Gauss noise(4);
  std::vector<float> soft = to_soft(coded), scaled(L);
  for (int32_t i = 0; i < L; ++i) {
    soft[i] = 0.5f * soft[i] + noise();
    scaled[i] = 40.0f * soft[i];
  }
  std::string a(nbits, '#'), b(nbits, '#');
  std::vector<RmBlockDecision> da, db;
  ASSERT_EQ(rm_decode_payload(soft.data(), L, nbits, 99, a.data(), &da), 0);
  ASSERT_EQ(rm_decode_payload(scaled.data(), L, nbits, 99, b.data(), &db), 0);
  EXPECT_EQ(a, b);
  for (size_t i = 0; i < da.size(); ++i) EXPECT_NEAR(da[i].z, db[i].z, 1e-3 * da[i].z);

  std::vector<float> zeros(L, 0.0f);
  ASSERT_EQ(rm_decode_payload(zeros.data(), L, nbits, 99, a.data(), &da), 0);
  for (const RmBlockDecision& d : da) EXPECT_EQ(d.z, 0.0);
}

TEST(RmDecode, RefusesWhatTheEncoderRefuses) {
  RmDecodePlan plan;
  EXPECT_EQ(rm_decode_plan(&plan, 0, 100, 1), -1);
  EXPECT_EQ(rm_decode_plan(&plan, 101, 100, 1), -1);
  EXPECT_EQ(rm_decode_plan(&plan, 100, 100, 1), 0);
  EXPECT_EQ(plan.stride, 6);
  EXPECT_EQ(plan.blocks[5].places, 16);  // places 5, 11, ..., 95
}

TEST(RmDecode, WalshHadamardMatchesDefinition) {
  std::mt19937 rng(1);
  for (int32_t order : {0, 1, 3, 6}) {
    const size_t n = size_t{1} << order;
    std::vector<float> v(n), w(n);
    for (float& x : v) x = static_cast<float>(rng() % 21) - 10.0f;
    w = v;
    walsh_hadamard(w.data(), order);
    for (size_t u = 0; u < n; ++u) {
      float expect = 0;
      for (size_t j = 0; j < n; ++j) expect += (std::popcount(u & j) & 1) ? -v[j] : v[j];
      EXPECT_EQ(w[u], expect) << "order " << order << " u " << u;
    }
  }
}

// On pure noise the confidence of one block follows the documented model:
// each of the N = 2^(k-1) candidate correlations is a standard normal
// deviate in units of the noise level, so P(z >= t) = 1 - (1 - 2 Q(t))^N.
// Checked for a large block (noise level from the other candidates) and a
// small one (noise level from the soft values), at two thresholds each.
TEST(RmDecode, FalseAlarmRateOnNoiseMatchesModel) {
  auto model = [](double t, double n) { return 1.0 - std::pow(1.0 - std::erfc(t / std::sqrt(2.0)), n); };
  struct Case {
    int32_t nbits;
    double t;
  };
  Gauss noise(12);
  for (const Case& c : {Case{13, 4.0}, Case{13, 4.5}, Case{4, 2.5}, Case{4, 3.0}}) {
    const int32_t L = 2000, trials = 2000;
    RmDecodePlan plan;
    ASSERT_EQ(rm_decode_plan(&plan, c.nbits, L, 1234), 0);
    RmDecodeScratch scratch;
    RmBlockDecision d;
    std::string out(static_cast<size_t>(c.nbits), '#');
    std::vector<float> soft(L);
    int hits = 0;
    for (int t = 0; t < trials; ++t) {
      for (float& v : soft) v = noise();
      if (rm_decode_with_plan(plan, soft.data(), out.data(), &d, &scratch) >= c.t) ++hits;
    }
    const double p = model(c.t, std::ldexp(1.0, c.nbits - 1));
    const double sd = std::sqrt(trials * p * (1 - p));
    EXPECT_NEAR(hits, trials * p, 4 * sd + 2) << "nbits " << c.nbits << " t " << c.t;
  }
}

}  // namespace
}  // namespace lumamark
