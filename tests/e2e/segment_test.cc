// Segment invariance: a title split at frame boundaries, marked piece by
// piece (as a batch engine spreading it over machines would) and joined
// again, must equal the title marked in one run. This holds because every
// frame is marked from its own content and the settings alone: the mask seed
// is fixed or derived from the frame itself, and no state carries over from
// one frame to the next. Also checks that the sample clip these tests rely on
// is deterministic.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

#ifdef LUMAMARK_SAMPLE_BIN

constexpr int32_t kW = 320, kH = 240, kFrames = 10;
constexpr size_t kFrameSize = size_t(kW) * kH * 3 / 2;

std::string make_sample(const TempDir& tmp, int32_t w, int32_t h, int32_t frames,
                        const std::string& pix_fmt = "yuv420p") {
  const std::string path = tmp.file("sample_" + std::to_string(w) + "x" + std::to_string(h) + pix_fmt);
  const RunResult r = run_program(LUMAMARK_SAMPLE_BIN,
                                  {"--width", std::to_string(w), "--height", std::to_string(h), "--frames",
                                   std::to_string(frames), "--pix-fmt", pix_fmt, "--output", path});
  if (!r.exited(0)) throw std::runtime_error("lumamark-sample failed: " + r.err);
  return read_file(path);
}

// Marks raw bytes through standard input and output.
std::string mark(const std::string& raw, const std::vector<std::string>& extra) {
  std::vector<std::string> args = {"--width", std::to_string(kW), "--height", std::to_string(kH)};
  args.insert(args.end(), extra.begin(), extra.end());
  const RunResult r = run_tool(args, raw);
  EXPECT_TRUE(r.exited(0)) << r.err;
  return r.out;
}

struct SegmentCase {
  const char* name;               // test name suffix
  std::vector<std::string> args;  // tool options
};

class SegmentTest : public ::testing::TestWithParam<SegmentCase> {};

TEST_P(SegmentTest, PiecesMarkedApartEqualTheWhole) {
  TempDir tmp;
  const std::string clip = make_sample(tmp, kW, kH, kFrames);
  ASSERT_EQ(clip.size(), kFrameSize * kFrames);
  const std::string whole = mark(clip, GetParam().args);
  ASSERT_EQ(whole.size(), clip.size());
  ASSERT_NE(whole, clip) << "nothing was marked";

  // Two uneven pieces, then the extreme: every frame on its own.
  const std::vector<std::vector<int32_t>> splits = {{0, 4, kFrames}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, kFrames}};
  for (const std::vector<int32_t>& cuts : splits) {
    std::string joined;
    for (size_t k = 0; k + 1 < cuts.size(); ++k) {
      const size_t from = size_t(cuts[k]) * kFrameSize, len = size_t(cuts[k + 1] - cuts[k]) * kFrameSize;
      joined += mark(clip.substr(from, len), GetParam().args);
    }
    ASSERT_EQ(joined.size(), whole.size());
    for (int32_t f = 0; f < kFrames; ++f) {
      EXPECT_EQ(joined.compare(size_t(f) * kFrameSize, kFrameSize, whole, size_t(f) * kFrameSize, kFrameSize), 0)
          << "frame " << f << " differs when the clip is cut into " << cuts.size() - 1 << " pieces";
    }
  }
}

const std::vector<SegmentCase> kSegmentCases = {
    {"ImageHashSeed", {}},
    {"FixedSeed", {"--seed", "5"}},
    {"DeepFakeThreadsBorderMode", {"--seed", "-1", "--pm-mode", "2", "--deep-fake", "--threads", "3"}},
};

INSTANTIATE_TEST_SUITE_P(Sample, SegmentTest, ::testing::ValuesIn(kSegmentCases),
                         [](const ::testing::TestParamInfo<SegmentCase>& info) { return info.param.name; });

// The seed of a frame, derived from its luma as the default --seed -1 asks:
// one cell per superpixel, each cell's 32-bit sum shifted right by 8, folded
// into h = (31 h + v) mod 9001, and h mod 32 is the seed.
int32_t image_hash_seed(const std::string& frame, int32_t sp) {
  const int32_t cols = kW / sp, rows = kH / sp, cw = kW / cols, ch = kH / rows;
  int32_t h = 0;
  for (int32_t r = 0; r < rows; ++r) {
    for (int32_t c = 0; c < cols; ++c) {
      uint32_t sum = 0;
      for (int32_t y = 0; y < ch; ++y)
        for (int32_t x = 0; x < cw; ++x) sum += uint8_t(frame[size_t((r * ch + y) * kW + c * cw + x)]);
      h = (h * 31 + (int32_t(sum) >> 8)) % 9001;
    }
  }
  return h % 32;
}

// Each frame of the default run is marked exactly as with the fixed seed its
// own picture yields, and the moving clip yields more than one seed: the
// selection follows the content, not the position in the stream.
TEST(SampleSegments, DefaultSeedComesFromEachFramesPicture) {
  TempDir tmp;
  const std::string clip = make_sample(tmp, kW, kH, kFrames);
  const std::string marked = mark(clip, {});
  std::vector<int32_t> seeds;
  for (int32_t f = 0; f < kFrames; ++f) {
    const std::string frame = clip.substr(size_t(f) * kFrameSize, kFrameSize);
    const int32_t seed = image_hash_seed(frame, 7);
    seeds.push_back(seed);
    EXPECT_EQ(mark(frame, {"--seed", std::to_string(seed)}), marked.substr(size_t(f) * kFrameSize, kFrameSize))
        << "frame " << f << ", image seed " << seed;
  }
  EXPECT_NE(std::count(seeds.begin(), seeds.end(), seeds[0]), kFrames) << "all frames hash to " << seeds[0];
}

// The sample clip is the fixture of these tests and of the demo: it must be
// byte-identical on every machine. The checksum pins it.
TEST(SampleClip, IsDeterministicAndPinned) {
  TempDir tmp;
  const std::string a = make_sample(tmp, 64, 48, 3);
  ASSERT_EQ(a.size(), size_t(64) * 48 * 3 / 2 * 3);
  uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (unsigned char ch : a) h = (h ^ ch) * 1099511628211ULL;
  EXPECT_EQ(h, 8414939724832552183ULL) << "checksum " << h;
  EXPECT_NE(a.substr(0, 64 * 48), a.substr(64 * 48 * 3 / 2, 64 * 48)) << "no motion";
  EXPECT_EQ(make_sample(tmp, 64, 48, 3), a);
}

TEST(SampleClip, FrameSizesFollowThePixelFormat) {
  TempDir tmp;
  EXPECT_EQ(make_sample(tmp, 32, 16, 2, "yuv422p").size(), size_t(32 * 16 * 2 * 2));
  EXPECT_EQ(make_sample(tmp, 32, 16, 2, "yuv444p").size(), size_t(32 * 16 * 3 * 2));
  const RunResult odd = run_program(LUMAMARK_SAMPLE_BIN, {"--width", "33", "--height", "16"});
  EXPECT_TRUE(odd.exited(1));
  EXPECT_EQ(odd.out, "");
}

#else

TEST(SampleSegments, NeedsTheSampleGenerator) { GTEST_SKIP() << "lumamark-sample was not built"; }

#endif

}  // namespace
}  // namespace lumamark::test
