// Reading leaked copies at another geometry: the sample clip is marked at
// 640 x 360, changed the way a copy is (a ladder rung, shifts, crop and zoom,
// a pillarbox, a mirror), encoded with x264 at CRF 23 and read back by
// lumamark-detect at the copy's own size. Skipped without ffmpeg.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>

#include "e2e/e2e_util.h"

#if defined(LUMAMARK_DETECT_BIN) && defined(LUMAMARK_SAMPLE_BIN)

namespace lumamark::test {
namespace {

constexpr int32_t kW = 640, kH = 360, kFrames = 3;

// JSON field of the detector's report ("" when absent).
std::string field(const std::string& json, const std::string& name) {
  const size_t at = json.find("\"" + name + "\": ");
  if (at == std::string::npos) return "";
  size_t from = at + name.size() + 4;
  if (json[from] == '"') ++from;
  return json.substr(from, json.find_first_of("\",}", from) - from);
}

// Shifts every yuv420p frame of w x h so that the picture moves dx right and
// dy down (edges repeated); chroma moves half as far.
std::string shift420(const std::string& raw, int32_t w, int32_t h, int32_t dx, int32_t dy) {
  std::string out(raw.size(), '\0');
  const size_t frame = static_cast<size_t>(w) * h * 3 / 2;
  for (size_t f = 0; f + frame <= raw.size(); f += frame) {
    size_t at = f;
    for (int32_t p = 0; p < 3; ++p) {
      const int32_t pw = p == 0 ? w : w / 2, ph = p == 0 ? h : h / 2;
      const int32_t sx = p == 0 ? dx : dx / 2, sy = p == 0 ? dy : dy / 2;
      for (int32_t y = 0; y < ph; ++y)
        for (int32_t x = 0; x < pw; ++x)
          out[at + static_cast<size_t>(y) * pw + x] =
              raw[at + static_cast<size_t>(std::clamp(y - sy, 0, ph - 1)) * pw + std::clamp(x - sx, 0, pw - 1)];
      at += static_cast<size_t>(pw) * ph;
    }
  }
  return out;
}

class Geometry : public testing::Test {
 protected:
  void SetUp() override {
    ffmpeg_ = find_ffmpeg();
    if (ffmpeg_.empty()) GTEST_SKIP() << "ffmpeg is not installed (scripts/deps.sh ensure_video_deps installs it)";
  }

  // Marks raw (kW x kH) with id.
  std::string mark(const std::string& raw, const std::string& id) {
    const RunResult r = run_tool({"--width", std::to_string(kW), "--height", std::to_string(kH), "--wm-id", id}, raw);
    EXPECT_TRUE(r.exited(0)) << r.err;
    return r.out;
  }

  // raw (w x h) through the filter graph vf (may be empty) and x264 at crf,
  // decoded back to raw yuv420p.
  std::string encode(const std::string& raw, int32_t w, int32_t h, const std::string& vf, int32_t crf = 23) {
    write_file(dir_.file("in.yuv"), raw);
    std::ostringstream cmd;
    cmd << "set -e; '" << ffmpeg_ << "' -v error -nostdin -y -f rawvideo -pix_fmt yuv420p -s " << w << "x" << h
        << " -r 24 -i '" << dir_.file("in.yuv") << "' " << (vf.empty() ? "" : "-vf '" + vf + "' ")
        << "-c:v libx264 -preset veryfast -crf " << crf << " -pix_fmt yuv420p '" << dir_.file("copy.mp4") << "'; '" << ffmpeg_
        << "' -v error -nostdin -i '" << dir_.file("copy.mp4") << "' -f rawvideo -pix_fmt yuv420p -";
    const RunResult r = run_shell(cmd.str());
    EXPECT_TRUE(r.exited(0)) << r.err;
    return r.out;
  }

  RunResult detect(const std::string& copy, int32_t w, int32_t h, const Args& more = {}) {
    return run_program(LUMAMARK_DETECT_BIN,
                       cat({"--width", std::to_string(kW), "--height", std::to_string(kH), "--input-width",
                            std::to_string(w), "--input-height", std::to_string(h), "--json"},
                           more),
                       InputPlan{copy});
  }

