#include "kernels/embed.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace lumamark {
namespace {

// Straight transcription of the embedding rules, with the full 255-entry
// table and plain arithmetic, for comparison with the kernel.
int32_t ref_ssd(const uint8_t* b, int32_t w, int32_t h, int32_t stride) {
  if (h < 1) return 0;
  uint32_t sum = 0;
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) sum += b[r * stride + c];
  const int32_t mean = static_cast<int32_t>(sum) / (w * h);
  uint64_t ssd = 0;
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) {
      const int64_t d = b[r * stride + c] - mean;
      ssd += static_cast<uint64_t>(d * d);
    }
  return static_cast<int32_t>(static_cast<uint32_t>(ssd));
}

int32_t ref_embed(uint8_t* luma, int32_t x, int32_t y, int32_t stride, int32_t sp, int32_t spb,
                  int32_t value, int32_t fw, int32_t fh, const int8_t* pat, const uint8_t* tex,
                  int32_t pm) {
  const int32_t b = spb >= 1 ? spb : std::max(sp / 8, 1);
  const int32_t sign = value < 0 ? -1 : 1;
  int32_t table[255];
  for (int i = 0; i < 255; ++i) table[i] = i;
  uint32_t s0 = 0, s1 = 0;
  if (pm == 3) {
    s0 = (static_cast<uint32_t>(y) << 16) ^ static_cast<uint32_t>(fw ^ fh) ^ (x + 1);
    s1 = s0 ^ 0xacbdef01u;
  } else if (pm == 2) {
    const uint8_t* o = luma + y * stride + x;
    const int32_t m = std::min(
        std::min(ref_ssd(o, sp, 2 * b, stride), ref_ssd(o + (sp - 2 * b) * stride, sp, 2 * b, stride)),
        std::min(ref_ssd(o, 2 * b, sp, stride), ref_ssd(o + sp - 2 * b, 2 * b, sp, stride)));
    const int32_t q = m / 1000, c = 5 - q;
    for (int k = 1; k <= 7; ++k) {
      if (m < 1000) table[k] = 1;
      else if (m < 5000) table[k] = c * k / 5;
    }
  } else if (pm != 0) {
    for (int k = 1; k <= 7; ++k) table[k] = 1;
  }
  uint8_t bytes[8];
  int counter = 8, total = 0;
  for (int row = 0; row < sp; ++row)
    for (int col = 0; col < sp; ++col) {
      const int p = pat[row * sp + col];
      const int a = std::min(p, table[p]) * sign;
      if (a == 0) continue;
      uint8_t* px = luma + (y + row) * stride + x + col;
      int d = a;
      if (pm == 3 && tex) {
        if (counter > 7) {
          const uint32_t t = s1 ^ s0;
          s0 = ((s0 >> 6) | (s0 << 26)) ^ t ^ (t << 9);
          s1 = (t >> 19) | (t << 13);
          for (int k = 0; k < 4; ++k) bytes[k] = s0 >> (8 * k), bytes[4 + k] = s1 >> (8 * k);
          counter = 0;
        }
        d = a * (bytes[counter++] + 24 * tex[(y + row) * fw + x + col] + 128) / 1024;
        if (d == 0) continue;
      }
      const int now = std::max(std::min(*px + d, 255), 0);
      total += now - *px;
      *px = now;
    }
  return total;
}

struct Frame {
  int32_t w, h, pad;
  std::vector<uint8_t> buf;  // guard rows above and below the plane
  Frame(int32_t w_, int32_t h_, uint8_t fill) : w(w_), h(h_), pad(2 * w_), buf(w_ * h_ + 2 * pad, fill) {}
  uint8_t* luma() { return buf.data() + pad; }
};

int32_t embed(Frame& f, int32_t x, int32_t y, int32_t sp, int32_t spb, int32_t value,
              const int8_t* pat, const uint8_t* tex, int32_t pm) {
  return embed_superpixel(f.luma(), x, y, 1, f.w, sp, sp, spb, spb, value, f.w, f.h, pat, tex, pm);
}

TEST(Embed, MatchesReferenceOnRandomSuperpixels) {
  std::mt19937 rng(12345);
  const int32_t modes[] = {0, 1, 2, 3, 3, 7, -1};
  int bands[4] = {};
  for (int iter = 0; iter < 3000; ++iter) {
    const int32_t sp = 5 + rng() % 60, spb = rng() % ((sp + 1) / 2);
    const int32_t cols = 1 + rng() % 3, rows = 1 + rng() % 3;
    const int32_t fw = cols * sp + rng() % 4, fh = rows * sp + rng() % 4;
    Frame f(fw, fh, 0xA5);
    // Low-contrast frames around a random level sweep the border-activity bands.
    const int32_t base = rng() % 256, spread = 1 + rng() % 24;
    for (int i = 0; i < fw * fh; ++i) f.luma()[i] = std::min<int>(255, base + rng() % spread);
    std::vector<int8_t> pat(sp * sp);
    const int32_t maxp = rng() % 4 ? 8 : 128;
    for (auto& p : pat) p = rng() % 3 ? 0 : rng() % maxp;
    std::vector<uint8_t> tex(fw * fh);
    for (auto& t : tex) t = rng() % 51;
    const int32_t pm = modes[rng() % 7];
    const uint8_t* texp = rng() % 5 ? tex.data() : nullptr;
    const int32_t x = (cols - 1) * sp, y = (rows - 1) * sp;  // last column and row of the grid
    const int32_t value = static_cast<int32_t>(rng() % 9) - 4;
    Frame g = f;
    const int32_t got = embed(f, x, y, sp, spb, value, pat.data(), texp, pm);
    const int32_t want = ref_embed(g.luma(), x, y, fw, sp, spb, value, fw, fh, pat.data(), texp, pm);
    ASSERT_EQ(got, want) << "iter " << iter;
    ASSERT_EQ(f.buf, g.buf) << "iter " << iter;
    if (pm == 2) {
      const int32_t b = spb >= 1 ? spb : std::max(sp / 8, 1);
      const int32_t m = ref_ssd(g.luma() + y * fw + x, sp, 2 * b, fw);
      ++bands[m < 1000 ? 0 : m < 5000 ? 1 : m < 10000 ? 2 : 3];
    }
  }
  for (int n : bands) EXPECT_GT(n, 0);
}

