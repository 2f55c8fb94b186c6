// Embedding driver and workers: position classes, thread rules and split,
// deep-fake passes, selection, and independence of the thread count.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <vector>

#include "filter/embed_driver.h"
#include "filter/embed_log.h"
#include "filter/parallel.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

TEST(PositionClass, AsymmetricZonesOfA16By12Grid) {
  const char* expected[12] = {
      "0000211111112000", "0000211111112000", "0000211111112000", "2222222222222222",
      "1111223333322111", "1111223333322111", "1111223333322111", "1111223333322111",
      "1111223333322111", "2222222222222222", "0000211111112000", "0000211111112000"};
  for (int32_t sy = 0; sy < 12; ++sy) {
    for (int32_t sx = 0; sx < 16; ++sx) {
      EXPECT_EQ(expected[sy][sx] - '0', position_class(sx, sy, 16, 12)) << sx << "," << sy;
    }
  }
  // Tiny grids: the zero quarter is the line zone.
  EXPECT_EQ(2, position_class(0, 0, 1, 1));
  EXPECT_EQ(2, position_class(0, 1, 3, 3));
}

TEST(Parallel, SplitGivesTheFirstRangesOneMore) {
  const int32_t want[4][2] = {{0, 3}, {3, 6}, {6, 8}, {8, 10}};
  for (int32_t i = 0; i < 4; ++i) {
    int32_t first = -1, end = -1;
    split_range(10, 4, i, &first, &end);
    EXPECT_EQ(want[i][0], first);
    EXPECT_EQ(want[i][1], end);
  }
  int32_t first = -1, end = -1;
  split_range(3, 5, 4, &first, &end);  // more workers than items
  EXPECT_EQ(3, first);
  EXPECT_EQ(3, end);
}

TEST(Parallel, WorkerCountRules) {
  EXPECT_EQ(1, embed_worker_count(1));
  EXPECT_EQ(64, embed_worker_count(100));
  EXPECT_EQ(8, embed_worker_count_for(0, 8));
  EXPECT_EQ(64, embed_worker_count_for(-5, 200));
  EXPECT_EQ(1, embed_worker_count_for(0, 0));
  EXPECT_EQ(1, embed_worker_count_for(0, -1));
  EXPECT_EQ(0, embed_worker_count_for(0, int64_t{1} << 32));
  EXPECT_EQ(0, embed_worker_count_for(0, 0x80000000LL));
  EXPECT_EQ(64, embed_worker_count_for(0, (int64_t{1} << 32) + 5));

  EXPECT_EQ(7, texture_worker_count(7));
  EXPECT_EQ(64, texture_worker_count(200));
  EXPECT_EQ(1, texture_worker_count_for(0, 0));
  EXPECT_EQ(1, texture_worker_count_for(-1, -1));
  EXPECT_EQ(6, texture_worker_count_for(0, 6));
  EXPECT_EQ(64, texture_worker_count_for(0, 65));
  const int64_t online = online_processors();
  EXPECT_EQ(online < 1 ? 1 : (online > 64 ? 64 : online), texture_worker_count(0));
}

TEST(Parallel, RunWorkersRunsEachArgumentOnce) {
  for (int32_t n : {1, 3, 64}) {
    std::vector<std::atomic<int>> hits(n);
    struct Arg {
      std::atomic<int>* hit;
    };
    std::vector<Arg> args(n);
    for (int32_t i = 0; i < n; ++i) args[i].hit = &hits[i];
    run_workers([](void* p) { static_cast<Arg*>(p)->hit->fetch_add(1); }, args.data(),
                static_cast<int32_t>(sizeof(Arg)), n);
    for (int32_t i = 0; i < n; ++i) EXPECT_EQ(1, hits[i].load()) << n << " " << i;
  }
}

// A 2 x 2 grid of 16 x 16 superpixels (automatic border 2) with a border
// ring of edge and an inner area of inner.
std::vector<uint8_t> ringed_frame(uint8_t edge, uint8_t inner) {
  std::vector<uint8_t> frame(32 * 32);
  for (int32_t y = 0; y < 32; ++y) {
    for (int32_t x = 0; x < 32; ++x) {
      const int32_t iy = y % 16, ix = x % 16;
      const bool in = iy >= 2 && iy < 14 && ix >= 2 && ix < 14;
      frame[y * 32 + x] = in ? inner : edge;
    }
  }
  return frame;
}

// Embeds the four superpixels with values +1, -1, 0, +2 at strength 3 and
// checks that every pixel changed by 0 or the superpixel's expected total,
// inside the inner area only.
void expect_deep_fake_totals(const std::vector<uint8_t>& before, const int32_t (&totals)[4]) {
  std::vector<uint8_t> frame = before;
  const uint8_t map[4] = {4, 2, 3, 5};
  const uint8_t selection[4] = {1, 1, 1, 1};
  embed_frame(frame.data(), 32, 32, 32, 100, 3, 1, map, selection, 9, 16, 16, 0, 0, 0, nullptr,
              nullptr, 1);
  for (int32_t sp = 0; sp < 4; ++sp) {
    int32_t changed = 0;
    for (int32_t y = 0; y < 16; ++y) {
      for (int32_t x = 0; x < 16; ++x) {
        const size_t at = static_cast<size_t>((sp / 2) * 16 + y) * 32 + (sp % 2) * 16 + x;
        const int32_t d = frame[at] - before[at];
        if (d == 0) continue;
        ++changed;
        EXPECT_EQ(totals[sp], d) << "superpixel " << sp;
        EXPECT_TRUE(y >= 2 && y < 14 && x >= 2 && x < 14);
      }
    }
    if (totals[sp] != 0) {
      EXPECT_GT(changed, 50) << sp;
    } else {
      EXPECT_EQ(0, changed) << sp;
    }
  }
}

