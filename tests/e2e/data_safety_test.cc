// Nothing the user owns is lost: an output or log that names the input (or
// each other) is refused before anything is written, a payload file is
// replaced only by a complete one, and SIGINT or SIGTERM ends a run on a
// frame boundary with the signal's own status.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "e2e/e2e_util.h"

namespace lumamark::test {
namespace {

const Args kSmall = {"--width", "64", "--height", "48"};
constexpr size_t kSmallFrame = 64 * 48 * 3 / 2;

// Every name in dir, sorted.
std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(DataSafety, OutputOrLogNamingTheInputIsRefused) {
  TempDir dir;
  const std::string in = dir.file("in.yuv"), out = dir.file("out.yuv"), log = dir.file("log.json");
  const std::string video = random_bytes(2 * kSmallFrame, 1), old_out = "old output";
  ASSERT_EQ(::symlink(in.c_str(), dir.file("in-link.yuv").c_str()), 0);
  const std::string same_out = "Error: --output-file names the input file: ";
  const std::string log_in = "Error: --embed-log names the input file: ";
  const std::string log_out = "Error: --embed-log names the output file: ";
  struct Case {
    Args args;
    std::string redirect;  // shell redirections of the run, if any
    std::string err;
  };
  const std::string from_in = " <'" + in + "'", append_in = " >>'" + in + "'";
  const Case cases[] = {
      {{"--input-file", in, "--output-file", in}, "", same_out + in},
      {{"--input-file", in, "--output-file", dir.file("in-link.yuv")}, "", same_out + dir.file("in-link.yuv")},
      {{"--input-file", dir.file("in-link.yuv"), "--output-file", dir.file("in-hard.yuv")}, "",
       same_out + dir.file("in-hard.yuv")},
      {{"--output-file", in}, from_in, same_out + in},
      // Appending to the input would feed the run its own output.
      {{"--input-file", in}, append_in, "Error: the standard output is the input file"},
      {{"--input-file", in, "--output-file", out, "--embed-log", dir.file("in-link.yuv")}, "",
       log_in + dir.file("in-link.yuv")},
      {{"--embed-log", in, "--output-file", out}, from_in, log_in + in},
      {{"--input-file", in, "--output-file", out, "--embed-log", out}, "", log_out + out},
      // An output that does not exist yet is created, found to be the log,
      // and removed again.
      {{"--input-file", in, "--output-file", log, "--embed-log", log}, "", log_out + log},
  };
  for (const Case& c : cases) {
    write_file(in, video);
    ::unlink(dir.file("in-hard.yuv").c_str());
    ASSERT_EQ(::link(in.c_str(), dir.file("in-hard.yuv").c_str()), 0);
    write_file(out, old_out);
    ::unlink(log.c_str());
    const std::string what = testing::PrintToString(c.args);
    RunResult r;
    if (!c.redirect.empty()) {
      r = run_shell(shell_words(cat(kSmall, c.args)) + c.redirect);
    } else {
      r = run_tool(cat(kSmall, c.args));
    }
    EXPECT_TRUE(r.exited(1)) << what << ": status " << r.status << " signal " << r.signal;
    EXPECT_EQ(r.err, c.err + "\n") << what;
    EXPECT_EQ(r.out, "") << what;
    EXPECT_TRUE(read_file(in) == video) << what;
    EXPECT_TRUE(read_file(out) == old_out) << what;
    EXPECT_FALSE(file_exists(log)) << what;
  }
  // A y4m input is protected the same way.
  const std::string y4m_in = dir.file("in.y4m"), y4m = "YUV4MPEG2 W64 H48 C420jpeg\nFRAME\n" + video.substr(0, kSmallFrame);
  write_file(y4m_in, y4m);
  const RunResult y = run_tool({"--wm-id", "5", "--input-file", y4m_in, "--output-file", y4m_in});
  EXPECT_TRUE(y.exited(1));
  EXPECT_EQ(y.err, same_out + y4m_in + "\n");
  EXPECT_TRUE(read_file(y4m_in) == y4m);
  // Earlier refusals keep their place: a missing input is reported as such.
  const RunResult missing = run_tool(cat(kSmall, {"--input-file", dir.file("no.yuv"), "--output-file", dir.file("no.yuv")}));
  EXPECT_TRUE(missing.exited(1));
  EXPECT_EQ(missing.err, "Error opening input file: " + dir.file("no.yuv") + "\n");
  // Devices are not files that can be lost: the same one on both sides runs.
  const RunResult null = run_tool(cat(kSmall, {"--input-file", "/dev/null", "--output-file", "/dev/null",
                                               "--embed-log", "/dev/null"}));
  EXPECT_TRUE(null.exited(0)) << null.err;
  EXPECT_EQ(null.out + null.err, "");
}

TEST(DataSafety, OutputOrLogNamingThePayloadFileIsRefused) {
  TempDir dir;
  const std::string pay = dir.file("p.bin");
  ASSERT_TRUE(run_tool(cat(kSmall, {"--wm-id", "1", "--payload-file", pay})).exited(0));
  const std::string saved = read_file(pay);
  for (const char* option : {"--embed-log", "--output-file"}) {
    const RunResult r = run_tool({"--payload-file", pay, option, pay}, random_bytes(kSmallFrame, 2));
    EXPECT_TRUE(r.exited(1)) << option;
    EXPECT_EQ(r.err, "Error: " + std::string(option) + " names the payload file: " + pay + "\n");
    EXPECT_TRUE(read_file(pay) == saved) << option;
  }
}

TEST(DataSafety, PayloadFileIsReplacedOnlyByACompleteOne) {
  TempDir dir;
  const std::string good = dir.file("good.bin"), fresh = dir.file("fresh.bin");
  const Args save = cat(kSmall, {"--wm-id", "1", "--payload-file"});
  ASSERT_TRUE(run_tool(cat(save, {good})).exited(0));
  const std::string saved = read_file(good);
  ASSERT_EQ(saved.size(), 20u + (64 / 7) * (48 / 7));
  // A write that fails (a file-size limit here) leaves the old file whole,
  // with the documented status 0, and no temporary file behind.
  const std::string limited = "(trap '' XFSZ; ulimit -f 0; " + shell_words(cat(save, {good})) +
                              " --wm-id 2); echo $? >'" + dir.file("status") + "'";
  ASSERT_TRUE(run_shell(limited).exited(0));
  EXPECT_EQ(read_file(dir.file("status")), "0\n");
  EXPECT_TRUE(read_file(good) == saved);
  ::unlink(dir.file("status").c_str());
  EXPECT_EQ(names_in(dir.path), std::vector<std::string>{"good.bin"});

  // A new file is created like any other (0666 less the umask); a file that
  // is replaced keeps its mode; a symbolic link stays a link and its target
  // gets the new payload.
  ASSERT_TRUE(run_shell("umask 027; " + shell_words(cat(save, {fresh}))).exited(0));
  struct stat st;
  ASSERT_EQ(::stat(fresh.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  ASSERT_EQ(::chmod(good.c_str(), 0604), 0);
  ASSERT_EQ(::symlink("good.bin", dir.file("link.bin").c_str()), 0);
  ASSERT_TRUE(run_tool(cat(save, {dir.file("link.bin"), "--wm-id", "7"})).exited(0));
  ASSERT_EQ(::lstat(dir.file("link.bin").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  ASSERT_EQ(::stat(good.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0604u);
  ASSERT_TRUE(run_tool(cat(save, {fresh, "--wm-id", "7"})).exited(0));
  EXPECT_TRUE(read_file(good) == read_file(fresh));
  EXPECT_FALSE(read_file(good) == saved);
  EXPECT_EQ(names_in(dir.path), (std::vector<std::string>{"fresh.bin", "good.bin", "link.bin"}));
  // A path that cannot be created keeps its message.
  const RunResult r = run_tool(cat(save, {dir.file("missing/p.bin")}));
  EXPECT_TRUE(r.exited(1));
  EXPECT_EQ(r.err, "Error opening payload file: " + dir.file("missing/p.bin") + "\n");
}

// A regular output that fills up (a file-size limit here) keeps whole frames
// only: the frame cut short is taken back off the file. The status stays 0,
// as for every write error.
TEST(DataSafety, FullRegularOutputKeepsWholeFrames) {
  TempDir dir;
  struct Case {
    Args args;
    size_t frame;
    int limit_kib;
  };
  const Case cases[] = {{kSmall, kSmallFrame, 10}, {{"--width", "256", "--height", "176"}, 256 * 176 * 3 / 2, 100}};
  for (const Case& c : cases) {
    const std::string in = dir.file("in.yuv"), out = dir.file("out.yuv");
    write_file(in, random_bytes(4 * c.frame, 5));
    const RunResult full = run_tool(cat(c.args, {"--input-file", in}));
    ASSERT_TRUE(full.exited(0));
    const std::string limited = "(trap '' XFSZ; ulimit -f " + std::to_string(c.limit_kib) + "; " +
                                shell_words(cat(c.args, {"--input-file", in, "--output-file", out})) + ")";
    const RunResult r = run_shell(limited);
    EXPECT_TRUE(r.exited(0)) << r.err;
    const std::string got = read_file(out);
    EXPECT_EQ(got.size(), c.limit_kib * 1024 / c.frame * c.frame);
    EXPECT_TRUE(got == full.out.substr(0, got.size()));
  }
}

// Starts the tool with args and its standard output in out_path, feeds it
// the bytes of feed through a pipe that then stays open (a producer that is
// slow to send more), waits until it has taken them all and had time to
// mark every whole frame among them, then sends sig and waits for its end.
RunResult interrupt_run(const Args& args, const std::string& feed, const std::string& out_path, int sig) {
  int in[2];
  if (::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  const int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  Args words = cat(tool_words(LUMAMARK_BIN), args);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) {
    // The run is stopped by the signal alone, whatever the test inherited.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    ::signal(SIGPIPE, SIG_DFL);
    ::dup2(in[0], 0);
    ::dup2(out, 1);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(out);
  std::thread writer([&] {
    for (size_t pos = 0; pos < feed.size();) {
      const ssize_t n = ::write(in[1], feed.data() + pos, feed.size() - pos);
      if (n > 0) pos += static_cast<size_t>(n);
      else if (errno != EINTR) break;
    }
  });
  writer.join();
  // The read end is still open here: it tells how much is not yet taken.
  for (int unread = 1, i = 0; unread > 0 && i < 20000; ++i) {
    if (::ioctl(in[0], FIONREAD, &unread) != 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  ::kill(pid, sig);
  int ws = 0;
  while (::waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
  }
  ::close(in[0]);
  ::close(in[1]);
  RunResult r;
  if (WIFEXITED(ws)) r.status = WEXITSTATUS(ws);
  if (WIFSIGNALED(ws)) r.signal = WTERMSIG(ws);
  r.out = read_file(out_path);
  return r;
}

TEST(DataSafety, SignalEndsTheRunOnAFrameBoundary) {
  TempDir dir;
  // The plain loop (small frames, and any run with a log) and the loop that
  // reads ahead and writes behind (frames of 64 KiB and more).
  struct Case {
    Args args;
    size_t frame;
    int sig;
    bool output_file;
  };
  const Args large = {"--width", "256", "--height", "176"};
  const Case cases[] = {
      {kSmall, kSmallFrame, SIGTERM, false},
      {kSmall, kSmallFrame, SIGINT, true},
      {cat(kSmall, {"--embed-log", dir.file("log.json")}), kSmallFrame, SIGTERM, true},
      {large, 256 * 176 * 3 / 2, SIGINT, false},
      {cat(large, {"--embed-log", dir.file("log2.json")}), 256 * 176 * 3 / 2, SIGTERM, true},
  };
  for (const Case& c : cases) {
    const std::string video = random_bytes(3 * c.frame, 3);
    const RunResult full = run_tool(c.args, video);
    ASSERT_TRUE(full.exited(0)) << full.err;
    // Two frames and a half; the rest never comes.
    const std::string feed = video.substr(0, 2 * c.frame + c.frame / 2);
    const std::string out = dir.file("out.yuv");
    Args args = c.args;
    if (c.output_file) args = cat(args, {"--output-file", dir.file("named.yuv")});
    RunResult r = interrupt_run(args, feed, out, c.sig);
    if (c.output_file) r.out = read_file(dir.file("named.yuv"));
    const std::string what = testing::PrintToString(c.args) + " signal " + std::to_string(c.sig);
    EXPECT_EQ(r.signal, c.sig) << what << ": status " << r.status;
    EXPECT_EQ(r.out.size(), 2 * c.frame) << what;
    EXPECT_TRUE(r.out == full.out.substr(0, 2 * c.frame)) << what;
  }
  // y4m: the header and two whole FRAME records, then half a frame; small
  // frames in the plain loop, large ones read ahead and written behind.
  for (const auto& [w, h] : {std::pair{64, 48}, std::pair{256, 176}}) {
    const size_t frame = static_cast<size_t>(w * h * 3 / 2);
    const std::string head = "YUV4MPEG2 W" + std::to_string(w) + " H" + std::to_string(h) + " F25:1 C420jpeg\n";
    const std::string frame_line = "FRAME\n";
    std::string y4m = head;
    for (int f = 0; f < 3; ++f) y4m += frame_line + random_bytes(frame, 10 + f);
    const RunResult full = run_tool({"--wm-id", "5"}, y4m);
    ASSERT_TRUE(full.exited(0)) << full.err;
    const size_t record = frame_line.size() + frame;
    const RunResult r = interrupt_run({"--wm-id", "5"}, y4m.substr(0, head.size() + 2 * record + frame / 2),
                                      dir.file("out.y4m"), SIGTERM);
    EXPECT_EQ(r.signal, SIGTERM) << "y4m " << w << "x" << h << ": status " << r.status;
    EXPECT_EQ(r.out.size(), head.size() + 2 * record) << "y4m " << w << "x" << h;
    EXPECT_TRUE(r.out == full.out.substr(0, head.size() + 2 * record)) << "y4m " << w << "x" << h;
  }
}

}  // namespace
}  // namespace lumamark::test
