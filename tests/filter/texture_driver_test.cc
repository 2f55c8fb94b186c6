// The threaded texture map: argument checks, radius 0, and a map that does
// not depend on the number of threads.
#include <gtest/gtest.h>

#include <vector>

#include "filter/texture_driver.h"
#include "filter_test_util.h"

namespace lumamark {
namespace {

TEST(TextureMap, RefusesBadArgumentsWithoutTouchingTheMap) {
  std::vector<uint8_t> src(16 * 8, 9), out(16 * 8, 77);
  std::vector<uint32_t> integral(17 * 9, 5);
  EXPECT_EQ(-1, texture_map(nullptr, 16, 8, 16, 10, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 16, 10, nullptr, integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 16, 10, out.data(), nullptr, 1));
  EXPECT_EQ(-1, texture_map(src.data(), 0, 8, 16, 10, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 0, 16, 10, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 15, 10, out.data(), integral.data(), 1));
  EXPECT_EQ(-1, texture_map(src.data(), 16, 8, 16, -1, out.data(), integral.data(), 1));
  EXPECT_EQ(std::vector<uint8_t>(16 * 8, 77), out);
}

TEST(TextureMap, RadiusZeroZeroesTheMapOnly) {
  std::vector<uint8_t> src = test::textured_plane(16, 8, 3), out(16 * 8, 77);
  std::vector<uint32_t> integral(17 * 9, 5);
  EXPECT_EQ(0, texture_map(src.data(), 16, 8, 16, 0, out.data(), integral.data(), 4));
  EXPECT_EQ(std::vector<uint8_t>(16 * 8, 0), out);
  EXPECT_EQ(std::vector<uint32_t>(17 * 9, 5), integral);
}

TEST(TextureMap, SameMapForEveryThreadCount) {
  const int32_t w = 45, h = 13, stride = 50;
  std::vector<uint8_t> src = test::textured_plane(stride, h, 8);
  std::vector<uint8_t> reference(w * h);
  std::vector<uint32_t> integral((w + 1) * (h + 1));
  ASSERT_EQ(0, texture_map(src.data(), w, h, stride, 10, reference.data(), integral.data(), 1));
  bool textured = false;
  for (uint8_t v : reference) {
    ASSERT_LE(v, 50);
    textured = textured || v > 0;
  }
  EXPECT_TRUE(textured);
  // 200 threads means 64, most of them without a row.
  for (int32_t threads : {2, 0, 7, 13, 200}) {
    std::vector<uint8_t> out(w * h, 99);
    ASSERT_EQ(0, texture_map(src.data(), w, h, stride, 10, out.data(), integral.data(), threads));
    EXPECT_EQ(reference, out) << threads;
  }
  // A constant picture has no texture.
  std::vector<uint8_t> flat(w * h, 128), out(w * h, 99);
  ASSERT_EQ(0, texture_map(flat.data(), w, h, w, 10, out.data(), integral.data(), 3));
  EXPECT_EQ(std::vector<uint8_t>(w * h, 0), out);
}

}  // namespace
}  // namespace lumamark
