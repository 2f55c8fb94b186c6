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
  EXPECT_EQ(c.input_file, "");
  EXPECT_EQ(c.output_file, "");
  EXPECT_EQ(c.payload_file, "");
  EXPECT_EQ(c.strength, 3);
  EXPECT_EQ(c.fec, 2);
  EXPECT_EQ(c.bit_profile, 13);
  EXPECT_EQ(c.sp_density, 100);
  EXPECT_EQ(c.p_density, 100);
  EXPECT_EQ(c.width, 1920);
  EXPECT_EQ(c.height, 1080);
  EXPECT_EQ(c.sp_width, 7);
  EXPECT_EQ(c.spb_width, 0);
  EXPECT_EQ(c.pm_mode, 3);
  EXPECT_EQ(c.seed, -1);
  EXPECT_EQ(c.user_urn, std::string(32, '0'));
  EXPECT_EQ(c.wm_id, "0");
  EXPECT_EQ(c.pix_fmt, "yuv420p");
  EXPECT_EQ(c.embed_log, "");
  EXPECT_EQ(c.threads, 1);
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
  EXPECT_EQ(c.input_file, "in.yuv");
  EXPECT_EQ(c.output_file, "");
  EXPECT_EQ(c.payload_file, "p.bin");
  EXPECT_EQ(c.strength, 5);
  EXPECT_EQ(c.fec, 2);
  EXPECT_EQ(c.bit_profile, 20);
  EXPECT_EQ(c.sp_density, 50);
  EXPECT_EQ(c.p_density, 40);
  EXPECT_EQ(c.width, 320);
  EXPECT_EQ(c.height, 240);
  EXPECT_EQ(c.sp_width, 9);
  EXPECT_EQ(c.spb_width, -2);
  EXPECT_EQ(c.user_urn, "abc");
  EXPECT_EQ(c.pix_fmt, "nv12");
  EXPECT_EQ(c.pm_mode, 1);
  EXPECT_EQ(c.seed, 33);
  EXPECT_EQ(c.embed_log, "log.json");
  EXPECT_EQ(c.threads, 0);
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

TEST(ParseOptions, HelpAndVersionEndTheWalk) {
  Parsed p = parse({"--width", "10", "--help", "--bogus", "--width", "abc"});
  EXPECT_EQ(p.result, ParseResult::HelpShown);
  EXPECT_EQ(p.config.width, 10);
  EXPECT_EQ(p.out.rfind("Usage: lumamark <options>\nOptions:\n", 0), 0u);
  EXPECT_EQ(p.err, "");

  p = parse({"-h"});
  EXPECT_EQ(p.result, ParseResult::HelpShown);

  p = parse({"--version", "--fec", "1"});
  EXPECT_EQ(p.result, ParseResult::VersionShown);
  EXPECT_EQ(p.out, "2.1.3\n");
  EXPECT_EQ(p.err, "");
}

TEST(ParseOptions, NoWordsPrintsUsageAndFails) {
  const Parsed p = parse({});
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
  std::string err;
  EmbedConfig c;
  EXPECT_TRUE(check(c, &err));
  EXPECT_EQ(err, "");

  c.threads = -1;
  c.sp_width = 100;  // threads are reported first
  EXPECT_FALSE(check(c, &err));
  EXPECT_EQ(err, "Error: --threads must be >= 0 (0 = auto-detect)\n");

  c.threads = 0;
  c.spb_width = 40;  // size is reported before the border
  EXPECT_FALSE(check(c, &err));
  EXPECT_EQ(err, "Error: --sp-width must be in [5, 64]\n");
  c.sp_width = 4;
  EXPECT_FALSE(check(c, &err));
  EXPECT_EQ(err, "Error: --sp-width must be in [5, 64]\n");
  c.sp_width = 65;
  EXPECT_FALSE(check(c, &err));

  c.sp_width = 64;
  EXPECT_FALSE(check(c, &err));
  EXPECT_EQ(err, "SP size and border mismatch, reduce borders\n");
}

TEST(CheckConfig, BorderMustLeaveAnInnerPart) {
  std::string err;
  EmbedConfig c;
  c.sp_width = 5;
  c.spb_width = 2;
  EXPECT_TRUE(check(c, &err));
  c.sp_width = 6;
  c.spb_width = 3;
  EXPECT_FALSE(check(c, &err));
  EXPECT_EQ(err, "SP size and border mismatch, reduce borders\n");
  c.spb_width = -100;
  EXPECT_TRUE(check(c, &err));
  // Twice the border is formed in wrapping 32-bit arithmetic.
  c.spb_width = 1 << 30;
  EXPECT_TRUE(check(c, &err));
  c.spb_width = (1 << 30) - 1;
  EXPECT_FALSE(check(c, &err));
}

}  // namespace
}  // namespace lumamark
