#include "decode/soft_values.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "kernels/measure.h"

namespace lumamark {
namespace {

// Soft values are centred on the median, scaled, clipped and signed.
TEST(SoftValues, CentredClippedAndSigned) {
  const SoftGrid grid{8, 6, 7, 0};
  std::mt19937 rng(4);
  std::vector<int32_t> m(48), shifted;
  std::vector<int8_t> signs(48), positive(48, 1);
  for (int32_t i = 0; i < 48; ++i) m[i] = int32_t(rng() % 61) - 30, signs[i] = int8_t(rng() % 2 ? 2 : -3);
  m[20] = 100000;  // an edge far outside the rest
  for (int32_t v : m) shifted.push_back(v + 500);
  std::vector<float> a(48), b(48), c(48);
  SoftScratch scratch;
  soft_values(m.data(), grid, signs.data(), a.data(), &scratch);
  soft_values(shifted.data(), grid, signs.data(), b.data(), &scratch);
  soft_values(m.data(), grid, positive.data(), c.data(), &scratch);
  for (int32_t i = 0; i < 48; ++i) {
    EXPECT_LE(std::abs(a[i]), kSoftClip);
    EXPECT_FLOAT_EQ(a[i], b[i]) << "a common offset is removed";
    EXPECT_FLOAT_EQ(a[i], signs[i] < 0 ? -c[i] : c[i]) << "the sign pattern only flips signs";
  }
  EXPECT_NEAR(a[20], signs[20] < 0 ? -kSoftClip : kSoftClip, 1e-3);
}

// The threaded measurement equals signal_measure_grid, whatever the split.
TEST(SoftValues, MeasureFrameMatchesGrid) {
  const int32_t w = 7 * 9 + 3, h = 7 * 11 + 5, stride = w + 4;
  std::mt19937 rng(1);
  std::vector<uint8_t> luma(stride * h);
  for (uint8_t& v : luma) v = uint8_t(rng());
  std::vector<int32_t> expect(99), got(99);
  signal_measure_grid(luma.data(), 9, 11, expect.data(), stride, 7, 7, 2, 2);
  for (int32_t threads : {1, 3, 16}) {
    got.assign(99, -1);
    measure_frame(luma.data(), stride, SoftGrid{9, 11, 7, 2}, got.data(), threads);
    EXPECT_EQ(got, expect) << threads;
  }
}

}  // namespace
}  // namespace lumamark
