// Image-hash seed and the exact-count selection mask.
#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "filter/seed.h"
#include "filter/selection.h"
#include "kernels/prng.h"

namespace lumamark {
namespace {

TEST(ImageSeed, WorkedExamples) {
  // Two 7 x 7 cells of 128: values 24, 24; h = 768; 768 mod 32 = 0.
  const std::vector<uint8_t> grey(14 * 7, 128);
  EXPECT_EQ(0, image_seed(grey.data(), 14, 7, 14, 1, 1, 2, 1));
  // Four 16 x 16 cells of 255 (value 255): h = 255, 8160, 1187, 1048 -> 24.
  // The padding column of the 33-byte rows is not read.
  std::vector<uint8_t> white(33 * 32, 255);
  for (int y = 0; y < 32; ++y) white[y * 33 + 32] = 0;
  EXPECT_EQ(24, image_seed(white.data(), 32, 32, 33, 1, 1, 2, 2));
  // A cell sum changes the seed only when it crosses a multiple of 256.
  white[0] = 0;  // 65025 -> value 254
  EXPECT_NE(24, image_seed(white.data(), 32, 32, 33, 1, 1, 2, 2));
  EXPECT_EQ(0, image_seed(white.data(), 32, 32, 33, 1, 1, 0, 2));
}

int ones(const std::vector<uint8_t>& v) { return std::accumulate(v.begin(), v.end(), 0); }

TEST(SelectionBlock, CorrectsToTheExactCount) {
  for (int32_t seed : {0, 5, 1000}) {
    for (int32_t n : {2, 10, 17, 1001}) {
      for (int32_t density : {0, 33, 50, 100}) {
        std::vector<uint8_t> out(n, 7);
        selection_block(out.data(), n, density, seed);
        EXPECT_EQ(density * n / 100, ones(out)) << n << " " << density << " " << seed;
      }
    }
  }
}

TEST(SelectionBlock, CorrectionWalkSharesTheGeneratorStream) {
  // Raw fills 11111011000100010000 (9 ones) and all ones, corrected to 6 and
  // 16 ones by walks from (r + 1) mod n.
  const struct {
    int32_t n, density, seed;
    const char* bits;
  } cases[] = {{20, 30, 7, "01111000000100010000"}, {20, 80, 12, "01011111111111101110"}};
  for (const auto& c : cases) {
    std::vector<uint8_t> out(c.n);
    selection_block(out.data(), c.n, c.density, c.seed);
    std::string text;
    for (uint8_t b : out) text += static_cast<char>('0' + b);
    EXPECT_EQ(c.bits, text);
  }
}

TEST(SelectionBlock, SingleByteIsNotCorrected) {
  // The first random byte against the threshold 127; both outcomes occur.
  int seen[2] = {0, 0};
  for (uint32_t i = 0; i < 64; ++i) {
    const int32_t seed = static_cast<int32_t>(i * 0x9E3779B9u);
    uint8_t out = 9;
    selection_block(&out, 1, 50, seed);
    Prng64 g;
    prng64_seed(&g, static_cast<uint32_t>(seed), 9);
    EXPECT_EQ(prng64_next(&g)[0] <= 127 ? 1 : 0, out);
    ++seen[out & 1];
  }
  EXPECT_GT(seen[0] * seen[1], 0);
}

TEST(SelectionMask, OneBlockPerSymbolWithItsOwnSeed) {
  std::vector<uint8_t> mask(6 * 5), block(6);
  selection_mask(mask.data(), 6, 5, 50, 11);
  selection_block(block.data(), 6, 50, 11 + 67 * 4);
  EXPECT_TRUE(std::equal(block.begin(), block.end(), mask.begin() + 4 * 6));
  std::vector<uint8_t> tail(10);  // a density above 100 cannot be corrected
  selection_block(tail.data(), 10, 150, 4);
  EXPECT_EQ(10, ones(tail));
}

}  // namespace
}  // namespace lumamark
