// The tool as a process: the abnormal end on a bad integer, the odd 4:2:0
// frame size, the payload file saved without reading video and read back in
// place of the command line's geometry, and large frames streamed with the
// seed summed as they arrive.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
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

// Large frames are read ahead on a thread that sums each frame's seed as its
// rows arrive; with an embedding log every frame is read, sized and marked
// in turn by the main thread. Both must give the same bytes, for input read
// all at once and in pieces of any size.
TEST(Cli, StreamedFramesEqualFramesMarkedInTurn) {
  TempDir dir;
  const std::string frames = random_bytes(4 * 640 * 360 * 3 / 2, 31);
  const Args args = {"--width", "640", "--height", "360", "--threads", "1"};
  const RunResult in_turn = run_tool(cat(args, {"--embed-log", dir.file("log.json")}), frames);
  ASSERT_TRUE(in_turn.exited(0)) << in_turn.err;
  for (size_t piece : {size_t{0}, size_t{1001}, size_t{131073}}) {
    const RunResult streamed = run_tool(args, InputPlan{frames, piece, std::chrono::microseconds(0)});
    EXPECT_TRUE(streamed.exited(0)) << streamed.err;
    EXPECT_TRUE(streamed.out == in_turn.out) << "piece " << piece;
  }
}

}  // namespace
}  // namespace lumamark::test
