// embed_superpixel of every table against the plain kernel: the changed
// plane (with guard bytes) and the returned sum.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "kernels/embed.h"
#include "simd_test_util.h"

namespace lumamark {
namespace {

TEST(EmbedSimd, MatchesThePlainKernel) {
  std::mt19937 rng(404);
  const int32_t modes[] = {0, 1, 2, 2, 3, 3, 3, 7, -1};
  for (int iter = 0; iter < 4000; ++iter) {
    const int32_t sp_w = 1 + static_cast<int32_t>(rng() % (iter % 9 == 0 ? 64 : 18));
    const int32_t sp_h = 1 + static_cast<int32_t>(rng() % (iter % 11 == 0 ? 70 : 18));
    int32_t bw = static_cast<int32_t>(rng() % 5) - 1;
    const int32_t bh = static_cast<int32_t>(rng() % 5) - 1;
    if (iter % 89 == 0) bw = 2147483647;
    const int32_t pm = modes[rng() % 9];
    const int32_t x = static_cast<int32_t>(rng() % 9), y = static_cast<int32_t>(rng() % 5);
    const int32_t frame_w = x + sp_w + static_cast<int32_t>(rng() % 6);
    const int32_t frame_h = y + sp_h + static_cast<int32_t>(rng() % 3);
    const int32_t stride = frame_w + static_cast<int32_t>(rng() % 4);
    test::Guarded frame(static_cast<size_t>(stride) * frame_h);
    test::fill_picture(frame.data(), frame.size(), rng);
    std::vector<uint8_t> texture(static_cast<size_t>(frame_w) * frame_h);
    for (auto& t : texture) t = static_cast<uint8_t>(rng() % (iter % 3 == 0 ? 256 : 51));
    // Bank-like amplitudes, or any signed bytes (as deep-fake passes make).
    std::vector<int8_t> pattern(static_cast<size_t>(sp_w) * sp_h);
    const int kind = static_cast<int>(rng() % 3);
    for (auto& p : pattern) {
      p = static_cast<int8_t>(kind == 0 ? rng() % 4 : (kind == 1 ? rng() % 256 : (rng() % 5 == 0 ? rng() % 8 : 0)));
    }
    const int32_t value = static_cast<int32_t>(rng() % 41) - 20;
    const uint8_t* tex = rng() % 4 == 0 ? nullptr : texture.data();

    test::Guarded want = frame;
    const int32_t want_sum = embed_superpixel(want.data(), x, y, 1, stride, sp_w, sp_h, bw, bh, value,
                                              frame_w, frame_h, pattern.data(), tex, pm);
    for (const KernelTable* table : test::runnable_tables()) {
      test::Guarded got = frame;
      const int32_t sum = table->embed_superpixel(got.data(), x, y, 1, stride, sp_w, sp_h, bw, bh,
                                                  value, frame_w, frame_h, pattern.data(), tex, pm);
      ASSERT_EQ(want_sum, sum) << table->name << " iter " << iter;
      ASSERT_EQ(want.all(), got.all()) << table->name << " iter " << iter << " sp " << sp_w << "x"
                                       << sp_h << " borders " << bw << "," << bh << " pm " << pm;
    }
  }
}

}  // namespace
}  // namespace lumamark
