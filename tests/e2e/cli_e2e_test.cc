// The tool as a process: texts, streams, exit statuses, run modes and the
// frame loop.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

using Args = std::vector<std::string>;

constexpr int kW = 64;
constexpr int kH = 48;
constexpr size_t kFrame420 = kW * kH * 3 / 2;  // 4608

const Args kSmall = {"--width", "64", "--height", "48"};

Args small(Args extra) {
  Args a = kSmall;
  a.insert(a.end(), extra.begin(), extra.end());
  return a;
}

std::string usage_for(const std::string& prog) {
  return "Usage: " + prog +
         " <options>\n"
         "Options:\n"
         "  --help                Show this help message\n"
         "  --version             Show version information\n"
         "  --input-file <path>   Input yuv file\n"
         "  --output-file <path>  Output yuv file\n"
         "  --payload-file <path> Payload file\n"
         "  --strength <int>      Embedding strength\n"
         "  --fec <int>           Forward error correction mode. 0 is old parity bit + repeat "
         "mode, 2 is new RM-based mode (default)\n"
         "  --bit-profile <int>   Bit profile\n"
         "  --sp-density <int>    Superpixel density\n"
         "  --p-density <int>     Pixel density\n"
         "  --width <int>         Input file width\n"
         "  --height <int>        Input file height\n"
         "  --user-urn <str>      User organization URN\n"
         "  --wm-id <str>         Watermark ID\n"
         "  --pix-fmt <str>       Pixel format\n"
         "  --deep-fake           Increase embedding strength for deep fake detection\n"
         "  --sp-width <int>      Superpixel size\n"
         "  --spb-width <int>     Superpixel border size override (0 = auto)\n"
         "  --pm-mode <int>       Perceptual mode\n"
         "  --seed <int>          Watermark superpixel mask seed (defines which SPs are "
         "embedded). Range: 0 to 31 (or -1, default = derive from image hash)\n"
         "  --embed-log <path>    Output JSON file with embedding stats\n"
         "  --threads <int>       Number of threads to use (0 = auto-detect)\n";
}

TEST(CliTexts, UsageAndVersion) {
  RunResult r = run_tool({});
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.out, usage_for(LUMAMARK_BIN));
  EXPECT_EQ(r.err, "");

  for (const char* help : {"--help", "-h"}) {
    r = run_tool({"--width", "5", help, "--bogus"});
    EXPECT_TRUE(r.exited(0)) << help;
    EXPECT_EQ(r.out, usage_for(LUMAMARK_BIN));
    EXPECT_EQ(r.err, "");
  }

  r = run_tool({"--version"});
  EXPECT_TRUE(r.exited(0));
  EXPECT_EQ(r.out, "2.1.3\n");
  EXPECT_EQ(r.err, "");
}

TEST(CliTexts, ParseAndCheckErrorsGoToStandardErrorWithStatusOne) {
  struct Case {
    Args args;
    std::string err;
  };
  const Case cases[] = {
      {{"clip.yuv"}, "Error: Unknown option: clip.yuv"},
      {{"--width=64"}, "Error: Unknown option: --width=64"},
      {{"--fec", "1", "--help"}, "Error: Unsupported FEC mode (1), use 0 or 2\n"},
      {{"--input-file"}, "Error: --input-file option requires an argument\n"},
      {{"--threads", "-1", "--sp-width", "4"}, "Error: --threads must be >= 0 (0 = auto-detect)\n"},
      {{"--sp-width", "65"}, "Error: --sp-width must be in [5, 64]\n"},
      {{"--sp-width", "6", "--spb-width", "3"}, "SP size and border mismatch, reduce borders\n"},
  };
  for (const Case& c : cases) {
    const RunResult r = run_tool(c.args);
    EXPECT_TRUE(r.exited(1)) << c.err;
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.out, "");
  }
}

