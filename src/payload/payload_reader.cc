// Payload file reader.
#include "payload/payload_reader.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <utility>

#include "payload/layout.h"

namespace lumamark {
namespace {

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();
// Large payloads are read in pieces of this size so that a short file fails
// before the whole claimed size has been allocated.
constexpr size_t kReadPiece = size_t{1} << 24;

bool read_i32_le(FILE* f, int32_t* value) {
  unsigned char b[4];
  if (std::fread(b, 1, 4, f) != 4) return false;
  const uint32_t u = uint32_t{b[0]} | (uint32_t{b[1]} << 8) | (uint32_t{b[2]} << 16) |
                     (uint32_t{b[3]} << 24);
  *value = static_cast<int32_t>(u);
  return true;
}

// Reads exactly size bytes into out. A size of 0 counts as a failed read.
bool read_block(FILE* f, size_t size, std::vector<uint8_t>* out) {
  out->clear();
  if (size == 0) return false;
  while (out->size() < size) {
    const size_t have = out->size();
    const size_t piece = std::min(kReadPiece, size - have);
    out->resize(have + piece);
    if (std::fread(out->data() + have, 1, piece, f) != piece) return false;
  }
  return true;
}

// A header is refused when its geometry cannot describe a superpixel grid:
// a non-positive SP width, a negative frame size, a map too large for a
// 32-bit count, or a superpixel too small to keep its two borders apart.
bool header_usable(int32_t width, int32_t height, int32_t sp, int32_t spb_width) {
  if (sp <= 0 || width < 0 || height < 0) return false;
  const int64_t n_sp = int64_t{width / sp} * int64_t{height / sp};
  if (n_sp > kInt32Max) return false;
  const int64_t border = spb_width > 0 ? spb_width : std::max(sp / 8, 1);
  return int64_t{sp} > 2 * border;
}

bool fail(FILE* f, const char* what, const std::string& path, std::string* message) {
  *message = what + path;
  std::fclose(f);
  return false;
}

}  // namespace

bool load_payload_file(const std::string& path, int32_t fec, int32_t spb_width, PayloadData* out,
                       std::string* message) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    *message = "Error opening payload file: " + path;
    return false;
  }
  const char* header_message = "Failed to read payload header from: ";
  int32_t width = 0, height = 0, sp = 0, count = 0;
  if (!read_i32_le(f, &width) || !read_i32_le(f, &height) || !read_i32_le(f, &sp)) {
    return fail(f, header_message, path, message);
  }
  // The stored SP height is skipped: superpixels are square.
  if (std::fseek(f, 4, SEEK_CUR) != 0 || !read_i32_le(f, &count)) {
    return fail(f, header_message, path, message);
  }
  if (!header_usable(width, height, sp, spb_width)) return fail(f, header_message, path, message);
  if (fec == 0 && (count < 0 || int64_t{count} * kIndexRows > kInt32Max)) {
    return fail(f, header_message, path, message);
  }

  const int32_t n_sp = mark_grid(width, height, sp).cells;  // fits: checked above
  PayloadData data;
  data.width = width;
  data.height = height;
  data.sp_size = sp;
  if (fec == 0) {
    // The writer stored bits + (bits + 7) / 8; this undoes it.
    data.encoded_bit_count = count;
    data.bits = mark_bits_of_length(count);
  } else {
    data.encoded_bit_count = n_sp;
    data.bits = count;
  }
  if (!read_block(f, static_cast<size_t>(n_sp), &data.map)) {
    return fail(f, "Failed to read payload map from: ", path, message);
  }
  if (fec == 0) {
    const size_t size = static_cast<size_t>(mark_index_table_bytes(data.encoded_bit_count));
    if (!read_block(f, size, &data.indexes)) {
      return fail(f, "Failed to read payload indexes from: ", path, message);
    }
  }
  std::fclose(f);
  *out = std::move(data);
  return true;
}

}  // namespace lumamark
