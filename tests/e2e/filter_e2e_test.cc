// The tool on small synthetic clips across the filter's settings: pinned
// results, no dependence on the thread count (logs included), chroma never
// touched, luma changed only inside the inner area of whole, embedded
// superpixels.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

using Args = std::vector<std::string>;

constexpr int32_t kW = 96, kH = 64, kFrames = 2;

int32_t frame_bytes(const std::string& fmt) {
  return fmt == "yuv420p" ? kW * kH * 3 / 2 : fmt == "yuv422p" ? kW * kH * 2 : kW * kH * 3;
}

// Textured, moving luma; chroma bytes that differ everywhere.
std::string clip(const std::string& fmt) {
  const int32_t size = frame_bytes(fmt);
  std::string out(static_cast<size_t>(size) * kFrames, '\0');
  for (int32_t f = 0; f < kFrames; ++f) {
    for (int32_t i = 0; i < size; ++i) {
      const int32_t x = i % kW, y = i / kW;
      const int32_t v = i < kW * kH ? x * 7 + y * 13 + f * 5 + ((x * y) % 11) * 9 : i * 3 + f;
      out[f * size + i] = static_cast<char>(v & 255);
    }
  }
  return out;
}

uint64_t fnv1a(const std::string& bytes) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (unsigned char c : bytes) h = (h ^ c) * 0x100000001b3ull;
  return h;
}

Args with(const std::string& fmt, const Args& extra) {
  Args a = {"--width", std::to_string(kW), "--height", std::to_string(kH), "--pix-fmt", fmt};
  a.insert(a.end(), extra.begin(), extra.end());
  return a;
}

TEST(FilterEndToEnd, PinnedResults) {
  struct Case {
    std::string fmt;
    Args args;
    uint64_t video, log;
  };
  const Case cases[] = {
      {"yuv422p",
       {"--fec", "0", "--bit-profile", "6", "--wm-id", "2B", "--deep-fake", "--pm-mode", "2",
        "--seed", "9", "--sp-density", "70"},
       0x35f600c2a8bfbf92ull, 0x385430cf82295a9dull},
      {"yuv420p",
       {"--pm-mode", "3", "--wm-id", "1A5", "--user-urn", "00112233445566778899aabbccddeeff",
        "--sp-width", "8", "--sp-density", "50", "--strength", "4"},
       0x932a3ef9c46f0676ull, 0x615fd4a8c394e3e3ull},
  };
  TempDir dir;
  for (const Case& c : cases) {
    Args a = with(c.fmt, c.args);
    a.insert(a.end(), {"--embed-log", dir.file("log.json")});
    for (const char* threads : {"1", "2", "0", "7", "64", "100"}) {
      Args t = a;
      t.insert(t.end(), {"--threads", threads});
      const RunResult r = run_tool(t, clip(c.fmt));
      ASSERT_TRUE(r.exited(0)) << r.err;
      EXPECT_EQ(c.video, fnv1a(r.out)) << c.fmt << " threads " << threads;
      EXPECT_EQ(c.log, fnv1a(read_file(dir.file("log.json")))) << c.fmt << " threads " << threads;
    }
  }
}

// Runs one setting and checks chroma and the luma outside the inner areas of
// the superpixels that can be embedded. Returns the changed luma samples.
int64_t run_and_check(const std::string& fmt, int32_t sp, int32_t border, int32_t fec,
                      int32_t bits, const Args& extra) {
  Args a = with(fmt, {"--sp-width", std::to_string(sp), "--spb-width", std::to_string(border),
                      "--fec", std::to_string(fec), "--bit-profile", std::to_string(bits),
                      "--wm-id", "5"});
  a.insert(a.end(), extra.begin(), extra.end());
  const std::string in = clip(fmt);
  const RunResult r = run_tool(a, in);
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(in.size(), r.out.size());
  if (in.size() != r.out.size()) return -1;
  const int32_t size = frame_bytes(fmt), cols = kW / sp, rows = kH / sp;
  const int32_t b = border > 0 ? border : (sp / 8 > 1 ? sp / 8 : 1);
  // Parity mode repeats the coded bits only as often as they fit whole.
  const int32_t length = fec == 0 ? bits + (bits + 7) / 8 : cols * rows;
  const int32_t used = (cols * rows / length) * length;
  int64_t changed = 0;
  for (int32_t f = 0; f < kFrames; ++f) {
    const size_t at = static_cast<size_t>(f) * size;
    EXPECT_EQ(in.substr(at + kW * kH, size - kW * kH), r.out.substr(at + kW * kH, size - kW * kH));
    for (int32_t i = 0; i < kW * kH; ++i) {
      if (in[at + i] == r.out[at + i]) continue;
      ++changed;
      const int32_t x = i % kW, y = i / kW, ix = x % sp, iy = y % sp;
      const bool inner = x / sp < cols && y / sp < rows && (y / sp) * cols + x / sp < used &&
                         ix >= b && ix < sp - b && iy >= b && iy < sp - b;
      if (!inner) {
        ADD_FAILURE() << "luma (" << x << ", " << y << ") changed";
        return changed;
      }
    }
  }
  return changed;
}

