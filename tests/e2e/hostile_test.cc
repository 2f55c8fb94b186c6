// Hostile input through the tool as a process: frame sizes whose 32-bit
// product wraps, extreme sides and payload headers, refusals in their order,
// partial frames and frames in pieces, an output that goes away or is full,
// log paths that cannot be written, borders at the 32-bit limit, and long
// runs whose memory must stay flat. Every case ends with its message and
// status, never by a crash, and puts no wrong byte into the output.
#include <gtest/gtest.h>

#include <string>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

#if defined(__has_feature)
#define LUMAMARK_HAS_FEATURE(x) __has_feature(x)
#else
#define LUMAMARK_HAS_FEATURE(x) 0
#endif
#if defined(__SANITIZE_THREAD__) || LUMAMARK_HAS_FEATURE(thread_sanitizer)
constexpr bool kThreadChecker = true, kSanitizer = true;
#elif defined(__SANITIZE_ADDRESS__) || LUMAMARK_HAS_FEATURE(address_sanitizer)
constexpr bool kThreadChecker = false, kSanitizer = true;
#else
constexpr bool kThreadChecker = false, kSanitizer = false;
#endif

constexpr int32_t kMax = 2147483647;
const std::string kInvalid = "Invalid frame dimensions or pixel format\n";
const std::string kInitFailed = "Filter initialization failed! Error code: -1\n";

void expect_refused(const RunResult& r, const std::string& out, const std::string& err,
                    const std::string& what) {
  EXPECT_TRUE(r.exited(1)) << what << ": status " << r.status << " signal " << r.signal;
  EXPECT_EQ(r.out, out) << what;
  EXPECT_EQ(r.err, err) << what;
}

TEST(Hostile, RefusalsBeforeAnyFrameInTheirOrder) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  struct Case {
    Args args;
    std::string out, err;
  };
  const Case cases[] = {
      // The filter judges its settings (printing its reason on standard
      // output) before the pixel format; the pixel format comes before the
      // strength, the strength before the density.
      {{"--pm-mode", "4", "--pix-fmt", "nv12"}, "Error: PM mode 4 is not supported\n",
       "Filter initialization failed! Error code: -7\n"},
      {{"--pix-fmt", "nv12", "--strength", "0"}, "", kInvalid},
      {{"--strength", "0", "--sp-density", "101"}, "", "Error: --strength must be >= 1\n"},
      // 65536 x 65536 x 3 wraps to 0; 65536 x 65537 to 65536 pixels, whose
      // frames of 98304 bytes cannot hold a 4 GiB luma plane; three halves of
      // 46340 x 46340 wrap to less than the plane.
      {{"--width", "65536", "--height", "65536", "--sp-width", "64", "--pix-fmt", "yuv444p"}, "", kInvalid},
      {{"--width", "65536", "--height", "65537", "--sp-width", "64", "--fec", "0"}, "", kInvalid},
      {{"--width", "46340", "--height", "46340", "--sp-width", "64", "--fec", "0"}, "", kInvalid},
      // Negative 32-bit sizes fail the allocation of twice their unsigned value.
      {{"--width", "32768", "--height", "32768", "--sp-width", "64", "--fec", "0", "--pix-fmt", "yuv444p"}, "",
       "Failed to allocate frame buffer of size 18446744071562067968\n"},
      {{"--width", "2147483647", "--height", "2147483646", "--fec", "0"}, "",
       "Failed to allocate frame buffer of size 18446744071562067974\n"},
      {{"--width", "2147483647", "--height", "2147483646", "--fec", "0", "--strength", "0"}, "",
       "Error: --strength must be >= 1\n"},
      // 1.75e9 superpixels are refused at once, without generating their
      // payload (FEC 0 leaves the filter's grid buffers untouched: cheap).
      {{"--width", "2147483647", "--height", "2147483647", "--fec", "0"}, "", kInvalid},
      // A payload generator failure is still reported first.
      {{"--width", "46341", "--height", "46341", "--sp-width", "64", "--bit-profile", "0"}, "",
       "Failed to generate payload\nFailed to allocate frame buffer of size 18446744071562081868\n"},
      // No whole superpixel, or a grid whose 32-bit count is negative.
      {{"--width", "1", "--height", "1"}, "", kInitFailed},
      {{"--width", "65536", "--height", "2147483647", "--sp-width", "64"}, "", kInitFailed},
  };
  for (const Case& c : cases) {
    if (kThreadChecker && c.args.size() > 1 && c.args[1] == "2147483647") continue;  // it zero-fills the grid
    const Args args = cat({"--width", "64", "--height", "48"}, c.args);
    expect_refused(run_tool(args, std::string(300000, 'U')), c.out, c.err, testing::PrintToString(args));
  }
  // A payload header of one 2^31 - 1 superpixel: the frame wraps to 1 byte.
  write_file(p, header(kMax, kMax, kMax, kMax, 13) + "\x03");
  expect_refused(run_tool({"--payload-file", p}, "UUUU"), "", kInvalid, "2^31 - 1 square");
}

