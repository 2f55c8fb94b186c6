#include "cli/progress.h"

#include <unistd.h>

#include <chrono>

namespace lumamark {
namespace {

int64_t steady_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Progress::Progress() : Progress(stderr, isatty(STDERR_FILENO) == 1) {}

Progress::Progress(FILE* out, bool enabled, ClockFn clock)
    : out_(out), enabled_(enabled && out != nullptr), clock_(clock ? clock : steady_ns) {
  if (enabled_) {
    start_ = clock_();
    last_draw_ = start_;
  }
}

Progress::~Progress() { finish(); }

void Progress::tick() {
  const int64_t now = clock_();
  if (now - last_draw_ < kInterval) return;
  last_draw_ = now;
  const double seconds = double(now - start_) / 1e9;
  const double fps = double(frames_) / seconds;
  const double mbps = double(bytes_) / 1e6 / seconds;
  char line[128];
  const int len = std::snprintf(line, sizeof line, "%lld frames  %.1f fps  %.1f MB/s  %.1f s",
                                static_cast<long long>(frames_), fps, mbps, seconds);
  if (len <= 0) return;
  const int32_t visible = len < int(sizeof line) ? len : int32_t(sizeof line) - 1;
  // Pad with spaces when the new line is shorter, so no stale characters remain.
  const int32_t pad = drawn_len_ > visible ? drawn_len_ - visible : 0;
  std::fprintf(out_, "\r%s%*s", line, int(pad), "");
  std::fflush(out_);
  drawn_len_ = visible + pad;
}

void Progress::summarize() {
  if (!enabled_) return;
  const double seconds = double(clock_() - start_) / 1e9;
  const double fps = seconds > 0 ? double(frames_) / seconds : 0.0;
  char line[128];
  const int len = std::snprintf(line, sizeof line, "%lld frames in %.1f s, %.1f fps",
                                static_cast<long long>(frames_), seconds, fps);
  const int32_t visible = len < 0 ? 0 : len < int(sizeof line) ? len : int32_t(sizeof line) - 1;
  const int32_t pad = drawn_len_ > visible ? drawn_len_ - visible : 0;
  std::fprintf(out_, "\r%s%*s\n", line, int(pad), "");
  std::fflush(out_);
  drawn_len_ = 0;
  enabled_ = false;
}

void Progress::finish() {
  if (!enabled_) return;
  enabled_ = false;
  if (drawn_len_ > 0) {
    std::fprintf(out_, "\r%*s\r", int(drawn_len_), "");
    std::fflush(out_);
    drawn_len_ = 0;
  }
}

}  // namespace lumamark
