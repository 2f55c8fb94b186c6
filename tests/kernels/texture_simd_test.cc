// The texture-map kernels without an integral image against the integral
// image reference, byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "kernels/divide.h"
#include "kernels/texture.h"
#include "simd_test_util.h"

namespace lumamark {
namespace {

TEST(SmallDivisor16, ExactForEveryDivisorAndNumerator) {
  for (uint32_t d = 2; d <= kMaxSmallDivisor16; ++d) {
    const SmallDivisor16 f = small_divisor16(d);
    for (uint32_t n = 0; n < 256 * d; ++n) ASSERT_EQ(n / d, small_divide16(n, f)) << n << " / " << d;
  }
}

// Map rows computed by every table in `parts` row ranges, against the
// integral-image kernel; the map sits between guard bytes.
void expect_same_map(const std::vector<uint8_t>& src, int w, int h, int stride, int r, int parts) {
  std::vector<uint32_t> integral(static_cast<size_t>(w + 1) * (h + 1));
  texture_integral(src.data(), w, h, stride, integral.data());
  test::Guarded want(static_cast<size_t>(w) * h);
  const TextureRows all{src.data(), want.data(), integral.data(), w + 1, w, h, stride, r, 0, h};
  texture_rows(&all);
  for (const KernelTable* table : test::runnable_tables()) {
    test::Guarded got(static_cast<size_t>(w) * h);
    for (int k = 0; k < parts; ++k) {
      const TextureRows rows{src.data(), got.data(), nullptr, 0, w, h, stride, r,
                             h * k / parts, h * (k + 1) / parts};
      table->texture_rows(&rows);
    }
    ASSERT_TRUE(got.guards_intact()) << table->name;
    ASSERT_EQ(want.all(), got.all()) << table->name << " " << w << "x" << h << " stride " << stride
                                     << " r " << r << " parts " << parts;
  }
}

TEST(TextureSimd, RandomPlanesRadiiAndRowSplits) {
  std::mt19937 rng(77);
  for (int iter = 0; iter < 300; ++iter) {
    const int w = 1 + static_cast<int>(rng() % (iter % 3 == 0 ? 300 : 60));
    const int h = 1 + static_cast<int>(rng() % 50);
    const int stride = w + static_cast<int>(rng() % 40);
    const int r = iter % 10 == 0 ? 60 + static_cast<int>(rng() % 10) : 1 + static_cast<int>(rng() % 24);
    std::vector<uint8_t> src(static_cast<size_t>(stride) * h);
    test::fill_picture(src.data(), src.size(), rng);
    expect_same_map(src, w, h, stride, r, 1 + static_cast<int>(rng() % 5));
  }
}

// Rows marked as not needed may be skipped; the others must be exact.
TEST(TextureSimd, NeededRowsAreExact) {
  std::mt19937 rng(8);
  for (int iter = 0; iter < 40; ++iter) {
    const int w = 20 + static_cast<int>(rng() % 200), h = 2 + static_cast<int>(rng() % 60);
    std::vector<uint8_t> src(static_cast<size_t>(w) * h), needed(h);
    test::fill_picture(src.data(), src.size(), rng);
    for (auto& n : needed) n = rng() % 3 != 0;
    std::vector<uint32_t> integral(static_cast<size_t>(w + 1) * (h + 1));
    texture_integral(src.data(), w, h, w, integral.data());
    std::vector<uint8_t> want(src.size());
    const TextureRows all{src.data(), want.data(), integral.data(), w + 1, w, h, w, 10, 0, h};
    texture_rows(&all);
    for (const KernelTable* table : test::runnable_tables()) {
      std::vector<uint8_t> got(src.size(), 0xEE);
      const int split = static_cast<int>(rng() % h);
      for (const auto& [first, end] : {std::pair{0, split}, std::pair{split, h}}) {
        TextureRows rows{src.data(), got.data(), nullptr, 0, w, h, w, 10, first, end};
        rows.needed = needed.data();
        table->texture_rows(&rows);
      }
      for (int y = 0; y < h; ++y) {
        if (needed[y] == 0) continue;
        ASSERT_TRUE(std::equal(want.begin() + y * w, want.begin() + (y + 1) * w, got.begin() + y * w))
            << table->name << " row " << y;
      }
    }
  }
}

TEST(TextureSimd, FrameSizedPlaneWithTheFilterRadius) {
  std::mt19937 rng(5);
  const int w = 1918, h = 97;
  std::vector<uint8_t> src(static_cast<size_t>(w) * h);
  test::fill_picture(src.data(), src.size(), rng);
  expect_same_map(src, w, h, w, 10, 3);
  for (auto& v : src) v = 255;  // the largest window sums
  expect_same_map(src, w, h, w, 63, 2);
}

}  // namespace
}  // namespace lumamark
