// Filter initialisation: order and texts of the checks, the coded length in
// both FEC modes, and the payload hand-over.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "filter/filter.h"

namespace lumamark {
namespace {

class FilterInit : public testing::Test {
 protected:
  void TearDown() override { wm_filter_free(f_); }
  // Initialises with a 96 x 64 frame unless told otherwise; captures stdout.
  int32_t init(const char* id, int32_t bits, int32_t fec, int32_t pm, int32_t width = 96,
               int32_t sp = 8) {
    testing::internal::CaptureStdout();
    const int32_t code =
        wm_filter_init(f_, 3, sp, 0, 100, 100, 1, 1, width, 64, id, bits, 0, fec, pm);
    out_ = testing::internal::GetCapturedStdout();
    return code;
  }
  WatermarkFilter* f_ = wm_filter_create();
  std::string out_;
};

TEST_F(FilterInit, ChecksInOrderWithTheirMessagesAndCodes) {
  EXPECT_EQ(-5, init("xyz", 13, 1, 9));  // the identifier wins over FEC and PM
  EXPECT_EQ("WM id validation failed (error code -5)\n", out_);
  EXPECT_EQ(-4, init("2000", 13, 1, 9));
  EXPECT_EQ("WM id validation failed (error code -4)\n", out_);
  for (int32_t fec : {1, 3, -2}) {
    EXPECT_EQ(-1, init("1", 13, fec, 9));  // FEC before PM
    EXPECT_EQ("Error: FEC mode " + std::to_string(fec) + " is not supported\n", out_);
  }
  for (int32_t pm : {4, -1}) {
    EXPECT_EQ(-7, init("1", 13, 2, pm));
    EXPECT_EQ("Error: PM mode " + std::to_string(pm) + " is not supported\n", out_);
  }
  EXPECT_EQ(0, f_->width);  // failed checks leave the filter alone
  EXPECT_EQ(0, init("1", 13, 2, 3));
  EXPECT_EQ("", out_);
}

TEST_F(FilterInit, CodedLengthInBothModes) {
  ASSERT_EQ(0, init("1FFF", 13, 0, 1));
  EXPECT_EQ(15, f_->encoded_bit_count);
  EXPECT_EQ(15u, std::strlen(f_->coded_bits));
  EXPECT_EQ(15u * 16, f_->indexes_cap);
  ASSERT_EQ(0, init("1", 16, 0, 1));
  EXPECT_EQ(18, f_->encoded_bit_count);
  ASSERT_EQ(0, init("0", 13, 2, 3, 1920, 7));  // 274 x 9 superpixels
  EXPECT_EQ(274 * 9, f_->encoded_bit_count);
  EXPECT_EQ(nullptr, f_->indexes);
}

TEST_F(FilterInit, EmptyGridAndNoParityGroupAreRefusedSilently) {
  EXPECT_EQ(-1, init("1", 13, 2, 3, 6, 7));
  EXPECT_EQ(6, f_->width);  // settings stay stored
  EXPECT_EQ(-1, init("0", 0, 0, 3));
  EXPECT_EQ("", out_);
}

TEST_F(FilterInit, PayloadOverridesGeometryAndGrowsBuffers) {
  ASSERT_EQ(0, init("1", 13, 0, 0));
  std::vector<uint8_t> map(15 * 10), indexes(16 * 15);
  for (size_t i = 0; i < indexes.size(); ++i) indexes[i] = static_cast<uint8_t>(i);
  map[149] = 9;
  wm_filter_set_payload(f_, map.data(), indexes.data(), 15, 8, 120, 80);
  EXPECT_EQ(120, f_->width);
  EXPECT_EQ(150u, f_->map_cap);
  EXPECT_EQ(9, f_->map[149]);
  EXPECT_EQ(0, std::memcmp(f_->indexes, indexes.data(), indexes.size()));
  wm_filter_set_payload(f_, map.data(), nullptr, 15, 10, 30, 30);  // never shrinks
  EXPECT_EQ(150u, f_->map_cap);
  EXPECT_EQ(10, f_->sp_size);
}

}  // namespace
}  // namespace lumamark
