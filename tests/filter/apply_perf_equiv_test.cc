// Whole frames through the filter with the plain kernels on one thread, with
// the vector kernels, and with several thread counts: the marked frames and
// the embedding logs must be identical byte for byte.
//
// The reference run keeps an embedding log, which makes the workers embed
// one superpixel at a time with the plain kernels and compute every texture
// row; the other runs embed whole superpixel rows, skip the texture rows
// that embedding never reads, and use the vector kernels.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "filter/filter.h"
#include "filter/seed.h"
#include "filter_test_util.h"
#include "kernels/dispatch.h"

namespace lumamark {
namespace {

struct Setting {
  int32_t width, height, sp, border, strength, p_density, sp_density, pm, fec, deep_fake, seed;
};

struct Marked {
  std::vector<uint8_t> frames;  // every frame after marking, back to back, with padding
  std::string log;              // the log after the last frame
};

// Marks three frames (the last one a repeat of the first, so that reused
// buffers are exercised) with the given kernels and thread count. The plane
// has a row stride equal to the width and some bytes after it that must stay.
Marked mark(const Setting& s, KernelSet set, int32_t threads, bool log, const std::string& log_path) {
  EXPECT_TRUE(use_kernel_set(set));
  WatermarkFilter* f = wm_filter_create();
  const int32_t bits = s.fec == 0 ? 9 : 13;
  EXPECT_EQ(0, wm_filter_init(f, s.strength, s.sp, s.border, s.p_density, s.sp_density, 1, 1,
                              s.width, s.height, "1A7", bits, s.deep_fake, s.fec, s.pm));
  const int32_t cells = (s.width / s.sp) * (s.height / s.sp), length = f->encoded_bit_count;
  std::mt19937 rng(static_cast<uint32_t>(s.width * 31 + s.sp));
  std::vector<uint8_t> map(cells), indexes(static_cast<size_t>(16) * length);
  for (auto& m : map) m = static_cast<uint8_t>(rng() % (2 * s.strength + 3));
  for (auto& i : indexes) i = static_cast<uint8_t>(rng() % length);
  wm_filter_set_payload(f, map.data(), s.fec == 0 ? indexes.data() : nullptr, length, s.sp, s.width,
                        s.height);
  if (log) wm_filter_set_log_path(f, log_path.c_str());
  wm_filter_set_threads(f, threads);

  Marked run;
  const size_t plane = static_cast<size_t>(s.width) * s.height, padded = plane + 40;
  for (int k = 0; k < 3; ++k) {
    std::vector<uint8_t> frame = test::textured_plane(s.width, s.height, k == 2 ? 0 : 1000u * k + 7);
    frame.resize(padded, 0x5A);
    EXPECT_EQ(0, wm_filter_apply(f, frame.data(), s.width, s.height, s.width, s.seed));
    run.frames.insert(run.frames.end(), frame.begin(), frame.end());
  }
  if (log) run.log = test::read_file(log_path);
  wm_filter_free(f);
  use_kernel_set(best_kernel_set());
  return run;
}

TEST(ApplyPerfEquiv, FramesAndLogsMatchAcrossKernelsAndThreads) {
  const std::string log_path = test::temp_path("perf_equiv.json");
  const Setting settings[] = {
      // The command-line defaults on a small frame, image seed.
      {210, 98, 7, 0, 3, 100, 100, 3, 2, 0, -1},
      // Every perceptual mode, parity payload, partial densities.
      {333, 201, 9, 0, 5, 60, 70, 0, 0, 0, 5},
      {333, 201, 9, 0, 5, 60, 70, 1, 0, 0, 5},
      {333, 201, 9, 0, 5, 60, 70, 2, 0, 0, 5},
      {333, 201, 9, 0, 5, 60, 70, 3, 0, 0, 5},
      // Wide superpixels, explicit borders, deep-fake passes.
      {320, 130, 16, 3, 4, 80, 100, 2, 2, 1, -1},
      {320, 130, 16, 3, 4, 80, 100, 3, 2, 1, 9},
      {320, 130, 13, 1, 12, 100, 50, 3, 0, 1, 40},
      {640, 128, 64, 0, 2, 40, 100, 3, 2, 0, -1},
      // Borders that leave no inner area, and borders past the side.
      {300, 60, 6, 3, 3, 100, 100, 3, 2, 0, 1},
      {300, 60, 8, 2147483647, 3, 100, 100, 2, 2, 0, 1},
  };
  for (const Setting& s : settings) {
    SCOPED_TRACE(testing::Message() << s.width << "x" << s.height << " sp " << s.sp << " border "
                                    << s.border << " pm " << s.pm << " fec " << s.fec
                                    << " deep-fake " << s.deep_fake);
    const Marked want = mark(s, KernelSet::Plain, 1, true, log_path);
    struct Variant {
      KernelSet set;
      int32_t threads;
      bool log;
    };
    std::vector<Variant> runs = {{KernelSet::Plain, 1, false}, {KernelSet::Plain, 3, false}};
    if (kernel_set_supported(KernelSet::Avx2)) {
      for (int32_t threads : {1, 2, 5, 0}) runs.push_back({KernelSet::Avx2, threads, false});
      runs.push_back({KernelSet::Avx2, 2, true});
    }
    for (const Variant& v : runs) {
      const Marked got = mark(s, v.set, v.threads, v.log, log_path);
      EXPECT_TRUE(got.frames == want.frames)
          << kernel_table(v.set).name << " threads " << v.threads << " log " << v.log;
      if (v.log) {
        EXPECT_EQ(want.log, got.log) << kernel_table(v.set).name << " threads " << v.threads;
      }
    }
  }
  std::remove(log_path.c_str());
}

// The image-hash seed cell by cell, as a straight loop.
int32_t naive_seed(const uint8_t* luma, int32_t w, int32_t h, int32_t stride, int32_t gx, int32_t gy) {
  const int32_t cw = w / gx, ch = h / gy;
  int32_t hash = 0;
  for (int32_t r = 0; r < gy; ++r) {
    for (int32_t c = 0; c < gx; ++c) {
      uint32_t sum = 0;
      for (int32_t y = 0; y < ch; ++y)
        for (int32_t x = 0; x < cw; ++x) sum += luma[static_cast<size_t>(r * ch + y) * stride + c * cw + x];
      const int32_t v = static_cast<int32_t>(sum) >> 8;
      hash = static_cast<int32_t>(static_cast<uint32_t>(hash) * 31u + static_cast<uint32_t>(v)) % 9001;
    }
  }
  return hash % 32;
}

TEST(ApplyPerfEquiv, ImageSeedMatchesTheCellByCellHash) {
  std::mt19937 rng(99);
  for (int iter = 0; iter < 60; ++iter) {
    const int32_t w = 8 + static_cast<int32_t>(rng() % 400), h = 8 + static_cast<int32_t>(rng() % 200);
    const int32_t stride = w + static_cast<int32_t>(rng() % 7);
    const int32_t gx = 1 + static_cast<int32_t>(rng() % (w / 4)), gy = 1 + static_cast<int32_t>(rng() % (h / 4));
    std::vector<uint8_t> plane(static_cast<size_t>(stride) * h);
    for (auto& p : plane) p = static_cast<uint8_t>(rng() % (iter % 3 == 0 ? 256 : 40));
    for (KernelSet set : {KernelSet::Plain, KernelSet::Avx2}) {
      if (!use_kernel_set(set)) continue;
      ASSERT_EQ(naive_seed(plane.data(), w, h, stride, gx, gy),
                image_seed(plane.data(), w, h, stride, 1, 1, gx, gy))
          << kernel_table(set).name << " " << w << "x" << h << " grid " << gx << "x" << gy;
    }
  }
  // One bright cell of 3000 x 3000 samples sums past 2^31: its value is
  // negative and the hash wraps.
  std::vector<uint8_t> bright(3000u * 3000u, 255);
  for (KernelSet set : {KernelSet::Plain, KernelSet::Avx2}) {
    if (!use_kernel_set(set)) continue;
    EXPECT_EQ(naive_seed(bright.data(), 3000, 3000, 3000, 1, 1),
              image_seed(bright.data(), 3000, 3000, 3000, 1, 1, 1, 1));
    EXPECT_EQ(naive_seed(bright.data(), 3000, 3000, 3000, 2, 1),
              image_seed(bright.data(), 3000, 3000, 3000, 1, 1, 2, 1));
  }
  use_kernel_set(best_kernel_set());
}

}  // namespace
}  // namespace lumamark
