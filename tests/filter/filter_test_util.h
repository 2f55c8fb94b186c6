// Helpers shared by the filter tests: temporary files and a busy picture.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace lumamark::test {

// A path in the test temporary directory, unique per process and name.
inline std::string temp_path(const std::string& name) {
  return testing::TempDir() + "lumamark_filter_" + std::to_string(getpid()) + "_" + name;
}

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Smooth gradients plus a hashed texture of 48 levels.
inline std::vector<uint8_t> textured_plane(int32_t width, int32_t height, uint32_t salt) {
  std::vector<uint8_t> plane(static_cast<size_t>(width) * height);
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      uint32_t h = static_cast<uint32_t>(x) * 73856093u ^ static_cast<uint32_t>(y) * 19349663u ^ salt;
      h = (h ^ (h >> 13)) * 0x5bd1e995u;
      h ^= h >> 15;
      plane[static_cast<size_t>(y) * width + x] =
          static_cast<uint8_t>(40 + (x * 120) / width + (y * 60) / height + h % 48);
    }
  }
  return plane;
}

}  // namespace lumamark::test
