// Embedding driver and workers: position classes, thread rules and split,
// deep-fake passes, and a log that equals the one-worker log.
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "filter/embed_driver.h"
#include "filter/embed_log.h"
#include "filter/parallel.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

TEST(PositionClass, AsymmetricZonesOfA16By12Grid) {
  const char* bands[3] = {"0000211111112000", "2222222222222222", "1111223333322111"};
  const int band_of_row[12] = {0, 0, 0, 1, 2, 2, 2, 2, 2, 1, 0, 0};
  for (int32_t sy = 0; sy < 12; ++sy) {
    for (int32_t sx = 0; sx < 16; ++sx) {
      EXPECT_EQ(bands[band_of_row[sy]][sx] - '0', position_class(sx, sy, 16, 12)) << sx << sy;
    }
  }
}

TEST(Parallel, SplitAndWorkerCounts) {
  const int32_t want[4][2] = {{0, 3}, {3, 6}, {6, 8}, {8, 10}};
  for (int32_t i = 0; i < 4; ++i) {
    int32_t first = -1, end = -1;
    split_range(10, 4, i, &first, &end);
    EXPECT_EQ(want[i][0], first);
    EXPECT_EQ(want[i][1], end);
  }
  EXPECT_EQ(64, embed_worker_count(100));
  EXPECT_EQ(8, embed_worker_count_for(0, 8));
  EXPECT_EQ(1, embed_worker_count_for(0, 0));
  EXPECT_EQ(0, embed_worker_count_for(0, int64_t{1} << 32));  // low 32 bits are 0
  EXPECT_EQ(64, texture_worker_count(200));
  EXPECT_EQ(1, texture_worker_count_for(0, -1));
}

// Four 16 x 16 superpixels (automatic border 2) with values +1, -1, 0, +2 at
// strength 3, in perceptual mode 0: every pixel must change by 0 or by the
// superpixel's total over all passes, and only inside the inner area.
void expect_deep_fake_totals(uint8_t edge, uint8_t inner, const int32_t (&totals)[4]) {
  std::vector<uint8_t> before(32 * 32);
  for (int32_t i = 0; i < 32 * 32; ++i) {
    const int32_t x = i % 16, y = (i / 32) % 16;
    before[i] = (x >= 2 && x < 14 && y >= 2 && y < 14) ? inner : edge;
  }
  std::vector<uint8_t> frame = before;
  const uint8_t map[4] = {4, 2, 3, 5}, selection[4] = {1, 1, 1, 1};
  embed_frame(frame.data(), 32, 32, 32, 100, 3, 1, map, selection, 9, 16, 16, 0, 0, 0, nullptr,
              nullptr, 1);
  int32_t changed[4] = {0, 0, 0, 0};
  for (int32_t i = 0; i < 32 * 32; ++i) {
    const int32_t x = i % 32, y = i / 32, sp = (y / 16) * 2 + x / 16;
    if (frame[i] == before[i]) continue;
    ++changed[sp];
    EXPECT_EQ(totals[sp], frame[i] - before[i]) << sp;
    EXPECT_TRUE(x % 16 >= 2 && x % 16 < 14 && y % 16 >= 2 && y % 16 < 14);
  }
  for (int32_t sp = 0; sp < 4; ++sp) EXPECT_EQ(totals[sp] != 0, changed[sp] > 50) << sp;
}

TEST(DeepFake, PassesRunUntilTheStrengthOrTheTarget) {
  // A bright inner area is a target no signal reaches: amplitudes 1 + 2,
  // -1 - 2, and 2. A value of 0 gives an all-zero scratch pattern, from which
  // every later pass takes its non-zero positions: nothing is embedded.
  expect_deep_fake_totals(50, 150, {3, -3, 0, 2});
  // A flat superpixel measures 0: one pass.
  expect_deep_fake_totals(100, 100, {1, -1, 0, 2});
}

TEST(EmbedFrame, OrderedLogEqualsTheLogOfOneWorker) {
  // A log whose border setting differs in form from the driver's (0 and -1
  // both mean automatic) is written by the workers themselves, entry by
  // entry; the ordered log of many workers must be the same text.
  const int32_t w = 64, h = 48, sp = 8;
  const std::vector<uint8_t> before = test::textured_plane(w, h, 9);
  std::vector<uint8_t> map(8 * 6, 5), selection(8 * 6, 1);
  for (size_t i = 0; i < map.size(); i += 3) map[i] = 1;
  selection[5] = 2;  // only exactly 1 selects
  std::string logs[2];
  for (int32_t pass = 0; pass < 2; ++pass) {
    std::vector<uint8_t> frame = before;
    const std::string path = test::temp_path("order.json");
    EmbedLog* log = embed_log_open(path.c_str(), sp, sp, 0, 0, 1, w);
    const int32_t border = pass == 0 ? -1 : 0;
    embed_frame(frame.data(), w, h, w, 100, 3, 1, map.data(), selection.data(), 1, sp,
                sp, border, border, 2, nullptr, log, pass == 0 ? 1 : 5);
    embed_log_finish(log);
    logs[pass] = test::read_file(path);
    std::remove(path.c_str());
  }
  EXPECT_NE(std::string::npos, logs[0].find("\"total_sp_count\": 47,"));
  EXPECT_EQ(std::string::npos, logs[0].find("\"sp_x\": 5, \"sp_y\": 0,"));
  EXPECT_EQ(logs[0], logs[1]);
}

}  // namespace
}  // namespace lumamark
