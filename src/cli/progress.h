// Live progress line for the frame loop: frames, frames per second and MB/s,
// redrawn in place with "\r" on standard error at most a few times per
// second, and erased at the end. It only ever writes when standard error is
// a terminal, so redirected or piped error output stays exactly as the tool's
// messages leave it.
//
// Use from the frame loop:
//   Progress progress;                 // decides once: is stderr a terminal?
//   ... per frame: progress.frame_done(frame_size);
//   ... at the end, and before any error message: progress.finish();
//   ... or, at the normal end, the summary line: progress.summarize();
// When disabled, frame_done is one predictable branch.
#pragma once

#include <cstdint>
#include <cstdio>

namespace lumamark {

class Progress {
 public:
  // Monotonic clock in nanoseconds; replaceable for tests.
  using ClockFn = int64_t (*)();

  // Enabled when standard error is a terminal.
  Progress();
  // Explicit form: writes to out when enabled, reading the time from clock
  // (null = the steady clock).
  Progress(FILE* out, bool enabled, ClockFn clock = nullptr);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Counts one finished frame of the given size in bytes; redraws the line
  // when enough time has passed since the last redraw.
  void frame_done(int64_t bytes) {
    if (!enabled_) return;
    ++frames_;
    bytes_ += bytes;
    tick();
  }

  // Erases the line if one was drawn. Further calls, and the destructor, do
  // nothing more; no line is drawn after finish.
  void finish();

  // At the normal end of a run: replaces the line with a summary ("72 frames
  // in 4.0 s, 17.8 fps") and a line end, then behaves as after finish.
  // Writes nothing when disabled.
  void summarize();

  bool enabled() const { return enabled_; }

  // Time between two redraws, in nanoseconds.
  static constexpr int64_t kInterval = 250'000'000;

 private:
  void tick();

  FILE* out_;              // where the line is drawn
  bool enabled_;           // false: nothing is ever written
  ClockFn clock_;          // time source, nanoseconds
  int64_t start_ = 0;      // clock at construction
  int64_t last_draw_ = 0;  // clock at the last redraw (start before the first)
  int64_t frames_ = 0;     // frames counted so far
  int64_t bytes_ = 0;      // bytes counted so far
  int32_t drawn_len_ = 0;  // visible length of the line on screen, 0 = none
};

}  // namespace lumamark
