// The threaded texture map: argument checks, radius 0, and a map that does
// not depend on the number of threads.
#include <gtest/gtest.h>

#include <vector>

#include "filter/texture_driver.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

TEST(TextureMap, BadArgumentsAndRadiusZero) {
  std::vector<uint8_t> src = test::textured_plane(16, 8, 3), out(16 * 8, 77);
  std::vector<uint32_t> integral(17 * 9, 5);
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 15, 10, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 16, -1, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 0, 16, 10, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 16, 10, out.data(), nullptr, 1));
  EXPECT_EQ(std::vector<uint8_t>(16 * 8, 77), out);
  EXPECT_EQ(0, texture_map(src.data(), 16, 8, 16, 0, out.data(), integral.data(), 4));
  EXPECT_EQ(std::vector<uint8_t>(16 * 8, 0), out);
  EXPECT_EQ(std::vector<uint32_t>(17 * 9, 5), integral);  // not even built
}

TEST(TextureMap, SameMapForEveryThreadCount) {
  const int32_t w = 45, h = 13, stride = 50;
  const std::vector<uint8_t> src = test::textured_plane(stride, h, 8);
  std::vector<uint8_t> reference(w * h);
  std::vector<uint32_t> integral((w + 1) * (h + 1));
  ASSERT_EQ(0, texture_map(src.data(), w, h, stride, 10, reference.data(), integral.data(), 1));
  EXPECT_NE(std::vector<uint8_t>(w * h, 0), reference);
  for (int32_t threads : {2, 0, 13, 200}) {  // 200 means 64, most without a row
    std::vector<uint8_t> out(w * h, 99);
    ASSERT_EQ(0, texture_map(src.data(), w, h, stride, 10, out.data(), integral.data(), threads));
    EXPECT_EQ(reference, out) << threads;
  }
}

}  // namespace
}  // namespace lumamark
