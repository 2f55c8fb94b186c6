// Image-hash cell sums: every table against the plain kernel.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "kernels/cells.h"
#include "simd_test_util.h"

namespace lumamark {
namespace {

TEST(CellSumsSimd, RandomGridsAndBands) {
  std::mt19937 rng(31);
  for (int iter = 0; iter < 300; ++iter) {
    const int cw = 1 + static_cast<int>(rng() % 40), ch = 1 + static_cast<int>(rng() % (iter % 7 == 0 ? 300 : 20));
    const int gx = 1 + static_cast<int>(rng() % 30), gy = 1 + static_cast<int>(rng() % 4);
    const int stride = gx * cw + static_cast<int>(rng() % 9);
    std::vector<uint8_t> plane(static_cast<size_t>(stride) * ch * gy);
    test::fill_picture(plane.data(), plane.size(), rng);
    if (iter % 5 == 0) std::fill(plane.begin(), plane.end(), 255);
    const int first = static_cast<int>(rng() % gy), end = first + 1 + static_cast<int>(rng() % (gy - first));
    std::vector<int32_t> want(gx * gy + 8, -7);
    cell_sums(plane.data(), stride, cw, ch, gx, first, end, want.data());
    for (const KernelTable* table : test::runnable_tables()) {
      std::vector<int32_t> got(gx * gy + 8, -7);
      table->cell_sums(plane.data(), stride, cw, ch, gx, first, end, got.data());
      ASSERT_EQ(want, got) << table->name << " cells " << cw << "x" << ch << " grid " << gx;
    }
  }
}

}  // namespace
}  // namespace lumamark
