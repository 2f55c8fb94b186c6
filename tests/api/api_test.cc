// The C library through its public header: settings by name, frames embedded
// exactly as the command line embeds them, silence on every failure,
// independent instances on several threads, and the detector reading back
// what the embedder wrote.
#include "lumamark/lumamark.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cli/options.h"
#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

using Settings = std::vector<std::pair<std::string, std::string>>;

lumamark_params params_from(const Settings& settings) {
  lumamark_params p;
  lumamark_params_default(&p);
  for (const auto& [name, value] : settings) {
    EXPECT_EQ(lumamark_params_set(&p, name.c_str(), value.c_str()), 0) << name << " " << value;
  }
  return p;
}

// The command line for the same settings: the names with two dashes.
Args cli_args(const Settings& settings) {
  Args args;
  for (const auto& [name, value] : settings) {
    if (name == "deep-fake") {
      if (value == "1") args.push_back("--deep-fake");
    } else {
      args.push_back("--" + name);
      args.push_back(value);
    }
  }
  return args;
}

// Marks yuv420p frames through the library, each luma plane copied into rows
// of stride bytes whose padding must come back untouched.
std::string embed_frames(const lumamark_params& p, const std::string& frames, ptrdiff_t stride) {
  lumamark_embedder* e = nullptr;
  const int rc = lumamark_embedder_open(&p, &e);
  EXPECT_EQ(rc, 0) << lumamark_strerror(rc);
  if (rc != 0) return "";
  const size_t w = size_t(p.width), h = size_t(p.height), frame = w * h * 3 / 2;
  std::string out = frames;
  std::vector<uint8_t> plane(size_t(stride) * h, 0xA5);
  for (size_t at = 0; at + frame <= out.size(); at += frame) {
    for (size_t y = 0; y < h; ++y) std::memcpy(&plane[y * stride], &out[at + y * w], w);
    EXPECT_EQ(lumamark_embedder_process(e, plane.data(), stride), 0);
    for (size_t y = 0; y < h; ++y) {
      std::memcpy(&out[at + y * w], &plane[y * stride], w);
      for (size_t x = w; x < size_t(stride); ++x) EXPECT_EQ(plane[y * stride + x], 0xA5) << "padding written";
    }
  }
  lumamark_embedder_close(e);
  return out;
}