TEST(DeepFake, PassesGrowTheAmplitudeUpToTheStrength) {
  // A bright inner area gives a target far above any signal, so the passes
  // run until the amplitude reaches the strength: 1 + 2, -1 - 2, and 2. A
  // value of 0 makes the first scratch pattern all zero, and every later
  // pass copies its non-zero positions from there: nothing is embedded.
  expect_deep_fake_totals(ringed_frame(50, 150), {3, -3, 0, 2});
}

TEST(DeepFake, ZeroTargetStopsAfterTheFirstPass) {
  expect_deep_fake_totals(ringed_frame(100, 100), {1, -1, 0, 2});
}

TEST(EmbedFrame, OnlySelectionOneEmbedsAndStrengthZeroEmbedsNothing) {
  const std::vector<uint8_t> before = test::textured_plane(32, 32, 1);
  std::vector<uint8_t> frame = before;
  const uint8_t map[4] = {4, 2, 4, 2};
  const uint8_t skip[4] = {2, 0, 255, 3};
  embed_frame(frame.data(), 32, 32, 32, 100, 3, 0, map, skip, 0, 16, 16, 0, 0, 0, nullptr,
              nullptr, 1);
  EXPECT_EQ(before, frame);

  const uint8_t all[4] = {1, 1, 1, 1};
  embed_frame(frame.data(), 32, 32, 32, 100, 0, 1, map, all, 0, 16, 16, 0, 0, 0, nullptr, nullptr,
              4);
  EXPECT_EQ(before, frame);

  embed_frame(frame.data(), 32, 32, 32, 100, 3, 0, map, all, 0, 16, 16, 0, 0, 0, nullptr, nullptr,
              1);
  EXPECT_NE(before, frame);
}

TEST(EmbedFrame, FramesAndLogsDoNotDependOnTheThreadCount) {
  const int32_t w = 100, h = 70, sp = 9;  // 11 x 7 grid, partial superpixels at the edges
  const std::vector<uint8_t> before = test::textured_plane(w, h, 5);
  std::vector<uint8_t> map(11 * 7), selection(11 * 7);
  for (size_t i = 0; i < map.size(); ++i) {
    map[i] = static_cast<uint8_t>((i * 7) % 9);  // values -4..4 around strength 4
    selection[i] = (i % 5) != 2 ? 1 : 0;
  }
  for (int32_t deep_fake : {0, 1}) {
    for (int32_t pm : {0, 1, 2, 3}) {
      std::vector<uint8_t> first_frame;
      std::string first_log;
      for (int32_t threads : {1, 2, 0, 7, 64, 100}) {
        std::vector<uint8_t> frame = before;
        const std::string path = test::temp_path("threads.json");
        EmbedLog* log = embed_log_open(path.c_str(), sp, sp, 0, 0, 3, w);
        ASSERT_NE(nullptr, log);
        embed_frame(frame.data(), w, h, w, 60, 4, deep_fake, map.data(), selection.data(), 3, sp,
                    sp, 0, 0, pm, nullptr, log, threads);
        embed_log_finish(log);
        const std::string text = test::read_file(path);
        std::remove(path.c_str());
        if (threads == 1) {
          first_frame = frame;
          first_log = text;
          EXPECT_NE(before, frame);
          // Outside the 99 x 63 grid nothing changes.
          for (int32_t y = 0; y < h; ++y) {
            for (int32_t x = 99; x < w; ++x) ASSERT_EQ(before[y * w + x], frame[y * w + x]);
          }
          for (int32_t x = 0; x < w; ++x) ASSERT_EQ(before[63 * w + x], frame[63 * w + x]);
        } else {
          EXPECT_EQ(first_frame, frame) << threads << " threads, pm " << pm;
          EXPECT_EQ(first_log, text) << threads << " threads, pm " << pm;
        }
      }
    }
  }
}

TEST(EmbedFrame, OrderedLogEqualsTheLogWrittenByOneWorker) {
  // A log whose border setting differs in form from the driver's (0 and -1
  // both mean automatic) is written by the worker itself, entry by entry.
  const int32_t w = 64, h = 48, sp = 8;
  const std::vector<uint8_t> before = test::textured_plane(w, h, 9);
  std::vector<uint8_t> map(8 * 6, 5), selection(8 * 6, 1);
  for (size_t i = 0; i < map.size(); i += 3) map[i] = 1;
  std::string logs[2];
  for (int32_t pass = 0; pass < 2; ++pass) {
    std::vector<uint8_t> frame = before;
    const std::string path = test::temp_path("direct.json");
    EmbedLog* log = embed_log_open(path.c_str(), sp, sp, 0, 0, 1, w);
    ASSERT_NE(nullptr, log);
    const int32_t border = pass == 0 ? -1 : 0;
    embed_frame(frame.data(), w, h, w, 100, 3, 0, map.data(), selection.data(), 1, sp, sp, border,
                border, 2, nullptr, log, pass == 0 ? 1 : 5);
    embed_log_finish(log);
    logs[pass] = test::read_file(path);
    std::remove(path.c_str());
  }
  EXPECT_EQ(logs[0], logs[1]);
  EXPECT_NE(std::string::npos, logs[0].find("\"total_sp_count\": 48,"));
}

}  // namespace
}  // namespace lumamark
