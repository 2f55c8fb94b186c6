// Payload file reader and writer.
#include "cli/payload_file.h"

#include <iostream>

#include "cli/file_safety.h"

namespace lumamark {
namespace {

void put_i32_le(std::vector<uint8_t>* out, int32_t value) {
  const uint32_t u = static_cast<uint32_t>(value);
  for (int k = 0; k < 4; ++k) out->push_back(static_cast<uint8_t>(u >> (8 * k)));
}

}  // namespace

bool read_payload_file(const std::string& path, int32_t fec, int32_t spb_width, PayloadData* out) {
  std::string message;
  if (load_payload_file(path, fec, spb_width, out, &message)) return true;
  std::cerr << message << std::endl;
  return false;
}

bool write_payload_file(const std::string& path, const PayloadData& data, int32_t fec) {
  std::vector<uint8_t> bytes;
  bytes.reserve(20 + data.map.size() + data.indexes.size());
  put_i32_le(&bytes, data.width);
  put_i32_le(&bytes, data.height);
  put_i32_le(&bytes, data.sp_size);
  put_i32_le(&bytes, data.sp_size);
  put_i32_le(&bytes, fec == 0 ? data.encoded_bit_count : data.bits);
  bytes.insert(bytes.end(), data.map.begin(), data.map.end());
  bytes.insert(bytes.end(), data.indexes.begin(), data.indexes.end());
  // A failed write is not reported, like those of the video output; it
  // leaves the file that was there before as it was.
  if (save_file(path, bytes.data(), bytes.size()) == SaveResult::NotOpened) {
    std::cerr << "Error opening payload file: " << path << std::endl;
    return false;
  }
  return true;
}

}  // namespace lumamark
