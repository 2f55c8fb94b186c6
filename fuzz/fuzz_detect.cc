// Fuzz target: the detector. The input starts with a command line for
// lumamark-detect (words separated by NUL bytes, up to the first backslash
// escape that FuzzedDataProvider reads as the end of a string); the options
// are parsed, detector_init judges the settings, and frames of fuzzed luma
// go through measurement, soft values and decoding.
//
// Settings with a frame larger than 256 x 256 are judged by detector_init
// only when it refuses them before building anything (a superpixel side out
// of range, no superpixel, more superpixels than the limit); otherwise the
// frame size is replaced by a small fuzzed one, so that an execution stays
// short. The thread count is capped at 4.
//
// Checked: a refusal always carries a message; an accepted detector has the
// grid the settings describe; each luma plane is a buffer of exactly width x
// height bytes, so any access past it is caught; the result has bit_profile
// bits, its hexadecimal form, a finite z and the verdict z calls for; an
// expected ID gives a bit error rate in [0, 1].
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <streambuf>
#include <string>
#include <vector>

#include "cli/detect_cli.h"
#include "decode/detector.h"
#include "payload/wm_id.h"
#include "fuzz_util.h"

namespace {

using lumamark::fuzz::NullBuffer;
using lumamark::fuzz::check;

constexpr size_t kMaxWords = 48;
constexpr int64_t kMaxFuzzPixels = 256 * 256;

// True when detector_init refuses these settings before sizing any table.
bool refused_early(const lumamark::DetectConfig& c) {
  if (c.threads < 0 || c.sp_width < 5 || c.sp_width > 64) return true;
  if (c.width < 1 || c.height < 1) return true;
  const int64_t cells = int64_t{c.width / c.sp_width} * (c.height / c.sp_width);
  return cells < 1 || cells > lumamark::kMaxDetectorCells;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NullBuffer null_buffer;
  static std::ostream null_stream(&null_buffer);
  static const bool silenced = [] {
    std::cout.rdbuf(&null_buffer);
    std::cerr.rdbuf(&null_buffer);
    return true;
  }();
  (void)silenced;

  FuzzedDataProvider in(data, size);
  const std::string line = in.ConsumeRandomLengthString(512);
  std::vector<std::string> words{"lumamark-detect"};
  std::string word;
  for (char ch : line) {
    if (words.size() >= kMaxWords) break;
    if (ch == '\0') {
      words.push_back(word);
      word.clear();
    } else {
      word.push_back(ch);
    }
  }
  if (!word.empty() && words.size() < kMaxWords) words.push_back(word);
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  lumamark::DetectOptions o;
  const lumamark::DetectParse parsed =
      lumamark::parse_detect_options(static_cast<int>(words.size()), argv.data(), &o, null_stream);
  if (parsed != lumamark::DetectParse::kRun) return 0;
  check(o.max_frames == -1 || o.max_frames >= 1);
  lumamark::DetectConfig c = o.config;
  if (c.threads > 4) c.threads = 4;

  std::string error;
  if (int64_t{c.width} * c.height > kMaxFuzzPixels || c.width < 1 || c.height < 1) {
    if (refused_early(c)) {
      lumamark::Detector d;
      check(lumamark::detector_init(&d, c, &error) == -1 && !error.empty());
      return 0;
    }
    c.width = in.ConsumeIntegralInRange<int32_t>(1, 256);
    c.height = in.ConsumeIntegralInRange<int32_t>(1, 256);
    error.clear();
  }

  lumamark::Detector d;
  if (lumamark::detector_init(&d, c, &error) != 0) {
    check(!error.empty());
    return 0;
  }
  const int32_t cols = c.width / c.sp_width, rows = c.height / c.sp_width;
  check(d.cells == cols * rows && d.grid.cols == cols && d.grid.rows == rows);
  check(d.length >= 1 && d.length <= d.cells);

  const int frames = in.ConsumeIntegralInRange<int>(0, 3);
  const size_t plane = static_cast<size_t>(c.width) * static_cast<size_t>(c.height);
  for (int f = 0; f < frames; ++f) {
    const std::vector<uint8_t> bytes = in.ConsumeBytes<uint8_t>(plane);
    // What the input does not cover is a fuzzed level with a gentle ramp.
    const uint8_t level = in.ConsumeIntegral<uint8_t>();
    std::unique_ptr<uint8_t[]> luma(new uint8_t[plane]);
    for (size_t i = 0; i < plane; ++i) {
      luma[i] = i < bytes.size() ? bytes[i] : static_cast<uint8_t>(level + i % 7);
    }
    lumamark::detector_add_frame(&d, luma.get(), c.width);
  }

  const lumamark::DetectResult r = lumamark::detector_result(&d);
  check(r.frames == frames);
  check(r.bits.size() == static_cast<size_t>(c.bit_profile));
  for (char b : r.bits) check(b == '0' || b == '1');
  check(r.wm_id.size() == (r.bits.size() + 3) / 4);
  check(std::isfinite(r.z));
  check(r.verdict == lumamark::verdict_for(r.z));

  if (!o.expect_id.empty() && lumamark::wm_id_validate(o.expect_id.c_str(), c.bit_profile) == 0) {
    char* bits = lumamark::hex_to_bits(o.expect_id.c_str(), static_cast<uint32_t>(c.bit_profile));
    const std::string expected = lumamark::detector_expected_symbols(d, bits);
    std::free(bits);
    check(expected.empty() || expected.size() == static_cast<size_t>(d.cells));
    const double ber = lumamark::detector_bit_error_rate(d, expected);
    check(ber >= 0.0 && ber <= 1.0);
  }
  return 0;
}