TEST(ApiParams, SetByNameIsStrictAndNeverAborts) {
  struct Row {
    const char* name;
    const char* value;
    int rc;
  };
  const std::string long_text(LUMAMARK_TEXT_MAX, 'a');
  const Row rows[] = {
      {"width", "640", 0},          {"width", "0", LUMAMARK_EVALUE},      {"width", "12x", LUMAMARK_EVALUE},
      {"width", "", LUMAMARK_EVALUE}, {"width", " 5", LUMAMARK_EVALUE},   {"width", "1.5", LUMAMARK_EVALUE},
      {"width", "99999999999", LUMAMARK_EVALUE}, {"height", "-3", LUMAMARK_EVALUE},
      {"strength", "abc", LUMAMARK_EVALUE}, {"strength", "127", 0},       {"strength", "128", LUMAMARK_EVALUE},
      {"fec", "0", 0},              {"fec", "1", LUMAMARK_EVALUE},        {"fec", "2x", LUMAMARK_EVALUE},
      {"bit-profile", "2048", 0},   {"bit-profile", "2049", LUMAMARK_EVALUE},
      {"sp-width", "4", LUMAMARK_EVALUE}, {"sp-width", "64", 0},          {"spb-width", "-1", LUMAMARK_EVALUE},
      {"pm-mode", "4", LUMAMARK_EVALUE}, {"seed", "-1", 0},               {"seed", "32", LUMAMARK_EVALUE},
      {"sp-density", "101", LUMAMARK_EVALUE}, {"p-density", "0", 0},      {"threads", "65", LUMAMARK_EVALUE},
      {"deep-fake", "1", 0},        {"deep-fake", "2", LUMAMARK_EVALUE},  {"deep-fake", "yes", LUMAMARK_EVALUE},
      {"pix-fmt", "yuv444p", 0},    {"pix-fmt", "nv12", LUMAMARK_EVALUE},
      {"user-urn", "0123456789abcdefABCDEF0123456789", 0}, {"user-urn", "0123", LUMAMARK_EVALUE},
      {"user-urn", "0123456789abcdefABCDEF012345678g", LUMAMARK_EVALUE},
      {"wm-id", "1A2B", 0},         {"wm-id", long_text.c_str(), LUMAMARK_EVALUE},
      {"payload-file", "/tmp/p.lmp", 0}, {"input-width", "0", 0},         {"search", "full", 0}, {"search", "auto", 0},
      {"search", "2", LUMAMARK_EVALUE}, {"Width", "640", LUMAMARK_ENAME}, {"--width", "640", LUMAMARK_ENAME},
      {"input-file", "x", LUMAMARK_ENAME}, {"embed-log", "x", LUMAMARK_ENAME}, {"sp-height", "7", LUMAMARK_ENAME},
  };
  for (const Row& row : rows) {
    lumamark_params p, before;
    lumamark_params_default(&p);
    before = p;
    EXPECT_EQ(lumamark_params_set(&p, row.name, row.value), row.rc) << row.name << " = " << row.value;
    if (row.rc != 0) {
      EXPECT_EQ(std::memcmp(&p, &before, sizeof p), 0) << row.name << ": changed on failure";
    }
  }
  lumamark_params p = params_from({{"width", "640"}, {"search", "none"}, {"deep-fake", "1"}, {"wm-id", "1A2B"}});
  EXPECT_EQ(p.width, 640);
  EXPECT_EQ(p.search, 0);
  EXPECT_EQ(p.deep_fake, 1);
  EXPECT_STREQ(p.wm_id, "1A2B");
  EXPECT_EQ(lumamark_params_set(nullptr, "width", "1"), LUMAMARK_EINVAL);
  EXPECT_EQ(lumamark_params_set(&p, nullptr, "1"), LUMAMARK_EINVAL);
  EXPECT_EQ(lumamark_params_set(&p, "width", nullptr), LUMAMARK_EINVAL);
}

// The defaults are the command line's.
TEST(ApiParams, DefaultsAndVersionAreTheCommandLines) {
  lumamark_params p;
  lumamark_params_default(&p);
  const EmbedConfig c;
  EXPECT_EQ(p.width, c.width);
  EXPECT_EQ(p.height, c.height);
  EXPECT_EQ(p.pix_fmt, c.pix_fmt);
  EXPECT_EQ(p.wm_id, c.wm_id);
  EXPECT_EQ(p.user_urn, c.user_urn);
  EXPECT_EQ(p.strength, c.strength);
  EXPECT_EQ(p.fec, c.fec);
  EXPECT_EQ(p.bit_profile, c.bit_profile);
  EXPECT_EQ(p.sp_width, c.sp_width);
  EXPECT_EQ(p.spb_width, c.spb_width);
  EXPECT_EQ(p.pm_mode, c.pm_mode);
  EXPECT_EQ(p.seed, c.seed);
  EXPECT_EQ(p.sp_density, c.sp_density);
  EXPECT_EQ(p.p_density, c.p_density);
  EXPECT_EQ(p.deep_fake, int32_t(c.deep_fake));
  EXPECT_EQ(p.threads, c.threads);
  EXPECT_STREQ(lumamark_version(), kVersion);
  EXPECT_STREQ(lumamark_strerror(LUMAMARK_EWMID), "watermark ID invalid for the bit profile");
  EXPECT_STREQ(lumamark_strerror(12345), "unknown error code");
}

