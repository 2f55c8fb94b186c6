// SIGINT and SIGTERM during the frame loop: a run asked to stop finishes or
// abandons the frame in flight, so that its output ends on a frame boundary,
// and then ends through the same signal, so that its parent sees 128 + signal.
#pragma once

#include <signal.h>

namespace lumamark {

class StopSignals {
 public:
  // Catches SIGINT and SIGTERM, each unless it is ignored (an inherited
  // ignore, as for a background job, is kept), and blocks both in the calling
  // thread and in every thread it starts later: they are taken only inside
  // wait_readable, between whole frames.
  StopSignals();
  // Restores the dispositions and the signal mask found at construction.
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Waits until fd has bytes to read (or its end, or an error) or a stop
  // signal arrives; false once a stop signal has arrived. May be called from
  // any thread that inherited the mask.
  bool wait_readable(int fd) const;

  // The stop signal that arrived, or 0.
  static int caught();

  // When a stop signal arrived: restores its default action and raises it
  // again, which ends the process. Returns only when none arrived.
  void reraise_caught();

 private:
  sigset_t wait_mask_;        // the mask found at construction, used while waiting
  sigset_t blocked_;          // the signals caught here
  struct sigaction old_int_;  // dispositions found at construction
  struct sigaction old_term_;
  bool int_caught_ = false;   // SIGINT / SIGTERM have our handler
  bool term_caught_ = false;
};

}  // namespace lumamark
