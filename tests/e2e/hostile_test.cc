// Hostile input through the tool as a process: payload headers with absurd
// geometry, frame sizes whose 32-bit product wraps, extreme widths and
// heights, partial frames, an output that goes away or is full, log paths
// that cannot be written, borders at the 32-bit limit and a 10,000-frame run.
// Every case must end with its message and status, never by a crash, and
// must not put a wrong byte into the output.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

using Args = std::vector<std::string>;

constexpr int32_t kInt32Max = 2147483647;
constexpr size_t kFrame = 64 * 48 * 3 / 2;  // yuv420p 64 x 48
const Args kSmall = {"--width", "64", "--height", "48"};

Args with(Args base, const Args& extra) {
  base.insert(base.end(), extra.begin(), extra.end());
  return base;
}

std::string le32(int32_t v) {
  const uint32_t u = static_cast<uint32_t>(v);
  return std::string{static_cast<char>(u), static_cast<char>(u >> 8), static_cast<char>(u >> 16),
                     static_cast<char>(u >> 24)};
}

std::string header(int32_t width, int32_t height, int32_t sp, int32_t count) {
  return le32(width) + le32(height) + le32(sp) + le32(sp) + le32(count);
}

// Runs a shell command line (bash), for pipelines and redirections.
RunResult run_shell(const std::string& script) { return run_program("/bin/bash", {"-c", script}); }

std::string quoted(const std::string& s) { return "'" + s + "'"; }

// The tool's command line with args, quoted for the shell.
std::string shell_words(const Args& args) {
  std::string command = quoted(LUMAMARK_BIN);
  for (const std::string& word : args) {
    command += ' ';
    command += quoted(word);
  }
  return command;
}

void expect_refused(const RunResult& r, const std::string& err, const std::string& what) {
  EXPECT_TRUE(r.exited(1)) << what << ": status " << r.status << " signal " << r.signal;
  EXPECT_EQ(r.err, err) << what;
  EXPECT_EQ(r.out, "") << what;
}