// Small frames go through the plain frame loop, frames of 64 KiB and more
// through the loop that reads ahead and writes behind on threads of its own.
struct Geometry {
  const char* width;
  const char* height;
  size_t frame;  // yuv420p bytes
};
constexpr Geometry kGeometries[] = {{"64", "48", 64 * 48 * 3 / 2}, {"256", "176", 256 * 176 * 3 / 2}};

Args sized(const Geometry& g, const Args& extra = {}) {
  return cat({"--width", g.width, "--height", g.height, "--threads", "2"}, extra);
}

TEST(Hostile, PartialFramesDroppedAndFramesInPiecesJoined) {
  for (const Geometry& g : kGeometries) {
    const size_t f = g.frame;
    const std::string frames = random_bytes(3 * f, 3);
    const RunResult full = run_tool(sized(g), frames);
    ASSERT_TRUE(full.exited(0)) << full.err;
    ASSERT_EQ(full.out.size(), frames.size());
    EXPECT_NE(full.out, frames);
    struct Case {
      size_t bytes, piece, delay_us;
    };
    for (const Case& c : {Case{0, 0, 0}, Case{1, 0, 0}, Case{f - 1, 0, 0}, Case{f + 1, 0, 0},
                          Case{3 * f - 1, 777, 0}, Case{3 * f, f / 3, 2000}, Case{2 * f + 1, f / 2 + 1, 1000}}) {
      const RunResult r = run_tool(sized(g), InputPlan{frames.substr(0, c.bytes), c.piece,
                                                       std::chrono::microseconds(c.delay_us)});
      const std::string what = std::string(g.width) + " " + std::to_string(c.bytes);
      EXPECT_TRUE(r.exited(0)) << what;
      EXPECT_EQ(r.err, "") << what;
      EXPECT_TRUE(r.out == full.out.substr(0, c.bytes / f * f)) << what;
    }
  }
}

// Write results are not examined: a full device loses the video silently,
// and a reader that goes away ends the run only through SIGPIPE.
TEST(Hostile, OutputThatGoesAwayOrIsFull) {
  for (const Geometry& g : kGeometries) {
    TempDir dir;
    const std::string in = dir.file("in.yuv");
    write_file(in, random_bytes(40 * g.frame, 4));  // far more than a pipe holds
    const RunResult full = run_tool(sized(g, {"--input-file", in}));
    ASSERT_TRUE(full.exited(0)) << full.err;
    const std::string command = shell_words(sized(g, {"--input-file", in}));
    const std::string pipeline = command + " 2>'" + dir.file("err") + "' | head -c 1000 >'" +
                                 dir.file("head") + "'; echo ${PIPESTATUS[0]} >'" + dir.file("status") + "'";
    // Like any filter, the tool is ended by SIGPIPE (128 + 13 in the shell);
    // with SIGPIPE ignored it reads its whole input and ends with status 0.
    for (const char* trap : {"", "trap '' PIPE; "}) {
      ASSERT_TRUE(run_shell(trap + pipeline).exited(0));
      EXPECT_EQ(read_file(dir.file("status")), *trap ? "0\n" : "141\n") << g.width;
      EXPECT_EQ(read_file(dir.file("err")), "") << g.width;
      EXPECT_EQ(read_file(dir.file("head")), full.out.substr(0, 1000)) << g.width;
    }
    if (!file_exists("/dev/full")) continue;
    for (const std::string& c : {command + " --output-file /dev/full", command + " >/dev/full"}) {
      const RunResult r = run_shell(c);
      EXPECT_TRUE(r.exited(0)) << c;
      EXPECT_EQ(r.out + r.err, "") << c;
    }
  }
  if (!file_exists("/dev/full")) return;
  const RunResult r = run_tool({"--width", "64", "--height", "48", "--wm-id", "1F", "--payload-file", "/dev/full"});
  EXPECT_TRUE(r.exited(0));
  EXPECT_EQ(r.out + r.err, "");
}

