// y4m (YUV4MPEG2) streams: the stream header, the FRAME line before each
// frame, and the frame size they describe. Parsing only; the streams
// themselves are read and written by the frame loops.
//
// A stream is one header line, then for every frame a line starting with
// "FRAME" and the frame's planar Y, U, V bytes. The header's W and H give
// the frame size and its C parameter the chroma layout; only 8-bit planar
// 4:2:0, 4:2:2 and 4:4:4 are accepted. Chroma planes of odd sizes round up:
// (W + 1) / 2 columns, and for 4:2:0 (H + 1) / 2 rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace lumamark {

// The first bytes of every y4m stream.
inline constexpr std::string_view kY4mSignature = "YUV4MPEG2 ";

// Longest header or FRAME line accepted, line end included.
inline constexpr size_t kY4mMaxLine = 65536;

// What a y4m stream header says.
struct Y4mHeader {
  int32_t width = 0;     // W: frame width in pixels
  int32_t height = 0;    // H: frame height in pixels
  std::string pix_fmt;   // "yuv420p", "yuv422p" or "yuv444p", from the C parameter
  std::string line;      // the whole header line with its line end, written back unchanged
};

// True when data (size bytes) starts with the y4m signature.
bool y4m_has_signature(const uint8_t* data, size_t size);

// Parses a header line (with or without its final line end). Returns an
// empty text on success, else the reason it is refused (a whole message,
// without a line end); out->line is set to line in both cases.
std::string y4m_parse_header(std::string_view line, Y4mHeader* out);

// Bytes of one frame of a parsed header (luma plus both chroma planes).
int64_t y4m_frame_bytes(const Y4mHeader& header);

// True for a FRAME line: "FRAME" followed by a line end or by a space and
// frame parameters, then a line end.
bool y4m_is_frame_line(std::string_view line);

// The refusal for a --width, --height or --pix-fmt given explicitly on the
// command line that disagrees with the header, or an empty text. Options not
// given take the header's values.
std::string y4m_option_conflict(const Y4mHeader& header, bool width_given, int32_t width,
                                bool height_given, int32_t height, bool pix_fmt_given,
                                const std::string& pix_fmt);

enum class Y4mLine { kOk, kEnd, kBad };

// Reads one line, its line end included, into *line: kOk, kEnd when the
// input ends before any byte of it, kBad when it ends inside the line or the
// line exceeds kY4mMaxLine.
Y4mLine y4m_read_line(FILE* in, std::string* line);

}  // namespace lumamark
