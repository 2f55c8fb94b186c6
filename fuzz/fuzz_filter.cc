// Fuzz target: filter initialisation and per-frame application on small
// frames, with fuzzed settings, payload and picture.
//
// Settings are drawn within what the command line lets through to the
// filter: the superpixel side and border pass the front end's checks (or, for
// a payload-file geometry, the reader's), strength is at least 1 and the
// superpixel density lies in 0..100; everything else (pixel density, modes,
// identifier, bit count, seed, URN) is taken as it comes. The frame buffer is
// exactly the luma plane, so any access past it is caught.
//
// Checked after every frame: no sample outside the inner area of a
// superpixel has changed (borders and the uncovered right and bottom strips
// stay as they were), and the result does not depend on the thread count.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "cli/options.h"
#include "filter/filter.h"
#include "payload/payload_map.h"
#include "fuzz_util.h"

namespace {

using lumamark::fuzz::NullBuffer;
using lumamark::fuzz::check;

struct Settings {
  int32_t strength = 3;
  int32_t sp_size = 7;
  int32_t sp_border = 0;
  int32_t p_density = 100;
  int32_t sp_density = 100;
  int32_t width = 64;
  int32_t height = 48;
  std::string wm_id = "0";
  int32_t bit_count = 13;
  int32_t deep_fake = 0;
  int32_t fec_mode = 2;
  int32_t pm_mode = 3;
  int32_t seed = -1;
  int32_t threads = 1;
  std::string urn = "00000000000000000000000000000000";
  bool log = false;
  // Payload as a payload file would bring it: raw map and index bytes and the
  // count from the file's header. Empty: generated from the settings.
  bool from_file = false;
  std::vector<uint8_t> file_map;
  std::vector<uint8_t> file_indexes;
  int32_t file_encoded = 0;
  int32_t frames = 1;
};

std::string hex_text(FuzzedDataProvider& in) {
  static const char kDigits[] = "0123456789abcdefABCDEF";
  const size_t n = in.ConsumeIntegralInRange<size_t>(0, 12);
  std::string s;
  for (size_t i = 0; i < n; ++i) s += kDigits[in.ConsumeIntegralInRange<int>(0, 21)];
  return s;
}

// Draws settings the command line would hand over. Returns false when the
// front end would refuse them before the filter exists.
bool draw_settings(FuzzedDataProvider& in, Settings* s) {
  s->strength = in.ConsumeIntegralInRange<int32_t>(1, 40);
  s->from_file = in.ConsumeBool();
  s->sp_border = in.ConsumeBool() ? in.ConsumeIntegralInRange<int32_t>(-2, 40)
                                  : in.ConsumeIntegral<int32_t>();
  s->sp_size = in.ConsumeIntegralInRange<int32_t>(5, 64);
  // The command line's side always passes the front end's checks.
  lumamark::EmbedConfig config;
  config.sp_width = s->sp_size;
  config.spb_width = s->sp_border;
  if (!lumamark::check_config(config)) return false;
  if (s->from_file) {
    // A payload file brings its own side, checked by the reader alone.
    s->sp_size = in.ConsumeIntegralInRange<int32_t>(1, 80);
    const int64_t border = s->sp_border > 0 ? s->sp_border : std::max(s->sp_size / 8, 1);
    if (s->sp_size <= 2 * border) return false;
  }
  s->p_density = in.ConsumeBool() ? in.ConsumeIntegralInRange<int32_t>(-10, 110)
                                  : in.ConsumeIntegral<int32_t>();
  s->sp_density = in.ConsumeIntegralInRange<int32_t>(0, 100);
  s->width = in.ConsumeIntegralInRange<int32_t>(1, 160);
  s->height = in.ConsumeIntegralInRange<int32_t>(1, 120);
  s->wm_id = in.ConsumeBool() ? hex_text(in) : in.ConsumeRandomLengthString(16);
  // Long payloads are rare: each Reed-Muller block of more than 60 bits costs
  // a 131072-symbol codeword.
  s->bit_count = in.ConsumeIntegralInRange<int>(0, 7) != 0
                     ? in.ConsumeIntegralInRange<int32_t>(-2, 80)
                     : in.ConsumeIntegralInRange<int32_t>(-3, 2100);
  s->deep_fake = in.ConsumeBool() ? 1 : 0;
  switch (in.ConsumeIntegralInRange<int>(0, 4)) {
    case 0: s->fec_mode = 0; break;
    case 1: s->fec_mode = in.ConsumeIntegral<int32_t>(); break;
    default: s->fec_mode = 2; break;
  }
  s->pm_mode = in.ConsumeBool() ? in.ConsumeIntegralInRange<int32_t>(0, 3)
                                : in.ConsumeIntegral<int32_t>();
  s->seed = in.ConsumeIntegral<int32_t>();
  // Mostly one thread; 0 is one per online processor, 70 more than the 64
  // workers allowed.
  static constexpr int32_t kThreads[] = {0, 1, 1, 1, 1, 1, 2, 3, 4, 70};
  s->threads = kThreads[in.ConsumeIntegralInRange<int>(0, 9)];
  if (in.ConsumeBool()) s->urn = in.ConsumeBytesAsString(32);
  s->log = in.ConsumeBool();
  s->frames = in.ConsumeIntegralInRange<int32_t>(1, 2);
  if (s->from_file) {
    const int64_t n_sp = int64_t{s->width / s->sp_size} * (s->height / s->sp_size);
    if (n_sp < 1) return false;  // the reader refuses an empty map
    s->file_map = in.ConsumeBytes<uint8_t>(static_cast<size_t>(n_sp));
    s->file_map.resize(static_cast<size_t>(n_sp), 0);
    if (s->fec_mode == 0) {
      // The header's count is the coded length; the bit count follows from it.
      s->file_encoded = in.ConsumeIntegralInRange<int32_t>(1, 300);
      s->bit_count = s->file_encoded - (s->file_encoded + 8) / 9;
      s->file_indexes = in.ConsumeBytes<uint8_t>(static_cast<size_t>(s->file_encoded) * 16);
      s->file_indexes.resize(static_cast<size_t>(s->file_encoded) * 16, 0);
    } else {
      s->file_encoded = static_cast<int32_t>(n_sp);
    }
  }
  return true;
}

// One run of the tool's sequence on the given frames; returns the marked
// frames (empty when the filter refused the settings).
std::vector<uint8_t> run(const Settings& s, int32_t threads, const std::vector<uint8_t>& frames,
                         const std::string& log_path) {
  lumamark::WatermarkFilter* f = lumamark::wm_filter_create();
  check(f != nullptr);
  const int32_t rc = lumamark::wm_filter_init(f, s.strength, s.sp_size, s.sp_border, s.p_density,
                                              s.sp_density, 1, 1, s.width, s.height,
                                              s.wm_id.c_str(), s.bit_count, s.deep_fake,
                                              s.fec_mode, s.pm_mode);
  if (rc != 0) {
    check(rc < 0);
    lumamark::wm_filter_free(f);
    return {};
  }
  if (s.log) lumamark::wm_filter_set_log_path(f, log_path.c_str());
  lumamark::wm_filter_set_threads(f, threads);

  if (s.from_file) {
    lumamark::wm_filter_set_payload(f, s.file_map.data(),
                                    s.file_indexes.empty() ? nullptr : s.file_indexes.data(),
                                    s.file_encoded, s.sp_size, s.width, s.height);
  } else {
    const int32_t n_sp = (s.width / s.sp_size) * (s.height / s.sp_size);
    const int32_t encoded = f->encoded_bit_count;
    std::vector<uint8_t> map(static_cast<size_t>(n_sp), 0);
    std::vector<uint8_t> indexes;
    if (s.fec_mode == 0 && encoded > 0) indexes.assign(static_cast<size_t>(encoded) * 16, 0);
    uint8_t* idx = indexes.empty() ? nullptr : indexes.data();
    lumamark::wm_generate_payload_map(f, map.data(), s.urn.c_str(), idx);
    lumamark::wm_filter_set_payload(f, map.data(), idx, encoded, s.sp_size, s.width, s.height);
  }

  std::vector<uint8_t> out = frames;
  const size_t plane = static_cast<size_t>(s.width) * static_cast<size_t>(s.height);
  for (size_t at = 0; at < out.size(); at += plane) {
    // Each frame in a buffer of exactly its size.
    std::vector<uint8_t> frame(out.begin() + static_cast<ptrdiff_t>(at),
                               out.begin() + static_cast<ptrdiff_t>(at + plane));
    const int32_t applied = lumamark::wm_filter_apply(f, frame.data(), s.width, s.height,
                                                      s.width, s.seed);
    check(applied == 0);  // an initialised filter with a grid takes every frame
    std::copy(frame.begin(), frame.end(), out.begin() + static_cast<ptrdiff_t>(at));
  }
  lumamark::wm_filter_free(f);
  return out;
}

// True when (x, y) lies in the inner area of a superpixel of the grid.
bool in_inner_area(const Settings& s, int32_t x, int32_t y) {
  const int32_t cols = s.width / s.sp_size;
  const int32_t rows = s.height / s.sp_size;
  if (x >= cols * s.sp_size || y >= rows * s.sp_size) return false;
  const int64_t b = s.sp_border > 0 ? s.sp_border : std::max(s.sp_size / 8, 1);
  const int64_t lx = x % s.sp_size;
  const int64_t ly = y % s.sp_size;
  return lx >= b && lx < s.sp_size - b && ly >= b && ly < s.sp_size - b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static NullBuffer null_buffer;
  static std::string log_path;
  static const bool prepared = [] {
    std::cout.rdbuf(&null_buffer);
    std::cerr.rdbuf(&null_buffer);
    // The filter prints its refusals with printf on standard output, the
    // payload generator its failure on standard error.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    const int fd = memfd_create("embed_log", 0);
    if (fd < 0) std::abort();
    log_path = "/proc/self/fd/" + std::to_string(fd);
    return true;
  }();
  (void)prepared;

  FuzzedDataProvider in(data, size);
  Settings s;
  if (!draw_settings(in, &s)) return 0;

  const size_t plane = static_cast<size_t>(s.width) * static_cast<size_t>(s.height);
  std::vector<uint8_t> frames(plane * static_cast<size_t>(s.frames));
  const std::vector<uint8_t> content = in.ConsumeRemainingBytes<uint8_t>();
  for (size_t i = 0; i < frames.size(); ++i) {
    // The content repeats; without any, a ramp.
    frames[i] = content.empty() ? static_cast<uint8_t>(i * 7) : content[i % content.size()];
  }

  const std::vector<uint8_t> marked = run(s, s.threads, frames, log_path);
  if (marked.empty()) return 0;
  check(marked.size() == frames.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    if (marked[i] == frames[i]) continue;
    const size_t p = i % plane;
    check(in_inner_area(s, static_cast<int32_t>(p % static_cast<size_t>(s.width)),
                        static_cast<int32_t>(p / static_cast<size_t>(s.width))));
  }
  if (s.threads != 1) check(run(s, 1, frames, log_path) == marked);
  return 0;
}