// Random settings: the library's frames are the command line's, byte for
// byte, whatever the row stride.
TEST(ApiEmbed, FramesEqualTheCommandLinesOnRandomSettings) {
  std::mt19937 rng(20240515);
  auto pick = [&rng](int32_t lo, int32_t hi) { return std::uniform_int_distribution<int32_t>(lo, hi)(rng); };
  const char* hex = "0123456789abcdef";
  for (int trial = 0; trial < 8; ++trial) {
    const int32_t sp = pick(5, 12);
    const int32_t w = pick(24, 100) * 2, h = pick(24, 70) * 2;
    const int32_t fec = pick(0, 1) * 2, bits = pick(1, fec == 2 ? 20 : 64);
    std::string urn, id = "1";
    for (int i = 0; i < 32; ++i) urn += hex[pick(0, 15)];
    for (int i = 1; i < bits / 4; ++i) id += hex[pick(0, 15)];
    const Settings settings = {
        {"width", std::to_string(w)},               {"height", std::to_string(h)},
        {"sp-width", std::to_string(sp)},           {"spb-width", std::to_string(pick(0, (sp - 1) / 2))},
        {"strength", std::to_string(pick(1, 6))},   {"fec", std::to_string(fec)},
        {"bit-profile", std::to_string(bits)},      {"wm-id", id},
        {"user-urn", urn},                          {"pm-mode", std::to_string(pick(0, 3))},
        {"seed", std::to_string(pick(-1, 31))},     {"sp-density", std::to_string(pick(0, 100))},
        {"p-density", std::to_string(pick(1, 100))}, {"deep-fake", std::to_string(pick(0, 1))},
        {"threads", std::to_string(pick(1, 3))},
    };
    const lumamark_params p = params_from(settings);
    const std::string frames = random_bytes(size_t(p.width) * p.height * 3 / 2 * 3, 100 + trial);
    const RunResult cli = run_tool(cli_args(settings), frames);
    ASSERT_TRUE(cli.exited(0)) << cli.err;
    ASSERT_EQ(cli.err, "");
    const std::string lib = embed_frames(p, frames, p.width + trial % 3 * 5);
    EXPECT_TRUE(lib == cli.out) << "trial " << trial << ": " << shell_words(cli_args(settings));
  }
}

// A payload file saved by the command line embeds the same frames through
// both, and is refused for another frame size.
TEST(ApiEmbed, PayloadFileEmbedsAsTheCommandLine) {
  TempDir tmp;
  const std::string payload = tmp.file("p.lmp");
  const Args make = {"--width", "70", "--height", "42", "--wm-id", "3c", "--fec", "0", "--payload-file", payload};
  ASSERT_TRUE(run_tool(make).exited(0));
  const std::string frames = random_bytes(70 * 42 * 3 / 2 * 2, 9);
  const RunResult cli = run_tool({"--fec", "0", "--payload-file", payload, "--seed", "4"}, frames);
  ASSERT_TRUE(cli.exited(0)) << cli.err;
  lumamark_params p = params_from({{"width", "70"}, {"height", "42"}, {"fec", "0"}, {"payload-file", payload}, {"seed", "4"}});
  EXPECT_TRUE(embed_frames(p, frames, 70) == cli.out);
  p.width = 72;
  lumamark_embedder* e = nullptr;
  EXPECT_EQ(lumamark_embedder_open(&p, &e), LUMAMARK_EGEOMETRY);
  EXPECT_EQ(e, nullptr);
}

// Every refusal is a code; nothing reaches standard output or error, also
// where the command line reports the same settings on a stream.
TEST(ApiEmbed, RefusesSilently) {
  struct Row {
    Settings settings;
    int rc;
  };
  const Row rows[] = {
      {{{"wm-id", "xyz"}}, LUMAMARK_EWMID},
      {{{"wm-id", "1ffff"}}, LUMAMARK_EWMID},
      {{{"width", "4"}, {"height", "40"}}, LUMAMARK_EGEOMETRY},
      {{{"sp-width", "6"}, {"spb-width", "3"}}, LUMAMARK_EGEOMETRY},
      {{{"width", "65535"}, {"height", "65535"}}, LUMAMARK_EGEOMETRY},
      {{{"width", "10"}, {"height", "10"}, {"sp-width", "5"}, {"bit-profile", "20"}}, LUMAMARK_ESETTINGS},
      {{{"payload-file", "/nonexistent/p.lmp"}}, LUMAMARK_EPAYLOAD},
  };
  std::fflush(stdout);
  std::fflush(stderr);
  FILE* sink = std::tmpfile();
  ASSERT_NE(sink, nullptr);
  const int saved_out = dup(1), saved_err = dup(2);
  dup2(fileno(sink), 1);
  dup2(fileno(sink), 2);
  std::vector<int> codes;
  for (const Row& row : rows) {
    const lumamark_params p = params_from(row.settings);
    lumamark_embedder* e = nullptr;
    codes.push_back(lumamark_embedder_open(&p, &e));
    lumamark_embedder_close(e);
  }
  lumamark_params bad;
  lumamark_params_default(&bad);
  bad.fec = 1;  // written directly: checked at open
  lumamark_embedder* e = nullptr;
  codes.push_back(lumamark_embedder_open(&bad, &e));
  codes.push_back(lumamark_embedder_open(nullptr, &e));
  std::fflush(stdout);
  std::fflush(stderr);
  dup2(saved_out, 1);
  dup2(saved_err, 2);
  close(saved_out);
  close(saved_err);
  EXPECT_EQ(std::ftell(sink), 0) << "the library printed something";
  std::fclose(sink);
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(codes[i], rows[i].rc) << "row " << i;
  EXPECT_EQ(codes[std::size(rows)], LUMAMARK_EVALUE);
  EXPECT_EQ(codes[std::size(rows) + 1], LUMAMARK_EINVAL);
  // The command line reports the same settings (and goes on, in the last case).
  const RunResult cli = run_tool({"--width", "10", "--height", "10", "--sp-width", "5", "--bit-profile", "20"}, "");
  EXPECT_EQ(cli.err, "Failed to generate payload\n");
}