TEST(CliTexts, BadIntegerAbortsTheProcess) {
  for (const Args& args : {Args{"--width", "abc"}, Args{"--fec", "abc"},
                           Args{"--width", "99999999999"}, Args{"--threads", ""},
                           Args{"--seed", "-2147483649"}}) {
    const RunResult r = run_tool(args);
    EXPECT_TRUE(r.killed_by(SIGABRT)) << args[0] << " " << args[1] << ": status " << r.status;
    EXPECT_NE(r.err.find("stoi"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

TEST(CliDriver, FilterRefusalsAndDriverChecks) {
  struct Case {
    Args args;
    std::string out;
    std::string err;
  };
  const Case cases[] = {
      // The filter prints its own reason on standard output.
      {small({"--pm-mode", "4", "--pix-fmt", "nv12"}), "Error: PM mode 4 is not supported\n",
       "Filter initialization failed! Error code: -7\n"},
      {small({"--wm-id", "xyz"}), "WM id validation failed (error code -5)\n",
       "Filter initialization failed! Error code: -5\n"},
      {{"--width", "6", "--height", "48"}, "", "Filter initialization failed! Error code: -1\n"},
      // The pixel format is judged only after the filter accepted its settings.
      {small({"--pix-fmt", "nv12", "--strength", "0"}), "",
       "Invalid frame dimensions or pixel format\n"},
      {small({"--pix-fmt", "YUV420P"}), "", "Invalid frame dimensions or pixel format\n"},
      {small({"--strength", "0", "--sp-density", "101"}), "", "Error: --strength must be >= 1\n"},
      {small({"--sp-density", "101"}), "", "Error: --sp-density must be in [0, 100]\n"},
      {small({"--sp-density", "-1"}), "", "Error: --sp-density must be in [0, 100]\n"},
      // 32768 x 32768 x 3 wraps to a negative 32-bit size.
      {{"--width", "32768", "--height", "32768", "--sp-width", "64", "--fec", "0", "--pix-fmt",
        "yuv444p"},
       "", "Failed to allocate frame buffer of size 18446744071562067968\n"},
      {{"--width", "32768", "--height", "32768", "--sp-width", "64", "--fec", "0"}, "",
       "Failed to allocate frame buffer of size 18446744072635809792\n"},
      // 65536 x 65536 x 3 wraps to 0.
      {{"--width", "65536", "--height", "65536", "--sp-width", "64", "--fec", "0", "--pix-fmt",
        "yuv444p"},
       "", "Invalid frame dimensions or pixel format\n"},
  };
  for (const Case& c : cases) {
    const RunResult r = run_tool(c.args, std::string(kFrame420, 'x'));
    EXPECT_TRUE(r.exited(1)) << c.err;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
  }
}

TEST(CliDriver, InputAndOutputFiles) {
  TempDir dir;
  const std::string in = dir.file("in.yuv");
  const std::string out = dir.file("out.yuv");
  const std::string frames = random_bytes(2 * kFrame420, 1);
  write_file(in, frames);

  RunResult r = run_tool(small({"--input-file", dir.file("none.yuv"), "--output-file", out}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Error opening input file: " + dir.file("none.yuv") + "\n");
  EXPECT_FALSE(file_exists(out));

  r = run_tool(small({"--input-file", in, "--output-file", dir.file("no/out.yuv")}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Error opening output file: " + dir.file("no/out.yuv") + "\n");

  // Files and standard streams give the same bytes.
  r = run_tool(small({"--input-file", in, "--output-file", out}));
  ASSERT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(r.out + r.err, "");
  const RunResult piped = run_tool(kSmall, frames);
  ASSERT_TRUE(piped.exited(0)) << piped.err;
  EXPECT_EQ(read_file(out), piped.out);
}

TEST(CliDriver, MarksLumaOnlyAndKeepsWholeFrames) {
  const std::string frames = random_bytes(3 * kFrame420, 7);
  const RunResult full = run_tool(kSmall, frames);
  ASSERT_TRUE(full.exited(0)) << full.err;
  ASSERT_EQ(full.out.size(), frames.size());
  EXPECT_EQ(full.err, "");
  for (size_t f = 0; f < 3; ++f) {
    const size_t y = f * kFrame420;
    EXPECT_NE(full.out.substr(y, kW * kH), frames.substr(y, kW * kH)) << "frame " << f;
    EXPECT_EQ(full.out.substr(y + kW * kH, kFrame420 - kW * kH),
              frames.substr(y + kW * kH, kFrame420 - kW * kH));
  }

  // 2.5 frames: the half frame is dropped silently.
  const RunResult part = run_tool(kSmall, frames.substr(0, 2 * kFrame420 + kFrame420 / 2));
  EXPECT_TRUE(part.exited(0));
  EXPECT_EQ(part.err, "");
  EXPECT_EQ(part.out, full.out.substr(0, 2 * kFrame420));

  // Frames that arrive in small pieces are reassembled.
  const RunResult slow =
      run_tool(kSmall, InputPlan{frames, 1000, std::chrono::microseconds(2000)});
  EXPECT_TRUE(slow.exited(0));
  EXPECT_EQ(slow.out, full.out);

  const RunResult empty = run_tool(kSmall, std::string());
  EXPECT_TRUE(empty.exited(0));
  EXPECT_EQ(empty.out + empty.err, "");
}

TEST(CliDriver, FrameSizePerPixelFormat) {
  struct Case {
    const char* fmt;
    size_t frame;
  };
  for (const Case& c : {Case{"yuv420p", 4608}, Case{"yuv422p", 6144}, Case{"yuv444p", 9216}}) {
    const std::string input = random_bytes(2 * c.frame + c.frame - 1, 3);
    const RunResult r = run_tool(small({"--pix-fmt", c.fmt, "--pm-mode", "0"}), input);
    EXPECT_TRUE(r.exited(0)) << c.fmt << r.err;
    ASSERT_EQ(r.out.size(), 2 * c.frame) << c.fmt;
    EXPECT_EQ(r.out.substr(kW * kH, c.frame - kW * kH),
              input.substr(kW * kH, c.frame - kW * kH));
  }
  // An odd 4:2:0 frame loses the half byte: 1921 x 1081 x 3 / 2 = 3114901.
  const size_t odd = 3114901;
  const RunResult r = run_tool({"--width", "1921", "--height", "1081", "--pm-mode", "0",
                                "--threads", "2", "--seed", "3"},
                               random_bytes(odd + 3114900, 5));
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(r.out.size(), odd);
}

TEST(CliPayloadFile, SaveModeWritesFileWithoutTouchingVideo) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  // Neither the input, the pixel format nor the strength is looked at.
  RunResult r = run_tool(small({"--payload-file", p, "--wm-id", "1F", "--input-file",
                                dir.file("missing.yuv"), "--pix-fmt", "nv12", "--strength", "0",
                                "--sp-density", "500"}));
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(r.out + r.err, "");
  const std::string file = read_file(p);
  ASSERT_EQ(file.size(), 20u + 9 * 6);
  // width 64, height 48, SP 7 twice, bits 13, then the map
  EXPECT_EQ(file.substr(0, 20), std::string("\x40\0\0\0\x30\0\0\0\x07\0\0\0\x07\0\0\0\x0d\0\0\0", 20));

  r = run_tool(small({"--payload-file", p, "--wm-id", "1F", "--fec", "0", "--bit-profile", "16"}));
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(read_file(p).size(), 20u + 9 * 6 + 16 * 18);
  EXPECT_EQ(read_file(p).substr(16, 4), std::string("\x12\0\0\0", 4));

  r = run_tool(small({"--payload-file", dir.file("no/p.lmp"), "--wm-id", "1"}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Error opening payload file: " + dir.file("no/p.lmp") + "\n");
}

TEST(CliPayloadFile, ReadingFailures) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  RunResult r = run_tool(small({"--payload-file", p}), std::string(kFrame420, 'x'));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Error opening payload file: " + p + "\n");
  EXPECT_EQ(r.out, "");

  write_file(p, std::string(19, '\0'));
  r = run_tool(small({"--payload-file", p}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Failed to read payload header from: " + p + "\n");

  // Width 6 is narrower than one 7-pixel superpixel: an empty map.
  write_file(p, std::string("\x06\0\0\0\x30\0\0\0\x07\0\0\0\x07\0\0\0\x0d\0\0\0xxxx", 24));
  r = run_tool(small({"--payload-file", p}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Failed to read payload map from: " + p + "\n");

  // A file saved for FEC 2 lacks the index table that FEC 0 reads.
  ASSERT_TRUE(run_tool(small({"--payload-file", p, "--wm-id", "3"})).exited(0));
  r = run_tool(small({"--payload-file", p, "--fec", "0"}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Failed to read payload indexes from: " + p + "\n");
}

TEST(CliPayloadFile, RoundTripMarksLikeADirectRun) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  const std::string frames = random_bytes(2 * kFrame420, 11);
  const std::string urn = "0123456789abcdef0123456789ABCDEF";
  struct Case {
    Args settings;
  };
  const Case cases[] = {
      {{"--wm-id", "1A2B", "--bit-profile", "16"}},
      {{"--wm-id", "1A2B", "--bit-profile", "16", "--user-urn", urn}},
      {{"--wm-id", "5", "--fec", "0", "--sp-width", "5", "--strength", "4", "--user-urn", urn}},
  };
  for (const Case& c : cases) {
    const RunResult direct = run_tool(small(c.settings), frames);
    ASSERT_TRUE(direct.exited(0)) << direct.err;
    Args save = small(c.settings);
    save.insert(save.end(), {"--payload-file", p});
    ASSERT_TRUE(run_tool(save).exited(0));

    // The header overrides geometry and bit count given on the command line;
    // the URN plays no part once the payload is read.
    Args marking = {"--payload-file", p, "--width", "640", "--height", "480", "--bit-profile", "3",
                    "--user-urn", "ffffffffffffffffffffffffffffffff"};
    for (size_t i = 0; i + 1 < c.settings.size(); i += 2) {
      const std::string& o = c.settings[i];
      if (o == "--fec" || o == "--strength") marking.insert(marking.end(), {o, c.settings[i + 1]});
    }
    const RunResult from_file = run_tool(marking, frames);
    ASSERT_TRUE(from_file.exited(0)) << from_file.err;
    EXPECT_EQ(from_file.out, direct.out) << testing::PrintToString(c.settings);
  }
}

}  // namespace
}  // namespace lumamark::test
