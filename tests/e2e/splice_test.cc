// From a pipe or a regular file to a pipe, a regular file or /dev/null, the
// chroma planes move with splice(2) without passing through the tool's
// buffers. The bytes must be those of the loop that marks one frame at a time
// through its buffer (taken with an embedding log), whether the chroma fits
// the tool's pipes or arrives in pieces too small for them (the rest then goes
// through the buffers), and an output that goes away must still end the run
// quietly.
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
    int32_t width, height;
    size_t frame;
  };
  // The last one's chroma needs more than one pipe of 1 MiB.
  for (const Format& f : {Format{"yuv420p", 640, 360, 640 * 360 * 3 / 2}, Format{"yuv444p", 640, 360, 640 * 360 * 3},
                          Format{"yuv444p", 1280, 720, 1280 * 720 * 3}}) {
    // Five whole frames and a partial one, which is dropped.
    const std::string frames = random_bytes(5 * f.frame + f.frame / 3, 21);
    write_file(in, frames);
    const Args args = {"--width", std::to_string(f.width), "--height", std::to_string(f.height),
                       "--pix-fmt", f.pix_fmt, "--threads", "1"};
    const RunResult files =
        run_tool(cat(args, {"--input-file", in, "--output-file", out, "--embed-log", dir.file("log")}));
    ASSERT_TRUE(files.exited(0)) << files.err;
    const std::string want = read_file(out);
    ASSERT_EQ(want.size(), 5 * f.frame);
    // All at once, in pieces that fill a pipe slot each with little data,
    // and in pieces that straddle the plane boundaries.
    for (size_t piece : {size_t{0}, size_t{97}, size_t{100003}}) {
      if (piece == 97 && f.width > 640) continue;  // slow, and no different
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

// Regular files on either side: the chroma is lent from the input file's
// cached pages, or copied once into the output file. An output opened for
// appending cannot take splices and is written as before; the input may be
// the standard input, already read into by the look at its first bytes.
TEST(SplicedChroma, FilesOnEitherSideKeepTheBytes) {
  TempDir dir;
  const std::string in = dir.file("in.yuv");
  const size_t frame = 640 * 360 * 3;  // yuv444p: the chroma is twice the luma
  const std::string frames = random_bytes(4 * frame + frame / 2 + 7, 33);
  write_file(in, frames);
  const Args args = {"--width", "640", "--height", "360", "--pix-fmt", "yuv444p", "--threads", "0"};
  const std::string ref = dir.file("ref.yuv");
  ASSERT_TRUE(
      run_tool(cat(args, {"--input-file", in, "--output-file", ref, "--embed-log", dir.file("log")}))
          .exited(0));
  const std::string want = read_file(ref);
  ASSERT_EQ(want.size(), 4 * frame);

  // File to pipe.
  const RunResult to_pipe = run_tool(cat(args, {"--input-file", in}));
  EXPECT_TRUE(to_pipe.exited(0)) << to_pipe.err;
  EXPECT_TRUE(to_pipe.out == want) << "file to pipe";
  // Pipe to file.
  const std::string out = dir.file("out.yuv");
  const RunResult from_pipe = run_tool(cat(args, {"--output-file", out}), frames);
  EXPECT_TRUE(from_pipe.exited(0)) << from_pipe.err;
  EXPECT_TRUE(read_file(out) == want) << "pipe to file";
  // File to file, the input given as standard input or by name, and to a
  // file appended to, whose earlier bytes stay.
  const std::string tool = shell_words(args);
  write_file(dir.file("appended.yuv"), "earlier bytes");
  const std::string script = tool + " <'" + in + "' >'" + dir.file("stdin.yuv") + "' && " + tool +
                             " --input-file '" + in + "' --output-file '" + dir.file("named.yuv") +
                             "' && " + tool + " <'" + in + "' >>'" + dir.file("appended.yuv") +
                             "' && " + tool + " --input-file '" + in + "' >/dev/null";
  const RunResult runs = run_shell(script);
  ASSERT_TRUE(runs.exited(0)) << runs.err;
  EXPECT_TRUE(read_file(dir.file("stdin.yuv")) == want) << "standard input to file";
  EXPECT_TRUE(read_file(dir.file("named.yuv")) == want) << "named file to file";
  EXPECT_TRUE(read_file(dir.file("appended.yuv")) == "earlier bytes" + want) << "appended";
}

}  // namespace
}  // namespace lumamark::test
