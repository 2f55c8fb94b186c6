// The geometric search in process, without a codec: resampling, the
// threshold model, and a marked picture moved by whole and partial
// superpixels, mirrored, and scaled.
#include "decode/resync.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "decode/resample.h"
#include "filter/filter.h"
#include "payload/payload_map.h"

namespace lumamark {
namespace {

constexpr int32_t kW = 448, kH = 336;  // 64 x 48 superpixels of 7
constexpr char kUrn[] = "0123456789abcdef0123456789abcdef";

std::vector<uint8_t> picture(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> luma;
  for (int32_t y = 0; y < kH; ++y)
    for (int32_t x = 0; x < kW; ++x)
      luma.push_back(uint8_t(std::clamp(128 + 50 * std::sin(0.021 * x + 0.5 * std::sin(0.033 * y)) +
                                            ((x / 40 + y / 30) % 5 == 0 ? 30 : 0) + double(rng() % 13) - 6,
                                        0.0, 255.0)));
  return luma;
}

std::vector<uint8_t> marked(uint32_t seed, const char* id) {
  std::vector<uint8_t> luma = picture(seed);
  WatermarkFilter* f = wm_filter_create();
  EXPECT_EQ(wm_filter_init(f, 3, 7, 0, 100, 100, 1, 1, kW, kH, id, 13, 0, 2, 3), 0);
  std::vector<uint8_t> map((kW / 7) * (kH / 7));
  wm_generate_payload_map(f, map.data(), kUrn, nullptr);
  wm_filter_set_payload(f, map.data(), nullptr, f->encoded_bit_count, 7, kW, kH);
  EXPECT_EQ(wm_filter_apply(f, luma.data(), kW, kH, kW, -1), 0);
  wm_filter_free(f);
  return luma;
}

DetectConfig settings() {
  DetectConfig c;
  c.width = kW, c.height = kH, c.user_urn = kUrn;
  return c;
}

// The marked picture as a copy of w x h: copy pixel (x, y) shows marked
// pixel (x * sx + ox, y * sy + oy), mirrored first when flip is set.
CopyFrames copy_of(const std::vector<uint8_t>& m, int32_t w, int32_t h, double sx, double sy, double ox, double oy,
                   bool flip) {
  CopyFrames c;
  c.width = w, c.height = h;
  const ResampleTaps tx = resample_taps({ox, sx}, w, kW), ty = resample_taps({oy, sy}, h, kH);
  std::vector<uint8_t> out(static_cast<size_t>(w) * h);
  resample_plane(m.data(), kW, tx, ty, out.data(), w);
  if (flip)
    for (int32_t y = 0; y < h; ++y) std::reverse(out.begin() + y * w, out.begin() + (y + 1) * w);
  c.luma.push_back(out);
  return c;
}

TEST(Resample, TapsBlendNeighboursAndRepeatEdges) {
  const ResampleTaps t = resample_taps({-1.0, 0.75}, 8, 4);  // reads -1, -0.25, 0.5, ... 4.25
  EXPECT_EQ(t.first_inside, 2);
  EXPECT_EQ(t.end_inside, 6);                               // 0.5 .. 2.75 lie inside [0, 3]
  EXPECT_EQ(t.index[0], 0);  // left of the source: its first sample
  EXPECT_EQ(t.frac[0], 0);
  EXPECT_EQ(t.index[3], 1);  // 1.25
  EXPECT_EQ(t.frac[3], 64);
  EXPECT_EQ(t.index[7], 2);  // right of it: the last sample
  EXPECT_EQ(t.frac[7], 256);
  const uint8_t src[] = {0, 100, 200, 40, 0, 100, 200, 40};  // two rows of four
  uint8_t out[8 * 2];
  resample_plane(src, 4, t, resample_taps({0, 1}, 2, 2), out, 8);
  EXPECT_EQ(out[2], 50);   // halfway between 0 and 100
  EXPECT_EQ(out[3], 125);  // a quarter from 100 to 200
  EXPECT_EQ(out[7], 40);
}

// The threshold keeps H hypotheses at a hundredth of one decode's chance.
TEST(Resync, ThresholdGrowsWithTheHypotheses) {
  EXPECT_EQ(threshold_for_hypotheses(7.0, 1), 7.0);
  const double t = threshold_for_hypotheses(7.0, 1e4);
  EXPECT_NEAR(std::erfc(t / std::sqrt(2.0)) * 1e6, std::erfc(7.0 / std::sqrt(2.0)), 1e-16);
  EXPECT_GT(threshold_for_hypotheses(7.0, 1e5), t);
  EXPECT_LT(t, 9.5);
}

// Shifts of part of a superpixel and of several, a mirror and a smaller
// copy: the ID at the transform that was applied.
TEST(Resync, FindsTheGeometryOfACopy) {
  const std::vector<uint8_t> m = marked(3, "1a2b");
  struct Case {
    int32_t w, h;
    double sx, sy, ox, oy;
    bool flip;
  };
  const Case cases[] = {
      {kW, kH, 1, 1, 4, 0, false},      {kW, kH, 1, 1, -17, 9, false}, {kW, kH, 1, 1, 0, 0, true},
      {kW, kH, 1, 1, 6, -13, false},  // the refine pass moves the phase across a superpixel edge
      {336, 252, 4.0 / 3, 4.0 / 3, 0, 0, false}, {406, 304, 1, 1, 21, 16, false},
  };
  for (const Case& c : cases) {
    ResyncResult r;
    std::string error;
    ASSERT_EQ(resync_search(settings(), copy_of(m, c.w, c.h, c.sx, c.sy, c.ox, c.oy, c.flip), SearchMode::kFast, "",
                            &r, &error),
              0)
        << error;
    const std::string what = std::to_string(c.w) + "x" + std::to_string(c.h) + " offset " + std::to_string(c.ox);
    EXPECT_EQ(r.result.verdict, Verdict::kDetected) << what << " z " << r.result.z;
    EXPECT_EQ(r.result.wm_id, "1a2b") << what;
    EXPECT_NEAR(r.transform.scale_x, c.sx, 0.01) << what;
    EXPECT_EQ(r.transform.flip, c.flip) << what;
    if (!c.flip) {
      EXPECT_NEAR(r.transform.offset_x, c.ox, 0.6) << what;
    }
    EXPECT_NEAR(r.transform.offset_y, c.oy, 0.6) << what;
    EXPECT_GT(r.detected_z, kDetectedZ);
  }
}

// Unmarked pictures: no verdict, and the thresholds the search applied.
TEST(Resync, UnmarkedPicturesGetNoVerdict) {
  for (uint32_t seed = 10; seed < 13; ++seed) {
    CopyFrames c;
    c.width = kW, c.height = kH;
    c.luma.push_back(picture(seed));
    ResyncResult r;
    std::string error;
    ASSERT_EQ(resync_search(settings(), c, SearchMode::kFull, "", &r, &error), 0) << error;
    EXPECT_EQ(r.result.verdict, Verdict::kNone) << r.result.z;
    EXPECT_GT(r.hypotheses, 1000);
    EXPECT_EQ(r.detected_z, threshold_for_hypotheses(kDetectedZ, double(r.hypotheses)));
  }
}

// A marked frame among unmarked ones: the combined answer is never weaker
// than that frame alone.
TEST(Detector, CombiningFramesNeverWeakensTheBestFrame) {
  Detector d;
  std::string error;
  ASSERT_EQ(detector_init(&d, settings(), &error), 0) << error;
  const std::vector<uint8_t> m = marked(5, "0777");
  detector_add_frame(&d, m.data(), kW);
  const double alone = detector_result(&d).z;
  for (uint32_t seed = 20; seed < 26; ++seed) detector_add_frame(&d, picture(seed).data(), kW);
  const DetectResult r = detector_result(&d);
  EXPECT_GE(r.z, alone * (1 - 1e-6));  // the same decode, up to float rounding
  EXPECT_EQ(r.wm_id, "0777");
}

}  // namespace
}  // namespace lumamark
