// lumamark-detect: reads raw planar YUV frames, measures their luma, and tells
// whether they carry a watermark and which ID.
#include "decode/detect_cli.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <new>
#include <sstream>
#include <vector>

#include "decode/resync.h"

#include "payload/wm_id.h"

namespace lumamark {

namespace {

constexpr char kVersion[] = "2.1.3";

// Strict base-10 integer: optional sign and digits, nothing else, within the
// range of a signed 64-bit value.
bool parse_int(const std::string& text, int64_t* value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  *value = v;
  return true;
}

bool parse_int32(const std::string& text, int32_t* value) {
  int64_t v = 0;
  if (!parse_int(text, &v) || v < std::numeric_limits<int32_t>::min() ||
      v > std::numeric_limits<int32_t>::max()) {
    return false;
  }
  *value = static_cast<int32_t>(v);
  return true;
}

std::string format_z(double z) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f", z);
  return buf;
}

}  // namespace

void print_detect_usage(const char* program, std::ostream& out) {
  out << "Usage: " << program << " <options>\n"
      << "Reads raw planar YUV frames and looks for a watermark in their luma.\n"
      << "Options:\n"
      << "  --help                Show this help message\n"
      << "  --version             Show version information\n"
      << "  --input-file <path>   Input yuv file (default: standard input)\n"
      << "  --width <int>         Width the video was marked at (default 1920)\n"
      << "  --height <int>        Height the video was marked at (default 1080)\n"
      << "  --input-width <int>   Width of the copy being read (default: --width)\n"
      << "  --input-height <int>  Height of the copy being read (default: --height)\n"
      << "  --search <str>        Geometric search when the aligned read finds no mark:\n"
      << "                        none, fast or full (default: fast, then full if needed)\n"
      << "  --pix-fmt <str>       Pixel format: yuv420p (default), yuv422p or yuv444p\n"
      << "  --frames <int>        Number of frames to use (default: all)\n"
      << "  --sp-width <int>      Superpixel size used when embedding (default 7)\n"
      << "  --spb-width <int>     Superpixel border used when embedding (0 = auto)\n"
      << "  --fec <int>           Forward error correction mode used when embedding: 0 or 2 (default)\n"
      << "  --bit-profile <int>   Bit profile used when embedding (default 13)\n"
      << "  --user-urn <str>      User organization URN used when embedding\n"
      << "  --strength <int>      Embedding strength used when embedding (default 3)\n"
      << "  --seed <int>          Superpixel mask seed used when embedding (-1 = unknown, default)\n"
      << "  --sp-density <int>    Superpixel density used when embedding (default 100)\n"
      << "  --threads <int>       Number of threads to use (0 = auto-detect, default 1)\n"
      << "  --json                Print the result as one JSON object\n"
      << "  --wm-id <str>         Expected watermark ID: also report whether it matches and\n"
      << "                        the bit error rate of the superpixels against it\n";
}

