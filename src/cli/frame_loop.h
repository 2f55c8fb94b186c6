// Raw frames: their size, and the loop that streams them from the input
// through the filter to the output.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "cli/stop_signals.h"
#include "cli/y4m.h"
#include "filter/filter.h"

namespace lumamark {

// Bytes of one planar frame, or 0 for an unknown pixel format. The product
// wraps in 32 bits and the 4:2:0 halving truncates toward zero before the
// result is widened, so odd or oversized frames keep their 32-bit size.
int64_t frame_size_for(const std::string& pix_fmt, int32_t width, int32_t height);

// True when the 32-bit frame size wrapped to a positive number too small for
// the width x height luma plane that the filter works on: such frames would
// make the filter read and write past the frame buffer, and are refused like
// a size of 0. (A size that wrapped to a negative number is refused by the
// allocation of the frame buffer.)
bool frame_size_wrapped(int64_t frame_size, int32_t width, int32_t height);

// How the frame loop ended.
enum class LoopEnd {
  Done,          // the input ended (a partial last frame is dropped)
  FilterFailed,  // the filter failed on a frame; "Error applying watermark" was reported
  Malformed,     // a y4m line was not a FRAME line; its error was reported
  Failed,        // the plain y4m loop failed; its error was reported
};

// Streams whole frames from in to out through the filter until the input
// ends, the filter fails on a frame, or a stop signal arrives (stops; the
// frames already read are finished and written, a partial one is dropped,
// and the loop ends as at the end of the input). buffer holds two frames.
// Large frames without an embedding log (logging false) are read ahead and
// written behind on threads of their own, with the same output, messages and
// order. Write results are not examined: a frame the output does not take is
// lost and the run goes on, as the tool's contract has it. The first prefill
// bytes of the first frame (read to tell raw input from y4m) are already in
// buffer.
LoopEnd stream_frames(WatermarkFilter* filter, uint8_t* buffer, int64_t frame_size, FILE* in,
                      FILE* out, int32_t width, int32_t height, int32_t seed, bool logging,
                      size_t prefill, const StopSignals* stops);

// The same for y4m input, after its header (already read from in): writes
// the header, then every whole frame with its FRAME line, unchanged. A line
// that is not a FRAME line is reported ("Error: malformed y4m FRAME line
// before frame N") once the frames before it are written; a FRAME line cut
// short at the end of the input is dropped like a partial frame. buffer
// holds two frames.
LoopEnd stream_y4m_frames(WatermarkFilter* filter, const Y4mHeader& header, uint8_t* buffer,
                          FILE* in, FILE* out, int32_t seed, bool logging, const StopSignals* stops);

// Where the frames start in a regular output file; other outputs are not
// examined.
struct OutputStart {
  bool regular = false;
  int64_t offset = 0;
};
OutputStart output_start(FILE* out);

// Flushes out and, when it is a regular file in which a write failed part-way
// through a frame (a full disk, a file-size limit), cuts that partial frame
// off, so that the file holds whole frames only.
void keep_whole_frames(FILE* out, const OutputStart& start, int64_t frame_size);

}  // namespace lumamark