// Instances share nothing: embedders with different settings, each on its
// own thread (and with worker threads of their own), mark as they do alone.
TEST(ApiEmbed, InstancesAreIndependentAcrossThreads) {
  const std::vector<Settings> settings = {
      {{"width", "96"}, {"height", "64"}, {"wm-id", "1a2b"}, {"threads", "2"}},
      {{"width", "96"}, {"height", "64"}, {"wm-id", "77"}, {"fec", "0"}, {"pm-mode", "2"}, {"seed", "5"}},
      {{"width", "80"}, {"height", "48"}, {"wm-id", "3"}, {"deep-fake", "1"}, {"threads", "3"}},
      {{"width", "80"}, {"height", "48"}, {"wm-id", "fff"}, {"sp-width", "9"}, {"sp-density", "50"}},
  };
  std::vector<std::string> inputs, alone, together(settings.size());
  for (size_t i = 0; i < settings.size(); ++i) {
    const lumamark_params p = params_from(settings[i]);
    inputs.push_back(random_bytes(size_t(p.width) * p.height * 3 / 2 * 6, 50 + uint32_t(i)));
    alone.push_back(embed_frames(p, inputs[i], p.width));
  }
  std::vector<std::thread> threads;
  for (int round = 0; round < 3; ++round) {
    for (size_t i = 0; i < settings.size(); ++i) {
      threads.emplace_back([&, i] { together[i] = embed_frames(params_from(settings[i]), inputs[i], 100); });
    }
    for (std::thread& t : threads) t.join();
    threads.clear();
    for (size_t i = 0; i < settings.size(); ++i) EXPECT_TRUE(together[i] == alone[i]) << "instance " << i;
  }
}

