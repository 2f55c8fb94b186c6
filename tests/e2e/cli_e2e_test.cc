// The tool as a process: the abnormal end on a bad integer, the odd 4:2:0
// frame size, and the payload file saved without reading video and read
// back in place of the command line's geometry.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

// Integer options are not caught: the runtime reports the uncaught "stoi"
// error and aborts; a friendly message would be wrong.
TEST(Cli, BadIntegerAbortsTheProcess) {
  for (const Args& args : {Args{"--width", "abc"}, Args{"--fec", "abc"}, Args{"--width", "99999999999"},
                           Args{"--threads", ""}, Args{"--seed", "-2147483649"}}) {
    const RunResult r = run_tool(args);
    EXPECT_EQ(r.signal, SIGABRT) << args[0] << " " << args[1] << ": status " << r.status;
    EXPECT_NE(r.err.find("stoi"), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
  }
}

// 1921 x 1081 x 3 / 2 = 3114901: the half byte is lost, the chroma is not rounded up.
TEST(Cli, OddFrameSizeTruncates) {
  const size_t odd = 3114901;
  const RunResult r = run_tool({"--width", "1921", "--height", "1081", "--pm-mode", "0", "--threads", "2"},
                               random_bytes(2 * odd - 1, 5));
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(r.out.size(), odd);
}

TEST(Cli, SavedPayloadFileMarksLikeTheGeneratedPayload) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  const std::string frames = random_bytes(2 * 64 * 48 * 3 / 2, 11);
  for (const char* fec : {"0", "2"}) {
    const Args settings = {"--width", "64", "--height", "48", "--fec", fec, "--bit-profile", "6", "--wm-id", "2B",
                           "--strength", "4", "--user-urn", "0123456789abcdef0123456789ABCDEF"};
    const RunResult direct = run_tool(settings, frames);
    ASSERT_TRUE(direct.exited(0)) << direct.err;
    // Saving never opens the input and examines neither the pixel format
    // nor the density.
    RunResult r = run_tool(cat(settings, {"--payload-file", p, "--input-file", dir.file("missing.yuv"),
                                          "--pix-fmt", "nv12", "--sp-density", "500"}));
    EXPECT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(r.out + r.err, "");
    // Read back, the header replaces geometry and bit count; the URN plays no part.
    r = run_tool({"--payload-file", p, "--fec", fec, "--strength", "4", "--width", "640", "--height", "480",
                  "--bit-profile", "3", "--user-urn", std::string(32, 'f')},
                 frames);
    ASSERT_TRUE(r.exited(0)) << r.err;
    EXPECT_EQ(r.out, direct.out) << "fec " << fec;
  }
}

}  // namespace
}  // namespace lumamark::test
