#include "decode/detector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "filter/filter.h"
#include "filter/seed.h"
#include "payload/payload_map.h"

namespace lumamark {
namespace {

constexpr int32_t kW = 448, kH = 336;  // 64 x 48 superpixels of 7
constexpr char kUrn[] = "0123456789abcdef0123456789abcdef";
using Frames = std::vector<std::vector<uint8_t>>;

// A picture with smooth shading, some edges and grain.
std::vector<uint8_t> picture(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> luma(size_t(kW) * kH);
  const double fx = 0.02 + (rng() % 100) * 1e-4, fy = 0.03 + (rng() % 100) * 1e-4;
  for (int32_t y = 0; y < kH; ++y) {
    for (int32_t x = 0; x < kW; ++x) {
      double v = 128 + 50 * std::sin(fx * x + 0.5 * std::sin(fy * y)) + 20 * std::cos(0.11 * y);
      v += ((x / 40 + y / 30) % 5 == 0 ? 30 : 0) + double(rng() % 13) - 6;
      luma[size_t(y) * kW + x] = uint8_t(std::fmin(std::fmax(v, 0), 255));
    }
  }
  return luma;
}

// The embedder's settings, as the detector takes them.
DetectConfig settings(int32_t fec = 2, int32_t nbits = 13, int32_t sp_density = 100, int32_t seed = -1) {
  DetectConfig c;
  c.width = kW, c.height = kH, c.fec = fec, c.bit_profile = nbits, c.sp_density = sp_density, c.seed = seed;
  c.user_urn = kUrn;
  return c;
}

// Marks the picture with the embedder's own filter.
std::vector<uint8_t> marked(uint32_t picture_seed, const char* id, const DetectConfig& c = settings()) {
  std::vector<uint8_t> luma = picture(picture_seed);
  WatermarkFilter* f = wm_filter_create();
  EXPECT_EQ(wm_filter_init(f, c.strength, 7, 0, 100, c.sp_density, 1, 1, kW, kH, id, c.bit_profile, 0, c.fec, 3), 0);
  std::vector<uint8_t> map((kW / 7) * (kH / 7)), indexes(16 * f->encoded_bit_count);
  uint8_t* table = c.fec == 0 ? indexes.data() : nullptr;
  wm_generate_payload_map(f, map.data(), kUrn, table);
  wm_filter_set_payload(f, map.data(), table, f->encoded_bit_count, 7, kW, kH);
  EXPECT_EQ(wm_filter_apply(f, luma.data(), kW, kH, kW, c.seed), 0);
  wm_filter_free(f);
  return luma;
}

DetectResult detect(const DetectConfig& c, const Frames& frames, Detector* d) {
  std::string error;
  EXPECT_EQ(detector_init(d, c, &error), 0) << error;
  for (const std::vector<uint8_t>& f : frames) detector_add_frame(d, f.data(), kW);
  return detector_result(d);
}

// In both FEC modes, at full and half density (where each frame's seed comes
// from its own picture and all 32 are tried) and with a fixed seed (used as
// the embedder uses it: 37 acts as 5), the ID comes back; the unmarked
// pictures give no verdict.
TEST(Detector, FindsTheIdAndTheSeedOfEachFrame) {
  struct Case {
    DetectConfig c;
    const char* id;
    DetectConfig reader;
  };
  const Case cases[] = {{settings(), "1a2b", settings()},
                        {settings(0, 16), "c0de", settings(0, 16)},
                        {settings(2, 13, 50), "1a2b", settings(2, 13, 50)},
                        {settings(2, 13, 50, 37), "1a2b", settings(2, 13, 50, 5)}};
  for (const Case& k : cases) {
    Frames frames, clean;
    for (uint32_t p : {10, 11}) frames.push_back(marked(p, k.id, k.c)), clean.push_back(picture(p));
    Detector d;
    const DetectResult r = detect(k.reader, frames, &d);
    EXPECT_EQ(r.wm_id, k.id);
    EXPECT_EQ(r.verdict, Verdict::kDetected) << r.z;
    EXPECT_EQ(r.frames, 2);
    if (k.c.fec == 0) {
      EXPECT_EQ(r.parity_ok, (std::vector<uint8_t>{1, 1}));
    }
    for (size_t i = 0; i < 2 && k.c.sp_density < 100; ++i) {
      const int32_t seed = k.c.seed >= 0 ? k.c.seed & 31 : image_seed(clean[i].data(), kW, kH, kW, 1, 1, kW / 7, kH / 7);
      EXPECT_EQ(d.scores[i].seed, seed) << i;
    }
    EXPECT_EQ(detect(k.reader, clean, &d).verdict, Verdict::kNone) << k.id;
  }
}

// Unmarked pictures, and a marked one read with the wrong URN, never reach a
// verdict, whichever URN is tried: with 13 bits the chance that pure noise
// scores 6 or more is below 1e-5 per decode.
TEST(Detector, NoVerdictOnUnmarkedVideoForManyUrns) {
  const Frames inputs = {picture(31), picture(32), marked(30, "1a2b")};
  std::mt19937 rng(33);
  double top = 0;
  for (int32_t i = 0; i < 60; ++i) {
    char urn[33];
    std::snprintf(urn, sizeof urn, "%08x%08x%08x%08x", unsigned(rng()), unsigned(rng()), unsigned(rng()), unsigned(rng()));
    DetectConfig c = settings();
    c.user_urn = urn;
    Detector d;
    const DetectResult r = detect(c, {inputs[i % inputs.size()]}, &d);
    EXPECT_EQ(r.verdict, Verdict::kNone) << urn << " z " << r.z;
    top = std::max(top, r.z);
  }
  EXPECT_LT(top, kWeakZ);
}

// A marked frame among unmarked ones keeps nearly all of its weight.
TEST(Detector, WeightsFramesByTheirOwnConfidence) {
  const std::vector<uint8_t> mark = marked(20, "1a2b");
  Detector d;
  const double alone = detect(settings(), {mark}, &d).z;
  const DetectResult mixed = detect(settings(), {picture(21), mark, picture(22), picture(23)}, &d);
  EXPECT_EQ(mixed.wm_id, "1a2b");
  EXPECT_GT(mixed.z, 0.8 * alone);
  EXPECT_GT(d.scores[1].z, 2 * d.scores[0].z);
}

}  // namespace
}  // namespace lumamark
