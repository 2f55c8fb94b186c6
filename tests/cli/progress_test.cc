#include "cli/progress.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace lumamark {
namespace {

int64_t g_now = 0;
int64_t fake_clock() { return g_now; }

// Captures what a Progress writes through a memory stream, on a fake clock.
TEST(Progress, RedrawsAtMostOncePerIntervalPadsAndErasesOnce) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  ASSERT_NE(out, nullptr);
  auto text = [&] {
    std::fflush(out);
    return std::string(buf, len);
  };
  Progress(out, true, fake_clock).frame_done(100);  // finished when destroyed
  EXPECT_EQ(text(), "") << "a run shorter than the interval leaves nothing behind";

  Progress p(out, true, fake_clock);
  g_now += 100'000'000;  // 0.1 s
  for (int i = 0; i < 99; ++i) p.frame_done(10'000'000);
  EXPECT_EQ(text(), "") << "no line before the first interval has passed";
  g_now += 900'000'000;  // 1 s, 100 frames of 10 MB
  p.frame_done(10'000'000);
  const std::string first = "\r100 frames  100.0 fps  1000.0 MB/s  1.0 s";
  EXPECT_EQ(text(), first);
  g_now += Progress::kInterval - 1;
  p.frame_done(0);
  EXPECT_EQ(text(), first) << "redrawn too soon";
  g_now += 99'000'000'001 - Progress::kInterval;  // 100 s in all: a shorter line, padded
  p.frame_done(0);
  const std::string second = "\r102 frames  1.0 fps  10.0 MB/s  100.0 s";
  const std::string padded = first + second + std::string(first.size() - second.size(), ' ');
  EXPECT_EQ(text(), padded);
  p.finish();
  const std::string erased = padded + "\r" + std::string(first.size() - 1, ' ') + "\r";
  EXPECT_EQ(text(), erased);
  g_now += 10 * Progress::kInterval;
  p.frame_done(1'000'000);
  p.finish();
  EXPECT_EQ(text(), erased) << "nothing may follow finish";
  std::fclose(out);
  std::free(buf);
}

// The default constructor enables itself only when standard error is a terminal.
TEST(Progress, FollowsWhetherStandardErrorIsATerminal) {
  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  std::FILE* file = std::tmpfile();
  const int saved = dup(STDERR_FILENO);
  std::fflush(stderr);
  std::vector<bool> enabled;
  for (int fd : {slave, fileno(file)}) {
    dup2(fd, STDERR_FILENO);
    enabled.push_back(Progress().enabled());
  }
  dup2(saved, STDERR_FILENO);
  for (int fd : {saved, slave, master}) close(fd);
  std::fclose(file);
  EXPECT_EQ(enabled, std::vector<bool>({true, false}));
}

// The summary replaces the drawn line (padded over it) and ends the line;
// nothing follows it, and a disabled progress writes no summary.
TEST(Progress, ReplacesTheLineAndEndsIt) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  ASSERT_NE(out, nullptr);
  {
    Progress p(out, true, fake_clock);
    for (int i = 0; i < 35; ++i) p.frame_done(3'110'400);
    g_now += 2'000'000'000;
    p.frame_done(3'110'400);  // drawn: the interval has passed
    p.summarize();
    p.frame_done(1);
    p.finish();
  }
  Progress(out, false, fake_clock).summarize();
  std::fflush(out);
  const std::string line = "\r36 frames  18.0 fps  56.0 MB/s  2.0 s";
  const std::string summary = "\r36 frames in 2.0 s, 18.0 fps";
  EXPECT_EQ(std::string(buf, len), line + summary + std::string(line.size() - summary.size(), ' ') + "\n");
  std::fclose(out);
  std::free(buf);
}

}  // namespace
}  // namespace lumamark