  std::string ffmpeg_;
  TempDir dir_;
};

// Every change of geometry is found and the right ID is read, with the
// transform that undoes it.
TEST_F(Geometry, CopiesAreReadAtTheirOwnGeometry) {
  const std::string marked = mark(sample_clip(kW, kH, kFrames), "1A2B");
  struct Case {
    std::string what, vf;
    int32_t w, h;
    Args options;
    double scale_x;
    std::string flip;
  };
  const Case cases[] = {
      {"ladder rung", "scale=480:270", 480, 270, {}, 1.3333, "false"},
      {"crop kept at its size", "crop=576:324:32:18", 576, 324, {}, 1.0, "false"},
      {"crop zoomed back", "crop=576:324:32:18,scale=640:360", kW, kH, {"--search", "full"}, 0.9, "false"},
      {"pillarbox", "scale=480:360,pad=640:360:80:0", kW, kH, {}, 1.3333, "false"},
      {"mirror", "hflip", kW, kH, {}, 1.0, "true"},
  };
  for (const Case& c : cases) {
    const RunResult r = detect(encode(marked, kW, kH, c.vf), c.w, c.h, c.options);
    EXPECT_TRUE(r.exited(0)) << c.what << ": " << r.out << r.err;
    EXPECT_EQ(field(r.out, "wm_id"), "1a2b") << c.what << ": " << r.out;
    EXPECT_NEAR(std::atof(field(r.out, "scale_x").c_str()), c.scale_x, 0.006) << c.what << ": " << r.out;
    EXPECT_EQ(field(r.out, "flip"), c.flip) << c.what << ": " << r.out;
  }
}

// Shifts from 0 to twice the superpixel size in both directions, including
// the 4 and 5 pixels at which a read on the unshifted grid sees the mark
// inverted: the right ID, never its complement.
TEST_F(Geometry, ShiftsUpToTwoSuperpixels) {
  const std::string marked = mark(sample_clip(kW, kH, kFrames), "1A2B");
  const std::pair<int32_t, int32_t> shifts[] = {{0, 0},  {4, 0},  {-5, 0}, {0, 5},   {0, -4},
                                                {3, 3},  {7, -7}, {-10, 6}, {14, 14}, {-14, -13}};
  for (const auto& [dx, dy] : shifts) {
    const RunResult r = detect(encode(shift420(marked, kW, kH, dx, dy), kW, kH, ""), kW, kH);
    const std::string what = "shift " + std::to_string(dx) + "," + std::to_string(dy) + ": " + r.out;
    EXPECT_TRUE(r.exited(0)) << what << r.err;
    EXPECT_EQ(field(r.out, "wm_id"), "1a2b") << what;
    if (field(r.out, "offset_x").empty()) continue;  // read where it stands
    EXPECT_NEAR(std::atof(field(r.out, "offset_x").c_str()), -dx, 1.5) << what;
    EXPECT_NEAR(std::atof(field(r.out, "offset_y").c_str()), -dy, 1.5) << what;
  }
}

// Two copies with different IDs, one above the other, shifted by one and by
// three superpixels (so that the aligned read finds neither): two
// geometries fit about equally well, so no ID is named. (Each ID has half the picture, so the encode is milder
// than elsewhere to keep both well above the noise.)
TEST_F(Geometry, TwoIdsThatFitEquallyAreAmbiguous) {
  const std::string raw = sample_clip(kW, kH, kFrames);
  const std::string a = shift420(mark(raw, "1A2B"), kW, kH, 7, 0), b = shift420(mark(raw, "0777"), kW, kH, 21, 0);
  std::string both = a;
  const size_t frame = static_cast<size_t>(kW) * kH * 3 / 2;
  for (size_t f = 0; f < kFrames; ++f)
    for (int32_t y = kH / 2; y < kH; ++y)
      both.replace(f * frame + static_cast<size_t>(y) * kW, kW, b, f * frame + static_cast<size_t>(y) * kW, kW);
  const RunResult r = detect(encode(both, kW, kH, "", 16), kW, kH, {"--search", "full"});
  EXPECT_TRUE(r.exited(2)) << r.out << r.err;
  EXPECT_EQ(field(r.out, "verdict"), "ambiguous") << r.out;
  EXPECT_NE(r.out.find("{\"wm_id\": \"1a2b\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("{\"wm_id\": \"0777\""), std::string::npos) << r.out;
}

// Unmarked content, and marked content read with other URNs, never gets a
// verdict from the full search.
TEST_F(Geometry, NoFalseAlarmWithTheFullSearch) {
  const std::string unmarked = encode(sample_clip(kW, kH, kFrames), kW, kH, "");
  const std::string marked = encode(mark(sample_clip(kW, kH, kFrames), "1A2B"), kW, kH, "scale=480:270");
  const std::string urns[] = {"00000000000000000000000000000000", "0123456789abcdef0123456789abcdef",
                              "fedcba9876543210fedcba9876543210"};
  for (const std::string& urn : urns) {
    const RunResult r = detect(unmarked, kW, kH, {"--search", "full", "--user-urn", urn});
    EXPECT_TRUE(r.exited(2)) << r.out;
    EXPECT_EQ(field(r.out, "verdict"), "none") << r.out;
  }
  const RunResult r = detect(marked, 480, 270, {"--search", "full", "--user-urn", urns[1]});
  EXPECT_EQ(field(r.out, "verdict"), "none") << r.out;
}

}  // namespace
}  // namespace lumamark::test

#endif