DetectParse parse_detect_options(int argc, char** argv, DetectOptions* o, std::ostream& err) {
  if (argc < 2) {
    print_detect_usage(argc > 0 ? argv[0] : "lumamark-detect", std::cout);
    return DetectParse::kError;
  }
  DetectConfig& c = o->config;
  struct IntOption {
    const char* name;
    int32_t* field;
  };
  const IntOption ints[] = {
      {"--width", &c.width},         {"--height", &c.height},       {"--sp-width", &c.sp_width},
      {"--spb-width", &c.spb_width}, {"--fec", &c.fec},             {"--bit-profile", &c.bit_profile},
      {"--strength", &c.strength},   {"--seed", &c.seed},           {"--sp-density", &c.sp_density},
      {"--threads", &c.threads},     {"--input-width", &o->input_width},
      {"--input-height", &o->input_height},
  };
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      print_detect_usage(argv[0], std::cout);
      return DetectParse::kHelp;
    }
    if (arg == "--version") {
      std::cout << kVersion << std::endl;
      return DetectParse::kVersion;
    }
    if (arg == "--json") {
      o->json = true;
      continue;
    }
    const IntOption* int_option = nullptr;
    for (const IntOption& opt : ints) {
      if (arg == opt.name) int_option = &opt;
    }
    const bool takes_text = arg == "--input-file" || arg == "--pix-fmt" || arg == "--user-urn" ||
                            arg == "--wm-id" || arg == "--frames" || arg == "--search";
    if (int_option == nullptr && !takes_text) {
      err << "Error: Unknown option: " << arg << "\n";
      return DetectParse::kError;
    }
    if (i + 1 >= argc) {
      err << "Error: " << arg << " requires an argument\n";
      return DetectParse::kError;
    }
    const std::string value = argv[++i];
    if (int_option != nullptr) {
      if (!parse_int32(value, int_option->field)) {
        err << "Error: " << arg << " expects an integer, got '" << value << "'\n";
        return DetectParse::kError;
      }
    } else if (arg == "--frames") {
      int64_t n = 0;
      if (!parse_int(value, &n) || n < 1) {
        err << "Error: --frames expects a positive integer, got '" << value << "'\n";
        return DetectParse::kError;
      }
      o->max_frames = n;
    } else if (arg == "--search") {
      if (value == "none") {
        o->search = SearchMode::kNone;
      } else if (value == "fast") {
        o->search = SearchMode::kFast;
      } else if (value == "full") {
        o->search = SearchMode::kFull;
      } else {
        err << "Error: --search expects none, fast or full, got '" << value << "'\n";
        return DetectParse::kError;
      }
    } else if (arg == "--input-file") {
      o->input_file = value;
    } else if (arg == "--pix-fmt") {
      o->pix_fmt = value;
    } else if (arg == "--user-urn") {
      c.user_urn = value;
    } else {
      o->expect_id = value;
    }
  }
  return DetectParse::kRun;
}

int64_t detect_frame_bytes(const std::string& pix_fmt, int32_t width, int32_t height) {
  const int64_t luma = static_cast<int64_t>(width) * height;
  if (pix_fmt == "yuv420p") return luma * 3 / 2;
  if (pix_fmt == "yuv422p") return luma * 2;
  if (pix_fmt == "yuv444p") return luma * 3;
  return -1;
}

