// y4m in and out: real ffmpeg pipelines through both tools, and the streams
// the tools refuse. The pipelines are skipped when ffmpeg is not installed.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

// A y4m stream split into its header, FRAME lines and frame bytes.
struct Y4mParts {
  std::string header;
  std::vector<std::string> lines;
  std::vector<std::string> frames;
};

Y4mParts split_y4m(const std::string& s, size_t frame_bytes) {
  Y4mParts p;
  size_t pos = s.find('\n') + 1;
  p.header = s.substr(0, pos);
  while (pos < s.size()) {
    const size_t end = s.find('\n', pos) + 1;
    p.lines.push_back(s.substr(pos, end - pos));
    p.frames.push_back(s.substr(end, frame_bytes));
    pos = end + frame_bytes;
  }
  return p;
}

std::string y4m_stream(const std::string& header, int32_t frames, size_t frame_bytes, uint32_t seed) {
  std::string s = header;
  for (int32_t f = 0; f < frames; ++f) s += "FRAME\n" + random_bytes(frame_bytes, seed + f);
  return s;
}

#ifdef LUMAMARK_DETECT_BIN
// ffmpeg -f yuv4mpegpipe | lumamark --wm-id 1A2B | ffmpeg -f yuv4mpegpipe -i -
// keeps every frame, the header and the FRAME lines, changes only luma (as
// the raw path changes it, where raw framing is the same), and the detector
// finds the mark in the y4m result.
TEST(Y4mFfmpeg, PipelineKeepsFramesAndTheMarkIsFound) {
  const std::string ffmpeg = find_ffmpeg();
  if (ffmpeg.empty()) GTEST_SKIP() << "ffmpeg is not installed (scripts/deps.sh ensure_video_deps installs it)";
  struct Case {
    const char* fmt;
    int32_t w, h;
    const char* chroma;  // expected C parameter
    bool raw_same_framing;  // raw frames of this size have the same bytes as y4m ones
  };
  const Case cases[] = {
      {"yuv420p", 320, 240, "C420jpeg", true},
      {"yuv420p", 321, 241, "C420jpeg", false},
      {"yuv422p", 320, 240, "C422", true},
      {"yuv444p", 323, 197, "C444", true},
  };
  const int32_t frames = 5;
  for (const Case& c : cases) {
    TempDir tmp;
    const std::string in = tmp.file("in.y4m"), out = tmp.file("out.y4m"), decoded = tmp.file("decoded.yuv");
    std::ostringstream cmd;
    // testsrc2 renders even sizes only: odd ones are scaled to.
    cmd << "set -o pipefail; '" << ffmpeg << "' -v error -nostdin -f lavfi -i testsrc2=size=320x240:rate=25 -vf scale="
        << c.w << ":" << c.h << " -frames:v " << frames << " -pix_fmt " << c.fmt << " -f yuv4mpegpipe - | tee '" << in << "' | '"
        << LUMAMARK_BIN << "' --wm-id 1A2B | tee '" << out << "' | '" << ffmpeg
        << "' -v error -nostdin -f yuv4mpegpipe -i - -f rawvideo '" << decoded << "'";
    const RunResult r = run_shell(cmd.str());
    ASSERT_TRUE(r.exited(0)) << cmd.str() << "\n" << r.err;
    const std::string label = std::string(c.fmt) + " " + std::to_string(c.w) + "x" + std::to_string(c.h);
    const size_t luma = size_t(c.w) * c.h, cw = size_t(c.w + 1) / 2;
    const size_t chroma = std::string(c.fmt) == "yuv420p" ? cw * ((c.h + 1) / 2) : std::string(c.fmt) == "yuv422p" ? cw * c.h : luma;
    const size_t frame = luma + 2 * chroma;
    const Y4mParts a = split_y4m(read_file(in), frame), b = split_y4m(read_file(out), frame);
    ASSERT_EQ(a.frames.size(), size_t(frames)) << label;
    ASSERT_EQ(b.frames.size(), size_t(frames)) << label << ": frame count changed";
    EXPECT_NE(a.header.find(std::string(" ") + c.chroma), std::string::npos) << a.header;
    EXPECT_EQ(b.header, a.header) << label;
    EXPECT_EQ(b.lines, a.lines) << label;
    EXPECT_EQ(read_file(decoded).size(), frame * frames) << label << ": ffmpeg read back another amount";
    for (int32_t f = 0; f < frames; ++f) {
      EXPECT_EQ(b.frames[f].substr(luma), a.frames[f].substr(luma)) << label << ": chroma of frame " << f;
      EXPECT_NE(b.frames[f].substr(0, luma), a.frames[f].substr(0, luma)) << label << ": frame " << f << " unmarked";
    }
    if (c.raw_same_framing) {
      std::string raw;
      for (const std::string& f : a.frames) raw += f;
      const RunResult m = run_tool({"--wm-id", "1A2B", "--width", std::to_string(c.w), "--height", std::to_string(c.h),
                                    "--pix-fmt", c.fmt}, raw);
      ASSERT_TRUE(m.exited(0)) << m.err;
      std::string marked;
      for (const std::string& f : b.frames) marked += f;
      EXPECT_EQ(marked, m.out) << label << ": the y4m path marks differently from the raw path";
    }
    const RunResult d = run_program(LUMAMARK_DETECT_BIN, {"--json", "--input-file", out});
    EXPECT_TRUE(d.exited(0)) << label << "\n" << d.out << d.err;
    EXPECT_NE(d.out.find("\"wm_id\": \"1a2b\""), std::string::npos) << label << "\n" << d.out;
  }
}
#endif

