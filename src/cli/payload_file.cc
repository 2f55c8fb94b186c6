// Payload file reader and writer.
#include "cli/payload_file.h"

#include <cstdio>
#include <iostream>

namespace lumamark {
namespace {

void write_i32_le(FILE* f, int32_t value) {
  const uint32_t u = static_cast<uint32_t>(value);
  const unsigned char b[4] = {static_cast<unsigned char>(u), static_cast<unsigned char>(u >> 8),
                              static_cast<unsigned char>(u >> 16),
                              static_cast<unsigned char>(u >> 24)};
  std::fwrite(b, 1, 4, f);
}

void write_bytes(FILE* f, const std::vector<uint8_t>& bytes) {
  if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
}

}  // namespace

bool read_payload_file(const std::string& path, int32_t fec, int32_t spb_width, PayloadData* out) {
  std::string message;
  if (load_payload_file(path, fec, spb_width, out, &message)) return true;
  std::cerr << message << std::endl;
  return false;
}

bool write_payload_file(const std::string& path, const PayloadData& data, int32_t fec) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    std::cerr << "Error opening payload file: " << path << std::endl;
    return false;
  }
  // Write results are not examined, like those of the video output.
  write_i32_le(f, data.width);
  write_i32_le(f, data.height);
  write_i32_le(f, data.sp_size);
  write_i32_le(f, data.sp_size);
  write_i32_le(f, fec == 0 ? data.encoded_bit_count : data.bits);
  write_bytes(f, data.map);
  write_bytes(f, data.indexes);
  std::fclose(f);
  return true;
}

}  // namespace lumamark
