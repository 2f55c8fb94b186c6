// Command-line parsing and the checks made before the filter exists.
#include "cli/options.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace lumamark {
namespace {

struct Parsed {
  ParseResult result;
  EmbedConfig config;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<std::string> words) {
  words.insert(words.begin(), "lumamark");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  Parsed p;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  p.result = parse_options(static_cast<int>(argv.size()), argv.data(), &p.config);
  p.out = testing::internal::GetCapturedStdout();
  p.err = testing::internal::GetCapturedStderr();
  return p;
}

TEST(ParseOptions, DefaultsAreTheDocumentedOnes) {
  const Parsed p = parse({"--deep-fake"});
  ASSERT_EQ(p.result, ParseResult::Run);
  const EmbedConfig& c = p.config;
  EXPECT_EQ(c.input_file + c.output_file + c.payload_file + c.embed_log, "");
  const std::vector<int32_t> ints = {c.strength, c.fec,      c.bit_profile, c.sp_density,
                                     c.p_density, c.width,   c.height,      c.sp_width,
                                     c.spb_width, c.pm_mode, c.seed,        c.threads};
  EXPECT_EQ(ints, std::vector<int32_t>({3, 2, 13, 100, 100, 1920, 1080, 7, 0, 3, -1, 1}));
  EXPECT_EQ(c.user_urn, std::string(32, '0'));
  EXPECT_EQ(c.wm_id, "0");
  EXPECT_EQ(c.pix_fmt, "yuv420p");
  EXPECT_TRUE(c.deep_fake);
  EXPECT_FALSE(c.wm_id_given);
  EXPECT_EQ(p.out + p.err, "");
}

TEST(ParseOptions, StoresEveryOptionAndLastValueWins) {
  const Parsed p = parse({"--input-file", "in.yuv", "--output-file", "", "--payload-file", "p.bin",
                          "--strength", "5", "--fec", "0", "--bit-profile", "20", "--sp-density",
                          "50", "--p-density", "40", "--width", "640", "--width", "320",
                          "--height", "240", "--sp-width", "9", "--spb-width", "-2",
                          "--user-urn", "abc", "--pix-fmt", "nv12", "--pm-mode", "1", "--seed",
                          "33", "--embed-log", "log.json", "--threads", "0", "--fec", "2"});
  ASSERT_EQ(p.result, ParseResult::Run);
  const EmbedConfig& c = p.config;
  EXPECT_EQ(c.input_file + "|" + c.output_file + "|" + c.payload_file + "|" + c.user_urn + "|" +
                c.pix_fmt + "|" + c.embed_log,
            "in.yuv||p.bin|abc|nv12|log.json");
  const std::vector<int32_t> ints = {c.strength, c.fec,      c.bit_profile, c.sp_density,
                                     c.p_density, c.width,   c.height,      c.sp_width,
                                     c.spb_width, c.pm_mode, c.seed,        c.threads};
  EXPECT_EQ(ints, std::vector<int32_t>({5, 2, 20, 50, 40, 320, 240, 9, -2, 1, 33, 0}));
  EXPECT_FALSE(c.wm_id_given);
}

TEST(ParseOptions, IntegerConversionIsLenientAboutTrailingText) {
  const Parsed p = parse({"--fec", "2x", "--width", " +12abc", "--seed", "-0"});
  ASSERT_EQ(p.result, ParseResult::Run);
  EXPECT_EQ(p.config.fec, 2);
  EXPECT_EQ(p.config.width, 12);
  EXPECT_EQ(p.config.seed, 0);
}

TEST(ParseOptions, WmIdGivenEvenWhenEqualToDefault) {
  const Parsed p = parse({"--wm-id", "0"});
  ASSERT_EQ(p.result, ParseResult::Run);
  EXPECT_TRUE(p.config.wm_id_given);
  EXPECT_EQ(p.config.wm_id, "0");
}

TEST(ParseOptions, HelpVersionAndEmptyCommandLine) {
  Parsed p = parse({"--width", "10", "--help", "--bogus", "--width", "abc"});
  EXPECT_EQ(p.result, ParseResult::HelpShown);
  EXPECT_EQ(p.config.width, 10);  // stored before the walk ended
  EXPECT_EQ(p.out.rfind("Usage: lumamark <options>\nOptions:\n", 0), 0u);
  EXPECT_EQ(p.err, "");
  EXPECT_EQ(parse({"-h"}).result, ParseResult::HelpShown);

  p = parse({"--version", "--fec", "1"});
  EXPECT_EQ(p.result, ParseResult::VersionShown);
  EXPECT_EQ(p.out + p.err, "2.1.3\n");

  p = parse({});
  EXPECT_EQ(p.result, ParseResult::Error);
  EXPECT_EQ(p.out.rfind("Usage: lumamark <options>\n", 0), 0u);
  EXPECT_EQ(p.err, "");
}

TEST(ParseOptions, UnsupportedFecModeIsCheckedWhenStored) {
  Parsed p = parse({"--fec", "1", "--help"});
  EXPECT_EQ(p.result, ParseResult::Error);
  EXPECT_EQ(p.err, "Error: Unsupported FEC mode (1), use 0 or 2\n");
  EXPECT_EQ(p.out, "");

  p = parse({"--help", "--fec", "1"});
  EXPECT_EQ(p.result, ParseResult::HelpShown);

  p = parse({"--fec", "-3"});
  EXPECT_EQ(p.err, "Error: Unsupported FEC mode (-3), use 0 or 2\n");
}

TEST(ParseOptions, UnknownWordHasNoLineEnd) {
  for (const char* word : {"clip.yuv", "--width=5", "--Width", "-H", "--", ""}) {
    const Parsed p = parse({"--width", "5", word, "--width", "7"});
    EXPECT_EQ(p.result, ParseResult::Error) << word;
    EXPECT_EQ(p.err, std::string("Error: Unknown option: ") + word);
    EXPECT_EQ(p.config.width, 5);
  }
}

TEST(ParseOptions, MissingArgumentMessages) {
  const std::pair<const char*, const char*> rows[] = {
      {"--input-file", "Error: --input-file option requires an argument\n"},
      {"--output-file", "Error: --output-file requires an argument\n"},
      {"--payload-file", "Error: --payload-file requires an argument\n"},
      {"--strength", "Error: --strength requires an argument\n"},
      {"--fec", "Error: --fec requires an argument\n"},
      {"--bit-profile", "Error: --bit-profile requires an argument\n"},
      {"--sp-density", "Error: --sp-density requires an argument\n"},
      {"--p-density", "Error: --p-density requires an argument\n"},
      {"--width", "Error: --width requires an argument\n"},
      {"--height", "Error: --height requires an argument\n"},
      {"--sp-width", "Error: --sp-width requires an argument\n"},
      {"--sp-height", "Error: --sp-height requires an argument\n"},
      {"--spb-width", "Error: --spb-width requires an argument\n"},
      {"--spb-height", "Error: --spb-height requires an argument\n"},
      {"--user-urn", "Error: --user-urn requires an argument\n"},
      {"--wm-id", "Error: --wm-id requires an argument\n"},
      {"--pix-fmt", "Error: --pix-fmt requires an argument\n"},
      {"--pm-mode", "Error: --pm-mode requires an argument\n"},
      {"--seed", "Error: --seed requires an argument\n"},
      {"--embed-log", "Error: --embed-log requires an argument\n"},
      {"--threads", "Error: --threads requires an argument\n"},
  };
  for (const auto& [option, message] : rows) {
    const Parsed p = parse({"--deep-fake", option});
    EXPECT_EQ(p.result, ParseResult::Error) << option;
    EXPECT_EQ(p.err, message);
    EXPECT_EQ(p.out, "");
  }
}

TEST(ParseOptions, SuperpixelHeightOptionsConsumeOneWord) {
  // The consumed word is never looked at, even when it looks like an option.
  Parsed p = parse({"--sp-height", "abc", "--spb-height", "--width", "--height", "50"});
  ASSERT_EQ(p.result, ParseResult::Run);
  EXPECT_EQ(p.config.width, 1920);
  EXPECT_EQ(p.config.height, 50);
  EXPECT_EQ(p.config.sp_width, 7);
  EXPECT_EQ(p.config.spb_width, 0);
}

bool check(const EmbedConfig& c, std::string* err) {
  testing::internal::CaptureStderr();
  const bool ok = check_config(c);
  *err = testing::internal::GetCapturedStderr();
  return ok;
}

TEST(CheckConfig, ThreadsSizeAndBorderInOrder) {
  const std::string threads = "Error: --threads must be >= 0 (0 = auto-detect)\n";
  const std::string size = "Error: --sp-width must be in [5, 64]\n";
  const std::string border = "SP size and border mismatch, reduce borders\n";
  struct Case {
    int32_t threads, sp_width, spb_width;
    std::string err;  // empty: passes
  };
  const Case cases[] = {
      {1, 7, 0, ""},          {0, 7, 0, ""},     {-1, 100, 40, threads}, {0, 100, 40, size},
      {0, 4, 0, size},        {0, 65, 0, size},  {0, 64, 32, border},    {0, 5, 2, ""},
      {0, 6, 3, border},      {0, 5, -100, ""},
      // Twice the border is formed in wrapping 32-bit arithmetic.
      {0, 64, 1 << 30, ""},   {0, 64, (1 << 30) - 1, border},
  };
  for (const Case& c : cases) {
    EmbedConfig config;
    config.threads = c.threads;
    config.sp_width = c.sp_width;
    config.spb_width = c.spb_width;
    testing::internal::CaptureStderr();
    const bool ok = check_config(config);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err)
        << c.threads << " " << c.sp_width << " " << c.spb_width;
    EXPECT_EQ(ok, c.err.empty());
  }
}

}  // namespace
}  // namespace lumamark