// What both tools refuse: status 1, a message naming the problem, nothing
// written (an output file is not even created).
TEST(Y4m, RefusalsWriteNothing) {
  const std::string ok = "YUV4MPEG2 W64 H48 F25:1 C420jpeg\n";
  const std::string ok_stream = y4m_stream(ok, 2, 64 * 48 * 3 / 2, 7);
  struct Row {
    Args args;
    std::string input;
    const char* message;
    // The detector's own option and message where they differ: its --width
    // and --height are the marked size, and the header gives the copy's.
    Args detect_args = {};
    const char* detect_message = nullptr;
  };
  const Row rows[] = {
      {{"--width", "640"}, ok_stream, "Error: --width 640 disagrees with the y4m header (W64)\n",
       {"--input-width", "640"}, "Error: --input-width 640 disagrees with the y4m header (W64)\n"},
      {{"--height", "49"}, ok_stream, "Error: --height 49 disagrees with the y4m header (H48)\n",
       {"--input-height", "49"}, "Error: --input-height 49 disagrees with the y4m header (H48)\n"},
      {{"--pix-fmt", "yuv444p"}, ok_stream, "Error: --pix-fmt yuv444p disagrees with the y4m header (yuv420p)\n"},
      {{}, y4m_stream("YUV4MPEG2 W64 H48 C420p10 XYSCSS=420P10\n", 1, 64 * 48 * 3, 1),
       "Error: y4m color space C420p10 is not supported (8-bit C420jpeg, C420mpeg2, C420paldv, C420, C422 and C444 are)\n"},
      {{}, y4m_stream("YUV4MPEG2 W64 H48 Cmono\n", 1, 64 * 48, 1), "Error: y4m color space Cmono is not supported"},
      {{}, "YUV4MPEG2 W64 H48 C420", "Error: the y4m header is incomplete or too long\n"},
      {{}, "YUV4MPEG2 W64 C420\nFRAME\n", "Error: the y4m header gives no valid frame size (W and H)\n"},
  };
  for (const Row& row : rows) {
    TempDir tmp;
    const std::string out = tmp.file("out.y4m");
    const RunResult r = run_tool(cat(cat({"--wm-id", "1"}, row.args), {"--output-file", out}), row.input);
    EXPECT_TRUE(r.exited(1)) << row.message;
    EXPECT_EQ(r.err.rfind(row.message, 0), 0u) << r.err;
    EXPECT_FALSE(file_exists(out)) << row.message;
#ifdef LUMAMARK_DETECT_BIN
    const Args& detect_args = row.detect_args.empty() ? row.args : row.detect_args;
    const char* detect_message = row.detect_message != nullptr ? row.detect_message : row.message;
    const RunResult d = run_program(LUMAMARK_DETECT_BIN, detect_args.empty() ? Args{"--json"} : detect_args, {row.input});
    EXPECT_TRUE(d.exited(1)) << detect_message << d.err;
    EXPECT_EQ(d.err.rfind(detect_message, 0), 0u) << d.err;
    EXPECT_EQ(d.out, "");
#endif
  }
  // Explicit options that agree are accepted.
  const RunResult r = run_tool({"--wm-id", "1", "--width", "64", "--height", "48", "--pix-fmt", "yuv420p"}, ok_stream);
  EXPECT_TRUE(r.exited(0)) << r.err;
  EXPECT_EQ(r.out.size(), ok_stream.size());
}

