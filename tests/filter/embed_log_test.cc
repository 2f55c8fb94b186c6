// Embedding log: the fixed-width statistics line, entries and separators,
// bins, and the normalising inner area.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "filter/embed_log.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

std::string padded_line(const std::string& text) {
  return text + std::string(1024 - text.size(), ' ') + "\n";
}

class EmbedLogFile : public testing::Test {
 protected:
  void TearDown() override { std::remove(path_.c_str()); }
  std::string finish(EmbedLog* log) {
    embed_log_finish(log);
    return test::read_file(path_);
  }
  std::string path_ = test::temp_path("log.json");
};

TEST_F(EmbedLogFile, EmptyFrame) {
  EmbedLog* log = embed_log_open(path_.c_str(), 7, 7, 0, 0, 17, 96);
  ASSERT_NE(nullptr, log);
  std::fflush(log->file);  // the placeholder while the frame runs
  EXPECT_EQ(padded_line("{\"stats\": {},") + "\"entries\": [\n", test::read_file(path_));
  EXPECT_EQ(padded_line("{\"stats\": {\"init_value\": 17, \"total_sp_count\": 0, \"noise_val\": "
                        "{\"min\": 0, \"max\": 0, \"avg\": 0.00, \"sum\": 0}, \"signal_val\": "
                        "{\"min\": 0.0000, \"max\": 0.0000, \"avg\": 0.0000, \"sum\": 0.0000}, "
                        "\"str_stats\": {}, \"str_stats_extr\": {}},") +
                "\"entries\": [\n\n]}\n",
            finish(log));
}

TEST_F(EmbedLogFile, EntriesBinsAndStatistics) {
  // 16 x 16 with automatic borders: inner area 12 x 12 = 144. Values -3 and
  // 3 share bin 3; 25 counts in the totals only, 0 has its own bin.
  EmbedLog* log = embed_log_open(path_.c_str(), 16, 16, 0, 0, 3, 64);
  ASSERT_NE(nullptr, log);
  embed_log_add_measured(log, 1, 2, 3, 288, 144);
  embed_log_add_measured(log, 0, 0, -3, -72, -216);
  embed_log_add_measured(log, 3, 1, 25, 36, 0);
  embed_log_add_measured(log, 2, 2, 0, 0, 72);
  const std::string stats =
      "{\"stats\": {\"init_value\": 3, \"total_sp_count\": 4, \"noise_val\": {\"min\": -3, "
      "\"max\": 25, \"avg\": 6.25, \"sum\": 25}, \"signal_val\": {\"min\": -0.5000, \"max\": "
      "2.0000, \"avg\": 0.4375, \"sum\": 1.7500}, \"str_stats\": {\"0\": 0.0000, \"3\": 1.2500}, "
      "\"str_stats_extr\": {\"0\": 0.5000, \"3\": 1.2500}},";
  const std::string entries =
      "\"entries\": [\n"
      "  {\"sp_x\": 1, \"sp_y\": 2, \"noise_val\": 3, \"signal_val\": 2.0000, "
      "\"signal_val_extr\": 1.0000},\n"
      "  {\"sp_x\": 0, \"sp_y\": 0, \"noise_val\": -3, \"signal_val\": -0.5000, "
      "\"signal_val_extr\": -1.5000},\n"
      "  {\"sp_x\": 3, \"sp_y\": 1, \"noise_val\": 25, \"signal_val\": 0.2500, "
      "\"signal_val_extr\": 0.0000},\n"
      "  {\"sp_x\": 2, \"sp_y\": 2, \"noise_val\": 0, \"signal_val\": 0.0000, "
      "\"signal_val_extr\": 0.5000}\n]}\n";
  EXPECT_EQ(padded_line(stats) + entries, finish(log));
}

TEST_F(EmbedLogFile, InnerAreaFromTheBorders) {
  // sp 7 auto: 5 x 5; border 3 on 7: 1 x 1; border 5 on 7: (-3) x (-3) = 9;
  // border 4 on 7: 1; border 5 on 16: 6 x 6.
  const int32_t cases[][3] = {{7, 0, 25}, {7, 3, 1}, {7, 5, 9}, {7, 4, 1}, {16, 5, 36}};
  for (const auto& c : cases) {
    EmbedLog* log = embed_log_open(path_.c_str(), c[0], c[0], c[1], c[1], 0, 64);
    ASSERT_NE(nullptr, log);
    embed_log_add_measured(log, 0, 0, 1, 2 * c[2], 0);
    EXPECT_NE(std::string::npos, finish(log).find("\"signal_val\": 2.0000,")) << c[0] << c[1];
  }
  EXPECT_EQ(nullptr, embed_log_open("", 7, 7, 0, 0, 0, 7));
  EXPECT_EQ(nullptr, embed_log_open("/nonexistent-dir/x/log.json", 7, 7, 0, 0, 0, 7));
}

TEST_F(EmbedLogFile, MeasuringAddReadsTheSuperpixelAsItIsNow) {
  // Superpixel (1, 0): border 100, inner 103 measures 3 per inner pixel.
  std::vector<uint8_t> luma(32 * 16, 100);
  for (int32_t y = 2; y < 14; ++y) {
    for (int32_t x = 18; x < 30; ++x) luma[y * 32 + x] = 103;
  }
  EmbedLog* log = embed_log_open(path_.c_str(), 16, 16, 0, 0, 0, 32);
  ASSERT_NE(nullptr, log);
  embed_log_add(log, luma.data(), 1, 0, 2, 0);
  EXPECT_NE(std::string::npos, finish(log).find("\"signal_val_extr\": 3.0000}\n]}"));
}

}  // namespace
}  // namespace lumamark