TEST(FilterEndToEnd, SettingsSweepKeepsChromaBordersAndTailAndWritesAValidLog) {
  TempDir dir;
  const std::string log = dir.file("log.json");
  const char* formats[] = {"yuv420p", "yuv422p", "yuv444p"};
  const char* densities[] = {"0", "50", "100"};
  const char* seeds[] = {"-1", "5", "37", "0"};
  for (int32_t i = 0; i < 24; ++i) {
    const int32_t sp = 5 + (i * 3) % 12, border = i % 5 == 4 ? 2 : 0, fec = (i / 4) % 2 * 2;
    const std::string density = densities[(i / 2) % 3];
    Args extra = {"--pm-mode", std::to_string(i % 4), "--sp-density", density,
                  "--seed", seeds[(i / 3) % 4]};
    if (i % 3 == 1) extra.push_back("--deep-fake");
    if (i % 2 == 0) extra.insert(extra.end(), {"--embed-log", log});
    std::remove(log.c_str());
    const int64_t changed = run_and_check(formats[i % 3], sp, border, fec, 4 + i % 9, extra);
    EXPECT_EQ(density == "0", changed == 0) << i;
    ASSERT_EQ(i % 2 == 0, file_exists(log)) << i;
    if (i % 2 != 0) continue;

    // The last frame's log: a 1024-character statistics line, then as many
    // entries as it counts.
    const std::string text = read_file(log);
    ASSERT_GT(text.size(), 1025u);
    EXPECT_EQ(0u, text.find("{\"stats\": {\"init_value\": "));
    EXPECT_EQ(1025u, text.find("\"entries\": [\n"));
    EXPECT_EQ(text.size() - 4, text.rfind("\n]}\n"));
    size_t entries = 0;
    for (size_t at = text.find("{\"sp_x\""); at != std::string::npos;
         at = text.find("{\"sp_x\"", at + 1)) {
      ++entries;
    }
    EXPECT_NE(std::string::npos, text.find("\"total_sp_count\": " + std::to_string(entries) + ","));
  }
}

TEST(FilterEndToEnd, PayloadFileMarksAndLogsLikeTheGeneratedPayload) {
  TempDir dir;
  const std::string payload = dir.file("p.bin"), log = dir.file("log.json");
  for (const char* fec : {"0", "2"}) {
    const Args settings = with("yuv444p", {"--fec", fec, "--bit-profile", "6", "--wm-id", "2B",
                                           "--sp-density", "60", "--embed-log", log});
    const RunResult generated = run_tool(settings, clip("yuv444p"));
    ASSERT_TRUE(generated.exited(0)) << generated.err;
    const std::string generated_log = read_file(log);
    Args save = settings;
    save.insert(save.end(), {"--payload-file", payload});
    ASSERT_TRUE(run_tool(save).exited(0));
    const RunResult read_back =
        run_tool({"--payload-file", payload, "--fec", fec, "--pix-fmt", "yuv444p",
                  "--sp-density", "60", "--embed-log", log},
                 clip("yuv444p"));
    ASSERT_TRUE(read_back.exited(0)) << read_back.err;
    EXPECT_EQ(generated.out, read_back.out) << "fec " << fec;
    EXPECT_EQ(generated_log, read_file(log)) << "fec " << fec;
  }
}

}  // namespace
}  // namespace lumamark::test