// The stream ends as raw input does (a partial last frame, or a FRAME line cut
// short, is dropped, status 0), and a line that is not a FRAME line ends the
// run with status 1 after the frames before it.
TEST(Y4m, EndsOfStream) {
  const std::string header = "YUV4MPEG2 W35 H21 C444 XYSCSS=444\n";
  const size_t frame = 35 * 21 * 3;
  const std::string two = y4m_stream(header, 2, frame, 3);
  struct Row {
    std::string input;
    int status;
    size_t out_size;
    const char* err;
  };
  const Row rows[] = {
      {two, 0, two.size(), ""},
      {two + "FRAME\n" + std::string(frame - 1, 'x'), 0, two.size(), ""},
      {two + "FRA", 0, two.size(), ""},
      {header, 0, header.size(), ""},
      {two + "FRAMEX\n" + std::string(frame, 'x'), 1, two.size(), "Error: malformed y4m FRAME line before frame 2\n"},
  };
  for (const Row& row : rows) {
    const RunResult r = run_tool({"--wm-id", "5", "--seed", "3"}, row.input);
    EXPECT_TRUE(r.exited(row.status)) << r.err;
    EXPECT_EQ(r.out.size(), row.out_size);
    EXPECT_EQ(r.err, row.err);
    EXPECT_EQ(r.out.substr(0, header.size()), header);
  }
}

// Frames of 64 KiB and more are read ahead and written behind on threads of
// their own, the FRAME lines read in pieces that also take the start of the
// frame. Whatever the lines, the pieces the input comes in and the way the
// stream ends, the output, status and message must be those of the plain
// loop, which an embedding log selects.
TEST(Y4mStreamed, SameAsThePlainLoop) {
  TempDir dir;
  struct Format {
    const char* header;
    size_t frame;
  };
  const Format formats[] = {
      {"YUV4MPEG2 W320 H240 F25:1 Ip A1:1 C420jpeg XYSCSS=420JPEG\n", 320 * 240 * 3 / 2},
      {"YUV4MPEG2 W241 H181 C444\n", 241 * 181 * 3},
      {"YUV4MPEG2 W321 H241 C420\n", 321 * 241 + 2 * 161 * 121},
  };
  for (const Format& f : formats) {
    std::string frames = f.header;
    // Plain lines, lines with parameters, and a line longer than a read piece.
    const std::string lines[] = {"FRAME\n", "FRAME Ip XA=1\n", "FRAME X" + std::string(5000, 'p') + "\n", "FRAME\n"};
    uint32_t seed = 40;
    for (const std::string& line : lines) frames += line + random_bytes(f.frame, seed++);
    struct Ending {
      std::string tail;
      const char* what;
    };
    const Ending endings[] = {
        {"", "whole frames"},
        {"FRAME\n" + random_bytes(f.frame / 2, 9), "a partial frame"},
        {"FRA", "a FRAME line cut short"},
        {"FRAMEX\n" + random_bytes(f.frame, 9), "a line that is not a FRAME line"},
        {"FRAME " + std::string(70000, 'x'), "a line too long"},
    };
    for (const Ending& e : endings) {
      const std::string input = frames + e.tail;
      write_file(dir.file("in.y4m"), input);
      const Args args = {"--wm-id", "1A2B", "--threads", "0"};
      const RunResult plain = run_tool(cat(args, {"--embed-log", dir.file("log.json")}), input);
      ASSERT_TRUE(plain.status == 0 || plain.status == 1) << plain.err;
      ASSERT_GE(plain.out.size(), 4 * f.frame);
      for (size_t piece : {size_t{0}, size_t{97}, size_t{100003}}) {
        const RunResult streamed = run_tool(args, InputPlan{input, piece, std::chrono::microseconds(0)});
        EXPECT_EQ(streamed.status, plain.status) << e.what << ", piece " << piece;
        EXPECT_EQ(streamed.err, plain.err) << e.what << ", piece " << piece;
        EXPECT_TRUE(streamed.out == plain.out) << f.header << e.what << ", piece " << piece;
      }
      // From a file, as standard input and by name (its chroma spliced).
      const RunResult from_file = run_shell(shell_words(args) + " <'" + dir.file("in.y4m") + "'");
      EXPECT_EQ(from_file.status, plain.status) << e.what;
      EXPECT_TRUE(from_file.out == plain.out) << f.header << e.what << ", from a file";
      const RunResult named = run_tool(cat(args, {"--input-file", dir.file("in.y4m"), "--output-file", dir.file("out.y4m")}));
      EXPECT_EQ(named.err, plain.err) << e.what;
      EXPECT_TRUE(read_file(dir.file("out.y4m")) == plain.out) << f.header << e.what << ", file to file";
    }
  }
}

}  // namespace
}  // namespace lumamark::test
