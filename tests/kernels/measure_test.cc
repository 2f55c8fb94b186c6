#include "kernels/measure.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "kernels/divide.h"

namespace lumamark {
namespace {

// Straight transcription with plain divisions.
int32_t ref_measure(const uint8_t* luma, int x, int y, int sw, int sh, int stride, int spbw, int spbh) {
  const int bw = spbw > 0 ? spbw : std::max(sw / 8, 1), bh = spbh > 0 ? spbh : std::max(sh / 8, 1);
  const int iw = sw - 2 * bw, ih = sh - 2 * bh, nW = iw + 1, nH = ih + 1;
  if (ih < 1 || iw < 1) return 0;
  auto s = [&](int r, int c) { return static_cast<int>(luma[(y + r) * stride + x + c]); };
  uint32_t sum = 0;
  for (int i = 1; i <= ih; ++i)
    for (int j = 1; j <= iw; ++j) {
      const int h = (s(bh - 1 + i, bw - 1) * (nW - j) + s(bh - 1 + i, sw - bw) * j + nW / 2) / nW;
      const int v = (s(bh - 1, bw - 1 + j) * (nH - i) + s(sh - bh, bw - 1 + j) * i + nH / 2) / nH;
      const int m = (h + v + 1) / 2, p = s(bh - 1 + i, bw - 1 + j);
      const int dh = std::abs(p - h), dv = std::abs(p - v), dm = std::abs(p - m);
      sum += dh < std::min(dv, dm) ? p - h : (dm <= dv ? p - m : p - v);
    }
  return static_cast<int32_t>(sum);
}

TEST(Measure, FastDivisionIsExactOverItsRange) {
  // Every divisor the kernels may hand over: the error bound of the multiplier.
  for (uint64_t d = 1; d <= kMaxFastDivisor; ++d) {
    const uint64_t e = fast_divisor(static_cast<uint32_t>(d)).mul * d - (uint64_t{1} << 40);
    ASSERT_LT(e, d);
    ASSERT_LT(256 * d * e, uint64_t{1} << 40) << d;
  }
  // And exhaustively, every numerator 0..256 d, for the small divisors.
  for (uint32_t d = 1; d <= 600; ++d) {
    const FastDivisor f = fast_divisor(d);
    for (uint32_t n = 0; n <= 256 * d; ++n) ASSERT_EQ(fast_divide(n, f), n / d) << n << "/" << d;
  }
}

TEST(Measure, MatchesReferenceOnRandomSuperpixels) {
  std::mt19937 rng(777);
  for (int iter = 0; iter < 1500; ++iter) {
    const int sw = 5 + rng() % 60, sh = 5 + rng() % 60;
    const int spbw = rng() % ((sw + 1) / 2), spbh = rng() % ((sh + 1) / 2);
    const int cols = 1 + rng() % 3, rows = 1 + rng() % 3;
    const int stride = cols * sw + rng() % 5, h = rows * sh;
    std::vector<uint8_t> luma(stride * h);
    // Mix smooth gradients with noise so that every residual choice occurs.
    const int gx = rng() % 9, gy = rng() % 9, noise = 1 + rng() % 64;
    for (int i = 0; i < stride * h; ++i)
      luma[i] = std::min(255, (i % stride) * gx / 4 + (i / stride) * gy / 4 + static_cast<int>(rng() % noise));
    std::vector<int32_t> grid(cols * rows + 2, 0x5A5A5A5A);
    signal_measure_grid(luma.data(), cols, rows, grid.data() + 1, stride, sw, sh, spbw, spbh);
    ASSERT_EQ(grid.front(), 0x5A5A5A5A);
    ASSERT_EQ(grid.back(), 0x5A5A5A5A);
    for (int r = 0; r < rows; ++r)
      for (int c = 0; c < cols; ++c) {
        const int32_t want = ref_measure(luma.data(), c * sw, r * sh, sw, sh, stride, spbw, spbh);
        ASSERT_EQ(signal_measure(luma.data(), c * sw, r * sh, sw, sh, stride, spbw, spbh), want);
        ASSERT_EQ(grid[1 + r * cols + c], want);
      }
  }
}

TEST(Measure, FlatAndRaisedInnerArea) {
  std::vector<uint8_t> sp(16 * 16, 90);
  EXPECT_EQ(signal_measure(sp.data(), 0, 0, 16, 16, 16, 0, 0), 0);
  // Default border of a 16-pixel side is 2: the inner area is 12 x 12.
  for (int r = 2; r < 14; ++r)
    for (int c = 2; c < 14; ++c) sp[r * 16 + c] = 93;
  EXPECT_EQ(signal_measure(sp.data(), 0, 0, 16, 16, 16, 0, 0), 3 * 12 * 12);
  for (int r = 2; r < 14; ++r)
    for (int c = 2; c < 14; ++c) sp[r * 16 + c] = 80;
  EXPECT_EQ(signal_measure(sp.data(), 0, 0, 16, 16, 16, 0, 0), -10 * 12 * 12);
  // No inner rows or columns.
  EXPECT_EQ(signal_measure(sp.data(), 0, 0, 16, 16, 16, 0, 8), 0);
  EXPECT_EQ(signal_measure(sp.data(), 0, 0, 16, 16, 16, 8, 2), 0);
}

}  // namespace
}  // namespace lumamark