std::string format_detect_report(const DetectResult& r, const ExpectedCheck* expected,
                                 const std::string& expected_id, bool json,
                                 const GeometryReport& geometry) {
  std::ostringstream out;
  const std::string z = format_z(r.z);
  const GeoTransform& t = geometry.transform;
  char transform[256];
  std::snprintf(transform, sizeof transform,
                "{\"scale_x\": %.4f, \"scale_y\": %.4f, \"offset_x\": %.2f, \"offset_y\": %.2f, "
                "\"flip\": %s}",
                t.scale_x, t.scale_y, t.offset_x, t.offset_y, t.flip ? "true" : "false");
  const bool ambiguous = r.verdict == Verdict::kAmbiguous;
  if (json) {
    out << "{\"wm_id\": \"" << (ambiguous ? "" : r.wm_id) << "\", \"z\": " << z
        << ", \"frames\": " << r.frames << ", \"verdict\": \"" << verdict_name(r.verdict)
        << "\", \"transform\": " << transform;
    if (geometry.searched) {
      out << ", \"hypotheses\": " << geometry.hypotheses << ", \"candidates\": [";
      for (size_t i = 0; i < geometry.candidates.size(); ++i) {
        out << (i == 0 ? "" : ", ") << "{\"wm_id\": \"" << geometry.candidates[i].wm_id
            << "\", \"z\": " << format_z(geometry.candidates[i].z) << "}";
      }
      out << "]";
    }
    if (expected != nullptr) {
      char ber[32];
      std::snprintf(ber, sizeof ber, "%.4f", expected->ber);
      out << ", \"expected\": \"" << expected_id << "\", \"match\": "
          << (expected->match ? "true" : "false") << ", \"ber\": " << ber;
    }
    out << "}\n";
    return out.str();
  }
  const std::string frames = std::to_string(r.frames) + (r.frames == 1 ? " frame" : " frames");
  switch (r.verdict) {
    case Verdict::kDetected:
      out << "Watermark detected: ID " << r.wm_id << " (z " << z << " from " << frames << ").\n";
      break;
    case Verdict::kWeak:
      out << "Weak watermark: ID " << r.wm_id << " is uncertain (z " << z << " from " << frames
          << ").\n";
      break;
    case Verdict::kNone:
      out << "No watermark detected (z " << z << " from " << frames << "); the best guess, ID "
          << r.wm_id << ", is not reliable.\n";
      break;
    case Verdict::kAmbiguous:
      out << "Ambiguous watermark: several IDs fit about equally well, none is named (z " << z
          << " from " << frames << "). Candidates:";
      for (size_t i = 0; i < geometry.candidates.size(); ++i) {
        out << (i == 0 ? " " : ", ") << geometry.candidates[i].wm_id << " (z "
            << format_z(geometry.candidates[i].z) << ")";
      }
      out << ".\n";
      break;
  }
  if (geometry.searched) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "Geometry: scale %.4f x %.4f, offset %.2f, %.2f%s (%lld hypotheses tried).\n",
                  t.scale_x, t.scale_y, t.offset_x, t.offset_y, t.flip ? ", mirrored" : "",
                  static_cast<long long>(geometry.hypotheses));
    out << line;
  }
  if (r.blocks.size() > 1) {
    out << "Reed-Muller blocks:";
    for (size_t i = 0; i < r.blocks.size(); ++i) {
      out << (i == 0 ? " z " : ", ") << format_z(r.blocks[i].z);
    }
    out << " (bits 1.." << r.bits.size() << " in " << r.blocks.size() << " blocks).\n";
  }
  if (!r.parity_ok.empty()) {
    size_t pass = 0;
    for (uint8_t ok : r.parity_ok) pass += ok != 0;
    out << "Parity checks: " << pass << " of " << r.parity_ok.size() << " groups pass.\n";
  }
  if (expected != nullptr) {
    char ber[32];
    std::snprintf(ber, sizeof ber, "%.4f", expected->ber);
    out << "Expected ID " << expected_id << ": " << (expected->match ? "matches" : "does not match")
        << "; superpixel bit error rate against it " << ber << ".\n";
  }
  return out.str();
}

int detect_exit_status(Verdict v, const ExpectedCheck* expected) {
  if (v != Verdict::kDetected) return 2;
  return expected != nullptr && !expected->match ? 3 : 0;
}

