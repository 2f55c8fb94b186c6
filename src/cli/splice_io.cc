// Chroma moved from the input to the output with splice(2).
#include "cli/splice_io.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>

namespace lumamark {

namespace {

// Inputs whose bytes splice(2) can take: pipes, and regular files, whose
// pages the kernel then lends to the pipe without copying them.
bool splice_input(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISREG(st.st_mode));
}

// Outputs splice(2) can write: pipes, /dev/null, and regular files not
// opened for appending (splice refuses those).
bool splice_output(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  if (S_ISFIFO(st.st_mode)) return true;
  if (S_ISCHR(st.st_mode)) return st.st_rdev == makedev(1, 3);
  if (!S_ISREG(st.st_mode)) return false;
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_APPEND) == 0;
}

// Writes all of bytes; false when the output does not take them.
bool write_all(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t put = write(fd, bytes, size);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    bytes += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

// Each pipe is asked to hold one frame's chroma; the system may allow less
// (1 MiB unless the process may raise the limit).
constexpr int64_t kMaxPipeBytes = 16 * 1024 * 1024;
constexpr int64_t kMinPipeBytes = 64 * 1024;

}  // namespace

bool chroma_pipe_open(ChromaPipe* pipe, int32_t count, int in_fd, int out_fd, int64_t frame_size,
                      int32_t width, int32_t height) {
  *pipe = ChromaPipe{};
  const int64_t luma = int64_t{width} * int64_t{height};
  if (width < 1 || height < 1 || luma >= frame_size) return false;
  if (count < 1 || count > kMaxChromaPipes) return false;
  if (!splice_input(in_fd) || !splice_output(out_fd)) return false;
  for (int32_t i = 0; i < count; ++i) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      chroma_pipe_close(pipe);
      return false;
    }
    pipe->read_fd[i] = fds[0];
    pipe->write_fd[i] = fds[1];
    pipe->count = i + 1;
    // As large as allowed up to one frame's chroma; a smaller pipe only
    // sends more chroma through the frame buffer.
    int64_t want = frame_size - luma;
    if (want > kMaxPipeBytes) want = kMaxPipeBytes;
    for (; want >= kMinPipeBytes; want /= 2) {
      if (fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(want)) >= 0) break;
    }
  }
  pipe->luma = static_cast<size_t>(luma);
  return true;
}

void chroma_pipe_close(ChromaPipe* pipe) {
  for (int32_t i = 0; i < pipe->count; ++i) {
    close(pipe->read_fd[i]);
    close(pipe->write_fd[i]);
  }
  pipe->count = 0;
}

int64_t chroma_pipe_fill(ChromaPipe* pipe, int32_t i, int in_fd, size_t bytes) {
  for (;;) {
    // The splice below must not wait on pipe i (it is emptied only
    // once this frame is marked), so it does not wait at all, and the wait
    // for input happens here. The frame loop cancels its reader only while
    // it waits for input.
    struct pollfd input = {in_fd, POLLIN, 0};
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    const int ready = poll(&input, 1, -1);
    pthread_setcancelstate(old, &old);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    // With input waiting (or its writers gone: 0 below), EAGAIN can only
    // mean that pipe i is full.
    const ssize_t moved =
        splice(in_fd, nullptr, pipe->write_fd[i], nullptr, bytes, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    if (moved < 0 && errno == EINTR) continue;
    // A file system that cannot splice its files: the caller reads the
    // rest, as for a full pipe.
    if (moved < 0 && errno == EINVAL) errno = EAGAIN;
    return moved;
  }
}

bool chroma_pipe_drain_to(ChromaPipe* pipe, int32_t i, int out_fd, size_t bytes) {
  size_t left = bytes;
  bool copying = false;  // the output cannot be spliced to: copied through memory
  while (left > 0 && out_fd >= 0 && !copying) {
    const ssize_t moved = splice(pipe->read_fd[i], nullptr, out_fd, nullptr, left, SPLICE_F_MOVE);
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0 && errno == EINVAL) {
      copying = true;
      break;
    }
    if (moved <= 0) break;
    left -= static_cast<size_t>(moved);
  }
  if (left == 0) return true;
  // What is not spliced is read from the pipe, and written when the output
  // cannot be spliced to, or dropped when it failed.
  bool taken = copying;
  char sink[16384];
  while (left > 0) {
    const ssize_t got = read(pipe->read_fd[i], sink, left < sizeof sink ? left : sizeof sink);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    left -= static_cast<size_t>(got);
    if (taken) taken = write_all(out_fd, sink, static_cast<size_t>(got));
  }
  return taken && left == 0;
}

}  // namespace lumamark
