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

// Each pipe is asked to hold the rest of a frame's chroma; the system may
// allow less (1 MiB unless the process may raise the limit).
constexpr int64_t kMaxPipeBytes = 16 * 1024 * 1024;
constexpr int64_t kMinPipeBytes = 64 * 1024;

// Moves bytes from fd (a pipe) to out_fd, or drops them with out_fd -1;
// false when the output did not take them all (the rest is then dropped).
// *copying is set once the output refuses splices, and they are then copied
// through memory.
bool drain_pipe(int fd, size_t bytes, int out_fd, bool* copying, bool* failed) {
  size_t left = bytes;
  while (left > 0 && out_fd >= 0 && !*copying && !*failed) {
    const ssize_t moved = splice(fd, nullptr, out_fd, nullptr, left, SPLICE_F_MOVE);
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0 && errno == EINVAL) {
      *copying = true;
      break;
    }
    if (moved <= 0) {
      *failed = true;
      break;
    }
    left -= static_cast<size_t>(moved);
  }
  // What is not spliced is read from the pipe, and written when the output
  // cannot be spliced to, or dropped when it failed.
  char sink[16384];
  while (left > 0) {
    const ssize_t got = read(fd, sink, left < sizeof sink ? left : sizeof sink);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    left -= static_cast<size_t>(got);
    if (out_fd < 0 || *failed) continue;
    if (*copying && !write_all(out_fd, sink, static_cast<size_t>(got))) *failed = true;
  }
  return out_fd >= 0 && !*failed && left == 0;
}

}  // namespace

bool write_all(int fd, const void* bytes, size_t size) {
  const char* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t put = write(fd, at, size);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    at += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

bool chroma_pipe_open(ChromaPipe* pipe, int32_t count, int in_fd, int out_fd, int64_t frame_size,
                      int32_t width, int32_t height) {
  *pipe = ChromaPipe{};
  const int64_t luma = int64_t{width} * int64_t{height};
  if (width < 1 || height < 1 || luma >= frame_size) return false;
  if (count < 1 || count > kMaxChromaSlots) return false;
  if (!splice_input(in_fd) || !splice_output(out_fd)) return false;
  for (int32_t i = 0; i < count; ++i) {
    // The first frame buffer gets enough pipes for a frame's chroma, as
    // large as allowed (fewer only send more chroma through the frame
    // buffer); the others get as many.
    int64_t left = frame_size - luma;
    int32_t j = 0;
    for (; i == 0 ? (j < kMaxPipesPerSlot && left > 0) : j < pipe->pipes; ++j) {
      int fds[2];
      if (pipe2(fds, O_CLOEXEC) != 0) break;
      pipe->read_fd[i][j] = fds[0];
      pipe->write_fd[i][j] = fds[1];
      int size = -1;
      for (int64_t want = left < kMaxPipeBytes ? left : kMaxPipeBytes; want >= kMinPipeBytes && size < 0; want /= 2) {
        size = fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(want));
      }
      left -= size > 0 ? size : kMinPipeBytes;
    }
    if (j == 0 || (i > 0 && j < pipe->pipes)) {
      for (int32_t k = 0; k < j; ++k) {
        close(pipe->read_fd[i][k]);
        close(pipe->write_fd[i][k]);
      }
      chroma_pipe_close(pipe);
      return false;
    }
    if (i == 0) pipe->pipes = j;
    pipe->count = i + 1;
  }
  pipe->luma = static_cast<size_t>(luma);
  return true;
}

void chroma_pipe_close(ChromaPipe* pipe) {
  for (int32_t i = 0; i < pipe->count; ++i) {
    for (int32_t j = 0; j < pipe->pipes; ++j) {
      close(pipe->read_fd[i][j]);
      close(pipe->write_fd[i][j]);
    }
  }
  pipe->count = 0;
  pipe->pipes = 0;
}

size_t chroma_pipe_held(const ChromaPipe* pipe, int32_t i) {
  size_t held = 0;
  for (int32_t j = 0; j < pipe->pipes; ++j) held += pipe->held[i][j];
  return held;
}

void chroma_pipe_begin(ChromaPipe* pipe, int32_t i) {
  pipe->filling[i] = 0;
  for (int32_t j = 0; j < pipe->pipes; ++j) pipe->held[i][j] = 0;
}

int64_t chroma_pipe_fill(ChromaPipe* pipe, int32_t i, int in_fd, size_t bytes) {
  for (;;) {
    if (pipe->filling[i] >= pipe->pipes) {
      errno = EAGAIN;
      return -1;
    }
    // The splice below must not wait on a pipe of frame buffer i (they are
    // emptied only once this frame is marked), so it does not wait at all,
    // and the wait for input happens here. The frame loop cancels its
    // reader only while it waits for input.
    struct pollfd input = {in_fd, POLLIN, 0};
    int old = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    const int ready = poll(&input, 1, -1);
    pthread_setcancelstate(old, &old);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    const int32_t j = pipe->filling[i];
    // With input waiting (or its writers gone: 0 below), EAGAIN can only
    // mean that pipe j is full: the next one is filled.
    const ssize_t moved =
        splice(in_fd, nullptr, pipe->write_fd[i][j], nullptr, bytes, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0 && errno == EAGAIN) {
      ++pipe->filling[i];
      continue;
    }
    // A file system that cannot splice its files: the caller reads the
    // rest, as for full pipes.
    if (moved < 0 && errno == EINVAL) errno = EAGAIN;
    if (moved > 0) pipe->held[i][j] += static_cast<size_t>(moved);
    return moved;
  }
}

bool chroma_pipe_drain_to(ChromaPipe* pipe, int32_t i, int out_fd) {
  bool copying = false, failed = false, all = true;
  for (int32_t j = 0; j < pipe->pipes; ++j) {
    if (pipe->held[i][j] > 0 && !drain_pipe(pipe->read_fd[i][j], pipe->held[i][j], out_fd, &copying, &failed)) {
      all = false;
    }
    pipe->held[i][j] = 0;
  }
  pipe->filling[i] = 0;
  return all;
}

}  // namespace lumamark
