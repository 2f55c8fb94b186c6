// One frame through the filter: seeds, the selection spread over the
// repetitions, the zero tail, and the log.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "filter/filter.h"
#include "filter/seed.h"
#include "filter/selection.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

class Apply : public testing::Test {
 protected:
  void TearDown() override {
    wm_filter_free(f_);
    std::remove(log_.c_str());
  }

  // A width x 64 frame of 8-pixel superpixels, strength 3, perceptual mode
  // 0, values cycling through -3..3; in parity mode the index rows alternate
  // between identity and reversed order.
  void make(int32_t width, int32_t fec, int32_t density) {
    ASSERT_EQ(0, wm_filter_init(f_, 3, 8, 0, 100, density, 1, 1, width, 64, "1ABC", 13, 0, fec,
                                0));
    const int32_t n = (width / 8) * 8, length = f_->encoded_bit_count;
    std::vector<uint8_t> map(n), indexes(16 * length);
    for (int32_t i = 0; i < n; ++i) map[i] = static_cast<uint8_t>(i % 7);
    for (int32_t t = 0; t < 16 * length; ++t) {
      const int32_t k = t % length;
      indexes[t] = static_cast<uint8_t>((t / length) % 2 == 0 ? k : length - 1 - k);
    }
    wm_filter_set_payload(f_, map.data(), fec == 0 ? indexes.data() : nullptr, length, 8, width,
                          64);
    wm_filter_set_log_path(f_, log_.c_str());
  }

  std::vector<uint8_t> apply(const std::vector<uint8_t>& before, int32_t seed) {
    std::vector<uint8_t> frame = before;
    EXPECT_EQ(0, wm_filter_apply(f_, frame.data(), f_->width, 64, f_->width, seed));
    return frame;
  }

  // Superpixel indexes listed in the log.
  std::set<int> logged() const {
    const std::string text = test::read_file(log_);
    std::set<int> out;
    for (size_t at = text.find("{\"sp_x\""); at != std::string::npos;
         at = text.find("{\"sp_x\"", at + 1)) {
      int x = -1, y = -1;
      EXPECT_EQ(2, std::sscanf(text.c_str() + at, "{\"sp_x\": %d, \"sp_y\": %d", &x, &y));
      out.insert(y * (f_->width / 8) + x);
    }
    return out;
  }

  WatermarkFilter* f_ = wm_filter_create();
  std::string log_ = test::temp_path("apply.json");
};

TEST_F(Apply, SeedsAreTakenModulo32OrHashedFromTheImage) {
  make(96, 2, 50);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 2);
  const std::vector<uint8_t> five = apply(before, 5);
  EXPECT_EQ(five, apply(before, 37));
  EXPECT_NE(five, apply(before, 6));
  const int32_t hashed = image_seed(before.data(), 96, 64, 96, 1, 1, 12, 8);
  EXPECT_EQ(apply(before, hashed), apply(before, -1));
  EXPECT_EQ(0u, test::read_file(log_).find("{\"stats\": {\"init_value\": " +
                                           std::to_string(hashed) + ","));
  // Reed-Muller mode: the mask is the selection.
  std::vector<uint8_t> mask(96);
  selection_block(mask.data(), 96, 50, hashed);
  std::set<int> want;
  for (int i = 0; i < 96; ++i) {
    if (mask[i] == 1) want.insert(i);
  }
  EXPECT_EQ(want, logged());
}

TEST_F(Apply, ParityModeSpreadsTheMaskThroughTheIndexRows) {
  // 12 x 8 = 96 superpixels, 15 coded symbols: 6 repetitions, 6 left over.
  make(96, 0, 50);
  apply(test::textured_plane(96, 64, 6), 20);
  std::vector<uint8_t> mask(96);
  selection_mask(mask.data(), 6, 15, 50, 20);
  std::set<int> want;
  for (int j = 0; j < 6; ++j) {
    for (int k = 0; k < 15; ++k) {
      if (mask[(j % 2 == 0 ? k : 14 - k) * 6 + j] == 1) want.insert(j * 15 + k);
    }
  }
  EXPECT_EQ(want, logged());
}

TEST_F(Apply, SuperpixelsAfterTheLastRepetitionAreNeverEmbedded) {
  // 4 x 8 = 32 superpixels, 15 coded symbols: 30 and 31 are left out.
  make(32, 0, 100);
  const std::vector<uint8_t> before = test::textured_plane(32, 64, 1);
  const std::vector<uint8_t> after = apply(before, 0);
  std::set<int> want;
  for (int i = 0; i < 30; ++i) want.insert(i);
  EXPECT_EQ(want, logged());
  for (int y = 56; y < 64; ++y) {  // superpixels 30 and 31: the right half of the last row
    EXPECT_TRUE(std::equal(&before[y * 32 + 16], &before[y * 32 + 32], &after[y * 32 + 16]));
  }
}

TEST_F(Apply, UnwritableLogAndEmptyGrid) {
  make(96, 2, 100);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 7);
  const std::vector<uint8_t> with_log = apply(before, 1);
  wm_filter_set_log_path(f_, "/nonexistent-dir/sub/log.json");
  EXPECT_EQ(with_log, apply(before, 1));
  std::vector<uint8_t> frame = before;
  const uint8_t map[1] = {3};
  wm_filter_set_payload(f_, map, nullptr, 1, 8, 7, 64);
  EXPECT_EQ(-1, wm_filter_apply(f_, frame.data(), 96, 64, 96, 0));
  EXPECT_EQ(before, frame);
}

}  // namespace
}  // namespace lumamark