namespace {

int run_detect_checked(int argc, char** argv) {
  DetectOptions o;
  switch (parse_detect_options(argc, argv, &o, std::cerr)) {
    case DetectParse::kRun:
      break;
    case DetectParse::kHelp:
    case DetectParse::kVersion:
      return 0;
    case DetectParse::kError:
      return 1;
  }
  const DetectConfig& c = o.config;
  Detector d;
  std::string error;
  if (detector_init(&d, c, &error) != 0) {
    std::cerr << "Error: " << error << "\n";
    return 1;
  }
  const int32_t in_w = o.input_width > 0 ? o.input_width : c.width;
  const int32_t in_h = o.input_height > 0 ? o.input_height : c.height;
  if (o.input_width < 0 || o.input_height < 0) {
    std::cerr << "Error: --input-width and --input-height must be positive\n";
    return 1;
  }
  const int64_t frame_bytes = detect_frame_bytes(o.pix_fmt, in_w, in_h);
  if (frame_bytes < 0) {
    std::cerr << "Error: Unsupported pixel format: " << o.pix_fmt
              << " (use yuv420p, yuv422p or yuv444p)\n";
    return 1;
  }
  std::string expected_bits;
  if (!o.expect_id.empty()) {
    if (wm_id_validate(o.expect_id.c_str(), c.bit_profile) != 0) {
      std::cerr << "Error: --wm-id " << o.expect_id << " is not a hexadecimal ID of at most "
                << c.bit_profile << " bits\n";
      return 1;
    }
    char* bits = hex_to_bits(o.expect_id.c_str(), static_cast<uint32_t>(c.bit_profile));
    expected_bits = bits;
    std::free(bits);
  }

  FILE* in = stdin;
  if (!o.input_file.empty()) {
    in = std::fopen(o.input_file.c_str(), "rb");
    if (in == nullptr) {
      std::cerr << "Error: Cannot open input file: " << o.input_file << "\n";
      return 1;
    }
  }
  // A copy of the marked size is read as it is, frame by frame; the first
  // frames are also kept for the geometric search.
  const bool same_size = in_w == c.width && in_h == c.height;
  CopyFrames copy;
  copy.width = in_w;
  copy.height = in_h;
  std::vector<uint8_t> frame(static_cast<size_t>(frame_bytes));
  int64_t frames = 0;
  while (o.max_frames < 0 || frames < o.max_frames) {
    if (std::fread(frame.data(), 1, frame.size(), in) != frame.size()) break;
    if (same_size) detector_add_frame(&d, frame.data(), c.width);
    if (copy.luma.size() < static_cast<size_t>(kSearchFrames)) {
      copy.luma.emplace_back(frame.begin(), frame.begin() + static_cast<ptrdiff_t>(in_w) * in_h);
    }
    ++frames;
  }
  const bool read_error = std::ferror(in) != 0;
  if (in != stdin) std::fclose(in);
  if (read_error) {
    std::cerr << "Error: Failed to read the input\n";
    return 1;
  }
  if (frames == 0) {
    std::cerr << "Error: The input holds no complete frame of " << in_w << "x" << in_h << " "
              << o.pix_fmt << "\n";
    return 1;
  }

  DetectResult result;
  GeometryReport geometry;
  ExpectedCheck check;
  bool aligned = same_size;
  if (same_size) {
    result = detector_result(&d);
    // A read at the wrong phase of the grid can decode a wrong ID (the
    // complement in the constant bits): a detected ID is trusted only when
    // the grid's other phases do not read another ID more clearly.
    const bool confirmed = result.verdict != Verdict::kDetected ||
                           o.search == SearchMode::kNone ||
                           aligned_read_confirmed(c, copy, result.bits);
    aligned = result.verdict == Verdict::kDetected && confirmed;
    if (result.verdict != Verdict::kDetected && o.search == SearchMode::kNone) aligned = true;
  }
  if (!aligned) {
    ResyncResult rs;
    std::string error;
    if (resync_search(c, copy, o.search, expected_bits, &rs, &error) != 0) {
      std::cerr << "Error: " << error << "\n";
      return 1;
    }
    // The search's answer stands when it names an ID or finds several; a
    // weaker one does not replace the aligned read's.
    const bool better = rs.result.verdict == Verdict::kDetected ||
                        rs.result.verdict == Verdict::kAmbiguous || !same_size ||
                        result.verdict == Verdict::kDetected;
    if (better) {
      result = rs.result;
      geometry.searched = o.search != SearchMode::kNone;
      geometry.transform = rs.transform;
      geometry.hypotheses = rs.hypotheses;
      geometry.candidates = rs.candidates;
      result.frames = static_cast<int32_t>(copy.luma.size());
      check.ber = rs.ber;
    } else {
      aligned = true;
    }
  }
  if (!expected_bits.empty()) {
    check.match = result.bits == expected_bits && result.verdict != Verdict::kAmbiguous;
    if (aligned) check.ber = detector_bit_error_rate(d, detector_expected_symbols(d, expected_bits));
  }
  std::cout << format_detect_report(result, expected_bits.empty() ? nullptr : &check,
                                    bits_to_hex(expected_bits), o.json, geometry);
  std::cout.flush();
  return detect_exit_status(result.verdict, expected_bits.empty() ? nullptr : &check);
}

}  // namespace

int run_detect(int argc, char** argv) {
  try {
    return run_detect_checked(argc, argv);
  } catch (const std::bad_alloc&) {
    std::cerr << "Error: Out of memory\n";
    return 1;
  }
}

}  // namespace lumamark
