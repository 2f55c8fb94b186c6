// Embedding log: the fixed-width statistics line, entries, bins and the
// normalising inner area.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "filter/embed_log.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

std::string padded_line(const std::string& text) {
  return text + std::string(text.size() < 1024 ? 1024 - text.size() : 0, ' ') + "\n";
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
  // While the frame runs, line 1 is a placeholder of 1024 characters.
  std::fflush(log->file);
  EXPECT_EQ(padded_line("{\"stats\": {},") + "\"entries\": [\n", test::read_file(path_));

  const std::string text = finish(log);
  EXPECT_EQ(padded_line("{\"stats\": {\"init_value\": 17, \"total_sp_count\": 0, \"noise_val\": "
                        "{\"min\": 0, \"max\": 0, \"avg\": 0.00, \"sum\": 0}, \"signal_val\": "
                        "{\"min\": 0.0000, \"max\": 0.0000, \"avg\": 0.0000, \"sum\": 0.0000}, "
                        "\"str_stats\": {}, \"str_stats_extr\": {}},") +
                "\"entries\": [\n\n]}\n",
            text);
  EXPECT_EQ(1025u, text.find("\"entries\""));
}

TEST_F(EmbedLogFile, EntriesBinsAndStatistics) {
  // 16 x 16 with automatic borders: inner area 12 x 12 = 144.
  EmbedLog* log = embed_log_open(path_.c_str(), 16, 16, 0, 0, 3, 64);
  ASSERT_NE(nullptr, log);
  embed_log_add_measured(log, 1, 2, 3, 288, 144);
  embed_log_add_measured(log, 0, 0, -3, -72, -216);
  embed_log_add_measured(log, 3, 1, 25, 36, 0);
  const std::string text = finish(log);

  const std::string stats =
      "{\"stats\": {\"init_value\": 3, \"total_sp_count\": 3, \"noise_val\": {\"min\": -3, "
      "\"max\": 25, \"avg\": 8.33, \"sum\": 25}, \"signal_val\": {\"min\": -0.5000, \"max\": "
      "2.0000, \"avg\": 0.5833, \"sum\": 1.7500}, \"str_stats\": {\"3\": 1.2500}, "
      "\"str_stats_extr\": {\"3\": 1.2500}},";
  const std::string entries =
      "\"entries\": [\n"
      "  {\"sp_x\": 1, \"sp_y\": 2, \"noise_val\": 3, \"signal_val\": 2.0000, "
      "\"signal_val_extr\": 1.0000},\n"
      "  {\"sp_x\": 0, \"sp_y\": 0, \"noise_val\": -3, \"signal_val\": -0.5000, "
      "\"signal_val_extr\": -1.5000},\n"
      "  {\"sp_x\": 3, \"sp_y\": 1, \"noise_val\": 25, \"signal_val\": 0.2500, "
      "\"signal_val_extr\": 0.0000}\n]}\n";
  EXPECT_EQ(padded_line(stats) + entries, text);
}

TEST_F(EmbedLogFile, BinsInIncreasingOrderFrom0To20) {
  EmbedLog* log = embed_log_open(path_.c_str(), 7, 7, 0, 0, 0, 7);  // inner area 5 x 5
  ASSERT_NE(nullptr, log);
  embed_log_add_measured(log, 0, 0, 20, 50, -25);
  embed_log_add_measured(log, 0, 0, 0, 0, 0);
  embed_log_add_measured(log, 0, 0, -21, 25, 25);
  embed_log_add_measured(log, 0, 0, 20, -25, 25);
  const std::string text = finish(log);
  EXPECT_NE(std::string::npos,
            text.find("\"str_stats\": {\"0\": 0.0000, \"20\": 1.5000}, "
                      "\"str_stats_extr\": {\"0\": 0.0000, \"20\": 1.0000}},"))
      << text;
  EXPECT_NE(std::string::npos, text.find("\"min\": -21, \"max\": 20, \"avg\": 4.75, \"sum\": 19}"));
}

TEST_F(EmbedLogFile, InnerAreaFromTheBorders) {
  struct Case {
    int32_t sp, border, signal;
    const char* shown;
  };
  // sp 7 auto: 5 x 5; sp 16 auto: 12 x 12; border 3 on 7: 1 x 1; border 4 on
  // 7: (-1) x (-1) = 1; border 5 on 7: (-3) x (-3) = 9; border 5 on 16: 6 x 6.
  const Case cases[] = {{7, 0, 25, "1.0000"},
                        {16, -2, 144, "1.0000"},
                        {7, 3, 3, "3.0000"},
                        {7, 4, 2, "2.0000"},
                        {7, 5, 18, "2.0000"},
                        {16, 5, 9, "0.2500"}};
  for (const Case& c : cases) {
    EmbedLog* log = embed_log_open(path_.c_str(), c.sp, c.sp, c.border, c.border, 0, 64);
    ASSERT_NE(nullptr, log);
    embed_log_add_measured(log, 0, 0, 1, c.signal, 0);
    const std::string text = finish(log);
    EXPECT_NE(std::string::npos, text.find(std::string("\"signal_val\": ") + c.shown + ","))
        << c.sp << " " << c.border;
  }
}

TEST_F(EmbedLogFile, MeasuringAddUsesTheSuperpixelAsItIsNow) {
  // Superpixel (1, 0) of a 16-pixel grid: border 100, inner 103 gives a
  // measure of 3 per inner pixel, 3.0 after normalising.
  std::vector<uint8_t> luma(32 * 16, 100);
  for (int32_t y = 2; y < 14; ++y) {
    for (int32_t x = 18; x < 30; ++x) luma[y * 32 + x] = 103;
  }
  EmbedLog* log = embed_log_open(path_.c_str(), 16, 16, 0, 0, 0, 32);
  ASSERT_NE(nullptr, log);
  embed_log_add(log, luma.data(), 1, 0, 2, 0);
  embed_log_add(log, luma.data(), 0, 0, 2, 0);
  const std::string text = finish(log);
  EXPECT_NE(std::string::npos,
            text.find("\"sp_x\": 1, \"sp_y\": 0, \"noise_val\": 2, \"signal_val\": 0.0000, "
                      "\"signal_val_extr\": 3.0000}"));
  EXPECT_NE(std::string::npos, text.find("\"signal_val_extr\": 0.0000}\n]}"));
}

TEST(EmbedLog, NoPathOrUnwritablePathGivesNoLog) {
  EXPECT_EQ(nullptr, embed_log_open(nullptr, 7, 7, 0, 0, 0, 7));
  EXPECT_EQ(nullptr, embed_log_open("", 7, 7, 0, 0, 0, 7));
  EXPECT_EQ(nullptr, embed_log_open("/nonexistent-dir/x/log.json", 7, 7, 0, 0, 0, 7));
  embed_log_finish(nullptr);
}

}  // namespace
}  // namespace lumamark
