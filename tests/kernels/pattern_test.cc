#include "kernels/pattern.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "kernels/prng.h"

namespace lumamark {
namespace {

const int32_t kAdjust[4] = {20, 15, 5, -5};

// A bank between 64 guard bytes on either side.
struct Bank {
  PatternLayout layout;
  std::vector<int8_t> buf;
  Bank(int32_t classes, int32_t levels, int32_t w, int32_t h, int32_t bw, int32_t bh) {
    pattern_layout(&layout, classes, 1, levels, w, h, bw, bh);
    buf.assign(layout.total + 128, 0x5A);
  }
  int8_t* data() { return buf.data() + 64; }
  int8_t at(int32_t c, int32_t level, int32_t r, int32_t col) {
    return pattern_select(data(), &layout, c, 0, level + 1)[r * layout.width + col];
  }
  bool guards_intact() const {
    for (int i = 0; i < 64; ++i)
      if (buf[i] != 0x5A || buf[buf.size() - 1 - i] != 0x5A) return false;
    return true;
  }
};

TEST(Pattern, GeneratorAndKeyHash) {
  Prng64 g;
  prng64_seed(&g, 1, 2);
  const uint8_t first[8] = {3, 6, 0, 4, 0, 96, 0, 0}, second[8] = {27, 96, 220, 8, 128, 96, 192, 12};
  for (const uint8_t* want : {first, second}) {
    const uint8_t* got = prng64_next(&g);
    EXPECT_EQ(std::vector<uint8_t>(want, want + 8), std::vector<uint8_t>(got, got + 8));
  }
  EXPECT_EQ(key_hash(""), 0);
  EXPECT_EQ(key_hash("1"), 49);
  EXPECT_EQ(key_hash("10"), 1567);
  EXPECT_EQ(key_hash("101100111010"), 4948);
  EXPECT_EQ(key_hash("\xff"), -1);  // signed bytes, truncating remainder
  EXPECT_EQ(border_or_default(0, 7), 1);
  EXPECT_EQ(border_or_default(-3, 64), 8);
  EXPECT_EQ(border_or_default(5, 64), 5);
}

// One generator step per 8-pixel row of a 10 x 10 pattern with border 1, the
// two levels in stream order; values worked out independently of the kernel.
TEST(Pattern, FillsFromOneStream) {
  const int8_t level0[8][8] = {
      {2, 1, 3, 3, 3, 2, 1, 3}, {1, 1, 1, 1, 1, 2, 1, 1}, {1, 2, 3, 3, 3, 1, 2, 1}, {1, 3, 1, 1, 2, 1, 1, 1},
      {2, 1, 1, 2, 1, 3, 1, 2}, {3, 1, 3, 2, 1, 1, 3, 3}, {2, 3, 1, 3, 1, 3, 1, 2}, {2, 3, 1, 3, 1, 3, 2, 1}};
  const int8_t level1[8][8] = {
      {0, 2, 2, 2, 2, 2, 0, 2}, {2, 2, 0, 0, 2, 2, 0, 0}, {2, 2, 2, 2, 2, 2, 2, 2}, {2, 2, 2, 2, 2, 0, 0, 2},
      {0, 2, 2, 2, 2, 2, 2, 2}, {2, 2, 2, 2, 0, 2, 2, 2}, {2, 2, 2, 2, 2, 0, 2, 0}, {2, 2, 2, 2, 2, 2, 0, 2}};
  Bank b(1, 2, 10, 10, 1, 1);
  pattern_bank_fill(b.data(), &b.layout, 60, kAdjust, "101100111010", 7, false);
  for (int r = 0; r < 10; ++r)
    for (int c = 0; c < 10; ++c) {
      const bool inner = r >= 1 && r <= 8 && c >= 1 && c <= 8;
      EXPECT_EQ(b.at(0, 0, r, c), inner ? level0[r - 1][c - 1] : 0) << r << "," << c;
      EXPECT_EQ(b.at(0, 1, r, c), inner ? level1[r - 1][c - 1] : 0) << r << "," << c;
    }
  EXPECT_TRUE(b.guards_intact());
}

TEST(Pattern, DensityLimitsAndDottedEdges) {
  // 12 wide, 9 high, border 1 across and 2 down: density 100 covers the inner
  // area; the holes mix the border sizes between rows and columns.
  Bank b(4, 1, 12, 9, 1, 2);
  pattern_bank_fill(b.data(), &b.layout, 100, kAdjust, "0", 3, true);
  const std::vector<std::pair<int, int>> holes = {{2, 4}, {2, 7}, {2, 10}, {6, 4}, {6, 7}, {6, 10},
                                                  {3, 1}, {3, 10}, {6, 1}};
  for (int r = 2; r <= 6; ++r)
    for (int c = 1; c <= 10; ++c) {
      const bool hole = std::find(holes.begin(), holes.end(), std::make_pair(r, c)) != holes.end();
      for (int cls = 0; cls < 3; ++cls) {  // classes 0..2 reach density 100
        const int v = b.at(cls, 0, r, c);
        EXPECT_TRUE(hole ? v == 0 : v >= 1 && v <= 3) << cls << " " << r << "," << c;
      }
    }
  // A negative density (0 - 5 in class 3) writes nothing.
  pattern_bank_fill(b.data(), &b.layout, 0, kAdjust, "0", 3, false);
  for (int r = 0; r < 9; ++r)
    for (int c = 0; c < 12; ++c) EXPECT_EQ(b.at(3, 0, r, c), 0);
  EXPECT_TRUE(b.guards_intact());
}

TEST(Pattern, OversizedBordersStayInsideThePattern) {
  for (const auto& g : {std::array<int, 4>{20, 5, 0, 10}, {5, 20, 10, 0}, {6, 6, 3, 3}, {5, 5, 9, 9}}) {
    Bank b(2, 2, g[0], g[1], g[2], g[3]);
    pattern_bank_fill(b.data(), &b.layout, 100, kAdjust, "1", 1, true);
    EXPECT_TRUE(b.guards_intact()) << g[0] << "x" << g[1];
    for (int i = 0; i < b.layout.total; ++i) ASSERT_EQ(b.data()[i], 0);
  }
}

TEST(Pattern, LayoutAndSelect) {
  PatternLayout l;
  pattern_layout(&l, 4, 16, 3, 7, 9, 0, 0);
  EXPECT_EQ(l.level_stride, 63);
  EXPECT_EQ(l.variant_stride, 3 * 63);
  EXPECT_EQ(l.class_stride, 16 * 3 * 63);
  EXPECT_EQ(l.total, 4 * 16 * 3 * 63);
  const std::vector<int8_t> bank(l.total);
  const auto off = [&](int32_t c, int32_t v, int32_t value) {
    return pattern_select(bank.data(), &l, c, v, value) - bank.data();
  };
  EXPECT_EQ(off(0, 0, 0), 0);
  EXPECT_EQ(off(0, 0, 1), 0);
  EXPECT_EQ(off(0, 0, -1), 0);
  EXPECT_EQ(off(0, 0, -3), 2 * 63);
  EXPECT_EQ(off(0, 0, 4), 0);
  EXPECT_EQ(off(2, 17, -5), 2 * l.class_stride + l.variant_stride + 63);
}

}  // namespace
}  // namespace lumamark
