// Command-line parsing and the checks made before the filter exists.
#include "cli/options.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace lumamark {
namespace {

struct Parsed {
  ParseResult result;
  EmbedConfig config;
  std::string out, err;
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

// Every field in declaration order, as text.
std::string fields(const EmbedConfig& c) {
  std::ostringstream s;
  s << c.input_file << '|' << c.output_file << '|' << c.payload_file;
  for (int32_t v : {c.strength, c.fec, c.bit_profile, c.sp_density, c.p_density, c.width, c.height, c.sp_width,
                    c.spb_width, c.pm_mode, c.seed})
    s << '|' << v;
  s << '|' << c.user_urn << '|' << c.wm_id << '|' << c.pix_fmt << '|' << c.embed_log << '|' << c.threads << '|'
    << c.deep_fake << c.wm_id_given;
  return s.str();
}

TEST(ParseOptions, DefaultsAndEveryOptionStored) {
  Parsed p = parse({"--sp-height", "abc"});
  ASSERT_EQ(p.result, ParseResult::Run);
  EXPECT_EQ(fields(p.config), "|||3|2|13|100|100|1920|1080|7|0|3|-1|" + std::string(32, '0') + "|0|yuv420p||1|00");
  EXPECT_EQ(p.out + p.err, "");
  // The last value wins; integers are read like stoi (leading space and
  // sign, trailing text ignored); --sp-height and --spb-height consume one
  // word unseen, even one that looks like an option; --wm-id 0 still counts
  // as given.
  p = parse({"--input-file", "in.yuv", "--output-file", "", "--payload-file", "p.bin", "--strength", "5", "--fec",
             "0", "--bit-profile", "20", "--sp-density", "50", "--p-density", "40", "--width", "640", "--width",
             " +12abc", "--height", "240", "--sp-width", "9", "--spb-width", "-2", "--spb-height", "--pm-mode",
             "--pm-mode", "1", "--seed", "-0", "--user-urn", "abc", "--wm-id", "0", "--pix-fmt", "nv12",
             "--embed-log", "log.json", "--threads", "0", "--fec", "2x", "--deep-fake"});
  ASSERT_EQ(p.result, ParseResult::Run);
  EXPECT_EQ(fields(p.config), "in.yuv||p.bin|5|2|20|50|40|12|240|9|-2|1|0|abc|0|nv12|log.json|0|11");
}

TEST(ParseOptions, ResultsAndMessages) {
  struct Case {
    std::vector<std::string> words;
    ParseResult result;
    std::string out;  // prefix of standard output
    std::string err;
  };
  const std::string usage = "Usage: lumamark <options>\nOptions:\n";
  std::vector<Case> cases = {
      {{}, ParseResult::Error, usage, ""},
      // The walk ends at --help or --version: later words, even an invalid
      // integer, are not looked at.
      {{"--width", "10", "--help", "--bogus", "--width", "abc"}, ParseResult::HelpShown, usage, ""},
      {{"-h"}, ParseResult::HelpShown, usage, ""},
      {{"--version", "--fec", "1"}, ParseResult::VersionShown, "2.1.3\n", ""},
      {{"--help", "--fec", "1"}, ParseResult::HelpShown, usage, ""},
      {{"--fec", "1", "--help"}, ParseResult::Error, "", "Error: Unsupported FEC mode (1), use 0 or 2\n"},
      {{"--fec", "-3"}, ParseResult::Error, "", "Error: Unsupported FEC mode (-3), use 0 or 2\n"},
  };
  // An unknown word ends the walk, its message without a line end.
  for (const char* word : {"clip.yuv", "--width=5", "--Width", "-H", "--", ""})
    cases.push_back({{"--width", "5", word, "--help"}, ParseResult::Error, "", std::string("Error: Unknown option: ") + word});
  for (const std::string option : {"--input-file", "--output-file", "--payload-file", "--strength", "--fec",
                                   "--bit-profile", "--sp-density", "--p-density", "--width", "--height", "--sp-width",
                                   "--sp-height", "--spb-width", "--spb-height", "--user-urn", "--wm-id", "--pix-fmt",
                                   "--pm-mode", "--seed", "--embed-log", "--threads"}) {
    const char* tail = option == "--input-file" ? " option requires" : " requires";  // deliberately different
    cases.push_back({{"--deep-fake", option}, ParseResult::Error, "", "Error: " + option + tail + " an argument\n"});
  }
  for (const Case& c : cases) {
    const Parsed p = parse(c.words);
    const std::string what = testing::PrintToString(c.words);
    EXPECT_EQ(p.result, c.result) << what;
    EXPECT_EQ(p.out.substr(0, c.out.size()), c.out) << what;
    EXPECT_EQ(c.out.empty(), p.out.empty()) << what;
    EXPECT_EQ(p.err, c.err) << what;
  }
}

TEST(CheckConfig, ThreadsSizeAndBorderInOrder) {
  const std::string threads = "Error: --threads must be >= 0 (0 = auto-detect)\n";
  const std::string size = "Error: --sp-width must be in [5, 64]\n";
  const std::string border = "SP size and border mismatch, reduce borders\n";
  const std::tuple<int32_t, int32_t, int32_t, std::string> cases[] = {
      {1, 7, 0, ""}, {0, 7, 0, ""}, {-1, 100, 40, threads}, {0, 100, 40, size}, {0, 4, 0, size}, {0, 65, 0, size},
      {0, 64, 32, border}, {0, 5, 2, ""}, {0, 6, 3, border}, {0, 5, -100, ""},
      {0, 64, 1 << 30, ""}, {0, 64, (1 << 30) - 1, border},  // twice the border wraps in 32 bits
  };
  for (const auto& [t, sp, spb, err] : cases) {
    EmbedConfig c;
    c.threads = t, c.sp_width = sp, c.spb_width = spb;
    testing::internal::CaptureStderr();
    EXPECT_EQ(check_config(c), err.empty()) << t << " " << sp << " " << spb;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), err) << t << " " << sp << " " << spb;
  }
}

}  // namespace
}  // namespace lumamark
