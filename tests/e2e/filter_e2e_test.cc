// The tool on small synthetic clips across the filter's settings: results do
// not depend on the thread count (logs included), chroma is never touched,
// and luma changes only inside the inner area of whole, embedded superpixels.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

using Args = std::vector<std::string>;

constexpr int32_t kW = 96;
constexpr int32_t kH = 64;
constexpr int32_t kFrames = 3;

int32_t frame_bytes(const std::string& fmt) {
  if (fmt == "yuv420p") return kW * kH * 3 / 2;
  if (fmt == "yuv422p") return kW * kH * 2;
  return kW * kH * 3;
}

// Frames whose luma is a moving textured picture and whose chroma is noise.
std::string clip(const std::string& fmt, uint32_t salt) {
  const int32_t size = frame_bytes(fmt);
  std::string out = random_bytes(static_cast<size_t>(size) * kFrames, salt);
  for (int32_t f = 0; f < kFrames; ++f) {
    for (int32_t y = 0; y < kH; ++y) {
      for (int32_t x = 0; x < kW; ++x) {
        const uint8_t noise = static_cast<uint8_t>(out[f * size + y * kW + x]);
        const int32_t v = 30 + ((x + 3 * f) * 2) % 90 + (y * 3) % 50 + (noise % 40);
        out[f * size + y * kW + x] = static_cast<char>(v);
      }
    }
  }
  return out;
}

Args base_args(const std::string& fmt) {
  return {"--width", std::to_string(kW), "--height", std::to_string(kH), "--pix-fmt", fmt,
          "--wm-id", "B", "--user-urn", "00112233445566778899aabbccddeeff"};
}

// One run's settings, as options and as the numbers the checks need.
struct Setting {
  int32_t pm = 3;
  int32_t fec = 2;
  int32_t sp = 7;
  int32_t border = 0;
  int32_t density = 100;
  int32_t seed = -1;
  int32_t bits = 13;
  bool deep_fake = false;
  std::string fmt = "yuv420p";

  Args args() const {
    Args a = base_args(fmt);
    a.insert(a.end(), {"--pm-mode", std::to_string(pm), "--fec", std::to_string(fec),
                       "--sp-width", std::to_string(sp), "--spb-width", std::to_string(border),
                       "--sp-density", std::to_string(density), "--seed", std::to_string(seed),
                       "--bit-profile", std::to_string(bits)});
    if (deep_fake) a.push_back("--deep-fake");
    return a;
  }
};

// Checks chroma and the luma outside the inner areas of the embedded
// superpixels, and returns the number of changed luma samples.
int64_t check_changes(const Setting& s, const std::string& in, const std::string& out) {
  const int32_t size = frame_bytes(s.fmt);
  EXPECT_EQ(in.size(), out.size());
  if (in.size() != out.size()) return 0;
  const int32_t cols = kW / s.sp, rows = kH / s.sp;
  const int32_t b = s.border > 0 ? s.border : (s.sp / 8 > 1 ? s.sp / 8 : 1);
  // Parity mode repeats the coded bits only as often as they fit whole.
  const int32_t length = s.fec == 0 ? s.bits + (s.bits + 7) / 8 : cols * rows;
  const int32_t used = (cols * rows / length) * length;
  int64_t changed = 0;
  for (int32_t f = 0; f < kFrames; ++f) {
    const size_t at = static_cast<size_t>(f) * size;
    EXPECT_EQ(in.substr(at + kW * kH, size - kW * kH), out.substr(at + kW * kH, size - kW * kH))
        << "chroma of frame " << f;
    for (int32_t y = 0; y < kH; ++y) {
      for (int32_t x = 0; x < kW; ++x) {
        if (in[at + y * kW + x] == out[at + y * kW + x]) continue;
        ++changed;
        const int32_t sx = x / s.sp, sy = y / s.sp, ix = x % s.sp, iy = y % s.sp;
        const bool inner = sx < cols && sy < rows && ix >= b && ix < s.sp - b && iy >= b &&
                           iy < s.sp - b && sy * cols + sx < used;
        if (!inner) {
          ADD_FAILURE() << "luma (" << x << ", " << y << ") of frame " << f << " changed";
          return changed;
        }
      }
    }
  }
  return changed;
}

TEST(FilterEndToEnd, ThreadCountChangesNeitherVideoNorLog) {
  TempDir dir;
  const std::string log = dir.file("log.json");
  const std::vector<Setting> settings = [] {
    std::vector<Setting> v(3);
    v[1].pm = 2;
    v[1].deep_fake = true;
    v[1].seed = 9;
    v[2].fec = 0;
    v[2].pm = 1;
    v[2].density = 50;
    v[2].sp = 5;
    return v;
  }();
  for (const Setting& s : settings) {
    const std::string input = clip(s.fmt, 21);
    std::string first_out, first_log;
    for (const char* threads : {"1", "2", "0", "7", "64", "100"}) {
      Args a = s.args();
      a.insert(a.end(), {"--threads", threads, "--embed-log", log});
      const RunResult r = run_tool(a, input);
      ASSERT_TRUE(r.exited(0)) << r.err;
      if (std::string(threads) == "1") {
        first_out = r.out;
        first_log = read_file(log);
        EXPECT_NE(input, r.out);
        EXPECT_NE(std::string::npos, first_log.find("\"sp_x\""));
      } else {
        EXPECT_EQ(first_out, r.out) << threads << " threads, pm " << s.pm;
        EXPECT_EQ(first_log, read_file(log)) << threads << " threads, pm " << s.pm;
      }
    }
  }
}

