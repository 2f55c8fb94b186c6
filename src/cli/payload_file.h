// Payload file: a 20-byte little-endian header (width, height, SP width,
// SP width again, count), the payload map, and in FEC mode 0 the index table.
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
// writes the message to standard error and returns false.
bool read_payload_file(const std::string& path, int32_t fec, int32_t spb_width, PayloadData* out);

// Writes a payload file; count is bits in FEC mode 2, encoded_bit_count in
// mode 0. Returns false (after writing the message) when it cannot be opened.
// Write errors are not reported, but a regular file is replaced only by a
// complete one (see save_file): a failed write leaves the old file intact.
bool write_payload_file(const std::string& path, const PayloadData& data, int32_t fec);

}  // namespace lumamark
