// Segment invariance: a title split at frame boundaries, marked piece by
// piece (as a batch engine spreading it over machines would) and joined
// again, equals the title marked in one run. It holds because every frame is
// marked from its own content and the settings alone: the mask seed is fixed
// or derived from the frame itself, and no state carries over from frame to
// frame. The pieces are marked with other thread counts than the whole, so
// the result must not depend on them either. Also pins the sample clip that
// these tests and the demo rely on.
#include <gtest/gtest.h>

#include <string>

#include "e2e/e2e_util.h"

#ifdef LUMAMARK_SAMPLE_BIN

namespace lumamark::test {
namespace {

TEST(Segments, PiecesMarkedApartEqualTheWhole) {
  constexpr int32_t kFrames = 10;
  constexpr size_t kFrame = 160 * 120 * 3 / 2;
  const std::string clip = sample_clip(160, 120, kFrames);
  const Args settings[] = {{"--sp-density", "60"}, {"--seed", "5"}, {"--pm-mode", "2", "--deep-fake", "--sp-width", "6"}};
  for (const Args& s : settings) {
    auto mark = [&s](const std::string& raw, const char* threads) {
      const RunResult r = run_tool(cat({"--width", "160", "--height", "120", "--threads", threads}, s), raw);
      EXPECT_TRUE(r.exited(0)) << r.err;
      return r.out;
    };
    const std::string whole = mark(clip, "1");
    ASSERT_EQ(whole.size(), clip.size());
    ASSERT_NE(whole, clip) << "nothing was marked";
    // Two uneven pieces, then every frame on its own.
    for (const std::vector<int32_t>& cuts : {std::vector<int32_t>{0, 4, kFrames}, std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, kFrames}}) {
      std::string joined;
      for (size_t k = 0; k + 1 < cuts.size(); ++k)
        joined += mark(clip.substr(cuts[k] * kFrame, (cuts[k + 1] - cuts[k]) * kFrame), k % 2 ? "64" : "3");
      ASSERT_EQ(joined.size(), whole.size());
      for (int32_t f = 0; f < kFrames; ++f)
        EXPECT_EQ(joined.compare(f * kFrame, kFrame, whole, f * kFrame, kFrame), 0)
            << testing::PrintToString(s) << ": frame " << f << " differs in " << cuts.size() - 1 << " pieces";
    }
  }
}

// The sample clip must be byte-identical on every machine and show motion.
TEST(SampleClip, IsPinned) {
  const std::string a = sample_clip(64, 48, 3);
  ASSERT_EQ(a.size(), size_t(64) * 48 * 3 / 2 * 3);
  uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (unsigned char ch : a) h = (h ^ ch) * 1099511628211ULL;
  EXPECT_EQ(h, 8414939724832552183ULL) << "checksum " << h;
  EXPECT_NE(a.substr(0, 64 * 48), a.substr(64 * 48 * 3 / 2, 64 * 48)) << "no motion";
  EXPECT_EQ(sample_clip(32, 16, 2, "yuv444p").size(), size_t(32 * 16 * 3 * 2));
}

}  // namespace
}  // namespace lumamark::test

#endif
