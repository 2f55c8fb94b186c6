#include "decode/soft_values.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kernels/measure.h"

namespace lumamark {
namespace {

TEST(SoftValues, CentredScaledClippedAndSigned) {
  const SoftGrid grid{8, 6, 7, 0};
  const int32_t n = 48;
  std::mt19937 rng(4);
  std::vector<int32_t> m(n);
  std::vector<int8_t> signs(n);
  for (int32_t i = 0; i < n; ++i) {
    m[i] = static_cast<int32_t>(rng() % 61) - 30;
    signs[i] = static_cast<int8_t>(rng() % 2 ? 2 : -3);
  }
  m[20] = 100000;  // an edge far outside the rest
  std::vector<float> a(n), b(n);
  SoftScratch scratch;
  soft_values(m.data(), grid, signs.data(), a.data(), &scratch);
  for (int32_t i = 0; i < n; ++i) {
    EXPECT_LE(std::abs(a[i]), kSoftClip);
  }
  EXPECT_NEAR(a[20], signs[20] < 0 ? -kSoftClip : kSoftClip, 1e-3);

  // A common offset of every measure is removed by the median.
  std::vector<int32_t> shifted(m);
  for (int32_t& v : shifted) v += 500;
  soft_values(shifted.data(), grid, signs.data(), b.data(), &scratch);
  for (int32_t i = 0; i < n; ++i) EXPECT_FLOAT_EQ(a[i], b[i]);

  // The sign pattern only flips signs.
  std::vector<int8_t> positive(n, 1);
  soft_values(m.data(), grid, positive.data(), b.data(), &scratch);
  for (int32_t i = 0; i < n; ++i) EXPECT_FLOAT_EQ(a[i], signs[i] < 0 ? -b[i] : b[i]);
}

// The threaded measurement equals signal_measure_grid, whatever the split.
TEST(SoftValues, MeasureFrameMatchesGrid) {
  const int32_t w = 7 * 9 + 3, h = 7 * 11 + 5, stride = w + 4;
  std::mt19937 rng(1);
  std::vector<uint8_t> luma(static_cast<size_t>(stride) * h);
  for (uint8_t& v : luma) v = static_cast<uint8_t>(rng());
  const SoftGrid grid{9, 11, 7, 2};
  std::vector<int32_t> expect(99), got(99);
  signal_measure_grid(luma.data(), 9, 11, expect.data(), stride, 7, 7, 2, 2);
  for (int32_t threads : {1, 3, 16}) {
    measure_frame(luma.data(), stride, grid, got.data(), threads);
    EXPECT_EQ(got, expect) << threads;
  }
}

}  // namespace
}  // namespace lumamark
