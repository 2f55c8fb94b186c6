// Chroma that never enters user memory: when the input is a pipe or a
// regular file and the output a pipe, a regular file (not appended to) or
// /dev/null, the chroma planes of each frame are moved from the input into a
// pipe of the tool's own with splice(2), and from there to the output after
// the frame's luma. The kernel hands on pipe pages and lends a file's cached
// pages without copying them; into a regular file it copies them once, where
// reading and writing would copy them twice. The luma plane is still read
// into and written from the frame buffer, since the filter changes it.
//
// The tool keeps a few pipes per frame buffer, together holding the chroma
// of the frame in that buffer: the system allows an ordinary user 1 MiB per
// pipe, less than the chroma of a 2160p frame. When they are full (the
// system allows less, or the input arrived in small pieces, which fill the
// pipes' slots with little data each) the rest of the frame's chroma is read
// into the frame buffer as usual: a frame can have the start of its chroma
// in its pipes and the rest in its buffer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumamark {

inline constexpr int32_t kMaxChromaSlots = 8;   // frame buffers
inline constexpr int32_t kMaxPipesPerSlot = 8;  // pipes per frame buffer

struct ChromaPipe {
  int read_fd[kMaxChromaSlots][kMaxPipesPerSlot];   // per frame buffer: read ends of its pipes
  int write_fd[kMaxChromaSlots][kMaxPipesPerSlot];  // write ends
  size_t held[kMaxChromaSlots][kMaxPipesPerSlot];   // bytes in each pipe
  int32_t filling[kMaxChromaSlots];                 // per frame buffer: the pipe being filled
  int32_t count = 0;                                // frame buffers with their pipes open
  int32_t pipes = 0;                                // pipes per frame buffer
  size_t luma = 0;                                  // bytes of the luma plane at the start of each frame
};

// Opens the pipes of count frame buffers (at most kMaxChromaSlots) when
// in_fd and out_fd are of the kinds above and the frame has chroma after its
// width x height luma plane; false (and nothing open) otherwise, or when the
// pipes cannot be had.
bool chroma_pipe_open(ChromaPipe* pipe, int32_t count, int in_fd, int out_fd, int64_t frame_size,
                      int32_t width, int32_t height);

// Closes the pipes (what is left in them is dropped).
void chroma_pipe_close(ChromaPipe* pipe);

// Bytes of chroma the pipes of frame buffer i hold.
size_t chroma_pipe_held(const ChromaPipe* pipe, int32_t i);

// Starts the chroma of a new frame in the pipes of frame buffer i, which
// are empty (the frame before it in that buffer was drained).
void chroma_pipe_begin(ChromaPipe* pipe, int32_t i);

// Moves up to bytes from the input into the pipes of frame buffer i. Waits
// for input (poll, the only blocking and cancellable point); returns the
// bytes moved, 0 at the end of input, -1 with errno EAGAIN when the pipes
// are full or the input's file system cannot splice (the caller reads the
// rest itself), -1 with another errno on failure.
int64_t chroma_pipe_fill(ChromaPipe* pipe, int32_t i, int in_fd, size_t bytes);

// Moves what the pipes of frame buffer i hold to the output, in order
// (out_fd -1: drops it), copying it through memory when the output turns
// out not to take splices. False when the output did not take it all; the
// rest is then drained from the pipes, which are empty again either way.
bool chroma_pipe_drain_to(ChromaPipe* pipe, int32_t i, int out_fd);

// Writes all size bytes to fd, again after an interruption; false when the
// output does not take them all.
bool write_all(int fd, const void* bytes, size_t size);

}  // namespace lumamark
