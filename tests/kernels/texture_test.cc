#include "kernels/texture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

namespace lumamark {
namespace {

// Direct box sums and plain rounded divisions, no integral image.
uint8_t ref_texture(const uint8_t* src, int w, int h, int stride, int r, int x, int y) {
  const int s = std::max(x - r, 0), e = std::min(x + r, w - 1);
  const int y0 = std::max(y - r, 0), y1 = std::min(y + r + 1, h);
  uint32_t S = 0, C = 0;
  for (int c = s; c <= e; ++c) S += src[y * stride + c];
  for (int rr = y0; rr < y1; ++rr) C += src[rr * stride + x];
  const uint32_t nh = e - s + 1, nv = y1 - y0;
  const int mh = (S + nh / 2) / nh, mv = (C + nv / 2) / nv, p = src[y * stride + x];
  const int dh = std::abs(mh - p), dv = std::abs(mv - p);
  return std::min(dh + dv + 7 * std::min(dh, dv), 50);
}

// Runs the kernels over the rows split into `parts` ranges; the map sits between
// guard bytes.
std::vector<uint8_t> run(const std::vector<uint8_t>& src, int w, int h, int stride, int r, int parts) {
  std::vector<uint32_t> integral((w + 1) * (h + 1), 0xDEADBEEF);
  texture_integral(src.data(), w, h, stride, integral.data());
  std::vector<uint8_t> out(w * h + 32, 0xEE);
  for (int k = 0; k < parts; ++k) {
    const TextureRows rows{src.data(), out.data() + 16, integral.data(), w + 1, w, h, stride, r,
                           h * k / parts, h * (k + 1) / parts};
    texture_rows(&rows);
  }
  return out;
}

TEST(Texture, MatchesReferenceOnRandomPlanes) {
  std::mt19937 rng(4242);
  for (int iter = 0; iter < 400; ++iter) {
    const int w = 1 + rng() % 70, h = 1 + rng() % 70, stride = w + rng() % 4;
    const int r = 1 + rng() % 40;
    std::vector<uint8_t> src(stride * h);
    const int spread = 1 + rng() % 256;
    for (auto& v : src) v = rng() % spread;
    const std::vector<uint8_t> out = run(src, w, h, stride, r, 1 + rng() % 4);
    for (int i = 0; i < 16; ++i) {
      ASSERT_EQ(out[i], 0xEE);
      ASSERT_EQ(out[16 + w * h + i], 0xEE);
    }
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x)
        ASSERT_EQ(out[16 + y * w + x], ref_texture(src.data(), w, h, stride, r, x, y))
            << w << "x" << h << " r " << r << " at " << x << "," << y;
  }
}

TEST(Texture, FlatPlaneAndSinglePeak) {
  std::vector<uint8_t> src(30 * 25, 77);
  for (uint8_t v : run(src, 30, 25, 30, 10, 3)) ASSERT_TRUE(v == 0 || v == 0xEE);
  std::fill(src.begin(), src.end(), 0);
  src[12 * 30 + 17] = 255;
  const std::vector<uint8_t> out = run(src, 30, 25, 30, 10, 2);
  EXPECT_EQ(out[16 + 12 * 30 + 17], 50);
  EXPECT_EQ(out[16 + 12 * 30 + 3], 0);  // on the peak's row, 14 columns away
}

// The integral image wraps at 2^32 over a large bright plane; the column sums
// taken from it are still exact.
TEST(Texture, WrappingIntegralKeepsColumnSums) {
  const int w = 8192, h = 2100;  // 255 * w * h > 2^32
  std::vector<uint8_t> src(static_cast<size_t>(w) * h, 255);
  std::mt19937 rng(9);
  for (int i = 0; i < 4000; ++i) src[(h - 1 - rng() % 30) * static_cast<size_t>(w) + rng() % w] = rng() % 256;
  std::vector<uint32_t> integral(static_cast<size_t>(w + 1) * (h + 1));
  texture_integral(src.data(), w, h, w, integral.data());
  EXPECT_EQ(integral.back(), static_cast<uint32_t>(std::accumulate(src.begin(), src.end(), uint64_t{0})));
  std::vector<uint8_t> out(static_cast<size_t>(w) * h, 0xEE);
  const TextureRows rows{src.data(), out.data(), integral.data(), w + 1, w, h, w, 10, h - 20, h};
  texture_rows(&rows);
  for (int y = h - 20; y < h; ++y)
    for (int x = 0; x < w; x += 7)
      ASSERT_EQ(out[static_cast<size_t>(y) * w + x], ref_texture(src.data(), w, h, w, 10, x, y));
}

}  // namespace
}  // namespace lumamark
