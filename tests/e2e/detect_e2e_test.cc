// lumamark-detect end to end: clips marked by lumamark are read back through
// the detector's command line, from a file and from standard input.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

#ifdef LUMAMARK_DETECT_BIN

namespace lumamark::test {
namespace {

constexpr int32_t kW = 320, kH = 240;

// Frames of a slowly moving textured picture, chroma grey.
std::string clip(int32_t frames, int32_t chroma_bytes, uint32_t seed) {
  const std::string grain = random_bytes(static_cast<size_t>(kW) * kH, seed);
  std::string out;
  for (int32_t f = 0; f < frames; ++f) {
    for (int32_t y = 0; y < kH; ++y) {
      for (int32_t x = 0; x < kW; ++x) {
        const int32_t xs = x + 2 * f;
        double v = 120 + 60 * std::sin(0.045 * xs + 0.8 * std::sin(0.031 * y)) +
                   25 * std::cos(0.13 * y + 0.02 * xs);
        v += static_cast<double>(static_cast<uint8_t>(grain[static_cast<size_t>(y) * kW + x]) % 11) - 5;
        out.push_back(static_cast<char>(static_cast<uint8_t>(std::fmin(std::fmax(v, 0), 255))));
      }
    }
    out.append(static_cast<size_t>(chroma_bytes), static_cast<char>(128));
  }
  return out;
}

std::vector<std::string> geometry(const std::vector<std::string>& extra = {}) {
  std::vector<std::string> args = {"--width", std::to_string(kW), "--height", std::to_string(kH)};
  args.insert(args.end(), extra.begin(), extra.end());
  return args;
}

std::string mark(const std::string& raw, const std::vector<std::string>& extra) {
  const RunResult r = run_tool(geometry(extra), raw);
  EXPECT_TRUE(r.exited(0)) << r.err;
  return r.out;
}

RunResult detect(const std::vector<std::string>& args, const std::string& stdin_data = {}) {
  return run_program(LUMAMARK_DETECT_BIN, args, InputPlan{stdin_data});
}

bool starts_with(const std::string& s, const std::string& p) { return s.rfind(p, 0) == 0; }
bool ends_with(const std::string& s, const std::string& e) {
  return s.size() >= e.size() && s.compare(s.size() - e.size(), e.size(), e) == 0;
}

const int32_t k420Chroma = kW * kH / 2;

TEST(DetectE2e, ReadsBackTheIdFromFileAndStandardInput) {
  TempDir dir;
  const std::string raw = clip(3, k420Chroma, 1);
  const std::string marked = mark(raw, {"--wm-id", "1A2B", "--user-urn", "00000000111111112222222233333333"});
  write_file(dir.file("marked.yuv"), marked);
  const std::vector<std::string> opts = {"--user-urn", "00000000111111112222222233333333"};

  RunResult r = detect(geometry({"--input-file", dir.file("marked.yuv"), "--json", opts[0], opts[1]}));
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_TRUE(starts_with(r.out, "{\"wm_id\": \"1a2b\", \"z\": ")) << r.out;
  EXPECT_TRUE(ends_with(r.out, ", \"frames\": 3, \"verdict\": \"detected\"}\n")) << r.out;
  EXPECT_EQ(r.err, "");

  r = detect(geometry({"--frames", "1", opts[0], opts[1]}), marked);
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_TRUE(starts_with(r.out, "Watermark detected: ID 1a2b (z ")) << r.out;
  EXPECT_TRUE(ends_with(r.out, " from 1 frame).\n")) << r.out;

  r = detect(geometry({"--json", "--wm-id", "1a2b", opts[0], opts[1]}), marked);
  EXPECT_TRUE(r.exited(0));
  EXPECT_NE(r.out.find("\"expected\": \"1a2b\", \"match\": true, \"ber\": 0."), std::string::npos)
      << r.out;

  // The wrong URN, or no mark at all: exit status 2.
  r = detect(geometry({"--json"}), marked);
  EXPECT_TRUE(r.exited(2));
  EXPECT_TRUE(ends_with(r.out, "\"verdict\": \"none\"}\n")) << r.out;
  r = detect(geometry(opts), raw);
  EXPECT_TRUE(r.exited(2));
  EXPECT_TRUE(starts_with(r.out, "No watermark detected (z ")) << r.out;
}

// Every setting that shapes the mark is matched: pixel format, superpixel
// size and border, parity mode, payload size, strength, density and seed.
TEST(DetectE2e, OtherSettings) {
  const std::string raw444 = clip(2, kW * kH * 2, 2);
  const std::vector<std::string> s1 = {"--pix-fmt", "yuv444p", "--sp-width", "9", "--spb-width", "2",
                                       "--fec", "0", "--bit-profile", "4", "--strength", "8"};
  std::vector<std::string> m1 = s1;
  m1.insert(m1.end(), {"--wm-id", "C"});
  RunResult r = detect(geometry(s1), mark(raw444, m1));
  EXPECT_TRUE(r.exited(0)) << r.out << r.err;
  EXPECT_TRUE(starts_with(r.out, "Watermark detected: ID c ")) << r.out;

  const std::string raw = clip(2, k420Chroma, 3);
  const std::vector<std::string> s2 = {"--sp-density", "60", "--bit-profile", "8"};
  std::vector<std::string> m2 = s2;
  m2.insert(m2.end(), {"--wm-id", "5", "--seed", "9"});
  const std::string marked = mark(raw, m2);
  r = detect(geometry(s2), marked);  // seed unknown: all 32 are tried
  EXPECT_TRUE(starts_with(r.out, "Watermark detected: ID 05 ")) << r.out;
  std::vector<std::string> fixed = s2;
  fixed.insert(fixed.end(), {"--seed", "41"});  // 41 AND 31 = 9
  r = detect(geometry(fixed), marked);
  EXPECT_TRUE(starts_with(r.out, "Watermark detected: ID 05 ")) << r.out;
}

TEST(DetectE2e, ErrorsExitWithStatusOne) {
  TempDir dir;
  struct Case {
    std::vector<std::string> args;
    std::string stdin_data;
    std::string message;
  };
  const std::string one_frame = clip(1, k420Chroma, 4);
  const std::vector<Case> cases = {
      {{"--bogus"}, "", "Error: Unknown option: --bogus\n"},
      {geometry({"--width", "12x"}), "", "Error: --width expects an integer, got '12x'\n"},
      {geometry({"--pix-fmt", "rgb24"}), one_frame,
       "Error: Unsupported pixel format: rgb24 (use yuv420p, yuv422p or yuv444p)\n"},
      {geometry({"--wm-id", "3fff"}), one_frame,
       "Error: --wm-id 3fff is not a hexadecimal ID of at most 13 bits\n"},
      {geometry({"--input-file", dir.file("missing.yuv")}), "",
       "Error: Cannot open input file: " + dir.file("missing.yuv") + "\n"},
      {geometry(), one_frame.substr(1), "Error: The input holds no complete frame of 320x240 yuv420p\n"},
  };
  for (const Case& c : cases) {
    const RunResult r = detect(c.args, c.stdin_data);
    EXPECT_TRUE(r.exited(1)) << c.message;
    EXPECT_EQ(r.err, c.message);
    EXPECT_EQ(r.out, "");
  }
}

TEST(DetectE2e, HelpAndVersion) {
  RunResult r = detect({"--version"});
  EXPECT_TRUE(r.exited(0));
  EXPECT_EQ(r.out, "2.1.3\n");
  r = detect({"-h"});
  EXPECT_TRUE(r.exited(0));
  EXPECT_NE(r.out.find("--frames <int>"), std::string::npos);
  r = detect({});
  EXPECT_TRUE(r.exited(1));
  EXPECT_TRUE(starts_with(r.out, "Usage: ")) << r.out;
}

}  // namespace
}  // namespace lumamark::test

#endif  // LUMAMARK_DETECT_BIN
