// signal_measure of every table against the plain kernel on random
// superpixels, sizes and borders, reading a plane with guard bytes.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "kernels/measure.h"
#include "simd_test_util.h"

namespace lumamark {
namespace {

TEST(MeasureSimd, MatchesThePlainKernel) {
  std::mt19937 rng(12);
  for (int iter = 0; iter < 3000; ++iter) {
    const int32_t sp_w = 1 + static_cast<int32_t>(rng() % (iter % 5 == 0 ? 64 : 18));
    const int32_t sp_h = 1 + static_cast<int32_t>(rng() % (iter % 7 == 0 ? 70 : 18));
    int32_t bw = static_cast<int32_t>(rng() % 6) - 1, bh = static_cast<int32_t>(rng() % 6) - 1;
    if (iter % 101 == 0) bw = 2147483647;
    const int32_t x = static_cast<int32_t>(rng() % 9), y = static_cast<int32_t>(rng() % 4);
    const int32_t stride = x + sp_w + static_cast<int32_t>(rng() % 5);
    test::Guarded plane(static_cast<size_t>(stride) * (y + sp_h));
    test::fill_picture(plane.data(), plane.size(), rng);
    const int32_t want = signal_measure(plane.data(), x, y, sp_w, sp_h, stride, bw, bh);
    for (const KernelTable* table : test::runnable_tables()) {
      ASSERT_EQ(want, table->signal_measure(plane.data(), x, y, sp_w, sp_h, stride, bw, bh))
          << table->name << " sp " << sp_w << "x" << sp_h << " borders " << bw << "," << bh;
    }
  }
}

}  // namespace
}  // namespace lumamark
