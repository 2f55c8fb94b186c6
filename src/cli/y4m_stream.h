// Input detection and y4m frame streaming for both tools. The first bytes of
// the input tell y4m from raw video; raw input then flows exactly as before,
// the bytes already read being the start of its first frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/y4m.h"

namespace lumamark {

struct WatermarkFilter;
class StopSignals;

// An input whose first bytes have been read to tell its kind.
struct PeekedInput {
  PeekedInput() = default;
  PeekedInput(const PeekedInput&) = delete;
  PeekedInput& operator=(const PeekedInput&) = delete;
  ~PeekedInput();

  // Hands the stream over (its owner closes it from then on).
  FILE* release();

  FILE* file = nullptr;    // the input; null when it could not be opened
  bool owned = false;      // file was opened here and is closed with this object
  uint8_t head[kY4mSignature.size()] = {};  // raw input: its first bytes, already read
  size_t head_size = 0;    // bytes in head
  bool y4m = false;        // the input is a y4m stream; header holds its header
  Y4mHeader header;        // y4m only
};

enum class PeekResult { kRaw, kY4m, kRefused };

// Opens path (empty = standard input) and reads its first bytes. kY4m reads
// and parses the header line as well; kRefused gives the reason in *error (a
// y4m header that cannot be read). A terminal is not read ahead and counts as
// raw, and so does a file that cannot be opened (file stays null; the caller
// reports it where it reports an unopenable input).
PeekResult peek_input(const std::string& path, PeekedInput* in, std::string* error);

// The embedder's plain frame loop for y4m, one frame at a time (small
// frames, runs with an embedding log; larger frames are streamed by
// stream_y4m_frames, with the same output): writes the header, then for every whole
// frame its FRAME line, unchanged, and the frame with its luma marked.
// buffer holds one frame. A partial last frame is dropped, as with raw
// input. A stop signal (stops) is taken only while waiting for input and
// ends the loop as the end of the input does. Returns true at the end of the
// input, false after reporting a malformed FRAME line or a failed frame on
// standard error.
bool run_y4m_frames(WatermarkFilter* filter, const Y4mHeader& header, uint8_t* buffer, FILE* in,
                    FILE* out, int32_t seed, const StopSignals* stops);

// Appends to *to the bytes the stream has read ahead of its descriptor (the
// rest of the buffer filled while its header was read), taking them from
// the stream, so that reading may go on with the descriptor alone.
void take_read_ahead(FILE* in, std::string* to);

// Whole frames of a peeked input, raw or y4m, for readers that only look at
// them (the detector).
class FrameReader {
 public:
  FrameReader(PeekedInput* in, size_t frame_bytes) : in_(in), frame_bytes_(frame_bytes) {}

  // Reads the next frame into frame (frame_bytes bytes): kOk, kEnd at the
  // end of the input (a partial frame is dropped), kBad for a malformed y4m
  // FRAME line. The vector grows in pieces of 16 MiB as bytes arrive, so a
  // frame size far larger than the input costs only the input's size.
  Y4mLine next(std::vector<uint8_t>* frame);

 private:
  PeekedInput* in_;
  size_t frame_bytes_;
  std::string line_;
};

}  // namespace lumamark
