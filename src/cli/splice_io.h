// Chroma that never enters user memory: when the input is a pipe or a
// regular file and the output a pipe, a regular file (not appended to) or
// /dev/null, the chroma planes of each frame are moved from the input into a
// pipe of the tool's own with splice(2), and from there to the output after
// the frame's luma. The kernel hands on pipe pages and lends a file's cached
// pages without copying them; into a regular file it copies them once, where
// reading and writing would copy them twice. The luma plane is still read
// into and written from the frame buffer, since the filter changes it.
//
// The tool keeps one pipe per frame buffer of the frame loop, each holding
// the chroma of the frame in that buffer. When a pipe is full (the system
// allows less than a frame's chroma, or the input arrived in small pieces,
// which fill the pipe's slots with little data each) the rest of the
// frame's chroma is read into the frame buffer as usual: a frame can have
// the start of its chroma in its pipe and the rest in its buffer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumamark {

inline constexpr int32_t kMaxChromaPipes = 8;

struct ChromaPipe {
  int read_fd[kMaxChromaPipes];   // per frame buffer: read end of its pipe
  int write_fd[kMaxChromaPipes];  // write end
  int32_t count = 0;              // pipes open
  size_t luma = 0;                // bytes of the luma plane at the start of each frame
};

// Opens one pipe per frame buffer (count of them, at most kMaxChromaPipes)
// when in_fd and out_fd are of the kinds above and the frame has chroma after its
// width x height luma plane; false (and nothing open) otherwise, or when the
// pipes cannot be had.
bool chroma_pipe_open(ChromaPipe* pipe, int32_t count, int in_fd, int out_fd, int64_t frame_size,
                      int32_t width, int32_t height);

// Closes the pipes (what is left in them is dropped).
void chroma_pipe_close(ChromaPipe* pipe);

// Moves up to bytes from the input into pipe i. Waits for input (poll, the
// only blocking and cancellable point); returns the bytes moved, 0 at the
// end of input, -1 with errno EAGAIN when pipe i is full or the input's file
// system cannot splice (the caller reads the rest itself), -1 with another
// errno on failure.
int64_t chroma_pipe_fill(ChromaPipe* pipe, int32_t i, int in_fd, size_t bytes);

// Moves bytes from pipe i to the output (out_fd -1: drops them), copying
// them through memory when the output turns out not to take splices. False
// when the output did not take them all; the rest is then drained from the
// pipe, which is empty again either way.
bool chroma_pipe_drain_to(ChromaPipe* pipe, int32_t i, int out_fd, size_t bytes);

}  // namespace lumamark
