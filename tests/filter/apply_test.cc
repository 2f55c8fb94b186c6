// One frame through the filter: seeds, the selection spread over the
// repetitions, the zero tail, the log, and thread-count independence.
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

struct Settings {
  int32_t width = 96;
  int32_t height = 64;
  int32_t sp = 8;
  int32_t fec = 2;
  int32_t pm = 0;
  int32_t density = 100;
  int32_t deep_fake = 0;
  int32_t threads = 1;
  int32_t strength = 3;
};

class Apply : public testing::Test {
 protected:
  void TearDown() override {
    if (f_ != nullptr) wm_filter_free(f_);
    std::remove(log_.c_str());
  }

  // A filter with a map of values cycling through -3..3 and, in parity mode,
  // index rows that alternate between identity and reversed order.
  void make(const Settings& s) {
    if (f_ != nullptr) wm_filter_free(f_);
    f_ = wm_filter_create();
    ASSERT_EQ(0, wm_filter_init(f_, s.strength, s.sp, 0, 100, s.density, 1, 1, s.width, s.height,
                                "1ABC", 13, s.deep_fake, s.fec, s.pm));
    const int32_t n = (s.width / s.sp) * (s.height / s.sp);
    std::vector<uint8_t> map(n);
    for (int32_t i = 0; i < n; ++i) map[i] = static_cast<uint8_t>(s.strength + (i % 7) - 3);
    std::vector<uint8_t> indexes;
    const int32_t length = f_->encoded_bit_count;
    if (s.fec == 0) {
      indexes.resize(16 * length);
      for (int32_t t = 0; t < 16; ++t) {
        for (int32_t k = 0; k < length; ++k) {
          indexes[t * length + k] = static_cast<uint8_t>(t % 2 == 0 ? k : length - 1 - k);
        }
      }
    }
    wm_filter_set_payload(f_, map.data(), indexes.empty() ? nullptr : indexes.data(), length,
                          s.sp, s.width, s.height);
    wm_filter_set_threads(f_, s.threads);
  }

  std::vector<uint8_t> apply(const std::vector<uint8_t>& before, int32_t seed,
                             bool with_log = true) {
    wm_filter_set_log_path(f_, with_log ? log_.c_str() : nullptr);
    std::vector<uint8_t> frame = before;
    EXPECT_EQ(0, wm_filter_apply(f_, frame.data(), f_->width, f_->height, f_->width, seed));
    return frame;
  }

  // Superpixels listed in the log.
  std::set<std::pair<int, int>> logged() const {
    const std::string text = test::read_file(log_);
    std::set<std::pair<int, int>> out;
    for (size_t at = text.find("{\"sp_x\""); at != std::string::npos;
         at = text.find("{\"sp_x\"", at + 1)) {
      int x = -1, y = -1;
      EXPECT_EQ(2, std::sscanf(text.c_str() + at, "{\"sp_x\": %d, \"sp_y\": %d", &x, &y));
      out.insert({x, y});
    }
    return out;
  }

  WatermarkFilter* f_ = nullptr;
  std::string log_ = test::temp_path("apply.json");
};

TEST_F(Apply, SeedIsTakenModulo32AndNegativeSeedsHashTheImage) {
  Settings s;
  s.density = 50;
  make(s);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 2);
  const std::vector<uint8_t> five = apply(before, 5);
  EXPECT_NE(before, five);
  EXPECT_EQ(five, apply(before, 37));
  EXPECT_NE(five, apply(before, 6));

  const int32_t hashed = image_seed(before.data(), 96, 64, 96, 1, 1, 12, 8);
  EXPECT_EQ(apply(before, hashed), apply(before, -1));
  EXPECT_NE(std::string::npos,
            test::read_file(log_).find("\"init_value\": " + std::to_string(hashed) + ","));
}

TEST_F(Apply, ReedMullerModeCopiesTheMaskOntoTheGrid) {
  Settings s;
  s.density = 50;
  make(s);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 4);
  apply(before, 12);
  std::vector<uint8_t> mask(96);
  selection_block(mask.data(), 96, 50, 12);
  std::set<std::pair<int, int>> want;
  for (int i = 0; i < 96; ++i) {
    if (mask[i] == 1) want.insert({i % 12, i / 12});
  }
  EXPECT_EQ(48u, want.size());
  EXPECT_EQ(want, logged());
}

