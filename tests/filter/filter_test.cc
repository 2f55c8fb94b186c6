// Filter initialisation, the image seed and the selection mask, position
// classes and worker rules, and the embedding log.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "filter/embed_driver.h"
#include "filter/embed_log.h"
#include "filter/filter.h"
#include "common/parallel.h"
#include "filter/seed.h"
#include "payload/selection.h"
#include "filter_test_util.h"
#include "kernels/dispatch.h"
#include "kernels/prng.h"

namespace lumamark {
namespace {

TEST(FilterInit, RefusalsCodedLengthsAndEmptyGrids) {
  const struct { const char* id; int32_t bits, fec, pm, width, code, length; const char* text; } cases[] = {
      {"xyz", 13, 1, 9, 96, -5, 0, "WM id validation failed (error code -5)\n"},  // the identifier first,
      {"2000", 13, 2, 0, 96, -4, 0, "WM id validation failed (error code -4)\n"},
      {"1", 13, 1, 9, 96, -1, 0, "Error: FEC mode 1 is not supported\n"},  // then the FEC mode,
      {"1", 13, 3, 0, 96, -1, 0, "Error: FEC mode 3 is not supported\n"},
      {"1", 13, 2, 4, 96, -7, 0, "Error: PM mode 4 is not supported\n"},  // then the perceptual mode
      {"1", 13, 0, -1, 96, -7, 0, "Error: PM mode -1 is not supported\n"},
      {"1FFF", 13, 0, 0, 96, 0, 15, ""},  // a parity bit per started group of 8
      {"1", 16, 0, 1, 96, 0, 18, ""},
      {"0", 13, 2, 3, 1920, 0, 274 * 9, ""},  // one symbol per 7 x 7 superpixel
      {"1", 13, 2, 2, 6, -1, 0, ""},          // narrower than one superpixel
      {"0", 0, 0, 3, 96, -1, 0, ""},          // no parity group
  };
  for (const auto& c : cases) {
    WatermarkFilter* f = wm_filter_create();
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.code, wm_filter_init(f, 3, 7, 0, 100, 100, 1, 1, c.width, 64, c.id, c.bits, 0, c.fec, c.pm));
    EXPECT_EQ(c.text, testing::internal::GetCapturedStdout());
    EXPECT_EQ(*c.text ? 0 : c.width, f->width);  // only the silent refusals store the settings
    if (c.code == 0) {
      EXPECT_EQ(c.length, f->encoded_bit_count);
      EXPECT_EQ(static_cast<size_t>(c.length), std::strlen(f->coded_bits));
      EXPECT_EQ(c.fec == 0 ? 16u * c.length : 0u, f->indexes_cap);
    }
    wm_filter_free(f);
  }
  // A grid whose 32-bit count wraps negative (1024 x 33554431) is refused
  // without asking the allocator for it, also when a payload names it.
  WatermarkFilter* f = wm_filter_create();
  EXPECT_EQ(-1, wm_filter_init(f, 3, 64, 0, 100, 100, 1, 1, 65536, 2147483647, "1", 13, 0, 2, 0));
  EXPECT_EQ(nullptr, f->map);
  wm_filter_set_payload(f, nullptr, nullptr, 13, 64, 65536, 2147483647);
  EXPECT_EQ(nullptr, f->map);
  wm_filter_free(f);
  // A payload whose geometry leaves no superpixel: the frame is refused untouched.
  f = wm_filter_create();
  ASSERT_EQ(0, wm_filter_init(f, 3, 8, 0, 100, 100, 1, 1, 96, 64, "1", 13, 0, 2, 0));
  const uint8_t map[1] = {3};
  wm_filter_set_payload(f, map, nullptr, 1, 8, 7, 64);
  std::vector<uint8_t> frame(96 * 64, 9);
  EXPECT_EQ(-1, wm_filter_apply(f, frame.data(), 96, 64, 96, 0));
  EXPECT_EQ(std::vector<uint8_t>(96 * 64, 9), frame);
  wm_filter_free(f);
}

TEST(ImageSeed, WorkedExamplesWithEveryKernelSet) {
  std::vector<uint8_t> grey(14 * 7, 128), white(49 * 48, 255);
  for (int y = 0; y < 48; ++y) white[y * 49 + 48] = 0;  // padding, never read
  const std::vector<uint8_t> bright(3000u * 3000u, 255);
  for (KernelSet set : {KernelSet::Plain, KernelSet::Avx2}) {
    if (!use_kernel_set(set)) continue;
    SCOPED_TRACE(kernel_table(set).name);
    // Two 7 x 7 cells of 128: values 24, 24; h = 768; 768 mod 32 = 0.
    EXPECT_EQ(0, image_seed(grey.data(), 14, 7, 14, 1, 1, 2, 1));
    // Nine 16 x 16 cells of 255 (value 255): h = 7653 -> 5. One dark sample
    // in the last cell takes its sum below 255 x 256: value 254, h = 7652 -> 4.
    EXPECT_EQ(5, image_seed(white.data(), 48, 48, 49, 1, 1, 3, 3));
    white[32 * 49 + 32] = 0;
    EXPECT_EQ(4, image_seed(white.data(), 48, 48, 49, 1, 1, 3, 3));
    white[32 * 49 + 32] = 255;
    EXPECT_EQ(0, image_seed(white.data(), 48, 48, 49, 1, 1, 0, 3));  // no cell
    // One cell of 3000 x 3000 bright samples sums past 2^31: value -7812373,
    // h = -8506, and the remainders keep the sign.
    EXPECT_EQ(-26, image_seed(bright.data(), 3000, 3000, 3000, 1, 1, 1, 1));
  }
  use_kernel_set(best_kernel_set());
}

// The seed summed a band of rows at a time as a frame arrives, in pieces of
// any size, equals the seed of the whole frame; a filter given the finished
// scan marks the frame exactly as without it, and ignores a scan that is
// unfinished or of another frame size.
TEST(ImageSeed, ScannedAsTheRowsArrive) {
  std::mt19937 rng(77);
  for (int iter = 0; iter < 60; ++iter) {
    const int32_t w = 1 + rng() % 90, h = 1 + rng() % 70, cols = rng() % 12, rows = rng() % 12;
    std::vector<uint8_t> luma(static_cast<size_t>(w) * h);
    for (auto& v : luma) v = static_cast<uint8_t>(rng());
    SeedScan scan;
    const SeedGrid grid = seed_grid(w, h, 1, 1, cols, rows);
    if (!seed_scan_init(&scan, grid)) {
      EXPECT_FALSE(seed_grid_has_samples(grid));
      continue;
    }
    for (int pass = 0; pass < 2; ++pass) {  // a second frame after a restart
      seed_scan_restart(&scan);
      for (int64_t had = 0; !seed_scan_done(scan);) {
        had = std::min<int64_t>(h + 5, had + rng() % 9);
        seed_scan_rows(&scan, luma.data(), w, had);
        EXPECT_EQ(had >= h - h % std::max(1, grid.ch) || had >= int64_t{grid.gy} * grid.ch, seed_scan_done(scan))
            << had;
      }
      EXPECT_EQ(image_seed(luma.data(), w, h, w, 1, 1, cols, rows), seed_scan_seed(scan));
      luma[rng() % luma.size()] ^= 0xFF;
    }
    seed_scan_free(&scan);
  }
  // Cells whose sums pass 2^31 have negative values.
  const std::vector<uint8_t> bright(3000u * 3000u, 255);
  SeedScan scan;
  ASSERT_TRUE(seed_scan_init(&scan, seed_grid(3000, 3000, 1, 1, 1, 1)));
  seed_scan_restart(&scan);
  seed_scan_rows(&scan, bright.data(), 3000, 3000);
  EXPECT_EQ(-26, seed_scan_seed(scan));
  seed_scan_free(&scan);

  WatermarkFilter* f = wm_filter_create();
  ASSERT_EQ(0, wm_filter_init(f, 3, 7, 0, 100, 100, 1, 1, 96, 64, "1", 13, 0, 2, 3));
  std::vector<uint8_t> frame(96 * 64);
  for (auto& v : frame) v = static_cast<uint8_t>(rng());
  std::vector<uint8_t> want = frame;
  ASSERT_EQ(0, wm_filter_apply(f, want.data(), 96, 64, 96, -1));
  SeedScan scans[3];
  ASSERT_TRUE(wm_filter_seed_scan_init(f, 96, 64, &scans[0]));
  ASSERT_TRUE(wm_filter_seed_scan_init(f, 96, 64, &scans[1]));
  ASSERT_TRUE(wm_filter_seed_scan_init(f, 96, 56, &scans[2]));  // another grid: 6-row cells
  for (SeedScan& s : scans) seed_scan_restart(&s);
  seed_scan_rows(&scans[0], frame.data(), 96, 64);
  seed_scan_rows(&scans[1], frame.data(), 96, 60);  // unfinished
  // The other grid's scan is of other pixels: its seed is the seed of a
  // brighter frame, which must not be taken.
  std::vector<uint8_t> other(frame.size(), 200);
  seed_scan_rows(&scans[2], other.data(), 96, 56);
  ASSERT_NE(seed_scan_seed(scans[0]), seed_scan_seed(scans[2]));
  for (SeedScan& s : scans) {
    std::vector<uint8_t> got = frame;
    ASSERT_EQ(0, wm_filter_apply_scanned(f, got.data(), 96, 64, 96, -1, &s));
    EXPECT_EQ(want, got);
    seed_scan_free(&s);
  }
  wm_filter_free(f);
}

int ones(const std::vector<uint8_t>& v) { return std::accumulate(v.begin(), v.end(), 0); }

TEST(Selection, ExactCountsBlocksAndSpreadOverRepetitions) {
  for (int32_t seed : {0, 5, 1000}) {
    for (int32_t n : {2, 10, 17, 1001}) {
      for (int32_t density : {0, 33, 50, 100}) {
        std::vector<uint8_t> out(n, 7);
        selection_block(out.data(), n, density, seed);
        EXPECT_EQ(density * n / 100, ones(out)) << n << " " << density << " " << seed;
        EXPECT_EQ(n, std::count(out.begin(), out.end(), 0) + ones(out));
      }
    }
  }
  // A single byte is the first random byte against the threshold 127,
  // without correction; both outcomes occur.
  int single = 0;
  for (uint32_t i = 0; i < 64; ++i) {
    const uint32_t seed = i * 0x9E3779B9u;
    uint8_t out = 9;
    selection_block(&out, 1, 50, static_cast<int32_t>(seed));
    Prng64 g;
    prng64_seed(&g, seed, 9);
    EXPECT_EQ(prng64_next(&g)[0] <= 127 ? 1 : 0, out) << seed;
    single += out;
  }
  EXPECT_TRUE(single > 0 && single < 64);
  // One block per coded symbol with seed + 67 k; a single repetition is one block.
  std::vector<uint8_t> mask(6 * 5), block(6);
  selection_mask(mask.data(), 6, 5, 50, 11);
  selection_block(block.data(), 6, 50, 11 + 67 * 4);
  EXPECT_TRUE(std::equal(block.begin(), block.end(), mask.begin() + 4 * 6));
  selection_mask(mask.data(), 1, 30, 50, 11);
  block.resize(30);
  selection_block(block.data(), 30, 50, 11);
  EXPECT_EQ(block, mask);
  std::vector<uint8_t> over(10);  // a density above 100 cannot be corrected
  selection_block(over.data(), 10, 150, 4);
  EXPECT_EQ(10, ones(over));
  // Spreading 20 repetitions of 3 symbols over 62 superpixels: repetition j
  // reads index row j mod 16, the last two superpixels get 0; without indexes
  // every repetition copies the first 3 mask bytes. Mask byte i holds i here.
  std::mt19937 rng(5);
  std::vector<uint8_t> numbered(60), indexes(16 * 3), spread(62, 9);
  std::iota(numbered.begin(), numbered.end(), 0);
  for (auto& i : indexes) i = static_cast<uint8_t>(rng() % 3);
  selection_spread(spread.data(), numbered.data(), indexes.data(), 62, 3, 20);
  for (int32_t i = 0; i < 60; ++i) EXPECT_EQ(indexes[(i / 3 % 16) * 3 + i % 3] * 20 + i / 3, spread[i]) << i;
  EXPECT_EQ(0, spread[60] + spread[61]);
  selection_spread(spread.data(), numbered.data(), nullptr, 62, 3, 20);
  for (int32_t i = 0; i < 60; ++i) EXPECT_EQ(i % 3, spread[i]) << i;
}

TEST(EmbedDriver, PositionClassesAndWorkerRules) {
  // The asymmetric zones of a 16 x 12 grid.
  const char* bands[3] = {"0000211111112000", "2222222222222222", "1111223333322111"};
  const int band_of_row[12] = {0, 0, 0, 1, 2, 2, 2, 2, 2, 1, 0, 0};
  for (int32_t sy = 0; sy < 12; ++sy) {
    for (int32_t sx = 0; sx < 16; ++sx) {
      EXPECT_EQ(bands[band_of_row[sy]][sx] - '0', position_class(sx, sy, 16, 12)) << sx << "," << sy;
    }
  }
  const int32_t ends[4] = {3, 6, 8, 10};  // 10 items over 4 workers
  for (int32_t i = 0, first = -1, end = -1; i < 4; ++i) {
    split_range(10, 4, i, &first, &end);
    EXPECT_EQ(i == 0 ? 0 : ends[i - 1], first);
    EXPECT_EQ(ends[i], end);
  }
  EXPECT_EQ(64, embed_worker_count(100));
  EXPECT_EQ(8, embed_worker_count_for(0, 8));
  EXPECT_EQ(1, embed_worker_count_for(0, 0));
  EXPECT_EQ(0, embed_worker_count_for(0, int64_t{1} << 32));  // low 32 bits 0: embed nothing
  EXPECT_EQ(64, texture_worker_count(200));
  EXPECT_EQ(1, texture_worker_count_for(0, -1));
}

TEST(EmbedDriver, LogWrittenByTheWorkersEqualsTheOrderedLog) {
  // A log whose border setting differs in form from the driver's (-1 and 0
  // both mean automatic) is written entry by entry by the workers; on one
  // worker that must give the text the driver writes in superpixel order.
  const std::vector<uint8_t> before = test::textured_plane(64, 48, 9);
  std::vector<uint8_t> map(48, 5), selection(48, 1);
  for (size_t i = 0; i < map.size(); i += 3) map[i] = 1;
  selection[5] = 2;  // only exactly 1 selects
  const std::string path = test::temp_path("order.json");
  std::string logs[2];
  for (int32_t border : {-1, 0}) {
    std::vector<uint8_t> frame = before;
    EmbedLog* log = embed_log_open(path.c_str(), 8, 8, 0, 0, 1, 64);
    const FrameGeometry geometry{64, 48, 64, 8, 8, border, border};
    const EmbedSettings settings{100, 3, 1, 1, 2, border == 0 ? 5 : 1};
    embed_frame(frame.data(), &geometry, &settings, map.data(), selection.data(), nullptr, log);
    EXPECT_NE(before, frame);
    embed_log_finish(log);
    logs[border + 1] = test::read_file(path);
  }
  std::remove(path.c_str());
  EXPECT_NE(std::string::npos, logs[0].find("\"total_sp_count\": 47,"));
  EXPECT_EQ(logs[0], logs[1]);
}

std::string padded(const std::string& text) { return text + std::string(1024 - text.size(), ' ') + "\n"; }

TEST(EmbedLog, FixedWidthStatisticsEntriesAndBins) {
  const std::string path = test::temp_path("log.json");
  EXPECT_EQ(nullptr, embed_log_open("", 7, 7, 0, 0, 0, 7));
  EXPECT_EQ(nullptr, embed_log_open("/nonexistent-dir/x/log.json", 7, 7, 0, 0, 0, 7));
  EmbedLog* log = embed_log_open(path.c_str(), 7, 7, 0, 0, 17, 96);
  ASSERT_NE(nullptr, log);
  std::fflush(log->file);  // the placeholder while the frame runs
  EXPECT_EQ(padded("{\"stats\": {},") + "\"entries\": [\n", test::read_file(path));
  embed_log_finish(log);
  EXPECT_EQ(padded("{\"stats\": {\"init_value\": 17, \"total_sp_count\": 0, \"noise_val\": {\"min\": 0, "
                   "\"max\": 0, \"avg\": 0.00, \"sum\": 0}, \"signal_val\": {\"min\": 0.0000, \"max\": "
                   "0.0000, \"avg\": 0.0000, \"sum\": 0.0000}, \"str_stats\": {}, \"str_stats_extr\": {}},") +
                "\"entries\": [\n\n]}\n",
            test::read_file(path));
  // 16 x 16 with automatic borders: inner area 12 x 12 = 144. Values -3 and
  // 3 share bin 3; 25 counts in the totals only, 0 has its own bin.
  log = embed_log_open(path.c_str(), 16, 16, 0, 0, 3, 64);
  ASSERT_NE(nullptr, log);
  embed_log_add_measured(log, 1, 2, 3, 288, 144);
  embed_log_add_measured(log, 0, 0, -3, -72, -216);
  embed_log_add_measured(log, 3, 1, 25, 36, 0);
  embed_log_add_measured(log, 2, 2, 0, 0, 72);
  embed_log_finish(log);
  EXPECT_EQ(padded("{\"stats\": {\"init_value\": 3, \"total_sp_count\": 4, \"noise_val\": {\"min\": -3, "
                   "\"max\": 25, \"avg\": 6.25, \"sum\": 25}, \"signal_val\": {\"min\": -0.5000, \"max\": "
                   "2.0000, \"avg\": 0.4375, \"sum\": 1.7500}, \"str_stats\": {\"0\": 0.0000, \"3\": "
                   "1.2500}, \"str_stats_extr\": {\"0\": 0.5000, \"3\": 1.2500}},") +
                "\"entries\": [\n"
                "  {\"sp_x\": 1, \"sp_y\": 2, \"noise_val\": 3, \"signal_val\": 2.0000, \"signal_val_extr\": 1.0000},\n"
                "  {\"sp_x\": 0, \"sp_y\": 0, \"noise_val\": -3, \"signal_val\": -0.5000, \"signal_val_extr\": -1.5000},\n"
                "  {\"sp_x\": 3, \"sp_y\": 1, \"noise_val\": 25, \"signal_val\": 0.2500, \"signal_val_extr\": 0.0000},\n"
                "  {\"sp_x\": 2, \"sp_y\": 2, \"noise_val\": 0, \"signal_val\": 0.0000, \"signal_val_extr\": 0.5000}\n]}\n",
            test::read_file(path));
  std::remove(path.c_str());
}

}  // namespace
}  // namespace lumamark
