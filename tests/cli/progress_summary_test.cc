#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli/progress.h"

namespace lumamark {
namespace {

int64_t g_clock = 0;
int64_t summary_clock() { return g_clock; }

// The summary replaces the drawn line (padded over it) and ends the line;
// nothing follows it, and a disabled progress writes no summary.
TEST(ProgressSummary, ReplacesTheLineAndEndsIt) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* out = open_memstream(&buf, &len);
  ASSERT_NE(out, nullptr);
  {
    Progress p(out, true, summary_clock);
    for (int i = 0; i < 35; ++i) p.frame_done(3'110'400);
    g_clock += 2'000'000'000;
    p.frame_done(3'110'400);  // drawn: the interval has passed
    p.summarize();
    p.frame_done(1);
    p.finish();
  }
  Progress(out, false, summary_clock).summarize();
  std::fflush(out);
  const std::string line = "\r36 frames  18.0 fps  56.0 MB/s  2.0 s";
  const std::string summary = "\r36 frames in 2.0 s, 18.0 fps";
  EXPECT_EQ(std::string(buf, len), line + summary + std::string(line.size() - summary.size(), ' ') + "\n");
  std::fclose(out);
  std::free(buf);
}

}  // namespace
}  // namespace lumamark
