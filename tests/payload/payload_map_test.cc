#include "payload/payload_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <vector>

namespace lumamark {
namespace {

// One generator step in its rotate-left form: the eight bytes of the new state.
std::vector<uint8_t> step(uint32_t& s0, uint32_t& s1) {
  const uint32_t t = s1 ^ s0;
  s0 = ((s0 << 26) | (s0 >> 6)) ^ t ^ (t << 9);
  s1 = (t << 13) | (t >> 19);
  std::vector<uint8_t> b;
  for (uint32_t w : {s0, s1})
    for (int k = 0; k < 4; ++k) b.push_back(uint8_t(w >> (8 * k)));
  return b;
}

// Magnitudes byte mod (2 strength + 1) - strength, 0 replaced by 1, in 32-bit
// wrapping arithmetic and compared on the low byte, as the generator makes them.
std::vector<int8_t> model_pattern(int32_t strength, int32_t n, uint32_t s1) {
  uint32_t s0 = 9;
  const int32_t M = int32_t(uint32_t(strength) * 2u + 1u);
  std::vector<int8_t> out;
  for (int32_t c = 0; c < n; c += 8) {
    const std::vector<uint8_t> b = step(s0, s1);
    for (int k = 0; k < 8 && c + k < n; ++k) {
      const int32_t u = b[k] % M;
      out.push_back(int8_t(uint8_t(uint8_t(u) == uint8_t(strength) ? 1 : int64_t(u) - strength)));
    }
  }
  return out;
}

// A forward shuffle of 0, 1, ..., n - 1 (mod 256) fed with steps whose eight
// bytes are all nonzero.
std::vector<uint8_t> model_row(int32_t n, uint32_t s0) {
  uint32_t s1 = 3;
  std::vector<uint8_t> row(n);
  for (int32_t j = 0; j < n; ++j) row[j] = uint8_t(j);
  for (int32_t b = 0; b < n; b += 8) {
    std::vector<uint8_t> bytes;
    do bytes = step(s0, s1);
    while (std::count(bytes.begin(), bytes.end(), 0) > 0);
    for (int k = 0; k < 8 && b + k < n; ++k) std::swap(row[b + k], row[bytes[k] % (b + k + 1)]);
  }
  return row;
}

TEST(PayloadMap, SignPatternWrapsLikeThirtyTwoBitArithmetic) {
  for (int32_t strength : {0, 1, 3, 100, 127, 128, 200, 255, 256, 1000, -1, -5, 1 << 30, INT_MAX}) {
    std::vector<int8_t> got(77);
    sign_pattern_generate(got.data(), strength, 7, 11, 9, 0x5eed);
    EXPECT_EQ(got, model_pattern(strength, 77, 0x5eed)) << strength;
  }
}

// Index bytes wrap at 256, and a position from 255 on is swapped only with
// positions 1..255: slot 0 is settled by the first 255 positions.
TEST(PayloadMap, IndexRowsWrapAndNeverMoveSlotZeroLate) {
  for (int32_t n : {1, 7, 8, 9, 15, 255, 256, 257, 1000}) {
    std::vector<uint8_t> row(n);
    for (int32_t j = 0; j < n; ++j) row[j] = uint8_t(j);
    index_row_shuffle(row.data(), n, 33 + 19 * 5, 3);
    EXPECT_EQ(row, model_row(n, 33 + 19 * 5)) << n;
  }
  EXPECT_EQ(model_row(1000, 52)[0], model_row(255, 52)[0]);
  // The 16 rows of the table, each from its own seed: 2,000 steps, enough to
  // meet steps with a zero in every byte position.
  std::vector<uint8_t> table(16 * 1000);
  index_table_build(table.data(), 16, 1000, 3);
  for (int32_t t = 0; t < 16; ++t)
    EXPECT_EQ(std::vector<uint8_t>(table.begin() + t * 1000, table.begin() + (t + 1) * 1000), model_row(1000, 33 + 19 * t));
}

}  // namespace
}  // namespace lumamark