TEST(Hostile, UnwritableLogPathIsIgnored) {
  TempDir dir;
  const std::string frames = random_bytes(2 * kGeometries[0].frame, 6);
  const RunResult plain = run_tool(sized(kGeometries[0]), frames);
  ASSERT_TRUE(plain.exited(0));
  for (const std::string& log : {dir.file("missing/log.json"), dir.path}) {
    const RunResult r = run_tool(sized(kGeometries[0], {"--embed-log", log}), frames);
    EXPECT_TRUE(r.exited(0)) << log;
    EXPECT_EQ(r.err, "") << log;
    EXPECT_EQ(r.out, plain.out) << log;
  }
  EXPECT_FALSE(file_exists(dir.file("missing")));
}

// Found by fuzzing: twice a border near the 32-bit limit wrapped into a small
// inner size and the measurement read far outside the frame. No superpixel
// has an inner area, so nothing may change.
TEST(Hostile, BorderAtThe32BitLimitLeavesTheFrameUnchanged) {
  TempDir dir;
  const std::string frames = random_bytes(2 * kGeometries[0].frame, 7), log = dir.file("log.json");
  for (const char* border : {"2147483647", "1073741824"}) {
    for (const Args& extra : {Args{"--deep-fake"}, Args{"--embed-log", log}, Args{"--pm-mode", "2"},
                              Args{"--deep-fake", "--pm-mode", "2", "--threads", "3"}}) {
      const RunResult r = run_tool(cat({"--width", "64", "--height", "48", "--spb-width", border}, extra), frames);
      const std::string what = std::string(border) + " " + testing::PrintToString(extra);
      EXPECT_TRUE(r.exited(0)) << what << ": status " << r.status << " signal " << r.signal;
      EXPECT_EQ(r.err, "") << what;
      EXPECT_EQ(r.out, frames) << what;
    }
  }
  EXPECT_EQ(read_file(log).substr(0, 10), "{\"stats\": ");
}

