// Filter life cycle: the order and texts of the initialisation checks, the
// coded length in both FEC modes, buffers and payload hand-over.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "filter/filter.h"

namespace lumamark {
namespace {

struct InitResult {
  int32_t code;
  std::string out;
};

// Initialises f with mostly default settings and captures standard output.
InitResult init(WatermarkFilter* f, const char* id, int32_t bits, int32_t fec, int32_t pm,
                int32_t width = 96, int32_t height = 64, int32_t sp = 8) {
  testing::internal::CaptureStdout();
  const int32_t code = wm_filter_init(f, 3, sp, 0, 100, 100, 1, 1, width, height, id, bits, 0,
                                      fec, pm);
  return {code, testing::internal::GetCapturedStdout()};
}

class FilterInit : public testing::Test {
 protected:
  void SetUp() override { f_ = wm_filter_create(); }
  void TearDown() override { wm_filter_free(f_); }
  WatermarkFilter* f_ = nullptr;
};

TEST_F(FilterInit, CreateIsZeroFilled) {
  const std::vector<uint8_t> zero(sizeof(WatermarkFilter), 0);
  EXPECT_EQ(0, std::memcmp(f_, zero.data(), sizeof(WatermarkFilter)));
}

TEST_F(FilterInit, ChecksRunInOrderWithTheirMessagesAndLeaveTheFilterAlone) {
  // An invalid identifier wins over unsupported FEC and PM modes.
  InitResult r = init(f_, "xyz", 13, 1, 9);
  EXPECT_EQ(-5, r.code);
  EXPECT_EQ("WM id validation failed (error code -5)\n", r.out);
  r = init(f_, "2000", 13, 1, 9);
  EXPECT_EQ(-4, r.code);
  EXPECT_EQ("WM id validation failed (error code -4)\n", r.out);

  // Then the FEC mode, before the PM mode.
  for (int32_t fec : {1, 3, -2}) {
    r = init(f_, "1", 13, fec, 9);
    EXPECT_EQ(-1, r.code);
    EXPECT_EQ("Error: FEC mode " + std::to_string(fec) + " is not supported\n", r.out);
  }
  for (int32_t pm : {4, -1}) {
    r = init(f_, "1", 13, 2, pm);
    EXPECT_EQ(-7, r.code);
    EXPECT_EQ("Error: PM mode " + std::to_string(pm) + " is not supported\n", r.out);
  }
  EXPECT_EQ(0, f_->width);
  EXPECT_EQ(nullptr, f_->wm_id);
  EXPECT_EQ(nullptr, f_->map);

  r = init(f_, "1", 13, 2, 3);
  EXPECT_EQ(0, r.code);
  EXPECT_EQ("", r.out);
}

TEST_F(FilterInit, StoresSettingsAndParityModeCodedLength) {
  ASSERT_EQ(0, init(f_, "1FFF", 13, 0, 1).code);
  EXPECT_EQ(15, f_->encoded_bit_count);
  EXPECT_EQ(13, f_->bit_count);
  EXPECT_EQ(13, f_->fec_bit_count);
  EXPECT_EQ(96, f_->width);
  EXPECT_EQ(96, f_->scaled_width);
  EXPECT_STREQ("1FFF", f_->wm_id);
  ASSERT_NE(nullptr, f_->coded_bits);
  EXPECT_EQ(15u, std::strlen(f_->coded_bits));
  ASSERT_NE(nullptr, f_->indexes);
  EXPECT_EQ(15u * 16u, f_->indexes_cap);
  EXPECT_EQ(12u * 8u, f_->map_cap);
  EXPECT_EQ(12u * 8u, f_->pattern_values_cap);

  ASSERT_EQ(0, init(f_, "1", 16, 0, 0).code);
  EXPECT_EQ(18, f_->encoded_bit_count);
  // Grow, never shrink.
  EXPECT_EQ(18u * 16u, f_->indexes_cap);
}

TEST_F(FilterInit, ReedMullerModeHasOneSymbolPerSuperpixelAndNoIndexTable) {
  ASSERT_EQ(0, init(f_, "0", 13, 2, 3, 1920, 1080, 7).code);
  EXPECT_EQ(42196, f_->encoded_bit_count);
  EXPECT_EQ(nullptr, f_->indexes);
  ASSERT_NE(nullptr, f_->coded_bits);
  EXPECT_EQ(42196u, std::strlen(f_->coded_bits));
}

TEST_F(FilterInit, EmptyGridAndEmptyParityCodeAreRefused) {
  const InitResult r = init(f_, "1", 13, 2, 3, 6, 64, 7);
  EXPECT_EQ(-1, r.code);
  EXPECT_EQ("", r.out);
  EXPECT_EQ(6, f_->width);  // stored before the grid check
  EXPECT_EQ(-1, init(f_, "1", 13, 0, 3, 96, 6, 7).code);
  // No payload bits in parity mode: no parity group, nothing to repeat.
  EXPECT_EQ(-1, init(f_, "0", 0, 0, 3).code);
}

TEST_F(FilterInit, SetPayloadOverridesGeometryAndCopiesTheTables) {
  ASSERT_EQ(0, init(f_, "1", 13, 0, 0).code);
  std::vector<uint8_t> map(6 * 4), indexes(16 * 15);
  for (size_t i = 0; i < map.size(); ++i) map[i] = static_cast<uint8_t>(i + 1);
  for (size_t i = 0; i < indexes.size(); ++i) indexes[i] = static_cast<uint8_t>(i);
  wm_filter_set_payload(f_, map.data(), indexes.data(), 15, 10, 60, 40);
  EXPECT_EQ(60, f_->width);
  EXPECT_EQ(40, f_->height);
  EXPECT_EQ(10, f_->sp_size);
  EXPECT_EQ(0, std::memcmp(f_->map, map.data(), map.size()));
  EXPECT_EQ(0, std::memcmp(f_->indexes, indexes.data(), indexes.size()));

  // An empty grid stores the geometry but copies nothing.
  const std::vector<uint8_t> other(6 * 4, 0xEE);
  wm_filter_set_payload(f_, other.data(), nullptr, 15, 10, 9, 40);
  EXPECT_EQ(9, f_->width);
  EXPECT_EQ(0, std::memcmp(f_->map, map.data(), map.size()));
}

TEST_F(FilterInit, ReedMullerModeIgnoresGivenIndexes) {
  ASSERT_EQ(0, init(f_, "1", 13, 2, 0).code);
  const std::vector<uint8_t> map(12 * 8, 7), indexes(16 * 96, 1);
  wm_filter_set_payload(f_, map.data(), indexes.data(), 96, 8, 96, 64);
  EXPECT_EQ(nullptr, f_->indexes);
  EXPECT_EQ(7, f_->map[95]);
}

TEST_F(FilterInit, LogPathAndThreads) {
  wm_filter_set_log_path(f_, "first.json");
  wm_filter_set_log_path(f_, "second.json");
  EXPECT_STREQ("second.json", f_->log_path);
  wm_filter_set_log_path(f_, nullptr);
  EXPECT_EQ(nullptr, f_->log_path);
  wm_filter_set_threads(f_, -3);
  EXPECT_EQ(-3, f_->threads);
}

TEST(BufferGrow, GrowsOnlyWhenTooSmall) {
  void* buf = nullptr;
  size_t cap = 0;
  EXPECT_FALSE(wm_buffer_grow(&buf, &cap, 0));
  ASSERT_TRUE(wm_buffer_grow(&buf, &cap, 100));
  EXPECT_EQ(100u, cap);
  void* const first = buf;
  ASSERT_TRUE(wm_buffer_grow(&buf, &cap, 40));
  EXPECT_EQ(first, buf);
  EXPECT_EQ(100u, cap);
  ASSERT_TRUE(wm_buffer_grow(&buf, &cap, 101));
  EXPECT_EQ(101u, cap);
  // An impossible size leaves no buffer and no capacity.
  EXPECT_FALSE(wm_buffer_grow(&buf, &cap, SIZE_MAX / 2));
  EXPECT_EQ(nullptr, buf);
  EXPECT_EQ(0u, cap);
}

}  // namespace
}  // namespace lumamark
