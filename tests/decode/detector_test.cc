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
#include "payload/wm_id.h"

namespace lumamark {
namespace {

constexpr int32_t kW = 448, kH = 336;  // 64 x 48 superpixels of 7
constexpr char kUrn[] = "0123456789abcdef0123456789abcdef";

// A picture with smooth shading, some edges and grain.
std::vector<uint8_t> picture(uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> luma(static_cast<size_t>(kW) * kH);
  const double fx = 0.02 + (rng() % 100) * 1e-4, fy = 0.03 + (rng() % 100) * 1e-4;
  for (int32_t y = 0; y < kH; ++y) {
    for (int32_t x = 0; x < kW; ++x) {
      double v = 128 + 50 * std::sin(fx * x + 0.5 * std::sin(fy * y)) + 20 * std::cos(0.11 * y);
      if ((x / 40 + y / 30) % 5 == 0) v += 30;
      v += static_cast<double>(rng() % 13) - 6;
      luma[static_cast<size_t>(y) * kW + x] = static_cast<uint8_t>(std::fmin(std::fmax(v, 0), 255));
    }
  }
  return luma;
}

struct EmbedSettings {
  const char* id = "1a2b";
  int32_t nbits = 13;
  int32_t fec = 2;
  int32_t strength = 3;
  int32_t sp_density = 100;
  int32_t seed = -1;
};

// Marks the picture in place with the embedder's own filter.
void embed(std::vector<uint8_t>* luma, const EmbedSettings& s) {
  WatermarkFilter* f = wm_filter_create();
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(wm_filter_init(f, s.strength, 7, 0, 100, s.sp_density, 1, 1, kW, kH, s.id, s.nbits, 0,
                           s.fec, 3),
            0);
  const int32_t n = (kW / 7) * (kH / 7);
  std::vector<uint8_t> map(static_cast<size_t>(n));
  std::vector<uint8_t> indexes(static_cast<size_t>(16) * f->encoded_bit_count);
  wm_generate_payload_map(f, map.data(), kUrn, s.fec == 0 ? indexes.data() : nullptr);
  wm_filter_set_payload(f, map.data(), s.fec == 0 ? indexes.data() : nullptr, f->encoded_bit_count,
                        7, kW, kH);
  ASSERT_EQ(wm_filter_apply(f, luma->data(), kW, kH, kW, s.seed), 0);
  wm_filter_free(f);
}

DetectConfig config_for(const EmbedSettings& s) {
  DetectConfig c;
  c.width = kW;
  c.height = kH;
  c.fec = s.fec;
  c.bit_profile = s.nbits;
  c.strength = s.strength;
  c.sp_density = s.sp_density;
  c.seed = s.seed;
  c.user_urn = kUrn;
  return c;
}

std::string bits_of(const char* id, int32_t nbits) {
  char* b = hex_to_bits(id, static_cast<uint32_t>(nbits));
  std::string s = b;
  std::free(b);
  return s;
}

DetectResult detect(const DetectConfig& c, const std::vector<std::vector<uint8_t>>& frames,
                    Detector* d) {
  std::string error;
  EXPECT_EQ(detector_init(d, c, &error), 0) << error;
  for (const std::vector<uint8_t>& f : frames) detector_add_frame(d, f.data(), kW);
  return detector_result(d);
}

TEST(Detector, FindsTheIdInOneMarkedFrameAndNothingElsewhere) {
  const EmbedSettings s;
  const std::vector<uint8_t> clean = picture(1);
  std::vector<uint8_t> marked = clean;
  embed(&marked, s);

  Detector d;
  DetectResult r = detect(config_for(s), {marked}, &d);
  EXPECT_EQ(r.wm_id, "1a2b");
  EXPECT_EQ(r.verdict, Verdict::kDetected) << r.z;
  EXPECT_EQ(r.frames, 1);
  // Hard decisions per superpixel agree with the coded symbols far more often
  // than chance; against another ID they are a coin toss.
  EXPECT_LT(detector_bit_error_rate(d, detector_expected_symbols(d, bits_of("1a2b", 13))), 0.4);
  EXPECT_NEAR(detector_bit_error_rate(d, detector_expected_symbols(d, bits_of("1a2c", 13))), 0.5,
              0.05);

  EXPECT_EQ(detect(config_for(s), {clean}, &d).verdict, Verdict::kNone);
  DetectConfig other = config_for(s);
  other.user_urn = "fedcba9876543210fedcba9876543210";
  EXPECT_EQ(detect(other, {marked}, &d).verdict, Verdict::kNone);
}

// Unmarked pictures, and a marked one read with the wrong URN, never reach a
// verdict, whichever URN is tried: with 13 bits the chance that pure noise
// scores 6 or more is below 1e-5 per decode.
TEST(Detector, NoVerdictOnUnmarkedVideoForManyUrns) {
  std::vector<uint8_t> marked = picture(30);
  embed(&marked, EmbedSettings{});
  const std::vector<std::vector<uint8_t>> inputs = {picture(31), picture(32), marked};
  std::mt19937 rng(33);
  auto word = [&rng] { return static_cast<unsigned>(rng()); };
  double top = 0;
  for (int32_t i = 0; i < 60; ++i) {
    char urn[33];
    std::snprintf(urn, sizeof urn, "%08x%08x%08x%08x", word(), word(), word(), word());
    if (std::string(urn) == kUrn) continue;
    DetectConfig c = config_for(EmbedSettings{});
    c.user_urn = urn;
    Detector d;
    const DetectResult r = detect(c, {inputs[static_cast<size_t>(i) % inputs.size()]}, &d);
    EXPECT_EQ(r.verdict, Verdict::kNone) << urn << " z " << r.z;
    top = std::max(top, r.z);
  }
  EXPECT_LT(top, kWeakZ);
}

TEST(Detector, ParityModeWithRepetitions) {
  EmbedSettings s;
  s.fec = 0;
  s.nbits = 16;
  s.id = "c0de";
  std::vector<uint8_t> marked = picture(2);
  embed(&marked, s);
  Detector d;
  const DetectResult r = detect(config_for(s), {marked}, &d);
  EXPECT_EQ(r.wm_id, "c0de");
  EXPECT_EQ(r.verdict, Verdict::kDetected) << r.z;
  EXPECT_EQ(r.parity_ok, (std::vector<uint8_t>{1, 1}));
  EXPECT_EQ(detect(config_for(s), {picture(2)}, &d).verdict, Verdict::kNone);
}

// At half density the frame's seed comes from its own picture; the detector
// tries all 32 selections and keeps the one the embedder used.
TEST(Detector, FindsTheSelectionSeedOfEachFrame) {
  EmbedSettings s;
  s.sp_density = 50;
  std::vector<std::vector<uint8_t>> frames;
  std::vector<int32_t> seeds;
  for (uint32_t k = 0; k < 2; ++k) {
    std::vector<uint8_t> f = picture(10 + k);
    seeds.push_back(image_seed(f.data(), kW, kH, kW, 1, 1, kW / 7, kH / 7));
    embed(&f, s);
    frames.push_back(f);
  }
  Detector d;
  const DetectResult r = detect(config_for(s), frames, &d);
  EXPECT_EQ(r.wm_id, "1a2b");
  EXPECT_EQ(r.verdict, Verdict::kDetected) << r.z;
  ASSERT_EQ(d.scores.size(), 2u);
  EXPECT_EQ(d.scores[0].seed, seeds[0]);
  EXPECT_EQ(d.scores[1].seed, seeds[1]);

  // A fixed seed is used as the embedder uses it (37 acts as 5).
  s.seed = 37;
  std::vector<uint8_t> f = picture(12);
  embed(&f, s);
  DetectConfig c = config_for(s);
  c.seed = 5;
  EXPECT_EQ(detect(c, {f}, &d).wm_id, "1a2b");
  EXPECT_EQ(d.selections.size(), 1u);
  EXPECT_EQ(d.scores[0].seed, 5);
}

// A marked frame among unmarked ones keeps nearly all of its weight.
TEST(Detector, WeightsFramesByTheirOwnConfidence) {
  const EmbedSettings s;
  std::vector<uint8_t> marked = picture(20);
  embed(&marked, s);
  Detector d;
  const double alone = detect(config_for(s), {marked}, &d).z;
  const DetectResult mixed =
      detect(config_for(s), {picture(21), marked, picture(22), picture(23)}, &d);
  EXPECT_EQ(mixed.wm_id, "1a2b");
  EXPECT_EQ(mixed.frames, 4);
  EXPECT_GT(mixed.z, 0.8 * alone);
  EXPECT_GT(d.scores[1].z, 2 * d.scores[0].z);
}

TEST(Detector, RefusesSettingsTheEmbedderCannotUse) {
  Detector d;
  std::string error;
  DetectConfig c;
  c.fec = 1;
  EXPECT_EQ(detector_init(&d, c, &error), -1);
  EXPECT_EQ(error, "Unsupported FEC mode (1), use 0 or 2");
  c = DetectConfig{};
  c.width = 14;
  c.height = 14;
  c.bit_profile = 5;  // more bits than the 4 superpixels
  EXPECT_EQ(detector_init(&d, c, &error), -1);
  c.fec = 0;
  c.bit_profile = 3;  // 4 coded bits fit once
  EXPECT_EQ(detector_init(&d, c, &error), 0);
}

TEST(Detector, VerdictsAndHex) {
  EXPECT_EQ(verdict_for(7.0), Verdict::kDetected);
  EXPECT_EQ(verdict_for(6.999), Verdict::kWeak);
  EXPECT_EQ(verdict_for(6.0), Verdict::kWeak);
  EXPECT_EQ(verdict_for(5.999), Verdict::kNone);
  EXPECT_STREQ(verdict_name(Verdict::kWeak), "weak");
  EXPECT_EQ(bits_to_hex("1"), "1");
  EXPECT_EQ(bits_to_hex("0000000000001"), "0001");
  EXPECT_EQ(bits_to_hex("11010"), "1a");
  EXPECT_EQ(bits_to_hex(""), "");
}

}  // namespace
}  // namespace lumamark