bool address_sanitized_build() {
#if defined(__SANITIZE_ADDRESS__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

bool thread_sanitized_build() {
#if defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

TEST(HostilePayloadHeader, AbsurdGeometryGetsTheHeaderMessage) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  const std::string frames = random_bytes(2 * kFrame, 1);
  struct Case {
    const char* what;
    std::string file;
    Args extra;
  };
  const Case cases[] = {
      {"negative width", header(-64, 48, 7, 13), {}},
      {"negative height", header(64, -1, 7, 13), {}},
      {"zero superpixel", header(64, 48, 0, 13), {}},
      {"negative superpixel", header(64, 48, -7, 13), {}},
      {"most negative superpixel", header(64, 48, INT32_MIN, 13), {}},
      {"map size beyond 32 bits", header(kInt32Max, kInt32Max, 64, 13), {}},
      {"map size beyond 32 bits, small side", header(kInt32Max, 65536, 5, 13), {}},
      {"negative count, FEC 0", header(64, 48, 7, -1), {"--fec", "0"}},
      {"index table beyond 32 bits, FEC 0", header(64, 48, 7, 1 << 27), {"--fec", "0"}},
      // The superpixel must be more than twice its border: automatic
      // (max(S / 8, 1)) or from --spb-width, compared without wrapping.
      {"side 2, automatic border", header(64, 48, 2, 13), {}},
      {"side 1, automatic border", header(64, 48, 1, 13), {}},
      {"side 6, border 3", header(64, 48, 6, 13), {"--spb-width", "3"}},
      {"side 16, border 8", header(64, 48, 16, 13), {"--sp-width", "17", "--spb-width", "8"}},
      // 2 x 2^30 wraps to a negative number, so the command line's own check
      // passes; the header is still refused.
      {"border 2^30", header(64, 48, 7, 13), {"--spb-width", "1073741824"}},
      {"border 2^31 - 1", header(64, 48, 7, 13), {"--spb-width", "2147483647"}},
  };
  for (const Case& c : cases) {
    write_file(p, c.file + std::string(4096, '\x03'));
    const RunResult r = run_tool(with({"--payload-file", p}, c.extra), frames);
    expect_refused(r, "Failed to read payload header from: " + p + "\n", c.what);
  }

  // Just inside the limits: the file is taken and marks the frames.
  const Case accepted[] = {
      {"side 3, automatic border", header(12, 9, 3, 4) + std::string(12, '\x04'), {}},
      {"side 7, border 3", header(64, 48, 7, 13) + std::string(54, '\x04'), {"--spb-width", "3"}},
  };
  for (const Case& c : accepted) {
    write_file(p, c.file);
    const RunResult r = run_tool(with({"--payload-file", p}, c.extra), frames);
    EXPECT_TRUE(r.exited(0)) << c.what << ": " << r.err;
    EXPECT_EQ(r.err, "") << c.what;
  }
}

TEST(HostilePayloadHeader, HugeOrEmptyAcceptedHeadersEndWithTheirMessages) {
  TempDir dir;
  const std::string p = dir.file("p.lmp");
  const std::string frames = random_bytes(2 * kFrame, 2);

  // One superpixel of 2^31 - 1 pixels: the frame's 32-bit size wraps to 1.
  write_file(p, header(kInt32Max, kInt32Max, kInt32Max, 13) + "\x03");
  expect_refused(run_tool({"--payload-file", p}, frames),
                 "Invalid frame dimensions or pixel format\n", "2^31 - 1 square");

  write_file(p, header(0, 48, 7, 13) + std::string(100, '\x03'));
  expect_refused(run_tool({"--payload-file", p}, frames),
                 "Failed to read payload map from: " + p + "\n", "zero width");

  // A count just below the 32-bit limit of the index table, in a short file.
  write_file(p, header(64, 48, 7, (1 << 27) - 1) + std::string(1000, '\x03'));
  expect_refused(run_tool({"--payload-file", p, "--fec", "0"}, frames),
                 "Failed to read payload indexes from: " + p + "\n", "huge count");
}

TEST(HostileFrameSize, WrappedSizesAreRefusedBeforeAnyFrame) {
  const std::string input(300000, '\x55');
  struct Case {
    Args args;
    std::string err;
  };
  const Case cases[] = {
      // 65536 x 65537 wraps to 65536 pixels: frames of 98304, 131072 or
      // 196608 bytes cannot hold a luma plane of 4 GiB.
      {{"--width", "65536", "--height", "65537", "--sp-width", "64", "--fec", "0"},
       "Invalid frame dimensions or pixel format\n"},
      {{"--width", "65536", "--height", "65537", "--sp-width", "64", "--pix-fmt", "yuv422p"},
       "Invalid frame dimensions or pixel format\n"},
      {{"--width", "65537", "--height", "65536", "--sp-width", "64", "--pix-fmt", "yuv444p"},
       "Invalid frame dimensions or pixel format\n"},
      {{"--width", "65600", "--height", "65600", "--sp-width", "64", "--threads", "3"},
       "Invalid frame dimensions or pixel format\n"},
      // 46340 x 46340 fits, but three halves of it wrap to a smaller size.
      {{"--width", "46340", "--height", "46340", "--sp-width", "64", "--fec", "0"},
       "Invalid frame dimensions or pixel format\n"},
      // 1.75e9 superpixels: refused at once, without generating their payload
      // (FEC 0 keeps the filter's own buffers untouched, so this stays cheap).
      {{"--width", "2147483647", "--height", "2147483647", "--fec", "0"},
       "Invalid frame dimensions or pixel format\n"},
      {{"--width", "2147483647", "--height", "2147483646", "--fec", "0"},
       "Failed to allocate frame buffer of size 18446744071562067974\n"},
      // The refusals keep their order: strength before the allocation.
      {{"--width", "2147483647", "--height", "2147483646", "--fec", "0", "--strength", "0"},
       "Error: --strength must be >= 1\n"},
      // A payload generator failure is still reported first.
      {{"--width", "46341", "--height", "46341", "--sp-width", "64", "--bit-profile", "0"},
       "Failed to generate payload\nFailed to allocate frame buffer of size 18446744071562081868\n"},
  };
  for (const Case& c : cases) {
    // The thread checker zero-fills the gigabyte-sized grid buffers that a
    // plain build never touches; those cases are not about threads.
    if (thread_sanitized_build() && c.args[1] == "2147483647") continue;
    const RunResult r = run_tool(c.args, input);
    expect_refused(r, c.err, testing::PrintToString(c.args));
  }
}

TEST(HostileFrameSize, ExtremeWidthsAndHeights) {
  const std::string input(20000, '\x55');
  const std::string init_failed = "Filter initialization failed! Error code: -1\n";
  const std::string invalid = "Invalid frame dimensions or pixel format\n";
  struct Case {
    const char* width;
    const char* height;
    const std::string& err;
  };
  // A side of 1 holds no superpixel; 65536 x 65536 wraps to a frame of 0
  // bytes; any side of 2^31 - 1 next to 65536 or 2^31 - 1 makes a grid whose
  // 32-bit count is negative, which the filter cannot hold.
  const Case cases[] = {
      {"1", "1", init_failed},          {"1", "65536", init_failed},
      {"65536", "1", init_failed},      {"1", "2147483647", init_failed},
      {"2147483647", "1", init_failed}, {"65536", "65536", invalid},
      {"65536", "2147483647", init_failed}, {"2147483647", "65536", init_failed},
      {"2147483647", "2147483647", init_failed},
  };
  for (const Case& c : cases) {
    const RunResult r =
        run_tool({"--width", c.width, "--height", c.height, "--sp-width", "64"}, input);
    expect_refused(r, c.err, std::string(c.width) + " x " + c.height);
  }
}

// Two frame sizes: small frames go through the plain frame loop, frames of
// 64 KiB and more through the loop that reads ahead and writes behind on
// threads of their own.
struct Geometry {
  const char* width;
  const char* height;
  size_t frame;  // yuv420p bytes
};
constexpr Geometry kGeometries[] = {{"64", "48", kFrame}, {"256", "176", 256 * 176 * 3 / 2}};

Args sized(const Geometry& g, const Args& extra = {}) {
  return with({"--width", g.width, "--height", g.height, "--threads", "2"}, extra);
}

TEST(HostileInput, PartialFramesAreDroppedWholeFramesKept) {
  for (const Geometry& g : kGeometries) {
    const size_t f = g.frame;
    const std::string frames = random_bytes(3 * f, 3);
    const RunResult full = run_tool(sized(g), frames);
    ASSERT_TRUE(full.exited(0)) << full.err;
    ASSERT_EQ(full.out.size(), frames.size());
    struct Case {
      size_t bytes;
      size_t piece;
    };
    for (const Case& c : {Case{1, 0}, Case{f - 1, 0}, Case{f + 1, 0}, Case{3 * f - 1, 777},
                          Case{2 * f + 1, f / 3}}) {
      const RunResult r = run_tool(sized(g), InputPlan{frames.substr(0, c.bytes), c.piece, {}});
      EXPECT_TRUE(r.exited(0)) << g.width << " " << c.bytes;
      EXPECT_EQ(r.err, "") << g.width << " " << c.bytes;
      EXPECT_TRUE(r.out == full.out.substr(0, c.bytes / f * f)) << g.width << " " << c.bytes;
    }
  }
}

TEST(HostileOutput, ReaderThatGoesAwayEndsTheRun) {
  for (const Geometry& g : kGeometries) {
    TempDir dir;
    const std::string in = dir.file("in.yuv");
    write_file(in, random_bytes(40 * g.frame, 4));  // far more than a pipe holds
    const RunResult full = run_tool(sized(g, {"--input-file", in}));
    ASSERT_TRUE(full.exited(0)) << full.err;

    const std::string command = shell_words(sized(g, {"--input-file", in}));
    const std::string pipeline = command + " 2>" + quoted(dir.file("err")) + " | head -c 1000 >" +
                                 quoted(dir.file("head")) + "; echo ${PIPESTATUS[0]} >" +
                                 quoted(dir.file("status"));
    // Like any filter, the tool is ended by SIGPIPE (128 + 13 in the shell).
    ASSERT_TRUE(run_shell(pipeline).exited(0));
    EXPECT_EQ(read_file(dir.file("status")), "141\n") << g.width;
    EXPECT_EQ(read_file(dir.file("err")), "") << g.width;
    EXPECT_EQ(read_file(dir.file("head")), full.out.substr(0, 1000)) << g.width;

    // With SIGPIPE ignored, write results are not examined: the run reads
    // its whole input and ends with status 0, and the reader keeps its prefix.
    ASSERT_TRUE(run_shell("trap '' PIPE; " + pipeline).exited(0));
    EXPECT_EQ(read_file(dir.file("status")), "0\n") << g.width;
    EXPECT_EQ(read_file(dir.file("err")), "") << g.width;
    EXPECT_EQ(read_file(dir.file("head")), full.out.substr(0, 1000)) << g.width;
  }
}

// Write results are not examined: a full device loses the video silently,
// and the status reports only what the tool itself did.
TEST(HostileOutput, FullDeviceIsNotExamined) {
  if (!file_exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  for (const Geometry& g : kGeometries) {
    TempDir dir;
    const std::string in = dir.file("in.yuv");
    write_file(in, random_bytes(3 * g.frame, 5));
    const std::string command = shell_words(sized(g, {"--input-file", in}));
    for (const std::string& c : {command + " --output-file /dev/full", command + " >/dev/full"}) {
      const RunResult r = run_shell(c);
      EXPECT_TRUE(r.exited(0)) << c;
      EXPECT_EQ(r.out + r.err, "") << c;
    }
  }
  const RunResult r = run_tool(with(kSmall, {"--wm-id", "1F", "--payload-file", "/dev/full"}));
  EXPECT_TRUE(r.exited(0));
  EXPECT_EQ(r.out + r.err, "");
}

TEST(HostileLog, UnwritableLogPathIsIgnored) {
  TempDir dir;
  const std::string frames = random_bytes(2 * kFrame, 6);
  const RunResult plain = run_tool(kSmall, frames);
  ASSERT_TRUE(plain.exited(0));
  for (const std::string& log : {dir.file("missing/log.json"), dir.path()}) {
    const RunResult r = run_tool(with(kSmall, {"--embed-log", log, "--threads", "2"}), frames);
    EXPECT_TRUE(r.exited(0)) << log;
    EXPECT_EQ(r.err, "") << log;
    EXPECT_EQ(r.out, plain.out) << log;
  }
  EXPECT_FALSE(file_exists(dir.file("missing")));
}

// Found by fuzzing the filter: twice a border near the 32-bit limit wrapped
// into a small inner size and the measurement read far outside the frame.
TEST(HostileBorder, BorderAtThe32BitLimitLeavesTheFrameUnchanged) {
  TempDir dir;
  const std::string frames = random_bytes(2 * kFrame, 7);
  const std::string log = dir.file("log.json");
  for (const char* border : {"2147483647", "1073741824"}) {
    for (const Args& extra : {Args{"--deep-fake"}, Args{"--embed-log", log}, Args{"--pm-mode", "2"},
                              Args{"--deep-fake", "--pm-mode", "2", "--threads", "3"}}) {
      const RunResult r = run_tool(with(with(kSmall, {"--spb-width", border}), extra), frames);
      const std::string what = std::string(border) + " " + testing::PrintToString(extra);
      EXPECT_TRUE(r.exited(0)) << what << ": status " << r.status << " signal " << r.signal;
      EXPECT_EQ(r.err, "") << what;
      EXPECT_EQ(r.out, frames) << what;  // no superpixel has an inner area
    }
  }
  EXPECT_EQ(read_file(log).substr(0, 10), "{\"stats\": ");
}

// Runs the tool with its streams on files and samples the peak resident
// memory of its own address space (VmHWM) every few milliseconds while it
// runs. Returns the last sample in KiB, or -1 when the run did not end with
// status 0. (The kernel's rusage peak would include the memory of this test
// process, which the child shares until it execs the tool.)
long run_sampling_peak_rss(const Args& args, const std::string& err_path) {
  std::vector<std::string> words{LUMAMARK_BIN};
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  int exec_pipe[2];
  if (::pipe2(exec_pipe, O_CLOEXEC) != 0) return -1;
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int null_fd = ::open("/dev/null", O_RDWR);
    const int err_fd = ::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(null_fd, 0);
    ::dup2(null_fd, 1);
    ::dup2(err_fd, 2);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(exec_pipe[1]);
  // The pipe closes when the child execs (or exits): from then on its
  // address space is the tool's own.
  char byte;
  while (::read(exec_pipe[0], &byte, 1) < 0 && errno == EINTR) {
  }
  ::close(exec_pipe[0]);
  if (pid < 0) return -1;

  long peak = -1;
  const std::string status_path = "/proc/" + std::to_string(pid) + "/status";
  int status = 0;
  for (;;) {
    std::ifstream proc(status_path);
    std::string line;
    while (std::getline(proc, line)) {
      if (line.rfind("VmHWM:", 0) == 0) peak = std::stol(line.substr(6));
    }
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
  return peak;
}

TEST(HostileLongRun, TenThousandFramesKeepMemoryFlatAndEveryByteRight) {
  TempDir dir;
  constexpr int kW = 48, kH = 32;
  constexpr size_t kSize = kW * kH * 3 / 2;
  constexpr int kDistinct = 7;
  constexpr int kFrames = 10000;
  const Args settings = {"--width", "48", "--height", "32", "--threads", "2", "--embed-log",
                         dir.file("log.json")};

  // The input cycles through seven pictures, so the expected output is the
  // cycle of their seven marked frames.
  const std::string base = random_bytes(kDistinct * kSize, 8);
  const RunResult marked = run_tool(settings, base);
  ASSERT_TRUE(marked.exited(0)) << marked.err;
  std::string input, expected;
  input.reserve(kFrames * kSize);
  expected.reserve(kFrames * kSize);
  for (int f = 0; f < kFrames; ++f) {
    input.append(base, (f % kDistinct) * kSize, kSize);
    expected.append(marked.out, (f % kDistinct) * kSize, kSize);
  }
  write_file(dir.file("short.yuv"), input.substr(0, kFrames / 10 * kSize));
  write_file(dir.file("long.yuv"), input);
  input.clear();
  input.shrink_to_fit();

  const long short_rss = run_sampling_peak_rss(
      with(settings, {"--input-file", dir.file("short.yuv"), "--output-file", dir.file("s.yuv")}),
      dir.file("err"));
  ASSERT_GT(short_rss, 0) << read_file(dir.file("err"));
  const long long_rss = run_sampling_peak_rss(
      with(settings, {"--input-file", dir.file("long.yuv"), "--output-file", dir.file("l.yuv")}),
      dir.file("err"));
  ASSERT_GT(long_rss, 0) << read_file(dir.file("err"));
  EXPECT_EQ(read_file(dir.file("err")), "");
  EXPECT_TRUE(read_file(dir.file("l.yuv")) == expected) << "the 10,000-frame output differs";

  // The log describes the last frame alone.
  const std::string long_log = read_file(dir.file("log.json"));
  const RunResult last =
      run_tool(settings, base.substr(((kFrames - 1) % kDistinct) * kSize, kSize));
  ASSERT_TRUE(last.exited(0));
  EXPECT_EQ(long_log, read_file(dir.file("log.json")));

  // A sanitizer's allocator keeps freed memory in quarantine, so only a
  // plain build shows the tool's own footprint.
  if (!address_sanitized_build() && !thread_sanitized_build()) {
    EXPECT_LT(long_rss - short_rss, 1024) << "peak KiB: 1,000 frames " << short_rss
                                          << ", 10,000 frames " << long_rss;
  }
}

// Frames of 64 KiB and more are read ahead and written behind on threads of
// their own; that loop must not grow either. The input is sparse files of
// black frames, which take no disk space.
TEST(HostileLongRun, LargeFramesStreamedOnThreadsKeepMemoryFlat) {
  TempDir dir;
  const Geometry& g = kGeometries[1];
  long peak[2] = {0, 0};
  const int frames[2] = {300, 3000};
  for (int i = 0; i < 2; ++i) {
    const std::string in = dir.file("black" + std::to_string(i) + ".yuv");
    write_file(in, "");
    ASSERT_EQ(::truncate(in.c_str(), static_cast<off_t>(frames[i] * g.frame)), 0);
    peak[i] = run_sampling_peak_rss(sized(g, {"--input-file", in, "--output-file", "/dev/null"}),
                                    dir.file("err"));
    ASSERT_GT(peak[i], 0) << read_file(dir.file("err"));
    EXPECT_EQ(read_file(dir.file("err")), "");
  }
  if (!address_sanitized_build() && !thread_sanitized_build()) {
    EXPECT_LT(peak[1] - peak[0], 1024) << "peak KiB: 300 frames " << peak[0] << ", 3,000 frames "
                                       << peak[1];
  }
}

}  // namespace
}  // namespace lumamark::test
