// Fuzz target: payload-file reading, and what an accepted file does to the
// filter.
//
// Input: byte 0 selects the FEC mode (bit 0: 0 or 2) and bits 1..2 the
// perceptual mode; bytes 1..4 are the command line's --spb-width
// (little-endian); the rest is the file. An accepted file must describe a
// usable grid, must have held every byte it claims, must write back to the
// same bytes, and, when its frame is small, must go through the filter like a
// run of the tool would take it.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "cli/payload_file.h"
#include "filter/filter.h"
#include "fuzz_util.h"

namespace {

using lumamark::fuzz::NullBuffer;
using lumamark::fuzz::check;

// An in-memory file reachable by path, so the reader opens it like any file.
struct MemFile {
  int fd = -1;
  std::string path;
  explicit MemFile(const char* name) {
    fd = memfd_create(name, 0);
    if (fd < 0) std::abort();
    path = "/proc/self/fd/" + std::to_string(fd);
  }
  void set(const uint8_t* data, size_t size) const {
    if (ftruncate(fd, 0) != 0) std::abort();
    size_t done = 0;
    while (done < size) {
      const ssize_t n = pwrite(fd, data + done, size - done, static_cast<off_t>(done));
      if (n <= 0) std::abort();
      done += static_cast<size_t>(n);
    }
  }
  std::vector<uint8_t> get() const {
    const off_t size = lseek(fd, 0, SEEK_END);
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    if (size > 0 && pread(fd, bytes.data(), bytes.size(), 0) != size) std::abort();
    return bytes;
  }
};

int32_t le32(const uint8_t* p) {
  return static_cast<int32_t>(uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) |
                              (uint32_t{p[3]} << 24));
}

// Filter initialisation, payload and one frame, in the order of a run of the
// tool that reads this payload file (strength 3, densities 100, one thread).
void mark_one_frame(const lumamark::PayloadData& data, int32_t spb_width, int32_t fec,
                    int32_t pm_mode, const uint8_t* content, size_t content_size) {
  const int64_t plane = int64_t{data.width} * data.height;
  if (plane < 1 || plane > (int64_t{1} << 16)) return;
  lumamark::WatermarkFilter* f = lumamark::wm_filter_create();
  check(f != nullptr);
  if (lumamark::wm_filter_init(f, 3, data.sp_size, spb_width, 100, 100, 1, 1, data.width,
                               data.height, "0", data.bits, 0, fec, pm_mode) == 0) {
    lumamark::wm_filter_set_threads(f, 1);
    lumamark::wm_filter_set_payload(f, data.map.data(),
                                    data.indexes.empty() ? nullptr : data.indexes.data(),
                                    data.encoded_bit_count, data.sp_size, data.width, data.height);
    // Exactly the luma plane, so that any access past it is caught.
    std::vector<uint8_t> frame(static_cast<size_t>(plane));
    for (size_t i = 0; i < frame.size(); ++i) {
      frame[i] = content_size > 0 ? content[i % content_size] : static_cast<uint8_t>(i);
    }
    lumamark::wm_filter_apply(f, frame.data(), data.width, data.height, data.width, -1);
  }
  lumamark::wm_filter_free(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NullBuffer null_buffer;
  static MemFile input("payload_in");
  static MemFile output("payload_out");
  static const bool silenced = [] {
    std::cerr.rdbuf(&null_buffer);
    std::cout.rdbuf(&null_buffer);
    // The filter prints its refusals with printf on standard output.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    return true;
  }();
  (void)silenced;
  if (size < 5) return 0;

  const int32_t fec = (data[0] & 1) != 0 ? 2 : 0;
  const int32_t pm_mode = (data[0] >> 1) & 3;
  const int32_t spb_width = le32(data + 1);
  const uint8_t* file = data + 5;
  const size_t file_size = size - 5;
  input.set(file, file_size);

  lumamark::PayloadData got;
  if (!lumamark::read_payload_file(input.path, fec, spb_width, &got)) return 0;

  // What was accepted describes a usable grid and came whole from the file.
  check(file_size >= 20);
  check(got.width == le32(file) && got.height == le32(file + 4) && got.sp_size == le32(file + 8));
  check(got.sp_size > 0 && got.width >= 0 && got.height >= 0);
  const int64_t border = spb_width > 0 ? spb_width : std::max(got.sp_size / 8, 1);
  check(got.sp_size > 2 * border);
  const int64_t n_sp = int64_t{got.width / got.sp_size} * (got.height / got.sp_size);
  check(n_sp >= 1 && n_sp <= INT32_MAX);
  check(got.map.size() == static_cast<size_t>(n_sp));
  check(std::memcmp(got.map.data(), file + 20, got.map.size()) == 0);
  const int32_t count = le32(file + 16);
  if (fec == 0) {
    check(got.encoded_bit_count == count && count >= 1);
    check(got.bits == count - (count + 8) / 9);
    check(got.indexes.size() == static_cast<size_t>(count) * 16);
    check(file_size >= 20 + got.map.size() + got.indexes.size());
    check(std::memcmp(got.indexes.data(), file + 20 + got.map.size(), got.indexes.size()) == 0);
  } else {
    check(got.encoded_bit_count == n_sp && got.bits == count && got.indexes.empty());
    check(file_size >= 20 + got.map.size());
  }

  // Written back, the file holds the same parts (the SP height as the side).
  check(lumamark::write_payload_file(output.path, got, fec));
  const std::vector<uint8_t> written = output.get();
  const size_t parts = 20 + got.map.size() + got.indexes.size();
  check(written.size() == parts);
  check(std::memcmp(written.data(), file, 12) == 0);
  check(le32(written.data() + 12) == got.sp_size);
  check(std::memcmp(written.data() + 16, file + 16, parts - 16) == 0);

  mark_one_frame(got, spb_width, fec, pm_mode, file + parts, file_size - parts);
  return 0;
}
