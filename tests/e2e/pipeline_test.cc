// Real video through a real pipe: ffmpeg renders a test pattern as raw
// planar YUV, the tool marks it on the way through, and the marked clip is
// compared with what ffmpeg sent. Skipped when ffmpeg is not installed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

// Bounds: with the default settings (strength 3, perceptual mode 3, 7-pixel
// superpixels, full density) the luma PSNR of these testsrc2 clips measures
// 48.8 dB, and 50.0 dB for the border-activity case; the bounds sit about
// 2.5 dB below, so they tolerate other content but fail on any gross
// over-embedding (doubling the changes costs about 6 dB). Mode 3 scales an
// amplitude of at most 3 by at most 1583/1024, so no sample moves by more
// than 4; the other modes add the amplitude itself, at most the strength.
TEST(Ffmpeg, MarksOnlyInnerLumaAndKeepsEverythingElse) {
  const std::string ffmpeg = find_ffmpeg();
  if (ffmpeg.empty()) GTEST_SKIP() << "ffmpeg is not installed (scripts/deps.sh ensure_video_deps installs it)";
  struct Case {
    const char* fmt;     // pixel format
    const char* source;  // lavfi source
    int32_t w, h, frames;
    const char* args;  // extra tool options
    int32_t sp, border, max_step;
    double min_psnr;
  };
  const Case cases[] = {
      {"yuv420p", "testsrc2", 320, 240, 6, "", 7, 1, 4, 46.0},
      {"yuv422p", "testsrc2", 320, 240, 6, "", 7, 1, 4, 46.0},
      {"yuv444p", "testsrc2", 320, 240, 6, "", 7, 1, 4, 46.0},
      // Wide border, fixed seed, border-activity mode on an odd-sized
      // textured source (the grid leaves a margin on both sides).
      {"yuv420p", "mandelbrot", 330, 250, 4, "--sp-width 16 --spb-width 3 --pm-mode 2 --seed 9 --threads 3", 16, 3, 3, 47.5},
  };
  for (const Case& c : cases) {
    TempDir tmp;
    const std::string orig = tmp.file("orig.yuv"), marked = tmp.file("marked.yuv");
    std::ostringstream cmd;
    cmd << "set -o pipefail; '" << ffmpeg << "' -v error -nostdin -f lavfi -i " << c.source << "=size=" << c.w << "x"
        << c.h << ":rate=25 -frames:v " << c.frames << " -pix_fmt " << c.fmt << " -f rawvideo - | tee '" << orig
        << "' | '" << LUMAMARK_BIN << "' --width " << c.w << " --height " << c.h << " --pix-fmt " << c.fmt << " "
        << c.args << " > '" << marked << "'";
    const RunResult r = run_shell(cmd.str());
    ASSERT_TRUE(r.exited(0)) << cmd.str() << "\n" << r.err;
    EXPECT_EQ(r.err, "");
    const std::string in = read_file(orig), out = read_file(marked);
    const std::string fmt = c.fmt;
    const size_t luma = size_t(c.w) * c.h;
    const size_t frame = luma + (fmt == "yuv420p" ? luma / 2 : fmt == "yuv422p" ? luma : 2 * luma);
    ASSERT_EQ(in.size(), frame * c.frames) << "ffmpeg delivered an unexpected amount";
    ASSERT_EQ(out.size(), in.size()) << c.source << " " << c.fmt << ": frame count changed";
    double sq_sum = 0;
    for (int32_t f = 0; f < c.frames; ++f) {
      const size_t base = f * frame;
      EXPECT_EQ(out.compare(base + luma, frame - luma, in, base + luma, frame - luma), 0) << "chroma of frame " << f;
      int64_t changed = 0, outside = 0, too_big = 0;
      for (int32_t y = 0; y < c.h; ++y) {
        for (int32_t x = 0; x < c.w; ++x) {
          const int32_t d = uint8_t(out[base + y * c.w + x]) - uint8_t(in[base + y * c.w + x]);
          const int32_t px = x % c.sp, py = y % c.sp;
          const bool inner = x < c.w / c.sp * c.sp && y < c.h / c.sp * c.sp && px >= c.border &&
                             px < c.sp - c.border && py >= c.border && py < c.sp - c.border;
          changed += d != 0;
          outside += d != 0 && !inner;
          too_big += std::abs(d) > c.max_step;
          sq_sum += double(d) * d;
        }
      }
      EXPECT_GT(changed, int64_t(luma / 100)) << c.source << " " << c.fmt << ": frame " << f << " is barely marked";
      EXPECT_EQ(outside, 0) << c.source << " " << c.fmt << ": frame " << f << " changed on borders or off the grid";
      EXPECT_EQ(too_big, 0) << c.source << " " << c.fmt << ": frame " << f << " has changes above " << c.max_step;
    }
    const double psnr = 10.0 * std::log10(255.0 * 255.0 * luma * c.frames / sq_sum);
    EXPECT_GT(psnr, c.min_psnr) << c.source << " " << c.fmt;
  }
}

}  // namespace
}  // namespace lumamark::test
