// Per-superpixel embedding: amplitudes by perceptual mode, clamping, the
// texture weight, the border-activity bands and the passes of repeated
// embedding.
#include "kernels/embed.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "kernels/dispatch.h"

namespace lumamark {
namespace {

TEST(Embed, AmplitudesAndClamping) {
  // One pattern byte at (1, 1) of an 8 x 8 superpixel whose other samples are 100.
  const struct { uint8_t before; int8_t p; int32_t value, pm, change; } cases[] = {
      {100, 5, 9, 1, 1}, {100, 5, -9, 1, -1},  // mode 1 cuts every amplitude to 1,
      {100, 5, 0, 7, 1},                       // so does an unknown mode; 0 counts as positive
      {100, 5, 0, 0, 5},   {254, 3, 1, 0, 1}, {1, 3, -1, 0, -1},  // only the change made counts
      {100, 3, -1, 3, -3},                     // mode 3 without a texture map: plain amplitudes
      {100, 3, 1, 2, 1},                       // a flat border cuts to 1
      {100, -5, 1, 1, -5},                     // never made by the bank: used as it is
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> f(64, 100);
    std::vector<int8_t> pat(64, 0);
    f[9] = c.before;
    pat[9] = c.p;
    const FrameGeometry g{8, 8, 8, 8, 8, 0, 0};
    EXPECT_EQ(c.change, embed_superpixel(f.data(), &g, 0, 0, 1, c.value, pat.data(), nullptr, c.pm))
        << int{c.p} << " value " << c.value << " pm " << c.pm;
    EXPECT_EQ(c.before + c.change, f[9]);
    f[9] = 100;
    EXPECT_EQ(std::vector<uint8_t>(64, 100), f);
  }
}

// A 16 x 16 superpixel with border 2: the top strip (rows 0..3) holds pairs
// of samples at 100 + k and 100 - k on a level of 100, so it measures the sum
// of 2 k^2 exactly; the other strips carry a checkerboard of 50 / 150 and
// measure far more. Pattern bytes 1..7 sit in inner row 6.
TEST(Embed, BorderActivityBands) {
  const struct { int m; std::vector<int> ks; int amp[7]; } cases[] = {
      {998, {22, 3, 2, 1, 1}, {1, 1, 1, 1, 1, 1, 1}}, {1000, {22, 4}, {0, 1, 2, 3, 4, 4, 5}},
      {1998, {31, 6, 1, 1}, {0, 1, 2, 3, 4, 4, 5}},   {2000, {31, 6, 1, 1, 1}, {0, 1, 1, 2, 3, 3, 4}},
      {3998, {44, 7, 3, 2, 1}, {0, 0, 1, 1, 2, 2, 2}}, {4000, {44, 8}, {0, 0, 0, 0, 1, 1, 1}},
      {4998, {49, 9, 4, 1}, {0, 0, 0, 0, 1, 1, 1}},   {5000, {50}, {1, 2, 3, 4, 5, 6, 7}},
  };
  std::vector<int8_t> pat(256, 0);
  for (int p = 1; p <= 7; ++p) pat[6 * 16 + 4 + p] = static_cast<int8_t>(p);
  for (const auto& c : cases) {
    std::vector<uint8_t> f(256, 100);
    for (int i = 4 * 16; i < 256; ++i) f[i] = (i / 16 + i % 16) % 2 ? 150 : 50;
    for (size_t k = 0; k < c.ks.size(); ++k) {
      f[16 + 4 + k] = static_cast<uint8_t>(100 + c.ks[k]);
      f[32 + 4 + k] = static_cast<uint8_t>(100 - c.ks[k]);
    }
    ASSERT_EQ(c.m, block_ssd(f.data(), 16, 4, 16));
    const std::vector<uint8_t> before = f;
    const FrameGeometry g{16, 16, 16, 16, 16, 2, 2};
    embed_superpixel(f.data(), &g, 0, 0, 1, 1, pat.data(), nullptr, 2);
    for (int p = 1; p <= 7; ++p) {
      const int i = 6 * 16 + 4 + p;
      EXPECT_EQ(c.amp[p - 1], f[i] - before[i]) << "m " << c.m << " p " << p;
    }
  }
  // The mean is truncated, and the sum is not divided by the count.
  const uint8_t two[2] = {0, 255};
  EXPECT_EQ(127 * 127 + 128 * 128, block_ssd(two, 2, 1, 2));
  EXPECT_EQ(0, block_ssd(two, 2, 0, 2));
}


// Repeated (deep-fake) embedding of a run of four 7 x 7 superpixels on a
// level of 100, pattern byte 1 on the 5 x 5 inner area, plain amplitudes,
// strength 3, with every table's run kernel. Each pass adds the next
// magnitude; the passes stop when the magnitude reaches the strength or one
// pass's sum reaches the target; the sum returned is the last pass's.
TEST(Embed, RepeatedPassesStopAtStrengthOrTarget) {
  constexpr int32_t kSide = 7, kWidth = 4 * kSide;
  std::vector<int8_t> pattern(kSide * kSide, 0);
  for (int r = 1; r < kSide - 1; ++r) {
    for (int c = 1; c < kSide - 1; ++c) pattern[r * kSide + c] = 1;
  }
  const struct { uint8_t level; int32_t value; int64_t target; uint8_t after; int32_t sum; } cases[4] = {
      {100, 1, INT64_MAX, 103, 2 * 25},  // +1 then +2; magnitude 3 ends it
      {100, 1, 0, 101, 25},              // a target of 0 is met by the first pass
      {100, -2, INT64_MAX, 98, -2 * 25}, // one pass: magnitude 3 comes next
      {254, 1, INT64_MAX, 255, 0},       // the second pass finds every pixel at 255
  };
  for (const KernelTable* t : {&kernel_table(KernelSet::Plain), &kernel_table(KernelSet::Avx2)}) {
    if (t == &kernel_table(KernelSet::Avx2) && !kernel_set_supported(KernelSet::Avx2)) continue;
    for (const bool leave_last_alone : {false, true}) {
      std::vector<uint8_t> frame(kWidth * kSide);
      std::vector<RepeatItem> items;
      for (int i = 0; i < 4; ++i) {
        for (int r = 0; r < kSide; ++r) {
          for (int c = 0; c < kSide; ++c) frame[r * kWidth + i * kSide + c] = cases[i].level;
        }
        items.push_back({pattern.data(), cases[i].value, cases[i].target});
      }
      if (leave_last_alone) items[3].pattern = nullptr;
      const FrameGeometry g{kWidth, kSide, kWidth, kSide, kSide, 1, 1};
      std::vector<uint8_t> scratch(static_cast<size_t>(embed_repeat_run_scratch_bytes(kSide, kSide, 4)));
      std::vector<int32_t> sums(4, -7);
      const EmbedRepeatRun run{frame.data(), &g, 0, 0, 4, items.data(), nullptr, 0, 3, sums.data(), scratch.data()};
      t->embed_repeat_run(&run);
      for (int i = 0; i < 4; ++i) {
        const bool alone = leave_last_alone && i == 3;
        SCOPED_TRACE(testing::Message() << t->name << " superpixel " << i << (alone ? " left alone" : ""));
        EXPECT_EQ(alone ? 0 : cases[i].sum, sums[i]);
        for (int r = 0; r < kSide; ++r) {
          for (int c = 0; c < kSide; ++c) {
            const bool inner = r > 0 && r < kSide - 1 && c > 0 && c < kSide - 1;
            ASSERT_EQ(inner && !alone ? cases[i].after : cases[i].level, frame[r * kWidth + i * kSide + c])
                << "row " << r << " column " << c;
          }
        }
      }
    }
  }
}

}  // namespace
}  // namespace lumamark
