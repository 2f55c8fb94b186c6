// y4m stream headers and FRAME lines.
#include "cli/y4m.h"

#include <cstring>
#include <limits>

namespace lumamark {
namespace {

// The chroma layouts read, by the value of the C parameter. A header without
// a C parameter is 4:2:0, as the format defines.
struct ChromaRow {
  std::string_view tag;
  const char* pix_fmt;
};
constexpr ChromaRow kChroma[] = {
    {"420jpeg", "yuv420p"}, {"420mpeg2", "yuv420p"}, {"420paldv", "yuv420p"},
    {"420", "yuv420p"},     {"422", "yuv422p"},      {"444", "yuv444p"},
};

// Strict decimal size: 1 to 9 digits, no sign, value at least 1.
bool parse_size(std::string_view text, int32_t* value) {
  if (text.empty() || text.size() > 9) return false;
  int32_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  if (v < 1) return false;
  *value = v;
  return true;
}

}  // namespace

bool y4m_has_signature(const uint8_t* data, size_t size) {
  return size >= kY4mSignature.size() &&
         std::memcmp(data, kY4mSignature.data(), kY4mSignature.size()) == 0;
}

std::string y4m_parse_header(std::string_view line, Y4mHeader* out) {
  out->line = std::string(line);
  out->width = 0;
  out->height = 0;
  out->pix_fmt.clear();
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (line.substr(0, kY4mSignature.size()) != kY4mSignature) {
    return "Error: the input is not a y4m stream";
  }
  line.remove_prefix(kY4mSignature.size());
  bool width_ok = false, height_ok = false;
  std::string_view chroma = "420jpeg";
  // Parameters are separated by single spaces; each starts with its tag
  // letter. Unknown tags (frame rate, interlacing, aspect, X extensions) are
  // passed through unread.
  while (!line.empty()) {
    const size_t space = line.find(' ');
    const std::string_view param = line.substr(0, space);
    line = space == std::string_view::npos ? std::string_view() : line.substr(space + 1);
    if (param.empty()) continue;
    const std::string_view value = param.substr(1);
    switch (param[0]) {
      case 'W':
        width_ok = parse_size(value, &out->width);
        break;
      case 'H':
        height_ok = parse_size(value, &out->height);
        break;
      case 'C':
        chroma = value;
        break;
      default:
        break;
    }
  }
  if (!width_ok || !height_ok) {
    out->width = out->height = 0;
    return "Error: the y4m header gives no valid frame size (W and H)";
  }
  for (const ChromaRow& row : kChroma) {
    if (row.tag == chroma) out->pix_fmt = row.pix_fmt;
  }
  if (out->pix_fmt.empty()) {
    return "Error: y4m color space C" + std::string(chroma) +
           " is not supported (8-bit C420jpeg, C420mpeg2, C420paldv, C420, C422 and C444 are)";
  }
  // Every size the frame loop and the filter compute stays within 32 bits.
  if (y4m_frame_bytes(*out) > std::numeric_limits<int32_t>::max()) {
    return "Error: the y4m frame size " + std::to_string(out->width) + "x" +
           std::to_string(out->height) + " is too large";
  }
  return std::string();
}

int64_t y4m_frame_bytes(const Y4mHeader& h) {
  const int64_t w = h.width, ht = h.height;
  const int64_t cw = (w + 1) / 2;
  if (h.pix_fmt == "yuv420p") return w * ht + 2 * cw * ((ht + 1) / 2);
  if (h.pix_fmt == "yuv422p") return w * ht + 2 * cw * ht;
  if (h.pix_fmt == "yuv444p") return 3 * w * ht;
  return 0;
}

bool y4m_is_frame_line(std::string_view line) {
  if (line.empty() || line.back() != '\n') return false;
  line.remove_suffix(1);
  if (line.substr(0, 5) != "FRAME") return false;
  return line.size() == 5 || line[5] == ' ';
}

std::string y4m_option_conflict(const Y4mHeader& h, bool width_given, int32_t width,
                                bool height_given, int32_t height, bool pix_fmt_given,
                                const std::string& pix_fmt) {
  if (width_given && width != h.width) {
    return "Error: --width " + std::to_string(width) + " disagrees with the y4m header (W" +
           std::to_string(h.width) + ")";
  }
  if (height_given && height != h.height) {
    return "Error: --height " + std::to_string(height) + " disagrees with the y4m header (H" +
           std::to_string(h.height) + ")";
  }
  if (pix_fmt_given && pix_fmt != h.pix_fmt) {
    return "Error: --pix-fmt " + pix_fmt + " disagrees with the y4m header (" + h.pix_fmt + ")";
  }
  return std::string();
}

Y4mLine y4m_read_line(FILE* in, std::string* line) {
  line->clear();
  for (;;) {
    const int c = std::getc(in);
    if (c == EOF) return line->empty() ? Y4mLine::kEnd : Y4mLine::kBad;
    line->push_back(static_cast<char>(c));
    if (c == '\n') return Y4mLine::kOk;
    if (line->size() >= kY4mMaxLine) return Y4mLine::kBad;
  }
}

}  // namespace lumamark
