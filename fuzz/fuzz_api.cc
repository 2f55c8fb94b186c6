// Fuzzes the public C library: settings given by name from untrusted text,
// then, for geometries small enough to run quickly, an embedder and a
// detector over frames made of the remaining bytes. The library must answer
// every input with a return code: no crash, no abort, no sanitizer report.
//
// Input layout: NUL-separated "name", "value" pairs; a pair whose name is
// empty ends the settings, and what follows is pixel data.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "lumamark/lumamark.h"

namespace {

// Frames larger than this are only opened, never fed, to keep runs fast.
constexpr int64_t kMaxArea = 1 << 16;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lumamark_params p;
  lumamark_params_default(&p);
  p.width = 64;
  p.height = 48;
  size_t at = 0;
  auto next = [&](std::string* out) {
    const void* end = std::memchr(data + at, 0, size - at);
    if (end == nullptr) return false;
    const size_t n = static_cast<const uint8_t*>(end) - (data + at);
    out->assign(reinterpret_cast<const char*>(data + at), n);
    at += n + 1;
    return true;
  };
  std::string name, value;
  while (at < size && next(&name) && !name.empty() && next(&value)) {
    lumamark_params_set(&p, name.c_str(), value.c_str());
  }
  // Nothing may read a payload file from the fuzzing machine.
  p.payload_file[0] = '\0';
  p.threads = p.threads > 2 ? 2 : p.threads;
  // The geometric search costs seconds per input; the aligned read keeps
  // the fuzzer fast, and the search's settings are still parsed above.
  p.search = 0;

  const int64_t area = int64_t{p.width} * p.height;
  const bool small = p.width > 0 && p.height > 0 && area <= kMaxArea;
  std::vector<uint8_t> plane(small ? static_cast<size_t>(area) : 1, 0);
  for (size_t i = 0; at < size && i < plane.size(); ++i) plane[i] = data[at++];

  lumamark_embedder* e = nullptr;
  if (small && lumamark_embedder_open(&p, &e) == 0) {
    lumamark_embedder_process(e, plane.data(), p.width);
    lumamark_embedder_close(e);
  }
  const int32_t in_w = p.input_width > 0 ? p.input_width : p.width;
  const int32_t in_h = p.input_height > 0 ? p.input_height : p.height;
  const bool small_copy = small && in_w > 0 && in_h > 0 && int64_t{in_w} * in_h <= kMaxArea;
  lumamark_detector* d = nullptr;
  if (small_copy && lumamark_detector_open(&p, &d) == 0) {
    std::vector<uint8_t> copy(static_cast<size_t>(in_w) * in_h, 128);
    std::memcpy(copy.data(), plane.data(), std::min(copy.size(), plane.size()));
    lumamark_detector_add(d, copy.data(), in_w);
    lumamark_detection result;
    lumamark_detector_result(d, &result);
    lumamark_detector_close(d);
  }
  lumamark_strerror(static_cast<int>(size % 16) - 12);
  return 0;
}