TEST(FilterEndToEnd, SettingsSweepKeepsChromaAndBordersAndWritesAValidLog) {
  TempDir dir;
  const std::string log = dir.file("log.json");
  const char* formats[] = {"yuv420p", "yuv422p", "yuv444p"};
  const int32_t densities[] = {0, 50, 100};
  const int32_t seeds[] = {-1, 5, 37, 0};
  for (int32_t i = 0; i < 24; ++i) {
    Setting s;
    s.pm = i % 4;
    s.fec = (i / 4) % 2 == 0 ? 2 : 0;
    s.deep_fake = (i % 3) == 1;
    s.density = densities[(i / 2) % 3];
    s.seed = seeds[(i / 3) % 4];
    s.fmt = formats[i % 3];
    s.sp = 5 + (i * 3) % 12;
    s.border = (i % 5 == 4) ? 2 : 0;
    s.bits = 4 + i % 9;
    const bool with_log = (i % 2) == 0;
    const std::string input = clip(s.fmt, 100 + i);
    Args a = s.args();
    if (with_log) a.insert(a.end(), {"--embed-log", log});
    std::remove(log.c_str());
    const RunResult r = run_tool(a, input);
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ("", r.err);
    const int64_t changed = check_changes(s, input, r.out);
    if (s.density == 0) {
      EXPECT_EQ(0, changed) << i;
    } else if (s.density == 100) {
      EXPECT_GT(changed, 0) << i;
    }
    ASSERT_EQ(with_log, file_exists(log)) << i;
    if (!with_log) continue;

    // The log of the last frame: a 1024-character statistics line, then the
    // entries, as many as the statistics count.
    const std::string text = read_file(log);
    ASSERT_GT(text.size(), 1025u);
    EXPECT_EQ('\n', text[1024]);
    EXPECT_EQ(0u, text.find("{\"stats\": {\"init_value\": "));
    EXPECT_EQ(1025u, text.find("\"entries\": [\n"));
    EXPECT_EQ(text.size() - 4, text.rfind("\n]}\n"));
    if (s.seed >= 0) {
      EXPECT_EQ(0u, text.find("{\"stats\": {\"init_value\": " + std::to_string(s.seed & 31) + ","));
    }
    size_t entries = 0;
    for (size_t at = text.find("{\"sp_x\""); at != std::string::npos;
         at = text.find("{\"sp_x\"", at + 1)) {
      ++entries;
    }
    EXPECT_NE(std::string::npos,
              text.find("\"total_sp_count\": " + std::to_string(entries) + ","))
        << i;
    if (s.density == 0) {
      EXPECT_EQ(0u, entries);
    }
  }
}

TEST(FilterEndToEnd, SeedsAreTakenModulo32) {
  Setting s;
  s.density = 50;
  const std::string input = clip(s.fmt, 3);
  s.seed = 5;
  const RunResult five = run_tool(s.args(), input);
  s.seed = 37;
  const RunResult thirty_seven = run_tool(s.args(), input);
  s.seed = 6;
  const RunResult six = run_tool(s.args(), input);
  ASSERT_TRUE(five.exited(0) && thirty_seven.exited(0) && six.exited(0));
  EXPECT_EQ(five.out, thirty_seven.out);
  EXPECT_NE(five.out, six.out);
}

TEST(FilterEndToEnd, PayloadFileMarksAndLogsLikeTheGeneratedPayload) {
  TempDir dir;
  const std::string payload = dir.file("p.bin");
  const std::string log = dir.file("log.json");
  for (int32_t fec : {0, 2}) {
    Setting s;
    s.fec = fec;
    s.density = 60;
    s.bits = 6;
    const std::string input = clip(s.fmt, 40 + fec);
    Args direct = s.args();
    direct.insert(direct.end(), {"--embed-log", log});
    const RunResult generated = run_tool(direct, input);
    ASSERT_TRUE(generated.exited(0)) << generated.err;
    const std::string generated_log = read_file(log);

    Args save = s.args();
    save.insert(save.end(), {"--payload-file", payload});
    ASSERT_TRUE(run_tool(save).exited(0));
    const Args from_file = {"--payload-file", payload, "--fec", std::to_string(fec), "--pix-fmt",
                            s.fmt, "--seed", "-1", "--sp-density", "60", "--embed-log", log};
    const RunResult read_back = run_tool(from_file, input);
    ASSERT_TRUE(read_back.exited(0)) << read_back.err;
    EXPECT_EQ(generated.out, read_back.out) << "fec " << fec;
    EXPECT_EQ(generated_log, read_file(log)) << "fec " << fec;
  }
}

}  // namespace
}  // namespace lumamark::test
