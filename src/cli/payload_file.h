// Payload file: a 20-byte little-endian header (width, height, SP width,
// SP width again, count), the payload map, and in FEC mode 0 the index table.
// The reading itself lives in payload/payload_reader.h; this reports its
// failures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "payload/payload_reader.h"

namespace lumamark {

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