TEST_F(Apply, ParityModeSpreadsTheMaskThroughTheIndexRows) {
  // 12 x 8 = 96 superpixels, 15 coded symbols: 6 repetitions, 6 left over.
  Settings s;
  s.fec = 0;
  s.density = 50;
  make(s);
  ASSERT_EQ(15, f_->encoded_bit_count);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 6);
  apply(before, 20);
  std::vector<uint8_t> mask(96);
  selection_mask(mask.data(), 6, 15, 50, 20);
  std::set<std::pair<int, int>> want;
  for (int j = 0; j < 6; ++j) {
    for (int k = 0; k < 15; ++k) {
      const int symbol = j % 2 == 0 ? k : 14 - k;
      if (mask[symbol * 6 + j] == 1) want.insert({(j * 15 + k) % 12, (j * 15 + k) / 12});
    }
  }
  EXPECT_EQ(want, logged());
}

TEST_F(Apply, SuperpixelsAfterTheLastRepetitionAreNeverEmbedded) {
  // 4 x 4 = 16 superpixels, 15 coded symbols: superpixel 15 is left out.
  Settings s;
  s.width = 32;
  s.height = 32;
  s.fec = 0;
  make(s);
  const std::vector<uint8_t> before = test::textured_plane(32, 32, 1);
  const std::vector<uint8_t> after = apply(before, 0);
  EXPECT_EQ(15u, logged().size());
  EXPECT_EQ(0u, logged().count({3, 3}));
  for (int y = 24; y < 32; ++y) {
    for (int x = 24; x < 32; ++x) EXPECT_EQ(before[y * 32 + x], after[y * 32 + x]);
  }
}

TEST_F(Apply, DensityZeroEmbedsNothingAndTheLogIsRewrittenPerFrame) {
  Settings s;
  s.density = 0;
  make(s);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 3);
  EXPECT_EQ(before, apply(before, 3));
  EXPECT_EQ(before, apply(before, 4));
  const std::string text = test::read_file(log_);
  EXPECT_EQ(0u, text.find("{\"stats\": {\"init_value\": 4, \"total_sp_count\": 0,"));
  EXPECT_EQ(1025u + 13u + 4u, text.size());
}

TEST_F(Apply, MissingOrUnwritableLogChangesNothingElse) {
  Settings s;
  make(s);
  const std::vector<uint8_t> before = test::textured_plane(96, 64, 7);
  const std::vector<uint8_t> with_log = apply(before, 1);
  EXPECT_EQ(96u, logged().size());
  std::remove(log_.c_str());
  EXPECT_EQ(with_log, apply(before, 1, false));
  EXPECT_TRUE(test::read_file(log_).empty());
  wm_filter_set_log_path(f_, "/nonexistent-dir/sub/log.json");
  std::vector<uint8_t> frame = before;
  EXPECT_EQ(0, wm_filter_apply(f_, frame.data(), 96, 64, 96, 1));
  EXPECT_EQ(with_log, frame);
}

TEST_F(Apply, SameFrameAndLogForEveryThreadCount) {
  for (int32_t pm : {2, 3}) {
    for (int32_t deep_fake : {0, 1}) {
      std::vector<uint8_t> first_frame;
      std::string first_log;
      for (int32_t threads : {1, 2, 0, 7, 64, 100}) {
        Settings s;
        s.width = 100;
        s.height = 60;
        s.sp = 7;
        s.pm = pm;
        s.deep_fake = deep_fake;
        s.density = 70;
        s.threads = threads;
        make(s);
        const std::vector<uint8_t> frame = apply(test::textured_plane(100, 60, 11), -1);
        const std::string text = test::read_file(log_);
        if (threads == 1) {
          first_frame = frame;
          first_log = text;
        } else {
          EXPECT_EQ(first_frame, frame) << threads << " threads, pm " << pm;
          EXPECT_EQ(first_log, text) << threads << " threads, pm " << pm;
        }
      }
    }
  }
}

TEST_F(Apply, EmptyGridIsAnError) {
  Settings s;
  make(s);
  std::vector<uint8_t> map(1, 3);
  wm_filter_set_payload(f_, map.data(), nullptr, 1, 8, 7, 64);
  std::vector<uint8_t> frame(96 * 64, 1);
  EXPECT_EQ(-1, wm_filter_apply(f_, frame.data(), 96, 64, 96, 0));
  EXPECT_EQ(std::vector<uint8_t>(96 * 64, 1), frame);
}

}  // namespace
}  // namespace lumamark
