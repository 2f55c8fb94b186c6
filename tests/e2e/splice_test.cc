// Between two pipes the chroma planes move from pipe to pipe without passing
// through the tool's buffers. The bytes must be those of a run from and to
// files, whether the chroma fits the tool's pipes or arrives in pieces too
// small for them (the rest then goes through the buffers), and an output that
// goes away must still end the run quietly.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

TEST(SplicedChroma, SameBytesAsFilesWhateverThePieces) {
  TempDir dir;
  const std::string in = dir.file("in.yuv"), out = dir.file("out.yuv");
  struct Format {
    const char* pix_fmt;
    size_t frame;  // bytes at 640 x 360
  };
  for (const Format& f : {Format{"yuv420p", 640 * 360 * 3 / 2}, Format{"yuv444p", 640 * 360 * 3}}) {
    // Five whole frames and a partial one, which is dropped.
    const std::string frames = random_bytes(5 * f.frame + f.frame / 3, 21);
    write_file(in, frames);
    const Args args = {"--width", "640", "--height", "360", "--pix-fmt", f.pix_fmt, "--threads", "1"};
    const RunResult files = run_tool(cat(args, {"--input-file", in, "--output-file", out}));
    ASSERT_TRUE(files.exited(0)) << files.err;
    const std::string want = read_file(out);
    ASSERT_EQ(want.size(), 5 * f.frame);
    // All at once, in pieces that fill a pipe slot each with little data,
    // and in pieces that straddle the plane boundaries.
    for (size_t piece : {size_t{0}, size_t{97}, size_t{100003}}) {
      const RunResult piped = run_tool(args, InputPlan{frames, piece, std::chrono::microseconds(0)});
      EXPECT_TRUE(piped.exited(0)) << f.pix_fmt << " piece " << piece << ": " << piped.err;
      EXPECT_TRUE(piped.out == want) << f.pix_fmt << " piece " << piece;
    }
    // A reader that goes away: status 0 with SIGPIPE ignored, no message,
    // and the bytes it read are the right ones.
    const std::string pipeline = "trap '' PIPE; cat '" + in + "' | " + shell_words(args) + " 2>'" +
                                 dir.file("err") + "' | head -c 700000 >'" + dir.file("head") +
                                 "'; echo ${PIPESTATUS[1]} >'" + dir.file("status") + "'";
    ASSERT_TRUE(run_shell(pipeline).exited(0));
    EXPECT_EQ(read_file(dir.file("status")), "0\n") << f.pix_fmt;
    EXPECT_EQ(read_file(dir.file("err")), "") << f.pix_fmt;
    EXPECT_TRUE(read_file(dir.file("head")) == want.substr(0, 700000)) << f.pix_fmt;
  }
}

}  // namespace
}  // namespace lumamark::test
