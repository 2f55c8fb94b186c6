// Real video through a real pipe: ffmpeg renders a test pattern as raw
// planar YUV, the tool marks it on the way through, and the marked clip is
// compared with what ffmpeg sent. Skipped when ffmpeg is not installed.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

// Full path of ffmpeg from PATH, or empty.
std::string find_ffmpeg() {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    const std::string candidate = dir + "/ffmpeg";
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "";
}

struct PipeCase {
  const char* name;               // test name suffix
  const char* pix_fmt;            // ffmpeg and tool pixel format
  const char* source;             // lavfi source, without size and rate
  int32_t width;                  // frame width
  int32_t height;                 // frame height
  int32_t frames;                 // frames to render
  std::vector<std::string> args;  // extra tool options
  int32_t sp;                     // superpixel side the options select
  int32_t border;                 // effective superpixel border
  int32_t max_step;               // largest |change| of one sample the settings allow
  double min_psnr;                // lower bound for the luma PSNR in dB
};

// Chroma bytes per frame: both chroma planes together.
int64_t chroma_size(const std::string& pix_fmt, int64_t w, int64_t h) {
  if (pix_fmt == "yuv420p") return w * h / 2;
  if (pix_fmt == "yuv422p") return w * h;
  return 2 * w * h;
}

class PipelineTest : public ::testing::TestWithParam<PipeCase> {};

// Thresholds: with the default settings (strength 3, perceptual mode 3,
// 7-pixel superpixels, full density) the luma PSNR of these testsrc2 clips
// measures 48.8 dB (ffmpeg's psnr filter agrees), and 50.0 dB for the
// border-activity case; the bounds sit about 2.5 dB below, so they tolerate
// other content but fail on any gross over-embedding (doubling the changes
// costs about 6 dB). Per sample, mode 3 scales an amplitude of at most 3 by
// at most 1583/1024, so no sample moves by more than 4; the other modes add
// the amplitude itself, at most the strength.
TEST_P(PipelineTest, MarksOnlyInnerLumaAndKeepsEverythingElse) {
  const PipeCase& c = GetParam();
  const std::string ffmpeg = find_ffmpeg();
  if (ffmpeg.empty()) GTEST_SKIP() << "ffmpeg is not installed (scripts/deps.sh ensure_video_deps installs it)";

  TempDir tmp;
  const std::string orig = tmp.file("orig.yuv"), marked = tmp.file("marked.yuv");
  std::ostringstream cmd;
  cmd << "set -o pipefail; '" << ffmpeg << "' -v error -nostdin -f lavfi -i " << c.source
      << "=size=" << c.width << "x" << c.height << ":rate=25 -frames:v " << c.frames
      << " -pix_fmt " << c.pix_fmt << " -f rawvideo - | tee '" << orig << "' | '" << LUMAMARK_BIN
      << "' --width " << c.width << " --height " << c.height << " --pix-fmt " << c.pix_fmt;
  for (const std::string& a : c.args) cmd << " " << a;
  cmd << " > '" << marked << "'";
  const RunResult r = run_program("/bin/bash", {"-c", cmd.str()});
  ASSERT_TRUE(r.exited(0)) << cmd.str() << "\n" << r.err;
  EXPECT_EQ(r.err, "");

  const std::string in = read_file(orig), out = read_file(marked);
  const int64_t luma = int64_t(c.width) * c.height;
  const int64_t frame = luma + chroma_size(c.pix_fmt, c.width, c.height);
  ASSERT_EQ(int64_t(in.size()), frame * c.frames) << "ffmpeg delivered an unexpected amount";
  ASSERT_EQ(out.size(), in.size()) << "frame count changed";

  const int32_t grid_w = c.width / c.sp * c.sp, grid_h = c.height / c.sp * c.sp;
  auto inner = [&](int32_t x, int32_t y) {
    if (x >= grid_w || y >= grid_h) return false;
    const int32_t px = x % c.sp, py = y % c.sp;
    return px >= c.border && px < c.sp - c.border && py >= c.border && py < c.sp - c.border;
  };

  double sq_sum = 0;
  for (int32_t f = 0; f < c.frames; ++f) {
    const size_t base = size_t(f) * size_t(frame);
    EXPECT_EQ(out.compare(base + size_t(luma), size_t(frame - luma), in, base + size_t(luma),
                          size_t(frame - luma)),
              0)
        << "chroma of frame " << f << " changed";
    int64_t changed = 0, outside = 0, too_big = 0;
    for (int32_t y = 0; y < c.height; ++y) {
      for (int32_t x = 0; x < c.width; ++x) {
        const size_t i = base + size_t(y) * size_t(c.width) + size_t(x);
        const int32_t d = int32_t(uint8_t(out[i])) - int32_t(uint8_t(in[i]));
        if (d == 0) continue;
        ++changed;
        sq_sum += double(d) * d;
        if (!inner(x, y)) ++outside;
        if (std::abs(d) > c.max_step) ++too_big;
      }
    }
    EXPECT_GT(changed, luma / 100) << "frame " << f << " is barely marked";
    EXPECT_EQ(outside, 0) << "frame " << f << ": samples changed on superpixel borders or off the grid";
    EXPECT_EQ(too_big, 0) << "frame " << f << ": changes larger than " << c.max_step;
  }
  const double mse = sq_sum / double(luma * c.frames);
  const double psnr = 10.0 * std::log10(255.0 * 255.0 / mse);
  RecordProperty("psnr_y", std::to_string(psnr));
  EXPECT_GT(psnr, c.min_psnr);
}

const std::vector<PipeCase> kCases = {
    {"Yuv420Defaults", "yuv420p", "testsrc2", 320, 240, 6, {}, 7, 1, 4, 46.0},
    {"Yuv422Defaults", "yuv422p", "testsrc2", 320, 240, 6, {}, 7, 1, 4, 46.0},
    {"Yuv444Defaults", "yuv444p", "testsrc2", 320, 240, 6, {}, 7, 1, 4, 46.0},
    // Larger superpixels with a wide border, fixed seed, border-activity mode,
    // on an odd-sized textured source (the grid leaves a margin on both sides).
    {"Yuv420Sp16Border3", "yuv420p", "mandelbrot", 330, 250, 4,
     {"--sp-width", "16", "--spb-width", "3", "--pm-mode", "2", "--seed", "9", "--threads", "3"},
     16, 3, 3, 47.5},
};

INSTANTIATE_TEST_SUITE_P(Ffmpeg, PipelineTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<PipeCase>& info) { return info.param.name; });

}  // namespace
}  // namespace lumamark::test
