// Reading a payload file: a 20-byte little-endian header (width, height, SP
// width, SP width again, count), the payload map, and in FEC mode 0 the index
// table. Silent: a failure is described to the caller, who reports it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lumamark {

struct PayloadData {
  int32_t width = 0;                 // frame width the payload was made for
  int32_t height = 0;                // frame height
  int32_t sp_size = 0;               // superpixel side
  int32_t bits = 0;                  // payload bits
  int32_t encoded_bit_count = 0;     // coded payload symbols
  std::vector<uint8_t> map;          // one byte per superpixel
  std::vector<uint8_t> indexes;      // 16 x encoded_bit_count bytes in FEC mode 0, else empty
};

// Reads a payload file for FEC mode fec. spb_width is the border setting
// (headers whose superpixel cannot hold its borders are refused). On failure
// returns false and sets *message to the report, e.g. "Error opening payload
// file: " and the path (no line end); *out is then unchanged.
bool load_payload_file(const std::string& path, int32_t fec, int32_t spb_width, PayloadData* out,
                       std::string* message);

}  // namespace lumamark