// 10,000 tiny frames with a log through the plain loop (every byte checked,
// the log describing the last frame alone), and black 256 x 176 frames
// through the threaded loop: ten times the frames must not raise the peak.
TEST(Hostile, LongRunsKeepMemoryFlat) {
  TempDir dir;
  // The log is rewritten for every frame: a memory-backed directory saves disk time.
  TempDir shm_dir(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "");
  constexpr size_t kSize = 32 * 24 * 3 / 2;
  constexpr int kDistinct = 7, kFrames = 10000;
  const Args tiny = {"--width", "32", "--height", "24", "--sp-width", "5", "--threads", "2",
                     "--embed-log", shm_dir.file("log.json")};
  // The input cycles through seven pictures, the output through their marks.
  const std::string base = random_bytes(kDistinct * kSize, 8);
  const RunResult marked = run_tool(tiny, base);
  ASSERT_TRUE(marked.exited(0)) << marked.err;
  std::string input;
  for (int f = 0; f < kFrames; ++f) input.append(base, (f % kDistinct) * kSize, kSize);
  long peak[2][2] = {{-1, -1}, {-1, -1}};
  for (int i = 0; i < 2; ++i) {
    write_file(dir.file("in.yuv"), input.substr(0, (i ? kFrames : kFrames / 10) * kSize));
    const RunResult r = run_program(LUMAMARK_BIN, cat(tiny, {"--input-file", dir.file("in.yuv")}), {}, &peak[0][i]);
    ASSERT_TRUE(r.exited(0) && r.err.empty()) << r.err;
    for (int f = 0; f < (i ? kFrames : 0); ++f)
      ASSERT_EQ(r.out.compare(f * kSize, kSize, marked.out, (f % kDistinct) * kSize, kSize), 0) << "frame " << f;
  }
  const std::string long_log = read_file(shm_dir.file("log.json"));
  ASSERT_TRUE(run_tool(tiny, base.substr(((kFrames - 1) % kDistinct) * kSize, kSize)).exited(0));
  EXPECT_TRUE(long_log == read_file(shm_dir.file("log.json"))) << "the log must describe the last frame alone";

  // Sparse files of black frames take no disk space.
  const Geometry& g = kGeometries[1];
  for (int i = 0; i < 2; ++i) {
    write_file(dir.file("black.yuv"), "");
    ASSERT_EQ(::truncate(dir.file("black.yuv").c_str(), off_t((i ? 1500 : 150) * g.frame)), 0);
    const Args args = sized(g, {"--input-file", dir.file("black.yuv"), "--output-file", "/dev/null"});
    ASSERT_TRUE(run_program(LUMAMARK_BIN, args, {}, &peak[1][i]).exited(0));
  }
  // A sanitizer's allocator keeps freed memory in quarantine.
  for (const auto& p : peak) {
    EXPECT_GT(p[0], 0);
    if (kSanitizer) continue;
    EXPECT_LT(p[1] - p[0], 1024) << "peak KiB: " << p[0] << " then " << p[1];
  }
}

#ifdef LUMAMARK_DETECT_BIN
// The detector's tables grow with the superpixel count, its frame buffer with
// the frame: a grid past the documented limit is refused before anything is
// read, and a frame far larger than the input costs only the input's size.
TEST(Hostile, DetectorSizesStayBounded) {
  const std::string twenty_mb(20 << 20, 'U');
  struct Case {
    Args args;
    int status;
    std::string err;
    long max_kib;  // peak resident size
  };
  const Case cases[] = {
      {{"--width", "65536", "--height", "65536"}, 1,
       "Error: the frame has 87647044 superpixels; at most 4194304 are supported\n", 64 << 10},
      // 65536 superpixels, a 402 MB frame, 20 MB of input.
      {{"--width", "16384", "--height", "16384", "--sp-width", "64"}, 1,
       "Error: The input holds no complete frame of 16384x16384 yuv420p\n", 96 << 10},
  };
  for (const Case& c : cases) {
    long peak = -1;
    const RunResult r = run_program(LUMAMARK_DETECT_BIN, c.args, InputPlan{twenty_mb}, &peak);
    const std::string what = testing::PrintToString(c.args);
    EXPECT_TRUE(r.exited(c.status)) << what << ": " << r.status << " " << r.signal;
    EXPECT_EQ(r.err, c.err) << what;
    if (!kSanitizer) {
      EXPECT_LT(peak, c.max_kib) << what;
    }
  }
  // Twice a border near the 32-bit limit wraps as in the embedder: such a
  // border leaves no inner area, so no superpixel carries anything.
  const RunResult r = run_program(LUMAMARK_DETECT_BIN, {"--width", "640", "--height", "360", "--spb-width", "1073741824"},
                                  InputPlan{random_bytes(640 * 360 * 3 / 2, 9)});
  EXPECT_TRUE(r.exited(2)) << r.status << " " << r.signal << " " << r.err;
  EXPECT_EQ(r.out.rfind("No watermark detected (z 0.00 from 1 frame)", 0), 0u) << r.out;
}
#endif

}  // namespace
}  // namespace lumamark::test
