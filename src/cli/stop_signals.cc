// Stop signals of the frame loop: caught into a flag, taken only while the
// loop waits for input, re-raised once the run has cleaned up.
#include "cli/stop_signals.h"

#include <poll.h>
#include <pthread.h>

#include <cerrno>
#include <csignal>

namespace lumamark {
namespace {

volatile sig_atomic_t g_stop_signal = 0;

extern "C" void on_stop_signal(int sig) { g_stop_signal = sig; }

// Installs the handler for sig unless sig is ignored; true when installed.
bool catch_signal(int sig, struct sigaction* old) {
  if (sigaction(sig, nullptr, old) != 0 || old->sa_handler == SIG_IGN) return false;
  struct sigaction sa = {};
  sa.sa_handler = on_stop_signal;
  sigemptyset(&sa.sa_mask);
  // No SA_RESTART: a wait for input is interrupted. No other call can be:
  // the signals are blocked everywhere else.
  sa.sa_flags = 0;
  return sigaction(sig, &sa, nullptr) == 0;
}

}  // namespace

StopSignals::StopSignals() {
  sigemptyset(&blocked_);
  pthread_sigmask(SIG_SETMASK, nullptr, &wait_mask_);
  int_caught_ = catch_signal(SIGINT, &old_int_);
  term_caught_ = catch_signal(SIGTERM, &old_term_);
  if (int_caught_) sigaddset(&blocked_, SIGINT);
  if (term_caught_) sigaddset(&blocked_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked_, nullptr);
}

StopSignals::~StopSignals() {
  if (int_caught_) sigaction(SIGINT, &old_int_, nullptr);
  if (term_caught_) sigaction(SIGTERM, &old_term_, nullptr);
  pthread_sigmask(SIG_SETMASK, &wait_mask_, nullptr);
}

bool StopSignals::wait_readable(int fd) const {
  struct pollfd p = {fd, POLLIN, 0};
  while (g_stop_signal == 0) {
    // The signals caught here are let in only for the duration of the wait,
    // atomically, so that one arriving just before it is not missed.
    const int rc = ppoll(&p, 1, nullptr, &wait_mask_);
    if (rc >= 0 || errno != EINTR) break;  // readable, or an error the read reports
  }
  return g_stop_signal == 0;
}

int StopSignals::caught() { return g_stop_signal; }

void StopSignals::reraise_caught() {
  const int sig = g_stop_signal;
  if (sig == 0) return;
  struct sigaction sa = {};
  sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  sigaction(sig, &sa, nullptr);
  raise(sig);  // pending while blocked
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
}

}  // namespace lumamark
