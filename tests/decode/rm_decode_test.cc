#include "decode/rm_decode.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace lumamark
