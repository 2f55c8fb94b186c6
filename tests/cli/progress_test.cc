#include "cli/progress.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace lumamark {
namespace {

int64_t g_now = 0;
int64_t fake_clock() { return g_now; }

// Captures what a Progress writes, through a memory stream.
class ProgressTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now = 1'000'000'000;
    out_ = open_memstream(&buf_, &len_);
    ASSERT_NE(out_, nullptr);
  }
  void TearDown() override {
    std::fclose(out_);
    std::free(buf_);
  }
  std::string text() {
    std::fflush(out_);
    return std::string(buf_, len_);
  }
  FILE* out_ = nullptr;
  char* buf_ = nullptr;
  size_t len_ = 0;
};

TEST_F(ProgressTest, DisabledNeverWrites) {
  {
    Progress p(out_, false, fake_clock);
    for (int i = 0; i < 10; ++i) {
      g_now += Progress::kInterval;
      p.frame_done(1000);
    }
    p.finish();
  }
  EXPECT_EQ(text(), "");
}

TEST_F(ProgressTest, RedrawsAtMostOncePerIntervalAndShowsRates) {
  Progress p(out_, true, fake_clock);
  g_now += 100'000'000;  // 0.1 s
  p.frame_done(3'110'400);
  EXPECT_EQ(text(), "") << "no line before the first interval has passed";

  g_now += 200'000'000;  // 0.3 s after start, 2 frames
  p.frame_done(3'110'400);
  EXPECT_EQ(text(), "\r2 frames  6.7 fps  20.7 MB/s  0.3 s");

  const size_t before = text().size();
  g_now += 1000;
  p.frame_done(3'110'400);
  EXPECT_EQ(text().size(), before) << "redrawn too soon";

  g_now += 300'000'000;  // just past 0.6 s, 4 frames
  p.frame_done(3'110'400);
  EXPECT_EQ(text().substr(before), "\r4 frames  6.7 fps  20.7 MB/s  0.6 s");
}

TEST_F(ProgressTest, ShorterLinePadsAndFinishErasesOnce) {
  Progress p(out_, true, fake_clock);
  for (int i = 0; i < 11; ++i) p.frame_done(1'000'000);
  g_now += 10 * Progress::kInterval;  // 2.5 s
  p.frame_done(1'000'000);
  g_now += 10 * Progress::kInterval;  // 5 s
  p.frame_done(1'000'000);
  const std::string first = "\r12 frames  4.8 fps  4.8 MB/s  2.5 s";
  const std::string second = "\r13 frames  2.6 fps  2.6 MB/s  5.0 s";
  ASSERT_EQ(text(), first + second);

  p.finish();
  const std::string erase = "\r" + std::string(second.size() - 1, ' ') + "\r";
  EXPECT_EQ(text(), first + second + erase);

  g_now += 10 * Progress::kInterval;
  p.frame_done(1'000'000);
  p.finish();
  EXPECT_EQ(text(), first + second + erase) << "nothing may follow finish";
}

TEST_F(ProgressTest, LineShrinkingIsPaddedWithSpaces) {
  Progress p(out_, true, fake_clock);
  for (int i = 0; i < 99; ++i) p.frame_done(10'000'000);
  g_now += 4 * Progress::kInterval;  // 1 s, 100 frames of 10 MB: a long line
  p.frame_done(10'000'000);
  const std::string first = text();
  ASSERT_EQ(first, "\r100 frames  100.0 fps  1000.0 MB/s  1.0 s");
  g_now += 396 * Progress::kInterval;  // 100 s in all: a shorter line
  p.frame_done(0);
  const std::string second = "\r101 frames  1.0 fps  10.0 MB/s  100.0 s";
  EXPECT_EQ(text(), first + second + std::string(first.size() - second.size(), ' '));
}

TEST_F(ProgressTest, QuickRunLeavesNothingBehind) {
  Progress p(out_, true, fake_clock);
  p.frame_done(100);
  p.finish();
  EXPECT_EQ(text(), "");
}

// The default constructor enables itself only when standard error is a terminal.
TEST(ProgressTerminal, FollowsWhetherStandardErrorIsATerminal) {
  const int saved = dup(STDERR_FILENO);
  ASSERT_GE(saved, 0);

  int master = -1, slave = -1;
  ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
  std::fflush(stderr);
  dup2(slave, STDERR_FILENO);
  bool on_tty;
  {
    Progress p;
    on_tty = p.enabled();
  }
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  dup2(fileno(file), STDERR_FILENO);
  bool on_file;
  {
    Progress p;
    on_file = p.enabled();
  }
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(slave);
  close(master);
  std::fclose(file);

  EXPECT_TRUE(on_tty);
  EXPECT_FALSE(on_file);
}

}  // namespace
}  // namespace lumamark
