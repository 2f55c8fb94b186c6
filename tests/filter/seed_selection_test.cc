// Image-hash seed and the exact-count selection mask.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "filter/seed.h"
#include "filter/selection.h"
#include "kernels/prng.h"

namespace lumamark {
namespace {

TEST(ImageSeed, WorkedExamples) {
  // 14 x 7 of 128 in two 7 x 7 cells: values 24, 24; h = 768; 768 mod 32 = 0.
  std::vector<uint8_t> grey(14 * 7, 128);
  EXPECT_EQ(0, image_seed(grey.data(), 14, 7, 14, 1, 1, 2, 1));

  // Four 16 x 16 cells of 255, value 255 each: h runs 255, 8160, 1187, 1048,
  // and 1048 mod 32 = 24.
  std::vector<uint8_t> white(32 * 32, 255);
  EXPECT_EQ(24, image_seed(white.data(), 32, 32, 32, 1, 1, 2, 2));

  std::vector<uint8_t> black(32 * 32, 0);
  EXPECT_EQ(0, image_seed(black.data(), 32, 32, 32, 1, 1, 2, 2));
  EXPECT_EQ(0, image_seed(white.data(), 32, 32, 32, 1, 1, 0, 2));
}

TEST(ImageSeed, UsesOnlyWholeCellsAndIgnoresRowPadding) {
  std::vector<uint8_t> frame(32 * 32);
  for (size_t i = 0; i < frame.size(); ++i) frame[i] = static_cast<uint8_t>(i * 37 + i / 32);
  const int32_t seed = image_seed(frame.data(), 32, 32, 32, 1, 1, 3, 3);

  std::vector<uint8_t> padded(40 * 32, 0xAB);
  for (int y = 0; y < 32; ++y) {
    for (int x = 0; x < 32; ++x) padded[y * 40 + x] = frame[y * 32 + x];
  }
  EXPECT_EQ(seed, image_seed(padded.data(), 32, 32, 40, 1, 1, 3, 3));

  // 3 x 3 cells of 10 x 10: column 30..31 and rows 30..31 are outside.
  for (int y = 0; y < 32; ++y) frame[y * 32 + 31] = static_cast<uint8_t>(frame[y * 32 + 31] + 99);
  for (int x = 0; x < 32; ++x) frame[30 * 32 + x] = static_cast<uint8_t>(frame[30 * 32 + x] + 7);
  EXPECT_EQ(seed, image_seed(frame.data(), 32, 32, 32, 1, 1, 3, 3));
  EXPECT_GE(seed, 0);
  EXPECT_LT(seed, 32);
}

TEST(ImageSeed, ChangesOnlyWhenACellSumCrossesAMultipleOf256) {
  // One 16 x 16 cell summing to 255 x 200 = 51000: value 199.
  std::vector<uint8_t> cell(16 * 16, 0);
  for (int i = 0; i < 200; ++i) cell[i] = 255;
  EXPECT_EQ(199 % 32, image_seed(cell.data(), 16, 16, 16, 1, 1, 1, 1));
  cell[210] = 199;  // 51199: still 199
  EXPECT_EQ(199 % 32, image_seed(cell.data(), 16, 16, 16, 1, 1, 1, 1));
  cell[211] = 1;  // 51200: 200
  EXPECT_EQ(200 % 32, image_seed(cell.data(), 16, 16, 16, 1, 1, 1, 1));
}

int ones(const std::vector<uint8_t>& v) { return std::accumulate(v.begin(), v.end(), 0); }

TEST(SelectionBlock, CorrectsToTheExactCount) {
  for (int32_t seed : {0, 1, 5, 31, 1000}) {
    for (int32_t n : {2, 3, 10, 17, 100, 1001}) {
      for (int32_t density : {0, 1, 33, 50, 99, 100}) {
        std::vector<uint8_t> out(n, 7);
        selection_block(out.data(), n, density, seed);
        EXPECT_EQ(density * n / 100, ones(out)) << n << " " << density << " " << seed;
        for (uint8_t b : out) ASSERT_LE(b, 1);
      }
    }
  }
  std::vector<uint8_t> ten(10);
  selection_block(ten.data(), 10, 50, 3);
  EXPECT_EQ(5, ones(ten));
}

TEST(SelectionBlock, SingleByteIsNotCorrected) {
  // With n = 1 the byte is the first random byte compared with the threshold
  // 127 (density 50), so both outcomes occur over the seeds.
  int seen[2] = {0, 0};
  for (int32_t i = 0; i < 64; ++i) {
    const int32_t seed = static_cast<int32_t>(static_cast<uint32_t>(i) * 0x9E3779B9u);
    uint8_t out = 9;
    selection_block(&out, 1, 50, seed);
    Prng64 g;
    prng64_seed(&g, static_cast<uint32_t>(seed), 9);
    EXPECT_EQ(prng64_next(&g)[0] <= 127 ? 1 : 0, out);
    ++seen[out & 1];
  }
  EXPECT_GT(seen[0], 0);
  EXPECT_GT(seen[1], 0);
}

TEST(SelectionBlock, OutOfRangeDensityEndsWithoutCorrection) {
  std::vector<uint8_t> out(10);
  selection_block(out.data(), 10, 150, 4);  // threshold above 255: all ones
  EXPECT_EQ(10, ones(out));
  selection_block(out.data(), 10, -20, 4);  // negative threshold: all zeros
  EXPECT_EQ(0, ones(out));
  uint8_t untouched = 5;
  selection_block(&untouched, 0, 50, 4);
  EXPECT_EQ(5, untouched);
}

TEST(SelectionMask, BlocksPerSymbolWithTheirOwnSeeds) {
  const int32_t reps = 6, length = 5, seed = 11;
  std::vector<uint8_t> mask(reps * length);
  selection_mask(mask.data(), reps, length, 50, seed);
  for (int32_t k = 0; k < length; ++k) {
    std::vector<uint8_t> block(reps);
    selection_block(block.data(), reps, 50, seed + 67 * k);
    EXPECT_TRUE(std::equal(block.begin(), block.end(), mask.begin() + k * reps)) << k;
  }
  // One repetition: one block over the whole length.
  std::vector<uint8_t> one(40), block(40);
  selection_mask(one.data(), 1, 40, 50, seed);
  selection_block(block.data(), 40, 50, seed);
  EXPECT_EQ(block, one);
  EXPECT_EQ(20, ones(one));
}

}  // namespace
}  // namespace lumamark
