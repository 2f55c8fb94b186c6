// Worked values of the generator, pattern bank, measurement and texture
// kernels, and the exactness of the divisions by multiplication they use.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "kernels/divide.h"
#include "kernels/measure.h"
#include "kernels/pattern.h"
#include "kernels/prng.h"
#include "kernels/texture.h"

namespace lumamark {
namespace {

const int32_t kAdjust[4] = {20, 15, 5, -5};

TEST(Generator, RawStateBytesAndKeyHash) {
  Prng64 g;
  prng64_seed(&g, 1, 2);
  const std::vector<uint8_t> steps[2] = {{3, 6, 0, 4, 0, 96, 0, 0}, {27, 96, 220, 8, 128, 96, 192, 12}};
  for (const auto& want : steps) {
    const uint8_t* got = prng64_next(&g);
    EXPECT_EQ(want, std::vector<uint8_t>(got, got + 8));
  }
  EXPECT_EQ(0, key_hash(""));
  EXPECT_EQ(49, key_hash("1"));
  EXPECT_EQ(1567, key_hash("10"));
  EXPECT_EQ(-1, key_hash("\xff"));  // signed bytes, truncating remainder
}

// A bank of one pattern per class, filled between guard bytes that must stay.
std::vector<int8_t> bank(int32_t classes, int32_t w, int32_t h, int32_t bw, int32_t bh,
                         int32_t density, bool dotted) {
  PatternLayout l;
  pattern_layout(&l, classes, 1, 1, w, h, bw, bh);
  std::vector<int8_t> buf(l.total + 128, 0x5A);
  pattern_bank_fill(buf.data() + 64, &l, density, kAdjust, "1", 3, dotted);
  const auto guard = [](int8_t v) { return v == 0x5A; };
  EXPECT_TRUE(std::all_of(buf.begin(), buf.begin() + 64, guard) && std::all_of(buf.end() - 64, buf.end(), guard));
  return std::vector<int8_t>(buf.begin() + 64, buf.end() - 64);
}

bool all_zero(std::vector<int8_t>::const_iterator from, std::vector<int8_t>::const_iterator to) {
  return std::all_of(from, to, [](int8_t v) { return v == 0; });
}

TEST(Pattern, DensityLimitsAndDottedEdges) {
  // 12 wide, 9 high, border 1 across and 2 down: density 100 covers the inner
  // area with 1..3; the holes take the border sizes crosswise.
  const std::vector<int8_t> full = bank(4, 12, 9, 1, 2, 100, true);
  const std::vector<std::pair<int, int>> holes = {{2, 4}, {2, 7}, {2, 10}, {6, 4}, {6, 7},
                                                  {6, 10}, {3, 1}, {3, 10}, {6, 1}};
  for (int r = 0; r < 9; ++r) {
    for (int c = 0; c < 12; ++c) {
      const bool inner = r >= 2 && r <= 6 && c >= 1 && c <= 10;
      const bool hole = std::find(holes.begin(), holes.end(), std::make_pair(r, c)) != holes.end();
      for (int cls = 0; cls < 3; ++cls) {  // classes 0..2 reach density 100
        const int v = full[cls * 108 + r * 12 + c];
        EXPECT_TRUE(inner && !hole ? v >= 1 && v <= 3 : v == 0) << cls << " " << r << "," << c;
      }
    }
  }
  // A negative density (0 - 5 in class 3) writes nothing.
  const std::vector<int8_t> none = bank(4, 12, 9, 1, 2, 0, false);
  EXPECT_TRUE(all_zero(none.begin() + 3 * 108, none.end()));
  // Borders that meet leave all-zero patterns, holes included, inside the bank.
  for (const auto& g : {std::vector<int>{20, 5, 0, 10}, {5, 20, 10, 0}, {6, 6, 3, 3}, {5, 5, 9, 9}}) {
    const std::vector<int8_t> b = bank(2, g[0], g[1], g[2], g[3], 100, true);
    EXPECT_TRUE(all_zero(b.begin(), b.end())) << g[0] << "x" << g[1];
  }
}

TEST(Measure, WorkedValuesAndGrid) {
  std::vector<uint8_t> sp(16 * 16, 90);
  const auto measure = [&](int32_t bw, int32_t bh) {
    const FrameGeometry g{16, 16, 16, 16, 16, bw, bh};
    return signal_measure(sp.data(), &g, 0, 0);
  };
  EXPECT_EQ(0, measure(0, 0));
  // The default border of a 16-pixel side is 2: the inner area is 12 x 12.
  for (int r = 2; r < 14; ++r) std::fill_n(&sp[r * 16 + 2], 12, 93);
  EXPECT_EQ(3 * 12 * 12, measure(0, 0));
  for (int r = 2; r < 14; ++r) std::fill_n(&sp[r * 16 + 2], 12, 80);
  EXPECT_EQ(-10 * 12 * 12, measure(-1, 0));
  EXPECT_EQ(0, measure(0, 8));  // no inner rows
  EXPECT_EQ(0, measure(8, 2));  // no inner columns
  // Every grid entry is the single measurement; nothing else is written.
  std::mt19937 rng(3);
  std::vector<uint8_t> plane(50 * 33);
  for (auto& v : plane) v = static_cast<uint8_t>(rng() % 64);
  std::vector<int32_t> grid(3 * 2 + 2, 0x5A5A5A5A);
  signal_measure_grid(plane.data(), 3, 2, grid.data() + 1, 50, 16, 16, 3, 0);
  EXPECT_EQ(0x5A5A5A5A, grid.front());
  EXPECT_EQ(0x5A5A5A5A, grid.back());
  const FrameGeometry g{48, 32, 50, 16, 16, 3, 0};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(signal_measure(plane.data(), &g, i % 3 * 16, i / 3 * 16), grid[1 + i]);
  }
}

TEST(Texture, FlatPlaneAndSinglePeak) {
  std::vector<uint8_t> src(30 * 25, 77), out(30 * 25, 0xEE);
  const TextureRows rows{src.data(), out.data(), nullptr, 0, 30, 25, 30, 10, 0, 25};
  texture_rows_direct(&rows);
  EXPECT_EQ(std::vector<uint8_t>(30 * 25, 0), out);
  std::fill(src.begin(), src.end(), 0);
  src[12 * 30 + 17] = 255;
  texture_rows_direct(&rows);
  EXPECT_EQ(50, out[12 * 30 + 17]);
  EXPECT_EQ(0, out[12 * 30 + 3]);  // on the peak's row, 14 columns away
}

TEST(Division, ExactOverTheRangesTheKernelsUse) {
  for (uint64_t d = 1; d <= kMaxFastDivisor; ++d) {  // the multiplier's error bound
    const uint64_t e = fast_divisor(static_cast<uint32_t>(d)).mul * d - (uint64_t{1} << 40);
    ASSERT_LT(e, d);
    ASSERT_LT(256 * d * e, uint64_t{1} << 40) << d;
  }
  for (uint32_t d = 1; d <= 600; ++d) {
    const FastDivisor f = fast_divisor(d);
    for (uint32_t n = 0; n <= 256 * d; ++n) ASSERT_EQ(n / d, fast_divide(n, f)) << n << "/" << d;
  }
  for (uint32_t d = 2; d <= kMaxSmallDivisor16; ++d) {
    const SmallDivisor16 f = small_divisor16(d);
    for (uint32_t n = 0; n < 256 * d; ++n) ASSERT_EQ(n / d, small_divide16(n, f)) << n << "/" << d;
  }
}

}  // namespace
}  // namespace lumamark
