// y4m header and FRAME-line parsing on arbitrary bytes: the whole input is
// read line by line as a stream would be; the first line is parsed as a
// header and every further line checked as a FRAME line. An accepted header
// must describe a frame the tools can hold, and must agree with options
// that repeat its own values.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli/y4m.h"
#include "fuzz_util.h"

using lumamark::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace lumamark;
  FILE* in = fmemopen(const_cast<uint8_t*>(data), size, "rb");
  if (in == nullptr) return 0;
  std::string line;
  bool first = true;
  for (;;) {
    const Y4mLine got = y4m_read_line(in, &line);
    if (got == Y4mLine::kEnd) break;
    check(line.size() <= kY4mMaxLine);
    check(got == Y4mLine::kBad || line.back() == '\n');
    if (first) {
      Y4mHeader h;
      const std::string reason = y4m_parse_header(line, &h);
      check(h.line == line);
      if (reason.empty()) {
        check(y4m_has_signature(reinterpret_cast<const uint8_t*>(line.data()), line.size()));
        check(h.width >= 1 && h.height >= 1);
        const int64_t bytes = y4m_frame_bytes(h);
        check(bytes >= int64_t{h.width} * h.height && bytes <= INT32_MAX);
        check(y4m_option_conflict(h, true, h.width, true, h.height, true, h.pix_fmt).empty());
      } else {
        check(reason.rfind("Error: ", 0) == 0);
      }
      first = false;
    } else if (y4m_is_frame_line(line)) {
      check(line.rfind("FRAME", 0) == 0 && line.back() == '\n');
    }
    if (got == Y4mLine::kBad) break;
  }
  std::fclose(in);
  return 0;
}