// The detector reads back what the embedder wrote.
TEST(ApiDetect, FindsTheIdTheEmbedderWrote) {
  lumamark_params p = params_from({{"width", "320"}, {"height", "192"}, {"wm-id", "1a2b"},
                                   {"user-urn", "00112233445566778899aabbccddeeff"}});
  const std::string frames = embed_frames(p, sample_clip(320, 192, 3), 320);
  lumamark_detector* d = nullptr;
  ASSERT_EQ(lumamark_detector_open(&p, &d), 0);
  lumamark_detection r;
  ASSERT_EQ(lumamark_detector_result(d, &r), 0);
  EXPECT_EQ(r.frames, 0);
  EXPECT_EQ(r.verdict, LUMAMARK_VERDICT_NONE);
  for (size_t at = 0; at < frames.size(); at += 320 * 192 * 3 / 2) {
    ASSERT_EQ(lumamark_detector_add(d, reinterpret_cast<const uint8_t*>(frames.data() + at), 320), 0);
  }
  ASSERT_EQ(lumamark_detector_result(d, &r), 0);
  EXPECT_EQ(r.verdict, LUMAMARK_VERDICT_DETECTED);
  EXPECT_STREQ(r.wm_id, "1a2b");
  EXPECT_GT(r.z, 7.0);
  EXPECT_EQ(r.frames, 3);
  EXPECT_EQ(r.transform.scale_x, 1.0);
  EXPECT_EQ(r.transform.scale_y, 1.0);
  EXPECT_EQ(r.transform.offset_x, 0.0);
  EXPECT_EQ(r.transform.flip, 0);
  EXPECT_EQ(lumamark_detector_add(d, reinterpret_cast<const uint8_t*>(frames.data()), 319), LUMAMARK_EINVAL);
  lumamark_detector_close(d);

  // Another URN: no mark.
  ASSERT_EQ(lumamark_params_set(&p, "user-urn", "ffeeddccbbaa99887766554433221100"), 0);
  ASSERT_EQ(lumamark_detector_open(&p, &d), 0);
  ASSERT_EQ(lumamark_detector_add(d, reinterpret_cast<const uint8_t*>(frames.data()), 320), 0);
  ASSERT_EQ(lumamark_detector_result(d, &r), 0);
  EXPECT_EQ(r.verdict, LUMAMARK_VERDICT_NONE);
  EXPECT_STREQ(r.wm_id, "");
  lumamark_detector_close(d);

  // A copy cropped by 9 columns on the left and 5 rows at the top, read at
  // its own size against the marked size, and the mirrored copy at the
  // marked size: the search finds both; with no search the mirror reads
  // nothing.
  ASSERT_EQ(lumamark_params_set(&p, "user-urn", "00112233445566778899aabbccddeeff"), 0);
  const size_t frame = 320 * 192 * 3 / 2;
  struct Copy {
    const char* what;
    int32_t w, h;
    int32_t dx, dy;  // marked pixel of the copy's top-left
    bool mirror;
    const char* search;
    lumamark_verdict verdict;
  };
  const Copy copies[] = {{"crop", 311, 187, 9, 5, false, "fast", LUMAMARK_VERDICT_DETECTED},
                         {"mirror", 320, 192, 0, 0, true, "fast", LUMAMARK_VERDICT_DETECTED},
                         {"mirror unsearched", 320, 192, 0, 0, true, "none", LUMAMARK_VERDICT_NONE}};
  for (const Copy& c : copies) {
    ASSERT_EQ(lumamark_params_set(&p, "input-width", std::to_string(c.w).c_str()), 0);
    ASSERT_EQ(lumamark_params_set(&p, "input-height", std::to_string(c.h).c_str()), 0);
    ASSERT_EQ(lumamark_params_set(&p, "search", c.search), 0);
    ASSERT_EQ(lumamark_detector_open(&p, &d), 0) << c.what;
    std::vector<uint8_t> plane(size_t(c.w) * c.h);
    for (size_t at = 0; at < frames.size(); at += frame) {
      for (int32_t y = 0; y < c.h; ++y) {
        for (int32_t x = 0; x < c.w; ++x) {
          const int32_t sx = c.mirror ? 319 - x : x + c.dx;
          plane[size_t(y) * c.w + x] = uint8_t(frames[at + size_t(y + c.dy) * 320 + sx]);
        }
      }
      ASSERT_EQ(lumamark_detector_add(d, plane.data(), c.w), 0);
    }
    ASSERT_EQ(lumamark_detector_result(d, &r), 0);
    EXPECT_EQ(r.verdict, c.verdict) << c.what << " z " << r.z;
    if (c.verdict == LUMAMARK_VERDICT_DETECTED) {
      EXPECT_STREQ(r.wm_id, "1a2b") << c.what;
      EXPECT_EQ(r.transform.flip, c.mirror ? 1 : 0) << c.what;
      EXPECT_NEAR(r.transform.scale_x, 1.0, 0.01) << c.what;
      if (!c.mirror) {
        EXPECT_NEAR(r.transform.offset_x, c.dx, 1.0) << c.what;
        EXPECT_NEAR(r.transform.offset_y, c.dy, 1.0) << c.what;
      }
    }
    lumamark_detector_close(d);
  }
}

}  // namespace
}  // namespace lumamark::test
