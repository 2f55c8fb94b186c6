// Shared pieces of the vector-kernel equality tests: the tables to compare
// and buffers with guard bytes around them.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "kernels/dispatch.h"

namespace lumamark::test {

// Every table the processor can run, the plain one first.
inline std::vector<const KernelTable*> runnable_tables() {
  std::vector<const KernelTable*> tables{&kernel_table(KernelSet::Plain)};
  if (kernel_set_supported(KernelSet::Avx2)) tables.push_back(&kernel_table(KernelSet::Avx2));
  return tables;
}

// A byte buffer with kGuard bytes of a fixed value on both sides of size
// usable bytes; data() points at the first usable byte.
class Guarded {
 public:
  static constexpr size_t kGuard = 64;
  static constexpr uint8_t kFill = 0xA5;

  explicit Guarded(size_t size) : bytes_(size + 2 * kGuard, kFill), size_(size) {}
  uint8_t* data() { return bytes_.data() + kGuard; }
  const uint8_t* data() const { return bytes_.data() + kGuard; }
  size_t size() const { return size_; }
  const std::vector<uint8_t>& all() const { return bytes_; }
  bool guards_intact() const {
    for (size_t i = 0; i < kGuard; ++i) {
      if (bytes_[i] != kFill || bytes_[kGuard + size_ + i] != kFill) return false;
    }
    return true;
  }

 private:
  std::vector<uint8_t> bytes_;
  size_t size_;
};

// Picture-like content: a gradient, flat patches and noise of a random spread,
// so that all texture and border bands occur.
inline void fill_picture(uint8_t* p, size_t n, std::mt19937& rng) {
  const int mode = static_cast<int>(rng() % 4);
  const int spread = 1 + static_cast<int>(rng() % 256);
  const int base = static_cast<int>(rng() % 256);
  for (size_t i = 0; i < n; ++i) {
    int v;
    switch (mode) {
      case 0: v = static_cast<int>(rng() % 256); break;
      case 1: v = base + static_cast<int>(rng() % spread) - spread / 2; break;
      case 2: v = static_cast<int>((i * 7 + (i / 97) * 3) % 256) + static_cast<int>(rng() % 5); break;
      default: v = (i / 13) % 3 == 0 ? base : static_cast<int>(rng() % spread); break;
    }
    p[i] = static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
  }
}

}  // namespace lumamark::test