TEST(Embed, AmplitudeAndClamping) {
  Frame f(8, 8, 100);
  std::vector<int8_t> pat(64, 0);
  pat[0] = 5;
  EXPECT_EQ(embed(f, 0, 0, 8, 0, 9, pat.data(), nullptr, 1), 1);
  EXPECT_EQ(embed(f, 0, 0, 8, 0, -9, pat.data(), nullptr, 1), -1);
  EXPECT_EQ(f.luma()[0], 100);
  // Unknown modes cut like mode 1; value 0 counts as positive.
  EXPECT_EQ(embed(f, 0, 0, 8, 0, 0, pat.data(), nullptr, 7), 1);
  EXPECT_EQ(embed(f, 0, 0, 8, 0, 0, pat.data(), nullptr, 0), 5);
  EXPECT_EQ(f.luma()[0], 106);
  f.luma()[0] = 254;
  pat[0] = 3;
  EXPECT_EQ(embed(f, 0, 0, 8, 0, 1, pat.data(), nullptr, 0), 1);
  EXPECT_EQ(f.luma()[0], 255);
  f.luma()[0] = 1;
  EXPECT_EQ(embed(f, 0, 0, 8, 0, -1, pat.data(), nullptr, 0), -1);
  // Bytes the bank never produces are used as they are and stay in bounds.
  pat[0] = -5;
  f.luma()[0] = 100;
  EXPECT_EQ(embed(f, 0, 0, 8, 0, 1, pat.data(), nullptr, 1), -5);
}

TEST(Embed, TextureWeightBounds) {
  // Weight r + 24 t + 128: at most 383 for t = 0, 1328..1583 for t = 50.
  std::vector<int8_t> ones(64 * 64, 1), threes(64 * 64, 3);
  for (uint8_t t : {0, 50}) {
    std::vector<uint8_t> tex(64 * 64, t);
    for (int pos = 0; pos < 4; ++pos) {
      const int32_t x = 32 * (pos % 2), y = 32 * (pos / 2);
      Frame f(64, 64, 128);
      EXPECT_EQ(embed(f, x, y, 32, 0, 1, ones.data(), tex.data(), 3), t ? 32 * 32 : 0);
      EXPECT_EQ(embed(f, x, y, 32, 0, -1, ones.data(), tex.data(), 3), t ? -32 * 32 : 0);
      if (t == 0) continue;
      embed(f, x, y, 32, 0, -1, threes.data(), tex.data(), 3);
      for (int i = 0; i < 32 * 32; ++i) {
        const int v = f.luma()[(y + i / 32) * 64 + x + i % 32];
        ASSERT_TRUE(v == 125 || v == 124) << v;
      }
    }
  }
}

// A 16 x 16 superpixel with border 2: the top strip (rows 0..3) holds pairs of
// samples at 100 + k and 100 - k on a level of 100, so it measures the sum of
// 2 k^2 exactly; the other strips carry a checkerboard of 50 / 150 and measure
// far more. Pattern bytes 1..7 sit in inner row 6.
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
    Frame f(16, 16, 100);
    for (int i = 4 * 16; i < 256; ++i) f.luma()[i] = (i / 16 + i % 16) % 2 ? 150 : 50;
    for (size_t k = 0; k < c.ks.size(); ++k) {
      f.luma()[16 + 4 + k] = 100 + c.ks[k];
      f.luma()[32 + 4 + k] = 100 - c.ks[k];
    }
    ASSERT_EQ(block_ssd(f.luma(), 16, 4, 16), c.m);
    Frame g = f;
    embed(f, 0, 0, 16, 2, 1, pat.data(), nullptr, 2);
    for (int p = 1; p <= 7; ++p) {
      const int i = 6 * 16 + 4 + p;
      EXPECT_EQ(f.luma()[i] - g.luma()[i], c.amp[p - 1]) << "m " << c.m << " p " << p;
    }
  }
}

TEST(Embed, BlockSsdWrapsAndTruncatesMean) {
  const uint8_t two[2] = {0, 255};
  EXPECT_EQ(block_ssd(two, 2, 1, 2), 127 * 127 + 128 * 128);
  EXPECT_EQ(block_ssd(two, 2, 0, 2), 0);
  std::vector<uint8_t> big(1024 * 512);
  for (size_t i = 0; i < big.size(); ++i) big[i] = (i % 2) * 255;
  EXPECT_EQ(block_ssd(big.data(), 1024, 512, 1024), ref_ssd(big.data(), 1024, 512, 1024));
}

}  // namespace
}  // namespace lumamark
